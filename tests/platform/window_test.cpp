// Headless window classes and windows of the POSIX backend.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zk::os::Handle;

constexpr uint32_t kWmCreate = 0x0001;
constexpr uint32_t kWmDestroy = 0x0002;
constexpr uint32_t kWmClose = 0x0010;
constexpr uint32_t kWmUser = 0x0400;

struct Seen {
    Handle window;
    uint32_t message;
    zkAddr wParam;
    void* createParam;
};
std::vector<Seen> gSeen;
bool gRefuseCreate = false;

zkSAddr Recording(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam) {
    gSeen.push_back({window, message, wParam,
                     message == kWmCreate ? zk::os::WindowCreateParam(lParam) : nullptr});
    if (message == kWmCreate && gRefuseCreate) return -1;
    return zk::os::WindowDefaultProcedure(window, message, wParam, lParam);
}

// Each test gets a class of its own name, with the recording procedure
// installed through a first window.
class WindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        gSeen.clear();
        gRefuseCreate = false;
        name_ = std::string("ZkTestClass.") +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
        atom_ = zk::os::WindowClassRegister(name_.c_str(), nullptr, nullptr);
        ASSERT_NE(atom_, 0);
    }
    void TearDown() override {
        for (Handle w : created_)
            zk::os::WindowDestroy(w);
        zk::os::WindowClassUnregister(atom_, nullptr);
        zk::os::Message m;
        while (zk::os::MessagePeek(&m)) {
        }
    }
    Handle Create(void* param = nullptr) {
        Handle w = zk::os::WindowCreate(atom_, nullptr, "title", 0, nullptr, param);
        if (w) created_.push_back(w);
        return w;
    }
    Handle CreateRecorded(void* param = nullptr) {
        Handle first = Create();
        zk::os::WindowSetClassProcedure(first, &Recording);
        gSeen.clear();
        return Create(param);
    }
    std::string name_;
    uint16_t atom_ = 0;
    std::vector<Handle> created_;
};

TEST_F(WindowTest, CreateSendsCreateWithTheParameter) {
    int param = 0;
    Handle w = CreateRecorded(&param);
    ASSERT_NE(w, nullptr);
    ASSERT_EQ(gSeen.size(), 1u);
    EXPECT_EQ(gSeen[0].window, w);
    EXPECT_EQ(gSeen[0].message, kWmCreate);
    EXPECT_EQ(gSeen[0].createParam, &param);
    EXPECT_FALSE(zk::os::WindowIsVisible(w)); // hidden at creation
    EXPECT_EQ(zk::os::WindowCreateParam(0), nullptr);
}

TEST_F(WindowTest, CreateByNameFindsTheClass) {
    std::string upper = name_;
    for (char& c : upper)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    Handle w = zk::os::WindowCreate(0, upper.c_str(), "t", 0, nullptr, nullptr);
    ASSERT_NE(w, nullptr);
    created_.push_back(w);
    EXPECT_EQ(zk::os::WindowCreate(0, "NoSuchClass", "t", 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(zk::os::WindowCreate(0x1234, nullptr, "t", 0, nullptr, nullptr), nullptr);
}

TEST_F(WindowTest, ProcedureRefusingCreateFailsTheCreation) {
    CreateRecorded();
    gRefuseCreate = true;
    EXPECT_EQ(Create(), nullptr);
}

TEST_F(WindowTest, DestroySendsDestroyAndDropsLaterMessages) {
    Handle w = CreateRecorded();
    ASSERT_TRUE(zk::os::MessagePost(w, kWmUser, 1, 0));
    EXPECT_TRUE(zk::os::WindowDestroy(w));
    ASSERT_EQ(gSeen.size(), 2u);
    EXPECT_EQ(gSeen[1].message, kWmDestroy);
    EXPECT_FALSE(zk::os::WindowDestroy(w)); // already gone
    EXPECT_FALSE(zk::os::MessagePost(w, kWmUser, 2, 0));
    zk::os::Message m;
    EXPECT_FALSE(zk::os::MessagePeek(&m)); // the queued message went with the window
    zk::os::MessageDispatch(zk::os::Message{w, kWmUser, 3, 0});
    EXPECT_EQ(gSeen.size(), 2u); // nothing reaches a destroyed window
}

TEST_F(WindowTest, CloseThroughTheDefaultProcedureDestroys) {
    Handle w = Create(); // the class keeps the default procedure
    ASSERT_TRUE(zk::os::MessagePost(w, kWmClose, 0, 0));
    zk::os::Message m;
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.window, w);
    EXPECT_EQ(m.message, kWmClose);
    zk::os::MessageDispatch(m);
    EXPECT_EQ(zk::os::WindowFind(name_.c_str()), nullptr);
    EXPECT_FALSE(zk::os::MessagePost(w, kWmUser, 0, 0));
}

TEST_F(WindowTest, DispatchCallsTheInstalledProcedure) {
    Handle w = CreateRecorded();
    gSeen.clear();
    ASSERT_TRUE(zk::os::MessagePost(w, kWmUser, 7, 0));
    zk::os::Message m;
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    zk::os::MessageDispatch(m);
    ASSERT_EQ(gSeen.size(), 1u);
    EXPECT_EQ(gSeen[0].message, kWmUser);
    EXPECT_EQ(gSeen[0].wParam, 7u);
    zk::os::MessageDispatch(zk::os::Message{nullptr, 0x0012, 0, 0}); // thread message: no procedure
    EXPECT_EQ(gSeen.size(), 1u);
}

TEST_F(WindowTest, WordsFlagsAndFind) {
    Handle a = Create();
    Handle b = Create();
    zk::os::WindowSetClassWord(a, 0x1234);
    EXPECT_EQ(zk::os::WindowGetClassWord(b), 0x1234u); // shared by the class
    zk::os::WindowSetWord(a, 5);
    zk::os::WindowSetWord(b, 6);
    EXPECT_EQ(zk::os::WindowGetWord(a), 5u);
    EXPECT_EQ(zk::os::WindowGetWord(b), 6u);
    zk::os::WindowShow(a, true);
    EXPECT_TRUE(zk::os::WindowIsVisible(a));
    zk::os::WindowShow(a, false);
    EXPECT_FALSE(zk::os::WindowIsVisible(a));
    EXPECT_FALSE(zk::os::WindowIsMinimized(a));
    zk::os::WindowRestore(a);
    zk::os::WindowBringToFront(a);
    EXPECT_NE(zk::os::WindowFind(name_.c_str()), nullptr);
    EXPECT_EQ(zk::os::WindowFind("NoSuchClass"), nullptr);
    EXPECT_EQ(zk::os::WindowGetWord(nullptr), 0u);
}

TEST_F(WindowTest, ClassNamesAreUniqueAndUnregisterWaitsForTheWindows) {
    EXPECT_EQ(zk::os::WindowClassRegister(name_.c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(zk::os::WindowClassRegister("", nullptr, nullptr), 0);
    EXPECT_EQ(zk::os::WindowClassRegister(nullptr, nullptr, nullptr), 0);
    Handle w = Create();
    zk::os::WindowClassUnregister(atom_, nullptr); // refused: a window exists
    EXPECT_EQ(zk::os::WindowClassRegister(name_.c_str(), nullptr, nullptr), 0);
    zk::os::WindowDestroy(w);
    zk::os::WindowClassUnregister(atom_, nullptr);
    atom_ = zk::os::WindowClassRegister(name_.c_str(), nullptr, nullptr);
    EXPECT_NE(atom_, 0);
}

TEST(Icons, HeadlessBackendHasNone) {
    EXPECT_EQ(zk::os::IconExtractFromExecutable(), nullptr);
    EXPECT_EQ(zk::os::IconLoadFromLibrary(zk::os::LibraryModule()), nullptr);
    zk::os::IconDestroy(nullptr);
}

} // namespace

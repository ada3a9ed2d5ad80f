// Per-thread message queues, the wait for an event or a message, and the
// interrupt-to-close hook of the POSIX backend.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

using zk::os::Handle;
using zk::os::Message;
using zk::os::WakeReason;

constexpr uint32_t kWmClose = 0x0010, kWmQuit = 0x0012, kWmUser = 0x0400;

// A class of its own and one window created by the calling thread.
struct Receiver {
    explicit Receiver(const char* name)
        : atom(zk::os::WindowClassRegister(name, nullptr, nullptr)),
          window(zk::os::WindowCreate(atom, nullptr, "receiver", 0, nullptr, nullptr)) {}
    ~Receiver() { zk::os::WindowDestroy(window), zk::os::WindowClassUnregister(atom, nullptr); }
    uint16_t atom;
    Handle window;
};

TEST(Messages, InOrderPerThreadAndAFullQueueKeepsQuit) {
    Receiver r("ZkMsgOrder");
    uint32_t posted = 0;
    while (posted < 5000 && zk::os::MessagePost(r.window, kWmUser, posted, -zkSAddr(posted)))
        ++posted;
    EXPECT_EQ(posted, 1024u);
    std::thread([] { zk::os::MessagePostQuit(1); }).join(); // the poster's own quit stays with it
    zk::os::MessagePostQuit(-7);
    Message m{};
    for (uint32_t i = 0; i < posted; ++i) {
        ASSERT_TRUE(zk::os::MessagePeek(&m));
        ASSERT_EQ(m.wParam, i);
        ASSERT_EQ(m.lParam, -zkSAddr(i));
    }
    ASSERT_TRUE(zk::os::MessagePeek(&m)); // quit, delivered after the ring emptied
    EXPECT_EQ(m.window == nullptr && m.message == kWmQuit && static_cast<int32_t>(m.wParam) == -7,
              true);
    EXPECT_FALSE(zk::os::MessagePeek(&m));
}

TEST(WaitEventOrMessage, WakesForWhatIsThereOrWhatAnotherThreadPostsOrSets) {
    Receiver r("ZkWaitOther");
    Handle e = zk::os::EventCreate(false, false), s = zk::os::SemaphoreCreate(0, 1);
    auto post = [&] { zk::os::MessagePost(r.window, kWmUser, 42, 0); };
    auto set = [&] { zk::os::EventSet(e); };
    const struct {
        Handle waitOn;
        std::function<void()> act;
        int delay; // -1: before the wait
        bool message;
    } cases[] = {{e, post, -1, true},
                 {e, set, -1, false},
                 {e, post, 20, true},
                 {e, set, 20, false},
                 {s, [&] { zk::os::SemaphoreRelease(s, 1); }, 20, false},
                 {nullptr, post, 20, true}};
    for (const auto& c : cases) {
        if (c.delay < 0) c.act();
        std::thread other([&] { c.delay < 0 ? void() : (zk::os::Sleep(c.delay), c.act()); });
        bool message = zk::os::WaitEventOrMessage(c.waitOn) == WakeReason::Message;
        other.join();
        Message m{};
        EXPECT_EQ(message, c.message) << &c - cases;
        EXPECT_EQ(zk::os::MessagePeek(&m), message) << &c - cases;
        EXPECT_NE(zk::os::Wait(c.waitOn, 0), zk::os::WaitResult::Signaled); // it was taken
    }
    EXPECT_EQ(zk::os::WaitEventOrMessage(r.window), WakeReason::Failed); // not a waitable object
    zk::os::CloseHandle(s);
    zk::os::CloseHandle(e);
}

std::atomic<int> gTestHandlerCalls{0};
void TestHandler(int) {
    ++gTestHandlerCalls;
}

TEST(CloseOnInterrupt, SignalPostsCloseAndUninstallRestoresTheHandler) {
    Receiver r("ZkInterrupt");
    struct sigaction mine {
    }, saved{};
    mine.sa_handler = &TestHandler;
    sigaction(SIGINT, &mine, &saved);
    Message m{};
    for (int round = 0; round < 2; ++round) { // installed again, it works again
        zk::os::CloseOnInterrupt(r.window);
        for (int sig : {SIGINT, SIGTERM}) {
            raise(sig);
            ASSERT_EQ(zk::os::WaitEventOrMessage(nullptr), WakeReason::Message);
            ASSERT_TRUE(zk::os::MessagePeek(&m));
            EXPECT_TRUE(m.window == r.window && m.message == kWmClose);
        }
        zk::os::CloseOnInterrupt(nullptr);
        EXPECT_EQ(gTestHandlerCalls, round);
        raise(SIGINT); // the application's handler is back
        EXPECT_EQ(gTestHandlerCalls, round + 1);
        EXPECT_FALSE(zk::os::MessagePeek(&m));
    }
    sigaction(SIGINT, &saved, nullptr);
}

// ---- stress (also run under ThreadSanitizer) --------------------------------

TEST(PlatformStress, MessagesAndEventsFromManyThreadsAreNeitherLostNorDuplicated) {
    constexpr int kSenders = 4, kPerSender = 1000;
    Receiver r("ZkStressReceiver");
    Handle shared = zk::os::EventCreate(false, false);
    std::atomic<int> sets{0};
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s)
        senders.emplace_back([&, s] {
            for (int n = 0; n < kPerSender; ++n) {
                while (!zk::os::MessagePost(r.window, kWmUser, static_cast<zkAddr>(n), s))
                    zk::os::Sleep(0);
                if (n % 10 == 0) zk::os::EventSet(shared), ++sets;
            }
        });
    int received = 0, outOfOrder = 0, events = 0, last[kSenders] = {-1, -1, -1, -1};
    while (received < kSenders * kPerSender) {
        events += zk::os::WaitEventOrMessage(shared) == WakeReason::Event;
        for (Message m{}; zk::os::MessagePeek(&m); ++received) {
            outOfOrder += static_cast<int>(m.wParam) != last[m.lParam] + 1; // per sender, in order
            last[m.lParam] = static_cast<int>(m.wParam);
        }
    }
    for (auto& t : senders)
        t.join();
    EXPECT_EQ(received, kSenders * kPerSender);
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_LE(events, sets.load()); // one wake per set at most
    zk::os::CloseHandle(shared);
}

} // namespace

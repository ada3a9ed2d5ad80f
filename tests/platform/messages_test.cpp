// Per-thread message queues of the POSIX backend, and the wait for an event or a message.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using zk::os::Handle;
using zk::os::Message;
using zk::os::WakeReason;

constexpr uint32_t kWmQuit = 0x0012, kWmUser = 0x0400;

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
    for (uint32_t i = 0; i < posted; ++i)
        ASSERT_TRUE(zk::os::MessagePeek(&m) && m.wParam == i && m.lParam == -zkSAddr(i)) << i;
    ASSERT_TRUE(zk::os::MessagePeek(&m)); // quit, delivered after the ring emptied
    EXPECT_TRUE(m.window == nullptr && m.message == kWmQuit && int32_t(m.wParam) == -7);
    EXPECT_FALSE(zk::os::MessagePeek(&m));
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

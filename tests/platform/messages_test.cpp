// Per-thread message queues, the wait for an event or a message, and the
// interrupt-to-close hook of the POSIX backend.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using zk::os::Handle;
using zk::os::WakeReason;

constexpr uint32_t kWmClose = 0x0010;
constexpr uint32_t kWmQuit = 0x0012;
constexpr uint32_t kWmUser = 0x0400;

// A class of its own and one window created by the calling thread.
class Receiver {
public:
    explicit Receiver(const std::string& name) : name_(name) {
        atom_ = zk::os::WindowClassRegister(name_.c_str(), nullptr, nullptr);
        window_ = zk::os::WindowCreate(atom_, nullptr, "receiver", 0, nullptr, nullptr);
    }
    ~Receiver() {
        zk::os::WindowDestroy(window_);
        zk::os::WindowClassUnregister(atom_, nullptr);
        zk::os::Message m;
        while (zk::os::MessagePeek(&m)) {
        }
    }
    Handle window() const { return window_; }

private:
    std::string name_;
    uint16_t atom_ = 0;
    Handle window_ = nullptr;
};

TEST(Messages, PeekReturnsPostedMessagesInOrder) {
    Receiver r("ZkMsgOrder");
    ASSERT_NE(r.window(), nullptr);
    for (uint32_t i = 0; i < 5; ++i)
        ASSERT_TRUE(zk::os::MessagePost(r.window(), kWmUser + i, i, -static_cast<zkSAddr>(i)));
    for (uint32_t i = 0; i < 5; ++i) {
        zk::os::Message m{};
        ASSERT_TRUE(zk::os::MessagePeek(&m));
        EXPECT_EQ(m.window, r.window());
        EXPECT_EQ(m.message, kWmUser + i);
        EXPECT_EQ(m.wParam, i);
        EXPECT_EQ(m.lParam, -static_cast<zkSAddr>(i));
    }
    // Quit is a thread message carrying the code, queued behind the others.
    zk::os::MessagePost(r.window(), kWmUser, 0, 0);
    zk::os::MessagePostQuit(-7);
    zk::os::Message m{};
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.message, kWmUser);
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.window, nullptr);
    EXPECT_EQ(m.message, kWmQuit);
    EXPECT_EQ(static_cast<int32_t>(m.wParam), -7);
    EXPECT_FALSE(zk::os::MessagePeek(&m));
    EXPECT_FALSE(zk::os::MessagePeek(nullptr));
    EXPECT_FALSE(zk::os::MessagePost(nullptr, kWmUser, 0, 0));
}

TEST(Messages, QueuesBelongToThreads) {
    Receiver r("ZkMsgThreads");
    // Posted from another thread, the message reaches the creator's queue ...
    std::thread([&] {
        EXPECT_TRUE(zk::os::MessagePost(r.window(), kWmUser, 1, 0));
        zk::os::Message m{};
        EXPECT_FALSE(zk::os::MessagePeek(&m)); // ... not the poster's
        zk::os::MessagePostQuit(0);            // the poster's own quit stays with it
    }).join();
    zk::os::Message m{};
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.message, kWmUser);
    EXPECT_FALSE(zk::os::MessagePeek(&m));
}

TEST(Messages, FullQueueRefusesButKeepsQuit) {
    Receiver r("ZkMsgFull");
    int posted = 0;
    while (posted < 5000 &&
           zk::os::MessagePost(r.window(), kWmUser, static_cast<zkAddr>(posted), 0))
        ++posted;
    EXPECT_EQ(posted, 1024);
    zk::os::MessagePostQuit(3);
    zk::os::Message m{};
    int taken = 0;
    bool quit = false;
    while (zk::os::MessagePeek(&m)) {
        if (m.message == kWmQuit) {
            quit = true;
            EXPECT_EQ(m.wParam, 3u);
        } else {
            EXPECT_EQ(m.wParam, static_cast<zkAddr>(taken));
            ++taken;
        }
    }
    EXPECT_EQ(taken, 1024);
    EXPECT_TRUE(quit); // delivered after the ring emptied
}

TEST(WaitEventOrMessage, ReturnsAtOnceForWhatIsAlreadyThere) {
    Receiver r("ZkWaitReady");
    Handle e = zk::os::EventCreate(false, false);
    zk::os::MessagePost(r.window(), kWmUser, 0, 0);
    EXPECT_EQ(zk::os::WaitEventOrMessage(e), WakeReason::Message);
    zk::os::Message m{};
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    zk::os::EventSet(e);
    EXPECT_EQ(zk::os::WaitEventOrMessage(e), WakeReason::Event);
    EXPECT_EQ(zk::os::Wait(e, 0), zk::os::WaitResult::Timeout); // the auto-reset event was consumed
    zk::os::CloseHandle(e);
}

// Waits on waitOn while another thread does act a little later.
WakeReason WaitWhileAnotherThread(Handle waitOn, const std::function<void()>& act) {
    std::thread other([&] {
        zk::os::Sleep(20);
        act();
    });
    WakeReason why = zk::os::WaitEventOrMessage(waitOn);
    other.join();
    return why;
}

TEST(WaitEventOrMessage, WakesForWhatAnotherThreadPostsOrSets) {
    Receiver r("ZkWaitOther");
    Handle e = zk::os::EventCreate(false, false);
    Handle s = zk::os::SemaphoreCreate(0, 1);
    zk::os::Message m{};
    auto post = [&] { zk::os::MessagePost(r.window(), kWmUser, 42, 0); };
    EXPECT_EQ(WaitWhileAnotherThread(e, post), WakeReason::Message);
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.wParam, 42u);
    EXPECT_EQ(WaitWhileAnotherThread(e, [&] { zk::os::EventSet(e); }), WakeReason::Event);
    EXPECT_FALSE(zk::os::MessagePeek(&m));
    EXPECT_EQ(WaitWhileAnotherThread(s, [&] { zk::os::SemaphoreRelease(s, 1); }),
              WakeReason::Event);
    EXPECT_EQ(zk::os::Wait(s, 0), zk::os::WaitResult::Timeout);
    // A null event waits for messages only.
    EXPECT_EQ(WaitWhileAnotherThread(nullptr, post), WakeReason::Message);
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    int local = 0;
    EXPECT_EQ(zk::os::WaitEventOrMessage(&local), WakeReason::Failed);
    zk::os::CloseHandle(s);
    zk::os::CloseHandle(e);
}

TEST(WaitEventOrMessage, TimerTicksWakeTheWaitLikeAFramePacer) {
    Receiver r("ZkWaitTimer");
    Handle e = zk::os::EventCreate(false, false);
    uint32_t id = zk::os::TimerStartPeriodic(
        2, 1, [](void* user) { zk::os::EventSet(user); }, e);
    int events = 0;
    while (events < 10)
        if (zk::os::WaitEventOrMessage(e) == WakeReason::Event) ++events;
    zk::os::TimerKill(id);
    EXPECT_EQ(events, 10);
    zk::os::CloseHandle(e);
}

// ---- interrupts -------------------------------------------------------------

std::atomic<int> gTestHandlerCalls{0};
void TestHandler(int) {
    ++gTestHandlerCalls;
}

TEST(CloseOnInterrupt, SignalPostsCloseAndUninstallRestoresTheHandler) {
    Receiver r("ZkInterrupt");
    gTestHandlerCalls = 0;
    struct sigaction mine {
    }, saved{};
    mine.sa_handler = &TestHandler;
    sigemptyset(&mine.sa_mask);
    sigaction(SIGINT, &mine, &saved);

    zk::os::CloseOnInterrupt(r.window());
    raise(SIGINT);
    ASSERT_EQ(zk::os::WaitEventOrMessage(nullptr), WakeReason::Message);
    zk::os::Message m{};
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.window, r.window());
    EXPECT_EQ(m.message, kWmClose);
    raise(SIGTERM);
    ASSERT_EQ(zk::os::WaitEventOrMessage(nullptr), WakeReason::Message);
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.message, kWmClose);
    EXPECT_EQ(gTestHandlerCalls, 0);

    zk::os::CloseOnInterrupt(nullptr);
    struct sigaction now {};
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, &TestHandler);
    raise(SIGINT);
    EXPECT_EQ(gTestHandlerCalls, 1);
    EXPECT_FALSE(zk::os::MessagePeek(&m));

    // Installed again, it works again, with nothing left over from before.
    zk::os::CloseOnInterrupt(r.window());
    raise(SIGTERM);
    ASSERT_EQ(zk::os::WaitEventOrMessage(nullptr), WakeReason::Message);
    ASSERT_TRUE(zk::os::MessagePeek(&m));
    EXPECT_EQ(m.message, kWmClose);
    zk::os::CloseOnInterrupt(nullptr);
    EXPECT_FALSE(zk::os::MessagePeek(&m));
    sigaction(SIGINT, &saved, nullptr);
}

// ---- stress (also run under ThreadSanitizer) --------------------------------

TEST(PlatformStress, MessagesAndEventsFromManyThreadsAreNeitherLostNorDuplicated) {
    constexpr int kReceivers = 3;
    constexpr int kSenders = 4;
    constexpr int kPerSender = 500;
    Handle shared = zk::os::EventCreate(false, false);
    std::atomic<Handle> windows[kReceivers];
    std::atomic<int> ready{0};
    std::atomic<int> eventsTaken{0};
    std::atomic<int> sets{0};
    int received[kReceivers] = {};
    int outOfOrder[kReceivers] = {};
    std::vector<std::thread> threads;
    for (int i = 0; i < kReceivers; ++i)
        threads.emplace_back([&, i] {
            Receiver r("ZkStressReceiver" + std::to_string(i));
            windows[i] = r.window();
            ++ready;
            int last[kSenders];
            for (int& l : last)
                l = -1;
            while (received[i] < kSenders * kPerSender) {
                WakeReason why = zk::os::WaitEventOrMessage(shared);
                if (why == WakeReason::Event) ++eventsTaken;
                zk::os::Message m{};
                while (zk::os::MessagePeek(&m)) {
                    // From each sender, the numbers arrive one after the other.
                    int& previous = last[m.lParam];
                    if (static_cast<int>(m.wParam) != previous + 1) ++outOfOrder[i];
                    previous = static_cast<int>(m.wParam);
                    ++received[i];
                }
            }
        });
    while (ready < kReceivers)
        zk::os::Sleep(1);
    for (int s = 0; s < kSenders; ++s)
        threads.emplace_back([&, s] {
            for (int n = 0; n < kPerSender; ++n) {
                for (int i = 0; i < kReceivers; ++i)
                    while (!zk::os::MessagePost(windows[i], kWmUser, static_cast<zkAddr>(n), s))
                        zk::os::Sleep(0);
                if (n % 10 == 0) {
                    zk::os::EventSet(shared);
                    ++sets;
                }
            }
        });
    for (auto& t : threads)
        t.join();
    for (int i = 0; i < kReceivers; ++i) {
        EXPECT_EQ(received[i], kSenders * kPerSender);
        EXPECT_EQ(outOfOrder[i], 0);
    }
    EXPECT_LE(eventsTaken.load(), sets.load()); // one wake per set at most
    zk::os::CloseHandle(shared);
}

} // namespace

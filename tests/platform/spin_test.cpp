// Spinning before a wait: the processor a thread runs on, the core marks that
// tell a spinner whether its partner shares its core, and the spin's outcome.
#include "platform/platform.h"
#include "thread/spin.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// The processors this process may run on.
std::vector<int> AllowedProcessors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> cpus;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
    return cpus;
}

// Runs body on a thread held to one processor.
template <typename Body> void OnProcessor(int cpu, Body body) {
    std::thread thread([&] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
        body();
    });
    thread.join();
}

TEST(CurrentProcessor, NamesTheProcessorTheThreadIsHeldTo) {
    for (int cpu : AllowedProcessors())
        OnProcessor(cpu, [&] { EXPECT_EQ(zk::os::CurrentProcessor(), uint32_t(cpu)); });
}

TEST(CoreMark, TellsWhetherThePartnerLastRanOnTheCallersCore) {
    const std::vector<int> cpus = AllowedProcessors();
    ASSERT_FALSE(cpus.empty());
    zk::CoreMark mark;
    OnProcessor(cpus[0], [&] { EXPECT_FALSE(mark.IsCallers()); }); // nobody marked yet
    OnProcessor(cpus[0], [&] { mark.Here(); });
    OnProcessor(cpus[0], [&] { EXPECT_TRUE(mark.IsCallers()); });
    if (cpus.size() < 2) GTEST_SKIP() << "one processor: no other core to compare";
    OnProcessor(cpus[1], [&] { EXPECT_FALSE(mark.IsCallers()); });
    // The partner moved: the mark follows.
    OnProcessor(cpus[1], [&] { mark.Here(); });
    OnProcessor(cpus[1], [&] { EXPECT_TRUE(mark.IsCallers()); });
    OnProcessor(cpus[0], [&] { EXPECT_FALSE(mark.IsCallers()); });
}

// A spinner on its partner's only core still sees the partner finish (it gives
// the core away), and a condition that never comes true ends the spin false.
TEST(SpinUntil, SeesAPartnerOnTheSameCoreFinishAndGivesUpOnANeverTrueCondition) {
    const int cpu = AllowedProcessors().at(0);
    zk::CoreMark partnerCore;
    std::atomic<bool> done{false};
    bool seen = false;
    OnProcessor(cpu, [&] {
        partnerCore.Here();
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        std::thread partner([&] {
            sched_setaffinity(0, sizeof one, &one);
            done.store(true);
        });
        // Budget of ten seconds: the partner gets the core long before.
        seen = zk::SpinUntil(
            10000000, [&] { return done.load(); }, partnerCore);
        partner.join();
    });
    EXPECT_TRUE(seen);
    EXPECT_FALSE(zk::SpinUntil(
        200, [] { return false; }, partnerCore));
}

} // namespace

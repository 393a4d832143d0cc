// The monitoring thread's life cycle, concurrent readers, and a run against
// the machine's own /proc.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "PerfMonTestSupport.h"

using perfmontest::Rig;
using Clock = std::chrono::steady_clock;
using PMV = CPerfMon::PerfMonitorValue;

namespace {

constexpr int kMem = CPerfMon::PERF_MONITOR_MEMORY;
constexpr int kSys = CPerfMon::PERF_MONITOR_SYSTEM;

// Waits (at most `limit`) until the memory history holds `count` samples.
bool WaitForMemorySamples(CPerfMon& mon, unsigned count, std::chrono::seconds limit = std::chrono::seconds(20))
{
    auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        if (mon.GetHistoryCount(kMem, 0) >= count)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

} // namespace

TEST(CPerfMonThread, ZeroPeriodThreadReturnsAtOnce)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    unsigned long id = r.mon.StartMonitoring(kMem, 0);
    ASSERT_NE(id, 0u);
    EXPECT_TRUE(r.mon.IsStarted());
    // A looping thread would add a sample per iteration; give it time to.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 2u);
    r.mon.StopMonitoring();
    EXPECT_FALSE(r.mon.IsStarted());
}

TEST(CPerfMonThread, SecondStartOnlyChangesThePeriod)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    r.proc.Stat(1, 1, 1, 1);
    unsigned long id = r.mon.StartMonitoring(kMem, 20);
    ASSERT_NE(id, 0u);
    ASSERT_TRUE(WaitForMemorySamples(r.mon, 4));

    // Another selection and a long period: same thread, no new history.
    auto before = Clock::now();
    EXPECT_EQ(r.mon.StartMonitoring(kMem | kSys, 60000), id);
    EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(200)) << "no snapshots on a second start";
    EXPECT_EQ(r.mon.GetNumberInstances(kSys), 0u);
    // The thread takes at most one more sample (the wait it was in when
    // the period changed), then sleeps the new period.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    unsigned settled = r.mon.GetHistoryCount(kMem, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_LE(r.mon.GetHistoryCount(kMem, 0), settled + 1);

    // The stop ends the long wait at once.
    before = Clock::now();
    r.mon.StopMonitoring();
    EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(1900));
}

TEST(CPerfMonThread, StopEndsTheThreadWithinOnePeriodAndDestroysHistories)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    ASSERT_NE(r.mon.StartMonitoring(kMem, 30000), 0u);
    auto before = Clock::now();
    r.mon.StopMonitoring();
    EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(1900));
    EXPECT_FALSE(r.mon.IsStarted());
    EXPECT_EQ(r.mon.GetNumberInstances(kMem), 0u);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 0);
    // A second stop is harmless.
    r.mon.StopMonitoring();
}

TEST(CPerfMonThread, RestartAfterStop)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    ASSERT_NE(r.mon.StartMonitoring(kMem, 20), 0u);
    ASSERT_TRUE(WaitForMemorySamples(r.mon, 4));
    r.mon.StopMonitoring();

    r.proc.MemInfo(1000, 100, 0, 0);
    unsigned long id = r.mon.StartMonitoring(kMem, 20);
    ASSERT_NE(id, 0u);
    EXPECT_TRUE(r.mon.IsStarted());
    ASSERT_TRUE(WaitForMemorySamples(r.mon, 3));
    // Fresh history: only samples of the new run.
    EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE), 90);
    r.mon.StopMonitoring();
}

TEST(CPerfMonThread, NothingToMonitorStartsNothing)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    EXPECT_EQ(r.mon.StartMonitoring(CPerfMon::PERF_MONITOR_CPU, 100), 0u);
    EXPECT_FALSE(r.mon.IsStarted());
    EXPECT_EQ(r.mon.StartMonitoring(0, 100), 0u);
    EXPECT_EQ(r.mon.StartMonitoring(0x20 | 0x400, 100), 0u);  // bits of no group
    EXPECT_FALSE(r.mon.IsStarted());
}

TEST(CPerfMonThread, ReadersDuringStartsAndStops)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 1000, 500);
    r.proc.Stat(10, 0, 10, 80);
    std::atomic<bool> stop{false};
    std::atomic<bool> outOfRange{false};
    std::thread reader([&] {
        while (!stop) {
            for (int v = 0; v <= 20; ++v) {
                unsigned char p = 0;
                r.mon.GetUsagePercent(p, static_cast<PMV>(v), v % 2, -1);
                if (p > 100)
                    outOfRange = true;
            }
        }
    });
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(r.mon.StartMonitoring(kMem | kSys, 5), 0u);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        r.mon.StopMonitoring();
    }
    stop = true;
    reader.join();
    EXPECT_FALSE(outOfRange);
}

TEST(CPerfMonThread, DestructorStopsARunningThread)
{
    auto before = Clock::now();
    {
        Rig r;
        r.proc.MemInfo(1000, 500, 0, 0);
        ASSERT_NE(r.mon.StartMonitoring(kMem, 60000), 0u);
    }
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
}

TEST(CPerfMonLive, RealProcGivesSaneFigures)
{
    CPerfMon mon(50);
    const unsigned period = 100;
    auto started = Clock::now();
    unsigned long id = mon.StartMonitoring(CPerfMon::PERF_MONITOR_ALL, period);
    ASSERT_NE(id, 0u);
    unsigned initial = mon.GetHistoryCount(kMem, 0);
    EXPECT_GE(initial, 2u);  // the start's two, perhaps the thread's first
    ASSERT_TRUE(WaitForMemorySamples(mon, initial + 3)) << "the thread adds samples";
    unsigned count = mon.GetHistoryCount(kMem, 0);
    auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    // One sample a period at most (the start's two, the thread's first at
    // once, then one per period), never more.
    EXPECT_LE(count, 3u + static_cast<unsigned>(elapsedMs / period) + 1u);

    for (int v = 0; v <= 20; ++v) {
        for (int mode : {0, 1}) {
            unsigned char p = 222;
            int result = mon.GetUsagePercent(p, static_cast<PMV>(v), mode, -1);
            EXPECT_LE(p, 100) << "value " << v;
            if (CPerfMon::IsMonitorValue(v, CPerfMon::PERF_MONITOR_CPU)) {
                EXPECT_EQ(result, 0);
            }
        }
    }
    unsigned char p = 0;
    EXPECT_EQ(mon.GetCurrentPercent(CPerfMon::PERF_MEMORY_USAGE, p, 0), 1);
    EXPECT_GT(p, 0) << "a running machine uses some memory";
    EXPECT_EQ(mon.GetCurrentPercent(CPerfMon::PERF_PROCESS_THREADS, p, 0), 1);
    EXPECT_GT(mon.GetProcesses().size(), 0u);
    mon.StopMonitoring();
    EXPECT_FALSE(mon.IsStarted());
}

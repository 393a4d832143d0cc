// The monitoring thread's life cycle, concurrent readers, and a run against
// the machine's own /proc.  Nothing here depends on the machine's speed.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "PerfMonRig.h"
#include "support/Wait.h"

using namespace perfmontest;

namespace {

bool WaitForMemorySamples(CPerfMon& mon, unsigned count)
{
    return testsupport::WaitFor([&] { return mon.GetHistoryCount(kMem, 0) >= count; });
}

} // namespace

TEST(CPerfMonThread, SecondStartOnlyChangesThePeriodAndARestartHasAFreshHistory)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    r.proc.Stat(1, 1, 1, 1);
    // The start's two snapshots and the thread's first, then an hour's wait.
    unsigned long id = r.mon.StartMonitoring(kMem, 3600000);
    ASSERT_NE(id, 0u);
    ASSERT_TRUE(WaitForMemorySamples(r.mon, 3));
    // Another selection: same thread, no new history, no snapshot.
    EXPECT_EQ(r.mon.StartMonitoring(kMem | kSys, 3600000), id);
    EXPECT_TRUE(r.mon.GetNumberInstances(kSys) == 0 && r.mon.GetHistoryCount(kMem, 0) == 3);
    r.mon.StopMonitoring();  // ends the hour's wait
    r.mon.StopMonitoring();  // a second stop is harmless
    EXPECT_FALSE(r.mon.IsStarted() || r.mon.GetNumberInstances(kMem));
    EXPECT_EQ(r.Answer(CPerfMon::PERF_MEMORY_USAGE), std::make_pair(0, 0));
    r.proc.MemInfo(1000, 100, 0, 0);
    ASSERT_NE(r.mon.StartMonitoring(kMem, 20), 0u);
    ASSERT_TRUE(WaitForMemorySamples(r.mon, 3));
    EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE), 90);
    // An hour's period again, left running: a destructor that waited it out would hang the test.
    r.mon.StopMonitoring();
    ASSERT_NE(r.mon.StartMonitoring(kMem, 3600000), 0u);
}

TEST(CPerfMonThread, ReadersDuringStartsAndStops)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 1000, 500);
    r.proc.Stat(10, 0, 10, 80);
    std::atomic<bool> stop{false};
    std::atomic<bool> outOfRange{false};
    std::thread reader([&] {
        for (int v = 0; !stop; v = (v + 1) % 21) {
            unsigned char p = 0;
            r.mon.GetUsagePercent(p, static_cast<PMV>(v), v % 2, -1);
            outOfRange = outOfRange || p > 100;
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

TEST(CPerfMonLive, RealProcGivesSaneFigures)
{
    CPerfMon mon(50);
    ASSERT_NE(mon.StartMonitoring(CPerfMon::PERF_MONITOR_ALL, 100), 0u);
    unsigned initial = mon.GetHistoryCount(kMem, 0);
    EXPECT_GE(initial, 2u);  // the start's two, perhaps the thread's first
    ASSERT_TRUE(WaitForMemorySamples(mon, initial + 3)) << "the thread adds samples";
    for (int v = 0; v <= 20; ++v)
        for (int mode : {0, 1}) {
            unsigned char p = 222;
            int result = mon.GetUsagePercent(p, static_cast<PMV>(v), mode, -1);
            EXPECT_TRUE(p <= 100 && (result == 0 || !CPerfMon::IsMonitorValue(v, CPerfMon::PERF_MONITOR_CPU))) << v;
        }
    unsigned char p = 0;
    EXPECT_TRUE(mon.GetCurrentPercent(CPerfMon::PERF_MEMORY_USAGE, p, 0) == 1 && p > 0) << "a machine uses memory";
    EXPECT_EQ(mon.GetCurrentPercent(CPerfMon::PERF_PROCESS_THREADS, p, 0), 1);
    EXPECT_GT(mon.GetProcesses().size(), 0u);
}

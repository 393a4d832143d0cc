// Samples taken from a made-up proc root: memory, system, network and
// process figures, their percentages and the parsing of bad input.  The
// monitors here run with a zero period, so that the test takes every
// snapshot after the two of the start itself.
#include <gtest/gtest.h>

#include <unistd.h>

#include "PerfMonTestSupport.h"

using perfmontest::NetIf;
using perfmontest::Rig;
using PMV = CPerfMon::PerfMonitorValue;

namespace {

constexpr int kMem = CPerfMon::PERF_MONITOR_MEMORY;
constexpr int kSys = CPerfMon::PERF_MONITOR_SYSTEM;
constexpr int kNet = CPerfMon::PERF_MONITOR_NETWORK;
constexpr int kProc = CPerfMon::PERF_MONITOR_PROCESSES;

} // namespace

// ---- memory -----------------------------------------------------------------

TEST(CPerfMonMemory, UsedAndSwapPercentages)
{
    Rig r;
    r.proc.MemInfo(1000, 250, 400, 300);
    ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 2u);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE, 0, &result), 75);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE, -1), 75);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SWAP_USAGE), 25);
    EXPECT_EQ(r.Average(CPerfMon::PERF_SWAP_USAGE), 25);
}

TEST(CPerfMonMemory, MissingFieldGivesNoSample)
{
    Rig r;
    r.proc.Write("meminfo", "MemTotal: 1000 kB\nMemFree: 500 kB\nSwapTotal: 100 kB\nSwapCached: 0 kB\n");
    ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 0u);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 1);  // the instance exists, it only has no sample
    EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 1);

    r.proc.MemInfo(1000, 500, 100, 100);
    r.mon.SnapshotData(kMem);
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), 50);

    // Unreadable: no sample either.
    unlink(r.proc.Path("meminfo").c_str());
    r.mon.SnapshotData(kMem);
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 1u);
}

TEST(CPerfMonMemory, LongLinesAndOverflowingNumbers)
{
    Rig r;
    r.proc.Write("meminfo", std::string(5000, 'M') + "\n" + "MemTotal: 99999999999999999999999999 kB\n" +
                                "MemFree: 18446744073709551615 kB\n" + "Junk: " + std::string(300, '9') + "\n" +
                                "SwapTotal: 1000 kB\nSwapFree: 99999999999999999999999 kB\n");
    ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
    ASSERT_EQ(r.mon.GetHistoryCount(kMem, 0), 2u);
    // Both saturate at the same value: nothing in use.  More free swap
    // than there is: nothing in use, not a wrapped figure.
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), 0);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SWAP_USAGE), 0);

    r.proc.Write("meminfo", "MemTotal: 99999999999999999999999999 kB\nMemFree: 0 kB\nSwapTotal: 0 kB\nSwapFree: 0 kB\n");
    r.mon.SnapshotData(kMem);
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), 100);
    // No swap at all: the whole is 0, so the raw part (0) is reported.
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_SWAP_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 1);
}

TEST(CPerfMonMemory, HistoryKeepsOnlyTheNewestSamples)
{
    Rig r(3);
    r.proc.MemInfo(1000, 900, 0, 0);  // 10 %
    ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
    for (uint64_t used : {200, 300, 400, 500}) {
        r.proc.MemInfo(1000, 1000 - used, 0, 0);
        r.mon.SnapshotData(kMem);
    }
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 3u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), 50);
    EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE), 40);  // 30, 40, 50
}

TEST(CPerfMonMemory, SnapshotOfUnmonitoredGroupsReadsNothing)
{
    Rig r;
    r.proc.MemInfo(1000, 500, 0, 0);
    r.mon.SnapshotData(CPerfMon::PERF_MONITOR_ALL);  // never started: no histories
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 0u);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 0);
}

// ---- system -------------------------------------------------------------------

TEST(CPerfMonSystem, DifferencesOfTheSummaryLine)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys, 0), 0u);
    // The first reading only became the previous one; the second one, with
    // equal counters, has a zero total.
    EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USAGE), 0);

    r.proc.Stat(130, 10, 60, 900);  // +40 user (with nice), +10 kernel, +50 idle
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 2u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USAGE), 50);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_IDLE), 50);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USER), 40);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_KERNEL), 10);
    // The zero-total sample does not count in the average.
    EXPECT_EQ(r.Average(CPerfMon::PERF_SYSTEM_USER), 40);

    r.proc.Stat(130, 10, 60, 1000);  // idle only
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USAGE), 0);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_IDLE), 100);
    EXPECT_EQ(r.Average(CPerfMon::PERF_SYSTEM_USAGE), 25);
}

TEST(CPerfMonSystem, MalformedSummaryLinesGiveNoSample)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys, 0), 0u);
    ASSERT_EQ(r.mon.GetHistoryCount(kSys, 0), 1u);
    for (const char* bad : {"cpu  1 2 3\n", "cpu\n", "", "intr 1 2 3 4 5\ncpu 1 2 3 4\n", "cpu 1 2 x 4\n",
                            "cpu -1 2 3 4\n"}) {
        r.proc.Write("stat", bad);
        r.mon.SnapshotData(kSys);
        EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 1u) << bad;
    }
    // A bad reading did not replace the previous one.
    r.proc.Stat(200, 0, 50, 850);
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USER), 100);
}

TEST(CPerfMonSystem, OverflowingCountersStayInRange)
{
    Rig r;
    r.proc.Write("stat", "cpu 99999999999999999999999 99999999999999999999 1 1\n");
    ASSERT_NE(r.mon.StartMonitoring(kSys, 0), 0u);
    r.proc.Write("stat", "cpu 99999999999999999999999 99999999999999999999 2 9\n");
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 2u);
    unsigned char p = r.Current(CPerfMon::PERF_SYSTEM_USAGE);
    EXPECT_LE(p, 100);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_KERNEL), 11);  // 1 of 9
}

TEST(CPerfMonSystem, ProcessorValuesAlwaysAnswerNoInstance)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys | CPerfMon::PERF_MONITOR_CPU, 0), 0u);
    for (int v = CPerfMon::PERF_CPU_USAGE; v <= CPerfMon::PERF_CPU_KERNEL; ++v) {
        for (int instance : {-1, 0, 1}) {
            int result = -1;
            EXPECT_EQ(r.Current(static_cast<PMV>(v), instance, &result), 0);
            EXPECT_EQ(result, 0);
            EXPECT_EQ(r.Average(static_cast<PMV>(v), instance, &result), 0);
            EXPECT_EQ(result, 0);
        }
    }
    EXPECT_EQ(r.mon.GetNumberInstances(CPerfMon::PERF_MONITOR_CPU), 0u);
}

TEST(CPerfMonSystem, UsagePercentModes)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys, 0), 0u);
    r.proc.Stat(130, 10, 60, 900);
    r.mon.SnapshotData(kSys);
    unsigned char p = 7;
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, 0, 0), 1);
    EXPECT_EQ(p, 50);
    p = 7;
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, 1, 0), 1);
    EXPECT_EQ(p, 50);
    p = 7;
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, 2, 0), 0);
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, -1, 0), 0);
    EXPECT_EQ(p, 7);
    // Instances that do not exist, and values outside every group.
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, 0, 1), 0);
    EXPECT_EQ(p, 0);
    p = 7;
    EXPECT_EQ(r.mon.GetCurrentPercent(CPerfMon::PERF_SYSTEM_USAGE, p, -2), 0);
    EXPECT_EQ(p, 0);
    p = 7;
    EXPECT_EQ(r.mon.GetCurrentPercent(static_cast<PMV>(21), p, 0), 0);
    EXPECT_EQ(p, 0);
    EXPECT_EQ(r.mon.GetCurrentPercent(static_cast<PMV>(-1), p, 0), 0);
}

// ---- network ------------------------------------------------------------------

namespace {

// A rig with network monitoring of the given interfaces at 1 Mbit/s
// (131072 bytes per second), started at time 1000 ms.
void StartNetwork(Rig& r, const std::vector<NetIf>& interfaces)
{
    for (const NetIf& n : interfaces)
        r.speed->Set(n.name, 1);
    r.proc.NetDev(interfaces);
    r.clock->Set(1000);
    ASSERT_NE(r.mon.StartMonitoring(kNet, 0), 0u);
}

} // namespace

TEST(CPerfMonNetwork, RatesAgainstTheIntervalBudget)
{
    Rig r;
    StartNetwork(r, {{"eth0", 1000, 5000}});
    EXPECT_EQ(r.mon.GetNumberInstances(kNet), 1u);
    // Both start readings had the same time: no sample yet.
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);

    r.proc.NetDev({{"eth0", 1000 + 65536, 5000 + 13107}});  // 50 % received, 10 % sent
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    ASSERT_EQ(r.mon.GetHistoryCount(kNet, 0), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 50);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_SENT), 10);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_USAGE), 60);
    EXPECT_EQ(r.Average(CPerfMon::PERF_NETWORK_USAGE), 60);
}

TEST(CPerfMonNetwork, LongerIntervalsGiveProportionallySmallerFigures)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}});
    // Half the link for two seconds: the rate is half the capacity, but the
    // budget is two seconds' worth.
    r.proc.NetDev({{"eth0", 131072, 0}});
    r.clock->Set(3000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 25);
}

TEST(CPerfMonNetwork, ThirtyTwoBitWrapGivesPositiveRate)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0xFFFF8000ull, 0xFFFFFFF0ull}});
    r.proc.NetDev({{"eth0", 0x8000, 0x10}});  // both wrapped: +65536 and +32
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    ASSERT_EQ(r.mon.GetHistoryCount(kNet, 0), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 50);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_SENT), 0);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_USAGE), 50);
}

TEST(CPerfMonNetwork, SixtyFourBitCounterThatDropsWasReset)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0x200000000ull, 0}});
    r.proc.NetDev({{"eth0", 13107, 0}});  // counts from zero again
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 10);
}

TEST(CPerfMonNetwork, TooShortAnIntervalKeepsTheOlderReading)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}});
    r.proc.NetDev({{"eth0", 1000, 0}});
    r.mon.SnapshotData(kNet);  // same time: elapsed × capacity is 0
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);
    r.proc.NetDev({{"eth0", 65536, 0}});
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    ASSERT_EQ(r.mon.GetHistoryCount(kNet, 0), 1u);
    // Measured from the reading of the start (0), not from 1000.
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 50);
}

TEST(CPerfMonNetwork, UnknownLinkSpeedGivesNoSample)
{
    Rig r;
    r.proc.NetDev({{"eth0", 0, 0}});
    ASSERT_NE(r.mon.StartMonitoring(kNet, 0), 0u);  // no speed known for eth0
    r.proc.NetDev({{"eth0", 65536, 0}});
    r.clock->Set(5000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);
    EXPECT_GE(r.speed->Queries(), 3);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 1);
}

TEST(CPerfMonNetwork, ClockSetBackStartsAfresh)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}});
    r.proc.NetDev({{"eth0", 500000, 0}});
    r.clock->Set(500);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);
    r.proc.NetDev({{"eth0", 500000 + 13107, 0}});
    r.clock->Set(1500);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 10);
}

TEST(CPerfMonNetwork, InstancesFollowTheInterfaceTable)
{
    Rig r;
    r.speed->Set("eth0", 1);
    r.speed->Set("br0", 1);
    r.proc.NetDev({{"lo", 0, 0}, {"eth0", 0, 0}, {"docker0", 0, 0}, {"wlan0", 0, 0}, {"br0", 0, 0}});
    ASSERT_NE(r.mon.StartMonitoring(kNet, 0), 0u);
    ASSERT_EQ(r.mon.GetNumberInstances(kNet), 2u);

    // A third interface appears and lo moves: only the first two monitored
    // lines are instances.
    r.speed->Set("eth5", 1);
    r.proc.NetDev({{"eth0", 13107, 0}, {"lo", 999999, 0}, {"docker0", 999999, 0}, {"br0", 65536, 0},
                   {"eth5", 999999, 0}});
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 10);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 1), 50);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 2, &result), 0);
    EXPECT_EQ(result, 0);

    // The second goes away: the first is still measured.
    r.proc.NetDev({{"eth0", 13107 + 26214, 0}});
    r.clock->Set(3000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 2u);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 20);
}

TEST(CPerfMonNetwork, CurrentAndAverageRoundDifferentlyOverAllInstances)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}, {"eth1", 0, 0}});
    // eth0: 1311 bytes/s of 131072 is a quotient of 1000 (1 %); eth1 idle.
    r.proc.NetDev({{"eth0", 1311, 0}, {"eth1", 0, 0}});
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, -1, &result), 0);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(r.Average(CPerfMon::PERF_NETWORK_RECEIVED, -1, &result), 1);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 1);
}

TEST(CPerfMonNetwork, MalformedCounterLines)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}, {"eth1", 0, 0}});
    std::string header = "Inter-|\n face |\n";
    r.proc.Write("net/dev", header + "  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n" +
                                "  eth1: 99999999999999999999999 0 0 0 0 0 0 0 99999999999999999999999 0 0 0 0 0 0 0\n");
    r.clock->Set(2000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);  // fifteen counters only
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 1u);  // saturated, still a sample
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_USAGE, 1), 100);

    unlink(r.proc.Path("net/dev").c_str());
    r.clock->Set(3000);
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 1u);
}

TEST(CPerfMonNetwork, NoInterfacesDropsTheGroup)
{
    Rig r;
    EXPECT_EQ(r.mon.StartMonitoring(kNet, 0), 0u);  // no statistics file
    EXPECT_FALSE(r.mon.IsStarted());
    r.proc.NetDev({{"lo", 0, 0}, {"wlan0", 0, 0}});
    EXPECT_EQ(r.mon.StartMonitoring(kNet, 0), 0u);
    EXPECT_FALSE(r.mon.IsStarted());
    // With another group the start goes on without the network.
    r.proc.MemInfo(100, 50, 0, 0);
    EXPECT_NE(r.mon.StartMonitoring(kNet | kMem, 0), 0u);
    EXPECT_EQ(r.mon.GetNumberInstances(kNet), 0u);
    EXPECT_EQ(r.mon.GetNumberInstances(kMem), 1u);
}

// ---- processes ----------------------------------------------------------------

namespace {

void WriteProcesses(Rig& r, uint64_t ownUtime, uint64_t ownStime)
{
    r.proc.MemInfo(1000, 500, 1000, 1000);  // 1024000 bytes of memory, as much swap
    r.proc.Write("self/stat", perfmontest::FakeProc::ProcessStat(4242, "kopd", 'S', ownUtime, ownStime, 64, 512000,
                                                                  204800 / static_cast<uint64_t>(sysconf(_SC_PAGESIZE))));
    r.proc.Write("self/limits", "Limit                     Soft Limit           Hard Limit           Units\n"
                                "Max processes             96365                96365                processes\n"
                                "Max open files            50                   100                  files\n");
    for (int fd = 0; fd < 5; ++fd)
        r.proc.Write("self/fd/" + std::to_string(fd), "");
    r.proc.Write("sys/kernel/pid_max", "40\n");
    r.proc.Write("1/stat", perfmontest::FakeProc::ProcessStat(1, "init", 'S', 1, 1, 1, 100, 1));
    r.proc.Write("2/stat", perfmontest::FakeProc::ProcessStat(2, "busy) (R", 'R', 1, 1, 1, 100, 1));
    r.proc.Write("3/stat", perfmontest::FakeProc::ProcessStat(3, "idle", 'S', 1, 1, 1, 100, 1));
    r.proc.Write("4242/stat", perfmontest::FakeProc::ProcessStat(4242, "kopd", 'S', 1, 1, 64, 100, 1));
}

} // namespace

TEST(CPerfMonProcesses, QuantitiesOfTheOwnProcessAndTheSystem)
{
    if (204800 % sysconf(_SC_PAGESIZE) != 0)
        GTEST_SKIP() << "page size does not divide the made-up resident size";
    Rig r;
    r.proc.Stat(100, 0, 100, 800, 2);
    WriteProcesses(r, 10, 10);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    EXPECT_EQ(r.mon.GetHistoryCount(kProc, 0), 1u);  // the first reading only became the previous

    r.proc.Stat(150, 0, 150, 900, 2);  // 200 ticks, 100 per processor
    WriteProcesses(r, 30, 20);         // 30 own ticks
    r.mon.SnapshotData(kProc);
    ASSERT_EQ(r.mon.GetHistoryCount(kProc, 0), 2u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_CPU), 30);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_CPU_ALL), 15);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_RESIDENT), 20);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_VIRTUAL), 25);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_THREADS), 25);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 10);       // 4 of 40
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_RUNNING), 50);     // 1 of 2 processors
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10); // 5 of 50
    // The first sample had no processor interval: the average skips it.
    EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_CPU), 30);
    EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10);

    std::vector<PerfProcessRecord> procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 4u);
    EXPECT_EQ(procs[1].pid, 2);
    EXPECT_EQ(procs[1].name, "busy) (R");
    EXPECT_EQ(procs[1].state, 'R');
    EXPECT_EQ(procs[3].pid, 4242);
    EXPECT_EQ(procs[3].threads, 64u);
}

TEST(CPerfMonProcesses, VanishedProcessesLeaveTheMap)
{
    Rig r;
    r.proc.Stat(100, 0, 100, 800, 2);
    WriteProcesses(r, 10, 10);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    ASSERT_EQ(r.mon.GetProcesses().size(), 4u);
    testsupport::RemoveTree(r.proc.Path("3"));
    r.proc.Write("77/stat", "77 (broken");  // unreadable record: skipped
    r.proc.Write("12x/stat", perfmontest::FakeProc::ProcessStat(12, "x", 'R', 1, 1, 1, 1, 1));
    r.mon.SnapshotData(kProc);
    std::vector<PerfProcessRecord> procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 3u);
    EXPECT_EQ(procs[0].pid, 1);
    EXPECT_EQ(procs[1].pid, 2);
    EXPECT_EQ(procs[2].pid, 4242);
}

TEST(CPerfMonProcesses, UnknownWholesReportNothing)
{
    Rig r;
    r.proc.Stat(100, 0, 100, 800, 2);
    WriteProcesses(r, 10, 10);
    r.proc.Write("self/limits", "Max open files            unlimited            unlimited            files\n");
    unlink(r.proc.Path("sys/kernel/pid_max").c_str());
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    r.mon.SnapshotData(kProc);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS, 0, &result), 0);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 0);
    EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_COUNT), 0);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_THREADS), 25);
}

TEST(CPerfMonProcesses, HighBitsAlsoSelectProcesses)
{
    Rig r;
    r.proc.Stat(100, 0, 100, 800, 2);
    WriteProcesses(r, 10, 10);
    ASSERT_NE(r.mon.StartMonitoring(0x1000, 0), 0u);
    EXPECT_EQ(r.mon.GetNumberInstances(kProc), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_THREADS), 25);
}

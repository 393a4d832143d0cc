// Samples taken from a made-up proc root: memory, system, network and
// process figures checked against hand-computed percentages, and bad input.
// The monitors run with a zero period, so that the test takes every
// snapshot after the two of the start itself.
#include <gtest/gtest.h>

#include <unistd.h>

#include "PerfMonRig.h"
#include "perfmon/PerfMonPaths.h"

using namespace perfmontest;

TEST(CPerfMonMemory, UsedAndSwapFromMalformedAndOverflowingFiles)
{
    struct Case { const char* what; std::string text; unsigned samples; int mem; int swap; };
    const std::string huge = "99999999999999999999999999";
    const Case cases[] = {
        {"a quarter used", "MemTotal: 1000 kB\nMemFree: 250 kB\nSwapTotal: 400 kB\nSwapFree: 100 kB\n", 2, 75, 75},
        {"missing field", "MemTotal: 1000 kB\nMemFree: 500 kB\nSwapTotal: 100 kB\nSwapCached: 0 kB\n", 0, 0, 0},
        // Both saturate at the same value; more free swap than there is:
        // nothing in use, not a wrapped figure.
        {"saturated", std::string(5000, 'M') + "\nMemTotal: " + huge + " kB\nMemFree: 18446744073709551615 kB\nJunk: " +
             std::string(300, '9') + "\nSwapTotal: 1000 kB\nSwapFree: " + huge + " kB\n", 2, 0, 0},
        // No swap: the whole is 0, so the raw part (0) is reported.
        {"no swap", "MemTotal: " + huge + " kB\nMemFree: 0 kB\nSwapTotal: 0 kB\nSwapFree: 0 kB\n", 2, 100, 0},
    };
    for (const Case& c : cases) {
        Rig r;
        r.proc.Write("meminfo", c.text);
        ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
        EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), c.samples) << c.what;
        int result = -1;
        EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE, 0, &result), c.mem) << c.what;
        EXPECT_EQ(result, 1) << c.what;  // the instance exists even without a sample
        EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE, -1), c.mem) << c.what;
        EXPECT_EQ(r.Current(CPerfMon::PERF_SWAP_USAGE), c.swap) << c.what;
    }
}

TEST(CPerfMonMemory, HistoryKeepsTheNewestAndAnUnreadableFileAddsNothing)
{
    Rig r(3);
    r.proc.MemInfo(1000, 900, 0, 0);  // 10 %
    ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
    for (uint64_t used : {200, 300, 400, 500}) {
        r.proc.MemInfo(1000, 1000 - used, 0, 0);
        r.mon.SnapshotData(kMem);
    }
    unlink(r.proc.Path("meminfo").c_str());
    r.mon.SnapshotData(kMem);
    EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), 3u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), 50);
    EXPECT_EQ(r.Average(CPerfMon::PERF_MEMORY_USAGE), 40);  // 30, 40, 50

    Rig never;  // never started: no histories, nothing read
    never.proc.MemInfo(1000, 500, 0, 0);
    never.mon.SnapshotData(CPerfMon::PERF_MONITOR_ALL);
    int result = -1;
    EXPECT_EQ(never.Current(CPerfMon::PERF_MEMORY_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 0);
}

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
    const int expected[] = {50, 50, 40, 10};  // usage, idle, user, kernel
    for (int v = CPerfMon::PERF_SYSTEM_USAGE; v <= CPerfMon::PERF_SYSTEM_KERNEL; ++v)
        EXPECT_EQ(r.Current(static_cast<PMV>(v)), expected[v]) << v;
    EXPECT_EQ(r.Average(CPerfMon::PERF_SYSTEM_USER), 40);  // the zero-total sample does not count
    r.proc.Stat(130, 10, 60, 1000);  // idle only
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_IDLE), 100);
    EXPECT_EQ(r.Average(CPerfMon::PERF_SYSTEM_USAGE), 25);

    // Modes other than 0 (current) and 1 (average) answer 0 and leave the byte.
    unsigned char p = 7;
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, 2, 0), 0);
    EXPECT_EQ(r.mon.GetUsagePercent(p, CPerfMon::PERF_SYSTEM_USAGE, -1, 0), 0);
    EXPECT_EQ(p, 7);
    // Instances that do not exist and values outside every group: 0, 0.
    for (auto [value, instance] : {std::pair{0, 1}, {0, -2}, {21, 0}, {-1, 0}}) {
        p = 7;
        EXPECT_EQ(r.mon.GetCurrentPercent(static_cast<PMV>(value), p, instance), 0) << value << " " << instance;
        EXPECT_EQ(p, 0);
    }
}

TEST(CPerfMonSystem, MalformedAndOverflowingSummaryLines)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys | CPerfMon::PERF_MONITOR_CPU, 0), 0u);
    for (const char* bad : {"cpu  1 2 3\n", "cpu\n", "", "intr 1 2 3 4 5\ncpu 1 2 3 4\n", "cpu 1 2 x 4\n",
                            "cpu -1 2 3 4\n"}) {
        r.proc.Write("stat", bad);
        r.mon.SnapshotData(kSys);
        EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 1u) << bad;
    }
    r.proc.Stat(200, 0, 50, 850);  // a bad reading did not replace the previous one
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USER), 100);

    r.proc.Write("stat", "cpu 99999999999999999999999 99999999999999999999 1 1\n");
    r.mon.SnapshotData(kSys);
    r.proc.Write("stat", "cpu 99999999999999999999999 99999999999999999999 2 9\n");
    r.mon.SnapshotData(kSys);
    EXPECT_LE(r.Current(CPerfMon::PERF_SYSTEM_USAGE), 100);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_KERNEL), 11);  // 1 of 9

    // Per-processor values are accepted but never sampled: no instance.
    EXPECT_EQ(r.mon.GetNumberInstances(CPerfMon::PERF_MONITOR_CPU), 0u);
    for (int v = CPerfMon::PERF_CPU_USAGE; v <= CPerfMon::PERF_CPU_KERNEL; ++v)
        for (int instance : {-1, 0, 1}) {
            int current = -1, average = -1;
            EXPECT_EQ(r.Current(PMV(v), instance, &current) + r.Average(PMV(v), instance, &average), 0);
            EXPECT_EQ(current + average, 0) << v;
        }
}

namespace {

// Network monitoring of the given interfaces at 1 Mbit/s (131072 bytes a
// second), started at 1000 ms.
void StartNetwork(Rig& r, const std::vector<NetIf>& interfaces)
{
    for (const NetIf& n : interfaces)
        r.speed->Set(n.name, 1);
    r.proc.NetDev(interfaces);
    r.clock->Set(1000);
    ASSERT_NE(r.mon.StartMonitoring(kNet, 0), 0u);
}

void NextReading(Rig& r, const std::vector<NetIf>& interfaces, uint64_t atMs)
{
    r.proc.NetDev(interfaces);
    r.clock->Set(atMs);
    r.mon.SnapshotData(kNet);
}

} // namespace

TEST(CPerfMonNetwork, RatesAgainstTheIntervalBudget)
{
    struct Case { const char* what; NetIf start, next; uint64_t atMs; int received, sent, usage; };
    const Case cases[] = {
        {"half received, a tenth sent", {"eth0", 1000, 5000}, {"eth0", 1000 + 65536, 5000 + 13107}, 2000, 50, 10, 60},
        // Half the link for two seconds: the budget is two seconds' worth.
        {"longer interval", {"eth0", 0, 0}, {"eth0", 131072, 0}, 3000, 25, 0, 25},
        {"32-bit counters wrapped", {"eth0", 0xFFFF8000ull, 0xFFFFFFF0ull}, {"eth0", 0x8000, 0x10}, 2000, 50, 0, 50},
        {"64-bit counter reset", {"eth0", 0x200000000ull, 0}, {"eth0", 13107, 0}, 2000, 10, 0, 10},
    };
    for (const Case& c : cases) {
        Rig r;
        StartNetwork(r, {c.start});
        EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u) << "both start readings have the same time";
        NextReading(r, {c.next}, c.atMs);
        ASSERT_EQ(r.mon.GetHistoryCount(kNet, 0), 1u) << c.what;
        EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), c.received) << c.what;
        EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_SENT), c.sent) << c.what;
        EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_USAGE), c.usage) << c.what;
        EXPECT_EQ(r.Average(CPerfMon::PERF_NETWORK_USAGE), c.usage) << c.what;
    }
}

TEST(CPerfMonNetwork, ShortIntervalsAndAClockSetBackKeepOrRestartTheReading)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}});
    NextReading(r, {{"eth0", 1000, 0}}, 1000);  // same time: elapsed × capacity is 0
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);
    NextReading(r, {{"eth0", 65536, 0}}, 2000);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 50);  // from the start's 0, not from 1000
    NextReading(r, {{"eth0", 500000, 0}}, 500);  // set back: starts afresh
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 1u);
    NextReading(r, {{"eth0", 500000 + 13107, 0}}, 1500);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED), 10);
}

TEST(CPerfMonNetwork, InstancesFollowTheInterfaceTable)
{
    Rig r;
    r.speed->Set("br0", 1);
    r.speed->Set("eth5", 1);
    StartNetwork(r, {{"lo", 0, 0}, {"eth0", 0, 0}, {"docker0", 0, 0}, {"wlan0", 0, 0}, {"br0", 0, 0}});
    ASSERT_EQ(r.mon.GetNumberInstances(kNet), 2u);
    // A third interface appears and lo moves: only the first two monitored
    // lines are instances.
    NextReading(r, {{"eth0", 13107, 0}, {"lo", 999999, 0}, {"docker0", 999999, 0}, {"br0", 65536, 0},
                    {"eth5", 999999, 0}}, 2000);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 10);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 1), 50);
    int result = -1;
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 2, &result), 0);
    EXPECT_EQ(result, 0);
    // Over all instances: eth0 1 % (a quotient of 1000), br0 idle.  The
    // current form rounds to 0, the average to 1.
    NextReading(r, {{"eth0", 13107 + 1311, 0}, {"br0", 65536, 0}}, 3000);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, -1, &result), 0);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 2u);
    // The second goes away: the first is still measured.
    NextReading(r, {{"eth0", 13107 + 1311 + 26214, 0}}, 4000);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 3u);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 2u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 20);
}

TEST(CPerfMonNetwork, MalformedCounterLinesUnknownSpeedsAndNoInterfaces)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}, {"eth1", 0, 0}});
    r.proc.Write("net/dev", "Inter-|\n face |\n  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n"
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

    Rig unknown;  // no speed known for eth0: no sample, but the instance exists
    unknown.proc.NetDev({{"eth0", 0, 0}});
    ASSERT_NE(unknown.mon.StartMonitoring(kNet, 0), 0u);
    NextReading(unknown, {{"eth0", 65536, 0}}, 5000);
    EXPECT_EQ(unknown.mon.GetHistoryCount(kNet, 0), 0u);
    int result = -1;
    EXPECT_EQ(unknown.Current(CPerfMon::PERF_NETWORK_USAGE, 0, &result), 0);
    EXPECT_EQ(result, 1);

    Rig none;
    EXPECT_EQ(none.mon.StartMonitoring(kNet, 0), 0u);  // no statistics file
    none.proc.NetDev({{"lo", 0, 0}, {"wlan0", 0, 0}});
    EXPECT_EQ(none.mon.StartMonitoring(kNet, 0), 0u);
    EXPECT_FALSE(none.mon.IsStarted());
    none.proc.MemInfo(100, 50, 0, 0);  // with another group the start goes on without the network
    EXPECT_NE(none.mon.StartMonitoring(kNet | kMem, 0), 0u);
    EXPECT_EQ(none.mon.GetNumberInstances(kNet), 0u);
    EXPECT_EQ(none.mon.GetNumberInstances(kMem), 1u);
}

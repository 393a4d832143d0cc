// Samples of every group from a made-up proc root against hand-computed figures, and bad input
// (a zero period: the test takes every snapshot); then the monitoring thread's life cycle,
// concurrent readers, and a run against the machine's own /proc.  Nothing here depends on the
// machine's speed.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <unistd.h>

#include "PerfMonRig.h"
#include "perfmon/PerfMonPaths.h"
#include "support/Wait.h"

using namespace perfmontest;
using testsupport::FakeProc;
using Answer = std::pair<int, int>;

namespace {

// Network monitoring of the given interfaces at 1 Mbit/s (131072 bytes a second).
void StartNetwork(Rig& r, const std::vector<NetIf>& interfaces)
{
    for (const NetIf& n : interfaces)
        r.speed->speeds[n.name] = 1;
    r.proc.NetDev(interfaces);
    ASSERT_NE(r.mon.StartMonitoring(kNet, 0), 0u);
}

void NextReading(Rig& r, const std::vector<NetIf>& interfaces, uint64_t atMs)
{
    r.proc.NetDev(interfaces);
    r.clock->now = atMs;
    r.mon.SnapshotData(kNet);
}

bool WaitForMemorySamples(CPerfMon& mon, unsigned count)
{
    return testsupport::WaitFor([&] { return mon.GetHistoryCount(kMem, 0) >= count; });
}

const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

void WriteLimit(Rig& r, int openFiles)
{
    r.proc.Write("self/limits", "Limit                     Soft Limit           Hard Limit           Units\n"
                                "Max processes             96365                96365                processes\n"
                                "Max open files            " + std::to_string(openFiles) + "        4096      files\n");
}

// 1000 kB of memory and as much swap, 2 processors, 5 of 50 descriptors, 1 runnable of 4
// tasks, pid_max 40, 64 own threads, 200 kB resident (in whole pages), 500 kB virtual.
void WriteProcesses(Rig& r, uint64_t systemTicks, uint64_t ownTicks, const char* loadavg = "0.52 0.58 0.59 1/4 42\n")
{
    r.proc.MemInfo(1000, 500, 1000, 1000);
    const uint64_t quarter = systemTicks / 4;
    r.proc.Stat(quarter, 0, quarter, systemTicks - 2 * quarter, 2);
    r.proc.Write("self/stat", FakeProc::ProcessStat(4242, "kopd", 'S', ownTicks, 0, 64, 512000, 204800 / kPage));
    WriteLimit(r, 50);
    for (int fd = 0; fd < 5; ++fd)
        r.proc.Write("self/fd/" + std::to_string(fd), "");
    r.proc.Write("sys/kernel/pid_max", "40\n");
    if (loadavg)
        r.proc.Write("loadavg", loadavg);
    else
        unlink(r.proc.Path("loadavg").c_str());
    r.proc.Write("1/stat", FakeProc::ProcessStat(1, "init", 'S', 1, 1, 1, 100, 1));
    r.proc.Write("2/stat", FakeProc::ProcessStat(2, "busy) (R", 'R', 1, 1, 1, 100, 1));
    r.proc.Write("4242/stat", FakeProc::ProcessStat(4242, "kopd", 'S', 1, 1, 64, 100, 1));
}

std::vector<int> Figures(Rig& r) { return r.Answers(CPerfMon::PERF_PROCESS_CPU, CPerfMon::PERF_PROCESS_DESCRIPTORS); }

} // namespace

TEST(CPerfMonMemory, UsedAndSwapFromMalformedAndOverflowingFiles)
{
    struct Case { const char* what; std::string text; unsigned samples; int mem; int swap; };
    const std::string huge = "99999999999999999999999999";
    const Case cases[] = {
        {"a quarter used", "MemTotal: 1000 kB\nMemFree: 250 kB\nSwapTotal: 400 kB\nSwapFree: 100 kB\n", 2, 75, 75},
        {"missing field", "MemTotal: 1000 kB\nMemFree: 500 kB\nSwapTotal: 100 kB\nSwapCached: 0 kB\n", 0, 0, 0},
        // Plain unsigned arithmetic: more free than the total wraps to an
        // absurd figure that the percentage holds at 100.
        {"free above the total", "MemTotal: 1000 kB\nMemFree: 2000 kB\nSwapTotal: 400 kB\nSwapFree: 401 kB\n", 2,
         100, 100},
        // Saturated readings: total - free of equal figures is 0; 1000 - 2^64-1 wraps to 1001.
        {"saturated", std::string(5000, 'M') + "\nMemTotal: " + huge + " kB\nMemFree: 18446744073709551615 kB\nJunk: " +
             std::string(300, '9') + "\nSwapTotal: 1000 kB\nSwapFree: " + huge + " kB\n", 2, 0, 100},
        // No swap: the whole is 0, so the raw part (0) is reported.
        {"no swap", "MemTotal: " + huge + " kB\nMemFree: 0 kB\nSwapTotal: 0 kB\nSwapFree: 0 kB\n", 2, 100, 0},
    };
    for (const Case& c : cases) {
        Rig r;
        r.proc.Write("meminfo", c.text);
        ASSERT_NE(r.mon.StartMonitoring(kMem, 0), 0u);
        EXPECT_EQ(r.mon.GetHistoryCount(kMem, 0), c.samples) << c.what;
        EXPECT_EQ(r.Answer(CPerfMon::PERF_MEMORY_USAGE), Answer(c.mem, 1)) << c.what;  // even without a sample
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
    EXPECT_EQ(never.Answer(CPerfMon::PERF_MEMORY_USAGE), Answer(0, 0));
    for (int type : {kMem, kSys, kNet, kProc, int(CPerfMon::PERF_MONITOR_CPU), 0x40 /* no group */})
        EXPECT_EQ(never.mon.GetHistoryCount(type, 0) + never.mon.GetNumberInstances(type), 0u) << type;
}

TEST(CPerfMonSystem, DifferencesOfTheSummaryLineAndQueriesOutsideTheGroups)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys, 0), 0u);
    // The first reading only became the previous one; the second has a zero total.
    EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 1u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USAGE), 0);
    r.proc.Stat(130, 10, 60, 900);  // +40 user (with nice), +10 kernel, +50 idle
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Answers(CPerfMon::PERF_SYSTEM_USAGE, CPerfMon::PERF_SYSTEM_KERNEL),
              (std::vector{50, 1, 50, 1, 40, 1, 10, 1}));  // usage, idle, user, kernel
    EXPECT_EQ(r.Average(CPerfMon::PERF_SYSTEM_USER), 40);  // the zero-total sample does not count
    r.proc.Stat(130, 10, 60, 1000);  // idle only
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_IDLE), 100);
    // Counters that went back by as much as idle went on: a zero whole, so
    // the current form reports each raw difference's low byte (idle +140,
    // user -140 wrapped), and the average leaves the sample out.
    r.proc.Stat(0, 0, 60, 1140);
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Answers(CPerfMon::PERF_SYSTEM_USAGE, CPerfMon::PERF_SYSTEM_KERNEL),
              (std::vector{116, 1, 140, 1, 116, 1, 0, 1}));
    EXPECT_EQ(r.Average(CPerfMon::PERF_SYSTEM_USAGE), 25);
    // Modes other than 0 and 1 answer 0 and leave the byte.
    for (int mode : {2, -1})
        EXPECT_EQ(r.Answer(CPerfMon::PERF_SYSTEM_USAGE, 0, mode), Answer(222, 0)) << mode;
    // Instances that do not exist and values outside every group: 0, 0.
    for (auto [value, instance] : {std::pair{0, 1}, {0, -2}, {21, 0}, {-1, 0}})
        EXPECT_EQ(r.Answer(PMV(value), instance), Answer(0, 0)) << value << " " << instance;
}

TEST(CPerfMonSystem, MalformedAndOverflowingSummaryLines)
{
    Rig r;
    r.proc.Stat(100, 0, 50, 850);
    ASSERT_NE(r.mon.StartMonitoring(kSys | CPerfMon::PERF_MONITOR_CPU, 0), 0u);
    for (const char* bad : {"cpu  1 2 3\n", "cpu\n", "", "intr 1 2 3 4 5\ncpu 1 2 3 4\n"}) {
        r.proc.Write("stat", bad);
        r.mon.SnapshotData(kSys);
        EXPECT_EQ(r.mon.GetHistoryCount(kSys, 0), 1u) << bad;
    }
    r.proc.Stat(200, 0, 50, 850);  // a bad reading did not replace the previous one
    r.mon.SnapshotData(kSys);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_USER), 100);
    for (const char* overflowing : {"cpu 99999999999999999999999 99999999999999999999 1 1\n",
                                    "cpu 99999999999999999999999 99999999999999999999 2 9\n"}) {
        r.proc.Write("stat", overflowing);
        r.mon.SnapshotData(kSys);
    }
    EXPECT_LE(r.Current(CPerfMon::PERF_SYSTEM_USAGE), 100);
    EXPECT_EQ(r.Current(CPerfMon::PERF_SYSTEM_KERNEL), 11);  // 1 of 9
    // Per-processor values are accepted but never sampled: no instance.
    EXPECT_EQ(r.mon.GetNumberInstances(CPerfMon::PERF_MONITOR_CPU), 0u);
    for (int instance : {-1, 0, 1})
        for (int mode : {0, 1})
            EXPECT_EQ(r.Answers(CPerfMon::PERF_CPU_USAGE, CPerfMon::PERF_CPU_KERNEL, instance, mode),
                      std::vector(8, 0));
}

TEST(CPerfMonNetwork, RatesAgainstTheIntervalBudget)
{
    struct Case { const char* what; NetIf start, next; uint64_t atMs; int received, sent, usage; };
    const Case cases[] = {
        {"half received, a tenth sent", {"eth0", 1000, 5000}, {"eth0", 1000 + 65536, 5000 + 13107}, 2000, 50, 10, 60},
        // Half the link for two seconds: the budget is two seconds' worth.
        {"longer interval", {"eth0", 0, 0}, {"eth0", 131072, 0}, 3000, 25, 0, 25},
        {"32-bit counters wrapped", {"eth0", 0xFFFF8000ull, 0xFFFFFFF0ull}, {"eth0", 0x8000, 0x10}, 2000, 50, 0, 50},
        // Above 32 bits a counter that went down is not a wrap: the plain difference is absurd.
        {"64-bit counter reset", {"eth0", 0x200000000ull, 0}, {"eth0", 13107, 0}, 2000, 100, 0, 100},
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

TEST(CPerfMonNetwork, InstancesFollowTheInterfaceTableAndShortIntervalsKeepTheReading)
{
    Rig r;
    r.speed->speeds = {{"br0", 1}, {"eth5", 1}};
    StartNetwork(r, {{"lo", 0, 0}, {"eth0", 0, 0}, {"docker0", 0, 0}, {"wlan0", 0, 0}, {"br0", 0, 0}});
    ASSERT_EQ(r.mon.GetNumberInstances(kNet), 2u);
    // A third interface appears and lo moves: the first two monitored lines are the instances.
    NextReading(r, {{"eth0", 13107, 0}, {"lo", 999999, 0}, {"docker0", 999999, 0}, {"br0", 65536, 0},
                    {"eth5", 999999, 0}}, 2000);
    EXPECT_EQ(Answer(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 1)),
              Answer(10, 50));
    EXPECT_EQ(r.Answer(CPerfMon::PERF_NETWORK_RECEIVED, 2), Answer(0, 0));
    // Over all: eth0 1 % (a quotient of 1000), br0 idle; the current form rounds to 0.
    NextReading(r, {{"eth0", 13107 + 1311, 0}, {"br0", 65536, 0}}, 3000);
    EXPECT_EQ(r.Answer(CPerfMon::PERF_NETWORK_RECEIVED, -1), Answer(0, 1));
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 2u);
    // The second goes away: the first is still measured.
    NextReading(r, {{"eth0", 13107 + 1311 + 26214, 0}}, 4000);
    EXPECT_EQ(std::pair(r.mon.GetHistoryCount(kNet, 0), r.mon.GetHistoryCount(kNet, 1)), std::pair(3u, 2u));
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 20);
    // At the same time again: no sample, and the reading is kept (not 19 % from the 999 more).
    NextReading(r, {{"eth0", 40632 + 999, 0}}, 4000);
    NextReading(r, {{"eth0", 40632 + 26214, 0}}, 5000);
    EXPECT_TRUE(r.mon.GetHistoryCount(kNet, 0) == 4u && r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0) == 20);
    // The clock set back: a huge elapsed time, so a sample with a rate near 0.
    NextReading(r, {{"eth0", 500000, 0}}, 500);
    EXPECT_TRUE(r.mon.GetHistoryCount(kNet, 0) == 5u && r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0) == 0);
    NextReading(r, {{"eth0", 500000 + 13107, 0}}, 1500);
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_RECEIVED, 0), 10);
}

TEST(CPerfMonNetwork, MalformedCounterLinesUnknownSpeedsAndNoInterfaces)
{
    Rig r;
    StartNetwork(r, {{"eth0", 0, 0}, {"eth1", 0, 0}});
    r.proc.Write("net/dev", "Inter-|\n face |\n  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n"
                            "  eth1: 99999999999999999999999 0 0 0 0 0 0 0 99999999999999999999999 0 0 0 0 0 0 0\n");
    r.clock->now = 2000;
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 0), 0u);  // fifteen counters only
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 1u);  // saturated, still a sample
    EXPECT_EQ(r.Current(CPerfMon::PERF_NETWORK_USAGE, 1), 100);
    unlink(r.proc.Path("net/dev").c_str());
    r.clock->now = 3000;
    r.mon.SnapshotData(kNet);
    EXPECT_EQ(r.mon.GetHistoryCount(kNet, 1), 1u);

    Rig unknown;  // no speed known for eth0: no sample, but the instance exists
    unknown.proc.NetDev({{"eth0", 0, 0}});
    ASSERT_NE(unknown.mon.StartMonitoring(kNet, 0), 0u);
    NextReading(unknown, {{"eth0", 65536, 0}}, 5000);
    EXPECT_EQ(unknown.mon.GetHistoryCount(kNet, 0), 0u);
    EXPECT_EQ(unknown.Answer(CPerfMon::PERF_NETWORK_USAGE), Answer(0, 1));

    Rig none;
    EXPECT_EQ(none.mon.StartMonitoring(kNet, 0), 0u);  // no statistics file
    none.proc.NetDev({{"lo", 0, 0}, {"wlan0", 0, 0}});
    EXPECT_FALSE(none.mon.StartMonitoring(kNet, 0) || none.mon.IsStarted());
    none.proc.MemInfo(100, 50, 0, 0);  // with another group the start goes on without the network
    EXPECT_NE(none.mon.StartMonitoring(kNet | kMem, 0), 0u);
    EXPECT_EQ(std::pair(none.mon.GetNumberInstances(kNet), none.mon.GetNumberInstances(kMem)), std::pair(0u, 1u));
}

TEST(CPerfMonProcesses, FiguresAloneWithSharedReadingsAndWithUnknownWholes)
{
    if (204800 % kPage != 0)
        GTEST_SKIP() << "page size does not divide the made-up resident size";
    // Each value's current percentage and answer: cpu 30 of 100, cpu-all 30 of 200, resident 200 of
    // 1000 kB, virtual 500 of 2000 kB, threads 64 of 256, tasks 4 of 40, 1 runnable on 2 processors,
    // descriptors 5 of 50.
    const std::vector<int> all = {30, 1, 15, 1, 20, 1, 25, 1, 25, 1, 10, 1, 50, 1, 10, 1};
    const std::vector<int> noTasks = {30, 1, 15, 1, 20, 1, 25, 1, 25, 1, 0, 1, 0, 1, 10, 1};
    struct Case { int types; const char* loadavg; const char* limit; bool pidMax; std::vector<int> figures; };
    const char* load = "0.52 0.58 0.59 1/4 42\n";
    const Case cases[] = {
        {kProc, load, nullptr, true, all}, {kProc | kMem | kSys, load, nullptr, true, all},
        {0x1000 /* high bits also select processes */, load, nullptr, true, all},
        {kProc, nullptr, nullptr, true, noTasks},         {kProc, "", nullptr, true, noTasks},
        {kProc, "0.00 0.01 0.05\n", nullptr, true, noTasks}, {kProc, "0.00 0.01 0.05 3 8\n", nullptr, true, noTasks},
        {kProc, "0.00 0.01 0.05 x/8 9\n", nullptr, true, noTasks},
        {kProc, "0.00 0.01 0.05 3/\n", nullptr, true, noTasks},
        {kProc, "0.00 0.01 0.05 1/4 9\n", "unlimited", false, {30, 1, 15, 1, 20, 1, 25, 1, 25, 1, 0, 1, 50, 1, 0, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.types) + " " + (c.loadavg ? c.loadavg : "(no loadavg)"));
        Rig r;
        WriteProcesses(r, 1000, 10, c.loadavg);
        if (c.limit)
            r.proc.Write("self/limits", std::string("Max open files            ") + c.limit + "  unlimited  files\n");
        if (!c.pidMax)
            unlink(r.proc.Path("sys/kernel/pid_max").c_str());
        ASSERT_NE(r.mon.StartMonitoring(c.types, 0), 0u);
        EXPECT_EQ(r.mon.GetNumberInstances(kProc), 1u);
        EXPECT_EQ(r.mon.GetHistoryCount(kProc, 0), 1u);  // the first reading only became the previous
        WriteProcesses(r, 1200, 40, c.loadavg);  // 200 ticks, 100 a processor; 30 own ticks
        r.mon.SnapshotData(c.types);
        EXPECT_EQ(Figures(r), c.figures);
        EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_CPU), 30);  // skips the first sample: no interval
        EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_COUNT), c.figures[10]);  // both samples alike
        EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), (c.types & kMem) ? 50 : 0);
    }
}

TEST(CPerfMonProcesses, PidMaxAndLimitAreReadAtStartThenNowAndThen)
{
    Rig r;
    WriteProcesses(r, 1000, 10);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    const auto figures = [&] {  // descriptors and tasks
        return Answer(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), r.Current(CPerfMon::PERF_PROCESS_COUNT));
    };
    EXPECT_EQ(figures(), Answer(10, 10));  // 5 of 50, 4 of 40
    WriteLimit(r, 10);
    r.proc.Write("sys/kernel/pid_max", "16\n");
    // Read at the start's first snapshot, again kSlowRefreshSnapshots later (the start's second counts).
    for (unsigned snapshots = 2; snapshots < perfmon::kSlowRefreshSnapshots; ++snapshots) {
        r.mon.SnapshotData(kProc);
        ASSERT_EQ(figures(), Answer(10, 10));
    }
    r.mon.SnapshotData(kProc);
    EXPECT_EQ(figures(), Answer(50, 25));  // 5 of 10, 4 of 16
    r.mon.StopMonitoring();  // a new start reads them at once
    WriteLimit(r, 25);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 20);
}

TEST(CPerfMonProcesses, ProcessListIsReadWhenAsked)
{
    Rig r;
    WriteProcesses(r, 1000, 10);
    EXPECT_TRUE(r.mon.GetProcesses().empty());  // not monitoring: nothing is read
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    std::vector<PerfProcessRecord> procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 3u);
    EXPECT_EQ(procs[1].name, "busy) (R");  // the name may hold blanks and parentheses
    EXPECT_TRUE(procs[1].state == 'R' && procs[2].threads == 64u);
    // No snapshot in between: the list follows the proc root; bad records and names are skipped.
    r.proc.Write("77/stat", FakeProc::ProcessStat(77, "worker", 'R', 5, 6, 3, 100, 1));
    r.proc.Write("78/stat", "78 (broken");
    r.proc.Write("12x/stat", FakeProc::ProcessStat(12, "x", 'R', 1, 1, 1, 1, 1));
    r.proc.Write("0/stat", FakeProc::ProcessStat(0, "zero", 'R', 1, 1, 1, 1, 1));
    testsupport::RemoveTree(r.proc.Path("1"));
    procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 3u);
    EXPECT_TRUE(procs[1].pid == 77 && procs[1].cpuTicks == 11u && procs[1].ppid == 1 && procs[2].pid == 4242);
    r.mon.StopMonitoring();  // the last list stays as it was
    testsupport::RemoveTree(r.proc.Path("77"));
    EXPECT_EQ(r.mon.GetProcesses().size(), 3u);
}

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
    std::atomic<bool> stop{false}, outOfRange{false};
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

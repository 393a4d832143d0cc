// The process group: figures of the own process and of the system's process
// load, the files a snapshot reads (and shares), and the process list.
#include <gtest/gtest.h>

#include <unistd.h>

#include "PerfMonRig.h"
#include "perfmon/PerfMonPaths.h"

using namespace perfmontest;
using testsupport::FakeProc;

namespace {

const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

void WriteLimit(Rig& r, int openFiles)
{
    r.proc.Write("self/limits", "Limit                     Soft Limit           Hard Limit           Units\n"
                                "Max processes             96365                96365                processes\n"
                                "Max open files            " + std::to_string(openFiles) + "        4096      files\n");
}

// 1000 kB of memory and as much swap, 2 processors, 5 of 50 descriptors,
// 1 runnable of 4 tasks, pid_max 40, 64 own threads, 200 kB resident (in
// whole pages) and 500 kB virtual.
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

// Every process value's current percentage and answer.
std::vector<int> Figures(Rig& r)
{
    std::vector<int> out;
    for (int v = CPerfMon::PERF_PROCESS_CPU; v <= CPerfMon::PERF_PROCESS_DESCRIPTORS; ++v) {
        int result = -1;
        out.push_back(r.Current(static_cast<PMV>(v), 0, &result));
        out.push_back(result);
    }
    return out;
}

} // namespace

TEST(CPerfMonProcesses, FiguresAloneWithSharedReadingsAndWithUnknownWholes)
{
    if (204800 % kPage != 0)
        GTEST_SKIP() << "page size does not divide the made-up resident size";
    // cpu 30 of 100, cpu-all 30 of 200, resident 200 of 1000 kB, virtual 500
    // of 2000 kB, threads 64 of 256, tasks 4 of 40, 1 runnable on 2
    // processors, descriptors 5 of 50.
    const std::vector<int> all = {30, 1, 15, 1, 20, 1, 25, 1, 25, 1, 10, 1, 50, 1, 10, 1};
    const std::vector<int> noTasks = {30, 1, 15, 1, 20, 1, 25, 1, 25, 1, 0, 1, 0, 1, 10, 1};
    struct Case { int types; const char* loadavg; const char* limit; bool pidMax; std::vector<int> figures; };
    const Case cases[] = {
        {kProc, "0.52 0.58 0.59 1/4 42\n", nullptr, true, all},
        {kProc | kMem | kSys, "0.52 0.58 0.59 1/4 42\n", nullptr, true, all},
        {0x1000 /* high bits also select processes */, "0.52 0.58 0.59 1/4 42\n", nullptr, true, all},
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
        EXPECT_EQ(r.mon.GetHistoryCount(kProc, 0), 1u);  // the first reading only became the previous
        WriteProcesses(r, 1200, 40, c.loadavg);  // 200 ticks, 100 a processor; 30 own ticks
        r.mon.SnapshotData(c.types);
        EXPECT_EQ(Figures(r), c.figures);
        // The first sample had no processor interval: the average skips it.
        EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_CPU), 30);
        EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_COUNT), c.figures[10]);  // both samples alike
        EXPECT_EQ(r.Current(CPerfMon::PERF_MEMORY_USAGE), (c.types & kMem) ? 50 : 0);
    }
}

TEST(CPerfMonProcesses, PidMaxAndLimitAreReadAtStartThenNowAndThen)
{
    Rig r;
    WriteProcesses(r, 1000, 10);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10);  // 5 of 50
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 10);        // 4 of 40
    WriteLimit(r, 10);
    r.proc.Write("sys/kernel/pid_max", "16\n");
    // The start's first snapshot read them; the changes show at the
    // snapshot kSlowRefreshSnapshots later (the start's second counts).
    for (unsigned snapshots = 2; snapshots < perfmon::kSlowRefreshSnapshots; ++snapshots) {
        r.mon.SnapshotData(kProc);
        ASSERT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS) + r.Current(CPerfMon::PERF_PROCESS_COUNT), 20);
    }
    r.mon.SnapshotData(kProc);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 50);  // 5 of 10
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 25);        // 4 of 16
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
    EXPECT_EQ(procs[1].state, 'R');
    EXPECT_EQ(procs[2].threads, 64u);
    // No snapshot in between: the list follows the proc root at once.
    // Unreadable records and names that are no pid are skipped.
    r.proc.Write("77/stat", FakeProc::ProcessStat(77, "worker", 'R', 5, 6, 3, 100, 1));
    r.proc.Write("78/stat", "78 (broken");
    r.proc.Write("12x/stat", FakeProc::ProcessStat(12, "x", 'R', 1, 1, 1, 1, 1));
    r.proc.Write("0/stat", FakeProc::ProcessStat(0, "zero", 'R', 1, 1, 1, 1, 1));
    testsupport::RemoveTree(r.proc.Path("1"));
    procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 3u);
    EXPECT_EQ(procs[1].pid, 77);
    EXPECT_EQ(procs[1].cpuTicks, 11u);
    EXPECT_EQ(procs[1].ppid, 1);
    EXPECT_EQ(procs[2].pid, 4242);
    // After the stop the last list stays as it was.
    r.mon.StopMonitoring();
    testsupport::RemoveTree(r.proc.Path("77"));
    EXPECT_EQ(r.mon.GetProcesses().size(), 3u);
}

// The process group reads few files per snapshot: tasks from loadavg, the
// statistics and memory readings shared with the other groups of the same
// snapshot, pid_max and the open-file limit only now and then, and the
// per-process files only when the process list is asked for.
#include <gtest/gtest.h>

#include <unistd.h>

#include "perfmon/CPerfMon.h"
#include "perfmon/PerfMonPaths.h"
#include "PerfMonTestSupport.h"

namespace {

using perfmontest::Rig;
constexpr int kProc = CPerfMon::PERF_MONITOR_PROCESSES;
constexpr int kMem = CPerfMon::PERF_MONITOR_MEMORY;
constexpr int kSys = CPerfMon::PERF_MONITOR_SYSTEM;

void WriteLimit(Rig& r, int openFiles)
{
    r.proc.Write("self/limits", "Limit                     Soft Limit           Hard Limit           Units\n"
                                "Max open files            " +
                                    std::to_string(openFiles) + "                   4096                 files\n");
}

void WriteOwn(Rig& r, uint64_t ticks)
{
    r.proc.Write("self/stat", perfmontest::FakeProc::ProcessStat(4242, "kopd", 'S', ticks, 0, 64, 512000, 25));
}

void WriteSystem(Rig& r)
{
    r.proc.MemInfo(1000, 500, 1000, 1000);
    r.proc.Stat(100, 0, 100, 800, 2);
    WriteOwn(r, 10);
    WriteLimit(r, 50);
    for (int fd = 0; fd < 5; ++fd)
        r.proc.Write("self/fd/" + std::to_string(fd), "");
    r.proc.Write("sys/kernel/pid_max", "40\n");
    r.proc.Write("loadavg", "0.00 0.01 0.05 3/8 999\n");
    r.proc.Write("1/stat", perfmontest::FakeProc::ProcessStat(1, "init", 'S', 1, 1, 1, 100, 1));
    r.proc.Write("4242/stat", perfmontest::FakeProc::ProcessStat(4242, "kopd", 'S', 1, 1, 64, 100, 1));
}

// Every process figure of the newest sample.
std::vector<int> Figures(Rig& r)
{
    std::vector<int> out;
    for (int v = CPerfMon::PERF_PROCESS_CPU; v <= CPerfMon::PERF_PROCESS_DESCRIPTORS; ++v) {
        int result = -1;
        out.push_back(r.Current(static_cast<CPerfMon::PerfMonitorValue>(v), 0, &result));
        out.push_back(result);
    }
    return out;
}

void NextInterval(Rig& r, uint64_t own)
{
    static uint64_t step = 0;
    ++step;
    r.proc.Stat(100 + 50 * step, 0, 100 + 50 * step, 800 + 100 * step, 2);  // 200 ticks
    WriteOwn(r, own);
}

} // namespace

TEST(CPerfMonProcessSpeed, SharedReadingsGiveTheSameFigures)
{
    Rig alone, together;
    WriteSystem(alone);
    WriteSystem(together);
    ASSERT_NE(alone.mon.StartMonitoring(kProc, 0), 0u);
    ASSERT_NE(together.mon.StartMonitoring(kProc | kMem | kSys, 0), 0u);
    alone.proc.Stat(150, 0, 150, 900, 2);
    together.proc.Stat(150, 0, 150, 900, 2);
    WriteOwn(alone, 40);
    WriteOwn(together, 40);
    alone.mon.SnapshotData(kProc);
    together.mon.SnapshotData(kProc | kMem | kSys);
    std::vector<int> a = Figures(alone);
    EXPECT_EQ(a, Figures(together));
    EXPECT_EQ(alone.Current(CPerfMon::PERF_PROCESS_CPU), 30);        // 30 of 100 per processor
    EXPECT_EQ(alone.Current(CPerfMon::PERF_PROCESS_COUNT), 20);      // 8 tasks of 40
    EXPECT_EQ(alone.Current(CPerfMon::PERF_PROCESS_RUNNING), 100);   // 3 runnable on 2 processors
    EXPECT_EQ(alone.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10);
    EXPECT_EQ(alone.Current(CPerfMon::PERF_PROCESS_RESIDENT),
              static_cast<int>((25 * sysconf(_SC_PAGESIZE) * 100 + 512000) / 1024000));
    // The memory group's own figure is untouched by the sharing.
    EXPECT_EQ(together.Current(CPerfMon::PERF_MEMORY_USAGE), 50);
}

TEST(CPerfMonProcessSpeed, PidMaxAndLimitAreReadAtStartThenNowAndThen)
{
    Rig r;
    WriteSystem(r);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10);  // 5 of 50
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 20);        // 8 of 40
    WriteLimit(r, 10);
    r.proc.Write("sys/kernel/pid_max", "16\n");
    // The start's first snapshot read them; the changes show at the
    // snapshot kSlowRefreshSnapshots later (the start's second counts).
    unsigned snapshots = 2;
    for (; snapshots < perfmon::kSlowRefreshSnapshots; ++snapshots) {
        r.mon.SnapshotData(kProc);
        ASSERT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10) << "snapshot " << snapshots;
        ASSERT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 20);
    }
    r.mon.SnapshotData(kProc);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 50);  // 5 of 10
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 50);        // 8 of 16

    // A new start reads them at once.
    r.mon.StopMonitoring();
    WriteLimit(r, 25);
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 20);
}

TEST(CPerfMonProcessSpeed, MissingOrMalformedLoadAvgReportsNoTaskFigures)
{
    for (const char* text : {static_cast<const char*>(nullptr), "", "0.00 0.01 0.05\n", "0.00 0.01 0.05 3 8\n",
                             "0.00 0.01 0.05 x/8 9\n", "0.00 0.01 0.05 3/\n"}) {
        Rig r;
        WriteSystem(r);
        if (text == nullptr)
            unlink(r.proc.Path("loadavg").c_str());
        else
            r.proc.Write("loadavg", text);
        ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
        NextInterval(r, 30);
        r.mon.SnapshotData(kProc);
        const std::string what = text ? text : "(missing)";
        EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_COUNT), 0) << what;
        EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_COUNT), 0) << what;
        EXPECT_EQ(r.Average(CPerfMon::PERF_PROCESS_RUNNING), 0) << what;
        EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_DESCRIPTORS), 10) << what;
        EXPECT_EQ(r.Current(CPerfMon::PERF_PROCESS_THREADS), 25) << what;
    }
}

TEST(CPerfMonProcessSpeed, ProcessListIsReadWhenAsked)
{
    Rig r;
    WriteSystem(r);
    EXPECT_TRUE(r.mon.GetProcesses().empty());  // not monitoring: nothing is read
    ASSERT_NE(r.mon.StartMonitoring(kProc, 0), 0u);
    std::vector<PerfProcessRecord> procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 2u);
    EXPECT_EQ(procs[0].name, "init");

    // No snapshot in between: the list follows the proc root at once.
    r.proc.Write("77/stat", perfmontest::FakeProc::ProcessStat(77, "worker", 'R', 5, 6, 3, 100, 1));
    testsupport::RemoveTree(r.proc.Path("1"));
    procs = r.mon.GetProcesses();
    ASSERT_EQ(procs.size(), 2u);
    EXPECT_EQ(procs[0].pid, 77);
    EXPECT_EQ(procs[0].state, 'R');
    EXPECT_EQ(procs[0].cpuTicks, 11u);
    EXPECT_EQ(procs[1].pid, 4242);

    // After the stop the last list stays as it was.
    r.mon.StopMonitoring();
    r.proc.Write("78/stat", perfmontest::FakeProc::ProcessStat(78, "late", 'S', 1, 1, 1, 100, 1));
    EXPECT_EQ(r.mon.GetProcesses().size(), 2u);
}

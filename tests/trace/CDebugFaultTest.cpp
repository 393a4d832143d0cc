// The trace facility under stress and interference (ring cuts: CDebugRingCutFaultTest).
#include "daemon/CProcess.h"
#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <thread>
#include <unistd.h>

namespace {

class CDebugFaultTest : public testsupport::TraceEnv {
protected:
    CDebugFaultTest() : TraceEnv("faultprog") {}
};

TEST_F(CDebugFaultTest, ManyThreadsWrappingTheRingLoseAndDuplicateNothing)
{
    auto d = MakeTracing();
    d->SetApplInitDone();  // the active ring: 1 MiB
    ASSERT_EQ(CDebug::TARGET_RINGBUFFER, d->GetTarget());
    constexpr int kThreads = 8;
    constexpr int kEntries = 12000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&d, t] {
            for (int i = 0; i < kEntries; ++i) {
                if (i % 1000 == 0)  // to the log file as well
                    d->PrintAlways("\nFaultTest          : T%d S%d padding-padding-padding END", t, i);
                else
                    d->Print(1, "\nFaultTest          : T%d S%d padding-padding-padding END", t, i);
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_GE(d->GetRingWrapCount(), 3u) << "the ring should have wrapped several times";

    std::vector<std::string> entries;
    bool wrapped = false;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetActiveRingPath(), entries, &wrapped));
    EXPECT_TRUE(wrapped);
    std::map<int, std::vector<int>> seen;  // in time order
    auto check = [](const std::string& e, int& t, int& i) {
        // Every entry is whole: header, the full message and its end word.
        char end[8] = {0};
        std::string m = CTraceReader::MessageOf(e);
        ASSERT_TRUE(CTraceReader::IsEntryLine(e.data(), e.size())) << e;
        ASSERT_EQ(3, sscanf(m.c_str(), "FaultTest          : T%d S%d padding-padding-padding %3s", &t, &i, end)) << e;
        ASSERT_STREQ("END", end) << e;
        ASSERT_TRUE(t >= 0 && t < kThreads && i >= 0 && i < kEntries) << e;
    };
    for (const std::string& e : entries) {
        int t = -1, i = -1;
        if (CTraceReader::MessageOf(e).rfind("FaultTest", 0) != 0)
            continue;
        ASSERT_NO_FATAL_FAILURE(check(e, t, i));
        seen[t].push_back(i);
    }
    // The ring drops only the oldest: each thread's entries are a gapless run up to its last.
    for (auto& [t, seqs] : seen) {
        for (size_t k = 1; k < seqs.size(); ++k)
            ASSERT_EQ(seqs[k], seqs[k - 1] + 1) << "thread " << t << " lost or repeated an entry";
        EXPECT_EQ(kEntries - 1, seqs.back()) << "the newest entry of thread " << t << " survives";
    }
    std::map<int, int> logged;  // the log file got the always-entries whole, in order
    for (const std::string& l : Lines(LogPath())) {
        int t = -1, i = -1;
        ASSERT_NO_FATAL_FAILURE(check(l, t, i));
        EXPECT_EQ(i, logged.count(t) ? logged[t] + 1000 : 0) << l;
        logged[t] = i;
    }
}

// Threads keep tracing while the program is initialised again under other
// names: every entry carries one of the names whole (a thread copies the name
// under the lock, never while Init replaces it), the last entry the last name.
TEST_F(CDebugFaultTest, RenamingWhileThreadsTraceGivesWholeNames)
{
    auto d = MakeTracing();
    ASSERT_EQ(d->GetTarget(), CDebug::TARGET_RINGBUFFER);
    const char* const names[] = {"alphaprog", "betaprogram"};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            while (!stop.load())
                d->Print(3, "\nrenamethread entry");
        });
    for (int i = 0; i < 6; ++i)
        d->Init(names[i % 2]);
    stop = true;
    for (auto& th : threads)
        th.join();
    d->Print(3, "\nrenamethread last");
    size_t checked = 0;
    for (const std::string& line : Lines(d->GetInitialRingPath())) {
        // "time [thread] name " or, with the memory column, "... KB !name ".
        size_t at = line.find("] ");
        if (line.find("renamethread") == std::string::npos || at == std::string::npos)
            continue;
        at = line.find(" !", at) != std::string::npos ? line.find(" !", at) + 2 : at + 2;
        const std::string name = line.substr(at, line.find(' ', at) - at);
        ASSERT_TRUE(name == names[0] || name == names[1]) << line;
        if (line.find("renamethread last") != std::string::npos) {
            EXPECT_EQ(name, names[1]);
        }
        ++checked;
    }
    EXPECT_GT(checked, 0u);
}

TEST_F(CDebugFaultTest, SymlinksPlantedAtTheTraceFilesAreNotFollowed)
{
    testsupport::TempDir elsewhere;
    const std::string victimLog = elsewhere.Sub("victim-log");
    const std::string victimRing = elsewhere.Sub("victim-ring");
    ASSERT_TRUE(testsupport::WriteFile(victimLog, "keep me\n"));
    ASSERT_TRUE(testsupport::WriteFile(victimRing, "keep me too\n"));
    ASSERT_EQ(0, symlink(victimLog.c_str(), m_Dir.Sub("log.faultprog").c_str()));
    ASSERT_EQ(0, symlink(victimRing.c_str(), m_Dir.Sub("log.faultprog_i").c_str()));
    auto d = MakeTracing();
    d->Print(1, "\nFaultTest          : something");
    d.reset();
    EXPECT_EQ("keep me\n", testsupport::ReadFile(victimLog));
    EXPECT_EQ("keep me too\n", testsupport::ReadFile(victimRing));
}

TEST_F(CDebugFaultTest, ChildrenInheritNoTraceDescriptors)
{
    auto d = MakeTracing();
    ASSERT_EQ(CDebug::TARGET_RINGBUFFER, d->GetTarget());
    d->Print(1, "\nFaultTest          : open");
    // The child writes its listing of /proc/self/fd to our standard output,
    // which points at a file meanwhile.
    const std::string listing = m_Dir.Sub("fd-listing");
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    ASSERT_GE(saved, 0);
    int out = open(listing.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(out, 0);
    dup2(out, STDOUT_FILENO);
    close(out);
    uint32_t exitCode = 0, pid = 0;
    // keepDescriptors: only close-on-exec protects the trace's descriptors.
    bool ok = CProcess::ExecuteCmd("ls -l /proc/self/fd", exitCode, pid, nullptr, false, true);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    ASSERT_TRUE(ok);
    const std::string text = testsupport::ReadFile(listing);
    EXPECT_NE(std::string::npos, text.find("fd-listing")) << text;
    EXPECT_EQ(std::string::npos, text.find("log.faultprog")) << text;
}

} // namespace

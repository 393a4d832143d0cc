// The trace facility under stress and interference (ring cuts: CDebugRingCutFaultTest).
#include "daemon/CProcess.h"
#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
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
        const CTraceReader::EntryColumns e = CTraceReader::ParseEntry(line);
        if (e.text.rfind("renamethread", 0) != 0)
            continue;
        const std::string name = e.name.value_or("<none>");
        ASSERT_TRUE(name == names[0] || name == names[1]) << line;
        EXPECT_TRUE(e.text != "renamethread last" || name == names[1]) << line;
        ++checked;
    }
    EXPECT_GT(checked, 0u);
}

TEST_F(CDebugFaultTest, SymlinksPlantedAtTheTraceFilesAreNotFollowed)
{
    testsupport::TempDir elsewhere;
    const std::pair<const char*, const char*> planted[] = {{"log.faultprog", "log"}, {"log.faultprog_i", "ring"}};
    for (auto [file, victim] : planted) {
        ASSERT_TRUE(testsupport::WriteFile(elsewhere.Sub(victim), "keep me\n"));
        ASSERT_EQ(0, symlink(elsewhere.Sub(victim).c_str(), m_Dir.Sub(file).c_str()));
    }
    auto d = MakeTracing();
    d->Print(1, "\nFaultTest          : something");
    d.reset();
    for (auto [file, victim] : planted)
        EXPECT_EQ("keep me\n", testsupport::ReadFile(elsewhere.Sub(victim))) << file;
}

TEST_F(CDebugFaultTest, ChildrenInheritNoTraceDescriptors)
{
    auto d = MakeTracing();
    ASSERT_EQ(CDebug::TARGET_RINGBUFFER, d->GetTarget());
    d->Print(1, "\nFaultTest          : open");
    // keepDescriptors: only close-on-exec protects the trace's descriptors.  The listing's own file
    // stands at descriptor 1, so that an empty listing cannot pass.
    const std::string listing = m_Dir.Sub("fd-listing"), script = m_Dir.Sub("list.sh");
    ASSERT_TRUE(testsupport::WriteFile(script, "exec ls -l /proc/self/fd > " + listing + "\n"));
    uint32_t exitCode = 0, pid = 0;
    ASSERT_TRUE(CProcess::ExecuteCmd(("sh " + script).c_str(), exitCode, pid, nullptr, false, true));
    const std::string text = testsupport::ReadFile(listing);
    EXPECT_NE(std::string::npos, text.find("fd-listing")) << text;
    EXPECT_EQ(std::string::npos, text.find("log.faultprog")) << text;
}

} // namespace

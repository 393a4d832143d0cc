// The trace facility under stress and interference: many threads wrapping
// the ring buffer, the ring file truncated under the running program,
// symbolic links planted at the trace files, descriptors leaking to children.
#include "daemon/CProcess.h"
#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

class CDebugFaultTest : public testsupport::TraceEnv {
protected:
    CDebugFaultTest() : TraceEnv("faultprog") {}
};

TEST_F(CDebugFaultTest, ManyThreadsWrappingTheRingLoseAndDuplicateNothing)
{
    auto d = MakeTracing();
    d->SetApplInitDone(); // the active ring: 1 MiB
    ASSERT_EQ(CDebug::TARGET_RINGBUFFER, d->GetTarget());
    constexpr int kThreads = 6;
    constexpr int kEntries = 12000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&d, t] {
            for (int i = 0; i < kEntries; ++i)
                d->Print(1, "\nFaultTest          : T%d S%d padding-padding-padding END", t, i);
        });
    for (auto& th : threads)
        th.join();
    const unsigned wraps = d->GetRingWrapCount();
    EXPECT_GE(wraps, 3u) << "the ring should have wrapped several times";

    std::vector<std::string> entries;
    bool wrapped = false;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetActiveRingPath(), entries, &wrapped));
    EXPECT_TRUE(wrapped);
    std::map<int, std::set<int>> seen;
    size_t ours = 0;
    for (const std::string& e : entries) {
        std::string m = CTraceReader::MessageOf(e);
        if (m.rfind("FaultTest", 0) != 0)
            continue;
        ++ours;
        int t = -1, i = -1;
        char end[8] = {0};
        // Every entry is whole: header, the full message and its end word.
        ASSERT_TRUE(CTraceReader::IsEntryLine(e.data(), e.size())) << e;
        ASSERT_EQ(3, sscanf(m.c_str(), "FaultTest          : T%d S%d padding-padding-padding %3s", &t, &i, end)) << e;
        ASSERT_STREQ("END", end) << e;
        ASSERT_TRUE(t >= 0 && t < kThreads && i >= 0 && i < kEntries) << e;
        EXPECT_TRUE(seen[t].insert(i).second) << "duplicate entry " << e;
    }
    EXPECT_GT(ours, 1000u);
    for (auto& [t, seqs] : seen) {
        SCOPED_TRACE("thread " + std::to_string(t));
        // Between the oldest and the newest entry present none is missing.
        EXPECT_EQ(static_cast<size_t>(*seqs.rbegin() - *seqs.begin() + 1), seqs.size());
        EXPECT_EQ(kEntries - 1, *seqs.rbegin()) << "the newest entry of every thread survives";
    }
    RecordProperty("wraps", static_cast<int>(wraps));
}

// Exit codes of the child below.
enum { kChildOk = 0, kChildNoRing = 2, kChildNotRestored = 3 };

TEST_F(CDebugFaultTest, RingFileTruncatedUnderTheProgramDoesNotKillIt)
{
    fflush(nullptr);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto d = MakeTracing();
        d->SetApplInitDone();
        if (d->GetTarget() != CDebug::TARGET_RINGBUFFER)
            _exit(kChildNoRing);
        const std::string ring = d->GetActiveRingPath();
        const uint64_t size = d->GetRingBufferSize();
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < 2000; ++i)
                d->Print(1, "\nFaultTest          : before cut %d %d", round, i);
            // Shrink it to nothing and to less than a page.
            if (truncate(ring.c_str(), round % 2 ? 100 : 0) != 0)
                _exit(kChildNoRing);
            for (int i = 0; i < 6000; ++i)
                d->Print(1, "\nFaultTest          : after cut %d %d", round, i);
        }
        struct stat st {};
        if (stat(ring.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_size) != size)
            _exit(kChildNotRestored);
        d.reset();
        _exit(kChildOk);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_FALSE(WIFSIGNALED(status)) << "killed by signal " << WTERMSIG(status);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(kChildOk, WEXITSTATUS(status));
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

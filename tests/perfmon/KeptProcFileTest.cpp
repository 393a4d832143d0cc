// Proc files read through a kept descriptor: the lines of a fresh read, the
// current text at every read, a replaced file anew, a forked child's "self".
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"
#include "support/FakeProc.h"

using namespace perfmon;

namespace {

std::vector<std::string> LinesOf(CProcLineReader& reader)
{
    std::vector<std::string> lines;
    for (std::string line; reader.Next(line);)
        lines.push_back(line);
    return lines;
}

// The "Threads:" line of the own status file, read through `kept`.
std::string ThreadsLine(CKeptProcFile& kept)
{
    EXPECT_TRUE(kept.Read("/proc/self/status"));
    const std::string text(kept.Text());
    const size_t at = text.find("Threads:");
    return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
}

TEST(CKeptProcFile, ReadsAsAFreshReadDoesAndSeesEveryChange)
{
    testsupport::FakeProc dir;
    std::string big;
    while (big.size() <= kMaxTextFile)
        big += std::string(99, 'a') + "\n";
    // Short, beyond the first buffer, beyond the cap.
    const std::string kFiles[] = {"one\n\nlast line without newline",
                                  std::string(3 * kMaxLineLength, '7') + "\n" + std::string(40000, 'b'), big};
    CKeptProcFile kept;
    for (const std::string& text : kFiles) {
        dir.Write("f", text);
        CProcLineReader fresh, through;
        ASSERT_TRUE(fresh.Open(dir.Path("f")) && through.Open(kept, dir.Path("f")));
        EXPECT_TRUE(LinesOf(through) == LinesOf(fresh));
    }
    // A captured tree's file replaced between two reads is read anew.
    dir.Write("f", "replaced\n");
    EXPECT_TRUE(kept.Read(dir.Path("f")) && kept.Text() == "replaced\n");
    EXPECT_FALSE(kept.Read(dir.Path("absent")));
    EXPECT_TRUE(errno == ENOENT && kept.Text().empty());

    // A kept proc file shows the figures of the moment it is read.
    CKeptProcFile status;
    const std::string before = ThreadsLine(status);
    std::string during;
    std::thread([&] { during = ThreadsLine(status); }).join();
    EXPECT_TRUE(!before.empty() && during != before) << before;

    // A forked child reads its own "self", not its parent's.
    CKeptProcFile self;
    ASSERT_TRUE(self.Read("/proc/self/stat"));
    const pid_t child = fork();
    if (child == 0)
        _exit(self.Read("/proc/self/stat") && atoi(std::string(self.Text()).c_str()) == getpid() ? 0 : 1);
    ASSERT_GT(child, 0);
    int st = 0;
    EXPECT_TRUE(waitpid(child, &st, 0) == child && WIFEXITED(st) && WEXITSTATUS(st) == 0);
}

// A kept descriptor that no longer reads (its thread or process has ended) is given up: the path is
// opened anew, here the reading thread's own file; a process gone and a directory fail.
TEST(CKeptProcFile, DescriptorOfAnEndedTaskIsReopenedOrFails)
{
    CKeptProcFile kept;
    std::string other;
    std::thread([&] { other = kept.Read("/proc/thread-self/stat") ? std::string(kept.Text()) : ""; }).join();
    ASSERT_TRUE(kept.Read("/proc/thread-self/stat"));
    EXPECT_NE(atoi(other.c_str()), getpid());
    EXPECT_EQ(atoi(std::string(kept.Text()).c_str()), getpid());  // the main thread's id is the process's
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    const std::string stat = "/proc/" + std::to_string(child) + "/stat";
    EXPECT_TRUE(kept.Read(stat));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(kept.Read(stat));
    testsupport::TempDir dir;
    EXPECT_FALSE(kept.Read(dir.Path()));
}

} // namespace

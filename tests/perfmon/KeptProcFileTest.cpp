// Proc files read again and again through a kept descriptor: the same lines
// as a fresh read (long lines, the cap, a missing file), the current text at
// every read, a replaced file seen anew, and a forked child's own "self".
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
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

// The "Threads:" figure of the own status file, read through `kept`.
std::string ThreadsLine(CKeptProcFile& kept)
{
    CProcLineReader reader;
    EXPECT_TRUE(reader.Open(kept, "/proc/self/status"));
    for (const std::string& line : LinesOf(reader))
        if (line.rfind("Threads:", 0) == 0)
            return line;
    return "";
}

TEST(CKeptProcFile, ReadsAsAFreshReadDoesAndSeesEveryChange)
{
    testsupport::FakeProc dir;
    const std::string longest = "eth8: " + std::string(3 * kMaxLineLength, '7');
    std::string big;
    while (big.size() <= kMaxTextFile)
        big += std::string(99, 'a') + "\n";
    const struct {
        const char* name;
        std::string text;
    } kFiles[] = {
        {"short", "one\ntwo\n\nlast line without newline"},
        {"long", longest + "\n" + std::string(40000, 'b') + "\n"},  // beyond the first buffer
        {"big", big},                                               // beyond the cap
    };
    CKeptProcFile kept;
    for (const auto& f : kFiles) {
        SCOPED_TRACE(f.name);
        dir.Write(f.name, f.text);
        CProcLineReader fresh;
        CProcLineReader through;
        ASSERT_TRUE(fresh.Open(dir.Path(f.name)));
        ASSERT_TRUE(through.Open(kept, dir.Path(f.name)));
        EXPECT_TRUE(LinesOf(through) == LinesOf(fresh));
    }
    // A captured tree's file replaced between two reads is read anew.
    dir.Write("short", "replaced\n");
    ASSERT_TRUE(kept.Read(dir.Path("short")));
    EXPECT_EQ(kept.Text(), "replaced\n");
    EXPECT_FALSE(kept.Read(dir.Path("absent")));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(kept.Text(), "");

    // A kept proc file shows the figures of the moment it is read.
    CKeptProcFile status;
    const std::string before = ThreadsLine(status);
    std::string during;
    std::thread extra([&] { during = ThreadsLine(status); });
    extra.join();
    EXPECT_NE(before, "");
    EXPECT_NE(during, before);
    EXPECT_EQ(ThreadsLine(status), before);

    // A forked child reads its own "self", not its parent's.
    CKeptProcFile self;
    ASSERT_TRUE(self.Read("/proc/self/stat"));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool own = self.Read("/proc/self/stat") &&
                         std::stoi(std::string(self.Text().substr(0, 12))) == static_cast<int>(getpid());
        _exit(own ? 0 : 1);
    }
    int st = 0;
    ASSERT_EQ(waitpid(child, &st, 0), child);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
}

} // namespace

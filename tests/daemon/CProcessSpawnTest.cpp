// Starting programs: the observable results that must not depend on how the
// child is made (posix_spawn, or fork where execvp semantics are needed).
#include "daemon/CProcess.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <atomic>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Blocks signals for the scope of a test and restores the old mask.
struct SignalBlock {
    explicit SignalBlock(std::initializer_list<int> signals)
    {
        sigset_t set;
        sigemptyset(&set);
        for (int s : signals)
            sigaddset(&set, s);
        pthread_sigmask(SIG_BLOCK, &set, &old);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &old, nullptr); }
    sigset_t old;
};

// The SigBlk mask from a status file text.
unsigned long long BlockedMask(const std::string& status)
{
    auto at = status.find("SigBlk:");
    if (at == std::string::npos)
        return ~0ull;
    return strtoull(status.c_str() + at + 7, nullptr, 16);
}

} // namespace

TEST(CProcessSpawn, AsyncStartOfMissingProgramGivesChildExiting255)
{
    uint32_t pid = 0, code = 0;
    ASSERT_TRUE(CProcess::ExecuteCmdAsync("/nonexistent/program-xyz a b", pid));
    ASSERT_NE(pid, 0u);
    ASSERT_NE(pid, 0xFFFFFFFFu);
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_EQ(code, 255u);

    ASSERT_TRUE(CProcess::ExecuteCmdAsync("   ", pid)); // no program at all
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_EQ(code, 255u);
}

TEST(CProcessSpawn, SyncMissingProgramReportsRealReapedChild)
{
    uint32_t pid = 0, code = 0;
    EXPECT_FALSE(CProcess::ExecuteCmd("program-that-is-nowhere-in-path-xyz", code, pid));
    EXPECT_EQ(code, 255u);
    ASSERT_NE(pid, 0xFFFFFFFFu);
    ASSERT_GT(pid, 0u);
    // The child was reaped already.
    int status = 0;
    EXPECT_EQ(waitpid(static_cast<pid_t>(pid), &status, WNOHANG), -1);
}

TEST(CProcessSpawn, NotExecutableFileExitsWith255)
{
    testsupport::TempDir dir;
    const std::string path = dir.Sub("plain.txt");
    ASSERT_TRUE(testsupport::WriteFile(path, "exit 0\n"));
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    uint32_t pid = 0, code = 0;
    EXPECT_FALSE(CProcess::ExecuteCmd(path.c_str(), code, pid));
    EXPECT_EQ(code, 255u);
    // A directory cannot be run either.
    EXPECT_FALSE(CProcess::ExecuteCmd(dir.Path().c_str(), code, pid));
    EXPECT_EQ(code, 255u);
}

TEST(CProcessSpawn, ScriptWithoutInterpreterLineRunsUnderShell)
{
    testsupport::TempDir dir;
    const std::string path = dir.Sub("noshebang");
    ASSERT_TRUE(testsupport::WriteFile(path, "exit 7\n"));
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    uint32_t pid = 0, code = 0;
    EXPECT_FALSE(CProcess::ExecuteCmd(path.c_str(), code, pid));
    EXPECT_EQ(code, 7u);

    ASSERT_TRUE(CProcess::ExecuteCmdAsync(path.c_str(), pid));
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_EQ(code, 7u);
}

TEST(CProcessSpawn, RelativeProgramFoundInWorkingDirectory)
{
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("tool.sh"), "#!/bin/sh\ntouch ran-here\nexit 4\n"));
    ASSERT_EQ(chmod(dir.Sub("tool.sh").c_str(), 0755), 0);
    std::string before;
    ASSERT_TRUE(CProcess::GetCurrentDir(before));
    uint32_t pid = 0, code = 0;
    EXPECT_FALSE(CProcess::ExecuteCmd("./tool.sh", code, pid, dir.Path().c_str()));
    EXPECT_EQ(code, 4u);
    EXPECT_TRUE(testsupport::FileExists(dir.Sub("ran-here")));
    std::string after;
    ASSERT_TRUE(CProcess::GetCurrentDir(after));
    EXPECT_EQ(before, after);
}

TEST(CProcessSpawn, ChildKeepsOtherBlockedSignalsButNotTerminationOnes)
{
    testsupport::TempDir dir;
    const std::string out = dir.Sub("mask");
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("mask.sh"), "exec cat /proc/self/status > " + out + "\n"));
    SignalBlock block({SIGUSR1, SIGTERM, SIGINT, SIGHUP, SIGALRM});
    uint32_t pid = 0, code = 0;
    ASSERT_TRUE(CProcess::ExecuteCmd(("sh " + dir.Sub("mask.sh")).c_str(), code, pid));
    unsigned long long mask = BlockedMask(testsupport::ReadFile(out));
    auto bit = [](int sig) { return 1ull << (sig - 1); };
    EXPECT_TRUE(mask & bit(SIGUSR1)) << std::hex << mask;
    EXPECT_FALSE(mask & bit(SIGTERM)) << std::hex << mask;
    EXPECT_FALSE(mask & bit(SIGINT)) << std::hex << mask;
    EXPECT_FALSE(mask & bit(SIGHUP)) << std::hex << mask;
    EXPECT_FALSE(mask & bit(SIGALRM)) << std::hex << mask;
}

TEST(CProcessSpawn, HighDescriptorsClosedUnlessKept)
{
    testsupport::TempDir dir;
    // Far above the usual 1024 and without close-on-exec.
    int fd = fcntl(1, F_DUPFD, 3000);
    if (fd < 0)
        GTEST_SKIP() << "descriptor limit too low for the test";
    // sh opens the script on a low descriptor itself: test only the high one.
    std::string script = "[ -e /proc/self/fd/" + std::to_string(fd) + " ]\n";
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("fd.sh"), script));
    uint32_t code = 0, pid = 0;
    std::string cmd = "sh " + dir.Sub("fd.sh");
    EXPECT_FALSE(CProcess::ExecuteCmd(cmd.c_str(), code, pid, nullptr, false, false));
    EXPECT_EQ(code, 1u);
    EXPECT_TRUE(CProcess::ExecuteCmd(cmd.c_str(), code, pid, nullptr, false, true));
    close(fd);
}

TEST(CProcessSpawn, ManyStartsFromThreadsAllReaped)
{
    // Each start waits for its own child only.
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&failures] {
            for (int i = 0; i < 10; ++i) {
                uint32_t code = 9, pid = 0;
                if (!CProcess::ExecuteCmd("/bin/true", code, pid) || code != 0)
                    ++failures;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
}

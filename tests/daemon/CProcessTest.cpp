#include "daemon/CProcess.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Restores the /proc root after a test that points it at a fake tree.
struct ProcRootGuard {
    ~ProcRootGuard() { CProcess::SetProcRoot(nullptr); }
};

std::string TestProgram()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

} // namespace

TEST(CProcessExecute, ResultAndExitCodeOfEachCommandForm)
{
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("exit3.sh"), "exit 3\n"));
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("kill.sh"), "kill -9 $$\n"));
    constexpr uint32_t kAnyCode = 0xA11;  // the shell's own failure status
    const struct {
        std::string command;
        bool result;
        uint32_t code;
    } cases[] = {
        {"/bin/true", true, 0},
        {"true", true, 0},  // looked up through PATH
        {"/bin/false", false, 1},
        {"/nonexistent/program-xyz arg", false, 255},
        {"", false, 255},
        // Words are split at blanks, quotes included: sh sees an unterminated
        // quote and fails with 2 instead of exiting 3.
        {"sh -c 'exit 3'", false, 2},
        {"sh -c exit 3", true, 0},  // "exit" is the script, "3" is $0
        {"  sh\t-c   exit\\ 3", false, kAnyCode},  // tabs and repeated blanks split too
        {"sh " + dir.Sub("exit3.sh"), false, 3},
        {"sh " + dir.Sub("kill.sh"), false, 0xFFFFFFFFu},  // killed: no exit status
    };
    for (const auto& c : cases) {
        uint32_t code = 77, pid = 0;
        EXPECT_EQ(CProcess::ExecuteCmd(c.command.c_str(), code, pid), c.result) << c.command;
        EXPECT_TRUE(c.code == kAnyCode || code == c.code) << c.command << ": " << code;
        EXPECT_GT(pid, 0u) << c.command;
    }
}

TEST(CProcessExecute, WorkingDirectorySwitchedAndRestored)
{
    testsupport::TempDir dir;
    std::string before;
    ASSERT_TRUE(CProcess::GetCurrentDir(before));
    uint32_t code = 0, pid = 0;
    // "touch marker" creates the file relative to the working directory.
    EXPECT_TRUE(CProcess::ExecuteCmd("touch marker", code, pid, dir.Path().c_str()));
    EXPECT_TRUE(testsupport::FileExists(dir.Sub("marker")));
    std::string after;
    ASSERT_TRUE(CProcess::GetCurrentDir(after));
    EXPECT_EQ(before, after);

    // An unusable directory: the command runs where we are.
    EXPECT_TRUE(CProcess::ExecuteCmd("/bin/true", code, pid, "/nonexistent-dir-xyz"));
    ASSERT_TRUE(CProcess::GetCurrentDir(after));
    EXPECT_EQ(before, after);
}

TEST(CProcessExecute, AsyncThenWaitForExit)
{
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("exit5.sh"), "exit 5\n"));
    uint32_t pid = 0, code = 0;
    ASSERT_TRUE(CProcess::ExecuteCmdAsync(("sh " + dir.Sub("exit5.sh")).c_str(), pid));
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_EQ(code, 5u);

    ASSERT_TRUE(CProcess::ExecuteCmdAsync("/bin/true", pid));
    EXPECT_TRUE(CProcess::WaitForExit(pid, code, 10));
    EXPECT_EQ(code, 0u);

    // Not our child (any more): the wait fails, the code stays -1.
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_EQ(code, 0xFFFFFFFFu);
}

TEST(CProcessExecute, TerminateProcessKillsChild)
{
    uint32_t pid = 0, code = 0;
    ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 30", pid));
    EXPECT_TRUE(CProcess::TerminateProcess(pid, 0));
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_EQ(code, 0xFFFFFFFFu);
    EXPECT_FALSE(CProcess::TerminateProcess(pid, 0)); // reaped: gone
}

TEST(CProcessExecute, ChildClosesDescriptorsUnlessKept)
{
    testsupport::TempDir dir;
    // A descriptor without close-on-exec; the child lists its open ones.
    int fd = dup(1);
    ASSERT_GE(fd, 3);
    std::string script = "[ -e /proc/self/fd/" + std::to_string(fd) + " ]\n";
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("fd.sh"), script));
    uint32_t code = 0, pid = 0;
    std::string cmd = "sh " + dir.Sub("fd.sh");
    EXPECT_FALSE(CProcess::ExecuteCmd(cmd.c_str(), code, pid, nullptr, false, false));
    EXPECT_EQ(code, 1u);
    EXPECT_TRUE(CProcess::ExecuteCmd(cmd.c_str(), code, pid, nullptr, false, true));
    close(fd);
}

TEST(CProcessExecute, ChildHasTerminationSignalsUnblocked)
{
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &block, &old), 0);
    uint32_t pid = 0, code = 0;
    bool started = CProcess::ExecuteCmdAsync("sleep 30", pid);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ASSERT_TRUE(started);
    kill(static_cast<pid_t>(pid), SIGTERM);
    EXPECT_FALSE(CProcess::WaitForExit(pid, code)); // killed by SIGTERM, not left blocked
    EXPECT_EQ(code, 0xFFFFFFFFu);
}

TEST(CProcessDir, GetAndSetCurrentDir)
{
    testsupport::TempDir dir;
    std::string before;
    ASSERT_TRUE(CProcess::GetCurrentDir(before));
    EXPECT_FALSE(CProcess::SetCurrentDir(""));
    EXPECT_FALSE(CProcess::SetCurrentDir(nullptr));
    EXPECT_FALSE(CProcess::SetCurrentDir("/nonexistent-dir-xyz"));
    ASSERT_TRUE(CProcess::SetCurrentDir(dir.Path().c_str()));
    std::string now;
    ASSERT_TRUE(CProcess::GetCurrentDir(now));
    char real[4096];
    ASSERT_NE(realpath(dir.Path().c_str(), real), nullptr);
    EXPECT_EQ(now, real);
    ASSERT_TRUE(CProcess::SetCurrentDir(before.c_str()));
}

TEST(CProcessProc, HandleCountIsAlwaysOne)
{
    uint32_t count = 0;
    EXPECT_EQ(CProcess::GetProcessHandleCount(1, count), 0);
    EXPECT_EQ(count, 1u);
}

TEST(CProcessProc, MemorySpecificInfoUnitsFromFakeProc)
{
    ProcRootGuard guard;
    testsupport::TempDir root;
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("42/status"),
                                       "Name:\tfake\nVmPeak:\t    4096 kB\nVmSize:\t    3072 kB\nVmLib:\t  1024 kB\n"
                                       "VmRSS:\t    2048 kB\nVmSwap:\t       1 MB\nThreads:\t7\nOdd:\t5 parsecs\n"));
    CProcess::SetProcRoot(root.Path().c_str());

    uint64_t v = 0;
    CProcess::GetProcessMemorySpecificInfo(42, v, "VmRSS:", CProcess::KILOBYTES);
    EXPECT_EQ(v, 2048u);
    CProcess::GetProcessMemorySpecificInfo(42, v, "VmRSS:", CProcess::MEGABYTES);
    EXPECT_EQ(v, 2u);
    CProcess::GetProcessMemorySpecificInfo(42, v, "VmRSS:", CProcess::BYTES);
    EXPECT_EQ(v, 2048u * 1024);
    CProcess::GetProcessMemorySpecificInfo(42, v, "VmSwap:", CProcess::BYTES);
    EXPECT_EQ(v, 1024u * 1024);
    CProcess::GetProcessMemorySpecificInfo(42, v, "Threads:", CProcess::BYTES);
    EXPECT_EQ(v, 7u); // no unit: the number as it is
    CProcess::GetProcessMemorySpecificInfo(42, v, "Odd:", CProcess::BYTES);
    EXPECT_EQ(v, 5u);

    // Missing field, missing process, prefix of a field: value unchanged.
    v = 12345;
    CProcess::GetProcessMemorySpecificInfo(42, v, "VmHWM:", CProcess::KILOBYTES);
    EXPECT_EQ(v, 12345u);
    CProcess::GetProcessMemorySpecificInfo(43, v, "VmRSS:", CProcess::KILOBYTES);
    EXPECT_EQ(v, 12345u);
    CProcess::GetProcessMemorySpecificInfo(42, v, "VmRS", CProcess::KILOBYTES);
    EXPECT_EQ(v, 12345u);

    uint64_t size, peak, swap, fourth, diff;
    EXPECT_TRUE(CProcess::GetProcessMemoryInfo(42, size, peak, swap, fourth, diff));
    EXPECT_EQ(size, 3072u * 1024);
    EXPECT_EQ(peak, 4096u * 1024);
    EXPECT_EQ(swap, 1024u * 1024);
    EXPECT_EQ(fourth, 0u);
    EXPECT_EQ(diff, 2048u * 1024);
    EXPECT_FALSE(CProcess::GetProcessMemoryInfo(43, size, peak, swap, fourth, diff));
    EXPECT_EQ(size, 0u);
}

TEST(CProcessProc, MemoryInfoSurvivesGarbageStatus)
{
    ProcRootGuard guard;
    testsupport::TempDir root;
    std::string junk(40000, 'x');
    junk += "\nVmRSS:";           // field without number, beyond the read limit anyway
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("7/status"), junk));
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("8/status"), "VmRSS:"));
    CProcess::SetProcRoot(root.Path().c_str());
    uint64_t v = 99;
    CProcess::GetProcessMemorySpecificInfo(7, v, "VmRSS:", 1);
    EXPECT_EQ(v, 99u);
    CProcess::GetProcessMemorySpecificInfo(8, v, "VmRSS:", 0);
    EXPECT_EQ(v, 0u); // field present, number missing: 0
}

TEST(CProcessProc, OwnMemoryFromRealProc)
{
    uint64_t v = 0;
    CProcess::GetProcessMemorySpecificInfo(static_cast<uint32_t>(getpid()), v, "VmRSS:", CProcess::KILOBYTES);
    EXPECT_GT(v, 0u);
}

TEST(CProcessProc, FindProcessAndNames)
{
    ProcRootGuard guard;
    testsupport::TempDir root;
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("12/comm"), "kopd\n"));
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("30/comm"), "a-very-long-nam\n")); // the kernel cuts at 15
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("0/comm"), "zero\n"));
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("self/comm"), "selfname\n"));
    ASSERT_TRUE(testsupport::WriteFile(root.Sub("12/cmdline"), std::string("/usr/sbin/kopd\0-n\0", 18)));
    CProcess::SetProcRoot(root.Path().c_str());

    uint32_t pid = 0;
    EXPECT_TRUE(CProcess::FindProcess(pid, "kopd"));
    EXPECT_EQ(pid, 12u);
    EXPECT_TRUE(CProcess::FindProcess(pid, "a-very-long-nam"));
    EXPECT_EQ(pid, 30u);
    EXPECT_FALSE(CProcess::FindProcess(pid, "a-very-long-name"));
    EXPECT_EQ(pid, 0xFFFFFFFFu);
    EXPECT_FALSE(CProcess::FindProcess(pid, "zero"));     // id 0 is no process
    EXPECT_FALSE(CProcess::FindProcess(pid, "selfname")); // not a number
    EXPECT_FALSE(CProcess::FindProcess(pid, "kop"));

    std::string name, path;
    EXPECT_TRUE(CProcess::GetProcessName(name, 12));
    EXPECT_EQ(name, "kopd");
    EXPECT_TRUE(CProcess::GetProcessInfo(12, name, path));
    EXPECT_EQ(path, "/usr/sbin/kopd");
    EXPECT_FALSE(CProcess::GetProcessName(name, 13));
    EXPECT_FALSE(CProcess::GetProcessInfo(30, name, path)); // no exe, no cmdline

    std::string text;
    EXPECT_TRUE(CProcess::get_proc_file(12, "comm", text));
    EXPECT_EQ(text, "kopd");
    EXPECT_FALSE(CProcess::get_proc_file(12, "status", text));

    CProcess::SetProcRoot((root.Path() + "/missing").c_str());
    pid = 5;
    EXPECT_FALSE(CProcess::FindProcess(pid, "kopd"));
    EXPECT_EQ(pid, 0xFFFFFFFFu);
}

TEST(CProcessProc, FindsOwnProcessInRealProc)
{
    std::string name;
    ASSERT_TRUE(CProcess::GetProcessName(name, static_cast<uint32_t>(getpid())));
    uint32_t pid = 0;
    EXPECT_TRUE(CProcess::FindProcess(pid, name.c_str()));
    std::string n2, path;
    EXPECT_TRUE(CProcess::GetProcessInfo(static_cast<uint32_t>(getpid()), n2, path));
    EXPECT_EQ(path, TestProgram());
}

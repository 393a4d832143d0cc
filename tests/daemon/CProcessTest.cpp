// Starting programs (the results must not depend on how the child is made:
// posix_spawn, or fork where execvp semantics are needed), the working
// directory, and what is read from /proc, real and fake.
#include "daemon/CProcess.h"

#include "support/TestSupport.h"
#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

using namespace testsupport;

namespace {

constexpr uint32_t kNoStatus = 0xFFFFFFFFu;
constexpr uint32_t kAnyCode = 0xA11;  // the shell's own failure status

// The /proc root pointed at a fake tree while a case runs.
class CProcessProc : public ::testing::Test {
protected:
    CProcessProc() { CProcess::SetProcRoot(root.Path().c_str()); }
    ~CProcessProc() override { CProcess::SetProcRoot(nullptr); }
    TempDir root;
};

std::string Cwd()
{
    std::string dir;
    return CProcess::GetCurrentDir(dir) ? dir : "?";
}

} // namespace

TEST(CProcessExecute, ResultAndExitCodeOfEachCommandFormSyncAndAsync)
{
    TempDir dir;
    for (auto [name, text] : {std::pair{"exit3.sh", "exit 3\n"}, {"kill.sh", "kill -9 $$\n"}, {"plain.txt", "exit 0\n"},
                              {"noshebang", "exit 7\n"}, {"tool.sh", "#!/bin/sh\ntouch ran-here\nexit 4\n"}})
        ASSERT_TRUE(WriteFile(dir.Sub(name), text));
    ASSERT_EQ(chmod(dir.Sub("noshebang").c_str(), 0755) | chmod(dir.Sub("tool.sh").c_str(), 0755), 0);
    struct Case { std::string command; uint32_t code; const char* workDir = nullptr; } cases[] = {
        {"/bin/true", 0},
        {"true", 0},  // looked up through PATH
        {"/bin/false", 1},
        {"/nonexistent/program-xyz arg", 255},
        {"program-that-is-nowhere-in-path-xyz", 255},
        {"", 255},
        {"   ", 255},
        {dir.Sub("plain.txt"), 255},  // not executable
        {dir.Path(), 255},            // a directory
        {dir.Sub("noshebang"), 7},    // no "#!" line: run by the shell
        // Words are split at blanks, quotes included: sh sees an unterminated
        // quote and fails with 2 instead of exiting 3.
        {"sh -c 'exit 3'", 2},
        {"sh -c exit 3", 0},  // "exit" is the script, "3" is $0
        {"  sh\t-c   exit\\ 3", kAnyCode},  // tabs and repeated blanks split too
        {"\r\v\f/bin/true\n", 0},
        {"sh " + dir.Sub("exit3.sh"), 3},
        {"sh " + dir.Sub("kill.sh"), kNoStatus},  // killed: no exit status
        {"./tool.sh", 4, "."},  // relative to the working directory given
        {"touch marker", 0, "."},
        {"/bin/true", 0, "/nonexistent-dir-xyz"},  // unusable: runs where we are
    };
    const std::string before = Cwd();
    for (bool async : {false, true})
        for (const auto& c : cases) {
            SCOPED_TRACE(c.command + (async ? " (async)" : ""));
            const char* workDir = c.workDir && *c.workDir == '.' ? dir.Path().c_str() : c.workDir;
            uint32_t code = 77, pid = 0;
            bool result = async ? CProcess::ExecuteCmdAsync(c.command.c_str(), pid, workDir)
                                : CProcess::ExecuteCmd(c.command.c_str(), code, pid, workDir);
            ASSERT_GT(pid, 0u);
            ASSERT_NE(pid, kNoStatus);
            if (async) {
                EXPECT_TRUE(result);
                result = CProcess::WaitForExit(pid, code);
            }
            EXPECT_EQ(result, code == 0);
            EXPECT_TRUE(c.code == kAnyCode || code == c.code) << code;
            // The child was reaped already: waiting again fails and gives no status.
            EXPECT_TRUE(!CProcess::WaitForExit(pid, code) && code == kNoStatus) << code;
            EXPECT_EQ(Cwd(), before);
        }
    EXPECT_TRUE(FileExists(dir.Sub("ran-here")) && FileExists(dir.Sub("marker")));
    EXPECT_TRUE(CProcess::ExecuteCmdAsync("/bin/true"));  // nothing to wait for: reaped with the test program
    uint32_t pid = 0, code = 0;
    ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 30", pid));
    EXPECT_TRUE(CProcess::TerminateProcess(pid, 0));
    EXPECT_FALSE(CProcess::WaitForExit(pid, code));
    EXPECT_FALSE(CProcess::TerminateProcess(pid, 0));  // reaped: gone
}

TEST(CProcessExecute, ChildClosesLowAndHighDescriptorsUnlessKept)
{
    // Without close-on-exec; the high one far above the usual 1024.
    for (int fd : {dup(1), fcntl(1, F_DUPFD, 3000)}) {
        if (fd < 0)
            continue;  // descriptor limit too low for the high one
        // sh opens the script on a low descriptor itself: the check runs in its -c text.
        const std::string cmd = "test -e /proc/self/fd/" + std::to_string(fd);
        uint32_t code = 0, pid = 0;
        EXPECT_TRUE(!CProcess::ExecuteCmd(cmd.c_str(), code, pid, nullptr, false, false) && code == 1u) << fd;
        EXPECT_TRUE(CProcess::ExecuteCmd(cmd.c_str(), code, pid, nullptr, false, true)) << fd;
        close(fd);
    }
}

TEST(CProcessExecute, ChildKeepsOtherBlockedSignalsButNotTerminationOnes)
{
    TempDir dir;
    const std::string out = dir.Sub("mask");
    ASSERT_TRUE(WriteFile(dir.Sub("mask.sh"), "exec cat /proc/self/status > " + out + "\n"));
    const int signals[] = {SIGUSR1, SIGTERM, SIGINT, SIGHUP, SIGALRM};
    sigset_t block, old;
    sigemptyset(&block);
    for (int sig : signals)
        sigaddset(&block, sig);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &block, &old), 0);
    bool ran = CProcess::ExecuteCmd(("sh " + dir.Sub("mask.sh")).c_str());
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ASSERT_TRUE(ran);
    const std::string status = ReadFile(out);
    unsigned long long mask = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
    for (int sig : signals)
        EXPECT_EQ(((mask >> (sig - 1)) & 1) != 0, sig == SIGUSR1) << sig << ": " << std::hex << mask;
}

TEST(CProcessExecute, ManyStartsFromThreadsAllReaped)
{
    // Each start waits for its own child only.
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&failures] {
            for (int i = 0; i < 10; ++i) {
                uint32_t code = 9, pid = 0;
                failures += !CProcess::ExecuteCmd("/bin/true", code, pid) || code != 0;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
}

int g_InterruptMark = -1;
void NoteInterrupt(int) { (void)!write(g_InterruptMark, "i", 1); }

// In a child of its own (limits, handlers and the working directory stay there): a wait interrupted
// by a signal goes on; a removed working directory is not returned to; a tiny descriptor limit
// still closes the usual range; and where no process can be made at all (no process left to the
// user) the start fails with no child and no status.
TEST(CProcessExecute, InterruptedWaitsRemovedDirectoryAndNoProcessLeft)
{
    TempDir dir;
    // Signals this process once it sleeps in its wait and ends with 5 only after the handler ran
    // (the wait was interrupted: a child ended already would be collected instead).
    ASSERT_TRUE(WriteFile(dir.Sub("poke.sh"), "while [ \"$(cut -d' ' -f3 /proc/$PPID/stat)\" != S ]; do :; done\n"
                                              "kill -USR1 $PPID\nwhile [ ! -s mark ]; do :; done\n: >mark\nexit 5\n"));
    ASSERT_TRUE(WriteFile(dir.Sub("noshebang"), "exit 6\n"));
    ASSERT_EQ(chmod(dir.Sub("noshebang").c_str(), 0755), 0);
    const std::string poke = "sh poke.sh", gone = dir.Sub("gone");
    auto steps = [&] {
        struct sigaction sa {};
        sa.sa_handler = NoteInterrupt;  // no SA_RESTART: the wait returns EINTR
        uint32_t code = 0, pid = 0;
        std::string cwd;
        g_InterruptMark = open(dir.Sub("mark").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (g_InterruptMark < 0 || sigaction(SIGUSR1, &sa, nullptr) != 0 || chdir(dir.Path().c_str()) != 0 ||
            CProcess::ExecuteCmd(poke.c_str(), code, pid) || code != 5)
            return 1;
        if (!CProcess::ExecuteCmdAsync(poke.c_str(), pid) || CProcess::WaitForExit(pid, code) || code != 5)
            return 2;
        if (mkdir(gone.c_str(), 0700) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0 ||
            CProcess::GetCurrentDir(cwd) || !CProcess::ExecuteCmd("/bin/true", code, pid, "/") ||
            CProcess::GetCurrentDir(cwd) || chdir("/") != 0)
            return 3;
        const rlimit few{200, 200};
        for (bool keep : {false, true})
            if (setrlimit(RLIMIT_NOFILE, &few) != 0 ||
                CProcess::ExecuteCmd((dir.Sub("noshebang")).c_str(), code, pid, nullptr, false, keep) || code != 6)
                return 4;
        // The limit binds root only as another real user; the saved id brings root back.
        const rlimit none{0, 0};
        const bool root = getuid() == 0;
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (root && setresuid(65534, 65534, 0) != 0))
            return 5;
        for (const char* command : {"/bin/true", "", static_cast<const char*>(nullptr)}) {
            code = pid = 7;
            if (CProcess::ExecuteCmd(command, code, pid) || pid != kNoStatus || code != kNoStatus)
                return 6;
        }
        return root && setresuid(0, 0, 0) != 0 ? 7 : 0;
    };
    // exit(), not InChild's _exit: a coverage build writes out the child's counters.
    testsupport::TraceEnv::ExpectExit(testsupport::TraceEnv::InChild([&]() -> int { exit(steps()); }), 0);
}

TEST(CProcessDir, GetAndSetCurrentDir)
{
    TempDir dir;
    const std::string before = Cwd();
    for (const char* bad : {"", static_cast<const char*>(nullptr), "/nonexistent-dir-xyz"})
        EXPECT_FALSE(CProcess::SetCurrentDir(bad));
    ASSERT_TRUE(CProcess::SetCurrentDir(dir.Path().c_str()));
    EXPECT_EQ(Cwd(), std::filesystem::canonical(dir.Path()));
    ASSERT_TRUE(CProcess::SetCurrentDir(before.c_str()));
    uint32_t count = 0;  // a placeholder of the interface: always one
    EXPECT_TRUE(CProcess::GetProcessHandleCount(1, count) == 0 && count == 1u);
}

TEST_F(CProcessProc, StatusFieldOfEachInputGivesItsExactFigureAndMemoryInfo)
{
    using namespace std::string_literals;
    constexpr uint64_t kUntouched = 0x1234;
    auto padding = [](size_t n) { return "Name:\t" + std::string(n, 'x') + "\n"; };
    // "VmRSS:\t123" ends exactly at the 16 KiB read limit, "456 kB" lies beyond.
    const std::string cutAtLimit = padding(16384 - 10 - 7) + "VmRSS:\t123456 kB\n";
    struct Case { const char* what; std::string content; const char* field; unsigned unit; uint64_t expected; };
    const Case cases[] = {
        {"empty file", "", "VmRSS:", 1, kUntouched},
        {"field only", "VmRSS:", "VmRSS:", 0, 0},
        {"field without figure", "VmRSS:\t kB\n", "VmRSS:", 0, 0},
        {"digits then letters", "VmRSS:\t12ab kB\n", "VmRSS:", 0, 12 * 1024},
        {"bytes", "VmRSS:\t2048 kB\n", "VmRSS:", CProcess::BYTES, 2048 * 1024},
        {"kilobytes", "VmRSS:\t2048 kB\n", "VmRSS:", CProcess::KILOBYTES, 2048},
        {"megabytes", "VmRSS:\t2048 kB\n", "VmRSS:", CProcess::MEGABYTES, 2},
        {"MB unit", "VmSwap:\t1 MB\n", "VmSwap:", 0, 1024 * 1024},
        {"gigabytes", "VmRSS:\t3 GB\n", "VmRSS:", 2, 3072},
        {"no unit", "Threads:\t7\n", "Threads:", 0, 7},
        {"unknown unit", "VmRSS:\t2048 TB\n", "VmRSS:", 0, 2048},
        {"unit in lower case", "VmRSS:\t2048 kb\n", "VmRSS:", 0, 2048},
        {"figure overflows 64 bits", "VmRSS:\t99999999999999999999 kB\n", "VmRSS:", 0, UINT64_MAX},
        {"figure overflows in kilobytes", "VmRSS:\t99999999999999999999 kB\n", "VmRSS:", 1, UINT64_MAX >> 10},
        {"unit factor overflows", "VmRSS:\t18014398509481984 kB\n", "VmRSS:", 0, UINT64_MAX},
        {"largest figure without overflow", "VmRSS:\t18014398509481983 kB\n", "VmRSS:", 1, 18014398509481983ull},
        {"field missing", "VmRSS:\t5 kB\n", "VmHWM:", 0, kUntouched},
        {"asked field a prefix of the line's", "VmRSS:\t5 kB\n", "VmRS", 0, kUntouched},
        {"field without colon", "VmRSS\t5 kB\n", "VmRSS:", 0, kUntouched},
        {"field as prefix of a longer word", "VmRSSx:\t5 kB\n", "VmRSS:", 0, kUntouched},
        {"NUL inside the first line", "VmR\0SS:\t5 kB\nVmRSS:\t7 kB\n"s, "VmRSS:", 0, 7 * 1024},
        {"NUL inside the figure", "VmRSS:\t1\0002 kB\n"s, "VmRSS:", 0, 1024},
        {"carriage returns", "VmRSS:\t5 kB\r\n", "VmRSS:", 0, 5 * 1024},
        {"line longer than the read limit hides the field", padding(20000) + "VmRSS:\t5 kB\n", "VmRSS:", 0,
         kUntouched},
        {"field cut by the read limit is not taken", cutAtLimit, "VmRSS:", 0, kUntouched},
        {"field before a long line", "VmRSS:\t5 kB\n" + padding(20000), "VmRSS:", 0, 5 * 1024},
        {"last line without newline", "Pid:\t1\nVmRSS:\t9 kB", "VmRSS:", 0, 9 * 1024},
        {"first of two lines wins", "VmRSS:\t1 kB\nVmRSS:\t2 kB\n", "VmRSS:", 0, 1024},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(WriteFile(root.Sub("42/status"), c.content));
        uint64_t value = kUntouched;
        CProcess::GetProcessMemorySpecificInfo(42, value, c.field, c.unit);
        EXPECT_EQ(c.expected, value);
    }
    uint64_t value = kUntouched, size, peak, swap, fourth, diff;  // no such process
    CProcess::GetProcessMemorySpecificInfo(43, value, "VmRSS:", 0);
    EXPECT_TRUE(value == kUntouched && !CProcess::GetProcessMemoryInfo(43, size, peak, swap, fourth, diff) && !size);
    ASSERT_TRUE(WriteFile(root.Sub("42/status"), "VmPeak:\t    4096 kB\n"));  // no size
    EXPECT_FALSE(CProcess::GetProcessMemoryInfo(42, size, peak, swap, fourth, diff));
    ASSERT_TRUE(WriteFile(root.Sub("42/status"), "VmPeak:\t    4096 kB\nVmSize:\t    3072 kB\nVmLib:\t  1024 kB\n"
                                                 "VmRSS:\t    2048 kB\nVmSwap:\t       1 MB\n"));
    EXPECT_TRUE(CProcess::GetProcessMemoryInfo(42, size, peak, swap, fourth, diff));
    EXPECT_EQ(std::vector<uint64_t>({size, peak, swap, fourth, diff}),
              std::vector<uint64_t>({3072u * 1024, 4096u * 1024, 1024u * 1024, 0, 2048u * 1024}));
}

TEST_F(CProcessProc, FindProcessAndNamesInFakeAndRealProc)
{
    // 30: the kernel cuts names at 15; 31: a kernel thread, its command line empty.
    for (auto [file, text] : {std::pair<const char*, std::string>{"12/comm", "kopd\n"}, {"30/comm", "a-very-long-nam\n"},
                              {"0/comm", "zero\n"}, {"self/comm", "selfname\n"}, {"31/comm", "kthread\n"},
                              {"99999999999/comm", "huge\n"}, {"12/cmdline", std::string("/usr/sbin/kopd\0-n\0", 18)},
                              {"31/cmdline", ""}})
        ASSERT_TRUE(WriteFile(root.Sub(file), text));
    EXPECT_EQ(CProcess::GetProcRoot(), root.Path());
    const std::pair<const char*, uint32_t> finds[] = {{"kopd", 12}, {"a-very-long-nam", 30}, {"a-very-long-name", kNoStatus},
                 {"zero", kNoStatus} /* id 0 is no process */, {"selfname", kNoStatus} /* not a number */,
                 {"kop", kNoStatus}, {"huge", kNoStatus} /* beyond 32 bits */};
    for (const auto& [name, expected] : finds) {
        uint32_t pid = 0;
        EXPECT_TRUE(CProcess::FindProcess(pid, name) == (expected != kNoStatus) && pid == expected) << name;
    }
    std::string name, path, text;
    EXPECT_TRUE(CProcess::GetProcessInfo(12, name, path) && name + " " + path == "kopd /usr/sbin/kopd");
    EXPECT_FALSE(CProcess::GetProcessName(name, 13));
    for (uint32_t pid : {13, 30, 31})
        EXPECT_FALSE(CProcess::GetProcessInfo(pid, name, path)) << pid;
    EXPECT_FALSE(CProcess::get_proc_file(12, nullptr, text) || CProcess::get_proc_file(12, "status", text));
    EXPECT_TRUE(CProcess::get_proc_file(12, "", text) && text.empty());  // a directory: no text

    CProcess::SetProcRoot((root.Path() + "/missing").c_str());
    uint32_t pid = 5;
    EXPECT_FALSE(CProcess::FindProcess(pid, nullptr) || CProcess::FindProcess(pid, "kopd") || pid != kNoStatus);

    CProcess::SetProcRoot(nullptr);  // and in the real /proc, this process
    const uint32_t self = static_cast<uint32_t>(getpid());
    uint64_t rss = 0;
    CProcess::GetProcessMemorySpecificInfo(self, rss, "VmRSS:", CProcess::KILOBYTES);
    EXPECT_GT(rss, 0u);
    ASSERT_TRUE(CProcess::GetProcessInfo(self, name, path));
    EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_TRUE(CProcess::FindProcess(pid, name.c_str()));
}

// Races and storms against the real kopd.  A start that finds the lock held
// is refused at once; starts racing to a free lock wait for it and run one
// after the other, so the tests stop each instance as soon as it runs.
#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

#include "KopdTestSupport.h"

using namespace kopdtest;

namespace {

/// The number of framework loads ("query id=0" up to "release"), -1 when two overlap.
int CountSerialLoads(const Lines& lines)
{
    int loads = 0, open = 0;
    for (const std::string& line : lines) {
        int step = line == "query id=0" ? 1 : line == "release" ? -1 : 0;
        if ((open += step) < 0 || open > 1)
            return -1;
        loads += step > 0;
    }
    return loads;
}

/// Threads sending SIGHUP and SIGALRM as fast as they can until stopped.
struct SignalStorm {
    SignalStorm(pid_t pid, int blasters)
    {
        for (int b = 0; b < blasters; ++b)
            threads.emplace_back([=, this] {
                for (int i = 0; !stop; ++i, ++sent)
                    kill(pid, (i + b) % 2 ? SIGALRM : SIGHUP);
            });
    }
    ~SignalStorm() { Stop(); }
    void Stop()
    {
        stop = true;
        for (std::thread& t : threads)
            if (t.joinable())
                t.join();
    }
    std::atomic<long> sent{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
};

/// A pipe whose read end holds launches back until Open() closes it.
struct Gate {
    Gate() { (void)!pipe2(fds, O_CLOEXEC); }
    ~Gate() { Open(); }
    void Open()
    {
        for (int& fd : fds)
            if (fd >= 0 && close(fd) == 0)
                fd = -1;
    }
    int fds[2] = {-1, -1};
};

} // namespace

class KopdStressTest : public KopdTest {
protected:
    struct Starter {
        pid_t pid;
        std::string output;
        int exit = -2;  // not yet collected
    };

    KopdStressTest() : KopdTest("6\n") {}  // a stop without the three-second wait for the file

    // (A braced list is evaluated in order: the output file is the new launch's.)
    Starter StartForeground(int gate = -1) { return Starter{Start({"-n"}, {}, "", 0, gate), OutputFile()}; }

    /// True when `pid` runs alone with its modules started: pid and lock files name it.
    bool RunsAlone(pid_t pid, int loads)
    {
        auto lines = RecordLines();
        return ReadFile(PidFile()) == std::to_string(pid) + "\n" &&
               ReadFile(LockFile()) == "kopd#" + std::to_string(pid) && CountSerialLoads(lines) == loads &&
               std::count(lines.begin(), lines.end(), "slot4") == loads;
    }

    /// Lets a round of starters run its course: whichever runs must run alone
    /// and is stopped so that a waiting start may follow; the others must end refused.
    void Drain(std::vector<Starter>& starters, int& loads)
    {
        auto collect = [&] {  // the number still running
            int running = 0, status = 0;
            for (Starter& s : starters) {
                if (s.exit == -2 && waitpid(s.pid, &status, WNOHANG) == s.pid)
                    s.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                running += s.exit == -2;
            }
            return running;
        };
        for (Starter* runner = nullptr;; runner = nullptr) {
            bool settled = WaitFor([&] {
                for (Starter& s : starters)
                    if (s.exit == -2 && RunsAlone(s.pid, loads + 1))
                        runner = &s;
                return runner || collect() == 0;
            });
            for (Starter& s : starters)
                if (!settled && s.exit == -2)
                    s.exit = WaitExit(s.pid, std::chrono::milliseconds(0));
            if (!settled || !runner)
                break;
            ++loads;
            // Give a second instance, if there were one, time to show itself.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_EQ(CountSerialLoads(RecordLines()), loads) << Record();
            EXPECT_EQ(kill(runner->pid, SIGTERM), 0);
            EXPECT_EQ(runner->exit = WaitExit(runner->pid), 0) << ReadFile(runner->output);
            runner->exit = 0;  // ran: not one of the refused
        }
        // Those that never ran were refused (one that ran unseen shows as a load too many).
        for (const Starter& s : starters)
            EXPECT_TRUE(s.exit == 0 || (s.exit == 1 && ReadFile(s.output) == kRefused)) << ReadFile(s.output);
    }
};

// Instances started while the running one stops are refused (the old one still holds the lock) or
// run once it is gone, never at once with it; a lock taken on the file the stopping instance has
// just removed does not count as held. (Many takers of a free lock at once: CFileLockFault.)
TEST_F(KopdStressTest, StartsWhileAnInstanceStopsNeverOverlap)
{
    int loads = 0;
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        pid_t running = StartForeground().pid;
        ASSERT_TRUE(WaitFor([&] { return RunsAlone(running, loads + 1); })) << Output();
        ++loads;
        std::vector<Gate> gates(3);
        std::vector<Starter> starters;
        for (Gate& gate : gates)
            starters.push_back(StartForeground(gate.fds[0]));
        // Past the second of start-up during which signals stay pending.
        const std::string wchan = "/proc/" + std::to_string(running) + "/wchan";
        if (std::string first = ReadFile(wchan); first.empty() || first == "0")
            std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // the kernel does not tell
        else
            WaitFor([&] { return Contains(ReadFile(wchan), "sigtimedwait"); });
        // The starts spread over the stop, wider each round; in odd rounds the first goes before it.
        if (round % 2)
            gates[0].Open();
        ASSERT_EQ(kill(running, SIGTERM), 0);
        for (Gate& gate : gates) {
            gate.Open();
            std::this_thread::sleep_for(std::chrono::microseconds(500 * round));
        }
        EXPECT_EQ(WaitExit(running), 0);
        Drain(starters, loads);
        ASSERT_FALSE(HasFailure());
        EXPECT_FALSE(FileExists(PidFile()) || FileExists(LockFile()));
    }
    EXPECT_EQ(CountSerialLoads(RecordLines()), loads);
}

// SIGTERM or SIGINT in the middle of a storm of SIGHUP and SIGALRM always stops the daemon cleanly,
// the storm itself never does, nor do paced SIGHUPs leak descriptors. (Under the address sanitizer
// a leak fails the exit status.)
TEST_F(KopdStressTest, SignalStormsNeitherStopNorLeakAndTerminationEndsThem)
{
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        ASSERT_TRUE(WriteFile(RecordPath(), ""));
        pid_t pid = StartForeground().pid;
        ASSERT_TRUE(WaitStarted()) << Output();
        if (sig == SIGTERM) {
            // Paced, so that each is really taken (the kernel keeps one pending): every SIGHUP
            // closes and reopens the trace outputs, which must not leak a descriptor.
            const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
            auto fds = [&] { return std::distance(std::filesystem::directory_iterator(fdDir), {}); };
            ASSERT_TRUE(SignalAndWaitTaken(pid, SIGHUP));
            const auto before = fds();
            for (int i = 0; i < 400; ++i)
                ASSERT_TRUE(SignalAndWaitTaken(pid, i % 2 ? SIGALRM : SIGHUP)) << i;
            EXPECT_EQ(fds(), before);
        }
        SignalStorm storm(pid, 3);
        ASSERT_TRUE(WaitFor([&] { return storm.sent >= 3000; }));
        EXPECT_FALSE(Contains(Record(), "slot5"));
        ASSERT_EQ(kill(pid, sig), 0);
        // Ended, not collected: its pid cannot be reused while the storm goes on.
        siginfo_t info{};
        EXPECT_TRUE(WaitFor([&] { return waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid; }));
        storm.Stop();
        EXPECT_EQ(WaitExit(pid), 0) << Output();
        EXPECT_FALSE(FileExists(PidFile()) || FileExists(LockFile()));
        auto lines = RecordLines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(Lines(lines.end() - 3, lines.end()), (Lines{"slot5", "slot3 value=0", "release"}));
    }
}

// A link at the pid file's path is replaced, never written through (nor its
// target created).  (Links at the lock file's path: CFileLockFault.)
TEST_F(KopdStressTest, LinksAtThePidAndLockFilePathsAreNotFollowed)
{
    const std::string victim = NsPath("/etc/tarvd/victim");
    ASSERT_TRUE(WriteFile(victim, "precious"));
    for (const char* target : {"/etc/tarvd/victim", "/etc/tarvd/made-through-link"}) {
        ASSERT_EQ(symlink(target, PidFile().c_str()), 0);
        pid_t pid = StartForeground().pid;
        ASSERT_EQ(WaitPidFile(), pid) << Output();
        struct stat st{};
        ASSERT_EQ(lstat(PidFile().c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_mode & 022, 0u);  // writable by root only
        ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
        EXPECT_EQ(ReadFile(victim), "precious");
    }
    EXPECT_FALSE(FileExists(NsPath("/etc/tarvd/made-through-link")));
}

// Races and storms against the real kopd binary in the sandbox of the
// end-to-end tests.  Every framework load shows in the stand-in's record as
// a "query id=0" line and ends with a "release" line: two instances running
// at once would show as two loads without a release between them.  A start
// that finds the lock held is refused at once; starts that race each other
// to a free lock wait for it and run one after the other, so the tests stop
// each instance as soon as it runs.
#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <thread>

#include "KopdTestSupport.h"

using namespace kopdtest;

namespace {

const std::string kRefused = TEST_KOPD_PATH ": KOPD-MAIN: Error! Another process instance is already running!\n";

/// The number of framework loads, or -1 when two overlap (or a release
/// comes without a load).
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

long StatusField(pid_t pid, const std::string& field)
{
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    size_t pos = status.find(field + ":");
    return pos == std::string::npos ? -1 : std::stol(status.substr(pos + field.size() + 1));
}

/// Threads that send SIGHUP and SIGALRM, alternately, to one process: each
/// blaster as fast as it can (`blasts` each, 0: until stopped); a paced
/// sender waits until the daemon has taken each signal, so that many are
/// really delivered (the kernel keeps one of each kind pending).
class SignalStorm {
public:
    SignalStorm(pid_t pid, int blasters, int blasts, int paced = 0)
    {
        for (int b = 0; b < blasters; ++b)
            m_Threads.emplace_back([=, this] {
                for (int i = 0; (blasts == 0 || i < blasts) && !m_Stop; ++i, ++m_Sent)
                    kill(pid, (i + b) % 2 ? SIGALRM : SIGHUP);
            });
        m_Threads.emplace_back([=, this] {
            for (int i = 0; i < paced && !m_Stop; ++i) {
                int sig = i % 2 ? SIGALRM : SIGHUP;
                if (kill(pid, sig) != 0)
                    break;
                ++m_Sent;
                m_PacedTaken += WaitFor([&] { return m_Stop || (SharedPending(pid) & (1ull << (sig - 1))) == 0; });
            }
        });
    }
    ~SignalStorm() { Stop(); }
    void Stop()
    {
        m_Stop = true;
        Join();
    }
    void Join()
    {
        for (std::thread& t : m_Threads)
            if (t.joinable())
                t.join();
    }
    std::atomic<long> m_Sent{0}, m_PacedTaken{0};
    std::atomic<bool> m_Stop{false};
    std::vector<std::thread> m_Threads;
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

    void SetUp() override
    {
        KopdTest::SetUp();
        if (IsSkipped())
            return;
        ENTER_NAMESPACE();
        SetRunLevel("6\n");  // a stop without the three-second wait for the file
    }

    Starter StartForeground(int gate = -1)
    {
        Launch l;
        l.gate = gate;
        pid_t pid = Start(l);
        return Starter{pid, OutputFile()};
    }

    /// Collects the starters that have ended; the number still running.
    static int Collect(std::vector<Starter>& starters)
    {
        int running = 0, status = 0;
        for (Starter& s : starters) {
            if (s.exit == -2 && waitpid(s.pid, &status, WNOHANG) == s.pid)
                s.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            running += s.exit == -2;
        }
        return running;
    }

    /// True when `pid` runs with its modules started, alone: the pid and
    /// lock files name it and its framework load is the only one open.
    bool RunsAlone(pid_t pid, int loads)
    {
        auto lines = RecordLines();
        return ReadFile(PidFile()) == std::to_string(pid) + "\n" && ReadFile(LockFile()) == "kopd#" + std::to_string(pid) &&
               CountSerialLoads(lines) == loads && std::count(lines.begin(), lines.end(), "slot4") == loads;
    }

    /// Lets a round of starters run its course: whichever runs must run
    /// alone, and is stopped so that a start waiting for the lock may follow
    /// it (unless it is the last one left and `keepLast` is set).  Every
    /// starter that never ran must end refused.  Returns the starter left
    /// running, else -1; `runs` counts the starters that ran.
    pid_t Drain(std::vector<Starter>& starters, int& loads, bool keepLast, int& runs)
    {
        std::set<pid_t> ran;
        for (Starter* runner = nullptr;; runner = nullptr) {
            bool settled = WaitFor([&] {
                for (Starter& s : starters)
                    if (s.exit == -2 && !ran.count(s.pid) && RunsAlone(s.pid, loads + 1))
                        runner = &s;
                return runner || Collect(starters) == 0;
            });
            if (!settled) {
                ADD_FAILURE() << "the starts did not settle\n" << Record();
                for (Starter& s : starters)
                    if (s.exit == -2)
                        s.exit = WaitExit(s.pid, std::chrono::milliseconds(0));
                return -1;
            }
            if (!runner)
                break;
            ++loads, ++runs;
            ran.insert(runner->pid);
            // Give a second instance, if there were one, time to show itself.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_EQ(CountSerialLoads(RecordLines()), loads) << Record();
            if (keepLast && Collect(starters) == 1)
                return runner->pid;
            EXPECT_EQ(kill(runner->pid, SIGTERM), 0);
            EXPECT_EQ(runner->exit = WaitExit(runner->pid), 0) << ReadFile(runner->output);
        }
        for (const Starter& s : starters)
            if (!ran.count(s.pid)) {
                EXPECT_EQ(s.exit, 1);
                EXPECT_EQ(ReadFile(s.output), kRefused);
            }
        return -1;
    }

    void ExpectCleanStop()
    {
        EXPECT_FALSE(FileExists(PidFile()));
        EXPECT_FALSE(FileExists(LockFile()));
    }
};

// Several instances started at the same moment: at every moment at most one
// runs and holds the lock; every other start is refused with its message
// and status 1, or waits for the lock and runs after the one before it.
TEST_F(KopdStressTest, SimultaneousStartsRunOneAtATime)
{
    int loads = 0;
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Gate gate;
        std::vector<Starter> starters;
        for (int i = 0; i < 5; ++i)
            starters.push_back(StartForeground(gate.fds[0]));
        gate.Open();
        int runs = 0;
        Drain(starters, loads, false, runs);
        ASSERT_FALSE(HasFailure());
        EXPECT_GE(runs, 1);
        ExpectCleanStop();
    }
    EXPECT_EQ(CountSerialLoads(RecordLines()), loads);
}

// Instances started while the running one stops: each is refused (the old
// one still holds the lock), or runs once the old one is gone; two never run
// at once, and a lock taken on the file the stopping instance has just
// removed is not counted as held.
TEST_F(KopdStressTest, StartsWhileAnInstanceStopsNeverOverlap)
{
    pid_t running = StartForeground().pid;
    int loads = 1;
    ASSERT_TRUE(WaitFor([&] { return RunsAlone(running, loads); })) << Output();
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        // Past the second of start-up during which signals stay pending.
        const std::string wchan = "/proc/" + std::to_string(running) + "/wchan";
        if (std::string first = ReadFile(wchan); first.empty() || first == "0")
            std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // the kernel does not tell
        else
            WaitFor([&] { return Contains(ReadFile(wchan), "sigtimedwait"); });
        std::vector<Gate> gates(3);
        std::vector<Starter> starters;
        for (const Gate& gate : gates)
            starters.push_back(StartForeground(gate.fds[0]));
        // The starts go one after the other over the time the stop takes,
        // spread wider from round to round; in odd rounds the first one
        // goes before the stop.
        if (round % 2)
            gates[0].Open();
        ASSERT_EQ(kill(running, SIGTERM), 0);
        for (Gate& gate : gates) {
            gate.Open();
            std::this_thread::sleep_for(std::chrono::microseconds(500 * round));
        }
        EXPECT_EQ(WaitExit(running), 0);
        int runs = 0;
        running = Drain(starters, loads, true, runs);
        ASSERT_FALSE(HasFailure());
        if (running < 0) {
            // Every start came too early: the next round needs an instance.
            ExpectCleanStop();
            running = StartForeground().pid;
            ++loads;
            ASSERT_TRUE(WaitFor([&] { return RunsAlone(running, loads); })) << Output();
        }
    }
    ASSERT_NO_FATAL_FAILURE(Stop(running, SIGTERM));
    EXPECT_EQ(CountSerialLoads(RecordLines()), loads);
}

// Thousands of SIGHUP and SIGALRM from several senders neither stop the
// daemon nor make it grow: descriptors and data size are the same after a
// storm as after a warm-up storm, and it stops cleanly afterwards (under
// the address sanitizer a leak would fail that exit status).
TEST_F(KopdStressTest, SignalStormsNeitherStopNorLeak)
{
    pid_t pid = StartForeground().pid;
    ASSERT_TRUE(WaitStarted()) << Output();
    auto drained = [&] { return (SharedPending(pid) & ((1ull << (SIGHUP - 1)) | (1ull << (SIGALRM - 1)))) == 0; };
    const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
    auto fds = [&] { return std::distance(std::filesystem::directory_iterator(fdDir), {}); };
    SignalStorm(pid, 2, 200, 50).Join();
    ASSERT_TRUE(WaitFor(drained));
    const long fdsBefore = fds(), dataBefore = StatusField(pid, "VmData");
    ASSERT_GT(dataBefore, 0);

    SignalStorm storm(pid, 3, 1000, 500);
    storm.Join();
    EXPECT_EQ(storm.m_Sent, 3 * 1000 + 500);
    ASSERT_TRUE(WaitFor(drained));
    EXPECT_EQ(storm.m_PacedTaken, 500);
    EXPECT_FALSE(Contains(Record(), "slot5"));
    EXPECT_EQ(fds(), fdsBefore);
    // Allocator slack, not growth per signal: thousands of signals that each
    // kept a few bytes would exceed it.
    EXPECT_LE(StatusField(pid, "VmData") - dataBefore, 64) << "VmData before: " << dataBefore << " kB";
    ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    EXPECT_EQ(RecordLines().back(), "release");
}

// SIGTERM or SIGINT in the middle of a storm always stops the daemon
// cleanly: status 0, modules stopped and released, no pid or lock file.
TEST_F(KopdStressTest, TerminationInTheMiddleOfAStormStopsCleanly)
{
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_TRUE(WriteFile(RecordPath(), ""));
        pid_t pid = StartForeground().pid;
        ASSERT_TRUE(WaitStarted()) << Output();
        SignalStorm storm(pid, 3, 0);
        ASSERT_TRUE(WaitFor([&] { return storm.m_Sent >= 500; }));
        ASSERT_EQ(kill(pid, round % 2 ? SIGINT : SIGTERM), 0);
        // Ended, but not collected: its pid cannot be reused while the storm goes on.
        siginfo_t info{};
        EXPECT_TRUE(WaitFor([&] { return waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid; }));
        storm.Stop();
        EXPECT_EQ(WaitExit(pid), 0) << Output();
        ExpectCleanStop();
        auto lines = RecordLines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(Lines(lines.end() - 3, lines.end()), (Lines{"slot5", "slot3 value=0", "release"}));
    }
}

// A symbolic link planted at the pid file's path is replaced, never written
// through, and a dangling one does not create its target; one at the lock
// file's path makes the start fail without touching what it points to.
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

    ASSERT_EQ(symlink("/etc/tarvd/victim", LockFile().c_str()), 0);
    EXPECT_EQ(WaitExit(StartForeground().pid), 1);
    EXPECT_EQ(Output(), kRefused);
    EXPECT_EQ(ReadFile(victim), "precious");
    EXPECT_FALSE(FileExists(PidFile()));
}

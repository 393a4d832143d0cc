// Races and storms against the real kopd binary, in the private mount
// namespace of the end-to-end tests: many instances started at the same
// moment, instances started while another one stops, storms of SIGHUP and
// SIGALRM from several senders, SIGTERM or SIGINT in the middle of a storm,
// and symbolic links planted at the daemon's pid and lock file paths.
//
// Every framework load shows in the record of the stand-in framework as a
// "query id=0" line and ends with a "release" line; two instances running
// at once would show as two loads without a release between them.
//
// A start that finds the lock held is refused at once.  Starts that race
// each other to a lock file nobody holds yet all go for the lock; the
// losers wait for it and run, one after the other, once the instance before
// them has stopped.  The tests stop each instance as soon as it runs, so
// that the ones waiting behind it get their turn.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <dirent.h>
#include <set>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "KopdTestSupport.h"

using namespace kopdtest;

namespace {

constexpr int kSimultaneousRounds = 8;
constexpr int kStartersPerRound = 5;
constexpr int kStopRaceRounds = 10;
constexpr int kStartersWhileStopping = 3;
constexpr int kStormBlasters = 3;
constexpr int kBlastsPerSender = 1000;
constexpr int kPacedSignals = 500;
constexpr int kTerminationRounds = 6;

const char kRefused[] = ": KOPD-MAIN: Error! Another process instance is already running!\n";

/// Checks that framework loads never overlap in the record: every
/// "query id=0" is followed by its "release" before the next one.  Returns
/// the number of loads, or -1 on an overlap (or a release without a load).
int CountSerialLoads(const std::vector<std::string>& lines)
{
    int loads = 0;
    bool open = false;
    for (const std::string& line : lines) {
        if (line == "query id=0") {
            if (open)
                return -1;
            open = true;
            ++loads;
        } else if (line == "release") {
            if (!open)
                return -1;
            open = false;
        }
    }
    return loads;
}

size_t CountLines(const std::vector<std::string>& lines, const std::string& what)
{
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), what));
}

/// True once the child has ended, without collecting it (so that its pid
/// cannot be reused while signals may still be sent to it).
bool Ended(pid_t pid)
{
    siginfo_t info {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
}

/// A figure in kB from /proc/<pid>/status; -1 when absent.
long StatusKb(pid_t pid, const char* field)
{
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    size_t pos = status.find(field);
    if (pos == std::string::npos)
        return -1;
    return std::stol(status.substr(pos + strlen(field)));
}

/// Waits until the daemon sits in its signal loop, past the second of
/// start-up during which signals stay pending.  Where the kernel does not
/// show what a process waits in, waits out that second instead.
void WaitInSignalLoop(pid_t pid)
{
    const std::string wchan = "/proc/" + std::to_string(pid) + "/wchan";
    std::string first = ReadFile(wchan);
    if (first.empty() || first == "0") {
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        return;
    }
    WaitFor([&] { return Contains(ReadFile(wchan), "sigtimedwait"); });
}

int OpenDescriptors(pid_t pid)
{
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR* d = opendir(dir.c_str());
    if (!d)
        return -1;
    int n = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.')
            ++n;
    closedir(d);
    return n;
}

/// Threads that send SIGHUP and SIGALRM, alternately, to one process.
/// Blasters send as fast as they can; a paced sender waits until the
/// daemon has taken each signal, so that many are really delivered (the
/// kernel keeps only one of each kind pending).
class SignalStorm {
public:
    SignalStorm(pid_t pid, int blasters, int blastsEach, int paced = 0) : m_Pid(pid)
    {
        for (int b = 0; b < blasters; ++b)
            m_Threads.emplace_back([this, b, blastsEach] {
                for (int i = 0; blastsEach == 0 || i < blastsEach; ++i) {
                    if (m_Stop.load())
                        break;
                    kill(m_Pid, (i + b) % 2 ? SIGALRM : SIGHUP);
                    m_Sent.fetch_add(1);
                }
            });
        if (paced > 0)
            m_Threads.emplace_back([this, paced] {
                for (int i = 0; i < paced && !m_Stop.load(); ++i) {
                    int sig = i % 2 ? SIGALRM : SIGHUP;
                    if (kill(m_Pid, sig) != 0)
                        break;
                    m_Sent.fetch_add(1);
                    if (WaitFor([&] { return m_Stop.load() || (SharedPending(m_Pid) & (1ull << (sig - 1))) == 0; }))
                        m_PacedTaken.fetch_add(1);
                }
            });
    }

    ~SignalStorm() { Stop(); }

    void Stop()
    {
        m_Stop = true;
        for (std::thread& t : m_Threads)
            if (t.joinable())
                t.join();
    }

    void Join()
    {
        for (std::thread& t : m_Threads)
            if (t.joinable())
                t.join();
    }

    long Sent() const { return m_Sent.load(); }
    long PacedTaken() const { return m_PacedTaken.load(); }

private:
    pid_t m_Pid;
    std::atomic<bool> m_Stop{false};
    std::atomic<long> m_Sent{0};
    std::atomic<long> m_PacedTaken{0};
    std::vector<std::thread> m_Threads;
};

/// A pipe whose read end holds launches back until Open() closes it.
class Gate {
public:
    Gate()
    {
        if (pipe2(m_Fds, O_CLOEXEC) != 0)
            m_Fds[0] = m_Fds[1] = -1;
    }
    ~Gate() { Open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    int ReadEnd() const { return m_Fds[0]; }
    void Open()
    {
        for (int& fd : m_Fds)
            if (fd >= 0) {
                close(fd);
                fd = -1;
            }
    }

private:
    int m_Fds[2];
};

} // namespace

class KopdStressTest : public KopdTest {
protected:
    struct Starter {
        pid_t pid;
        std::string output;
        int exit = -2;  // not yet collected
    };

    /// Starts kopd in the foreground ("-n"); with a gate, it waits for it.
    pid_t StartForeground(int gate = -1)
    {
        Launch l;
        l.args = {"-n"};
        l.gate = gate;
        return Start(l);
    }

    Starter StartGated(const Gate& gate)
    {
        pid_t pid = StartForeground(gate.ReadEnd());
        return Starter{pid, m_LastOutput};
    }

    /// Collects the starters that have ended; the number still running.
    static int Collect(std::vector<Starter>& starters)
    {
        int running = 0;
        for (Starter& s : starters) {
            if (s.exit != -2)
                continue;
            int status = 0;
            if (waitpid(s.pid, &status, WNOHANG) == s.pid)
                s.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            else
                ++running;
        }
        return running;
    }

    /// What the starters still running are doing, for failure messages.
    static std::string Describe(const std::vector<Starter>& starters)
    {
        std::string out;
        for (const Starter& s : starters) {
            if (s.exit != -2)
                continue;
            std::string proc = "/proc/" + std::to_string(s.pid);
            std::string status = ReadFile(proc + "/status");
            size_t state = status.find("State:");
            out += "pid " + std::to_string(s.pid) + " " +
                   (state == std::string::npos ? "" : status.substr(state, status.find('\n', state) - state)) +
                   " wchan=" + ReadFile(proc + "/wchan") + " output=[" + ReadFile(s.output) + "]\n";
        }
        return out;
    }

    Starter* Find(std::vector<Starter>& starters, pid_t pid)
    {
        for (Starter& s : starters)
            if (s.pid == pid)
                return &s;
        return nullptr;
    }

    /// Ends what is left of a failed round, so that nothing keeps waiting.
    static void KillAll(std::vector<Starter>& starters)
    {
        for (Starter& s : starters)
            if (s.exit == -2) {
                kill(s.pid, SIGKILL);
                waitpid(s.pid, nullptr, 0);
                s.exit = -1;
            }
    }

    /// Lets a round of starters run its course.  Whenever one of them runs
    /// it must be the only one: the pid and lock files name it and its
    /// framework load is the only one open.  It is then stopped, so that a
    /// start waiting for the lock may follow it, unless it is the last one
    /// left and `keepLast` is set.  Every starter that never ran must end
    /// refused.  Returns the starter left running, else -1; `runs` counts
    /// the starters that ran.
    pid_t Drain(std::vector<Starter>& starters, int& loads, bool keepLast, int& runs, const std::string& where)
    {
        std::set<pid_t> ran;
        for (;;) {
            pid_t runner = -1;
            bool settled = WaitFor([&] {
                if (Collect(starters) == 0)
                    return true;
                std::string text = ReadFile(PidFile());
                if (text.empty() || text.back() != '\n')
                    return false;
                pid_t pid = static_cast<pid_t>(std::stol(text));
                Starter* s = Find(starters, pid);
                if (!s || s->exit != -2 || ran.count(pid))
                    return false;
                auto lines = RecordLines();
                if (ReadFile(LockFile()) != "kopd#" + std::to_string(pid) || CountSerialLoads(lines) != loads + 1 ||
                    CountLines(lines, "slot4") != static_cast<size_t>(loads + 1))
                    return false;
                runner = pid;
                return true;
            });
            if (!settled) {
                ADD_FAILURE() << where << ": the starts did not settle\n" << Describe(starters) << Record();
                KillAll(starters);
                return -1;
            }
            if (runner == -1)
                break;
            ++loads;
            ++runs;
            ran.insert(runner);
            // Give a second instance, if there were one, time to show itself.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_EQ(CountSerialLoads(RecordLines()), loads) << where << "\n" << Record();
            if (keepLast && Collect(starters) == 1)
                return runner;
            EXPECT_EQ(kill(runner, SIGTERM), 0);
            Starter* s = Find(starters, runner);
            s->exit = WaitExit(runner);
            EXPECT_EQ(s->exit, 0) << where << ": " << ReadFile(s->output);
        }
        for (const Starter& s : starters) {
            if (ran.count(s.pid))
                continue;
            EXPECT_EQ(s.exit, 1) << where;
            EXPECT_EQ(ReadFile(s.output), std::string(TEST_KOPD_PATH) + kRefused) << where;
        }
        return -1;
    }

    /// Waits until `pid` runs with its modules started: its pid in the pid
    /// file and the lock file, and as many started loads as loads.
    bool WaitRunning(pid_t pid, int loads)
    {
        return WaitFor([&] {
            auto lines = RecordLines();
            return ReadFile(PidFile()) == std::to_string(pid) + "\n" &&
                   ReadFile(LockFile()) == "kopd#" + std::to_string(pid) &&
                   CountSerialLoads(lines) == loads && CountLines(lines, "slot4") == static_cast<size_t>(loads);
        });
    }
};

// Several instances started at the same moment: at every moment at most one
// runs and holds the lock; every other start is refused with its message
// and status 1, or waits for the lock and runs after the one before it.
TEST_F(KopdStressTest, SimultaneousStartsRunOneAtATime)
{
    ENTER_NAMESPACE();
    SetRunLevel("6\n");  // a stop without the three-second wait for the file
    int loads = 0;
    int refused = 0;
    for (int round = 0; round < kSimultaneousRounds; ++round) {
        Gate gate;
        std::vector<Starter> starters;
        for (int i = 0; i < kStartersPerRound; ++i)
            starters.push_back(StartGated(gate));
        gate.Open();
        int runs = 0;
        Drain(starters, loads, false, runs, "round " + std::to_string(round));
        if (HasFailure())
            return;
        EXPECT_GE(runs, 1) << "round " << round;
        refused += kStartersPerRound - runs;
        ExpectCleanStop();
    }
    EXPECT_EQ(CountSerialLoads(RecordLines()), loads);
    std::cout << "[   NOTE   ] " << kSimultaneousRounds * kStartersPerRound << " starts in " << kSimultaneousRounds
              << " rounds: " << loads << " ran one after the other, " << refused << " were refused\n";
}

// Instances started while the running one stops: each is refused (the old
// one still holds the lock), or runs once the old one is gone; two never run
// at once, and a lock taken on the file the stopping instance has just
// removed is not counted as held.
TEST_F(KopdStressTest, StartsWhileAnInstanceStopsNeverOverlap)
{
    ENTER_NAMESPACE();
    SetRunLevel("6\n");
    pid_t running = StartForeground();
    int loads = 1;
    ASSERT_TRUE(WaitRunning(running, loads)) << Output();

    int takeovers = 0;
    int refused = 0;
    for (int round = 0; round < kStopRaceRounds; ++round) {
        WaitInSignalLoop(running);
        std::vector<Gate> gates(kStartersWhileStopping);
        std::vector<Starter> starters;
        for (const Gate& gate : gates)
            starters.push_back(StartGated(gate));
        // The starts go one after the other over the time the stop takes,
        // spread wider from round to round; in odd rounds the first one
        // goes before the stop.
        const auto step = std::chrono::microseconds(500 * round);
        if (round % 2)
            gates[0].Open();
        ASSERT_EQ(kill(running, SIGTERM), 0);
        for (Gate& gate : gates) {
            gate.Open();
            std::this_thread::sleep_for(step);
        }
        EXPECT_EQ(WaitExit(running), 0) << "round " << round;

        int runs = 0;
        running = Drain(starters, loads, true, runs, "round " + std::to_string(round));
        if (HasFailure())
            return;
        if (runs > 0)
            ++takeovers;
        refused += kStartersWhileStopping - runs;
        if (running < 0) {
            // Every start came too early: the next round needs an instance.
            ExpectCleanStop();
            running = StartForeground();
            ASSERT_TRUE(WaitRunning(running, ++loads)) << "round " << round << "\n" << Output();
        }
    }
    ASSERT_EQ(kill(running, SIGTERM), 0);
    EXPECT_EQ(WaitExit(running), 0);
    ExpectCleanStop();
    EXPECT_EQ(CountSerialLoads(RecordLines()), loads);
    std::cout << "[   NOTE   ] " << takeovers << " of " << kStopRaceRounds
              << " rounds had a start run after the stopping instance; " << refused << " of "
              << kStopRaceRounds * kStartersWhileStopping << " starts were refused\n";
}

// Thousands of SIGHUP and SIGALRM from several senders neither stop the
// daemon nor make it grow: descriptors and data size are the same after a
// storm as after a warm-up storm, and it stops cleanly afterwards (under
// the address sanitizer a leak would fail that exit status).
TEST_F(KopdStressTest, SignalStormsNeitherStopNorLeak)
{
    ENTER_NAMESPACE();
    SetRunLevel("6\n");
    pid_t pid = StartForeground();
    ASSERT_TRUE(WaitStarted()) << Output();

    auto drained = [&] { return (SharedPending(pid) & ((1ull << (SIGHUP - 1)) | (1ull << (SIGALRM - 1)))) == 0; };
    {
        SignalStorm warmUp(pid, 2, 200, 50);
        warmUp.Join();
    }
    ASSERT_TRUE(WaitFor(drained));
    const int fdsBefore = OpenDescriptors(pid);
    const long dataBefore = StatusKb(pid, "VmData:");
    ASSERT_GT(fdsBefore, 0);
    ASSERT_GT(dataBefore, 0);

    SignalStorm storm(pid, kStormBlasters, kBlastsPerSender, kPacedSignals);
    storm.Join();
    ASSERT_TRUE(WaitFor(drained));
    EXPECT_TRUE(Alive(pid)) << Output();
    EXPECT_EQ(storm.Sent(), kStormBlasters * kBlastsPerSender + kPacedSignals);
    EXPECT_EQ(storm.PacedTaken(), kPacedSignals);
    EXPECT_FALSE(Contains(Record(), "slot5"));

    EXPECT_EQ(OpenDescriptors(pid), fdsBefore);
    // Allocator slack, not growth per signal: thousands of signals that each
    // kept a few bytes would exceed it.
    EXPECT_LE(StatusKb(pid, "VmData:") - dataBefore, 64) << "VmData before: " << dataBefore << " kB";

    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(WaitExit(pid), 0) << Output();
    ExpectCleanStop();
    EXPECT_EQ(RecordLines().back(), "release");
}

// SIGTERM or SIGINT in the middle of a storm always stops the daemon
// cleanly: status 0, modules stopped and released, no pid or lock file.
TEST_F(KopdStressTest, TerminationInTheMiddleOfAStormStopsCleanly)
{
    ENTER_NAMESPACE();
    SetRunLevel("6\n");
    for (int round = 0; round < kTerminationRounds; ++round) {
        ASSERT_TRUE(WriteFile(RecordPath(), ""));
        pid_t pid = StartForeground();
        ASSERT_TRUE(WaitStarted()) << "round " << round << "\n" << Output();

        SignalStorm storm(pid, kStormBlasters, 0);
        ASSERT_TRUE(WaitFor([&] { return storm.Sent() >= 500; }));
        const int sig = round % 2 ? SIGINT : SIGTERM;
        ASSERT_EQ(kill(pid, sig), 0);
        EXPECT_TRUE(WaitFor([&] { return Ended(pid); })) << "round " << round;
        storm.Stop();
        EXPECT_EQ(WaitExit(pid), 0) << "round " << round << "\n" << Output();
        ExpectCleanStop();
        auto lines = RecordLines();
        ASSERT_GE(lines.size(), 3u) << "round " << round;
        EXPECT_EQ(lines[lines.size() - 3], "slot5") << "round " << round;
        EXPECT_EQ(lines[lines.size() - 2], "slot3 value=0") << "round " << round;
        EXPECT_EQ(lines.back(), "release") << "round " << round;
    }
}

// A symbolic link planted at the pid file's path is replaced, never
// written through; one at the lock file's path makes the start fail
// without touching what it points to.
TEST_F(KopdStressTest, LinksAtThePidAndLockFilePathsAreNotFollowed)
{
    ENTER_NAMESPACE();
    SetRunLevel("6\n");
    const std::string victim = NsPath("/etc/tarvd/victim");
    ASSERT_TRUE(WriteFile(victim, "precious"));
    ASSERT_EQ(symlink("/etc/tarvd/victim", PidFile().c_str()), 0);

    pid_t pid = StartForeground();
    ASSERT_TRUE(WaitStarted()) << Output();
    ASSERT_EQ(WaitPidFile(), pid);
    struct stat st {};
    ASSERT_EQ(lstat(PidFile().c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 022, 0u);  // writable by root only
    EXPECT_EQ(ReadFile(victim), "precious");
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(WaitExit(pid), 0);
    ExpectCleanStop();
    EXPECT_EQ(ReadFile(victim), "precious");

    // A dangling link at the pid file's path does not create its target.
    ASSERT_EQ(symlink("/etc/tarvd/made-through-link", PidFile().c_str()), 0);
    pid = StartForeground();
    ASSERT_EQ(WaitPidFile(), pid);
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(WaitExit(pid), 0);
    EXPECT_FALSE(FileExists(NsPath("/etc/tarvd/made-through-link")));

    ASSERT_EQ(symlink("/etc/tarvd/victim", LockFile().c_str()), 0);
    pid = StartForeground();
    EXPECT_EQ(WaitExit(pid), 1);
    EXPECT_EQ(Output(), std::string(TEST_KOPD_PATH) + kRefused);
    EXPECT_EQ(ReadFile(victim), "precious");
    EXPECT_FALSE(FileExists(PidFile()));
}

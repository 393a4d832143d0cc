// End-to-end tests of the kopd binary.  Each test builds a private mount
// namespace in which /run (lock and pid files), /etc (through an overlay
// whose writes go to a tmpfs) and /var/log are the test's own, so the daemon
// uses its real fixed paths without touching the machine's.  The framework
// is a recording stand-in found through LD_LIBRARY_PATH.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utmp.h>

#include "support/TestSupport.h"

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::SplitLines;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

constexpr auto kTimeout = std::chrono::seconds(30);

bool Contains(const std::string& text, const std::string& what)
{
    return text.find(what) != std::string::npos;
}

size_t CountOf(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1))
        ++n;
    return n;
}

/// Polls `done` until it is true or the generous time-out passes.
template <typename F>
bool WaitFor(F done)
{
    auto end = std::chrono::steady_clock::now() + kTimeout;
    while (std::chrono::steady_clock::now() < end) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

/// waitpid with the generous time-out; SIGKILL when it passes.  -1 when killed.
int WaitExit(pid_t pid)
{
    int status = 0;
    bool done = WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!done) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool WriteAll(int fd, const std::string& s)
{
    return write(fd, s.data(), s.size()) == static_cast<ssize_t>(s.size());
}

struct NamespaceOptions {
    bool hideSystemctl = false;
};

/// A process that holds a private mount namespace prepared for the daemon.
class DaemonNamespace {
public:
    DaemonNamespace(const std::string& stage, const NamespaceOptions& options)
    {
        int ready[2], control[2];
        if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(control, O_CLOEXEC) != 0) {
            m_Error = "pipe";
            return;
        }
        m_Holder = fork();
        if (m_Holder == 0) {
            close(ready[0]);
            close(control[1]);
            std::string error = Prepare(stage, options);
            WriteAll(ready[1], error.empty() ? "1" : "0" + error);
            close(ready[1]);
            char c;
            while (read(control[0], &c, 1) > 0) {
            }
            _exit(0);
        }
        close(ready[1]);
        close(control[0]);
        m_Control = control[1];
        char buffer[512] = {};
        ssize_t n = read(ready[0], buffer, sizeof buffer - 1);
        close(ready[0]);
        if (n <= 0)
            m_Error = "namespace holder died";
        else if (buffer[0] != '1')
            m_Error = buffer + 1;
    }

    ~DaemonNamespace()
    {
        if (m_Control >= 0)
            close(m_Control);
        if (m_Holder > 0)
            waitpid(m_Holder, nullptr, 0);
    }

    const std::string& Error() const { return m_Error; }
    /// A path of the namespace, as seen from outside.
    std::string Path(const std::string& p) const { return "/proc/" + std::to_string(m_Holder) + "/root" + p; }
    pid_t Holder() const { return m_Holder; }

private:
    static std::string Prepare(const std::string& stage, const NamespaceOptions& options)
    {
        auto fail = [](const std::string& what) { return what + ": " + strerror(errno); };
        if (unshare(CLONE_NEWNS) != 0)
            return fail("unshare(CLONE_NEWNS)");
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return fail("make / private");
        if (mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0)
            return fail("tmpfs on /run");
        mkdir("/run/lock", 01777);
        // Debian: /var/run -> /run and /var/lock -> /run/lock.  Elsewhere
        // give them their own tmpfs.
        for (const char* dir : {"/var/run", "/var/lock"}) {
            char resolved[PATH_MAX];
            if (realpath(dir, resolved) && strncmp(resolved, "/run", 4) != 0 &&
                mount("tmpfs", dir, "tmpfs", 0, "mode=0755") != 0)
                return fail(std::string("tmpfs on ") + dir);
        }
        if (mount("tmpfs", "/var/log", "tmpfs", 0, "mode=0755") != 0)
            return fail("tmpfs on /var/log");
        if (mkdir(stage.c_str(), 0700) != 0 || mount("tmpfs", stage.c_str(), "tmpfs", 0, "mode=0700") != 0)
            return fail("tmpfs on " + stage);
        for (const char* d : {"/etc-up", "/etc-work", "/bin-up", "/bin-work"})
            mkdir((stage + d).c_str(), 0755);
        std::string etc = "lowerdir=/etc,upperdir=" + stage + "/etc-up,workdir=" + stage + "/etc-work";
        if (mount("overlay", "/etc", "overlay", 0, etc.c_str()) != 0)
            return fail("overlay on /etc");
        if (mkdir("/etc/tarvd", 0755) != 0 && errno != EEXIST)
            return fail("mkdir /etc/tarvd");
        if (options.hideSystemctl) {
            // A whiteout in the upper layer hides the file.
            if (mknod((stage + "/bin-up/systemctl").c_str(), S_IFCHR | 0, makedev(0, 0)) != 0)
                return fail("whiteout for systemctl");
            std::string bin = "lowerdir=/usr/bin,upperdir=" + stage + "/bin-up,workdir=" + stage + "/bin-work";
            if (mount("overlay", "/usr/bin", "overlay", 0, bin.c_str()) != 0)
                return fail("overlay on /usr/bin");
        }
        return {};
    }

    pid_t m_Holder = -1;
    int m_Control = -1;
    std::string m_Error;
};

struct Launch {
    std::vector<std::string> args;
    std::vector<std::string> env;  // extra NAME=value entries
    std::string switchDir = TEST_RECORDING_SWITCH_DIR;
    uid_t realUid = 0;
};

class KopdTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // The daemon's fork leaves its parent; we adopt the orphan so that
        // its exit status can be collected.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    void SetUp() override
    {
        if (!testsupport::CanUseMountNamespace())
            GTEST_SKIP() << "needs root and mount namespaces";
    }

    bool Enter(NamespaceOptions options = {})
    {
        m_Ns = std::make_unique<DaemonNamespace>(m_Dir.Sub("ns"), options);
        if (!m_Ns->Error().empty()) {
            m_SkipReason = "cannot prepare the mount namespace: " + m_Ns->Error();
            return false;
        }
        return true;
    }

    /// Each launch traces into a directory of its own (the trace files are
    /// recreated at every start).
    std::string TraceDir() const { return m_Dir.Sub("trace" + std::to_string(m_Launches)); }
    std::string RecordPath() const { return m_Dir.Sub("record.txt"); }
    std::string ShimRecordPath() const { return m_Dir.Sub("shim.txt"); }
    std::string Record() const { return ReadFile(RecordPath()); }
    std::vector<std::string> RecordLines() const { return SplitLines(Record()); }
    std::string NsPath(const std::string& p) const { return m_Ns->Path(p); }
    std::string PidFile() const { return NsPath("/run/kopd.pid"); }
    std::string LockFile() const { return NsPath("/run/lock/kopd.lock"); }

    void SetRunLevel(const std::string& content)
    {
        ASSERT_TRUE(WriteFile(NsPath("/etc/tarvd/RunLevel"), content));
    }

    /// Starts kopd in the namespace; stdout and stderr go to a file.
    pid_t Start(const Launch& launch)
    {
        std::string output = m_Dir.Sub("out" + std::to_string(++m_Launches) + ".txt");
        testsupport::MakeDirs(TraceDir());
        m_LastOutput = output;
        std::vector<std::string> env = {
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
            "LD_LIBRARY_PATH=" + launch.switchDir,
            "TEST_SWITCH_RECORD=" + RecordPath(),
            "SHIM_RECORD=" + ShimRecordPath(),
            "TR_LOG_DEBUG_LEVEL=3",
            "TR_LOG_RINGBUF_DIR=" + TraceDir(),
            "TraceFileLimit=1",
            "TR_LOG_RINGBUF_WEIGHT=1",
            "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1",
        };
        env.insert(env.end(), launch.env.begin(), launch.env.end());
        std::string nsFile = "/proc/" + std::to_string(m_Ns->Holder()) + "/ns/mnt";

        pid_t pid = fork();
        if (pid == 0) {
            int ns = open(nsFile.c_str(), O_RDONLY | O_CLOEXEC);
            if (ns < 0 || setns(ns, CLONE_NEWNS) != 0)
                _exit(120);
            int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int in = open("/dev/null", O_RDONLY);
            if (out < 0 || in < 0)
                _exit(121);
            dup2(in, 0);
            dup2(out, 1);
            dup2(out, 2);
            if (chdir("/") != 0)
                _exit(122);
            if (launch.realUid != 0 && setreuid(launch.realUid, 0) != 0)
                _exit(123);
            std::vector<char*> argv;
            std::string kopd = TEST_KOPD_PATH;
            argv.push_back(kopd.data());
            std::vector<std::string> args = launch.args;
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            std::vector<char*> envp;
            for (auto& e : env)
                envp.push_back(e.data());
            envp.push_back(nullptr);
            execve(kopd.c_str(), argv.data(), envp.data());
            _exit(124);
        }
        return pid;
    }

    std::string Output() const { return ReadFile(m_LastOutput); }

    /// Waits until the daemon has handed its modules to the framework
    /// (signals are blocked from before that point on).
    bool WaitStarted(const std::string& line = "slot4")
    {
        return WaitFor([&] {
            auto lines = RecordLines();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        });
    }

    /// The pid written to the pid file, once it is there.
    pid_t WaitPidFile()
    {
        pid_t pid = -1;
        WaitFor([&] {
            std::string text = ReadFile(PidFile());
            if (text.empty() || text.back() != '\n')
                return false;
            pid = static_cast<pid_t>(std::stol(text));
            return true;
        });
        return pid;
    }

    /// Sends a signal and waits until the daemon has taken it with sigwait().
    bool SignalAndWaitTaken(pid_t pid, int sig)
    {
        if (kill(pid, sig) != 0)
            return false;
        return WaitFor([&] {
            std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
            size_t pos = status.find("ShdPnd:");
            if (pos == std::string::npos || Contains(status, "State:\tZ"))
                return true;  // gone
            unsigned long long mask = std::stoull(status.substr(pos + 7), nullptr, 16);
            return (mask & (1ull << (sig - 1))) == 0;
        });
    }

    bool Alive(pid_t pid)
    {
        int status;
        return waitpid(pid, &status, WNOHANG) == 0;
    }

    /// Everything the trace wrote, or empty when tracing produced no file
    /// (then trace assertions are skipped).
    std::string Trace() const
    {
        // Every entry goes to the ring buffers (the start-up one, compressed
        // once start-up is done, and the active one); the log file only
        // repeats the always-written ones.
        std::string all;
        for (const char* f : {"log.kopd_i", "log.kopd_a"})
            all += ReadFile(TraceDir() + "/" + f);
        std::string gz = TraceDir() + "/log.kopd_i.gz";
        if (FileExists(gz)) {
            std::string cmd = "gzip -dc '" + gz + "' 2>/dev/null";
            if (FILE* p = popen(cmd.c_str(), "re")) {
                char buffer[65536];
                size_t n;
                while ((n = fread(buffer, 1, sizeof buffer, p)) > 0)
                    all.append(buffer, n);
                pclose(p);
            }
        }
        return all;
    }

    /// Runs the checks in `check` only when the trace facility wrote files.
    template <typename F>
    void IfTrace(F check)
    {
        std::string trace = Trace();
        if (trace.empty()) {
            std::cout << "[   NOTE   ] trace produced no file: trace assertions skipped\n";
            return;
        }
        check(trace);
    }

    void ExpectCleanStop()
    {
        EXPECT_FALSE(FileExists(PidFile()));
        EXPECT_FALSE(FileExists(LockFile()));
    }

    TempDir m_Dir;
    std::unique_ptr<DaemonNamespace> m_Ns;
    std::string m_SkipReason;
    std::string m_LastOutput;
    int m_Launches = 0;
};

#define ENTER_NAMESPACE(...)                      \
    do {                                          \
        if (!Enter(__VA_ARGS__))                  \
            GTEST_SKIP() << m_SkipReason;         \
    } while (0)

} // namespace

TEST_F(KopdTest, NotRootIsRefusedBeforeTouchingTheLock)
{
    ENTER_NAMESPACE();
    Launch l;
    l.args = {"-n"};
    l.realUid = 65534;
    pid_t pid = Start(l);
    EXPECT_EQ(WaitExit(pid), 1);
    EXPECT_EQ(Output(), std::string(TEST_KOPD_PATH) + ": KOPD-MAIN: Error! Permission denied\n");
    EXPECT_FALSE(FileExists(LockFile()));
    EXPECT_FALSE(FileExists(RecordPath()));
}

TEST_F(KopdTest, ForegroundLifecycleWithSignalsAndShutdownRunLevel6)
{
    ENTER_NAMESPACE();
    Launch l;
    l.args = {"-n"};
    pid_t pid = Start(l);
    ASSERT_TRUE(WaitStarted()) << Output();
    EXPECT_EQ(WaitPidFile(), pid);  // "No Demon": no fork
    EXPECT_EQ(ReadFile(PidFile()), std::to_string(pid) + "\n");
    EXPECT_EQ(ReadFile(LockFile()), "kopd#" + std::to_string(pid));
    EXPECT_EQ(Output(), std::string(TEST_KOPD_PATH) + ": KOPD-MAIN: started in \"No Demon\" Mode\n");

    // A second instance is refused in both modes and leaves the files alone.
    for (const char* mode : {"-nodemon", "-tinst"}) {
        Launch second;
        second.args = {mode};
        EXPECT_EQ(WaitExit(Start(second)), 1) << mode;
        EXPECT_TRUE(Contains(Output(), ": KOPD-MAIN: Error! Another process instance is already running!\n"))
            << Output();
        EXPECT_EQ(ReadFile(PidFile()), std::to_string(pid) + "\n");
        EXPECT_EQ(ReadFile(LockFile()), "kopd#" + std::to_string(pid));
    }

    // SIGHUP toggles tracing, SIGALRM is ignored: neither stops the daemon.
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGHUP));
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGHUP));
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGALRM));
    EXPECT_TRUE(Alive(pid));
    EXPECT_FALSE(Contains(Record(), "slot5"));

    SetRunLevel("6\n");
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
    EXPECT_EQ(WaitExit(pid), 0);
    std::vector<std::string> expected = {"query id=0",
                                         "slot2 flags=0 runmode=0",
                                         "slot4",
                                         "slot16 event=0x20000 data=null third=0",
                                         "slot16 event=0x30000 level=6 third=0",
                                         "slot5",
                                         "slot3 value=0",
                                         "release"};
    EXPECT_EQ(RecordLines(), expected);
    ExpectCleanStop();

    IfTrace([](const std::string& t) {
        EXPECT_TRUE(Contains(t, "SWITCH API          : Loading modules, force rescan = 1"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: RUN MODE: 0"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)"));
        EXPECT_TRUE(Contains(t, "kopd Version=\"9.80-16\" Milestone=\"-\""));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN::DiscoverSmbusDriverInfo: cannot open /dev/pci/smbus (errno=2: "));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: INFO: smbus-driver is not available on this OS"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: ## Done initializing ##"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN:  Waiting for signals..."));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Signal 1 (SIGHUP) caught"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Trace reset due to SIGHUP"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Trace forced due to SIGHUP"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: WARNING: Signal 14 (SIGALRM) caught -> ignoring"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Signal 15 caught -> processing"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: /usr/bin/systemctl detected on this OS"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: OS shutdown reguired: RunLevel = 6 from /etc/tarvd/RunLevel"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Current RunLevel = 6"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: ## Someone signaled exit state ##"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: ## EXIT PROCESS KOPD ##"));
    });
}

TEST_F(KopdTest, DaemonModeRunModesAndRescan)
{
    ENTER_NAMESPACE();
    SetRunLevel("3\n");
    struct Case {
        std::vector<std::string> args;
        bool foreground;
        std::string load;
        std::vector<std::string> traced;
    };
    const Case cases[] = {
        {{"-no", "-tupd", "-tinst", "-rescan"},
         false,
         "slot2 flags=1 runmode=7",
         {"TUPD mode due to -tupd", "TINST mode due to -tinst", "RESCAN due to -rescan"}},
        {{"-nodemonx", "-agentless", "-unknown"}, false, "slot2 flags=0 runmode=5", {"Agentsless mode due to -agentless"}},
        {{"-rescan", "-tupd-agentless", "-nodemon"},
         true,
         "slot2 flags=1 runmode=10",
         {"RESCAN due to -rescan", "TAGL_TUPD mode due to -tupd-agentless"}},
        {{"-tinst", "-tupd"}, false, "slot2 flags=0 runmode=8", {"TINST mode due to -tinst", "TUPD mode due to -tupd"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.load);
        unlink(RecordPath().c_str());
        unlink(ShimRecordPath().c_str());
        Launch l;
        l.args = c.args;
        // Preloaded: would report any open of the smbus device.
        l.env = {"LD_PRELOAD=" + std::string(TEST_SMBUS_SHIM), "SHIM_SMBUS_MODE=ok"};
        pid_t launched = Start(l);
        pid_t daemon = launched;
        if (!c.foreground) {
            EXPECT_EQ(WaitExit(launched), 0);  // the parent leaves at once
            daemon = WaitPidFile();
            ASSERT_GT(daemon, 0);
            EXPECT_NE(daemon, launched);
        }
        ASSERT_TRUE(WaitStarted()) << Output();
        EXPECT_EQ(WaitPidFile(), daemon);
        // The lock is taken before the fork: the file names the launched process.
        EXPECT_EQ(ReadFile(LockFile()), "kopd#" + std::to_string(launched));
        ASSERT_TRUE(SignalAndWaitTaken(daemon, SIGINT));
        EXPECT_EQ(WaitExit(daemon), 0);
        std::vector<std::string> expected = {"query id=0", c.load, "slot4", "slot16 event=0x20000 data=null third=0",
                                             "slot5", "slot3 value=0", "release"};
        EXPECT_EQ(RecordLines(), expected);  // run level 3: no shutdown notification
        EXPECT_FALSE(FileExists(ShimRecordPath())) << "the smbus device was opened in a non-zero run mode";
        ExpectCleanStop();
        IfTrace([&](const std::string& t) {
            for (const std::string& line : c.traced)
                EXPECT_TRUE(Contains(t, "KOPD-MAIN::ParseCommandLine   : " + line)) << line;
            EXPECT_EQ(CountOf(t, "KOPD-MAIN::ParseCommandLine   : "), c.traced.size());
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: RUN MODE: " + c.load.substr(c.load.rfind('=') + 1)));
            // Odd whatever the command line said.
            EXPECT_TRUE(Contains(t, "SWITCH API          : Loading modules, force rescan = 1"));
            EXPECT_FALSE(Contains(t, "DiscoverSmbusDriverInfo"));
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: OS shutdown reguired: RunLevel = 3 from /etc/tarvd/RunLevel"));
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: Current RunLevel = -1"));
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: Signal 2 caught -> processing"));
        });
    }
}

TEST_F(KopdTest, MissingRunLevelFileMeansSimpleStop)
{
    ENTER_NAMESPACE();
    Launch l;
    l.args = {"-n", "-agentless"};
    l.env = {"TR_NICKNAME=RHEL7"};
    pid_t pid = Start(l);
    ASSERT_TRUE(WaitStarted()) << Output();
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
    EXPECT_EQ(WaitExit(pid), 0);  // after three tries, one second apart
    auto lines = RecordLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "slot16 event=0x20000 data=null third=0"), 1);
    EXPECT_FALSE(Contains(Record(), "event=0x30000"));
    ExpectCleanStop();
    IfTrace([](const std::string& t) {
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: cannot open /etc/tarvd/RunLevel (try " + std::to_string(i) + ")"));
        EXPECT_FALSE(Contains(t, "(try 3)"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: this seems to be a simple stop of KOPD (not OS shutdown)"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Current RunLevel = 5"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: we are runing on OS \"RHEL7\""));
    });
}

TEST_F(KopdTest, WithoutSystemctlOlderSystemsUseUtmpAndNewerOnesTheFile)
{
    ENTER_NAMESPACE(NamespaceOptions{true});
    ASSERT_FALSE(FileExists(NsPath("/usr/bin/systemctl")));

    // An older system: the utmp run-level record says halt ('0').
    struct utmp record {};
    record.ut_type = RUN_LVL;
    record.ut_pid = 'N' * 256 + '0';
    strncpy(record.ut_user, "runlevel", sizeof record.ut_user);
    ASSERT_TRUE(WriteFile(NsPath("/run/utmp"), std::string(reinterpret_cast<char*>(&record), sizeof record)));
    SetRunLevel("6\n");  // must not be read on this path

    Launch l;
    l.args = {"-n", "-tinst"};
    l.env = {"TR_NICKNAME=SLES11"};
    pid_t pid = Start(l);
    ASSERT_TRUE(WaitStarted()) << Output();
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
    EXPECT_EQ(WaitExit(pid), 0);
    EXPECT_TRUE(Contains(Record(), "slot16 event=0x20000 data=null third=0\nslot16 event=0x30000 level=0 third=0\n"))
        << Record();
    ExpectCleanStop();
    IfTrace([](const std::string& t) {
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: try to indentify runlevel on older OS"));
        EXPECT_TRUE(Contains(t, "KOPD-MAIN: Current RunLevel = 0"));
        EXPECT_FALSE(Contains(t, "detected on this OS"));
    });

    // A newer system by name: the run-level file decides (6 = reboot).
    unlink(RecordPath().c_str());
    l.env = {"TR_NICKNAME=OL7"};
    pid = Start(l);
    ASSERT_TRUE(WaitStarted()) << Output();
    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
    EXPECT_EQ(WaitExit(pid), 0);
    EXPECT_TRUE(Contains(Record(), "slot16 event=0x30000 level=6 third=0\n")) << Record();
    ExpectCleanStop();
}

TEST_F(KopdTest, MissingOrUnusableFrameworkIsFatal)
{
    ENTER_NAMESPACE();
    for (std::string dir : {m_Dir.Sub("empty"), std::string(TEST_NOQUERY_SWITCH_DIR)}) {
        SCOPED_TRACE(dir);
        testsupport::MakeDirs(m_Dir.Sub("empty"));
        Launch l;
        l.args = {"-n", "-tupd"};
        l.switchDir = dir;
        EXPECT_EQ(WaitExit(Start(l)), 1);
        EXPECT_FALSE(FileExists(LockFile()));
        EXPECT_FALSE(FileExists(PidFile()));
        bool missing = dir == m_Dir.Sub("empty");
        IfTrace([&](const std::string& t) {
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: FATAL ERROR! Server Control SWITCH could not be loaded!"));
            EXPECT_EQ(Contains(t, "LoadLibrary: ## ERROR:  libswitch.so: cannot open shared object file"), missing);
            EXPECT_FALSE(Contains(t, "Waiting for signals"));
        });
    }
}

TEST_F(KopdTest, FailingModuleLoadStillReachesTheSignalLoopAndStopsCleanly)
{
    ENTER_NAMESPACE();
    SetRunLevel("0\n");
    for (const char* how : {"throw", "fail"}) {
        SCOPED_TRACE(how);
        unlink(RecordPath().c_str());
        Launch l;
        l.args = {"-n", "-tupd"};
        l.env = {std::string("TEST_SWITCH_LOAD=") + how};
        pid_t pid = Start(l);
        ASSERT_TRUE(WaitStarted("slot2 flags=0 runmode=8")) << Output();
        EXPECT_TRUE(WaitFor([&] { return FileExists(PidFile()); }));
        ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
        EXPECT_EQ(WaitExit(pid), 0);
        std::vector<std::string> expected = {"query id=0",
                                             "slot2 flags=0 runmode=8",
                                             "slot16 event=0x20000 data=null third=0",
                                             "slot16 event=0x30000 level=0 third=0",
                                             "slot5",
                                             "slot3 value=0",
                                             "release"};
        EXPECT_EQ(RecordLines(), expected);  // never started
        ExpectCleanStop();
        bool threw = strcmp(how, "throw") == 0;
        IfTrace([&](const std::string& t) {
            EXPECT_EQ(Contains(t, "SWITCH DLL - Exception during LoadModules"), threw);
            EXPECT_EQ(CountOf(t, "SWITCH API          : ## ERROR! Loading modules FAILED!"), threw ? 1u : 0u);
            EXPECT_EQ(CountOf(t, "KOPD-MAIN: ERROR! Load extension modules FAILED!"), 1u);
            EXPECT_FALSE(Contains(t, "all modules started"));
            EXPECT_EQ(CountOf(t, "KOPD-MAIN:  Waiting for signals..."), 1u);
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: ## EXIT PROCESS KOPD ##"));
        });
    }
}

void CheckDriverAnswer(const std::string& t)
{
    EXPECT_TRUE(Contains(t, "KOPD-MAIN: WARNING: kopd version (0x00095010) is less than smbus driver version "
                            "(0x0A000001)"));
    EXPECT_TRUE(Contains(t, "KOPD-MAIN::DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)"));
    EXPECT_TRUE(Contains(t, "Version                     : 0x00000001\n"));
    EXPECT_TRUE(Contains(t, "CmdNumber                   : 0x000000FF\n"));
    EXPECT_TRUE(Contains(t, "SizeOfInOutBuffer           : 0x00000520\n"));
    EXPECT_TRUE(Contains(t, "pInOutBuffer                : 0x0x"));
    EXPECT_TRUE(Contains(t, "Success                     : 0x00000001\n"));
    EXPECT_TRUE(Contains(t, "smbus_VersionCode           : 0x0A000001\n"));
    EXPECT_TRUE(Contains(t, "RequestorVersion            : 0x00095010\n"));
    EXPECT_TRUE(Contains(t, "smbus_IsSmbusHwFound        : 0x00000001\n"));
    EXPECT_TRUE(Contains(t, "smbus_MajorDeviceNumber     : 0x000000F0\n"));
    EXPECT_TRUE(Contains(t, "RequestorName               : KOPD\n"));
    EXPECT_TRUE(Contains(t, "smbus_Name                  : smbus\n"));
    // Unterminated by the driver: printed up to the field's end only.
    EXPECT_TRUE(Contains(t, "smbus_KernelVersion         : " + std::string(160, 'K') + "\n"));
    EXPECT_TRUE(Contains(t, "TR_SYSTEM                   : PRIMERGY\n"));
    EXPECT_TRUE(Contains(t, "smbus_ErrorReturnString     : none\n"));
    EXPECT_FALSE(Contains(t, "smbus-driver is not available"));
}

void CheckDriverFailure(const std::string& t)
{
    EXPECT_TRUE(Contains(t, "KOPD-MAIN::DiscoverSmbusDriverInfo: IOCTL_SMBUS_DRIVER_INFO (0xC00873FF) to "
                            "/dev/pci/smbus failed (errno=25: "));
    EXPECT_EQ(CountOf(t, "KOPD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about "
                         "this, it might be OK on some OS systems!)"),
              1u);
    EXPECT_FALSE(Contains(t, "evaluating IOCTL_SMBUS_DRIVER_INFO"));
}

TEST_F(KopdTest, DriverQueryRequestAndAnswer)
{
    ENTER_NAMESPACE();
    SetRunLevel("3\n");
    const std::string longOs(140, 'o');  // longer than its 128-byte field
    for (const char* mode : {"ok", "fail"}) {
        SCOPED_TRACE(mode);
        unlink(RecordPath().c_str());
        unlink(ShimRecordPath().c_str());
        Launch l;
        l.args = {"-n"};
        l.env = {"LD_PRELOAD=" + std::string(TEST_SMBUS_SHIM), std::string("SHIM_SMBUS_MODE=") + mode,
                 "TR_SYSTEM=PRIMERGY", "TR_OS=" + longOs, "TR_NICKNAME="};
        pid_t pid = Start(l);
        ASSERT_TRUE(WaitStarted()) << Output();
        ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
        EXPECT_EQ(WaitExit(pid), 0);
        std::vector<std::string> expected = {
            "open flags=0x80002",  // O_RDWR | O_CLOEXEC
            "ioctl request=0xC00873FF",
            "header version=1 cmd=0xFF size=1312 success=0",
            "in requestor=0x00095010 name=KOPD",
            "in TR_SYSTEM=PRIMERGY",
            "in TR_OS=" + longOs.substr(0, 128),
            "in TR_NICKNAME=",
            "in nonzero-out-bytes=0",
        };
        EXPECT_EQ(SplitLines(ReadFile(ShimRecordPath())), expected);
        if (strcmp(mode, "ok") == 0)
            IfTrace(CheckDriverAnswer);
        else
            IfTrace(CheckDriverFailure);
        IfTrace([](const std::string& t) {
            EXPECT_TRUE(Contains(t, "KOPD-MAIN: cannot identify OS (from TR_NICKNAME) on which we are running"));
        });
    }
}

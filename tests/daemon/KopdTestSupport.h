// Machinery of the end-to-end tests of kopd: a private mount namespace in
// which /run (lock and pid files), /etc (through an overlay whose writes go
// to a tmpfs) and /var/log are the test's own, so the daemon uses its real
// fixed paths without touching the machine's; and a fixture that starts the
// real binary in it, signals it and reads its trace.
#pragma once

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
#include <memory>
#include <string>
#include <utmp.h>
#include <vector>

#include "support/TestSupport.h"

namespace kopdtest {

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::SplitLines;
using testsupport::TempDir;
using testsupport::WriteFile;

inline constexpr auto kTimeout = std::chrono::seconds(30);

inline bool Contains(const std::string& text, const std::string& what)
{
    return text.find(what) != std::string::npos;
}

inline size_t CountOf(const std::string& text, const std::string& what)
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
inline int WaitExit(pid_t pid)
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

inline bool WriteAll(int fd, const std::string& s)
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
    /// When set, the child waits until this pipe end reads end-of-file
    /// before it runs kopd, so that several launches can go at once.
    int gate = -1;
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
            if (launch.gate >= 0) {
                // Only the gate's read end stays open: a write end of this
                // or another launch's gate kept here would hold it shut.
                if (dup2(launch.gate, 3) != 3)
                    _exit(125);
                close_range(4, ~0U, 0);
                char c;
                for (;;) {
                    ssize_t r = read(3, &c, 1);
                    if (r == 0 || (r < 0 && errno != EINTR))
                        break;
                }
                close(3);
            }
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

} // namespace kopdtest

#define ENTER_NAMESPACE(...)                      \
    do {                                          \
        if (!Enter(__VA_ARGS__))                  \
            GTEST_SKIP() << m_SkipReason;         \
    } while (0)

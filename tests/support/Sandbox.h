// A private mount namespace for the system tests: /run, /var/log and chosen directories (overlays
// writing to a tmpfs) are the test's own, so that the daemon and the package's scripts use their
// real fixed paths without touching the machine's. A holder process keeps the namespace; programs
// join it with setns; its files are seen from outside in /proc/<holder>/root.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/types.h>
#include <vector>

#include "common/UniqueHandle.h"
#include "support/TestSupport.h"
#include "support/Wait.h"

namespace testsupport {

struct SandboxOptions {
    std::vector<std::string> writable{"/etc"};  ///< directories whose changes go to the tmpfs
    bool hideSystemctl = false;                 ///< hides /usr/bin/systemctl (an older system's view)
};

struct SandboxProgram {  ///< a program to start in the sandbox
    std::string program;
    std::vector<std::string> args;
    std::vector<std::string> env;  ///< the whole environment, NAME=value
    std::string output;            ///< file for stdout and stderr
    uid_t uid = 0;                 ///< when not 0: runs as this user
    int gate = -1;  ///< when set, the program runs once this pipe end reads end-of-file
};

class Sandbox {
public:
    /// `stage`: an empty directory path for the sandbox's tmpfs.
    explicit Sandbox(const std::string& stage, const SandboxOptions& options = {});
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    /// Why the namespace could not be made; empty when it is ready.
    const std::string& Error() const { return m_Error; }
    /// A path of the sandbox, as seen from outside.
    std::string Path(const std::string& p) const { return "/proc/" + std::to_string(m_Holder) + "/root" + p; }
    /// Starts the program; its pid (the caller collects it), -1 on failure.
    pid_t Spawn(const SandboxProgram& launch) const;
    /// Runs `script` with `sh -e` and waits; its output in `output`.
    int RunScript(const std::string& script, const std::string& outputFile, std::string* output) const;

private:
    pid_t m_Holder = -1;
    UniqueFd m_Control;
    std::string m_Error;
};

/// A datagram socket standing in for the service manager or the system log;
/// `address`: a path, or "@name" for the abstract namespace.
struct DatagramSink {
    explicit DatagramSink(const std::string& address);
    /// The next datagram, or "" after `ms` without one.
    std::string Receive(int ms);
    UniqueFd fd;
    bool bound = false;
};

/// Waits for the child `pid`: its exit status, 128 + signal, or -1 when `timeout` passed (killed).
int WaitExit(pid_t pid, std::chrono::milliseconds timeout = kLongWait);

/// A daemon's environment: a plain PATH, all trace into the ring buffers of `traceDir`, leak checks.
std::vector<std::string> DaemonEnv(const std::string& traceDir);

/// What the daemon `name` traced into `traceDir`: the start-up ring buffer (packed once done) and the active one.
std::string ReadDaemonTrace(const std::string& traceDir, const std::string& name = "kopd");

/// The fixture of the tests that run kopd in a sandbox, skipped where none
/// can be made.  Each launch traces into a directory of its own.
class KopdFixture : public ::testing::Test {
protected:
    KopdFixture(std::string program, std::string switchDir) : m_Program(program), m_SwitchDir(switchDir) {}
    // The forking daemon leaves its parent: adopted, so that it can be collected.
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    void SetUp() override
    {
        if (!CanUseMountNamespace() || !Enter())
            GTEST_SKIP() << "needs root and mount namespaces " << m_SkipReason;
    }
    bool Enter(const SandboxOptions& options = {})
    {
        // A new sandbox (false and m_SkipReason when none can be made); the old
        // one goes first, as the new holder would keep its control pipe open.
        m_Ns.reset();
        m_Ns = std::make_unique<Sandbox>(m_Dir.Sub("ns" + std::to_string(++m_Sandboxes)), options);
        m_SkipReason = m_Ns->Error();
        return m_SkipReason.empty();
    }
    /// Starts kopd with `args` and `more` environment; `switchDir`: the framework's, empty: the fixture's.
    pid_t Start(const std::vector<std::string>& args = {"-n"}, const std::vector<std::string>& more = {},
                const std::string& switchDir = "", uid_t uid = 0, int gate = -1)
    {
        std::vector<std::string> env = DaemonEnv(m_Dir.Sub("trace" + std::to_string(++m_Launches)));
        env.push_back("LD_LIBRARY_PATH=" + (switchDir.empty() ? m_SwitchDir : switchDir));
        env.insert(env.end(), m_Env.begin(), m_Env.end());
        env.insert(env.end(), more.begin(), more.end());
        return m_Ns->Spawn({m_Program, args, env, OutputFile(), uid, gate});
    }
    std::string TraceDir() const { return m_Dir.Sub("trace" + std::to_string(m_Launches)); }
    std::string OutputFile() const { return m_Dir.Sub("out" + std::to_string(m_Launches) + ".txt"); }
    std::string Output() const { return ReadFile(OutputFile()); }
    std::string NsPath(const std::string& p) const { return m_Ns->Path(p); }
    std::string PidFile() const { return NsPath("/run/kopd.pid"); }
    std::string LockFile() const { return NsPath("/run/lock/kopd.lock"); }
    /// The pid written to the pid file, once it is there.
    pid_t WaitPidFile()
    {
        std::string text;
        WaitFor([&] { return !(text = ReadFile(PidFile())).empty() && text.back() == '\n'; });
        return text.empty() ? -1 : static_cast<pid_t>(std::stol(text));
    }
    /// Sends a signal and waits until the daemon has taken it with sigwait(): no longer
    /// among its shared pending signals (of which a process gone has none).
    bool SignalAndWaitTaken(pid_t pid, int sig)
    {
        return kill(pid, sig) == 0 && WaitFor([&] {
            std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
            size_t at = status.find("ShdPnd:");
            return at == std::string::npos || Contains(status, "State:\tZ") ||
                   (std::stoull(status.substr(at + 7), nullptr, 16) & (1ull << (sig - 1))) == 0;
        });
    }
    /// Signals, expects status 0 and no pid or lock file left.
    void Stop(pid_t pid, int sig)
    {
        ASSERT_TRUE(SignalAndWaitTaken(pid, sig));
        EXPECT_EQ(WaitExit(pid), 0) << Output();
        EXPECT_FALSE(FileExists(PidFile()) || FileExists(LockFile()));
    }

    std::string m_Program, m_SwitchDir;
    std::vector<std::string> m_Env;  ///< added to every launch
    TempDir m_Dir;
    std::unique_ptr<Sandbox> m_Ns;
    std::string m_SkipReason;
    int m_Launches = 0, m_Sandboxes = 0;
};

} // namespace testsupport

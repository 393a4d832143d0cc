// A private mount namespace for the system tests: /run (lock and pid
// files), /var/log and chosen directories (through overlays whose writes go
// to a tmpfs) are the test's own, so that the daemon and the package's
// scripts use their real fixed paths without touching the machine's.  A
// holder process keeps the namespace; programs are started in it with
// setns, and its files are seen from outside through /proc/<holder>/root.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/types.h>
#include <vector>

#include "support/TestSupport.h"
#include "support/Wait.h"

namespace testsupport {

struct SandboxOptions {
    /// Directories whose changes go to the sandbox's tmpfs.
    std::vector<std::string> writable{"/etc"};
    /// A staged /usr laid read-only over the real one, when not empty.
    std::string usrOnTop;
    /// Hides /usr/bin/systemctl (an older system's view).
    bool hideSystemctl = false;
};

/// A program to start in the sandbox.
struct SandboxProgram {
    std::string program;
    std::vector<std::string> args;
    std::vector<std::string> env;  ///< the whole environment, NAME=value
    std::string output;            ///< file for stdout and stderr
    uid_t realUid = 0;             ///< when not 0: the real uid, effective stays root
    /// When set, the program waits until this pipe end reads end-of-file
    /// before it runs, so that several launches can go at once.
    int gate = -1;
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
    int m_Control = -1;
    std::string m_Error;
};

/// Waits for the child `pid` (SIGKILL when `timeout` passes).
/// @return its exit status, 128 + signal, or -1 when it had to be killed.
int WaitExit(pid_t pid, std::chrono::milliseconds timeout = kLongWait);

/// The environment of a daemon under test: a plain PATH, every trace entry
/// into the ring buffers of `traceDir`, leak checks of a sanitizer build.
std::vector<std::string> DaemonEnv(const std::string& traceDir);

/// What the daemon `name` traced into `traceDir`: the start-up ring buffer
/// (compressed once start-up is done) and the active one.
std::string ReadDaemonTrace(const std::string& traceDir, const std::string& name = "kopd");

/// Shared pending signals of the process; 0 also when it is gone.
unsigned long long SharedPending(pid_t pid);

/// A kopd launch: command line, extra NAME=value entries, framework directory.
struct KopdLaunch {
    std::vector<std::string> args{"-n"};
    std::vector<std::string> env{};
    std::string switchDir{};  ///< empty: the fixture's
    uid_t realUid = 0;
    int gate = -1;  ///< see SandboxProgram::gate
};

/// The fixture of the tests that run kopd in a sandbox (skipped where that
/// is impossible).  Each launch traces into a directory of its own.
class KopdFixture : public ::testing::Test {
protected:
    KopdFixture(std::string program, std::string switchDir) : m_Program(program), m_SwitchDir(switchDir) {}
    // The forking daemon leaves its parent: adopted, so that it can be collected.
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    void SetUp() override
    {
        if (!CanUseMountNamespace())
            GTEST_SKIP() << "needs root and mount namespaces";
    }
    /// Makes the sandbox; false (and m_SkipReason) when it cannot.
    bool Enter(const SandboxOptions& options = {})
    {
        m_Ns = std::make_unique<Sandbox>(m_Dir.Sub("ns"), options);
        m_SkipReason = "cannot prepare the mount namespace: " + m_Ns->Error();
        return m_Ns->Error().empty();
    }
    pid_t Start(const KopdLaunch& launch)
    {
        std::vector<std::string> env = DaemonEnv(m_Dir.Sub("trace" + std::to_string(++m_Launches)));
        env.push_back("LD_LIBRARY_PATH=" + (launch.switchDir.empty() ? m_SwitchDir : launch.switchDir));
        env.insert(env.end(), m_Env.begin(), m_Env.end());
        env.insert(env.end(), launch.env.begin(), launch.env.end());
        return m_Ns->Spawn({m_Program, launch.args, env, OutputFile(), launch.realUid, launch.gate});
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
    /// Sends a signal and waits until the daemon has taken it with sigwait().
    bool SignalAndWaitTaken(pid_t pid, int sig)
    {
        return kill(pid, sig) == 0 && WaitFor([&] { return (SharedPending(pid) & (1ull << (sig - 1))) == 0; });
    }
    /// Signals, expects status 0 and no pid or lock file left.
    void Stop(pid_t pid, int sig)
    {
        ASSERT_TRUE(SignalAndWaitTaken(pid, sig));
        EXPECT_EQ(WaitExit(pid), 0) << Output();
        EXPECT_FALSE(FileExists(PidFile()));
        EXPECT_FALSE(FileExists(LockFile()));
    }

    std::string m_Program, m_SwitchDir;
    std::vector<std::string> m_Env;  ///< added to every launch
    TempDir m_Dir;
    std::unique_ptr<Sandbox> m_Ns;
    std::string m_SkipReason;
    int m_Launches = 0;
};

} // namespace testsupport

#define ENTER_NAMESPACE(...)              \
    do {                                  \
        if (!Enter(__VA_ARGS__))          \
            GTEST_SKIP() << m_SkipReason; \
    } while (0)

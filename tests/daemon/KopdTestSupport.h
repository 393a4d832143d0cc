// The fixture of the end-to-end tests of kopd: the real binary started in
// a sandbox (tests/support/Sandbox.h) with a recording stand-in of the
// framework, signalled, and its record, pid, lock and trace files read.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "support/Sandbox.h"
#include "support/TestSupport.h"

namespace kopdtest {

using namespace testsupport;
using Lines = std::vector<std::string>;

/// Shared pending signals of the process; 0 also when it is gone.
inline unsigned long long SharedPending(pid_t pid)
{
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    size_t pos = status.find("ShdPnd:");
    return pos == std::string::npos || Contains(status, "State:\tZ") ? 0 : std::stoull(status.substr(pos + 7), nullptr, 16);
}

/// A kopd launch: command line, extra NAME=value entries, framework directory.
struct Launch {
    std::vector<std::string> args{"-n"};
    std::vector<std::string> env;
    std::string switchDir = TEST_RECORDING_SWITCH_DIR;
    uid_t realUid = 0;
    int gate = -1;  ///< see testsupport::SandboxProgram::gate
};

class KopdTest : public ::testing::Test {
protected:
    // The daemon's fork leaves its parent: adopted, so that it can be collected.
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    void SetUp() override
    {
        if (!CanUseMountNamespace())
            GTEST_SKIP() << "needs root and mount namespaces";
    }
    bool Enter(SandboxOptions options = {})
    {
        m_Ns = std::make_unique<Sandbox>(m_Dir.Sub("ns"), options);
        m_SkipReason = "cannot prepare the mount namespace: " + m_Ns->Error();
        return m_Ns->Error().empty();
    }

    /// Each launch traces into a directory of its own (the trace files are
    /// recreated at every start).
    std::string TraceDir() const { return m_Dir.Sub("trace" + std::to_string(m_Launches)); }
    std::string RecordPath() const { return m_Dir.Sub("record.txt"); }
    std::string ShimRecordPath() const { return m_Dir.Sub("shim.txt"); }
    std::string Record() const { return ReadFile(RecordPath()); }
    Lines RecordLines() const { return SplitLines(Record()); }
    void ClearRecords() const
    {
        unlink(RecordPath().c_str());
        unlink(ShimRecordPath().c_str());
    }
    std::string NsPath(const std::string& p) const { return m_Ns->Path(p); }
    std::string PidFile() const { return NsPath("/run/kopd.pid"); }
    std::string LockFile() const { return NsPath("/run/lock/kopd.lock"); }
    void SetRunLevel(const std::string& content) { ASSERT_TRUE(WriteFile(NsPath("/etc/tarvd/RunLevel"), content)); }
    std::string Output() const { return ReadFile(m_LastOutput); }

    /// Starts kopd in the namespace; stdout and stderr go to a file.
    pid_t Start(const Launch& launch)
    {
        m_LastOutput = m_Dir.Sub("out" + std::to_string(++m_Launches) + ".txt");
        std::vector<std::string> env = DaemonEnv(TraceDir());
        env.insert(env.end(), {"LD_LIBRARY_PATH=" + launch.switchDir, "TEST_SWITCH_RECORD=" + RecordPath(),
                               "SHIM_RECORD=" + ShimRecordPath()});
        env.insert(env.end(), launch.env.begin(), launch.env.end());
        return m_Ns->Spawn({TEST_KOPD_PATH, launch.args, env, m_LastOutput, launch.realUid, launch.gate});
    }

    /// Starts kopd, waits until its modules started, stops it with SIGTERM
    /// and expects status 0 and no pid or lock file left.
    void StartAndStop(const Launch& launch)
    {
        pid_t pid = Start(launch);
        ASSERT_TRUE(WaitStarted()) << Output();
        ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    }
    void Stop(pid_t pid, int sig)
    {
        ASSERT_TRUE(SignalAndWaitTaken(pid, sig));
        EXPECT_EQ(WaitExit(pid), 0) << Output();
        EXPECT_FALSE(FileExists(PidFile()));
        EXPECT_FALSE(FileExists(LockFile()));
    }

    /// Waits until the record has `line` (by default: the daemon has handed
    /// its modules to the framework; signals are blocked from before that).
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
        std::string text;
        WaitFor([&] { return !(text = ReadFile(PidFile())).empty() && text.back() == '\n'; });
        return text.empty() ? -1 : static_cast<pid_t>(std::stol(text));
    }

    /// Sends a signal and waits until the daemon has taken it with sigwait().
    bool SignalAndWaitTaken(pid_t pid, int sig)
    {
        return kill(pid, sig) == 0 && WaitFor([&] { return (SharedPending(pid) & (1ull << (sig - 1))) == 0; });
    }

    /// Expects each of `pieces` in the trace, and then runs `more` on it;
    /// only when tracing wrote files.
    template <typename F = void (*)(const std::string&)>
    void ExpectTraced(const Lines& pieces, F more = [](const std::string&) {})
    {
        std::string trace = ReadDaemonTrace(TraceDir());
        if (trace.empty()) {
            std::cout << "[   NOTE   ] trace produced no file: trace assertions skipped\n";
            return;
        }
        for (const std::string& piece : pieces)
            EXPECT_TRUE(Contains(trace, piece)) << piece;
        more(trace);
    }

    TempDir m_Dir;
    std::unique_ptr<Sandbox> m_Ns;
    std::string m_SkipReason;
    std::string m_LastOutput;
    int m_Launches = 0;
};

} // namespace kopdtest

#define ENTER_NAMESPACE(...)              \
    do {                                  \
        if (!Enter(__VA_ARGS__))          \
            GTEST_SKIP() << m_SkipReason; \
    } while (0)

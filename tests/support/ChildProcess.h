// Running a program of the build as a child process, without a shell.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace testsupport {

struct RunResult {
    int exitCode = -1;  ///< -1 when the child did not exit normally
    int signal = 0;     ///< the signal that ended the child, 0 if none
    bool timedOut = false;
    std::string out;
    std::string err;
    bool Exited(int code) const { return signal == 0 && !timedOut && exitCode == code; }
};

/// Runs `program` with `args` (no shell), stdin from /dev/null, the trace
/// variables of the environment removed.  Kills the child after `timeout`.
RunResult Run(const std::string& program, const std::vector<std::string>& args,
              std::chrono::seconds timeout = std::chrono::seconds(60));

/// A child whose standard output is read while it runs.
class Child {
public:
    Child(const std::string& program, const std::vector<std::string>& args);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    bool Started() const { return m_Pid > 0; }
    /// Reads output until it contains `text` or `timeout` passes.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout);
    /// Sends `sig` and waits (up to `timeout`) for the end; the rest of the
    /// output is collected.
    RunResult Stop(int sig, std::chrono::milliseconds timeout);
    const std::string& Output() const { return m_Out; }

private:
    void ReadAvailable(int waitMs);
    pid_t m_Pid = -1;
    int m_OutFd = -1;
    int m_ErrFd = -1;
    std::string m_Out;
    std::string m_Err;
};

} // namespace testsupport

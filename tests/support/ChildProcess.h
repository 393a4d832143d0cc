// Running programs as child processes, without a shell unless asked for.
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

/// Runs `program` (no shell), stdin /dev/null, no trace variables; killed after `timeout`.
RunResult Run(const std::string& program, const std::vector<std::string>& args,
              std::chrono::seconds timeout = std::chrono::seconds(60));

/// The null-terminated array of the strings' texts, for exec.
std::vector<char*> CStrings(std::vector<std::string>& strings);

/// Quotes `s` for a POSIX shell.
std::string Quote(const std::string& s);

/// Runs `script` with /bin/sh (like Run), stdout and stderr interleaved in
/// `output`: the exit status, or -1 when the shell did not exit.
int Shell(const std::string& script, std::string* output = nullptr,
          std::chrono::seconds timeout = std::chrono::seconds(300));
/// Shell that must succeed (a test failure naming the script otherwise): its output.
std::string ShellOk(const std::string& script);

/// A child whose output is read while it runs; killed if still running at destruction.
class Child {
public:
    Child(const std::string& program, const std::vector<std::string>& args);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    bool Started() const { return m_Pid > 0; }
    /// Reads output until it contains `text` or `timeout` passes.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout);
    /// Sends `sig` and waits (up to `timeout`) for the end, collecting the output.
    RunResult Stop(int sig, std::chrono::milliseconds timeout);
    /// Reads until both outputs close (SIGKILL after `timeout`), then reaps.
    RunResult Finish(std::chrono::milliseconds timeout);
    const std::string& Output() const { return m_Out; }

private:
    bool Pump(int waitMs);
    pid_t m_Pid = -1;
    int m_Fds[2] = {-1, -1};  // stdout, stderr
    std::string m_Out;
    std::string m_Err;
};

} // namespace testsupport

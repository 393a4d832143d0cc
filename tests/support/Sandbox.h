// A private mount namespace for the system tests: /run (lock and pid
// files), /var/log and chosen directories (through overlays whose writes go
// to a tmpfs) are the test's own, so that the daemon and the package's
// scripts use their real fixed paths without touching the machine's.  A
// holder process keeps the namespace; programs are started in it with
// setns, and its files are seen from outside through /proc/<holder>/root.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

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

} // namespace testsupport

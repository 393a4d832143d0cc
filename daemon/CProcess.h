// CProcess: stateless process utilities (run a command line as a child,
// wait for or kill a process, current directory, find a process by name,
// memory figures of a process from /proc).
#pragma once


#include <cstdint>
#include <string>

#include "common/UniqueHandle.h"

class CProcess {
public:
    /// Unit of a memory figure: the number of factors of 1024 a byte count
    /// is divided by.
    enum unit : unsigned { BYTES = 0, KILOBYTES = 1, MEGABYTES = 2, GIGABYTES = 3 };

    /// Runs `command` (split at white space, no quoting, no shell; the first
    /// word is looked up through PATH) as a child process.
    /// @param exitCode set to 0xFFFFFFFF first, then the child's exit status
    ///        when it exited normally (synchronous only).
    /// @param pid the child's id, 0xFFFFFFFF when fork failed.
    /// @param workDir when not null, the calling process changes into it
    ///        around the fork (affects every thread meanwhile) and back.
    /// @param flag has no effect.
    /// @param async true: do not wait, result true once the child exists.
    /// @param keepDescriptors false: the child closes descriptors 3 and up.
    /// @return synchronous: true exactly when the child exited with 0.
    ///         A program that cannot be executed exits with 255.
    static bool execute_command(const char* command, uint32_t& exitCode, uint32_t& pid, const char* workDir,
                                bool flag, bool async, bool keepDescriptors);

    /// Synchronous run, outputs discarded.
    static bool ExecuteCmd(const char* command, const char* workDir = nullptr, bool flag = false,
                           bool keepDescriptors = false);
    /// Synchronous run.
    static bool ExecuteCmd(const char* command, uint32_t& exitCode, uint32_t& pid, const char* workDir = nullptr,
                           bool flag = false, bool keepDescriptors = false);
    /// Asynchronous run, outputs discarded.
    static bool ExecuteCmdAsync(const char* command, const char* workDir = nullptr, bool flag = false,
                                bool keepDescriptors = false);
    /// Asynchronous run; the child must later be reaped with WaitForExit.
    static bool ExecuteCmdAsync(const char* command, uint32_t& pid, const char* workDir = nullptr, bool flag = false,
                                bool keepDescriptors = false);

    /// Waits (without limit; `timeout` is ignored) for a child to end.
    /// @return true only when it exited normally with status 0; `exitCode`
    ///         is the status whenever it exited normally, else 0xFFFFFFFF.
    static bool WaitForExit(uint32_t pid, uint32_t& exitCode, uint32_t timeout = 0xFFFFFFFFu);
    /// Sends SIGKILL (`exitCode` is ignored); true when kill succeeded.
    static bool TerminateProcess(uint32_t pid, uint32_t exitCode = 0);

    /// The current directory; false (and `dir` unchanged) when unavailable.
    static bool GetCurrentDir(std::string& dir);
    /// chdir; false for an empty path or when chdir fails.
    static bool SetCurrentDir(const char* path);

    /// Always sets 1 and returns 0.
    static int GetProcessHandleCount(uint32_t pid, uint32_t& count);

    /// Reads the first line of <proc root>/<pid>/status whose first word is
    /// `field` (with its colon, e.g. "VmRSS:"), converts its figure to bytes
    /// (kB, MB, GB units) and then divides by 1024 per `unitSteps` step.
    /// A missing file or field leaves `value` unchanged.
    static void GetProcessMemorySpecificInfo(uint32_t pid, uint64_t& value, const char* field, unsigned unitSteps);

    /// size = VmSize, peak = VmPeak, swap = VmSwap (bytes), fourth = 0,
    /// difference = VmSize - VmLib.  All are 0 first.
    /// @return true when peak and size are both non-zero.
    static bool GetProcessMemoryInfo(uint32_t pid, uint64_t& size, uint64_t& peak, uint64_t& swap, uint64_t& fourth,
                                     uint64_t& difference);

    /// The first process (in /proc directory order) whose "comm" equals
    /// `name` exactly.  No match or no /proc: pid = 0xFFFFFFFF, false.
    static bool FindProcess(uint32_t& pid, const char* name);
    /// The "comm" text of a process.
    static bool GetProcessName(std::string& name, uint32_t pid);
    /// Name and executable path; true when both could be read.
    static bool GetProcessInfo(uint32_t pid, std::string& name, std::string& path);
    /// The executable path: the target of <proc root>/<pid>/exe, or, when
    /// that link cannot be read, the first word of the command line.
    static bool GetProcessPath(std::string& path, uint32_t pid);
    /// The first line (without its newline) of <proc root>/<pid>/<file>;
    /// false when it cannot be opened.
    static bool get_proc_file(uint32_t pid, const char* file, std::string& text);

    /// The directory that stands for /proc in every read (tests point it at
    /// a fake tree).  Not thread-safe against concurrent reads; set it once.
    static void SetProcRoot(const char* root);
    static const std::string& GetProcRoot();
};


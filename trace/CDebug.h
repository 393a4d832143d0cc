// CDebug: the trace facility.  One global instance, `Debug`, is defined by
// each program (the daemon's main source file, a tool's, a test program's)
// and shared by all library code and by every module loaded into the
// program.  The library only declares it.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

/// The interface through which other modules reach the trace.  The order of
/// the virtual operations is part of the module boundary; do not reorder.
class CDebugTraceConfig {
public:
    virtual ~CDebugTraceConfig() = default;
    virtual bool IsMaster() const = 0;
    virtual bool Init(const char* programName) = 0;
    virtual void Print(unsigned int level, const char* format, ...) __attribute__((format(printf, 3, 4))) = 0;
    virtual void PrintAlways(const char* format, ...) __attribute__((format(printf, 2, 3))) = 0;
    virtual void PrintAlways(unsigned int level, const char* format, ...) __attribute__((format(printf, 3, 4))) = 0;
    virtual void PrintAlwaysV(const char* format, va_list args, const char* name) = 0;
    virtual void ClientPrintV(const char* format, va_list args, const char* name) = 0;
};

class CDebug : public CDebugTraceConfig {
public:
    /// Trace targets.
    enum : unsigned { TARGET_NONE = 0, TARGET_LOGFILE = 1, TARGET_RINGBUFFER = 2 };

    /// Tracing is off until Init.
    CDebug();
    /// As CDebug(), then Init(programName) when the name is not empty.
    explicit CDebug(const char* programName);
    ~CDebug() override;
    CDebug(const CDebug&) = delete;
    CDebug& operator=(const CDebug&) = delete;

    bool IsMaster() const override { return true; }
    /// Back to the state of a new object: outputs closed (descriptors and
    /// mappings released, not dropped), process id, arguments, target,
    /// trace flags, start-up flag, positions, counters, paths and buffers
    /// cleared, log maximum size 51200.  Level, configuration directory and
    /// syslog function stay.  Takes the trace lock.
    void ClassInit();
    /// Reads the configuration, opens the log file and, when tracing is
    /// enabled, creates the initial ring buffer.
    bool Init(const char* programName) override;

    void Print(unsigned int level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    void PrintV(unsigned int level, const char* format, va_list args);
    void PrintAlways(const char* format, ...) override __attribute__((format(printf, 2, 3)));
    void PrintAlways(unsigned int level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    void PrintAlwaysV(const char* format, va_list args, const char* name) override;
    void ClientPrintV(const char* format, va_list args, const char* name) override;

    /// Stores the argument vector (not copied) and writes the command line.
    void SetMainParams(int argc, char** argv);
    /// Ends the start-up phase (initial ring buffer → active ring buffer).
    void SetApplInitDone();
    /// true: restore the configured level; false: silence tracing.
    bool ForceMaxDebug(bool on);

    /// The trace configuration directory (default
    /// "/etc/norvane/TarvisSuite/TraceConfig").  Set it before Init.
    void SetConfigDirectory(const char* dir);

    /// Callers test this flag before they build a message and call Print.
    std::atomic<bool> m_bEnabled{false};

    bool IsEnabled() const { return m_bEnabled.load(std::memory_order_relaxed); }

    /// Formats the entry header (time with milliseconds, thread id, optional
    /// memory column, name in 13 columns) into `buffer`.  Takes the trace lock.
    /// @return what snprintf returns (the untruncated length).
    int SetEntryHeader(char* buffer, size_t size, const char* name);
    /// Writes the log header (command line, environment, configuration,
    /// internal values) entry by entry to `target` (1 log file, 2 ring
    /// buffer).  Takes the trace lock.
    void WriteLogHeader(unsigned target);
    /// Sets the trace target without any other action and without locking.
    void SetTarget(unsigned target);
    /// Writes one entry to `target` (0: the current target) without level
    /// test and without locking; callers hold the trace lock or own the object.
    void PrintIt(unsigned target, const char* format, ...) __attribute__((format(printf, 3, 4)));
    /// Reads the configuration files and the environment into the object
    /// (called by Init under the trace lock).  Always returns true.
    bool ReadDebugConfig(const char* programName);
    /// Creates (truncates) the ring buffer file `path`, pre-filled in whole
    /// 1024-byte lines up to at least `length` bytes, maps `length` bytes, makes it the target and
    /// writes the log header and the start markers into it.  Takes the trace
    /// lock.  @return false (ring closed, target unchanged) on failure, which
    /// is reported to the log file.
    bool InitRingBuffer(const char* path, uint64_t length);

    /// Appends "_" and `appName` in upper case to the string in `buffer`
    /// (never more than size - 1 characters); nothing for a null/empty name.
    static void BuildAppVarName(char* buffer, size_t size, const char* appName);
    /// Lower-cases in place; null is left alone.
    static void StringToLower(char* text);

    /// Where the trace's own syslog lines go (tests replace it); null
    /// restores syslog(3).
    using SysLogFunction = void (*)(int priority, const char* text);
    void SetSysLogFunction(SysLogFunction fn);

    // Read-only views of the state, mainly for tools and tests.
    unsigned GetLevel() const;
    unsigned GetSavedLevel() const;
    unsigned GetIniLevel() const;
    unsigned GetTraceFlags() const;
    unsigned GetTarget() const;
    uint64_t GetRingBufferSize() const;
    unsigned GetRingFactor() const;
    unsigned GetRingWeight() const;
    /// How many times the ring buffer wrapped; safe to ask from any thread.
    unsigned GetRingWrapCount() const;
    unsigned GetLogMaxSize() const;
    unsigned GetLogWrapCycle() const;
    unsigned GetNoHeaderFlag() const;
    int GetMemoryTracesFlag() const;
    uint64_t GetDynamicUpdateInterval() const;
    bool IsApplInitDone() const;
    const char* GetTraceDirectory() const;
    const char* GetLogFilePath() const;
    const char* GetActiveRingPath() const;
    const char* GetInitialRingPath() const;
    const char* GetProgramName() const;

private:
    struct Impl;
    Impl* m_Impl;
};

/// The program's trace object.  Exactly one translation unit of every
/// program defines it: `CDebug Debug;` (the daemon defines it first among its
/// static objects; see daemon/kopd).  Modules loaded into a program use the
/// program's instance.
extern CDebug Debug;

/// Traces at `level` when tracing is enabled; the arguments are evaluated only then.
#define DBG_PRINT(level, ...)                                                                     \
    do {                                                                                          \
        if (Debug.m_bEnabled.load(std::memory_order_relaxed))                                     \
            Debug.Print((level), __VA_ARGS__);                                                    \
    } while (0)

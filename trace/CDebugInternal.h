// The inside of the trace facility: the state behind `CDebug` and the
// outputs it writes to.  CDebug.cpp is the front (lock, public surface);
// each output and the configuration live in a file of their own:
//   CDebugEntry.cpp       the entry formatter, the level filter and the ring
//                         entry formatted before the lock is taken
//   CDebugLogFile.cpp     the log file with its wrap
//   CDebugRingBuffer.cpp  the memory-mapped ring buffer and its recovery
//                         from a ring file cut under the running program
//   CDebugSysLog.cpp      the trace's own syslog lines
//   CDebugLogHeader.cpp   the log header
//   CDebugSettings.cpp    the configuration (environment, files, defaults)
//   CDebugInit.cpp        start-up: configuration, log file, initial ring
#pragma once

#include "common/UniqueHandle.h"
#include "trace/CDebug.h"
#include "trace/CDebugEntryHeaderInternal.h"
#include "trace/CDebugTraceConfigFile.h"
#include "common/ProcStatus.h"

#include <atomic>
#include <cxxabi.h>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

namespace tracedetail {

// ---- Fixed names and sizes of the trace facility ---------------------------
constexpr const char* kDefaultConfigDirectory = "/etc/norvane/TarvisSuite/TraceConfig";
constexpr const char* kDefaultTraceDirectory = "/var/log/tarvd";
constexpr const char* kGlobalConfigFile = "global_trace.ini";
constexpr const char* kGlobalSection = "GlobalDebugSettings";
constexpr const char* kIniFilter = ".ini";
constexpr const char* kEndMarker = "## TRACE-END ##\n";
constexpr uint64_t kEndMarkerLength = 16;
constexpr unsigned kDefaultLogMaxSize = 51200;
constexpr size_t kPathSize = 256;
constexpr unsigned kMaxRingFactor = 2;
constexpr uint64_t kRingLine = 1024;
// Entry buffer: a header area, the message (at most 1024 characters plus
// NUL) and room for the longest cut notice plus newline and NUL.
constexpr size_t kHeaderArea = 128;
constexpr size_t kMessageSize = 1025;
constexpr size_t kEntrySlack = 64;
constexpr size_t kEntryBufferSize = kHeaderArea + kMessageSize + kEntrySlack;
constexpr size_t kOversizeExtra = 145;
constexpr const char* kNoMemoryText = "\n## ERROR: No memory: Output Truncated!\n";
constexpr const char* kTooBigText = "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n";
constexpr const char* kMemoryField = "VmRSS:";
// A value of the configuration files that was not given.
constexpr uint32_t kUnset = 0xFFFFFFFFu;

/// Leading newlines are dropped, unless the format is nothing else.
const char* SkipLeadingNewlines(const char* format);
/// snprintf's result clipped to what stands in a buffer of `size` bytes.
int ClipHeaderLength(int n, size_t size);
/// A number no earlier call in this process returned (never 0).
uint64_t NextNameGeneration();
/// Appends a newline unless the entry already ends in one; `buffer` has room.
size_t EndWithNewline(char* buffer, size_t len);
/// Paths longer than the fixed buffers are cut (and then simply not found).
bool FormatPath(char (&dst)[kPathSize], const char* fmt, ...) __attribute__((format(printf, 2, 3)));
/// Copies `src` (null: empty) into a path buffer, cut to fit.
void CopyPath(char (&dst)[kPathSize], const char* src);

/// Where the trace's own error lines go: syslog(3) or a test's function.
class CDebugSysLog {
public:
    void SetFunction(CDebug::SysLogFunction fn);
    void Write(int priority, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

private:
    CDebug::SysLogFunction m_Function = nullptr;
};

/// The log file: entries are appended until the file passes its maximum
/// size; then writing goes on at the wrap offset (the end of the start-up
/// part, or the file's start) behind a "------ WRAP -----" line.
class CDebugLogFile {
public:
    /// Opens (truncates) `path`; a symbolic link planted there is refused.
    bool Open(const char* path);
    void Close() { m_File.Reset(); }
    bool IsOpen() const { return m_File.Valid(); }
    /// Writes `len` bytes of `entry` (a buffer of kEntryBufferSize bytes
    /// whose first `headerLength` bytes are the entry header), then wraps
    /// when the file has passed its size; the wrap line reuses the header.
    void Write(char* entry, size_t len, size_t headerLength, CDebugSysLog& sysLog);
    /// The end of the start-up part: kept at every wrap from now on.
    void MarkInitEnd();

    char path[kPathSize] = {};
    unsigned maxSize = kDefaultLogMaxSize;

    unsigned WrapCycle() const { return m_WrapCycle; }

private:
    UniqueFile m_File;
    long m_WrapOffset = 0;
    unsigned m_InitEnd = 0;
    unsigned m_ByteCount = 0;
    unsigned m_WrapCycle = 0;
};

/// The memory-mapped ring buffer.  An entry that does not fit before the
/// end fills the rest with '.', and writing starts again at the start: the
/// log header is written anew there (through the wrap function) and the
/// entries go on behind the start-up part.
class CDebugRingBuffer {
public:
    /// Called at a wrap to write the log header from the ring's start.
    using WrapFunction = void (*)(void* context);
    CDebugRingBuffer(const char* sharedEntry, WrapFunction onWrap, void* context)
        : m_SharedEntry(sharedEntry), m_OnWrap(onWrap), m_Context(context) {}

    enum class CreateResult { Ok, OpenFailed, WriteFailed, MapFailed };
    /// Creates (truncates) `path` of `length` bytes filled with copies of
    /// `fillLine` (kRingLine bytes) and maps it.  `error` gets the errno of
    /// a failed open or mmap.
    CreateResult Create(const char* path, uint64_t length, const char* fillLine, int& error);
    void Close();
    bool IsOpen() const { return m_Map.Valid(); }
    /// Writes one entry (ending in a newline) and the end marker behind it.
    void Write(char* data, size_t len);
    /// Starts writing at `pos` (after the header and its pre-fill line).
    void SetPosition(uint64_t pos) { m_Pos = pos; }
    uint64_t Position() const { return m_Pos; }
    /// Where writing resumes after a wrap: behind the start-up part.
    void MarkInitEnd() { m_InitEndPos = m_Pos; }
    int Fd() const { return m_Fd.Get(); }
    unsigned WrapCount() const { return m_Wraps; }

    /// The size of the ring: the mapped length, or, while none is mapped,
    /// the size the configuration asks for.
    uint64_t size = 0;
    /// Set while the log header is written into the ring (at creation and
    /// at a wrap): an entry that does not fit then is dropped instead of
    /// wrapping again.
    bool inHeader = false;

private:
    struct PendingWrite;
    void WriteGuarded(PendingWrite& pending);

    const char* m_SharedEntry;
    WrapFunction m_OnWrap;
    void* m_Context;
    UniqueFd m_Fd;
    UniqueMapping m_Map;
    char* m_Base = nullptr;
    uint64_t m_Pos = 0;
    uint64_t m_InitEndPos = 0;
    // Read by other threads (the agent's own health figures) while the
    // writer counts under the trace lock.
    std::atomic<unsigned> m_Wraps{0};
    char m_WrapCopy[kEntryBufferSize] = {};
};

/// The configuration: what the files said (kUnset where they said nothing)
/// and the values in effect after the environment -> file -> default
/// cascade.  The cascade is one table, in CDebugSettings.cpp.
struct CDebugSettings {
    // In effect.
    uint64_t level = 0;
    uint64_t ringFactor = 0;
    uint64_t ringWeight = 0;
    uint64_t noHeader = 1;
    uint64_t logMaxSize = kDefaultLogMaxSize;
    uint64_t dynamicInterval = 0;
    unsigned savedLevel = 0;
    char traceDir[kPathSize] = {};
    // From the files.
    uint32_t iniLevel = kUnset;
    uint32_t iniRingFactor = kUnset;
    uint32_t iniRingWeight = kUnset;
    uint32_t iniNoHeader = kUnset;
    uint32_t iniDynamicUpdate = 0;
    uint32_t traceFlags = 0;
    uint32_t memoryTraces = kUnset;
    char iniRingDir[kPathSize] = {};

    CDebugTraceConfigFile globalFile;
    CDebugTraceConfigFile programFile;
    std::string configDirectory = kDefaultConfigDirectory;

    /// Reads the files of the configuration directory and the environment
    /// (an existing directory without .ini files changes nothing).
    void Read(const char* programName);
    /// Re-reads the files that changed since they were read (the settings
    /// that may change while the program runs).
    void RereadChangedFiles(const char* programName);

private:
    void ReadFiles(const char* programName);
    void ApplyCascade();
};

} // namespace tracedetail

struct CDebug::Impl {
    explicit Impl(CDebug& owner);

    CDebug& self;
    std::string programName;
    tracedetail::CDebugSettings settings;
    time_t lastCheck = 0;

    // The lock and its owner on one cache line: a thread taking the lock
    // from another fetches a single line.
    alignas(64) pthread_mutex_t mutex;
    // Read without the mutex by every thread that enters (to detect its own
    // re-entry), hence atomic.  Only the owning thread ever stores its own
    // id, so a thread sees itself as owner exactly when it holds the mutex.
    std::atomic<pthread_t> owner{};
    std::atomic<bool> owned{false};
    unsigned recursion = 0;
    bool mutexUsable = false;
    // What a thread needs to format a ring entry before it takes the lock,
    // published whenever the lock is given back (the settings change only
    // under it).  A stale view costs nothing: the entry is checked against
    // the settings again under the lock, and formatted anew when they moved.
    // On a cache line of their own: every entry reads them, while the lock's
    // fields above are written by every entry, and sharing a line would make
    // each tracing thread wait for the line the other one just wrote.
    alignas(64) std::atomic<bool> unlockedRing{false};
    std::atomic<uint64_t> unlockedLevel{0};
    std::atomic<bool> unlockedMemory{false};
    // Which program name the unlocked path formats with: a number unique in
    // the process for this object and its current name, renewed (under the
    // lock) whenever the name changes.  A thread copies the name under the
    // lock once per number, so it never reads the string while Init changes
    // it, and an entry formatted with an old name is formatted anew.
    std::atomic<uint64_t> nameGeneration;
    alignas(64) char endOfReadMostly = 0;  // what follows is written while tracing

    int pid = 0;
    int argc = 0;
    char** argv = nullptr;
    char startTime[26] = {};
    unsigned target = TARGET_NONE;
    bool applInitDone = false;
    char entry[tracedetail::kEntryBufferSize] = {};
    char activeRingPath[tracedetail::kPathSize] = {};
    // The environment and agent configuration rows of the log header, as
    // they were at Init.
    std::vector<std::pair<bool, std::string>> environment;
    std::vector<std::pair<bool, std::string>> configuration;
    char initialRingPath[tracedetail::kPathSize] = {};

    // Length of the header of the entry formatted last.
    size_t lastHeaderLength = 0;
    // Per-entry helpers of SetEntryHeader (used under the lock).
    traceheader::CTimeTextCache timeCache;
    CResidentSizeReader residentSize;
    tracedetail::CDebugSysLog sysLog;
    tracedetail::CDebugLogFile logFile;
    tracedetail::CDebugRingBuffer ring;

    void Enter();
    void Leave();
    bool HeldByThisThread() const;
    void Publish();
    static void CleanupHandlerForTraceMutex(void* arg);

    int SetEntryHeader(char* buffer, size_t size, const char* name);
    void PrintFiltered(unsigned level, const char* format, va_list args);
    bool PrintToRingUnlocked(unsigned level, const char* format, va_list args);
    void CopyProgramName(std::string& name, uint64_t& generation);
    bool WriteUnlockedEntry(unsigned level, bool memory, uint64_t generation, char* data, size_t len);
    size_t FormatEntry(char* buffer, const char* format, va_list args, const char* name, int* fullLength);
    void TraceToLogFile(const char* format, va_list args, const char* name);
    void TraceToRingBuffer(const char* format, va_list args, const char* name);
    size_t KeepOversizeEntry(const char* format, va_list args, int full, char*& data, char*& big);
    void PrintItV(unsigned tgt, const char* format, va_list args, const char* name);
    void PrintIt(unsigned tgt, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void PrintToLogFile(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void WriteLogHeader(unsigned tgt);
    void WriteLogHeaderTables(unsigned tgt);
    void WriteLogHeaderValues(unsigned tgt);
    void TakeEnvironmentSnapshot();
    bool InitRingBuffer(const char* path, uint64_t length);
    bool PlaceRingStart(const char* path, uint64_t length);
    void CloseRingBuffer();
    void CloseAll();
    void ClassInit();
    bool ReadDebugConfig(const char* name);
    bool Init(const char* name);
    void OpenLogFile(const char* lowerName);
    bool StartRing(const char* lowerName);
    void SwitchToActiveRing();
    void DynamicUpdate();
    void SwitchOff();
};

// The lock scope of every public entry point.  The clean-up handler is
// pushed for the whole scope, so that a thread cancelled inside an output
// (write and fflush are cancellation points) does not leave the lock held.
#define TRACE_LOCKED_BEGIN(impl)                                                                                       \
    {                                                                                                                  \
        Impl* lockedImpl__ = (impl);                                                                                   \
        lockedImpl__->Enter();                                                                                         \
        pthread_cleanup_push(&Impl::CleanupHandlerForTraceMutex, lockedImpl__);                                        \
        try {
#define TRACE_LOCKED_END()                                                                                             \
        } catch (abi::__forced_unwind&) {                                                                              \
            throw;                                                                                                     \
        } catch (...) {                                                                                                \
        }                                                                                                              \
        pthread_cleanup_pop(0);                                                                                        \
        lockedImpl__->Leave();                                                                                         \
    }

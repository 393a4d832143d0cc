// The trace facility: entry formatting, the log file, the memory-mapped
// ring-buffer files, the log header and the configuration from INI files and
// the environment.
#include "trace/CDebug.h"

#include "common/UniqueHandle.h"
#include "common/ProcStatus.h"
#include "trace/CDebugEntryHeaderInternal.h"
#include "trace/CDebugTraceConfigFile.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <algorithm>
#include <atomic>
#include <memory>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <csetjmp>
#include <csignal>
#include <ucontext.h>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {

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

// Rows of the log header's environment table.
constexpr const char* kEnvironmentNames[] = {
    "LD_LIBRARY_PATH", "TR_SYSTEM", "TR_OS", "TR_OS_MAJOR", "TR_OS_MINOR", "TR_VVOS", "TR_RELEASE", "TR_VENDOR",
    "TR_HOSTNAME", "TR_HOSTOSREVMAJOR", "TR_HOSTOSREVMINOR", "TR_SYSNAME", "TR_VERSION", "TR_NICKNAME",
    "TR_HWPLATFORM", "TR_RUNNINGONVM", "TR_RUNNINGONPAN", "TR_VMREL", "TR_ARCH", "TR_REPO", "TR_RAID_EXISTS",
    "TR_RAID_READY", "TR_RAID_VERSION", "TR_INSTALL_DATE", "TR_USE_SG_IO_HDR_T", "TR_AGENT_X_SOCKET",
    "TR_KOPD_REPLY_TIME", "TR_DAEMON_COREFILE_LIMIT", "TR_VME_WAIT_TIME_FOR_VMSERVER", "TR_SCS_PROVIDER_TRACE",
    "TR_SCS_NOSIGNAL", "TR_LOG_DYNAMIC_UPDATE", "TR_SCS_DEBUG_LEVEL", "TR_LOG_FILE_DIR", "TR_LOG_FILE_MAX_SIZE",
    "TR_LOG_RINGBUF_DIR", "TR_LOG_DEBUG_LEVEL", "TR_LOG_RINGBUF_WEIGHT", "TR_LOG_NOHDR_TOSDTERR", "XSA_TR_HOME",
    "XSA_SYSLOG_FIFO"};
// Rows of the log header's configuration table (agent configuration keys).
constexpr const char* kConfigurationNames[] = {
    "AgentPermission", "AgentShut", "ShutdownDelay", "UserGroup", "ScanTapeDevices", "TraceFileLimit",
    "NoAccountCheck", "InventoryRescan", "CDPollInterval", "AgentsToBeStarted", "WaitForKopdSockets",
    "WaitForKopdTerm", "InvAgtPollNetUtilization"};
constexpr size_t kEnvironmentRows = sizeof(kEnvironmentNames) / sizeof(kEnvironmentNames[0]);
constexpr size_t kConfigurationRows = sizeof(kConfigurationNames) / sizeof(kConfigurationNames[0]);
static_assert(kEnvironmentRows == 41 && kConfigurationRows == 13);

struct EnvRow {
    bool set = false;
    std::string value;
};

void DefaultSysLog(int priority, const char* text) { syslog(priority, "%s", text); }

// Leading newlines are dropped, unless the format is nothing else.
const char* SkipLeadingNewlines(const char* format)
{
    const char* p = format;
    while (*p == '\n')
        ++p;
    return *p ? p : format;
}

// Paths longer than the fixed buffers are cut (and then simply not found).
bool FormatPath(char (&dst)[kPathSize], const char* fmt, ...) __attribute__((format(printf, 2, 3)));
bool FormatPath(char (&dst)[kPathSize], const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(dst, sizeof(dst), fmt, ap);
    va_end(ap);
    return n >= 0 && static_cast<size_t>(n) < sizeof(dst);
}

void CopyPath(char (&dst)[kPathSize], const char* src)
{
    snprintf(dst, sizeof(dst), "%s", src ? src : "");
}

// fopen "w+", except that a symbolic link planted at the path (the trace
// directory may be writable by others) is refused instead of followed.
FILE* OpenLogFile(const char* path)
{
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd)
        return nullptr;
    FILE* f = fdopen(fd.Get(), "w+");
    if (f)
        fd.Release();
    return f;
}

int ClipHeaderLength(int n, size_t size)
{
    if (n < 0)
        return 0;
    if (size == 0)
        return 0;
    if (static_cast<size_t>(n) >= size)
        return static_cast<int>(size - 1);
    return n;
}

} // namespace

struct CDebug::Impl {
    explicit Impl(CDebug& owner) : self(owner) {}

    CDebug& self;

    unsigned level = 0;
    unsigned savedLevel = 0;
    unsigned iniLevel = 0xFFFFFFFFu;
    unsigned traceFlags = 0;
    std::string programName;
    CDebugTraceConfigFile globalFile;
    CDebugTraceConfigFile programFile;
    uint64_t dynamicInterval = 0;
    time_t lastCheck = 0;

    pthread_mutex_t mutex;
    // Read without the mutex by every thread that enters (to detect its own
    // re-entry), hence atomic.  Only the owning thread ever stores its own
    // id, so a thread sees itself as owner exactly when it holds the mutex.
    std::atomic<pthread_t> owner{};
    std::atomic<bool> owned{false};
    unsigned recursion = 0;
    bool mutexUsable = false;

    int pid = 0;
    int argc = 0;
    char** argv = nullptr;
    char startTime[26] = {};
    unsigned target = TARGET_NONE;
    bool applInitDone = false;
    int ringFd = -1;
    unsigned ringFactor = 0;
    unsigned ringWeight = 0;
    uint64_t ringSize = 0;
    uint64_t ringPos = 0;
    uint64_t initEndPos = 0;
    char entry[kEntryBufferSize] = {};
    char wrapCopy[kEntryBufferSize] = {};
    char* ringMap = nullptr;
    unsigned ringWraps = 0;
    char activeRingPath[kPathSize] = {};
    char initialRingPath[kPathSize] = {};
    unsigned noHeader = 1;
    int iniRingFactor = -1;
    int iniRingWeight = -1;
    char iniRingDir[kPathSize] = {};
    int iniNoHeader = -1;
    unsigned iniDynamicUpdate = 0;
    int memoryTraces = -1;
    char traceDir[kPathSize] = {};
    char logPath[kPathSize] = {};
    FILE* logFile = nullptr;
    long logWrapOffset = 0;
    unsigned logMaxSize = kDefaultLogMaxSize;
    unsigned logInitEnd = 0;
    unsigned logByteCount = 0;
    unsigned logWrapCycle = 0;

    // Set while the log header is written into the ring (at creation and at
    // a wrap): an entry that does not fit then is dropped instead of
    // wrapping again.
    bool inRingHeader = false;
    // Length of the header of the entry formatted last.
    size_t lastHeaderLength = 0;
    // Per-entry helpers of SetEntryHeader (used under the lock).
    traceheader::CTimeTextCache timeCache;
    CResidentSizeReader residentSize;
    std::string configDirectory = kDefaultConfigDirectory;
    SysLogFunction sysLog = DefaultSysLog;
    EnvRow environment[kEnvironmentRows];
    EnvRow configuration[kConfigurationRows];

    // ---- The hand-made re-entrant lock -------------------------------------
    void Enter()
    {
        if (!mutexUsable)
            return;
        pthread_t me = pthread_self();
        if (!(owned.load(std::memory_order_relaxed) && pthread_equal(owner.load(std::memory_order_relaxed), me))) {
            pthread_mutex_lock(&mutex);
            owner.store(me, std::memory_order_relaxed);
            owned.store(true, std::memory_order_relaxed);
        }
        ++recursion;
    }
    void Leave()
    {
        if (!mutexUsable || !owned.load(std::memory_order_relaxed) ||
            !pthread_equal(owner.load(std::memory_order_relaxed), pthread_self()))
            return;
        if (recursion > 0 && --recursion == 0) {
            owned.store(false, std::memory_order_relaxed);
            owner.store(pthread_t{}, std::memory_order_relaxed);
            pthread_mutex_unlock(&mutex);
        }
    }
    // A thread cancelled inside an output leaves the lock free.
    static void CleanupHandlerForTraceMutex(void* arg)
    {
        Impl* impl = static_cast<Impl*>(arg);
        if (!impl->mutexUsable || !impl->owned.load(std::memory_order_relaxed) ||
            !pthread_equal(impl->owner.load(std::memory_order_relaxed), pthread_self()))
            return;
        impl->recursion = 0;
        impl->owned.store(false, std::memory_order_relaxed);
        impl->owner.store(pthread_t{}, std::memory_order_relaxed);
        pthread_mutex_unlock(&impl->mutex);
    }

    void SysLog(int priority, const char* fmt, ...) __attribute__((format(printf, 3, 4)))
    {
        char text[1024];
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(text, sizeof(text), fmt, ap);
        va_end(ap);
        (sysLog ? sysLog : DefaultSysLog)(priority, text);
    }

    int SetEntryHeader(char* buffer, size_t size, const char* name);
    size_t FormatEntry(char* buffer, const char* format, va_list args, const char* name, int* fullLength);
    void TraceToLogFile(const char* format, va_list args, const char* name);
    void TraceToRingBuffer(const char* format, va_list args, const char* name);
    void WriteRing(char* data, size_t len);
    struct RingWrite;
    void WriteRingGuarded(RingWrite& pending);
    void PrintItV(unsigned tgt, const char* format, va_list args, const char* name);
    void PrintIt(unsigned tgt, const char* format, ...) __attribute__((format(printf, 3, 4)))
    {
        va_list ap;
        va_start(ap, format);
        PrintItV(tgt, format, ap, nullptr);
        va_end(ap);
    }
    void PrintToLogFile(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list ap;
        va_start(ap, format);
        TraceToLogFile(format, ap, nullptr);
        va_end(ap);
    }
    void WriteLogHeader(unsigned tgt);
    bool InitRingBuffer(const char* path, uint64_t length);
    void CloseRingBuffer();
    void CloseAll();
    bool ReadDebugConfig(const char* name);
    bool Init(const char* name);
    void DynamicUpdate();
    void SwitchOff()
    {
        self.m_bEnabled = false;
        target = TARGET_NONE;
        level = 0;
        savedLevel = 0;
    }
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

// ---- Entry formatting ---------------------------------------------------------

int CDebug::Impl::SetEntryHeader(char* buffer, size_t size, const char* name)
{
    // Every entry pays for this: the time text is cached per second, and the
    // resident size comes from a kept-open statm, read once per millisecond
    // of time stamps (a /proc read costs about as much as writing a whole
    // entry; entries printed with the same millisecond share the figure).
    char timeText[traceheader::kTimeTextSize];
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    timeCache.Format(tv, timeText);

    const char* column = name ? name : programName.c_str();
    const unsigned thread = static_cast<unsigned>(static_cast<uint32_t>(pthread_self()));
    if (memoryTraces == 0)
        return traceheader::FormatEntryHeader(buffer, size, timeText, thread, false, 0, column);
    uint64_t kb = 0;
    const int64_t millisecond = static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
    if (!residentSize.ReadKilobytes(kb, millisecond))
        tarvd::ReadProcStatusField(static_cast<uint32_t>(getpid()), kMemoryField, 1 /* kilobytes */, kb);
    return traceheader::FormatEntryHeader(buffer, size, timeText, thread, true, kb, column);
}

// Header and message into `buffer` (of kEntryBufferSize bytes).  Returns the
// entry length (header + message, at most 1024 message characters);
// `headerLength` receives the header's length and `fullLength` what
// vsnprintf needed for the whole message.
size_t CDebug::Impl::FormatEntry(char* buffer, const char* format, va_list args, const char* name, int* fullLength)
{
    int h = ClipHeaderLength(SetEntryHeader(buffer, kHeaderArea, name), kHeaderArea);
    lastHeaderLength = static_cast<size_t>(h);
    buffer[h] = '\0';
    int n = vsnprintf(buffer + h, kMessageSize, SkipLeadingNewlines(format), args);
    if (n < 0) {
        buffer[h] = '\0';
        n = 0;
    }
    *fullLength = n;
    size_t msg = static_cast<size_t>(n) < kMessageSize ? static_cast<size_t>(n) : kMessageSize - 1;
    return static_cast<size_t>(h) + msg;
}

namespace {
// Appends a newline unless the entry already ends in one; `buffer` has room.
size_t EndWithNewline(char* buffer, size_t len)
{
    if (len == 0 || buffer[len - 1] != '\n')
        buffer[len++] = '\n';
    buffer[len] = '\0';
    return len;
}
} // namespace

// ---- Log file -----------------------------------------------------------------

void CDebug::Impl::TraceToLogFile(const char* format, va_list args, const char* name)
{
    if (!logFile || !format)
        return;
    int full = 0;
    size_t len = EndWithNewline(entry, FormatEntry(entry, format, args, name, &full));
    size_t written = fwrite(entry, 1, len, logFile);
    fflush(logFile);
    logByteCount += static_cast<unsigned>(written);
    if (logByteCount <= logMaxSize)
        return;

    // Wrap: the text before the wrap offset (header and start-up phase) is
    // kept; older text behind the write position stays until overwritten.
    if (fseek(logFile, logWrapOffset, SEEK_SET) != 0) {
        SysLog(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", logPath, errno);
        rewind(logFile);
    }
    ++logWrapCycle;
    logByteCount = logInitEnd;
    // The header of the entry just written is still in the buffer.
    size_t h = lastHeaderLength;
    int n = snprintf(entry + h, kMessageSize, "------ WRAP ----- Cycle=%d, CntInitEnd=%u, CurrentByteCnt=%u (MaxCnt=%u)\n",
                     static_cast<int>(logWrapCycle), logInitEnd, logByteCount, logMaxSize);
    size_t wrapLen = h + (n > 0 ? std::min(static_cast<size_t>(n), kMessageSize - 1) : 0);
    written = fwrite(entry, 1, wrapLen, logFile);
    fflush(logFile);
    logByteCount += static_cast<unsigned>(written);
}

// ---- Ring buffer -----------------------------------------------------------------

void CDebug::Impl::TraceToRingBuffer(const char* format, va_list args, const char* name)
{
    if (!format || !ringMap)
        return;
    va_list again;
    va_copy(again, args);
    int full = 0;
    size_t len = FormatEntry(entry, format, args, name, &full);
    size_t h = lastHeaderLength;
    char* data = entry;
    std::unique_ptr<char[]> big;
    if (static_cast<size_t>(full) >= kMessageSize) {
        // A message longer than 1024 characters is kept whole when the ring
        // can afford it (a tenth of its size); otherwise it is cut with a
        // notice, so that one huge dump cannot flush the whole history.
        const char* notice = nullptr;
        if (static_cast<uint64_t>(full) <= ringSize / 10) {
            big.reset(new (std::nothrow) char[static_cast<size_t>(full) + kOversizeExtra]);
            if (big) {
                memcpy(big.get(), entry, h);
                int n = vsnprintf(big.get() + h, static_cast<size_t>(full) + 1, SkipLeadingNewlines(format), again);
                len = h + (n > 0 ? std::min(static_cast<size_t>(n), static_cast<size_t>(full)) : 0);
                data = big.get();
            } else {
                notice = kNoMemoryText;
            }
        } else {
            notice = kTooBigText;
        }
        if (notice) {
            size_t at = h + 1024;
            size_t nl = strlen(notice);
            memcpy(entry + at, notice, nl + 1);
            len = at + nl;
        }
    }
    va_end(again);
    len = EndWithNewline(data, len);
    WriteRing(data, len);
}

// ---- Ring writes that survive a truncated ring file ---------------------------
//
// Someone may truncate the ring file under the running program (an operator
// "emptying" the log, a disk clean-up).  Touching a mapped page past the new
// end of the file raises SIGBUS, which would kill the process.  Checking the
// file size before every entry costs a system call per entry, so instead the
// writes into the mapping run under a recovery point: a process-wide SIGBUS
// handler jumps back to it when the fault hit the ring mapping of the thread
// that is writing.  The writer then grows the file back to the mapped length
// (the lost part reads as zeros) and retries the entry once.  Faults anywhere
// else go to the handler that was installed before ours.
namespace {

// The recovery point of the thread writing into a ring mapping.  Set around
// the writes only; nested writes (the log header written at a wrap) save and
// restore the outer one.  Initial-exec TLS: the library is loaded with the
// program, and the access must be cheap and must not allocate in the handler.
struct RingRecovery {
    sigjmp_buf* jump;
    const char* begin;
    const char* end;
};
thread_local RingRecovery t_ringRecovery __attribute__((tls_model("initial-exec"))) = {nullptr, nullptr, nullptr};

// The signal mask of the thread when its ring write faulted, as the kernel
// saved it for the return from the handler.  The jump back does not restore
// masks (that would cost a system call per entry), and a runtime that runs
// handlers with every signal blocked (as the thread sanitizer does) would
// otherwise leave them all blocked; the writer restores this one instead.
thread_local sigset_t t_ringFaultMask __attribute__((tls_model("initial-exec")));
thread_local bool t_ringFaultMaskSaved __attribute__((tls_model("initial-exec"))) = false;

struct sigaction g_previousBusAction;

void RingBusHandler(int sig, siginfo_t* info, void* context)
{
    const RingRecovery& r = t_ringRecovery;
    const char* addr = info ? static_cast<const char*>(info->si_addr) : nullptr;
    if (r.jump && addr >= r.begin && addr < r.end) {
        t_ringFaultMaskSaved = context != nullptr;
        if (context)
            t_ringFaultMask = static_cast<const ucontext_t*>(context)->uc_sigmask;
        siglongjmp(*r.jump, 1);
    }

    // Not ours: behave as if this handler had never been installed.
    const struct sigaction& prev = g_previousBusAction;
    if (prev.sa_flags & SA_SIGINFO) {
        if (prev.sa_sigaction) {
            prev.sa_sigaction(sig, info, context);
            return;
        }
    } else if (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN) {
        prev.sa_handler(sig);
        return;
    }
    // Default (a fault cannot be ignored): restore it and return, so that the
    // faulting instruction runs again and the fault takes its normal course.
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGBUS, &dfl, nullptr);
    if (info && info->si_code <= 0)
        raise(sig); // sent, not a fault: nothing would raise it again
}

// Installs the handler once per process.  SA_NODEFER keeps SIGBUS unblocked
// inside the handler, so that the jump back (which does not restore the
// signal mask, to keep the recovery point cheap) leaves the mask as it was.
void InstallRingBusHandler()
{
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction sa {};
        sa.sa_sigaction = RingBusHandler;
        sa.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGBUS, &sa, &g_previousBusAction);
    });
}

} // namespace

// The entry being written.  Kept out of registers across the recovery point
// (volatile): the writer may switch to the wrap copy and cut the entry before
// a fault, and the retry must pick that up.
struct CDebug::Impl::RingWrite {
    char* volatile data;
    volatile size_t len;
};

void CDebug::Impl::WriteRing(char* data, size_t len)
{
    if (!ringMap || ringSize < kEndMarkerLength)
        return;
    RingWrite pending{data, len};
    const RingRecovery outer = t_ringRecovery;
    // Written before the recovery point and only read after it.
    const int fd = ringFd;
    const uint64_t size = ringSize;
    for (int attempt = 0; attempt < 2; ++attempt) {
        sigjmp_buf jump;
        if (sigsetjmp(jump, 0) == 0) {
            t_ringRecovery = {&jump, ringMap, ringMap + ringSize};
            std::atomic_signal_fence(std::memory_order_seq_cst);
            WriteRingGuarded(pending);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            t_ringRecovery = outer;
            return;
        }
        // The ring file was cut under us.  Nothing is traced into the ring
        // here; the file is grown back and the entry written once more.
        t_ringRecovery = outer;
        if (t_ringFaultMaskSaved) {
            t_ringFaultMaskSaved = false;
            pthread_sigmask(SIG_SETMASK, &t_ringFaultMask, nullptr);
        }
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0)
            return; // dropped
    }
}

// The writes into the mapping; run under WriteRing's recovery point.
__attribute__((noinline)) void CDebug::Impl::WriteRingGuarded(RingWrite& pending)
{
    char* data = pending.data;
    size_t len = pending.len;
    if (ringPos + len + kEndMarkerLength > ringSize) {
        if (inRingHeader)
            return; // the header itself does not fit: never wrap inside a wrap
        memset(ringMap + ringPos, '.', static_cast<size_t>(ringSize - ringPos));
        // Writing the header below reuses the entry buffer.
        if (data == entry) {
            memcpy(wrapCopy, entry, len + 1);
            data = wrapCopy;
            pending.data = data;
        }
        ++ringWraps;
        ringPos = 0;
        inRingHeader = true;
        WriteLogHeader(TARGET_RINGBUFFER);
        inRingHeader = false;
        ringPos = initEndPos;
        if (ringPos + kEndMarkerLength > ringSize)
            return;
        // An entry larger than the space behind the start-up part is cut to it.
        if (ringPos + len + kEndMarkerLength > ringSize) {
            len = static_cast<size_t>(ringSize - kEndMarkerLength - ringPos);
            if (len > 0)
                data[len - 1] = '\n';
            pending.len = len;
        }
    }
    // The position moves only once both copies are in: a retry after a fault
    // rewrites the entry in the same place.  The marker is overwritten by the
    // next entry.
    const uint64_t at = ringPos;
    memcpy(ringMap + at, data, len);
    memcpy(ringMap + at + len, kEndMarker, kEndMarkerLength);
    ringPos = at + len;
}

void CDebug::Impl::PrintItV(unsigned tgt, const char* format, va_list args, const char* name)
{
    if (tgt == TARGET_NONE)
        tgt = target;
    if (tgt == TARGET_RINGBUFFER)
        TraceToRingBuffer(format, args, name);
    else if (tgt == TARGET_LOGFILE)
        TraceToLogFile(format, args, name);
}

bool CDebug::Impl::InitRingBuffer(const char* path, uint64_t length)
{
    length -= length % kRingLine;
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0700));
    if (!fd) {
        int err = errno;
        PrintToLogFile("\n### InitRingBuffer(): open of %s failed (errno=%d; %s) ###", path, err, strerror(err));
        return false;
    }
    // Pre-fill with lines of underscores, each with an entry header, so that
    // a reader sees the untouched part of a fresh ring as such.
    char line[kRingLine];
    int h = ClipHeaderLength(SetEntryHeader(line, kHeaderArea, nullptr), kHeaderArea);
    memset(line + h, '_', kRingLine - 1 - static_cast<size_t>(h));
    line[kRingLine - 1] = '\n';
    for (uint64_t done = 0; done < length; done += kRingLine) {
        ssize_t w = write(fd.Get(), line, kRingLine);
        if (w != static_cast<ssize_t>(kRingLine)) {
            fd.Reset();
            ringFd = -1;
            PrintToLogFile("\n### InitRingBuffer(): (2) write m_InternalDebugBuffer to %s failed ###", path);
            return false;
        }
    }
    void* map = length ? mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0)
                       : MAP_FAILED;
    if (map == MAP_FAILED) {
        int err = length ? errno : EINVAL;
        fd.Reset();
        ringFd = -1;
        PrintToLogFile("\n### InitRingBuffer(): mmap of %s failed (errno=%d; %s) ###", path, err, strerror(err));
        return false;
    }
    InstallRingBusHandler();
    ringFd = fd.Release();
    ringMap = static_cast<char*>(map);
    ringSize = length;
    ringPos = 0;
    ringWraps = 0;
    target = TARGET_RINGBUFFER;

    inRingHeader = true;
    WriteLogHeader(TARGET_RINGBUFFER);
    inRingHeader = false;
    // At least one untouched pre-fill line separates header and entries.
    uint64_t begin = (ringPos + 2 * kRingLine) & ~(kRingLine - 1);
    if (begin + 2 * kRingLine > ringSize) {
        // Too small for its own header: not usable.
        PrintToLogFile("\n### InitRingBuffer(): %s is too small (%llu bytes) ###", path,
                       static_cast<unsigned long long>(length));
        CloseRingBuffer();
        target = TARGET_NONE;
        return false;
    }
    ringPos = begin;
    PrintIt(TARGET_RINGBUFFER, "\n### Begin of RingBuffer. ###");
    initEndPos = ringPos;
    PrintIt(TARGET_RINGBUFFER, "\n### Start of initialization. ###");
    return true;
}

void CDebug::Impl::CloseRingBuffer()
{
    if (ringMap)
        munmap(ringMap, static_cast<size_t>(ringSize));
    ringMap = nullptr;
    if (ringFd >= 0)
        close(ringFd);
    ringFd = -1;
    ringPos = 0;
    ringWraps = 0;
}

void CDebug::Impl::CloseAll()
{
    target = TARGET_NONE;
    CloseRingBuffer();
    if (logFile)
        fclose(logFile);
    logFile = nullptr;
}

// ---- Log header -------------------------------------------------------------------

void CDebug::Impl::WriteLogHeader(unsigned tgt)
{
    if (argc > 0 && argv) {
        PrintIt(tgt, "\n%s Command Line Options:", programName.c_str());
        for (int i = 0; i < argc; ++i)
            PrintIt(tgt, "\nargv[%d] = \"%s\"", i, argv[i] ? argv[i] : "");
    }
    PrintIt(tgt, "\nTarvis Environment:");
    for (size_t i = 0; i < kEnvironmentRows; ++i)
        PrintIt(tgt, "\n%s=%s", kEnvironmentNames[i], environment[i].set ? environment[i].value.c_str() : "NotSet");
    char name[48] = "TR_LOG_RINGBUF_WEIGHT";
    BuildAppVarName(name, sizeof(name), programName.c_str());
    const char* weight = getenv(name);
    PrintIt(tgt, "\n%s=%s", name, weight ? weight : "NotSet");
    PrintIt(tgt, "\nTarvis Configuration File:");
    for (size_t i = 0; i < kConfigurationRows; ++i)
        PrintIt(tgt, "\n%s=%s", kConfigurationNames[i],
                configuration[i].set ? configuration[i].value.c_str() : "NotSet");
    PrintIt(tgt, "\nDebug values from ini file :");
    PrintIt(tgt, "\nDynamicUpdate              : %d", static_cast<int>(iniDynamicUpdate));
    PrintIt(tgt, "\nDebugLevel                 : %d", static_cast<int>(iniLevel));
    PrintIt(tgt, "\nRingBufferSizeFactor       : %d", iniRingFactor);
    PrintIt(tgt, "\nRingBufferSizeWeight       : %d", iniRingWeight);
    PrintIt(tgt, "\nRingBufferDirectory        : %s", iniRingDir);
    PrintIt(tgt, "\nNo Header to LogFile       : %d", iniNoHeader);
    PrintIt(tgt, "\nInternal Debug values      :");
    PrintIt(tgt, "\nProcess PID                : %d", pid);
    PrintIt(tgt, "\nTrace Target               : %d", static_cast<int>(target));
    PrintIt(tgt, "\nTrace Level                : %d", static_cast<int>(level));
    PrintIt(tgt, "\nTrace Level Saved          : %d", static_cast<int>(savedLevel));
    PrintIt(tgt, "\nApplication Init Done      : %d", applInitDone ? 1 : 0);
    PrintIt(tgt, "\nLogFile Path               : %s", logPath);
    PrintIt(tgt, "\nLogFile Max Size           : %d", static_cast<int>(logMaxSize));
    PrintIt(tgt, "\nRing Buffer FD             : %d", ringFd);
    PrintIt(tgt, "\nRing Buffer Factor         : %d", static_cast<int>(ringFactor));
    PrintIt(tgt, "\nRing Buffer Weight         : %d", static_cast<int>(ringWeight));
    PrintIt(tgt, "\nRing Buffer Size           : %d", static_cast<int>(ringSize));
    PrintIt(tgt, "\nRing Buffer Directory      : %s", traceDir);
    PrintIt(tgt, "\nRing Buffer Path           : %s", activeRingPath);
    PrintIt(tgt, "\nNo Header to LogFile       : %d", static_cast<int>(noHeader));
    PrintIt(tgt, "\n# End of header.");
}

// ---- Configuration -------------------------------------------------------------

namespace {

struct NameList {
    struct dirent** names = nullptr;
    int count = 0;
    ~NameList()
    {
        for (int i = 0; i < count; ++i)
            free(names[i]);
        free(names);
    }
};

int SelectFilesInDir(const struct dirent* e) { return strstr(e->d_name, kIniFilter) != nullptr; }

bool EnvNumber(const char* name, unsigned long& out)
{
    const char* v = getenv(name);
    if (!v)
        return false;
    out = strtoul(v, nullptr, 10);
    return true;
}

} // namespace

bool CDebug::Impl::ReadDebugConfig(const char* name)
{
    NameList list;
    list.count = scandir(configDirectory.c_str(), &list.names, SelectFilesInDir, alphasort);
    if (list.count == 0)
        return true; // a directory without files switches tracing off, whatever the environment says
    if (list.count < 0) {
        list.count = 0;
        list.names = nullptr;
    }

    iniRingFactor = -1;
    iniRingWeight = -1;
    iniNoHeader = -1;
    memoryTraces = -1;
    iniRingDir[0] = '\0';

    unsigned long number = 0;
    globalFile.CloseSectionInIniFile();
    if (globalFile.OpenSectionInIniFile(kGlobalSection, kGlobalConfigFile, configDirectory.c_str()) &&
        globalFile.ReadNumber("DynamicUpdate", number))
        iniDynamicUpdate = static_cast<unsigned>(number);

    if (const char* v = getenv("TR_LOG_DYNAMIC_UPDATE"))
        dynamicInterval = static_cast<uint64_t>(strtol(v, nullptr, 10));
    else if (iniDynamicUpdate != 0xFFFFFFFFu)
        dynamicInterval = iniDynamicUpdate;
    else
        dynamicInterval = 0;

    programFile.CloseSectionInIniFile();
    for (int i = 0; i < list.count; ++i) {
        if (!programFile.OpenSectionInIniFile(name, list.names[i]->d_name, configDirectory.c_str()))
            continue;
        std::string dir;
        if (programFile.ReadValue("RingBufferDirectory", dir, CDebugTraceConfigFile::kDirectoryLimit))
            CopyPath(iniRingDir, dir.c_str());
        if (programFile.ReadNumber("FileDebugLevel", number))
            iniLevel = static_cast<unsigned>(number);
        if (programFile.ReadNumber("TraceFlags", number))
            traceFlags = static_cast<unsigned>(number);
        if (programFile.ReadNumber("RingBufferSizeFactor", number))
            iniRingFactor = static_cast<int>(number);
        if (programFile.ReadNumber("RingBufferSizeWeight", number))
            iniRingWeight = static_cast<int>(number);
        if (programFile.ReadNumber("NoHeaderToStderr", number))
            iniNoHeader = static_cast<int>(number);
        if (programFile.ReadNumber("MemoryTracesFlag", number))
            memoryTraces = static_cast<int>(number);
        break;
    }

    if (const char* v = getenv("TR_LOG_FILE_DIR"))
        CopyPath(traceDir, v);
    else
        CopyPath(traceDir, iniRingDir[0] ? iniRingDir : kDefaultTraceDirectory);

    if (EnvNumber("TR_LOG_FILE_MAX_SIZE", number))
        logMaxSize = static_cast<unsigned>(number);
    else if (logMaxSize == 0xFFFFFFFFu)
        logMaxSize = kDefaultLogMaxSize;

    // The ring directory decides for all trace files, also over
    // TR_LOG_FILE_DIR: log file and ring buffers always lie side by side.
    if (const char* v = getenv("TR_LOG_RINGBUF_DIR"))
        CopyPath(traceDir, v);
    else
        CopyPath(traceDir, iniRingDir[0] ? iniRingDir : kDefaultTraceDirectory);

    if (EnvNumber("TR_LOG_DEBUG_LEVEL", number))
        level = static_cast<unsigned>(number);
    else if (iniLevel != 0xFFFFFFFFu)
        level = iniLevel;
    else
        level = 0;

    // The ring factor shares its variable with the agent's configuration key.
    if (EnvNumber("TraceFileLimit", number))
        ringFactor = static_cast<unsigned>(number);
    else if (iniRingFactor != -1)
        ringFactor = static_cast<unsigned>(iniRingFactor);
    else
        ringFactor = 0;

    if (EnvNumber("TR_LOG_RINGBUF_WEIGHT", number))
        ringWeight = static_cast<unsigned>(number);
    else if (iniRingWeight != -1)
        ringWeight = static_cast<unsigned>(iniRingWeight);
    else
        ringWeight = 0;

    if (EnvNumber("TR_LOG_NOHDR_TOSDTERR", number))
        noHeader = static_cast<unsigned>(number);
    else if (iniNoHeader != -1)
        noHeader = static_cast<unsigned>(iniNoHeader);
    else
        noHeader = 1;

    savedLevel = level;
    return true;
}

bool CDebug::Impl::Init(const char* name)
{
    CloseAll();
    if (name && *name)
        programName = name;
    pid = static_cast<int>(getpid());
    time_t now = time(nullptr);
    struct tm tmv;
    if (!(localtime_r(&now, &tmv) && asctime_r(&tmv, startTime)))
        snprintf(startTime, sizeof(startTime), "%s", "\nwww mmm dd hh:mm:ss yyyy");
    lastCheck = now;

    for (size_t i = 0; i < kEnvironmentRows; ++i) {
        const char* v = getenv(kEnvironmentNames[i]);
        environment[i].set = v != nullptr;
        environment[i].value = v ? v : "";
    }
    for (size_t i = 0; i < kConfigurationRows; ++i) {
        const char* v = getenv(kConfigurationNames[i]);
        configuration[i].set = v != nullptr;
        configuration[i].value = v ? v : "";
    }

    ReadDebugConfig(programName.c_str());
    self.m_bEnabled = level != 0;

    char lower[kPathSize];
    CopyPath(lower, programName.c_str());
    StringToLower(lower);
    FormatPath(logPath, "%s/log.%s", traceDir, lower);
    logFile = OpenLogFile(logPath);
    if (!logFile)
        SysLog(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", logPath);
    logByteCount = 0;
    logWrapCycle = 0;
    logWrapOffset = 0;
    logInitEnd = 0;
    applInitDone = false;

    if (self.m_bEnabled) {
        char var[48] = "TR_LOG_RINGBUF_WEIGHT";
        BuildAppVarName(var, sizeof(var), programName.c_str());
        if (const char* v = getenv(var))
            ringWeight = static_cast<unsigned>(strtoul(v, nullptr, 10));
        if (ringFactor > kMaxRingFactor)
            ringFactor = kMaxRingFactor;
        long page = sysconf(_SC_PAGESIZE);
        if (page < 1)
            page = 4096;
        ringSize = static_cast<uint64_t>(ringFactor) * ringWeight * static_cast<uint64_t>(page) * 256;
        if (ringSize != 0) {
            FormatPath(activeRingPath, "%s/log.%s_a", traceDir, lower);
            FormatPath(initialRingPath, "%s/log.%s_i", traceDir, lower);
            ringSize *= 4;
            bool created = InitRingBuffer(initialRingPath, ringSize);
            if (noHeader == 0)
                WriteLogHeader(TARGET_LOGFILE);
            if (created) {
                self.m_bEnabled = level != 0;
                return true;
            }
            SwitchOff();
            return false;
        }
    }
    SwitchOff();
    if (noHeader == 0)
        WriteLogHeader(TARGET_LOGFILE);
    return true;
}

void CDebug::Impl::DynamicUpdate()
{
    time_t now = time(nullptr);
    if (lastCheck + static_cast<time_t>(dynamicInterval) > now && lastCheck <= now)
        return;
    lastCheck = now;

    struct stat st;
    if (!globalFile.Path().empty()) {
        if (stat(globalFile.Path().c_str(), &st) != 0) {
            globalFile.CloseSectionInIniFile();
        } else if (st.st_mtime > globalFile.ModificationTime()) {
            globalFile.SetStat(static_cast<uint64_t>(st.st_size), st.st_mtime);
            unsigned long number = 0;
            if (globalFile.OpenSectionInIniFile(kGlobalSection, nullptr, nullptr) &&
                globalFile.ReadNumber("DynamicUpdate", number)) {
                iniDynamicUpdate = static_cast<unsigned>(number);
                dynamicInterval = number;
            }
        }
    }
    if (!programFile.Path().empty()) {
        if (stat(programFile.Path().c_str(), &st) != 0) {
            programFile.CloseSectionInIniFile();
        } else if (st.st_mtime > programFile.ModificationTime()) {
            programFile.SetStat(static_cast<uint64_t>(st.st_size), st.st_mtime);
            unsigned long number = 0;
            if (programFile.OpenSectionInIniFile(programName.c_str(), nullptr, nullptr)) {
                if (programFile.ReadNumber("FileDebugLevel", number))
                    level = savedLevel = iniLevel = static_cast<unsigned>(number);
                if (programFile.ReadNumber("TraceFlags", number))
                    traceFlags = static_cast<unsigned>(number);
                if (programFile.ReadNumber("MemoryTracesFlag", number))
                    memoryTraces = static_cast<int>(number);
            }
        }
    }
}

// ---- Public surface ----------------------------------------------------------------

CDebug::CDebug() : m_Impl(new Impl(*this))
{
    m_Impl->mutexUsable = pthread_mutex_init(&m_Impl->mutex, nullptr) == 0;
}

CDebug::CDebug(const char* programName) : CDebug()
{
    if (programName && *programName && !Init(programName))
        m_Impl->SysLog(LOG_ERR, "ERROR: Error during initialization of the CDebug instance.\n");
}

CDebug::~CDebug()
{
    m_Impl->Enter();
    m_bEnabled = false;
    m_Impl->CloseAll();
    m_Impl->globalFile.CloseSectionInIniFile();
    m_Impl->programFile.CloseSectionInIniFile();
    m_Impl->Leave();
    if (m_Impl->mutexUsable)
        pthread_mutex_destroy(&m_Impl->mutex);
    delete m_Impl;
}

bool CDebug::Init(const char* programName)
{
    bool result = false;
    TRACE_LOCKED_BEGIN(m_Impl)
    result = m_Impl->Init(programName ? programName : "");
    TRACE_LOCKED_END()
    return result;
}

void CDebug::Print(unsigned int level, const char* format, ...)
{
    if (!format)
        return;
    va_list ap;
    va_start(ap, format);
    PrintV(level, format, ap);
    va_end(ap);
}

void CDebug::PrintV(unsigned int level, const char* format, va_list args)
{
    if (!format)
        return;
    TRACE_LOCKED_BEGIN(m_Impl)
    if (m_Impl->dynamicInterval != 0)
        m_Impl->DynamicUpdate();
    if (level <= m_Impl->level) {
        if (m_Impl->target == TARGET_RINGBUFFER)
            m_Impl->TraceToRingBuffer(format, args, nullptr);
        else if (m_Impl->target == TARGET_LOGFILE)
            m_Impl->TraceToLogFile(format, args, nullptr);
    }
    TRACE_LOCKED_END()
}

void CDebug::PrintAlwaysV(const char* format, va_list args, const char* name)
{
    if (!format)
        return;
    TRACE_LOCKED_BEGIN(m_Impl)
    if (m_Impl->target == TARGET_RINGBUFFER) {
        va_list copy;
        va_copy(copy, args);
        m_Impl->TraceToRingBuffer(format, copy, name);
        va_end(copy);
    }
    m_Impl->TraceToLogFile(format, args, name);
    TRACE_LOCKED_END()
}

void CDebug::PrintAlways(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    PrintAlwaysV(format, ap, nullptr);
    va_end(ap);
}

void CDebug::PrintAlways(unsigned int, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    PrintAlwaysV(format, ap, nullptr);
    va_end(ap);
}

void CDebug::ClientPrintV(const char* format, va_list args, const char* name)
{
    if (!format)
        return;
    TRACE_LOCKED_BEGIN(m_Impl)
    if (m_Impl->target == TARGET_RINGBUFFER)
        m_Impl->TraceToRingBuffer(format, args, name);
    else if (m_Impl->target == TARGET_LOGFILE)
        m_Impl->TraceToLogFile(format, args, name);
    TRACE_LOCKED_END()
}

void CDebug::PrintIt(unsigned target, const char* format, ...)
{
    try {
        va_list ap;
        va_start(ap, format);
        m_Impl->PrintItV(target, format, ap, nullptr);
        va_end(ap);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

void CDebug::SetMainParams(int argc, char** argv)
{
    TRACE_LOCKED_BEGIN(m_Impl)
    Impl& d = *m_Impl;
    d.argc = argc;
    d.argv = argv;
    if (argc > 0 && argv) {
        d.PrintToLogFile("\n%s Command Line Options:", d.programName.c_str());
        if (d.target == TARGET_RINGBUFFER)
            d.PrintIt(TARGET_RINGBUFFER, "\n%s Command Line Options:", d.programName.c_str());
        for (int i = 0; i < argc; ++i) {
            const char* a = argv[i] ? argv[i] : "";
            d.PrintToLogFile("\nargv[%d] = \"%s\"", i, a);
            if (d.target == TARGET_RINGBUFFER)
                d.PrintIt(TARGET_RINGBUFFER, "\nargv[%d] = \"%s\"", i, a);
        }
    }
    TRACE_LOCKED_END()
}

void CDebug::SetApplInitDone()
{
    TRACE_LOCKED_BEGIN(m_Impl)
    Impl& d = *m_Impl;
    if (d.logFile) {
        long pos = ftell(d.logFile);
        if (pos >= 0) {
            d.logWrapOffset = pos;
            d.logInitEnd = static_cast<unsigned>(pos);
        }
    }
    if (d.target == TARGET_RINGBUFFER) {
        d.PrintIt(TARGET_RINGBUFFER, "\n### End of initialization. ###");
        m_bEnabled = false;
        d.CloseRingBuffer();
        // The start-up trace is kept compressed; gzip may be missing, which
        // costs only disk space.
        char command[kPathSize + 64];
        snprintf(command, sizeof(command), "gzip -f %s 2>/dev/null", d.initialRingPath);
        if (FILE* p = popen(command, "re"))
            pclose(p);
        else
            d.PrintToLogFile("\n### gziping of startup log file failed -> it doesn't matter ###");
        d.ringSize /= 4;
        if (d.InitRingBuffer(d.activeRingPath, d.ringSize))
            m_bEnabled = true;
        else
            d.SwitchOff();
    }
    d.applInitDone = true;
    TRACE_LOCKED_END()
}

bool CDebug::ForceMaxDebug(bool on)
{
    TRACE_LOCKED_BEGIN(m_Impl)
    if (on) {
        m_Impl->level = m_Impl->savedLevel;
        m_bEnabled = true;
    } else {
        m_Impl->level = 0;
        m_bEnabled = false;
    }
    TRACE_LOCKED_END()
    return true;
}

void CDebug::SetConfigDirectory(const char* dir)
{
    TRACE_LOCKED_BEGIN(m_Impl)
    m_Impl->configDirectory = (dir && *dir) ? dir : kDefaultConfigDirectory;
    TRACE_LOCKED_END()
}

int CDebug::SetEntryHeader(char* buffer, size_t size, const char* name)
{
    if (!buffer)
        return 0;
    int result = 0;
    TRACE_LOCKED_BEGIN(m_Impl)
    result = m_Impl->SetEntryHeader(buffer, size, name);
    TRACE_LOCKED_END()
    return result;
}

void CDebug::WriteLogHeader(unsigned target)
{
    TRACE_LOCKED_BEGIN(m_Impl)
    m_Impl->WriteLogHeader(target);
    TRACE_LOCKED_END()
}

void CDebug::SetTarget(unsigned target) { m_Impl->target = target; }

bool CDebug::ReadDebugConfig(const char* programName)
{
    bool result = true;
    TRACE_LOCKED_BEGIN(m_Impl)
    result = m_Impl->ReadDebugConfig(programName ? programName : "");
    TRACE_LOCKED_END()
    return result;
}

bool CDebug::InitRingBuffer(const char* path, uint64_t length)
{
    bool result = false;
    if (!path)
        return false;
    TRACE_LOCKED_BEGIN(m_Impl)
    m_Impl->CloseRingBuffer();
    result = m_Impl->InitRingBuffer(path, length);
    TRACE_LOCKED_END()
    return result;
}

void CDebug::BuildAppVarName(char* buffer, size_t size, const char* appName)
{
    if (!buffer || size == 0 || !appName || !*appName)
        return;
    size_t len = strnlen(buffer, size - 1);
    auto put = [&](char c) {
        if (len < size - 1)
            buffer[len++] = c;
    };
    put('_');
    for (const char* p = appName; *p; ++p)
        put(static_cast<char>(toupper(static_cast<unsigned char>(*p))));
    buffer[len] = '\0';
}

void CDebug::StringToLower(char* text)
{
    if (!text)
        return;
    for (char* p = text; *p; ++p)
        *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
}

void CDebug::SetSysLogFunction(SysLogFunction fn) { m_Impl->sysLog = fn ? fn : DefaultSysLog; }

unsigned CDebug::GetLevel() const { return m_Impl->level; }
unsigned CDebug::GetSavedLevel() const { return m_Impl->savedLevel; }
unsigned CDebug::GetIniLevel() const { return m_Impl->iniLevel; }
unsigned CDebug::GetTraceFlags() const { return m_Impl->traceFlags; }
unsigned CDebug::GetTarget() const { return m_Impl->target; }
uint64_t CDebug::GetRingBufferSize() const { return m_Impl->ringSize; }
unsigned CDebug::GetRingFactor() const { return m_Impl->ringFactor; }
unsigned CDebug::GetRingWeight() const { return m_Impl->ringWeight; }
unsigned CDebug::GetRingWrapCount() const { return m_Impl->ringWraps; }
unsigned CDebug::GetLogMaxSize() const { return m_Impl->logMaxSize; }
unsigned CDebug::GetLogWrapCycle() const { return m_Impl->logWrapCycle; }
unsigned CDebug::GetNoHeaderFlag() const { return m_Impl->noHeader; }
int CDebug::GetMemoryTracesFlag() const { return m_Impl->memoryTraces; }
uint64_t CDebug::GetDynamicUpdateInterval() const { return m_Impl->dynamicInterval; }
bool CDebug::IsApplInitDone() const { return m_Impl->applInitDone; }
const char* CDebug::GetTraceDirectory() const { return m_Impl->traceDir; }
const char* CDebug::GetLogFilePath() const { return m_Impl->logPath; }
const char* CDebug::GetActiveRingPath() const { return m_Impl->activeRingPath; }
const char* CDebug::GetInitialRingPath() const { return m_Impl->initialRingPath; }
const char* CDebug::GetProgramName() const { return m_Impl->programName.c_str(); }

// The ring-buffer output: a memory-mapped file that wraps, and the recovery
// from a ring file cut under the running program.
#include "trace/CDebugInternal.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

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

// Not ours: behave as if our handler had never been installed.
void ForwardBusSignal(int sig, siginfo_t* info, void* context)
{
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
    ForwardBusSignal(sig, info, context);
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

namespace tracedetail {

CDebugRingBuffer::CreateResult CDebugRingBuffer::Create(const char* path, uint64_t length, const char* fillLine,
                                                        int& error)
{
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0700));
    if (!fd) {
        error = errno;
        return CreateResult::OpenFailed;
    }
    for (uint64_t done = 0; done < length; done += kRingLine)
        if (write(fd.Get(), fillLine, kRingLine) != static_cast<ssize_t>(kRingLine))
            return CreateResult::WriteFailed;
    UniqueMapping map(length ? mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0)
                             : MAP_FAILED,
                      static_cast<size_t>(length));
    if (!map) {
        error = length ? errno : EINVAL;
        return CreateResult::MapFailed;
    }
    InstallRingBusHandler();
    m_Fd = std::move(fd);
    m_Map = std::move(map);
    m_Base = static_cast<char*>(m_Map.Get());
    size = length;
    m_Pos = 0;
    m_Wraps = 0;
    return CreateResult::Ok;
}

void CDebugRingBuffer::Close()
{
    m_Map.Reset();
    m_Base = nullptr;
    m_Fd.Reset();
    m_Pos = 0;
    m_Wraps = 0;
}

// The entry being written.  Kept out of registers across the recovery point
// (volatile): the writer may switch to the wrap copy and cut the entry before
// a fault, and the retry must pick that up.
struct CDebugRingBuffer::PendingWrite {
    char* volatile data;
    volatile size_t len;
};

void CDebugRingBuffer::Write(char* data, size_t len)
{
    if (!m_Base || size < kEndMarkerLength)
        return;
    PendingWrite pending{data, len};
    const RingRecovery outer = t_ringRecovery;
    // Written before the recovery point and only read after it.
    const int fd = m_Fd.Get();
    const uint64_t length = size;
    for (volatile int attempt = 0; attempt < 2;) {
        sigjmp_buf jump;
        if (sigsetjmp(jump, 0) == 0) {
            t_ringRecovery = {&jump, m_Base, m_Base + size};
            std::atomic_signal_fence(std::memory_order_seq_cst);
            WriteGuarded(pending);
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
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(length)) != 0)
            return; // dropped
        attempt = attempt + 1;
    }
}

// The writes into the mapping; run under Write's recovery point.
__attribute__((noinline)) void CDebugRingBuffer::WriteGuarded(PendingWrite& pending)
{
    char* data = pending.data;
    size_t len = pending.len;
    if (m_Pos + len + kEndMarkerLength > size) {
        if (inHeader)
            return; // the header itself does not fit: never wrap inside a wrap
        memset(m_Base + m_Pos, '.', static_cast<size_t>(size - m_Pos));
        // Writing the header below reuses the entry buffer.
        if (data == m_SharedEntry) {
            memcpy(m_WrapCopy, data, len + 1);
            data = m_WrapCopy;
            pending.data = data;
        }
        ++m_Wraps;
        m_Pos = 0;
        inHeader = true;
        m_OnWrap(m_Context);
        inHeader = false;
        m_Pos = m_InitEndPos;
        if (m_Pos + kEndMarkerLength > size)
            return;
        // An entry larger than the space behind the start-up part is cut to it.
        if (m_Pos + len + kEndMarkerLength > size) {
            len = static_cast<size_t>(size - kEndMarkerLength - m_Pos);
            if (len > 0)
                data[len - 1] = '\n';
            pending.len = len;
        }
    }
    // The position moves only once both copies are in: a retry after a fault
    // rewrites the entry in the same place.  The marker is overwritten by the
    // next entry.
    const uint64_t at = m_Pos;
    memcpy(m_Base + at, data, len);
    memcpy(m_Base + at + len, kEndMarker, kEndMarkerLength);
    m_Pos = at + len;
}

} // namespace tracedetail

using namespace tracedetail;

// ---- The front's side of the ring ------------------------------------------------

// A message longer than 1024 characters is kept whole when the ring can
// afford it (a tenth of its size); otherwise it is cut with a notice, so that
// one huge dump cannot flush the whole history.  Returns the entry's length;
// `data` points at the entry (`big` when it was formatted anew there).
size_t CDebug::Impl::KeepOversizeEntry(const char* format, va_list again, int full, char*& data, char*& big)
{
    const size_t h = lastHeaderLength;
    const char* notice = kTooBigText;
    if (static_cast<uint64_t>(full) <= ring.size / 10) {
        big = new (std::nothrow) char[static_cast<size_t>(full) + kOversizeExtra];
        if (big) {
            memcpy(big, entry, h);
            int n = vsnprintf(big + h, static_cast<size_t>(full) + 1, SkipLeadingNewlines(format), again);
            data = big;
            return h + (n > 0 ? std::min(static_cast<size_t>(n), static_cast<size_t>(full)) : 0);
        }
        notice = kNoMemoryText;
    }
    size_t at = h + 1024;
    size_t nl = strlen(notice);
    memcpy(entry + at, notice, nl + 1);
    return at + nl;
}

void CDebug::Impl::TraceToRingBuffer(const char* format, va_list args, const char* name)
{
    if (!format || !ring.IsOpen())
        return;
    va_list again;
    va_copy(again, args);
    int full = 0;
    size_t len = FormatEntry(entry, format, args, name, &full);
    char* data = entry;
    char* bigRaw = nullptr;
    if (static_cast<size_t>(full) >= kMessageSize)
        len = KeepOversizeEntry(format, again, full, data, bigRaw);
    std::unique_ptr<char[]> big(bigRaw);
    va_end(again);
    len = EndWithNewline(data, len);
    ring.Write(data, len);
}

bool CDebug::Impl::InitRingBuffer(const char* path, uint64_t length)
{
    // Pre-fill with lines of underscores, each with an entry header, so that
    // a reader sees the untouched part of a fresh ring as such.  Whole lines
    // only: a length that is not a multiple of a line leaves the file up to
    // one line longer than the mapping, which covers exactly `length`.
    char line[kRingLine];
    int h = ClipHeaderLength(SetEntryHeader(line, kHeaderArea, nullptr), kHeaderArea);
    memset(line + h, '_', kRingLine - 1 - static_cast<size_t>(h));
    line[kRingLine - 1] = '\n';
    int err = 0;
    switch (ring.Create(path, length, line, err)) {
    case CDebugRingBuffer::CreateResult::OpenFailed:
        PrintToLogFile("\n### InitRingBuffer(): open of %s failed (errno=%d; %s) ###", path, err, strerror(err));
        return false;
    case CDebugRingBuffer::CreateResult::WriteFailed:
        PrintToLogFile("\n### InitRingBuffer(): (2) write m_InternalDebugBuffer to %s failed ###", path);
        return false;
    case CDebugRingBuffer::CreateResult::MapFailed:
        PrintToLogFile("\n### InitRingBuffer(): mmap of %s failed (errno=%d; %s) ###", path, err, strerror(err));
        return false;
    case CDebugRingBuffer::CreateResult::Ok:
        break;
    }
    target = TARGET_RINGBUFFER;
    return PlaceRingStart(path, length);
}

// The header, then (on a 1 KiB boundary, after at least one untouched
// pre-fill line) the begin line and the start-up part.
bool CDebug::Impl::PlaceRingStart(const char* path, uint64_t length)
{
    ring.inHeader = true;
    WriteLogHeader(TARGET_RINGBUFFER);
    ring.inHeader = false;
    uint64_t begin = (ring.Position() + 2 * kRingLine) & ~(kRingLine - 1);
    if (begin + 2 * kRingLine > ring.size) {
        // Too small for its own header: not usable.
        PrintToLogFile("\n### InitRingBuffer(): %s is too small (%llu bytes) ###", path,
                       static_cast<unsigned long long>(length));
        CloseRingBuffer();
        target = TARGET_NONE;
        return false;
    }
    ring.SetPosition(begin);
    PrintIt(TARGET_RINGBUFFER, "\n### Begin of RingBuffer. ###");
    ring.MarkInitEnd();
    PrintIt(TARGET_RINGBUFFER, "\n### Start of initialization. ###");
    return true;
}

void CDebug::Impl::CloseRingBuffer() { ring.Close(); }

// The end of start-up: the initial ring is closed and compressed, and the
// active ring (a quarter of its size) takes its place.
void CDebug::Impl::SwitchToActiveRing()
{
    PrintIt(TARGET_RINGBUFFER, "\n### End of initialization. ###");
    self.m_bEnabled = false;
    CloseRingBuffer();
    // The start-up trace is kept compressed; gzip may be missing, which
    // costs only disk space.
    char command[kPathSize + 64];
    snprintf(command, sizeof(command), "gzip -f %s 2>/dev/null", initialRingPath);
    if (FILE* p = popen(command, "re"))
        pclose(p);
    else
        PrintToLogFile("\n### gziping of startup log file failed -> it doesn't matter ###");
    ring.size /= 4;
    if (InitRingBuffer(activeRingPath, ring.size))
        self.m_bEnabled = true;
    else
        SwitchOff();
}

// The trace entry: its header and message, and the path on which a thread
// formats a ring entry before it takes the trace lock, so that threads
// tracing at once wait for each other only while the bytes are placed.
#include "trace/CDebugInternal.h"

#include <cstdio>
#include <new>
#include <sys/time.h>
#include <unistd.h>

using namespace tracedetail;

namespace {

// The header: "time [thread] name " or, with the memory column, "time
// [thread] size KB !name ".  The time text and the resident size come from
// the caches passed in: the trace's own under its lock, or the thread's own
// on the unlocked path.
int FormatHeader(char* buffer, size_t size, const char* column, bool memory, traceheader::CTimeTextCache& timeCache,
                 CResidentSizeReader& residentSize)
{
    // Every entry pays for this: the time text is cached per second, and the
    // resident size comes from a kept-open statm, read once per millisecond
    // of time stamps (a /proc read costs about as much as writing a whole
    // entry; entries printed with the same millisecond share the figure).
    char timeText[traceheader::kTimeTextSize];
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    timeCache.Format(tv, timeText);

    const unsigned thread = static_cast<unsigned>(static_cast<uint32_t>(pthread_self()));
    if (!memory)
        return traceheader::FormatEntryHeader(buffer, size, timeText, thread, false, 0, column);
    uint64_t kb = 0;
    const int64_t millisecond = static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
    if (!residentSize.ReadKilobytes(kb, millisecond))
        tarvd::ReadProcStatusField(static_cast<uint32_t>(getpid()), kMemoryField, 1 /* kilobytes */, kb);
    return traceheader::FormatEntryHeader(buffer, size, timeText, thread, true, kb, column);
}

// The message behind a header of `h` bytes.  Returns the entry length (at
// most 1024 message characters); `fullLength` gets what vsnprintf needed.
size_t AppendMessage(char* buffer, int h, const char* format, va_list args, int* fullLength)
{
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

// A thread's own entry buffer and header caches for the unlocked path,
// made at the thread's first entry and freed when it ends.  Only plain
// pointers and flags are thread-local (initial-exec: cheap to reach, and
// small enough for the static TLS of a library loaded with the program).
// Once the thread's own clean-up ran (for the main thread: at exit, before
// the static destructors, which may still trace), the locked path serves.
struct ThreadEntry {
    traceheader::CTimeTextCache timeCache;
    CResidentSizeReader residentSize;
    char text[kEntryBufferSize];
};
thread_local ThreadEntry* t_entry __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local bool t_entryGone __attribute__((tls_model("initial-exec"))) = false;

struct ThreadEntryOwner {
    void Arm() {}
    ~ThreadEntryOwner()
    {
        delete t_entry;
        t_entry = nullptr;
        t_entryGone = true;
    }
};
thread_local ThreadEntryOwner t_entryOwner;

ThreadEntry* ThisThreadsEntry()
{
    if (t_entry != nullptr || t_entryGone)
        return t_entry;
    t_entryOwner.Arm();  // registers the clean-up at the thread's end
    t_entry = new (std::nothrow) ThreadEntry();
    return t_entry;
}

} // namespace

int CDebug::Impl::SetEntryHeader(char* buffer, size_t size, const char* name)
{
    return FormatHeader(buffer, size, name ? name : programName.c_str(), settings.memoryTraces != 0, timeCache,
                        residentSize);
}

// Header and message into `buffer` (of kEntryBufferSize bytes).  Returns the
// entry length (header + message, at most 1024 message characters);
// lastHeaderLength receives the header's length and `fullLength` what
// vsnprintf needed for the whole message.
size_t CDebug::Impl::FormatEntry(char* buffer, const char* format, va_list args, const char* name, int* fullLength)
{
    int h = ClipHeaderLength(SetEntryHeader(buffer, kHeaderArea, name), kHeaderArea);
    lastHeaderLength = static_cast<size_t>(h);
    return AppendMessage(buffer, h, format, args, fullLength);
}

// The level filter under the lock: only entries at or below the level reach
// the target.
void CDebug::Impl::PrintFiltered(unsigned level, const char* format, va_list args)
{
    if (settings.dynamicInterval != 0)
        DynamicUpdate();
    if (level <= settings.level)
        PrintItV(TARGET_NONE, format, args, nullptr);
}

// A ring entry formatted by the thread into its own buffer, then placed
// under the lock.  Returns false (and leaves `args` untouched) where the
// locked path must run instead: no ring, settings re-read while running, or
// a thread that already holds the lock (a trace from inside an output, which
// may be the header written at a wrap, uses the trace's shared buffer, whose
// wrap handling keeps the outer entry).
bool CDebug::Impl::PrintToRingUnlocked(unsigned level, const char* format, va_list args)
{
    if (!unlockedRing.load(std::memory_order_acquire) || HeldByThisThread())
        return false;
    if (level > unlockedLevel.load(std::memory_order_relaxed))
        return true;
    ThreadEntry* entryOfThread = ThisThreadsEntry();
    if (!entryOfThread)
        return false;
    ThreadEntry& t = *entryOfThread;
    const bool memory = unlockedMemory.load(std::memory_order_relaxed);
    va_list again;
    va_copy(again, args);
    int h = ClipHeaderLength(FormatHeader(t.text, kHeaderArea, programName.c_str(), memory, t.timeCache,
                                          t.residentSize),
                             kHeaderArea);
    int full = 0;
    size_t len = AppendMessage(t.text, h, format, args, &full);
    // An oversized message is kept or cut by the locked path.
    const bool whole = static_cast<size_t>(full) < kMessageSize;
    if (whole)
        len = EndWithNewline(t.text, len);
    TRACE_LOCKED_BEGIN(this)
    if (!whole || !WriteUnlockedEntry(level, memory, t.text, len))
        PrintFiltered(level, format, again);
    TRACE_LOCKED_END()
    va_end(again);
    return true;
}

// Under the lock: places the entry when the settings it was formatted for
// still hold.
bool CDebug::Impl::WriteUnlockedEntry(unsigned level, bool memory, char* data, size_t len)
{
    if (target != TARGET_RINGBUFFER || !ring.IsOpen() || settings.dynamicInterval != 0 ||
        (settings.memoryTraces != 0) != memory)
        return false;
    if (level <= settings.level)
        ring.Write(data, len);
    return true;
}

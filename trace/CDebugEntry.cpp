// The trace entry: its header and message, and the path on which a thread
// formats a ring entry before it takes the trace lock, so that threads
// tracing at once wait for each other only while the bytes are placed.
#include "trace/CDebugInternal.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <string>
#include <sys/time.h>
#include <unistd.h>

using namespace tracedetail;

namespace {

// What one entry's header is made of besides the name: the time of the
// entry and, with the memory column, the resident size.
struct HeaderStamp {
    struct timeval tv;
    uint64_t kilobytes = 0;
};

// Every entry pays for this: the resident size comes from a kept-open statm,
// read once per millisecond of time stamps (a /proc read costs about as much
// as writing a whole entry; entries printed with the same millisecond share
// the figure).
HeaderStamp TakeHeaderStamp(bool memory, CResidentSizeReader& residentSize)
{
    HeaderStamp stamp;
    gettimeofday(&stamp.tv, nullptr);
    if (memory) {
        const int64_t millisecond = static_cast<int64_t>(stamp.tv.tv_sec) * 1000 + stamp.tv.tv_usec / 1000;
        if (!residentSize.ReadKilobytes(stamp.kilobytes, millisecond))
            tarvd::ReadProcStatusField(static_cast<uint32_t>(getpid()), kMemoryField, 1 /* kilobytes */,
                                       stamp.kilobytes);
    }
    return stamp;
}

// The header: "time [thread] name " or, with the memory column, "time
// [thread] size KB !name ".  The time text comes from the cache passed in
// (cached per second): the trace's own under its lock, or the thread's own
// on the unlocked path.
int FormatHeader(char* buffer, size_t size, const char* column, bool memory, const HeaderStamp& stamp,
                 traceheader::CTimeTextCache& timeCache)
{
    char timeText[traceheader::kTimeTextSize];
    timeCache.Format(stamp.tv, timeText);
    const unsigned thread = static_cast<unsigned>(static_cast<uint32_t>(pthread_self()));
    return traceheader::FormatEntryHeader(buffer, size, timeText, thread, memory, stamp.kilobytes, column);
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
    // The thread's copy of the program name, and the generation it is of.
    std::string name;
    uint64_t nameGeneration = 0;
    // The header standing at the start of `text`: an entry with the same
    // name, millisecond and memory figure reuses it (threads trace in
    // bursts, and the header costs as much as a short message).  Generation
    // 0 is none: a thread has copied a name (generation 1 or later) before
    // it formats its first header.
    int headerLength = 0;
    uint64_t headerGeneration = 0;
    time_t headerSecond = 0;
    long headerMillisecond = 0;
    bool headerMemory = false;
    uint64_t headerKilobytes = 0;
    char text[kEntryBufferSize];

    bool HeaderMatches(const HeaderStamp& stamp, bool memory) const
    {
        return headerGeneration == nameGeneration && headerSecond == stamp.tv.tv_sec &&
               headerMillisecond == stamp.tv.tv_usec / 1000 && headerMemory == memory &&
               (!memory || headerKilobytes == stamp.kilobytes);
    }
    void KeepHeader(const HeaderStamp& stamp, bool memory, int length)
    {
        headerLength = length;
        headerGeneration = nameGeneration;
        headerSecond = stamp.tv.tv_sec;
        headerMillisecond = stamp.tv.tv_usec / 1000;
        headerMemory = memory;
        headerKilobytes = stamp.kilobytes;
    }
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

std::atomic<uint64_t> g_nameGenerations{0};

} // namespace

uint64_t tracedetail::NextNameGeneration()
{
    return g_nameGenerations.fetch_add(1, std::memory_order_relaxed) + 1;
}

int CDebug::Impl::SetEntryHeader(char* buffer, size_t size, const char* name)
{
    const bool memory = settings.memoryTraces != 0;
    return FormatHeader(buffer, size, name ? name : programName.c_str(), memory,
                        TakeHeaderStamp(memory, residentSize), timeCache);
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
    if (t.nameGeneration != nameGeneration.load(std::memory_order_acquire))
        CopyProgramName(t.name, t.nameGeneration);
    const bool memory = unlockedMemory.load(std::memory_order_relaxed);
    va_list again;
    va_copy(again, args);
    const HeaderStamp stamp = TakeHeaderStamp(memory, t.residentSize);
    int h = t.headerLength;
    if (!t.HeaderMatches(stamp, memory)) {
        h = ClipHeaderLength(FormatHeader(t.text, kHeaderArea, t.name.c_str(), memory, stamp, t.timeCache),
                             kHeaderArea);
        t.KeepHeader(stamp, memory, h);
    }
    int full = 0;
    size_t len = AppendMessage(t.text, h, format, args, &full);
    // An oversized message is kept or cut by the locked path.
    const bool whole = static_cast<size_t>(full) < kMessageSize;
    if (whole)
        len = EndWithNewline(t.text, len);
    TRACE_LOCKED_BEGIN(this)
    if (!whole || !WriteUnlockedEntry(level, memory, t.nameGeneration, t.text, len))
        PrintFiltered(level, format, again);
    TRACE_LOCKED_END()
    va_end(again);
    return true;
}

// The program name and its generation, read under the lock.
void CDebug::Impl::CopyProgramName(std::string& name, uint64_t& generation)
{
    TRACE_LOCKED_BEGIN(this)
    name = programName;
    generation = nameGeneration.load(std::memory_order_relaxed);
    TRACE_LOCKED_END()
}

// Under the lock: places the entry when the settings it was formatted for
// still hold.
bool CDebug::Impl::WriteUnlockedEntry(unsigned level, bool memory, uint64_t generation, char* data, size_t len)
{
    if (target != TARGET_RINGBUFFER || !ring.IsOpen() || settings.dynamicInterval != 0 ||
        (settings.memoryTraces != 0) != memory || generation != nameGeneration.load(std::memory_order_relaxed))
        return false;
    if (level <= settings.level)
        ring.Write(data, len);
    return true;
}

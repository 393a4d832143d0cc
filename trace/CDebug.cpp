// The trace facility's front: the re-entrant lock and the public surface.  The outputs and the
// configuration are in the files named in CDebugInternal.h.
#include "trace/CDebug.h"

#include "trace/CDebugInternal.h"

#include "common/FailureTrace.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

using namespace tracedetail;

// ---- Small helpers shared by the outputs ------------------------------------

namespace tracedetail {

const char* SkipLeadingNewlines(const char* format)
{
    const char* p = format;
    while (*p == '\n')
        ++p;
    return *p ? p : format;
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

size_t EndWithNewline(char* buffer, size_t len)
{
    if (len == 0 || buffer[len - 1] != '\n')
        buffer[len++] = '\n';
    buffer[len] = '\0';
    return len;
}

bool FormatPath(char (&dst)[kPathSize], const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(dst, sizeof(dst), fmt, ap);
    va_end(ap);
    return n >= 0 && static_cast<size_t>(n) < sizeof(dst);
}

void CopyPath(char (&dst)[kPathSize], const char* src) { snprintf(dst, sizeof(dst), "%s", src ? src : ""); }

} // namespace tracedetail

// The shared types below the trace report their failures through this
// writer, installed when the library is loaded.
namespace {

void TraceSharedTypeFailure(const char* text) { DBG_PRINT(1, "\n%s", text); }

[[maybe_unused]] const bool g_FailureTraceInstalled = (tarvd::SetFailureTrace(TraceSharedTypeFailure), true);

} // namespace

// ---- The hand-made re-entrant lock ---------------------------------------------

CDebug::Impl::Impl(CDebug& owner)
    : self(owner), nameGeneration(tracedetail::NextNameGeneration()),
      ring(entry, [](void* impl) { static_cast<Impl*>(impl)->WriteLogHeader(TARGET_RINGBUFFER); }, this)
{
}

namespace {
// How many trace locks (of any CDebug) this thread holds.  Zero, as it is
// for nearly every entry, settles "held by this thread?" without reading the
// owner fields, which the other tracing threads keep writing.
thread_local unsigned t_traceLocksHeld __attribute__((tls_model("initial-exec"))) = 0;
} // namespace

void CDebug::Impl::Enter()
{
    if (!mutexUsable)
        return;
    if (!HeldByThisThread()) {
        pthread_mutex_lock(&mutex);
        ++t_traceLocksHeld;
        owner.store(pthread_self(), std::memory_order_relaxed);
        owned.store(true, std::memory_order_relaxed);
    }
    ++recursion;
}

void CDebug::Impl::Leave()
{
    if (!mutexUsable || !owned.load(std::memory_order_relaxed) ||
        !pthread_equal(owner.load(std::memory_order_relaxed), pthread_self()))
        return;
    if (recursion > 0 && --recursion == 0) {
        Publish();
        owned.store(false, std::memory_order_relaxed);
        owner.store(pthread_t{}, std::memory_order_relaxed);
        --t_traceLocksHeld;
        pthread_mutex_unlock(&mutex);
    }
}

bool CDebug::Impl::HeldByThisThread() const
{
    return t_traceLocksHeld != 0 && owned.load(std::memory_order_relaxed) && pthread_equal(owner.load(std::memory_order_relaxed), pthread_self());
}

// Called with the lock held, just before it is given back.  Stores only what
// changed: the flags are read by every tracing thread, and a store on every
// entry would move their cache line between the cores each time.
void CDebug::Impl::Publish()
{
    const bool ringOn = target == TARGET_RINGBUFFER && ring.IsOpen() && settings.dynamicInterval == 0;
    const bool memory = settings.memoryTraces != 0;
    if (unlockedLevel.load(std::memory_order_relaxed) != settings.level)
        unlockedLevel.store(settings.level, std::memory_order_relaxed);
    if (unlockedMemory.load(std::memory_order_relaxed) != memory)
        unlockedMemory.store(memory, std::memory_order_relaxed);
    if (unlockedRing.load(std::memory_order_relaxed) != ringOn)
        unlockedRing.store(ringOn, std::memory_order_release);
}

// A thread cancelled inside an output leaves the lock free.
void CDebug::Impl::CleanupHandlerForTraceMutex(void* arg)
{
    Impl* impl = static_cast<Impl*>(arg);
    if (!impl->mutexUsable || !impl->owned.load(std::memory_order_relaxed) ||
        !pthread_equal(impl->owner.load(std::memory_order_relaxed), pthread_self()))
        return;
    impl->recursion = 0;
    impl->Publish();
    impl->owned.store(false, std::memory_order_relaxed);
    impl->owner.store(pthread_t{}, std::memory_order_relaxed);
    --t_traceLocksHeld;
    pthread_mutex_unlock(&impl->mutex);
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

void CDebug::Impl::PrintIt(unsigned tgt, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    PrintItV(tgt, format, ap, nullptr);
    va_end(ap);
}

void CDebug::Impl::PrintToLogFile(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    TraceToLogFile(format, ap, nullptr);
    va_end(ap);
}

void CDebug::Impl::CloseAll()
{
    target = TARGET_NONE;
    CloseRingBuffer();
    logFile.Close();
}

void CDebug::Impl::ClassInit()
{
    CloseAll();
    logFile = tracedetail::CDebugLogFile();
    settings.logMaxSize = tracedetail::kDefaultLogMaxSize;
    ring.size = 0;
    ring.MarkInitEnd(); // the closed ring's position is 0
    ring.inHeader = false;
    pid = 0;
    argc = 0;
    argv = nullptr;
    startTime[0] = '\0';
    applInitDone = false;
    entry[0] = '\0';
    activeRingPath[0] = '\0';
    initialRingPath[0] = '\0';
    environment.clear();
    configuration.clear();
    lastHeaderLength = 0;
    lastCheck = 0;
    settings.traceFlags = 0;
}

void CDebug::Impl::SwitchOff()
{
    self.m_bEnabled = false;
    target = TARGET_NONE;
    settings.level = 0;
    settings.savedLevel = 0;
}

// ---- Public surface ------------------------------------------------------------------

CDebug::CDebug() : m_Impl(new Impl(*this))
{
    // An adaptive mutex: the lock is held only while an entry's bytes are
    // placed (a few dozen nanoseconds), so a thread that finds it taken spins
    // briefly instead of sleeping in the kernel and being woken again.
    pthread_mutexattr_t attr;
    bool attrOk = pthread_mutexattr_init(&attr) == 0;
    if (attrOk)
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    m_Impl->mutexUsable = pthread_mutex_init(&m_Impl->mutex, attrOk ? &attr : nullptr) == 0;
    if (attrOk)
        pthread_mutexattr_destroy(&attr);
}

CDebug::CDebug(const char* programName) : CDebug()
{
    if (programName && *programName && !Init(programName))
        m_Impl->sysLog.Write(LOG_ERR, "ERROR: Error during initialization of the CDebug instance.\n");
}

CDebug::~CDebug()
{
    m_Impl->Enter();
    m_bEnabled = false;
    m_Impl->CloseAll();
    m_Impl->settings.globalFile.CloseSectionInIniFile();
    m_Impl->settings.programFile.CloseSectionInIniFile();
    m_Impl->Leave();
    if (m_Impl->mutexUsable)
        pthread_mutex_destroy(&m_Impl->mutex);
    delete m_Impl;
}

void CDebug::ClassInit()
{
    m_Impl->Enter();
    m_bEnabled = false;
    m_Impl->ClassInit();
    m_Impl->Leave();
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

// The level filter: only entries at or below the level reach the target.
void CDebug::PrintV(unsigned int level, const char* format, va_list args)
{
    if (!format || m_Impl->PrintToRingUnlocked(level, format, args))
        return;
    TRACE_LOCKED_BEGIN(m_Impl)
    m_Impl->PrintFiltered(level, format, args);
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
    m_Impl->PrintItV(TARGET_NONE, format, args, name);
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
    m_Impl->logFile.MarkInitEnd();
    if (m_Impl->target == TARGET_RINGBUFFER)
        m_Impl->SwitchToActiveRing();
    m_Impl->applInitDone = true;
    TRACE_LOCKED_END()
}

bool CDebug::ForceMaxDebug(bool on)
{
    TRACE_LOCKED_BEGIN(m_Impl)
    if (on) {
        m_Impl->settings.level = m_Impl->settings.savedLevel;
        m_bEnabled = true;
    } else {
        m_Impl->settings.level = 0;
        m_bEnabled = false;
    }
    TRACE_LOCKED_END()
    return true;
}

void CDebug::SetConfigDirectory(const char* dir)
{
    TRACE_LOCKED_BEGIN(m_Impl)
    m_Impl->settings.configDirectory = (dir && *dir) ? dir : kDefaultConfigDirectory;
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

void CDebug::SetTarget(unsigned target)
{
    m_Impl->Enter();
    m_Impl->target = target;
    m_Impl->Leave();
}

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

void CDebug::SetSysLogFunction(SysLogFunction fn) { m_Impl->sysLog.SetFunction(fn); }

unsigned CDebug::GetLevel() const { return static_cast<unsigned>(m_Impl->settings.level); }
unsigned CDebug::GetSavedLevel() const { return m_Impl->settings.savedLevel; }
unsigned CDebug::GetIniLevel() const { return m_Impl->settings.iniLevel; }
unsigned CDebug::GetTraceFlags() const { return m_Impl->settings.traceFlags; }
unsigned CDebug::GetTarget() const { return m_Impl->target; }
uint64_t CDebug::GetRingBufferSize() const { return m_Impl->ring.size; }
unsigned CDebug::GetRingFactor() const { return static_cast<unsigned>(m_Impl->settings.ringFactor); }
unsigned CDebug::GetRingWeight() const { return static_cast<unsigned>(m_Impl->settings.ringWeight); }
unsigned CDebug::GetRingWrapCount() const { return m_Impl->ring.WrapCount(); }
unsigned CDebug::GetLogMaxSize() const { return static_cast<unsigned>(m_Impl->settings.logMaxSize); }
unsigned CDebug::GetLogWrapCycle() const { return m_Impl->logFile.WrapCycle(); }
unsigned CDebug::GetNoHeaderFlag() const { return static_cast<unsigned>(m_Impl->settings.noHeader); }
int CDebug::GetMemoryTracesFlag() const { return static_cast<int>(m_Impl->settings.memoryTraces); }
uint64_t CDebug::GetDynamicUpdateInterval() const { return m_Impl->settings.dynamicInterval; }
bool CDebug::IsApplInitDone() const { return m_Impl->applInitDone; }
const char* CDebug::GetTraceDirectory() const { return m_Impl->settings.traceDir; }
const char* CDebug::GetLogFilePath() const { return m_Impl->logFile.path; }
const char* CDebug::GetActiveRingPath() const { return m_Impl->activeRingPath; }
const char* CDebug::GetInitialRingPath() const { return m_Impl->initialRingPath; }
const char* CDebug::GetProgramName() const { return m_Impl->programName.c_str(); }

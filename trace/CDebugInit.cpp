// Start-up of the trace: the configuration is read, the log file opened and
// the initial ring made; and the configuration files re-read while running.
#include "trace/CDebugInternal.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <syslog.h>
#include <unistd.h>

using namespace tracedetail;

bool CDebug::Impl::ReadDebugConfig(const char* name)
{
    settings.Read(name);
    logFile.maxSize = static_cast<unsigned>(settings.logMaxSize);
    return true;
}

bool CDebug::Impl::Init(const char* name)
{
    CloseAll();
    if (name && *name) {
        programName = name;
        nameGeneration.store(NextNameGeneration(), std::memory_order_release);
    }
    pid = static_cast<int>(getpid());
    time_t now = time(nullptr);
    struct tm tmv;
    if (!(localtime_r(&now, &tmv) && asctime_r(&tmv, startTime)))
        snprintf(startTime, sizeof(startTime), "%s", "\nwww mmm dd hh:mm:ss yyyy");
    // The time of the last check of the configuration files is left as it
    // is (cleared for a new object): with an interval set, the first entry
    // after Init already looks at the files.
    TakeEnvironmentSnapshot();

    ReadDebugConfig(programName.c_str());
    self.m_bEnabled = settings.level != 0;

    char lower[kPathSize];
    CopyPath(lower, programName.c_str());
    StringToLower(lower);
    OpenLogFile(lower);
    applInitDone = false;

    if (self.m_bEnabled && !StartRing(lower))
        return false;
    if (target == TARGET_RINGBUFFER)
        return true;
    SwitchOff();
    if (settings.noHeader == 0)
        WriteLogHeader(TARGET_LOGFILE);
    return true;
}

void CDebug::Impl::OpenLogFile(const char* lowerName)
{
    FormatPath(logFile.path, "%s/log.%s", settings.traceDir, lowerName);
    if (!logFile.Open(logFile.path))
        sysLog.Write(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", logFile.path);
}

// The initial ring, sized from factor and weight (the program's own weight
// variable wins).  A size of 0 starts no ring (target stays none); false
// when the ring could not be made (tracing then switched off).
bool CDebug::Impl::StartRing(const char* lowerName)
{
    char var[48] = "TR_LOG_RINGBUF_WEIGHT";
    BuildAppVarName(var, sizeof(var), programName.c_str());
    if (const char* v = getenv(var))
        settings.ringWeight = static_cast<unsigned>(strtoul(v, nullptr, 10));
    if (settings.ringFactor > kMaxRingFactor)
        settings.ringFactor = kMaxRingFactor;
    long page = sysconf(_SC_PAGESIZE);
    if (page < 1)
        page = 4096;
    const uint64_t size = settings.ringFactor * settings.ringWeight * static_cast<uint64_t>(page) * 256;
    ring.size = size;
    if (size == 0)
        return true;
    FormatPath(activeRingPath, "%s/log.%s_a", settings.traceDir, lowerName);
    FormatPath(initialRingPath, "%s/log.%s_i", settings.traceDir, lowerName);
    ring.size *= 4;
    bool created = InitRingBuffer(initialRingPath, ring.size);
    if (settings.noHeader == 0)
        WriteLogHeader(TARGET_LOGFILE);
    if (created) {
        self.m_bEnabled = settings.level != 0;
        return true;
    }
    SwitchOff();
    return false;
}

void CDebug::Impl::DynamicUpdate()
{
    time_t now = time(nullptr);
    if (lastCheck + static_cast<time_t>(settings.dynamicInterval) > now && lastCheck <= now)
        return;
    lastCheck = now;
    settings.RereadChangedFiles(programName.c_str());
}


// The log header: command line, the environment, the agent configuration
// and the trace's own values, one entry each, at the start of every ring
// (and of the log file when asked for).
#include "trace/CDebugInternal.h"

#include <cstdlib>
#include <unistd.h>

using namespace tracedetail;

namespace {

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
static_assert(std::size(kEnvironmentNames) == 41 && std::size(kConfigurationNames) == 13);

template <size_t N>
void TakeRows(const char* const (&names)[N], std::vector<std::pair<bool, std::string>>& rows)
{
    rows.assign(N, {});
    for (size_t i = 0; i < N; ++i) {
        const char* v = getenv(names[i]);
        rows[i] = {v != nullptr, v ? v : ""};
    }
}

const char* RowText(const std::vector<std::pair<bool, std::string>>& rows, size_t i)
{
    return i < rows.size() && rows[i].first ? rows[i].second.c_str() : "NotSet";
}

} // namespace

void CDebug::Impl::TakeEnvironmentSnapshot()
{
    TakeRows(kEnvironmentNames, environment);
    TakeRows(kConfigurationNames, configuration);
}

void CDebug::Impl::WriteLogHeader(unsigned tgt)
{
    if (argc > 0 && argv) {
        PrintIt(tgt, "\n%s Command Line Options:", programName.c_str());
        for (int i = 0; i < argc; ++i)
            PrintIt(tgt, "\nargv[%d] = \"%s\"", i, argv[i] ? argv[i] : "");
    }
    WriteLogHeaderTables(tgt);
    WriteLogHeaderValues(tgt);
    PrintIt(tgt, "\n# End of header.");
}

void CDebug::Impl::WriteLogHeaderTables(unsigned tgt)
{
    PrintIt(tgt, "\nTarvis Environment:");
    for (size_t i = 0; i < std::size(kEnvironmentNames); ++i)
        PrintIt(tgt, "\n%s=%s", kEnvironmentNames[i], RowText(environment, i));
    char name[48] = "TR_LOG_RINGBUF_WEIGHT";
    BuildAppVarName(name, sizeof(name), programName.c_str());
    const char* weight = getenv(name);
    PrintIt(tgt, "\n%s=%s", name, weight ? weight : "NotSet");
    PrintIt(tgt, "\nTarvis Configuration File:");
    for (size_t i = 0; i < std::size(kConfigurationNames); ++i)
        PrintIt(tgt, "\n%s=%s", kConfigurationNames[i], RowText(configuration, i));
}

void CDebug::Impl::WriteLogHeaderValues(unsigned tgt)
{
    const CDebugSettings& s = settings;
    PrintIt(tgt, "\nDebug values from ini file :");
    PrintIt(tgt, "\nDynamicUpdate              : %d", static_cast<int>(s.iniDynamicUpdate));
    PrintIt(tgt, "\nDebugLevel                 : %d", static_cast<int>(s.iniLevel));
    PrintIt(tgt, "\nRingBufferSizeFactor       : %d", static_cast<int>(s.iniRingFactor));
    PrintIt(tgt, "\nRingBufferSizeWeight       : %d", static_cast<int>(s.iniRingWeight));
    PrintIt(tgt, "\nRingBufferDirectory        : %s", s.iniRingDir);
    PrintIt(tgt, "\nNo Header to LogFile       : %d", static_cast<int>(s.iniNoHeader));
    PrintIt(tgt, "\nInternal Debug values      :");
    PrintIt(tgt, "\nProcess PID                : %d", pid);
    PrintIt(tgt, "\nTrace Target               : %d", static_cast<int>(target));
    PrintIt(tgt, "\nTrace Level                : %d", static_cast<int>(s.level));
    PrintIt(tgt, "\nTrace Level Saved          : %d", static_cast<int>(s.savedLevel));
    PrintIt(tgt, "\nApplication Init Done      : %d", applInitDone ? 1 : 0);
    PrintIt(tgt, "\nLogFile Path               : %s", logFile.path);
    PrintIt(tgt, "\nLogFile Max Size           : %d", static_cast<int>(s.logMaxSize));
    PrintIt(tgt, "\nRing Buffer FD             : %d", ring.Fd());
    PrintIt(tgt, "\nRing Buffer Factor         : %d", static_cast<int>(s.ringFactor));
    PrintIt(tgt, "\nRing Buffer Weight         : %d", static_cast<int>(s.ringWeight));
    PrintIt(tgt, "\nRing Buffer Size           : %d", static_cast<int>(ring.size));
    PrintIt(tgt, "\nRing Buffer Directory      : %s", s.traceDir);
    PrintIt(tgt, "\nRing Buffer Path           : %s", activeRingPath);
    PrintIt(tgt, "\nNo Header to LogFile       : %d", static_cast<int>(s.noHeader));
}

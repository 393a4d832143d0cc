// Performance module: runs the performance monitor (system, memory,
// network, processes) and keeps its current and average usage figures in
// the registry below HKEY_LOCAL_MACHINE\SOFTWARE\Tarvis\Performance,
// updated once a period by a thread of its own.  See README, "Bundled
// modules", for the keys and the configuration values.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/tarvd_module.h"
#include "modules/common/LinkFigures.h"
#include "modules/common/ModuleLifecycle.h"
#include "modules/common/ModuleSettings.h"
#include "modules/common/RegistryNames.h"
#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/CPerfMon.h"
#include "perfmon/HostFigures.h"
#include "perfmon/PerfMonPaths.h"
#include "registry/CRegistry.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"
#include "trace/CEvent.h"
#include "trace/CThread.h"

namespace {

/// Keys, relative to HKEY_LOCAL_MACHINE.
constexpr const char* kPerformanceKey = "SOFTWARE\\Tarvis\\Performance";
constexpr const char* kSystemKey = "SOFTWARE\\Tarvis\\Performance\\System";
constexpr const char* kMemoryKey = "SOFTWARE\\Tarvis\\Performance\\Memory";
constexpr const char* kNetworkKey = "SOFTWARE\\Tarvis\\Performance\\Network";
constexpr const char* kProcessesKey = "SOFTWARE\\Tarvis\\Performance\\Processes";
constexpr const char* kInterfacesKey = "SOFTWARE\\Tarvis\\Performance\\Interfaces";

constexpr unsigned kDefaultPeriodMs = 1000;
constexpr unsigned kDefaultHistory = 60;
// The figures change every period; the registry file is rewritten whenever
// they are published, so they are published once a minute by default.
// Live figures come from kopperf, which samples on its own.
constexpr unsigned kDefaultPublishSeconds = 60;
constexpr unsigned kMaxPublishSeconds = 86400;
constexpr int kMonitorTypes = CPerfMon::PERF_MONITOR_SYSTEM | CPerfMon::PERF_MONITOR_MEMORY |
                              CPerfMon::PERF_MONITOR_NETWORK | CPerfMon::PERF_MONITOR_PROCESSES;

/// A published figure: the value name without its Current/Average prefix
/// and the monitor value it shows.
struct Figure {
    const char* name;
    CPerfMon::PerfMonitorValue value;
};

constexpr Figure kSystemFigures[] = {
    {"Usage", CPerfMon::PERF_SYSTEM_USAGE},
    {"Idle", CPerfMon::PERF_SYSTEM_IDLE},
    {"User", CPerfMon::PERF_SYSTEM_USER},
    {"Kernel", CPerfMon::PERF_SYSTEM_KERNEL},
};
constexpr Figure kMemoryFigures[] = {
    {"Usage", CPerfMon::PERF_MEMORY_USAGE},
    {"SwapUsage", CPerfMon::PERF_SWAP_USAGE},
};
constexpr Figure kNetworkFigures[] = {
    {"Usage", CPerfMon::PERF_NETWORK_USAGE},
    {"Sent", CPerfMon::PERF_NETWORK_SENT},
    {"Received", CPerfMon::PERF_NETWORK_RECEIVED},
};
constexpr Figure kProcessFigures[] = {
    {"Cpu", CPerfMon::PERF_PROCESS_CPU},
    {"CpuAll", CPerfMon::PERF_PROCESS_CPU_ALL},
    {"Resident", CPerfMon::PERF_PROCESS_RESIDENT},
    {"Virtual", CPerfMon::PERF_PROCESS_VIRTUAL},
    {"Threads", CPerfMon::PERF_PROCESS_THREADS},
    {"Count", CPerfMon::PERF_PROCESS_COUNT},
    {"Running", CPerfMon::PERF_PROCESS_RUNNING},
    {"Descriptors", CPerfMon::PERF_PROCESS_DESCRIPTORS},
};

struct PerfState {
    unsigned periodMs = kDefaultPeriodMs;
    unsigned historyLength = kDefaultHistory;
    unsigned publishSeconds = kDefaultPublishSeconds;  // 0: every period
    std::string procRoot = perfmon::kDefaultProcRoot;
    uint32_t runMode = 0;
    CEvent stop{false, true, nullptr};  // manual reset: stays set until the next start
    CThread thread;
    bool running = false;
    std::atomic<bool> noNewWork{false};
    std::unique_ptr<CPerfMon> monitor;
    std::vector<std::string> interfaces;  // names of the network instances
    std::string sysRoot = perfmon::kDefaultSysRoot;
    // Every interface the kernel lists, read each period for its rates.
    std::vector<perfmon::InterfaceFigures> links;
    std::map<std::string, tarvdmod::LinkRates> rates;
    std::chrono::steady_clock::time_point linksRead;
    std::atomic<unsigned> updates{0};
};

std::unique_ptr<PerfState> g_State;

/// Writes a number where it differs, so that unchanged figures leave the
/// tree clean and do not cause a save.
void SetNumber(CRegistry& reg, const std::string& name, unsigned number)
{
    unsigned current = 0;
    if (reg.QueryValue(&current, name.c_str()) == CRegistry::kOk && current == number)
        return;
    reg.SetValue(name.c_str(), number);
}

void SetText(CRegistry& reg, const char* name, const std::string& text)
{
    std::string current;
    if (reg.QueryValue(current, name) == CRegistry::kOk && current == text)
        return;
    reg.SetValue(name, text.c_str());
}

/// Current and average of each figure of one instance, into the current key.
void WriteFigures(CRegistry& reg, CPerfMon& mon, const Figure* figures, size_t count, int instance)
{
    for (size_t i = 0; i < count; ++i) {
        unsigned char percent = 0;
        if (mon.GetCurrentPercent(figures[i].value, percent, instance))
            SetNumber(reg, std::string("Current") + figures[i].name, percent);
        if (mon.GetAveragePercent(figures[i].value, percent, instance))
            SetNumber(reg, std::string("Average") + figures[i].name, percent);
    }
}

template <size_t N>
void WriteGroup(CRegistry& reg, CPerfMon& mon, const char* key, const Figure (&figures)[N], int instance = 0)
{
    if (reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, key) != 0) {
        ReportFailure(SysLogTraces::SL_ERR, "\nPerfModule          : ## ERROR! cannot create the registry key %s", key);
        return;
    }
    WriteFigures(reg, mon, figures, N, instance);
}

/// Re-reads every interface's counters; the rates are those since the
/// previous reading (a counter that went down gives none).
void ReadLinks(PerfState& st)
{
    std::vector<perfmon::InterfaceFigures> now;
    if (!tarvdmod::ReadLinkFigures(st.procRoot, st.sysRoot, now))
        return;
    const auto at = std::chrono::steady_clock::now();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(at - st.linksRead).count();
    st.rates.clear();
    for (const auto& f : now)
        if (elapsed > 0)
            st.rates[f.name] = tarvdmod::RatesSince(st.links, f, static_cast<uint64_t>(elapsed));
    st.links = std::move(now);
    st.linksRead = at;
}

/// Memory as free(1) shows it, next to the monitor's percentages: used
/// without the page cache (total - available) and the byte figures (text:
/// they outgrow 32 bits).
void WriteMemoryFigures(CRegistry& reg, const PerfState& st)
{
    perfmon::MemoryFigures m;
    if (!perfmon::ReadMemoryFigures(st.procRoot, m) || reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, kMemoryKey) != 0)
        return;
    SetText(reg, "TotalBytes", std::to_string(m.totalBytes));
    SetText(reg, "AvailableBytes", std::to_string(m.availableBytes));
    SetText(reg, "UsedBytes", std::to_string(m.usedBytes));
    SetText(reg, "SwapTotalBytes", std::to_string(m.swapTotalBytes));
    SetText(reg, "SwapUsedBytes", std::to_string(m.swapTotalBytes - std::min(m.swapFreeBytes, m.swapTotalBytes)));
    const uint64_t percent = m.totalBytes ? (m.usedBytes * 100 + m.totalBytes / 2) / m.totalBytes : 0;
    SetNumber(reg, "UsedPercent", static_cast<unsigned>(std::min<uint64_t>(percent, 100)));
}

const std::string kReceivedPacketRate = std::string(tarvdmod::net::kReceivedPackets) + tarvdmod::net::kPerSecond;
const std::string kSentPacketRate = std::string(tarvdmod::net::kSentPackets) + tarvdmod::net::kPerSecond;

/// Packets and errors, beside the byte counters.
void WriteCounters(CRegistry& reg, const perfmon::InterfaceFigures& f)
{
    namespace net = tarvdmod::net;
    SetText(reg, net::kReceivedPackets, std::to_string(f.receivedPackets));
    SetText(reg, net::kSentPackets, std::to_string(f.sentPackets));
    SetText(reg, net::kReceivedErrors, std::to_string(f.receivedErrors));
    SetText(reg, net::kSentErrors, std::to_string(f.sentErrors));
}

/// A received and a sent rate, written only when both are known.
void WriteRatePair(CRegistry& reg, const char* receivedName, const std::optional<uint64_t>& received,
                   const char* sentName, const std::optional<uint64_t>& sent)
{
    if (!received || !sent)
        return;
    SetText(reg, receivedName, std::to_string(*received));
    SetText(reg, sentName, std::to_string(*sent));
}

/// Every interface under its own name; those gone since are removed.  A
/// link speed the kernel does not know is left out, not written as 0.
void WriteInterfaceFigures(CRegistry& reg, const PerfState& st)
{
    if (reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, kInterfacesKey) != 0)
        return;
    CRegistryNode* parent = reg.GetKey();
    for (const std::string& name : tarvdmod::SubKeyNames(reg)) {
        auto present = [&](const perfmon::InterfaceFigures& f) { return f.name == name; };
        if (std::none_of(st.links.begin(), st.links.end(), present))
            reg.DeleteKey(name.c_str());
    }
    for (const auto& f : st.links) {
        // A name the registry cannot hold (the kernel allows nearly any
        // character) is skipped; the refusal is traced by the registry.
        if (reg.CreateKey(parent, f.name.c_str()) != 0)
            continue;
        SetText(reg, "ReceivedBytes", std::to_string(f.receivedBytes));
        SetText(reg, "SentBytes", std::to_string(f.sentBytes));
        WriteCounters(reg, f);
        if (auto it = st.rates.find(f.name); it != st.rates.end()) {
            WriteRatePair(reg, "ReceivedBytesPerSecond", it->second.receivedBytes, "SentBytesPerSecond",
                          it->second.sentBytes);
            WriteRatePair(reg, kReceivedPacketRate.c_str(), it->second.receivedPackets, kSentPacketRate.c_str(),
                          it->second.sentPackets);
        }
        if (f.speedMbps)
            SetNumber(reg, "LinkSpeedMbps", *f.speedMbps);
        else
            reg.DeleteValue("LinkSpeedMbps");  // 22 when there is none: nothing changes
    }
}

/// One update: every figure with one handle, so the tree is saved once
/// per publication (and not at all when nothing changed).
void Publish(PerfState& st)
{
    CPerfMon& mon = *st.monitor;
    CRegistry reg;
    WriteGroup(reg, mon, kSystemKey, kSystemFigures);
    WriteGroup(reg, mon, kMemoryKey, kMemoryFigures);
    unsigned interfaces = mon.GetNumberInstances(CPerfMon::PERF_MONITOR_NETWORK);
    for (unsigned i = 0; i < interfaces; ++i) {
        std::string key = std::string(kNetworkKey) + "\\" + std::to_string(i);
        WriteGroup(reg, mon, key.c_str(), kNetworkFigures, static_cast<int>(i));
        if (i < st.interfaces.size())
            SetText(reg, "Name", st.interfaces[i]);
    }
    WriteGroup(reg, mon, kProcessesKey, kProcessFigures);
    WriteMemoryFigures(reg, st);
    WriteInterfaceFigures(reg, st);
    if (reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, kPerformanceKey) == 0) {
        SetNumber(reg, "PeriodMs", st.periodMs);
        SetNumber(reg, "Updates", st.updates.load() + 1);
        SetText(reg, "LastUpdate", tarvdmod::IsoTimeUtc());
    }
    ++st.updates;
}

/// Drops the interface keys of an earlier run: the numbering may differ.
void ClearNetworkKeys()
{
    CRegistry reg;
    if (reg.Open(kPerformanceKey, CRegistry::HKEY_LOCAL_MACHINE) == 0) {
        reg.DeleteKey("Network");  // 22 when there is none: nothing changes
        reg.DeleteKey("Interfaces");
    }
}

void PerfLoop(PerfState& st)
{
    ClearNetworkKeys();
    CNetworkInterfaceTable table(st.procRoot);
    int count = table.GetNumberInterfaces();
    if (count != perfmon::kNoInterfaces) {
        for (int i = 0; i < count; ++i) {
            std::string name;
            st.interfaces.push_back(table.GetInterfaceName(i, name) ? name : std::string());
        }
    }
    if (st.stop.Wait(0) != TR_WAIT_TIMEOUT)
        return;
    if (st.monitor->StartMonitoring(kMonitorTypes, st.periodMs) == 0) {
        ReportFailure(SysLogTraces::SL_ERR, "\nPerfModule          : ## ERROR! performance monitoring could not be started (proc root %s)",
                  st.procRoot.c_str());
        return;
    }
    DBG_PRINT(3, "\nPerfModule          : monitoring %zu network interface(s), period %u ms", st.interfaces.size(),
              st.periodMs);
    // The monitor samples on its own thread with the same period; the
    // figures are taken right after, a period later each time, and
    // published at once and then every publishSeconds.
    const auto interval = std::chrono::seconds(st.publishSeconds);
    std::optional<std::chrono::steady_clock::time_point> last;
    do {
        const auto now = std::chrono::steady_clock::now();
        ReadLinks(st);
        if (!st.noNewWork.load() && (!last || now - *last >= interval)) {
            Publish(st);
            last = now;
        }
    } while (st.stop.Wait(st.periodMs) == TR_WAIT_TIMEOUT);
}

void* PerfThread(void* arg)
{
    // Nothing may leave the thread: an exception there would end the daemon.
    try {
        PerfLoop(*static_cast<PerfState*>(arg));
    } catch (const std::exception& e) {
        ReportFailure(SysLogTraces::SL_ERR, "\nPerfModule          : ## ERROR! update thread ended by an exception: %s", e.what());
    } catch (...) {
        ReportFailure(SysLogTraces::SL_ERR, "\nPerfModule          : ## ERROR! update thread ended by an exception");
    }
    return nullptr;
}

int Load(const TarvdModuleConfig* config)
{
    if (g_State)
        return 1;
    auto st = std::make_unique<PerfState>();
    bool bad = false;
    st->periodMs = static_cast<unsigned>(tarvdmod::ConfigNumber(config, "PeriodMs", kDefaultPeriodMs, 100, 3600000, &bad));
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nPerfModule          : ## WARNING! PeriodMs is not a number from 100 to 3600000, using %u",
                  st->periodMs);
    bad = false;
    st->historyLength =
        static_cast<unsigned>(tarvdmod::ConfigNumber(config, "HistoryLength", kDefaultHistory, 1, 100000, &bad));
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nPerfModule          : ## WARNING! HistoryLength is not a number from 1 to 100000, using %u",
                  st->historyLength);
    bad = false;
    st->publishSeconds = static_cast<unsigned>(
        tarvdmod::ConfigNumber(config, "PublishSeconds", kDefaultPublishSeconds, 0, kMaxPublishSeconds, &bad));
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nPerfModule          : ## WARNING! PublishSeconds is not a number from 0 to %u, using %u",
                  kMaxPublishSeconds, st->publishSeconds);
    if (const char* root = tarvdmod::ConfigText(config, "ProcRoot"); root && *root)
        st->procRoot = root;
    if (const char* root = tarvdmod::ConfigText(config, "SysRoot"); root && *root)
        st->sysRoot = root;
    st->runMode = config->runMode;
    DBG_PRINT(2,
              "\nPerfModule          : loaded from %s (run mode %u, period %u ms, history %u, published every %u s, "
              "proc root %s)",
              config->configFile ? config->configFile : "", st->runMode, st->periodMs, st->historyLength,
              st->publishSeconds, st->procRoot.c_str());
    g_State = std::move(st);
    return 1;
}

int Start()
{
    if (!g_State || g_State->running)
        return g_State != nullptr;
    PerfState& st = *g_State;
    st.stop.Reset();
    st.noNewWork = false;
    st.interfaces.clear();
    st.links.clear();
    st.rates.clear();
    st.monitor = std::make_unique<CPerfMon>(st.historyLength);
    st.monitor->SetProcRoot(st.procRoot);
    // Starting the monitor takes two samples a quarter second apart: that
    // is done on the module's thread, so start() returns at once.
    if (!tarvdmod::StartWorker(st.thread, PerfThread, &st, "PerfModule", "perf-registry", "update thread")) {
        st.monitor.reset();
        return 0;
    }
    st.running = true;
    return 1;
}

void Stop()
{
    if (!g_State || !g_State->running)
        return;
    PerfState& st = *g_State;
    st.noNewWork = true;
    st.stop.Set();
    st.thread.WaitForTermination(TR_INFINITE);
    st.monitor->StopMonitoring();
    st.monitor.reset();
    st.running = false;
    DBG_PRINT(2, "\nPerfModule          : stopped after %u update(s)", st.updates.load());
}

void Notify(uint32_t event, const void* data)
{
    if (!g_State)
        return;
    if (event == TARVD_EVENT_DAEMON_STOPPING)
        g_State->noNewWork = true;
    tarvdmod::TraceNotification("PerfModule", event, data, ", no further updates");
}

void Unload()
{
    Stop();
    g_State.reset();
    DBG_PRINT(2, "\nPerfModule          : unloaded");
}

const TarvdModuleV1 kModule = {TARVD_MODULE_ABI_VERSION, "perf", Load, Start, Stop, Notify, Unload};

} // namespace

extern "C" TARVD_MODULE_EXPORT const TarvdModuleV1* tarvd_module_v1()
{
    return &kModule;
}

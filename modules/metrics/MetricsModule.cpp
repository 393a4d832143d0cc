// Metrics module: serves the machine's and the agent's figures to a
// Prometheus server over HTTP (GET /metrics), and optionally writes the same
// page to a file for a node exporter's textfile collector.  See
// docs/metrics.md for the configuration and every metric.
#include <atomic>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "common/FileIO.h"
#include "framework/tarvd_module.h"
#include "modules/common/ModuleLifecycle.h"
#include "modules/common/ModuleSettings.h"
#include "modules/metrics/Collect.h"
#include "modules/metrics/Exposition.h"
#include "modules/metrics/MetricsServer.h"
#include "perfmon/PerfMonPaths.h"
#include "trace/CDebug.h"
#include "trace/CEvent.h"
#include "trace/CThread.h"
#include "trace/FailureReport.h"

namespace {

/// The port served unless the configuration names another.
constexpr unsigned kDefaultPort = 9479;
constexpr unsigned kDefaultMaxConnections = 16;
constexpr unsigned kDefaultTimeoutSeconds = 10;
constexpr unsigned kDefaultTextfileSeconds = 60;

struct MetricsState {
    metrics::ServerSettings server;
    std::string textfilePath;  // empty: no file
    unsigned textfileSeconds = kDefaultTextfileSeconds;
    std::unique_ptr<metrics::Collector> collector;
    metrics::MetricsServer http;
    CEvent stop{false, true, nullptr};
    CThread thread;
    bool writing = false;  // the file thread runs
    std::atomic<unsigned> scrapes{0};
};

std::unique_ptr<MetricsState> g_State;

std::string Page(MetricsState& st)
{
    ++st.scrapes;
    return metrics::Render(st.collector->Collect());
}

void WriteTextfile(MetricsState& st)
{
    const std::string page = Page(st);
    tarvd::AtomicWrite write;
    write.path = st.textfilePath;
    if (!write.Write(page.data(), page.size()))
        ReportFailure(SysLogTraces::SL_ERR, "\nMetricsModule       : ## ERROR! cannot write %s (step %d, errno=%d: %s)",
                      st.textfilePath.c_str(), static_cast<int>(write.failedStep), write.failedErrno,
                      strerror(write.failedErrno));
}

void* TextfileThread(void* arg)
{
    auto& st = *static_cast<MetricsState*>(arg);
    // Nothing may leave the thread: an exception there would end the daemon.
    try {
        do
            WriteTextfile(st);
        while (st.stop.Wait(st.textfileSeconds * 1000) == TR_WAIT_TIMEOUT);
    } catch (const std::exception& e) {
        ReportFailure(SysLogTraces::SL_ERR, "\nMetricsModule       : ## ERROR! file thread ended by an exception: %s", e.what());
    }
    return nullptr;
}

/// A number of the configuration; a bad one is reported and `fallback` used.
unsigned Setting(const TarvdModuleConfig* config, const char* key, unsigned fallback, unsigned low, unsigned high)
{
    bool bad = false;
    const auto value = static_cast<unsigned>(tarvdmod::ConfigNumber(config, key, fallback, low, high, &bad));
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nMetricsModule       : ## WARNING! %s is not a number from %u to %u, using %u",
                      key, low, high, value);
    return value;
}

int Load(const TarvdModuleConfig* config)
{
    if (g_State)
        return 1;
    auto st = std::make_unique<MetricsState>();
    if (const char* address = tarvdmod::ConfigText(config, "ListenAddress"); address && *address)
        st->server.address = address;
    // Port 0: any free port (the trace says which), for tests and trials.
    st->server.port = static_cast<uint16_t>(Setting(config, "Port", kDefaultPort, 0, 65535));
    st->server.maxConnections = Setting(config, "MaxConnections", kDefaultMaxConnections, 1, 1024);
    st->server.timeoutSeconds = Setting(config, "TimeoutSeconds", kDefaultTimeoutSeconds, 1, 3600);
    st->textfileSeconds = Setting(config, "TextfileSeconds", kDefaultTextfileSeconds, 1, 86400);
    if (const char* path = tarvdmod::ConfigText(config, "TextfilePath"); path && *path)
        st->textfilePath = path;
    std::string procRoot = perfmon::kDefaultProcRoot;
    if (const char* root = tarvdmod::ConfigText(config, "ProcRoot"); root && *root)
        procRoot = root;
    st->collector = std::make_unique<metrics::Collector>(procRoot, config->getModuleCounts);
    DBG_PRINT(2, "\nMetricsModule       : loaded from %s (listening on %s port %u, %u connection(s) at most%s%s)",
              config->configFile ? config->configFile : "", st->server.address.c_str(), st->server.port,
              st->server.maxConnections, st->textfilePath.empty() ? "" : ", file ", st->textfilePath.c_str());
    g_State = std::move(st);
    return 1;
}

int Start()
{
    if (!g_State)
        return 0;
    MetricsState& st = *g_State;
    if (st.http.Running())
        return 1;
    std::string error;
    if (!st.http.Start(st.server, [&st] { return Page(st); }, error)) {
        ReportFailure(SysLogTraces::SL_ERR, "\nMetricsModule       : ## ERROR! %s -> not started", error.c_str());
        return 0;
    }
    DBG_PRINT(2, "\nMetricsModule       : serving http://%s:%u/metrics", st.server.address.c_str(), st.http.Port());
    st.stop.Reset();
    if (!st.textfilePath.empty())
        st.writing = tarvdmod::StartWorker(st.thread, TextfileThread, &st, "MetricsModule", "metrics-file", "file thread");
    else
        DBG_PRINT(2, "\nMetricsModule       : started");
    return 1;
}

void Stop()
{
    if (!g_State)
        return;
    MetricsState& st = *g_State;
    st.stop.Set();
    if (st.writing)
        st.thread.WaitForTermination(TR_INFINITE);
    st.writing = false;
    const bool wasRunning = st.http.Running();
    st.http.Stop();
    if (wasRunning)
        DBG_PRINT(2, "\nMetricsModule       : stopped after %u page(s)", st.scrapes.load());
}

void Notify(uint32_t event, const void* data)
{
    if (g_State)
        tarvdmod::TraceNotification("MetricsModule", event, data, "");
}

void Unload()
{
    Stop();
    g_State.reset();
    DBG_PRINT(2, "\nMetricsModule       : unloaded");
}

const TarvdModuleV1 kModule = {TARVD_MODULE_ABI_VERSION, "metrics", Load, Start, Stop, Notify, Unload};

} // namespace

extern "C" TARVD_MODULE_EXPORT const TarvdModuleV1* tarvd_module_v1()
{
    return &kModule;
}

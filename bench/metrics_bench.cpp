// One scrape of the metrics module: building the page for a large machine
// (64 interfaces, 32 drives and volumes, 100 adapters), the same page over
// HTTP on loopback, and a scrape of this machine's live figures, beside a
// node exporter's own scrape of the same machine.
#include <benchmark/benchmark.h>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

#include "BenchSupport.h"
#include "metrics/MetricsTestSupport.h"
#include "modules/metrics/Collect.h"
#include "modules/metrics/MetricsServer.h"
#include "registry/CRegistry.h"

extern char** environ;

namespace {

const metrics::Snapshot& LargeMachine()
{
    static const metrics::Snapshot s = metricstest::Synthetic(64, 32, 100);
    return s;
}

/// GETs /metrics from `port` for each iteration; the page size as a counter.
void Scrape(benchmark::State& state, uint16_t port)
{
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string answer = metricstest::Get(port, "/metrics");
        if (answer.rfind("HTTP/1.1 200", 0) != 0) {
            state.SkipWithError("the scrape failed");
            break;
        }
        bytes = answer.size();
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

void BM_MetricsRender(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(metrics::Render(LargeMachine()));
}
BENCHMARK(BM_MetricsRender)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_MetricsHttpGet(benchmark::State& state)
{
    metrics::MetricsServer server;
    std::string error;
    if (!server.Start({}, [] { return metrics::Render(LargeMachine()); }, error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    Scrape(state, server.Port());
}
BENCHMARK(BM_MetricsHttpGet)->Unit(benchmark::kMicrosecond)->UseRealTime();

/// Points the registry at `dir` with a tree of its own (no inventory in it),
/// so that reading it finds a tree set up, as in the daemon.
void PrivateRegistry(const std::string& dir)
{
    CRegistry::SetRegistryDirectory(dir.c_str());
    {
        CRegistry reg;
        reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "SOFTWARE\\Tarvis");
    }
    CRegistry::SaveTree();
}

// This machine's own figures, gathered anew for every scrape.
void BM_MetricsScrapeLive(benchmark::State& state)
{
    benchsupport::TempDir dir;
    PrivateRegistry(dir.Path());
    metrics::Collector collector("/proc", nullptr);
    metrics::MetricsServer server;
    std::string error;
    if (server.Start({}, [&] { return metrics::Render(collector.Collect()); }, error))
        Scrape(state, server.Port());
    else
        state.SkipWithError(error.c_str());
    server.Stop();
    CRegistry::ResetForTests();
}
BENCHMARK(BM_MetricsScrapeLive)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Gathering this machine's figures alone, without the page or HTTP.
void BM_MetricsCollect(benchmark::State& state)
{
    benchsupport::TempDir dir;
    PrivateRegistry(dir.Path());
    metrics::Collector collector("/proc", nullptr);
    for (auto _ : state)
        benchmark::DoNotOptimize(collector.Collect());
    CRegistry::ResetForTests();
}
BENCHMARK(BM_MetricsCollect)->Unit(benchmark::kMicrosecond)->UseRealTime();

#ifdef TARVD_BENCH_NODE_EXPORTER
/// A free loopback port (bound, read back and released).
uint16_t FreePort()
{
    metrics::MetricsServer probe;
    std::string error;
    return probe.Start({}, [] { return std::string(); }, error) ? probe.Port() : 0;
}

void BM_RefNodeExporterScrape(benchmark::State& state)
{
    const uint16_t port = FreePort();
    const std::string listen = "--web.listen-address=127.0.0.1:" + std::to_string(port);
    char* const argv[] = {const_cast<char*>(TARVD_BENCH_NODE_EXPORTER), const_cast<char*>(listen.c_str()), nullptr};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, TARVD_BENCH_NODE_EXPORTER, &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0 || port == 0) {
        state.SkipWithError("the node exporter could not be started");
        return;
    }
    // Ready once it answers (a minute at most).
    bool ready = false;
    for (int i = 0; i < 600 && !(ready = metricstest::Get(port, "/metrics").rfind("HTTP/1.1 200", 0) == 0); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (ready)
        Scrape(state, port);
    else
        state.SkipWithError("the node exporter did not answer");
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}
BENCHMARK(BM_RefNodeExporterScrape)->Unit(benchmark::kMicrosecond)->UseRealTime();
#endif

} // namespace

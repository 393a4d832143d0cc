// Cost of one snapshot of the performance monitor against the machine's own
// /proc, beside a bare read and parse of the same three files.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "perfmon/CPerfMon.h"

namespace {

// A monitor whose histories exist but whose thread has ended (period 0), so
// that the benchmark alone takes snapshots.
void RunSnapshots(benchmark::State& state, int types)
{
    CPerfMon mon(60);
    if (mon.StartMonitoring(types, 0) == 0 && types != CPerfMon::PERF_MONITOR_CPU) {
        state.SkipWithError("nothing to monitor on this machine");
        return;
    }
    for (auto _ : state)
        mon.SnapshotData(types);
    mon.StopMonitoring();
}

void BM_PerfMonSnapshotAll(benchmark::State& state)
{
    RunSnapshots(state, CPerfMon::PERF_MONITOR_ALL);
}
BENCHMARK(BM_PerfMonSnapshotAll)->Unit(benchmark::kMicrosecond);

void BM_PerfMonSnapshotMemorySystemNetwork(benchmark::State& state)
{
    RunSnapshots(state, CPerfMon::PERF_MONITOR_MEMORY | CPerfMon::PERF_MONITOR_SYSTEM | CPerfMon::PERF_MONITOR_NETWORK);
}
BENCHMARK(BM_PerfMonSnapshotMemorySystemNetwork)->Unit(benchmark::kMicrosecond);

void BM_PerfMonSnapshotProcesses(benchmark::State& state)
{
    RunSnapshots(state, CPerfMon::PERF_MONITOR_PROCESSES);
}
BENCHMARK(BM_PerfMonSnapshotProcesses)->Unit(benchmark::kMicrosecond);

// Reference: open, read and parse /proc/meminfo, the first line of
// /proc/stat and /proc/net/dev with nothing around it.
size_t ReadAll(const char* path, char* buffer, size_t size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    size_t used = 0;
    ssize_t n;
    while (used + 1 < size && (n = read(fd, buffer + used, size - 1 - used)) > 0)
        used += static_cast<size_t>(n);
    close(fd);
    buffer[used] = '\0';
    return used;
}

void BM_BareProcReadParse(benchmark::State& state)
{
    static char buffer[65536];
    for (auto _ : state) {
        unsigned long long sum = 0, v[16];
        if (ReadAll("/proc/meminfo", buffer, sizeof buffer)) {
            for (const char* key : {"MemTotal:", "MemFree:", "SwapTotal:", "SwapFree:"}) {
                const char* p = strstr(buffer, key);
                if (p && sscanf(p + strlen(key), "%llu", &v[0]) == 1)
                    sum += v[0];
            }
        }
        if (ReadAll("/proc/stat", buffer, sizeof buffer) &&
            sscanf(buffer, "cpu %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3]) == 4)
            sum += v[0] + v[1] + v[2] + v[3];
        if (ReadAll("/proc/net/dev", buffer, sizeof buffer)) {
            for (char* line = strchr(buffer, '\n'); line; line = strchr(line + 1, '\n')) {
                char* colon = strchr(line, ':');
                char* end = strchr(line + 1, '\n');
                if (colon && (!end || colon < end) &&
                    sscanf(colon + 1, "%llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu %llu",
                           &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8], &v[9], &v[10], &v[11],
                           &v[12], &v[13], &v[14], &v[15]) == 16)
                    sum += v[0] + v[8];
            }
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_BareProcReadParse)->Unit(benchmark::kMicrosecond);

} // namespace

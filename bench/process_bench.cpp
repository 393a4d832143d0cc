// Starting a program: the process utilities against a bare posix_spawn +
// waitpid, from a small process and from one with a large resident set
// (starting a program must not get slower as the caller grows).
#include "daemon/CProcess.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kLargeResidentSet = 256u << 20;
constexpr const char* kProgram = "/bin/true";

// 256 MB allocated and touched, so that it is resident while the case runs.
std::unique_ptr<char[]> g_Ballast;

void SetupLarge(const benchmark::State&)
{
    g_Ballast.reset(new char[kLargeResidentSet]);
    memset(g_Ballast.get(), 0x5a, kLargeResidentSet);
    benchmark::DoNotOptimize(g_Ballast.get());
}
void TeardownLarge(const benchmark::State&) { g_Ballast.reset(); }

void BM_ProcessExecuteCmd(benchmark::State& state)
{
    for (auto _ : state)
        if (!CProcess::ExecuteCmd(kProgram))
            state.SkipWithError("ExecuteCmd failed");
}
void BM_ProcessExecuteCmdSmall(benchmark::State& state) { BM_ProcessExecuteCmd(state); }
void BM_ProcessExecuteCmdLarge(benchmark::State& state) { BM_ProcessExecuteCmd(state); }

void BM_RefPosixSpawn(benchmark::State& state)
{
    char* const argv[] = {const_cast<char*>(kProgram), nullptr};
    for (auto _ : state) {
        pid_t pid = -1;
        if (posix_spawn(&pid, kProgram, nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
}
void BM_RefPosixSpawnSmall(benchmark::State& state) { BM_RefPosixSpawn(state); }
void BM_RefPosixSpawnLarge(benchmark::State& state) { BM_RefPosixSpawn(state); }

BENCHMARK(BM_ProcessExecuteCmdSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_RefPosixSpawnSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ProcessExecuteCmdLarge)
    ->Setup(SetupLarge)
    ->Teardown(TeardownLarge)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK(BM_RefPosixSpawnLarge)->Setup(SetupLarge)->Teardown(TeardownLarge)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

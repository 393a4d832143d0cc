// One trace entry: the project's ring buffer and log file against a logging
// library's file sink and against the floor of any ring-buffer trace (one
// snprintf and one memcpy into a shared mapping).
#include "BenchSupport.h"

#include "common/UniqueHandle.h"
#include "trace/CDebug.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

#ifdef TARVD_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

// About 60 characters with one integer, in the house style of trace lines.
#define BENCH_TRACE_TEXT "CTraceBench         : processed entry number %d of the batch"
constexpr const char* kTraceFormat = "\n" BENCH_TRACE_TEXT;

// One CDebug of the benchmark's own, configured like a program with its
// trace configuration directory and environment, writing into a temporary
// trace directory.
class TraceRig {
public:
    enum Kind { RING_MEMORY, RING_NO_MEMORY, LOG_MEMORY, LOG_NO_MEMORY };

    explicit TraceRig(Kind kind)
    {
        const char* name = kind == RING_MEMORY      ? "benchmem"
                           : kind == RING_NO_MEMORY ? "benchnomem"
                           : kind == LOG_MEMORY     ? "benchlogmem"
                                                    : "benchlognomem";
        const bool memory = kind == RING_MEMORY || kind == LOG_MEMORY;
        const bool ring = kind == RING_MEMORY || kind == RING_NO_MEMORY;
        std::string config = m_Dir.Sub("config");
        std::filesystem::create_directories(config);
        std::filesystem::create_directories(m_Dir.Sub("trace"));
        benchsupport::WriteFile(config + "/bench_trace.ini", std::string("[") + name + "]\nMemoryTracesFlag=" +
                                                                  (memory ? "1" : "0") + "\n[EndOfFile]\n");
        benchsupport::ScopedEnv dir("TR_LOG_RINGBUF_DIR", m_Dir.Sub("trace").c_str());
        benchsupport::ScopedEnv level("TR_LOG_DEBUG_LEVEL", "3");
        // Ring: the smallest ring (1 MiB; 4 MiB during start-up, where the
        // entries go here).  Log file: no ring, so PrintAlways writes the
        // log file only, flushed after every entry, with its default wrap.
        benchsupport::ScopedEnv factor("TraceFileLimit", ring ? "1" : nullptr);
        benchsupport::ScopedEnv weight("TR_LOG_RINGBUF_WEIGHT", ring ? "1" : nullptr);
        benchsupport::ScopedEnv maxSize("TR_LOG_FILE_MAX_SIZE", nullptr);
        m_Debug = std::make_unique<CDebug>();
        m_Debug->SetSysLogFunction([](int, const char*) {});
        m_Debug->SetConfigDirectory(config.c_str());
        m_Debug->Init(name);
        m_Ok = ring ? m_Debug->GetTarget() == CDebug::TARGET_RINGBUFFER : m_Debug->GetLogFilePath()[0] != '\0';
    }

    CDebug& Debug() { return *m_Debug; }
    bool Ok() const { return m_Ok; }

private:
    benchsupport::TempDir m_Dir;
    std::unique_ptr<CDebug> m_Debug;
    bool m_Ok = false;
};

std::unique_ptr<TraceRig> g_Rig;
std::atomic<int> g_Counter{0};

template <TraceRig::Kind K>
void SetupRig(const benchmark::State&)
{
    g_Rig = std::make_unique<TraceRig>(K);
}
void TeardownRig(const benchmark::State&) { g_Rig.reset(); }

void BM_TraceRing(benchmark::State& state)
{
    if (!g_Rig || !g_Rig->Ok()) {
        state.SkipWithError("trace ring buffer could not be created");
        return;
    }
    CDebug& debug = g_Rig->Debug();
    int i = state.thread_index() * 1000000;
    for (auto _ : state)
        debug.Print(3, kTraceFormat, i++);
    state.SetItemsProcessed(state.iterations());
}

void BM_TraceLogFile(benchmark::State& state)
{
    if (!g_Rig || !g_Rig->Ok()) {
        state.SkipWithError("trace log file could not be opened");
        return;
    }
    CDebug& debug = g_Rig->Debug();
    int i = 0;
    for (auto _ : state)
        debug.PrintAlways(kTraceFormat, i++);
    state.SetItemsProcessed(state.iterations());
}

void BM_TraceRingMemory(benchmark::State& state) { BM_TraceRing(state); }
void BM_TraceRingNoMemory(benchmark::State& state) { BM_TraceRing(state); }
void BM_TraceLogFileMemory(benchmark::State& state) { BM_TraceLogFile(state); }
void BM_TraceLogFileNoMemory(benchmark::State& state) { BM_TraceLogFile(state); }

BENCHMARK(BM_TraceRingMemory)
    ->Setup(SetupRig<TraceRig::RING_MEMORY>)
    ->Teardown(TeardownRig)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_TraceRingNoMemory)
    ->Setup(SetupRig<TraceRig::RING_NO_MEMORY>)
    ->Teardown(TeardownRig)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_TraceLogFileMemory)->Setup(SetupRig<TraceRig::LOG_MEMORY>)->Teardown(TeardownRig)->UseRealTime();
BENCHMARK(BM_TraceLogFileNoMemory)->Setup(SetupRig<TraceRig::LOG_NO_MEMORY>)->Teardown(TeardownRig)->UseRealTime();

// ---- Floor: snprintf + memcpy into a shared mapping ----------------------------

class FloorRig {
public:
    static constexpr size_t kSize = 4u << 20;
    FloorRig()
    {
        UniqueFd fd(open(m_Dir.Sub("floor").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!fd || ftruncate(fd.Get(), kSize) != 0)
            return;
        void* p = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0);
        if (p != MAP_FAILED)
            m_Map = UniqueMapping(p, kSize);
    }
    char* Data() { return static_cast<char*>(m_Map.Get()); }
    bool Ok() const { return m_Map.Get() != nullptr; }

private:
    benchsupport::TempDir m_Dir;
    UniqueMapping m_Map;
};

std::unique_ptr<FloorRig> g_Floor;
std::atomic<size_t> g_FloorPos{0};

void BM_FloorSnprintfMmap(benchmark::State& state)
{
    if (!g_Floor || !g_Floor->Ok()) {
        state.SkipWithError("no mapping");
        return;
    }
    char* map = g_Floor->Data();
    char line[256];
    int i = 0;
    for (auto _ : state) {
        int n = snprintf(line, sizeof(line), BENCH_TRACE_TEXT "\n", i++);
        size_t len = static_cast<size_t>(n);
        // Threads reserve their slot; the mapping is written round.
        size_t pos = g_FloorPos.fetch_add(len, std::memory_order_relaxed) % (FloorRig::kSize - sizeof(line));
        memcpy(map + pos, line, len);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FloorSnprintfMmap)
    ->Setup([](const benchmark::State&) { g_Floor = std::make_unique<FloorRig>(); })
    ->Teardown([](const benchmark::State&) { g_Floor.reset(); })
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();

// ---- Reference: a logging library's file sink ----------------------------------

#ifdef TARVD_BENCH_HAVE_SPDLOG
class SpdRig {
public:
    explicit SpdRig(bool flushEach)
    {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(m_Dir.Sub("spd.log"), true);
        m_Logger = std::make_shared<spdlog::logger>("bench", sink);
        m_Logger->set_level(spdlog::level::trace);
        if (flushEach)
            m_Logger->flush_on(spdlog::level::trace);
        else
            m_Logger->flush_on(spdlog::level::off);
    }
    spdlog::logger& Logger() { return *m_Logger; }

private:
    benchsupport::TempDir m_Dir;
    std::shared_ptr<spdlog::logger> m_Logger;
};

std::unique_ptr<SpdRig> g_Spd;

void BM_RefSpdlog(benchmark::State& state)
{
    spdlog::logger& logger = g_Spd->Logger();
    int i = state.thread_index() * 1000000;
    for (auto _ : state)
        logger.info("CTraceBench         : processed entry number {} of the batch", i++);
    state.SetItemsProcessed(state.iterations());
}
void BM_RefSpdlogNoFlush(benchmark::State& state) { BM_RefSpdlog(state); }
void BM_RefSpdlogFlush(benchmark::State& state) { BM_RefSpdlog(state); }

BENCHMARK(BM_RefSpdlogNoFlush)
    ->Setup([](const benchmark::State&) { g_Spd = std::make_unique<SpdRig>(false); })
    ->Teardown([](const benchmark::State&) { g_Spd.reset(); })
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_RefSpdlogFlush)
    ->Setup([](const benchmark::State&) { g_Spd = std::make_unique<SpdRig>(true); })
    ->Teardown([](const benchmark::State&) { g_Spd.reset(); })
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
#endif

} // namespace

// kopperf: samples the machine's load with the agent's performance monitor
// for a while and prints the current and average usage percentages by group
// and instance.
#include "tools/common/JsonWriter.h"
#include "tools/common/ToolSupport.h"

#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/CPerfMon.h"
#include "perfmon/PerfMonPaths.h"
#include "trace/CDebug.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

CDebug Debug;

namespace {

constexpr unsigned kDefaultIntervalMs = 1000;
constexpr unsigned long long kMaxSeconds = 86400;
constexpr unsigned long long kMaxIntervalMs = 3600000;

volatile sig_atomic_t g_Stop = 0;
void OnSignal(int) { g_Stop = 1; }

const char* const kUsage =
    "Usage: kopperf [--seconds N] [--interval MS] [--proc DIR] [--json]\n"
    "Samples the system with the agent's performance monitor for N seconds\n"
    "(default 5; 0: only the two start-up samples) every MS milliseconds\n"
    "(default 1000) and prints current and average usage in percent:\n"
    "\n"
    "  system     0 usage (user + kernel), 1 idle, 2 user, 3 kernel time\n"
    "  memory     8 memory in use, 9 swap in use\n"
    "  network   10 received + sent, 11 sent, 12 received, of the link capacity\n"
    "             (per interface; exact for an interval of 1000 ms only)\n"
    "  processes 13 own processor time of one processor, 14 of all processors,\n"
    "            15 own resident memory of memory total, 16 own virtual size of\n"
    "            memory + swap, 17 own threads of the thread budget, 18 processes\n"
    "            of pid_max, 19 running processes per processor, 20 own open\n"
    "            descriptors of the limit\n"
    "\n"
    "Options:\n"
    "  --seconds N    sampling time (default 5)\n"
    "  --interval MS  sampling period in milliseconds (default 1000)\n"
    "  --proc DIR     read DIR instead of /proc (a captured or fake proc tree)\n"
    "  --json         output as JSON\n"
    "  --help         this text\n"
    "\n"
    "Exit status: 0 ok, 1 nothing could be sampled, 2 usage error.\n";

struct ValueInfo {
    int value;
    const char* name;
};

struct Group {
    const char* name;
    int type;
    std::vector<ValueInfo> values;
};

const std::vector<Group>& Groups()
{
    static const std::vector<Group> kGroups = {
        {"system", CPerfMon::PERF_MONITOR_SYSTEM, {{0, "usage"}, {1, "idle"}, {2, "user"}, {3, "kernel"}}},
        {"memory", CPerfMon::PERF_MONITOR_MEMORY, {{8, "memory"}, {9, "swap"}}},
        {"network", CPerfMon::PERF_MONITOR_NETWORK, {{10, "total"}, {11, "sent"}, {12, "received"}}},
        {"processes",
         CPerfMon::PERF_MONITOR_PROCESSES,
         {{13, "own-cpu"},
          {14, "own-cpu-all"},
          {15, "own-resident"},
          {16, "own-virtual"},
          {17, "own-threads"},
          {18, "process-count"},
          {19, "running"},
          {20, "own-descriptors"}}},
    };
    return kGroups;
}

void SleepMs(unsigned long long ms)
{
    struct timespec ts {static_cast<time_t>(ms / 1000), static_cast<long>((ms % 1000) * 1000000L)};
    nanosleep(&ts, nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("kopperf");
    unsigned long long seconds = 5, interval = kDefaultIntervalMs;
    bool json = false;
    std::string procRoot = perfmon::kDefaultProcRoot;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return tools::kExitOk;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--seconds" || a == "--interval" || a == "--proc") {
            if (i + 1 >= argc)
                return tools::UsageError("option %s needs a value", a.c_str());
            const char* v = argv[++i];
            if (a == "--proc") {
                procRoot = v;
            } else if (a == "--seconds") {
                if (!tools::ParseUnsigned(v, kMaxSeconds, seconds))
                    return tools::UsageError("--seconds needs a whole number from 0 to %llu", kMaxSeconds);
            } else if (!tools::ParseUnsigned(v, kMaxIntervalMs, interval) || interval == 0) {
                return tools::UsageError("--interval needs milliseconds from 1 to %llu", kMaxIntervalMs);
            }
        } else {
            return tools::UsageError("%s '%s'", a[0] == '-' ? "unknown option" : "unexpected argument", a.c_str());
        }
    }
    struct stat st {};
    if (stat(procRoot.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return tools::Fail("%s is not a directory", procRoot.c_str());

    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    unsigned history = static_cast<unsigned>(seconds * 1000 / interval + 4);
    CPerfMon monitor(history);
    monitor.SetProcRoot(procRoot);
    int types = CPerfMon::PERF_MONITOR_SYSTEM | CPerfMon::PERF_MONITOR_MEMORY | CPerfMon::PERF_MONITOR_NETWORK |
                CPerfMon::PERF_MONITOR_PROCESSES;
    if (monitor.StartMonitoring(types, static_cast<unsigned>(interval)) == 0)
        return tools::Fail("the performance monitor could not be started");
    for (unsigned long long waited = 0; waited < seconds * 1000 && !g_Stop; waited += 100)
        SleepMs(100);
    // Read everything before stopping: stopping destroys the histories.
    CNetworkInterfaceTable interfaces(procRoot);
    CJsonWriter w;
    w.BeginObject();
    w.Key("seconds").Unsigned(seconds);
    w.Key("interval_ms").Unsigned(interval);
    w.Key("proc_root").String(procRoot);
    w.Key("groups").BeginArray();
    bool anySample = false;
    if (!json)
        printf("%-10s %-10s %-18s %8s %8s\n", "group", "instance", "value", "current", "average");
    for (const Group& g : Groups()) {
        unsigned n = monitor.GetNumberInstances(g.type);
        w.BeginObject();
        w.Key("group").String(g.name);
        w.Key("instances").BeginArray();
        for (unsigned inst = 0; inst < n; ++inst) {
            std::optional<std::string> name;
            std::string ifName;
            if (g.type == CPerfMon::PERF_MONITOR_NETWORK && interfaces.GetInterfaceName(static_cast<int>(inst), ifName))
                name = ifName;
            unsigned samples = monitor.GetHistoryCount(g.type, static_cast<int>(inst));
            // Process samples are taken even when nothing of them can be
            // read, so only the other groups tell whether sampling worked.
            if (g.type != CPerfMon::PERF_MONITOR_PROCESSES)
                anySample = anySample || samples > 0;
            w.BeginObject();
            w.Key("instance").Unsigned(inst);
            w.Key("name").OptString(name);
            w.Key("samples").Unsigned(samples);
            w.Key("values").BeginArray();
            for (const ValueInfo& v : g.values) {
                unsigned char cur = 0, avg = 0;
                auto value = static_cast<CPerfMon::PerfMonitorValue>(v.value);
                bool haveCur = samples > 0 && monitor.GetCurrentPercent(value, cur, static_cast<int>(inst)) == 1;
                bool haveAvg = samples > 0 && monitor.GetAveragePercent(value, avg, static_cast<int>(inst)) == 1;
                w.BeginObject();
                w.Key("value").Number(v.value);
                w.Key("name").String(v.name);
                w.Key("current").OptUnsigned(haveCur ? std::optional<uint64_t>(cur) : std::nullopt);
                w.Key("average").OptUnsigned(haveAvg ? std::optional<uint64_t>(avg) : std::nullopt);
                w.EndObject();
                if (!json) {
                    std::string instText = name ? *name : std::to_string(inst);
                    std::string valueText = std::string(v.name) + " (" + std::to_string(v.value) + ")";
                    std::string c = haveCur ? std::to_string(cur) + "%" : "-";
                    std::string a = haveAvg ? std::to_string(avg) + "%" : "-";
                    printf("%-10s %-10s %-18s %8s %8s\n", g.name, instText.c_str(), valueText.c_str(), c.c_str(),
                           a.c_str());
                }
            }
            w.EndArray();
            w.EndObject();
        }
        w.EndArray();
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
    monitor.StopMonitoring();
    if (json)
        printf("%s\n", w.Text().c_str());
    fflush(stdout);
    if (!anySample)
        return tools::Fail("no samples could be taken from %s", procRoot.c_str());
    return tools::kExitOk;
}

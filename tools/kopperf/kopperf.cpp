// kopperf: samples the machine's load with the agent's performance monitor
// for a while and prints the current and average usage percentages by group
// and instance.
#include "tools/common/JsonWriter.h"
#include "tools/common/ToolSupport.h"

#include "modules/common/LinkFigures.h"

#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/CPerfMon.h"
#include "perfmon/HostFigures.h"
#include "perfmon/PerfMonPaths.h"
#include "trace/CDebug.h"

#include <chrono>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
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
// How often the wait looks for a new sample.
constexpr unsigned long long kPollMs = 20;
// More than any proc tree's stat file (a line per processor).
constexpr size_t kProcStatLimit = 4u << 20;

volatile sig_atomic_t g_Stop = 0;
void OnSignal(int) { g_Stop = 1; }

const char* const kUsage =
    "Usage: kopperf [--seconds N] [--interval MS] [--proc DIR] [--json]\n"
    "Samples the system with the agent's performance monitor for N seconds\n"
    "(default 5; 0: only the two start-up samples) every MS milliseconds\n"
    "(default 1000) and prints current and average usage in percent.  The\n"
    "time is rounded up to whole intervals (at least one when N is not 0).\n"
    "The text form prints a line per interval as it is sampled, then:\n"
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
    "  --sys DIR      read DIR instead of /sys (link speeds)\n"
    "  --json         one JSON document at the end (also on failure: an\n"
    "                 object with the member \"error\")\n"
    "  --help         this text\n"
    "  --version      the tool's version\n"
    "\n"
    "After the percentages, the figures free(1) and ip(8) show: memory used\n"
    "without the page cache (total - available), available memory, and for\n"
    "every interface its byte counters, its rates over the sampling time and\n"
    "its link speed (\"-\" when the kernel does not know it); then its packet\n"
    "counters and rates and its error counters.  On the machine itself these\n"
    "are the kernel's 64-bit counters (netlink); with --proc or --sys, the\n"
    "statistics file of that tree.\n"
    "\n"
    "Exit status: 0 ok, 1 DIR/stat unreadable or nothing sampled, 2 usage error.\n";

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

struct Options {
    unsigned long long seconds = 5;
    unsigned long long interval = kDefaultIntervalMs;
    bool json = false;
    std::string procRoot = perfmon::kDefaultProcRoot;
    std::string sysRoot = perfmon::kDefaultSysRoot;
};

/// Takes the value `v` of option `a`; kExitOk, or the usage error's code.
int TakeValue(const std::string& a, const char* v, Options& o)
{
    if (a == "--proc") {
        o.procRoot = v;
    } else if (a == "--sys") {
        o.sysRoot = v;
    } else if (a == "--seconds") {
        if (!tools::ParseUnsigned(v, kMaxSeconds, o.seconds))
            return tools::UsageError("--seconds needs a whole number from 0 to %llu", kMaxSeconds);
    } else if (!tools::ParseUnsigned(v, kMaxIntervalMs, o.interval) || o.interval == 0) {
        return tools::UsageError("--interval needs milliseconds from 1 to %llu", kMaxIntervalMs);
    }
    return tools::kExitOk;
}

/// false when the program ends here with `exitCode` (help, usage error).
bool ParseArguments(int argc, char** argv, Options& o, int& exitCode)
{
    exitCode = tools::kExitOk;
    for (int i = 1; i < argc && exitCode == tools::kExitOk; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return false;
        } else if (a == "--version") {
            tools::PrintVersion();
            return false;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--seconds" || a == "--interval" || a == "--proc" || a == "--sys") {
            if (i + 1 >= argc)
                exitCode = tools::UsageError("option %s needs a value", a.c_str());
            else
                exitCode = TakeValue(a, argv[++i], o);
        } else {
            exitCode = tools::UsageError("%s '%s'", a[0] == '-' ? "unknown option" : "unexpected argument", a.c_str());
        }
    }
    return exitCode == tools::kExitOk;
}

void CatchStopSignals()
{
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

/// Writes the figures of a running monitor as a table on standard output
/// and, at the same time, as a JSON document.
class CReport {
public:
    CReport(CPerfMon& monitor, const Options& o)
        : m_Monitor(monitor), m_Interfaces(o.procRoot), m_ProcRoot(o.procRoot), m_Json(o.json)
    {
        m_Writer.BeginObject();
        m_Writer.Key("seconds").Unsigned(o.seconds);
        m_Writer.Key("interval_ms").Unsigned(o.interval);
        m_Writer.Key("proc_root").String(o.procRoot);
        m_Writer.Key("groups").BeginArray();
        if (!m_Json)
            printf("%-10s %-10s %-18s %8s %8s\n", "group", "instance", "value", "current", "average");
    }

    void AddGroup(const Group& g)
    {
        unsigned n = m_Monitor.GetNumberInstances(g.type);
        m_Writer.BeginObject();
        m_Writer.Key("group").String(g.name);
        m_Writer.Key("instances").BeginArray();
        for (unsigned inst = 0; inst < n; ++inst)
            AddInstance(g, inst);
        m_Writer.EndArray();
        m_Writer.EndObject();
    }

    /// Memory and every interface, as free(1) and ip(8) show them; the rates
    /// are those between `before` and `after`, `elapsedMs` apart.
    void AddHostFigures(const std::vector<perfmon::InterfaceFigures>& before,
                        const std::vector<perfmon::InterfaceFigures>& after, uint64_t elapsedMs)
    {
        m_Writer.EndArray();
        perfmon::MemoryFigures m;
        m_Writer.Key("memory");
        if (perfmon::ReadMemoryFigures(m_ProcRoot, m)) {
            m_Writer.BeginObject();
            m_Writer.Key("total_bytes").Unsigned(m.totalBytes);
            m_Writer.Key("available_bytes").Unsigned(m.availableBytes);
            m_Writer.Key("used_bytes").Unsigned(m.usedBytes);
            m_Writer.Key("swap_total_bytes").Unsigned(m.swapTotalBytes);
            m_Writer.Key("swap_free_bytes").Unsigned(m.swapFreeBytes);
            m_Writer.EndObject();
            if (!m_Json)
                printf("\nmemory: total %llu B, used %llu B (without cache), available %llu B\n",
                       static_cast<unsigned long long>(m.totalBytes), static_cast<unsigned long long>(m.usedBytes),
                       static_cast<unsigned long long>(m.availableBytes));
        } else {
            m_Writer.Null();
        }
        m_Writer.Key("interfaces").BeginArray();
        if (!m_Json && !after.empty())
            printf("\n%-16s %20s %20s %14s %14s %10s\n", "interface", "received B", "sent B", "received B/s",
                   "sent B/s", "speed Mb/s");
        std::string packetRows;
        for (const auto& f : after)
            AddInterface(f, before, elapsedMs, packetRows);
        if (!m_Json && !packetRows.empty())
            printf("\n%-16s %20s %20s %14s %14s %12s %12s\n%s", "interface", "received packets", "sent packets",
                   "received p/s", "sent p/s", "rx errors", "tx errors", packetRows.c_str());
    }

    /// Ends the document; the JSON form goes out here.
    void Finish()
    {
        m_Writer.EndArray();
        m_Writer.EndObject();
        if (m_Json)
            printf("%s\n", m_Writer.Text().c_str());
        fflush(stdout);
    }

private:
    /// The JSON member and the row of the byte table of one interface; its
    /// row of the packet table is appended to `packetRows`.
    void AddInterface(const perfmon::InterfaceFigures& f, const std::vector<perfmon::InterfaceFigures>& before,
                      uint64_t elapsedMs, std::string& packetRows)
    {
        const tarvdmod::LinkRates rates = tarvdmod::RatesSince(before, f, elapsedMs);
        const std::optional<uint64_t>& rx = rates.receivedBytes;
        const std::optional<uint64_t>& tx = rates.sentBytes;
        m_Writer.BeginObject();
        m_Writer.Key("name").String(f.name);
        m_Writer.Key("received_bytes").Unsigned(f.receivedBytes);
        m_Writer.Key("sent_bytes").Unsigned(f.sentBytes);
        m_Writer.Key("received_bytes_per_second").OptUnsigned(rx);
        m_Writer.Key("sent_bytes_per_second").OptUnsigned(tx);
        m_Writer.Key("link_speed_mbps").OptUnsigned(f.speedMbps ? std::optional<uint64_t>(*f.speedMbps) : std::nullopt);
        m_Writer.Key("received_packets").Unsigned(f.receivedPackets);
        m_Writer.Key("sent_packets").Unsigned(f.sentPackets);
        m_Writer.Key("received_packets_per_second").OptUnsigned(rates.receivedPackets);
        m_Writer.Key("sent_packets_per_second").OptUnsigned(rates.sentPackets);
        m_Writer.Key("received_errors").Unsigned(f.receivedErrors);
        m_Writer.Key("sent_errors").Unsigned(f.sentErrors);
        m_Writer.EndObject();
        if (m_Json)
            return;
        auto text = [](std::optional<uint64_t> v) { return v ? std::to_string(*v) : std::string("-"); };
        char row[256];
        snprintf(row, sizeof row, "%-16s %20llu %20llu %14s %14s %12llu %12llu\n", f.name.c_str(),
                 static_cast<unsigned long long>(f.receivedPackets), static_cast<unsigned long long>(f.sentPackets),
                 text(rates.receivedPackets).c_str(), text(rates.sentPackets).c_str(),
                 static_cast<unsigned long long>(f.receivedErrors), static_cast<unsigned long long>(f.sentErrors));
        packetRows += row;
        printf("%-16s %20llu %20llu %14s %14s %10s\n", f.name.c_str(),
               static_cast<unsigned long long>(f.receivedBytes), static_cast<unsigned long long>(f.sentBytes),
               text(rx).c_str(), text(tx).c_str(),
               text(f.speedMbps ? std::optional<uint64_t>(*f.speedMbps) : std::nullopt).c_str());
    }

    void AddInstance(const Group& g, unsigned inst)
    {
        std::optional<std::string> name;
        std::string ifName;
        if (g.type == CPerfMon::PERF_MONITOR_NETWORK && m_Interfaces.GetInterfaceName(static_cast<int>(inst), ifName))
            name = ifName;
        unsigned samples = m_Monitor.GetHistoryCount(g.type, static_cast<int>(inst));
        m_Writer.BeginObject();
        m_Writer.Key("instance").Unsigned(inst);
        m_Writer.Key("name").OptString(name);
        m_Writer.Key("samples").Unsigned(samples);
        m_Writer.Key("values").BeginArray();
        const std::string instText = name ? *name : std::to_string(inst);
        for (const ValueInfo& v : g.values)
            AddValue(g, v, static_cast<int>(inst), samples > 0, instText);
        m_Writer.EndArray();
        m_Writer.EndObject();
    }

    void AddValue(const Group& g, const ValueInfo& v, int inst, bool sampled, const std::string& instText)
    {
        unsigned char cur = 0, avg = 0;
        auto value = static_cast<CPerfMon::PerfMonitorValue>(v.value);
        bool haveCur = sampled && m_Monitor.GetCurrentPercent(value, cur, inst) == 1;
        bool haveAvg = sampled && m_Monitor.GetAveragePercent(value, avg, inst) == 1;
        m_Writer.BeginObject();
        m_Writer.Key("value").Number(v.value);
        m_Writer.Key("name").String(v.name);
        m_Writer.Key("current").OptUnsigned(haveCur ? std::optional<uint64_t>(cur) : std::nullopt);
        m_Writer.Key("average").OptUnsigned(haveAvg ? std::optional<uint64_t>(avg) : std::nullopt);
        m_Writer.EndObject();
        if (m_Json)
            return;
        std::string valueText = std::string(v.name) + " (" + std::to_string(v.value) + ")";
        std::string c = haveCur ? std::to_string(cur) + "%" : "-";
        std::string a = haveAvg ? std::to_string(avg) + "%" : "-";
        printf("%-10s %-10s %-18s %8s %8s\n", g.name, instText.c_str(), valueText.c_str(), c.c_str(), a.c_str());
    }

    CPerfMon& m_Monitor;
    CNetworkInterfaceTable m_Interfaces;
    std::string m_ProcRoot;
    CJsonWriter m_Writer;
    bool m_Json;
};

/// How many whole intervals the run samples: the time asked for rounded up
/// to whole intervals, so that an interval longer than the time still
/// gives one sample after it (as vmstat's DELAY does); 0 for no time.
unsigned long long IntervalCount(const Options& o)
{
    return (o.seconds * 1000 + o.interval - 1) / o.interval;
}

/// Refuses a proc tree the monitor cannot sample before anything is
/// printed: without its processor figures every percentage would be
/// unknown and the process rows would read as idle.
bool CheckProcRoot(const std::string& procRoot)
{
    struct stat st {};
    if (stat(procRoot.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        tools::Fail("%s is not a directory", procRoot.c_str());
        return false;
    }
    std::string content;
    const std::string statPath = procRoot + "/stat";
    if (!tools::ReadFileBounded(statPath, kProcStatLimit, content)) {
        tools::Fail("cannot read %s: %s", statPath.c_str(), strerror(errno));
        return false;
    }
    return true;
}

/// Whether a group other than the processes had a sample (process samples
/// are taken even when nothing of them can be read).
bool AnySample(const CPerfMon& monitor)
{
    for (const Group& g : Groups())
        for (unsigned inst = 0; g.type != CPerfMon::PERF_MONITOR_PROCESSES && inst < monitor.GetNumberInstances(g.type);
             ++inst)
            if (monitor.GetHistoryCount(g.type, static_cast<int>(inst)) > 0)
                return true;
    return false;
}

/// One line a sample, written and flushed as the monitor takes it, like
/// vmstat's: the current system and memory percentages.
class CIntervalLines {
public:
    /// `print`: false in JSON mode, where the samples are only counted.
    CIntervalLines(CPerfMon& monitor, bool print) : m_Monitor(monitor), m_Seen(Count()), m_Print(print) {}

    /// The samples taken since the last call; a line for the newest.
    unsigned Poll()
    {
        unsigned n = Count();
        unsigned fresh = n > m_Seen ? n - m_Seen : 0;
        m_Seen = n;
        if (fresh == 0 || !m_Print)
            return fresh;
        if (!m_HeaderDone)
            printf("%7s %7s %7s %7s %7s %7s\n", "usage", "idle", "user", "kernel", "memory", "swap");
        m_HeaderDone = true;
        for (int v : {0, 1, 2, 3, 8, 9}) {
            unsigned char cur = 0;
            bool have = m_Monitor.GetCurrentPercent(static_cast<CPerfMon::PerfMonitorValue>(v), cur, 0) == 1;
            printf("%7s%s", have ? (std::to_string(cur) + "%").c_str() : "-", v == 9 ? "\n" : " ");
        }
        fflush(stdout);
        return fresh;
    }

    /// Separates the lines from the summary that follows.
    void End()
    {
        if (m_HeaderDone)
            printf("\n");
    }

private:
    // Memory is sampled every interval, whether the figures changed or not.
    unsigned Count() const { return m_Monitor.GetHistoryCount(CPerfMon::PERF_MONITOR_MEMORY, 0); }

    CPerfMon& m_Monitor;
    unsigned m_Seen;
    bool m_Print;
    bool m_HeaderDone = false;
};

/// Waits for `intervals` samples after the start-up ones, writing a line for
/// each in text mode; ends early on SIGINT/SIGTERM.  A sample that does not
/// come (a stalled proc file) ends the wait one interval late.
void SampleIntervals(CPerfMon& monitor, const Options& o, unsigned long long intervals)
{
    CIntervalLines lines(monitor, !o.json);
    const unsigned long long limitMs = (intervals + 1) * o.interval;
    unsigned long long taken = 0;
    for (unsigned long long waited = 0; taken < intervals && waited < limitMs && !g_Stop; waited += kPollMs) {
        SleepMs(kPollMs);
        taken += lines.Poll();
    }
    lines.End();
}

int Run(const Options& o)
{
    if (!CheckProcRoot(o.procRoot))
        return tools::kExitFailure;
    CatchStopSignals();

    const unsigned long long intervals = IntervalCount(o);
    CPerfMon monitor(static_cast<unsigned>(intervals + 4));
    monitor.SetProcRoot(o.procRoot);
    int types = CPerfMon::PERF_MONITOR_SYSTEM | CPerfMon::PERF_MONITOR_MEMORY | CPerfMon::PERF_MONITOR_NETWORK |
                CPerfMon::PERF_MONITOR_PROCESSES;
    if (monitor.StartMonitoring(types, static_cast<unsigned>(o.interval)) == 0)
        return tools::Fail("the performance monitor could not be started");
    std::vector<perfmon::InterfaceFigures> before, after;
    tarvdmod::ReadLinkFigures(o.procRoot, o.sysRoot, before);
    const auto start = std::chrono::steady_clock::now();
    SampleIntervals(monitor, o, intervals);
    tarvdmod::ReadLinkFigures(o.procRoot, o.sysRoot, after);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (!AnySample(monitor)) {
        monitor.StopMonitoring();
        return tools::Fail("no samples could be taken from %s", o.procRoot.c_str());
    }
    // Read everything before stopping: stopping destroys the histories.
    CReport report(monitor, o);
    for (const Group& g : Groups())
        report.AddGroup(g);
    report.AddHostFigures(before, after, static_cast<uint64_t>(elapsed.count()));
    monitor.StopMonitoring();
    report.Finish();
    return tools::kExitOk;
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("kopperf");
    Options o;
    int exitCode = tools::kExitOk;
    const bool informational = !ParseArguments(argc, argv, o, exitCode) && exitCode == tools::kExitOk;
    if (informational)
        return exitCode;
    if (exitCode == tools::kExitOk)
        exitCode = Run(o);
    // In JSON mode a failed run still writes one document: the message.
    if (exitCode != tools::kExitOk && tools::HasOption(argc, argv, "--json"))
        tools::PrintJsonError(std::cout, tools::FirstError());
    return exitCode;
}

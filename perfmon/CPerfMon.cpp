#include "perfmon/CPerfMon.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <thread>
#include <unistd.h>

#include "common/NumberParse.h"
#include "common/UniqueHandle.h"
#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/PerfMonSeams.h"
#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"
#include "trace/CDebug.h"

using perfmon::JoinPath;
using perfmon::PartWhole;

namespace {

using u128 = unsigned __int128;

constexpr uint64_t kScale = 100000;          // fixed-point scale of one quotient
constexpr unsigned kSettleMs = 250;          // between the two snapshots of a start
constexpr unsigned kStopWaitMs = 2000;       // how long a stop waits for the thread
constexpr uint64_t kMinIntervalRoom = 999;   // elapsed ms × capacity at or below: no sample
constexpr uint64_t k32BitWrap = 0x100000000ull;
constexpr int kNetCounters = 16;
constexpr int kNetRxBytes = 0;
constexpr int kNetTxBytes = 8;

uint64_t Clamp64(u128 v)
{
    return v > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(v);
}

uint64_t SatAdd(uint64_t a, uint64_t b)
{
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

uint64_t SatMul(uint64_t a, uint64_t b)
{
    return Clamp64(static_cast<u128>(a) * b);
}

uint64_t DiffOrZero(uint64_t now, uint64_t then)
{
    return now >= then ? now - then : 0;
}

// The increase of an interface byte counter.  Older drivers keep 32-bit
// counters: one that went down from a value that fits in 32 bits has wrapped
// once.  Otherwise the plain unsigned difference is taken, as for every
// other counter: a figure made absurd by it (a 64-bit counter reset with its
// interface) is held at 100 by the percentage rules.
uint64_t CounterDelta(uint64_t now, uint64_t then)
{
    if (now < then && then < k32BitWrap)
        return now + (k32BitWrap - then);
    return now - then;
}

// Sum of the fixed-point quotients of the samples whose whole is not 0.
u128 SumQuotients(const std::vector<PartWhole>& samples, uint64_t& counted)
{
    u128 sum = 0;
    counted = 0;
    for (const PartWhole& s : samples) {
        if (s.whole == 0)
            continue;
        sum += static_cast<u128>(s.part) * kScale / s.whole;
        ++counted;
    }
    return sum;
}

// ---- readers of the proc files -------------------------------------------

struct MemInfo {
    uint64_t memTotalKb = 0, memFreeKb = 0, swapTotalKb = 0, swapFreeKb = 0;
};

bool ReadMemInfo(perfmon::CKeptProcFile& file, const std::string& path, MemInfo& info)
{
    perfmon::CProcLineReader reader;
    if (!reader.Open(file, path)) {
        DBG_PRINT(3, "CPerfData::GetMemoryDataSnapShot: cannot open %s (errno=%d)\n", path.c_str(), errno);
        return false;
    }
    static constexpr std::string_view kKeys[4] = {"MemTotal:", "MemFree:", "SwapTotal:", "SwapFree:"};
    uint64_t* targets[4] = {&info.memTotalKb, &info.memFreeKb, &info.swapTotalKb, &info.swapFreeKb};
    bool found[4] = {};
    int missing = 4;
    std::string line;
    while (missing > 0 && reader.Next(line)) {
        for (int k = 0; k < 4; ++k) {
            if (!found[k] && perfmon::ParseKeyedU64(line, kKeys[k], *targets[k])) {
                found[k] = true;
                --missing;
                break;
            }
        }
    }
    if (missing > 0) {
        DBG_PRINT(3, "CPerfData::GetMemoryDataSnapShot: cannot get all values from %s\n", path.c_str());
        return false;
    }
    return true;
}

struct StatReading {
    uint64_t user = 0, nice = 0, system = 0, idle = 0;
    int processors = 0;  // "cpuN" lines, counted when asked for
};

// The summary line "cpu user nice system idle ..." of the kernel statistics.
bool ReadStat(perfmon::CKeptProcFile& file, const std::string& path, StatReading& st, bool countProcessors)
{
    perfmon::CProcLineReader reader;
    if (!reader.Open(file, path)) {
        DBG_PRINT(3, "CPerfData::GetSystemLoadSnapShot: cannot open %s (errno=%d)\n", path.c_str(), errno);
        return false;
    }
    std::string line;
    int ret = -1;  // as a scan of an empty file would answer
    uint64_t v[4] = {};
    if (reader.Next(line)) {
        ret = 0;
        if (line.compare(0, 3, "cpu") == 0)
            ret = perfmon::ParseU64List(std::string_view(line).substr(3), v, 4);
    }
    if (ret < 4) {
        DBG_PRINT(3, "CPerfData::GetSystemLoadSnapShot: cannot get System Load values from %s (ret=%d)\n",
                  path.c_str(), ret);
        return false;
    }
    st.user = v[0];
    st.nice = v[1];
    st.system = v[2];
    st.idle = v[3];
    st.processors = 0;
    if (countProcessors) {
        // The per-processor lines follow the summary line directly.
        while (reader.Next(line) && line.compare(0, 3, "cpu") == 0) {
            if (line.size() > 3 && line[3] >= '0' && line[3] <= '9')
                ++st.processors;
        }
    }
    return true;
}

// The fields of /proc/<pid>/stat after the command name.  The name is in
// parentheses and may itself hold blanks and parentheses, so the fields
// start after the last ')'.
bool ParseProcessStat(const std::string& text, PerfProcessRecord& rec)
{
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return false;
    rec.name = text.substr(open + 1, std::min<size_t>(close - open - 1, 15));

    // Split the rest into blank-separated fields; 22 are needed (state .. rss).
    constexpr int kNeeded = 22;
    std::string_view rest = std::string_view(text).substr(close + 1);
    std::string_view fields[kNeeded];
    int count = 0;
    size_t pos = 0;
    while (count < kNeeded) {
        pos = rest.find_first_not_of(" \t\n", pos);
        if (pos == std::string_view::npos)
            break;
        size_t end = rest.find_first_of(" \t\n", pos);
        if (end == std::string_view::npos)
            end = rest.size();
        fields[count++] = rest.substr(pos, end - pos);
        pos = end;
    }
    if (count < kNeeded || fields[0].empty())
        return false;
    auto number = [&](int index, uint64_t& v) {
        const char* p = fields[index].data();
        return perfmon::ParseU64(p, p + fields[index].size(), v);
    };
    uint64_t ppid = 0, utime = 0, stime = 0, threads = 0, vsize = 0, rss = 0;
    if (!number(1, ppid) || !number(11, utime) || !number(12, stime) || !number(17, threads) ||
        !number(20, vsize))
        return false;
    if (!number(21, rss))
        rss = 0;  // a kernel thread may show odd values here
    rec.state = fields[0][0];
    rec.ppid = ppid > INT32_MAX ? -1 : static_cast<int>(ppid);
    rec.cpuTicks = SatAdd(utime, stime);
    rec.threads = threads;
    rec.virtualBytes = vsize;
    rec.residentPages = rss;
    return true;
}

bool ReadNumberFile(const std::string& path, uint64_t& value)
{
    std::string text;
    if (!perfmon::ReadSmallFile(path, text))
        return false;
    const char* p = text.data();
    return perfmon::ParseU64(p, p + text.size(), value);
}

// The soft limit of open files from /proc/<pid>/limits; false when
// unlimited or unreadable.
bool ReadOpenFileLimit(const std::string& path, uint64_t& limit)
{
    perfmon::CProcLineReader reader;
    if (!reader.Open(path))
        return false;
    std::string line;
    while (reader.Next(line)) {
        if (perfmon::ParseKeyedU64(line, "Max open files", limit))
            return true;
    }
    return false;
}

bool CountDirectoryEntries(const std::string& path, uint64_t& count)
{
    UniqueDir dir(opendir(path.c_str()));
    if (!dir)
        return false;
    count = 0;
    while (struct dirent* e = readdir(dir.Get())) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            ++count;
    }
    return true;
}

bool IsPidName(const char* name, int& pid)
{
    const size_t len = strnlen(name, 11);
    if (len == 0 || len > 10)
        return false;
    const char* p = name;
    uint64_t v = 0;
    if (!tarvd::ParseDigits(p, name + len, v) || p != name + len || v == 0 || v > INT32_MAX)
        return false;
    pid = static_cast<int>(v);
    return true;
}

// The "running/total" field of loadavg (the fourth): runnable tasks and all
// tasks of the system.
bool ReadLoadAvg(perfmon::CKeptProcFile& file, const std::string& path, uint64_t& running, uint64_t& total)
{
    if (!file.Read(path))
        return false;
    const std::string_view text = file.Text().substr(0, perfmon::kMaxSmallFile);
    const char* p = text.data();
    const char* end = p + text.size();
    for (int field = 0; field < 3; ++field) {
        while (p < end && (*p == ' ' || *p == '\t'))
            ++p;
        while (p < end && *p != ' ' && *p != '\t' && *p != '\n')
            ++p;
    }
    uint64_t r = 0, t = 0;
    if (!perfmon::ParseU64(p, end, r) || p >= end || *p != '/')
        return false;
    ++p;
    if (!perfmon::ParseU64(p, end, t))
        return false;
    running = r;
    total = t;
    return true;
}

// Visits the samples of one instance (-1: of every instance) under the
// history's lock; false when the group has no history or the instance does
// not exist (the history traces the request).
template <typename T, typename F>
bool CollectSamples(const std::shared_ptr<CDataHistoryBuffer<T>>& history, int instance, bool newestOnly,
                    F toPartWhole, std::vector<PartWhole>& out)
{
    if (!history)
        return false;
    CCriticalSectionLock lock(history->GetLock());
    int first = instance;
    int last = instance + 1;
    if (instance == -1) {
        first = 0;
        last = static_cast<int>(history->GetNumberInstances());
    }
    for (int i = first; i < last; ++i) {
        const T* newest = nullptr;
        bool exists = history->ForEach(i, [&](const T& item) {
            if (newestOnly)
                newest = &item;
            else
                out.push_back(toPartWhole(item));
        });
        if (!exists)
            return false;
        if (newest)  // still held: the lock above is taken for the whole walk
            out.push_back(toPartWhole(*newest));
    }
    return true;
}

} // namespace

// Readings of one snapshot that several groups use: the memory and system
// groups fill them, the process group takes what it finds instead of reading
// the same files again.
struct CPerfMon::KeptFiles {
    perfmon::CKeptProcFile memInfo, stat, netDev, selfStat, loadAvg;
};

struct CPerfMon::SharedReadings {
    bool statValid = false;
    StatReading stat;  // with the processors counted
    bool memValid = false;
    MemInfo mem;
};

// ---- percentages ------------------------------------------------------------

unsigned char perfmon::CurrentPercent(const std::vector<PartWhole>& samples)
{
    uint64_t n = 0;
    u128 sum = SumQuotients(samples, n);
    if (n == 0)
        return samples.empty() ? 0 : static_cast<unsigned char>(samples.back().part & 0xFF);
    u128 percent = (sum * 100 + kScale / 2) / (static_cast<u128>(n) * kScale);
    return percent >= 100 ? 100 : static_cast<unsigned char>(percent);
}

unsigned char perfmon::AveragePercent(const std::vector<PartWhole>& samples)
{
    uint64_t n = 0;
    u128 sum = SumQuotients(samples, n);
    if (n == 0)
        return 0;
    u128 mean = sum / n;
    u128 scaled = mean * 100 + kScale / 2;
    if (scaled > 10099999)
        return 100;
    return static_cast<unsigned char>(scaled / kScale);
}

// ---- life cycle -------------------------------------------------------------

CPerfMon::CPerfMon(unsigned int historyLength)
    : m_StopEvent(false, true),
      m_HistoryLength(historyLength),
      m_ProcRoot(perfmon::kDefaultProcRoot),
      m_LinkSpeed(std::make_shared<perfmon::CEthtoolLinkSpeed>()),
      m_Clock(std::make_shared<perfmon::CRealTimeClock>()),
      m_Kept(std::make_unique<KeptFiles>())
{
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    m_NumberProcessors = n > 0 ? static_cast<int>(n) : 1;
}

CPerfMon::~CPerfMon()
{
    StopMonitoring();
    // A thread that did not end within the stop's wait still uses this
    // object: it has been told to stop, so wait for it.
    if (m_Thread.IsAlive())
        m_Thread.WaitForTermination(TR_INFINITE);
}

void CPerfMon::SetProcRoot(const std::string& root)
{
    CCriticalSectionLock lock(m_Lock);
    m_ProcRoot = root.empty() ? std::string(perfmon::kDefaultProcRoot) : root;
}

void CPerfMon::SetLinkSpeedSource(std::shared_ptr<perfmon::IPerfLinkSpeed> source)
{
    CCriticalSectionLock lock(m_Lock);
    m_LinkSpeed = source ? std::move(source) : std::make_shared<perfmon::CEthtoolLinkSpeed>();
}

void CPerfMon::SetClock(std::shared_ptr<perfmon::IPerfClock> clock)
{
    CCriticalSectionLock lock(m_Lock);
    m_Clock = clock ? std::move(clock) : std::make_shared<perfmon::CRealTimeClock>();
}

bool CPerfMon::IsMonitorValue(int value, int type)
{
    switch (type) {
    case PERF_MONITOR_SYSTEM:
        return value >= PERF_SYSTEM_USAGE && value <= PERF_SYSTEM_KERNEL;
    case PERF_MONITOR_CPU:
        return value >= PERF_CPU_USAGE && value <= PERF_CPU_KERNEL;
    case PERF_MONITOR_NETWORK:
        return value >= PERF_NETWORK_USAGE && value <= PERF_NETWORK_RECEIVED;
    case PERF_MONITOR_MEMORY:
        return value >= PERF_MEMORY_USAGE && value <= PERF_SWAP_USAGE;
    case PERF_MONITOR_PROCESSES:
        return value >= PERF_PROCESS_CPU && value <= PERF_PROCESS_DESCRIPTORS;
    default:
        return false;
    }
}

// Makes the histories of the groups selected by `types`; false when none
// is to be monitored.  Called with the monitor's lock held.
bool CPerfMon::MakeHistories(int types)
{
    const bool processes = (types & (PERF_MONITOR_PROCESSES | PERF_MONITOR_PROCESSES_EXTRA)) != 0;
    if (types & PERF_MONITOR_MEMORY) {
        DBG_PRINT(4, "\nCPerfMon::Start     :   - monitor memory usage");
        m_MemoryHistory = std::make_shared<CDataHistoryBuffer<_PerfDataMemory>>(m_HistoryLength, 1);
    }
    if (types & PERF_MONITOR_SYSTEM) {
        DBG_PRINT(4, "\nCPerfMon::Start     :   - monitor system utilization");
        m_SystemHistory = std::make_shared<CDataHistoryBuffer<_PerfDataSystem>>(m_HistoryLength, 1);
        m_PrevSystem = SystemPrev();
    }
    if (types & PERF_MONITOR_CPU) {
        // Per-processor usage is not sampled: the group keeps no history.
        DBG_PRINT(4, "\nCPerfMon::Start     :   - monitor CPU usage");
    }
    if (types & PERF_MONITOR_NETWORK) {
        DBG_PRINT(4, "\nCPerfMon::Start     :   - monitor network usage");
        CNetworkInterfaceTable table(m_ProcRoot);
        int interfaces = table.GetNumberInterfaces();
        if (interfaces != perfmon::kNoInterfaces && interfaces > 0) {
            m_NetworkHistory = std::make_shared<CDataHistoryBuffer<_PerfDataNetwork>>(
                m_HistoryLength, static_cast<unsigned>(interfaces));
            m_NetState.assign(static_cast<size_t>(interfaces), NetState());
        }
    }
    m_MonitorProcesses.store(processes);
    if (processes) {
        DBG_PRINT(4, "\nCPerfMon::Start     :   - monitor processes");
        m_ProcessHistory = std::make_shared<CDataHistoryBuffer<_PerfDataProcess>>(m_HistoryLength, 1);
        m_PrevProcess = ProcessPrev();
        m_ProcessSlow = ProcessSlow();
    }
    return m_MemoryHistory || m_SystemHistory || m_NetworkHistory || processes;
}

void CPerfMon::ResetHistories()
{
    m_MemoryHistory.reset();
    m_SystemHistory.reset();
    m_CpuHistory.reset();
    m_NetworkHistory.reset();
    m_ProcessHistory.reset();
    m_NetState.clear();
}

unsigned long CPerfMon::StartMonitoring(int types, unsigned int periodMs)
{
    CCriticalSectionLock startStop(m_StartStopLock);
    DBG_PRINT(4, "\nCPerfMon::Start     : Start performance monitoring, update time = %d msec.", periodMs);
    m_PeriodMs.store(periodMs);
    if (unsigned long id = m_ThreadId.load())
        return id;

    {
        CCriticalSectionLock lock(m_Lock);
        m_Types.store(types);
        // Not running: whatever a failed start left behind goes.
        ResetHistories();
        if (!MakeHistories(types))
            return 0;
    }

    // Two readings, so that the first differences exist when the thread
    // starts and callers get figures at once.
    SnapshotData(types);
    std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
    SnapshotData(types);

    DBG_PRINT(4, "\nCPerfMon::Start     :   start monitoring thread");
    // A thread of an earlier run that outlived its stop's wait has been told
    // to stop; it must be gone before the stop event is reset.
    if (m_Thread.IsAlive())
        m_Thread.WaitForTermination(TR_INFINITE);
    m_StopEvent.Reset();
    if (!m_Thread.Start(&CPerfMon::ThreadProc, this, 0, false, 0, 0, true, "PerfMonitor"))
        return 0;
    m_ThreadId.store(static_cast<unsigned long>(m_Thread.GetId()));
    return m_ThreadId.load();
}

void CPerfMon::StopMonitoring()
{
    CCriticalSectionLock startStop(m_StartStopLock);
    DBG_PRINT(4, "\nCPerfMon::Stop      : Stop performance monitoring");
    if (m_ThreadId.load() != 0) {
        m_StopEvent.Set();
        m_Thread.WaitForTermination(kStopWaitMs);
        DBG_PRINT(4, "\nCPerfMon::Stop      :   monitoring thread terminated");
        m_ThreadId.store(0);
    }
    {
        CCriticalSectionLock lock(m_Lock);
        ResetHistories();
    }
    DBG_PRINT(4, "\nCPerfMon::Stop      :   history data destroyed");
}

void* CPerfMon::ThreadProc(void* self)
{
    static_cast<CPerfMon*>(self)->MonitorLoop();
    return nullptr;
}

void CPerfMon::MonitorLoop()
{
    unsigned int period = m_PeriodMs.load();
    DBG_PRINT(4, "\nCPerfMon::Thread    : Monitoring thread start, update time = %d msec.", period);
    if (period == 0)
        return;
    int rc = TR_WAIT_TIMEOUT;
    do {
        DBG_PRINT(5, "\nCPerfMon::Thread    : update snapshot data...");
        SnapshotData(m_Types.load());
        period = m_PeriodMs.load();
        DBG_PRINT(5, "\nCPerfMon::Thread    : snapshot data updated, sleeping %d msec.", period);
        rc = m_StopEvent.Wait(period);
    } while (rc == TR_WAIT_TIMEOUT && m_PeriodMs.load() != 0);
}

// ---- snapshots --------------------------------------------------------------

void CPerfMon::SnapshotData(int types)
{
    CCriticalSectionLock lock(m_Lock);
    SharedReadings shared;
    if ((types & PERF_MONITOR_MEMORY) && m_MemoryHistory)
        SnapshotMemory(shared);
    if ((types & PERF_MONITOR_SYSTEM) && m_SystemHistory)
        SnapshotSystem(shared);
    if (types & PERF_MONITOR_CPU)
        DBG_PRINT(5, "\nCPerfMon::SnapData  :   - update CPU usage for %d instances", m_NumberProcessors);
    if ((types & PERF_MONITOR_NETWORK) && m_NetworkHistory)
        SnapshotNetwork();
    if ((types & (PERF_MONITOR_PROCESSES | PERF_MONITOR_PROCESSES_EXTRA)) && m_MonitorProcesses.load()) {
        DBG_PRINT(5, "\nCPerfMon::SnapData  :   - update processes");
        SnapshotProcesses(shared);
    }
    DBG_PRINT(5, "\nCPerfMon::SnapData  : update snapshot data finished");
}

void CPerfMon::SnapshotMemory(SharedReadings& shared)
{
    MemInfo info;
    if (!ReadMemInfo(m_Kept->memInfo, JoinPath(m_ProcRoot, perfmon::kMemInfoFile), info))
        return;
    shared.memValid = true;
    shared.mem = info;
    _PerfDataMemory sample;
    // Plain unsigned arithmetic, as for every sample: a free figure above the
    // total (a torn read of meminfo) makes an absurd figure that the
    // percentage rules hold at 100.
    sample.memTotal = info.memTotalKb * 1024;
    sample.memUsed = (info.memTotalKb - info.memFreeKb) * 1024;
    sample.swapTotal = info.swapTotalKb * 1024;
    sample.swapUsed = (info.swapTotalKb - info.swapFreeKb) * 1024;
    m_MemoryHistory->Add(0, sample);
    DBG_PRINT(5, "\nCPerfMon::SnapData  :   - memory history: %d entries", static_cast<int>(m_MemoryHistory->GetCount(0)));
}

void CPerfMon::SnapshotSystem(SharedReadings& shared)
{
    StatReading st;
    // The processors are counted for the process group.
    if (!ReadStat(m_Kept->stat, JoinPath(m_ProcRoot, perfmon::kStatFile), st, true))
        return;
    shared.statValid = true;
    shared.stat = st;
    SystemPrev now;
    now.valid = true;
    now.user = st.user + st.nice;
    now.kernel = st.system;
    now.idle = st.idle;
    now.total = now.user + now.kernel + now.idle;
    if (m_PrevSystem.valid) {
        _PerfDataSystem sample;
        sample.rawUser = now.user;
        sample.rawKernel = now.kernel;
        sample.rawIdle = now.idle;
        sample.rawTotal = now.total;
        // Plain unsigned differences of the counters.  When nothing moved
        // the whole is 0 and the sample is skipped by the percentages.
        sample.user = now.user - m_PrevSystem.user;
        sample.kernel = now.kernel - m_PrevSystem.kernel;
        sample.idle = now.idle - m_PrevSystem.idle;
        sample.total = now.total - m_PrevSystem.total;
        DBG_PRINT(5, "GetPerfDataSystem: Total=%llu, User=%llu, Kern=%llu, Idle=%llu\n",
                  static_cast<unsigned long long>(sample.total), static_cast<unsigned long long>(sample.user),
                  static_cast<unsigned long long>(sample.kernel), static_cast<unsigned long long>(sample.idle));
        m_SystemHistory->Add(0, sample);
    }
    m_PrevSystem = now;
}

void CPerfMon::SnapshotNetwork()
{
    const std::string path = JoinPath(m_ProcRoot, perfmon::kNetDevFile);
    std::vector<perfmon::NetDevLine> lines;
    if (!perfmon::ReadNetDevInterfaces(path, m_NetState.size(), lines, &m_Kept->netDev)) {
        DBG_PRINT(3, "CNetworkInterfaceStatistics::GetStatistikAtIndex: cannot open %s (errno=%d)\n", path.c_str(),
                  errno);
        return;
    }
    for (size_t i = 0; i < m_NetState.size(); ++i) {
        if (i >= lines.size()) {
            DBG_PRINT(3, "CNetworkInterfaceStatistics::GetStatistikAtIndex: interface for Index=%d not found\n",
                      static_cast<int>(i));
            continue;
        }
        uint64_t counters[kNetCounters] = {};
        int ret = perfmon::ParseU64List(lines[i].counters, counters, kNetCounters);
        if (ret < kNetCounters) {
            DBG_PRINT(3, "CNetworkInterfaceStatistics::GetStatistikAtIndex: cannot get Network Load values from %s (ret=%d)\n",
                      path.c_str(), ret);
            continue;
        }
        uint32_t mbps = 0;
        uint64_t capacity = 0;
        if (m_LinkSpeed->GetLinkSpeedMbps(lines[i].name, mbps))
            capacity = static_cast<uint64_t>(mbps) << 17;  // Mbit/s → bytes/s (× 1024 × 1024 ÷ 8)
        const uint64_t now = m_Clock->NowMs();
        const uint64_t rx = counters[kNetRxBytes];
        const uint64_t tx = counters[kNetTxBytes];

        NetState& prev = m_NetState[i];
        NetState reading{true, now, rx, tx, capacity};
        if (!prev.valid) {
            prev = reading;
            continue;
        }
        // A clock set back gives a huge elapsed time and so rates near 0.
        const uint64_t elapsed = now - prev.timeMs;
        const u128 room = static_cast<u128>(elapsed) * capacity;
        if (room <= kMinIntervalRoom)
            continue;  // too short an interval or no known link speed: keep the older reading
        _PerfDataNetwork sample;
        sample.capacity = capacity;
        sample.budget = Clamp64(room / 1000);
        sample.rxRate = Clamp64(static_cast<u128>(CounterDelta(rx, prev.rxBytes)) * 1000 / elapsed);
        sample.txRate = Clamp64(static_cast<u128>(CounterDelta(tx, prev.txBytes)) * 1000 / elapsed);
        m_NetworkHistory->Add(static_cast<int>(i), sample);
        prev = reading;
    }
}

void CPerfMon::RefreshProcessMap() const
{
    UniqueDir dir(opendir(m_ProcRoot.c_str()));
    if (!dir) {
        DBG_PRINT(3, "\nCPerfMon::SnapData  : cannot list processes in %s (errno=%d)", m_ProcRoot.c_str(), errno);
        return;
    }
    for (auto& seen : m_ProcessSeen)
        seen.second = 0;
    std::string text;
    PerfProcessRecord rec;
    while (struct dirent* e = readdir(dir.Get())) {
        int pid = 0;
        if (!IsPidName(e->d_name, pid))
            continue;
        // A process that ended between the listing and the read is skipped.
        if (!perfmon::ReadSmallFile(JoinPath(m_ProcRoot, e->d_name) + "/stat", text) || !ParseProcessStat(text, rec))
            continue;
        rec.pid = pid;
        m_Processes[pid] = rec;
        m_ProcessSeen[pid] = 1;
    }
    for (auto it = m_ProcessSeen.begin(); it != m_ProcessSeen.end();) {
        if (it->second == 0) {
            m_Processes.erase(it->first);
            it = m_ProcessSeen.erase(it);
        } else {
            ++it;
        }
    }
}

// pid_max and the limit of open files: at the first snapshot after a start,
// then now and then.
void CPerfMon::RefreshSlowProcessFigures()
{
    if (m_PrevProcess.seen && ++m_ProcessSlow.age < perfmon::kSlowRefreshSnapshots)
        return;
    m_ProcessSlow.age = 0;
    m_ProcessSlow.pidMaxValid = ReadNumberFile(JoinPath(m_ProcRoot, perfmon::kPidMaxFile), m_ProcessSlow.pidMax);
    m_ProcessSlow.limitValid =
        ReadOpenFileLimit(JoinPath(m_ProcRoot, perfmon::kSelfLimitsFile), m_ProcessSlow.openFileLimit);
}

void CPerfMon::SnapshotProcesses(const SharedReadings& shared)
{
    ProcessPrev now;
    StatReading st;
    bool statValid = shared.statValid;
    if (statValid)
        st = shared.stat;
    else
        statValid = ReadStat(m_Kept->stat, JoinPath(m_ProcRoot, perfmon::kStatFile), st, true);
    if (statValid) {
        now.valid = true;
        now.totalTicks = SatAdd(SatAdd(SatAdd(st.user, st.nice), st.system), st.idle);
    }
    const uint64_t processors = st.processors > 0 ? static_cast<uint64_t>(st.processors) : 1;

    PerfProcessRecord self;
    perfmon::CKeptProcFile& selfStat = m_Kept->selfStat;
    if (selfStat.Read(JoinPath(m_ProcRoot, perfmon::kSelfStatFile)) &&
        ParseProcessStat(std::string(selfStat.Text().substr(0, perfmon::kMaxSmallFile)), self)) {
        now.ownValid = true;
        now.ownTicks = self.cpuTicks;
    }

    RefreshSlowProcessFigures();

    _PerfDataProcess sample;
    // A quantity whose whole is unknown keeps part and whole 0, so that it
    // never shows up as a raw figure.
    auto set = [&sample](int value, uint64_t part, uint64_t whole) {
        if (whole == 0)
            return;
        sample.part[value - PERF_PROCESS_CPU] = part;
        sample.whole[value - PERF_PROCESS_CPU] = whole;
    };
    if (m_PrevProcess.valid && m_PrevProcess.ownValid && now.valid && now.ownValid) {
        uint64_t own = DiffOrZero(now.ownTicks, m_PrevProcess.ownTicks);
        uint64_t total = DiffOrZero(now.totalTicks, m_PrevProcess.totalTicks);
        set(PERF_PROCESS_CPU, own, total / processors);
        set(PERF_PROCESS_CPU_ALL, own, total);
    }
    if (now.ownValid) {
        MemInfo mem;
        bool memValid = shared.memValid;
        if (memValid)
            mem = shared.mem;
        else
            memValid = ReadMemInfo(m_Kept->memInfo, JoinPath(m_ProcRoot, perfmon::kMemInfoFile), mem);
        if (memValid) {
            const uint64_t memTotal = SatMul(mem.memTotalKb, 1024);
            const uint64_t pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
            set(PERF_PROCESS_RESIDENT, SatMul(self.residentPages, pageSize), memTotal);
            set(PERF_PROCESS_VIRTUAL, self.virtualBytes, SatAdd(memTotal, SatMul(mem.swapTotalKb, 1024)));
        }
        set(PERF_PROCESS_THREADS, self.threads, perfmon::kAgentThreadBudget);
    }
    uint64_t running = 0, tasks = 0;
    if (ReadLoadAvg(m_Kept->loadAvg, JoinPath(m_ProcRoot, perfmon::kLoadAvgFile), running, tasks)) {
        if (m_ProcessSlow.pidMaxValid)
            set(PERF_PROCESS_COUNT, tasks, m_ProcessSlow.pidMax);
        if (now.valid)
            set(PERF_PROCESS_RUNNING, running, processors);
    }
    uint64_t descriptors = 0;
    if (m_ProcessSlow.limitValid && CountDirectoryEntries(JoinPath(m_ProcRoot, perfmon::kSelfFdDir), descriptors))
        set(PERF_PROCESS_DESCRIPTORS, descriptors, m_ProcessSlow.openFileLimit);

    // Like the system values, the first reading only becomes the previous one.
    if (m_PrevProcess.seen)
        m_ProcessHistory->Add(0, sample);
    now.seen = true;
    m_PrevProcess = now;
}

// ---- queries ----------------------------------------------------------------

int CPerfMon::GetUsagePercent(unsigned char& percent, PerfMonitorValue value, int mode, int instance)
{
    if (mode == 0)
        return GetCurrentPercent(value, percent, instance);
    if (mode == 1)
        return GetAveragePercent(value, percent, instance);
    return 0;
}

int CPerfMon::GetCurrentPercent(PerfMonitorValue value, unsigned char& percent, int instance)
{
    return GetPercent(value, percent, instance, true);
}

int CPerfMon::GetAveragePercent(PerfMonitorValue value, unsigned char& percent, int instance)
{
    return GetPercent(value, percent, instance, false);
}

int CPerfMon::GetPercent(PerfMonitorValue value, unsigned char& percent, int instance, bool current)
{
    percent = 0;
    // A copy of the history pointer keeps the history alive while it is
    // read, even when a stop destroys it meanwhile.
    auto grab = [this](const auto& member) {
        CCriticalSectionLock lock(m_Lock);
        return member;
    };

    auto cpuPart = [value](const _PerfDataSystem& d) {
        switch (value % 4) {  // 0-3 and 4-7 share the same order
        case 0: return PartWhole{SatAdd(d.user, d.kernel), d.total};
        case 1: return PartWhole{d.idle, d.total};
        case 2: return PartWhole{d.user, d.total};
        default: return PartWhole{d.kernel, d.total};
        }
    };

    std::vector<PartWhole> samples;
    samples.reserve(32);
    bool found = false;
    if (IsMonitorValue(value, PERF_MONITOR_SYSTEM)) {
        found = CollectSamples(grab(m_SystemHistory), instance, current, cpuPart, samples);
    } else if (IsMonitorValue(value, PERF_MONITOR_CPU)) {
        found = CollectSamples(grab(m_CpuHistory), instance, current, cpuPart, samples);
    } else if (IsMonitorValue(value, PERF_MONITOR_MEMORY)) {
        found = CollectSamples(grab(m_MemoryHistory), instance, current, [value](const _PerfDataMemory& d) {
            return value == PERF_MEMORY_USAGE ? PartWhole{d.memUsed, d.memTotal} : PartWhole{d.swapUsed, d.swapTotal};
        }, samples);
    } else if (IsMonitorValue(value, PERF_MONITOR_NETWORK)) {
        found = CollectSamples(grab(m_NetworkHistory), instance, current, [value](const _PerfDataNetwork& d) {
            if (value == PERF_NETWORK_SENT)
                return PartWhole{d.txRate, d.budget};
            if (value == PERF_NETWORK_RECEIVED)
                return PartWhole{d.rxRate, d.budget};
            return PartWhole{SatAdd(d.rxRate, d.txRate), d.budget};
        }, samples);
    } else if (IsMonitorValue(value, PERF_MONITOR_PROCESSES)) {
        const int index = value - PERF_PROCESS_CPU;
        found = CollectSamples(grab(m_ProcessHistory), instance, current, [index](const _PerfDataProcess& d) {
            return PartWhole{d.part[index], d.whole[index]};
        }, samples);
    }
    if (!found)
        return 0;
    percent = current ? perfmon::CurrentPercent(samples) : perfmon::AveragePercent(samples);
    return 1;
}

unsigned int CPerfMon::GetHistoryCount(int type, int instance) const
{
    CCriticalSectionLock lock(m_Lock);
    switch (type) {
    case PERF_MONITOR_SYSTEM: return m_SystemHistory ? m_SystemHistory->GetCount(instance) : 0;
    case PERF_MONITOR_CPU: return m_CpuHistory ? m_CpuHistory->GetCount(instance) : 0;
    case PERF_MONITOR_NETWORK: return m_NetworkHistory ? m_NetworkHistory->GetCount(instance) : 0;
    case PERF_MONITOR_MEMORY: return m_MemoryHistory ? m_MemoryHistory->GetCount(instance) : 0;
    case PERF_MONITOR_PROCESSES: return m_ProcessHistory ? m_ProcessHistory->GetCount(instance) : 0;
    default: return 0;
    }
}

unsigned int CPerfMon::GetNumberInstances(int type) const
{
    CCriticalSectionLock lock(m_Lock);
    switch (type) {
    case PERF_MONITOR_SYSTEM: return m_SystemHistory ? m_SystemHistory->GetNumberInstances() : 0;
    case PERF_MONITOR_CPU: return m_CpuHistory ? m_CpuHistory->GetNumberInstances() : 0;
    case PERF_MONITOR_NETWORK: return m_NetworkHistory ? m_NetworkHistory->GetNumberInstances() : 0;
    case PERF_MONITOR_MEMORY: return m_MemoryHistory ? m_MemoryHistory->GetNumberInstances() : 0;
    case PERF_MONITOR_PROCESSES: return m_ProcessHistory ? m_ProcessHistory->GetNumberInstances() : 0;
    default: return 0;
    }
}

std::vector<PerfProcessRecord> CPerfMon::GetProcesses() const
{
    CCriticalSectionLock lock(m_Lock);
    if (m_MonitorProcesses.load() && m_ProcessHistory)
        RefreshProcessMap();
    std::vector<PerfProcessRecord> out;
    out.reserve(m_Processes.size());
    for (const auto& p : m_Processes)
        out.push_back(p.second);
    return out;
}

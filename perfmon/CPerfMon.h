// CPerfMon: samples the machine's load from the proc file system in a
// background thread and answers current and average usage percentages.
//
// Every sample is a part and a whole; a percentage is part ÷ whole.  What is
// measured is chosen by PerfMonitorType bits, what is asked for by a
// PerfMonitorValue:
//
//   bit 1  system (all processors together), values 0-3, one instance
//   bit 2  per processor, values 4-7: accepted but not sampled, so these
//          values always answer "no instance" (result 0, percent 0)
//   bit 4  network, values 10-12, one instance per monitored interface
//          (see CNetworkInterfaceTable for the numbering)
//   bit 8  memory, values 8-9, one instance
//   bit 16 (or any bit of 0xF800) processes, values 13-20, one instance
//
// The process values describe the agent's own process (the one that holds
// the monitor) and the system's process load:
//
//   13 PERF_PROCESS_CPU           own processor time (user + system ticks
//                                 of this process) ÷ the time of ONE
//                                 processor in the interval (all
//                                 processors' ticks ÷ their number); a
//                                 process busy on several processors is
//                                 reported as 100
//   14 PERF_PROCESS_CPU_ALL       own processor time ÷ the time of all
//                                 processors in the interval
//   15 PERF_PROCESS_RESIDENT      own resident memory ÷ memory total
//   16 PERF_PROCESS_VIRTUAL       own virtual size ÷ (memory total + swap
//                                 total), the memory the system can commit
//   17 PERF_PROCESS_THREADS       own thread count ÷ the agent's thread
//                                 budget (perfmon::kAgentThreadBudget, 256)
//   18 PERF_PROCESS_COUNT         tasks on the system (processes and
//                                 their threads: each holds a process id)
//                                 ÷ the kernel's pid_max, so the figure
//                                 shows how close the id space is to
//                                 running out; both counts come from
//                                 loadavg ("running/total")
//   19 PERF_PROCESS_RUNNING       runnable tasks (threads in state R, the
//                                 "running" count of loadavg) ÷ number of
//                                 processors (over 100 means a run queue)
//   20 PERF_PROCESS_DESCRIPTORS   own open descriptors ÷ the soft limit of
//                                 open files (none when unlimited); the
//                                 count includes the descriptor used to
//                                 list them
//
// One process snapshot reads only a few files: loadavg, the own process's
// stat and descriptor directory, and the statistics and memory files (whose
// readings are shared with the system and memory groups when these are
// sampled in the same snapshot).  The kernel's pid_max and the own limit of
// open files change rarely: they are read at the first snapshot after a
// start and then every kSlowRefreshSnapshots snapshots.  No file of other
// processes is read by a snapshot; GetProcesses reads them when asked.
//
// Like the system values, the process values need two readings: the first
// reading only becomes the previous one.  A quantity that cannot be read has
// a whole of 0 in its sample, which the percentage rules skip.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/CCriticalSection.h"
#include "perfmon/CDataHistoryBuffer.h"
#include "trace/CEvent.h"
#include "trace/CThread.h"

/// System or processor sample: the raw cumulative counters of the reading
/// and the differences to the previous reading (clock ticks).
struct _PerfDataSystem {
    uint64_t rawUser = 0;    ///< user + nice
    uint64_t rawKernel = 0;  ///< system
    uint64_t rawIdle = 0;
    uint64_t rawTotal = 0;   ///< user + kernel + idle
    uint64_t total = 0;
    uint64_t user = 0;
    uint64_t kernel = 0;
    uint64_t idle = 0;
};
using _PerfDataCpu = _PerfDataSystem;

/// Memory sample, in bytes.
struct _PerfDataMemory {
    uint64_t memTotal = 0;
    uint64_t memUsed = 0;
    uint64_t swapTotal = 0;
    uint64_t swapUsed = 0;
};

/// Network sample of one interface.
struct _PerfDataNetwork {
    uint64_t capacity = 0;  ///< link capacity, bytes per second
    uint64_t budget = 0;    ///< bytes the link could carry in the interval
    uint64_t rxRate = 0;    ///< received bytes per second
    uint64_t txRate = 0;    ///< sent bytes per second
};

/// Process sample: part and whole of the values 13-20 (index value - 13).
struct _PerfDataProcess {
    static constexpr int kValues = 8;
    uint64_t part[kValues] = {};
    uint64_t whole[kValues] = {};
};

/// What the monitor knows about one process of the system.
struct PerfProcessRecord {
    int pid = 0;
    int ppid = 0;
    char state = '?';
    std::string name;         ///< the command name (at most 15 characters)
    uint64_t cpuTicks = 0;    ///< user + system time, clock ticks
    uint64_t threads = 0;
    uint64_t virtualBytes = 0;
    uint64_t residentPages = 0;
};

namespace perfmon {

// The link-speed and clock sources a test or replay may put in place of the
// system's (declared in the monitor's internal seams).
class IPerfLinkSpeed;
class IPerfClock;

/// One sample as seen by a percentage: part and whole.
struct PartWhole {
    uint64_t part = 0;
    uint64_t whole = 0;
};

/// The "current" percentage of samples (the newest of each instance):
/// sum of part × 100000 ÷ whole over the samples whose whole is not 0, then
/// (sum × 100 + 50000) ÷ (n × 100000), at most 100.  When no sample counts,
/// the low byte of the last sample's part (0 without samples).
unsigned char CurrentPercent(const std::vector<PartWhole>& samples);

/// The "average" percentage of samples (a whole history): mean = sum ÷ n
/// first, then (mean × 100 + 50000) ÷ 100000, at most 100; 0 when no
/// sample counts.
unsigned char AveragePercent(const std::vector<PartWhole>& samples);

} // namespace perfmon

class CPerfMon {
public:
    /// Bits that select what is monitored.
    enum PerfMonitorType {
        PERF_MONITOR_SYSTEM = 1,
        PERF_MONITOR_CPU = 2,
        PERF_MONITOR_NETWORK = 4,
        PERF_MONITOR_MEMORY = 8,
        PERF_MONITOR_PROCESSES = 16,
        PERF_MONITOR_PROCESSES_EXTRA = 0xF800,  ///< any of these also selects processes
        PERF_MONITOR_ALL = 1 | 2 | 4 | 8 | 16,
    };

    /// What a percentage is taken of.
    enum PerfMonitorValue {
        PERF_SYSTEM_USAGE = 0,   ///< user + kernel ÷ total
        PERF_SYSTEM_IDLE = 1,
        PERF_SYSTEM_USER = 2,
        PERF_SYSTEM_KERNEL = 3,
        PERF_CPU_USAGE = 4,
        PERF_CPU_IDLE = 5,
        PERF_CPU_USER = 6,
        PERF_CPU_KERNEL = 7,
        PERF_MEMORY_USAGE = 8,   ///< memory in use ÷ memory total
        PERF_SWAP_USAGE = 9,     ///< swap in use ÷ swap total
        PERF_NETWORK_USAGE = 10, ///< received + sent ÷ interval budget
        PERF_NETWORK_SENT = 11,
        PERF_NETWORK_RECEIVED = 12,
        PERF_PROCESS_CPU = 13,
        PERF_PROCESS_CPU_ALL = 14,
        PERF_PROCESS_RESIDENT = 15,
        PERF_PROCESS_VIRTUAL = 16,
        PERF_PROCESS_THREADS = 17,
        PERF_PROCESS_COUNT = 18,
        PERF_PROCESS_RUNNING = 19,
        PERF_PROCESS_DESCRIPTORS = 20,
    };

    /// Everything empty, period 1000 ms; histories will keep at most
    /// `historyLength` samples per instance.
    explicit CPerfMon(unsigned int historyLength);
    /// Stops monitoring (see StopMonitoring) and, should the thread not have
    /// ended within the stop's wait, waits for it: no thread outlives the
    /// object.
    ~CPerfMon();
    CPerfMon(const CPerfMon&) = delete;
    CPerfMon& operator=(const CPerfMon&) = delete;

    /// The directory that stands for /proc (default "/proc").  Set it before
    /// StartMonitoring.  Takes the monitor's lock.
    void SetProcRoot(const std::string& root);
    /// Replaces the link-speed source (default: the ethtool request); null
    /// restores the default.  Takes the monitor's lock.
    void SetLinkSpeedSource(std::shared_ptr<perfmon::IPerfLinkSpeed> source);
    /// Replaces the clock of the network rates (default: CLOCK_REALTIME);
    /// null restores the default.  Takes the monitor's lock.
    void SetClock(std::shared_ptr<perfmon::IPerfClock> clock);

    /// true when `value` belongs to the group `type` (one of the five bits;
    /// any other type gives false).
    static bool IsMonitorValue(int value, int type);

    /// Starts monitoring the groups selected by `types` with a period of
    /// `periodMs` milliseconds (0: the thread ends at once, after the two
    /// snapshots taken here).  When a thread is already held, only the
    /// period changes and its id is returned.  Otherwise the selected
    /// groups' histories are made anew, two snapshots 250 ms apart are
    /// taken and the thread is started.  Returns the thread id; 0 when
    /// nothing is to be monitored or the thread cannot be started.
    unsigned long StartMonitoring(int types, unsigned int periodMs);

    /// true while a monitoring thread id is held (from a successful start to
    /// the next stop, even if a zero period ended the thread already).
    bool IsStarted() const { return m_ThreadId.load() != 0; }

    /// Signals the thread to stop, waits up to 2000 ms for it, and destroys
    /// all histories and the per-interface state.
    void StopMonitoring();

    /// Reads the groups selected by `types` whose histories exist (processes:
    /// when process monitoring is on) and appends their samples.  The
    /// monitoring thread calls it once a period.  Takes the monitor's lock.
    void SnapshotData(int types);

    /// mode 0: GetCurrentPercent, mode 1: GetAveragePercent; any other mode
    /// returns 0 and leaves `percent` unchanged.
    int GetUsagePercent(unsigned char& percent, PerfMonitorValue value, int mode, int instance);

    /// The newest sample of `instance` (-1: of every instance of the group)
    /// as a whole percentage.  1 on success; 0 with percent 0 when the
    /// group has no history or the instance does not exist.  Takes the
    /// monitor's lock briefly, then the history's lock.
    int GetCurrentPercent(PerfMonitorValue value, unsigned char& percent, int instance);

    /// The mean over the whole history of `instance` (-1: of every instance)
    /// as a whole percentage.  Results as GetCurrentPercent.
    int GetAveragePercent(PerfMonitorValue value, unsigned char& percent, int instance);

    /// The number of samples held for `instance` of group `type` (one of the
    /// five bits); 0 when there is no such history.
    unsigned int GetHistoryCount(int type, int instance) const;
    /// The number of instances of group `type`; 0 when it has no history.
    unsigned int GetNumberInstances(int type) const;

    /// The processes of the system.  While process monitoring is on, the
    /// process map is refreshed from the proc root's per-process stat files
    /// by this call (snapshots do not read them); otherwise the map as last
    /// refreshed is returned.  Takes the monitor's lock.
    std::vector<PerfProcessRecord> GetProcesses() const;

private:
    struct NetState {
        bool valid = false;
        uint64_t timeMs = 0;
        uint64_t rxBytes = 0;
        uint64_t txBytes = 0;
        uint64_t capacity = 0;
    };
    struct SystemPrev {
        bool valid = false;
        uint64_t user = 0, kernel = 0, idle = 0, total = 0;
    };
    struct ProcessPrev {
        bool seen = false;      // a reading was made (valid or not)
        bool valid = false;     // the processor totals were read
        bool ownValid = false;
        uint64_t ownTicks = 0;
        uint64_t totalTicks = 0;
    };
    /// Figures of the process group that are re-read only now and then.
    struct ProcessSlow {
        unsigned age = 0;           // snapshots since the last reading
        bool pidMaxValid = false;
        uint64_t pidMax = 0;
        bool limitValid = false;
        uint64_t openFileLimit = 0;
    };
    /// Readings of one snapshot shared between its groups (defined in the
    /// source).
    struct SharedReadings;
    /// The proc files every snapshot reads, kept open (defined in the
    /// source).
    struct KeptFiles;

    static void* ThreadProc(void* self);
    void MonitorLoop();

    void SnapshotMemory(SharedReadings& shared);
    void SnapshotSystem(SharedReadings& shared);
    void SnapshotNetwork();
    void SnapshotProcesses(const SharedReadings& shared);
    void RefreshSlowProcessFigures();
    void ResetHistories();
    bool MakeHistories(int types);
    void RefreshProcessMap() const;

    int GetPercent(PerfMonitorValue value, unsigned char& percent, int instance, bool current);

    mutable CCriticalSection m_Lock;
    mutable std::map<int, PerfProcessRecord> m_Processes;   // refreshed by GetProcesses
    mutable std::map<int, unsigned char> m_ProcessSeen;
    std::vector<NetState> m_NetState;
    SystemPrev m_PrevSystem;
    std::vector<SystemPrev> m_PrevCpu;
    ProcessPrev m_PrevProcess;
    ProcessSlow m_ProcessSlow;
    std::shared_ptr<CDataHistoryBuffer<_PerfDataCpu>> m_CpuHistory;
    std::shared_ptr<CDataHistoryBuffer<_PerfDataSystem>> m_SystemHistory;
    std::shared_ptr<CDataHistoryBuffer<_PerfDataNetwork>> m_NetworkHistory;
    std::shared_ptr<CDataHistoryBuffer<_PerfDataMemory>> m_MemoryHistory;
    std::shared_ptr<CDataHistoryBuffer<_PerfDataProcess>> m_ProcessHistory;
    CThread m_Thread;
    CEvent m_StopEvent;
    std::atomic<unsigned int> m_PeriodMs{1000};
    unsigned int m_HistoryLength;
    std::atomic<unsigned long> m_ThreadId{0};
    std::atomic<int> m_Types{0};
    std::atomic<bool> m_MonitorProcesses{false};

    // Serialises StartMonitoring and StopMonitoring (never taken by the
    // monitoring thread, so a stop may wait for the thread while holding it).
    CCriticalSection m_StartStopLock;
    std::string m_ProcRoot;
    std::shared_ptr<perfmon::IPerfLinkSpeed> m_LinkSpeed;
    std::shared_ptr<perfmon::IPerfClock> m_Clock;
    int m_NumberProcessors;
    std::unique_ptr<KeptFiles> m_Kept;  // used under m_Lock
};

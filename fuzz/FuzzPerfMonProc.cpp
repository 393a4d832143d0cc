// Fuzz target: the performance monitor's readings of a whole proc tree. The input holds the
// processor statistics, the memory figures and the network device table, separated by NUL bytes,
// written as stat, meminfo and net/dev under the monitor's proc root; each input is then one
// snapshot of every group, followed by the queries of every value.
#include "FuzzSupport.h"

#include "perfmon/CPerfMon.h"
#include "perfmon/PerfMonSeams.h"

#include <memory>

namespace {

class FixedSpeed final : public perfmon::IPerfLinkSpeed {
public:
    bool GetLinkSpeedMbps(const std::string& name, uint32_t& mbps) override
    {
        mbps = name.size() % 3 == 0 ? 0 : 1000;  // some links without a speed
        return name.size() % 5 != 0;
    }
};

// A clock that moves one second a reading, so that rates are computed.
class SteppingClock final : public perfmon::IPerfClock {
public:
    uint64_t NowMs() override { return m_Now += 1000; }

private:
    uint64_t m_Now = 1000000;
};

const std::string& Root()
{
    static const std::string root = fuzzsupport::ScratchTree("perfproc", {"/net"});
    return root;
}

// The processor statistics, the memory figures and the network device table.
void WriteTree(const std::string (&parts)[3])
{
    const char* const files[] = {"/stat", "/meminfo", "/net/dev"};
    for (int i = 0; i < 3; ++i)
        fuzzsupport::WriteWhole(Root() + files[i], parts[i].data(), parts[i].size());
}

// One monitor for the process, started once over a small valid tree (its
// start takes two snapshots a quarter second apart); a zero period ends
// its thread at once, so every later snapshot is the target's own.
CPerfMon& Monitor()
{
    static CPerfMon* monitor = [] {
        WriteTree({"cpu  100 0 100 800 0 0 0 0 0 0\ncpu0 100 0 100 800 0 0 0 0 0 0\n",
                   "MemTotal: 1000 kB\nMemFree: 500 kB\nSwapTotal: 100 kB\nSwapFree: 50 kB\n",
                   "Inter-|   Receive                                                |  Transmit\n"
                   " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
                   "carrier compressed\n"
                   "  eth0: 100 1 0 0 0 0 0 0 200 2 0 0 0 0 0 0\n"});
        static CPerfMon mon(8);
        mon.SetProcRoot(Root());
        mon.SetLinkSpeedSource(std::make_shared<FixedSpeed>());
        mon.SetClock(std::make_shared<SteppingClock>());
        mon.StartMonitoring(CPerfMon::PERF_MONITOR_ALL, 0);
        return &mon;
    }();
    return *monitor;
}

} // namespace

TARVD_FUZZ_TARGET(data, size)
{
    CPerfMon& mon = Monitor();
    std::string parts[3];
    for (size_t i = 0, k = 0; i < size && k < 3; ++i) {
        if (data[i] == '\0')
            ++k;
        else
            parts[k] += static_cast<char>(data[i]);
    }
    WriteTree(parts);

    mon.SnapshotData(CPerfMon::PERF_MONITOR_ALL);
    for (int v = CPerfMon::PERF_SYSTEM_USAGE; v <= CPerfMon::PERF_PROCESS_DESCRIPTORS; ++v) {
        for (int instance : {-1, 1, 7}) {
            for (int mode : {0, 1}) {
                unsigned char percent = 0;
                // The current figure of a group whose samples all have a
                // zero whole is the raw part of the last one (its low byte),
                // which may exceed 100; averages are always percentages.
                if (mon.GetUsagePercent(percent, static_cast<CPerfMon::PerfMonitorValue>(v), mode, instance) == 1 &&
                    mode == 1)
                    FUZZ_CHECK(percent <= 100);
            }
        }
    }
    for (int type : {1, 2, 4, 8, 16})
        FUZZ_CHECK(mon.GetHistoryCount(type, 0) <= 8);
    return 0;
}

// A monitor on a made-up proc root, with a link speed and a clock that the test sets.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "perfmon/CPerfMon.h"
#include "perfmon/PerfMonSeams.h"
#include "support/FakeProc.h"

namespace perfmontest {

using testsupport::NetIf;
using PMV = CPerfMon::PerfMonitorValue;
constexpr int kMem = CPerfMon::PERF_MONITOR_MEMORY;
constexpr int kSys = CPerfMon::PERF_MONITOR_SYSTEM;
constexpr int kNet = CPerfMon::PERF_MONITOR_NETWORK;
constexpr int kProc = CPerfMon::PERF_MONITOR_PROCESSES;

// The snapshots that ask these run on the test's own thread (a zero period).
struct FakeLinkSpeed : perfmon::IPerfLinkSpeed {
    std::map<std::string, uint32_t> speeds;
    bool GetLinkSpeedMbps(const std::string& name, uint32_t& mbps) override
    {
        auto it = speeds.find(name);
        return it != speeds.end() && (mbps = it->second, true);
    }
};

struct FakeClock : perfmon::IPerfClock {
    uint64_t now = 1000;
    uint64_t NowMs() override { return now; }
};

struct Rig {
    testsupport::FakeProc proc;
    std::shared_ptr<FakeLinkSpeed> speed = std::make_shared<FakeLinkSpeed>();
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    CPerfMon mon;

    explicit Rig(unsigned history = 100) : mon(history)
    {
        mon.SetProcRoot(proc.Root());
        mon.SetLinkSpeedSource(speed);
        mon.SetClock(clock);
    }
    /// The current (mode 0) or average (mode 1) percentage and the call's answer.
    std::pair<int, int> Answer(PMV v, int instance = 0, int mode = 0)
    {
        unsigned char p = 222;
        int r = mon.GetUsagePercent(p, v, mode, instance);
        return {p, r};
    }
    int Current(PMV v, int instance = 0) { return Answer(v, instance).first; }
    int Average(PMV v, int instance = 0) { return Answer(v, instance, 1).first; }
    /// Percentage and answer of each value from `first` to `last`, one after the other.
    std::vector<int> Answers(int first, int last, int instance = 0, int mode = 0)
    {
        std::vector<int> out;
        for (int v = first; v <= last; ++v) {
            const std::pair<int, int> a = Answer(PMV(v), instance, mode);
            out.insert(out.end(), {a.first, a.second});
        }
        return out;
    }
};

} // namespace perfmontest

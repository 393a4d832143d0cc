// A monitor on a made-up proc root, with a link speed and a clock that the
// test sets.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

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

class FakeLinkSpeed : public perfmon::IPerfLinkSpeed {
public:
    bool GetLinkSpeedMbps(const std::string& name, uint32_t& mbps) override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Queries;
        auto it = m_Speeds.find(name);
        if (it == m_Speeds.end())
            return false;
        mbps = it->second;
        return true;
    }
    void Set(const std::string& name, uint32_t mbps)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Speeds[name] = mbps;
    }
    int Queries()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Queries;
    }

private:
    std::mutex m_Mutex;
    std::map<std::string, uint32_t> m_Speeds;
    int m_Queries = 0;
};

class FakeClock : public perfmon::IPerfClock {
public:
    uint64_t NowMs() override { return m_Now.load(); }
    void Set(uint64_t ms) { m_Now.store(ms); }

private:
    std::atomic<uint64_t> m_Now{1000};
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
    /// The current (or average) percentage; `result` gets the call's answer.
    int Current(PMV v, int instance = 0, int* result = nullptr) { return Get(v, instance, result, true); }
    int Average(PMV v, int instance = 0, int* result = nullptr) { return Get(v, instance, result, false); }

private:
    int Get(PMV v, int instance, int* result, bool current)
    {
        unsigned char p = 222;
        int r = current ? mon.GetCurrentPercent(v, p, instance) : mon.GetAveragePercent(v, p, instance);
        if (result)
            *result = r;
        return p;
    }
};

} // namespace perfmontest

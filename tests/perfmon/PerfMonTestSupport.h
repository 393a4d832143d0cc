// A made-up proc root for the performance monitor, with a link speed and a
// clock that the test sets.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "perfmon/CPerfMon.h"
#include "perfmon/PerfMonSeams.h"
#include "support/TestSupport.h"

namespace perfmontest {

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

struct NetIf {
    std::string name;
    uint64_t rx;
    uint64_t tx;
};

/// A proc root in a temporary directory.
class FakeProc {
public:
    const std::string& Root() const { return m_Dir.Path(); }
    std::string Path(const std::string& rel) const { return m_Dir.Sub(rel); }

    void Write(const std::string& rel, const std::string& text) { testsupport::WriteFile(m_Dir.Sub(rel), text); }

    /// /proc/meminfo with the four fields (kB) amid other lines.
    void MemInfo(uint64_t memTotal, uint64_t memFree, uint64_t swapTotal, uint64_t swapFree)
    {
        Write("meminfo", "MemTotal:       " + std::to_string(memTotal) + " kB\n" +
                             "MemFree:        " + std::to_string(memFree) + " kB\n" +
                             "MemAvailable:   " + std::to_string(memFree) + " kB\n" +
                             "Buffers:          1234 kB\n" +
                             "SwapCached:          0 kB\n" +
                             "SwapTotal:      " + std::to_string(swapTotal) + " kB\n" +
                             "SwapFree:       " + std::to_string(swapFree) + " kB\n" +
                             "Dirty:              12 kB\n");
    }

    /// /proc/stat: the summary line, two processor lines and a long
    /// interrupt line as the kernel writes it.
    void Stat(uint64_t user, uint64_t nice, uint64_t system, uint64_t idle, int processors = 2)
    {
        std::string text = "cpu  " + std::to_string(user) + " " + std::to_string(nice) + " " +
                           std::to_string(system) + " " + std::to_string(idle) + " 7 0 3 0 0 0\n";
        for (int i = 0; i < processors; ++i)
            text += "cpu" + std::to_string(i) + " 1 0 1 1 0 0 0 0 0 0\n";
        text += "intr 123456";
        for (int i = 0; i < 600; ++i)
            text += " " + std::to_string(i % 7);
        text += "\nctxt 987654\nprocs_running 2\n";
        Write("stat", text);
    }

    /// /proc/net/dev with its two header lines.
    void NetDev(const std::vector<NetIf>& interfaces)
    {
        std::string text = "Inter-|   Receive                                                |  Transmit\n"
                           " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier compressed\n";
        for (const NetIf& n : interfaces) {
            text += "  " + n.name + ": " + std::to_string(n.rx) + "     452    0    0    0     0          0         0 " +
                    std::to_string(n.tx) + "     294    0    0    0     0       0          0\n";
        }
        Write("net/dev", text);
    }

    /// /proc/<pid>/stat of a process.
    static std::string ProcessStat(int pid, const std::string& comm, char state, uint64_t utime, uint64_t stime,
                                   uint64_t threads, uint64_t vsize, uint64_t rssPages)
    {
        return std::to_string(pid) + " (" + comm + ") " + state + " 1 " + std::to_string(pid) + " " +
               std::to_string(pid) + " 0 -1 4194560 100 0 0 0 " + std::to_string(utime) + " " +
               std::to_string(stime) + " 0 0 20 0 " + std::to_string(threads) + " 0 12345 " +
               std::to_string(vsize) + " " + std::to_string(rssPages) +
               " 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
    }

private:
    testsupport::TempDir m_Dir;
};

/// A monitor on the fake root with the fake link speed and clock.
struct Rig {
    FakeProc proc;
    std::shared_ptr<FakeLinkSpeed> speed = std::make_shared<FakeLinkSpeed>();
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    CPerfMon mon;

    explicit Rig(unsigned history = 100) : mon(history)
    {
        mon.SetProcRoot(proc.Root());
        mon.SetLinkSpeedSource(speed);
        mon.SetClock(clock);
    }

    unsigned char Current(CPerfMon::PerfMonitorValue v, int instance = 0, int* result = nullptr)
    {
        unsigned char p = 222;
        int r = mon.GetCurrentPercent(v, p, instance);
        if (result)
            *result = r;
        return p;
    }
    unsigned char Average(CPerfMon::PerfMonitorValue v, int instance = 0, int* result = nullptr)
    {
        unsigned char p = 222;
        int r = mon.GetAveragePercent(v, p, instance);
        if (result)
            *result = r;
        return p;
    }
};

} // namespace perfmontest

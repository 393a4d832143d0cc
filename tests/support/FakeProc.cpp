#include "support/FakeProc.h"

namespace testsupport {

namespace {
std::string N(uint64_t v) { return std::to_string(v); }
} // namespace

void FakeProc::Write(const std::string& rel, const std::string& text) { WriteFile(m_Dir.Sub(rel), text); }

void FakeProc::MemInfo(uint64_t memTotal, uint64_t memFree, uint64_t swapTotal, uint64_t swapFree)
{
    Write("meminfo", "MemTotal:       " + N(memTotal) + " kB\nMemFree:        " + N(memFree) +
                         " kB\nMemAvailable:   " + N(memFree) + " kB\nBuffers:          1234 kB\n"
                         "SwapCached:          0 kB\nSwapTotal:      " + N(swapTotal) + " kB\nSwapFree:       " +
                         N(swapFree) + " kB\nDirty:              12 kB\n");
}

void FakeProc::Stat(uint64_t user, uint64_t nice, uint64_t system, uint64_t idle, int processors)
{
    std::string text = "cpu  " + N(user) + " " + N(nice) + " " + N(system) + " " + N(idle) + " 7 0 3 0 0 0\n";
    for (int i = 0; i < processors; ++i)
        text += "cpu" + std::to_string(i) + " 1 0 1 1 0 0 0 0 0 0\n";
    text += "intr 123456";
    for (int i = 0; i < 600; ++i)
        text += " " + std::to_string(i % 7);
    Write("stat", text + "\nctxt 987654\nprocs_running 2\n");
}

void FakeProc::NetDev(const std::vector<NetIf>& interfaces)
{
    std::string text = "Inter-|   Receive                                                |  Transmit\n"
                       " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop "
                       "fifo colls carrier compressed\n";
    for (const NetIf& n : interfaces)
        text += "  " + n.name + ": " + N(n.rx) + "     452    0    0    0     0          0         0 " + N(n.tx) +
                "     294    0    0    0     0       0          0\n";
    Write("net/dev", text);
}

std::string FakeProc::ProcessStat(int pid, const std::string& comm, char state, uint64_t utime, uint64_t stime,
                                  uint64_t threads, uint64_t vsize, uint64_t rssPages)
{
    const std::string p = std::to_string(pid);
    return p + " (" + comm + ") " + state + " 1 " + p + " " + p + " 0 -1 4194560 100 0 0 0 " + N(utime) + " " +
           N(stime) + " 0 0 20 0 " + N(threads) + " 0 12345 " + N(vsize) + " " + N(rssPages) +
           " 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
}

} // namespace testsupport

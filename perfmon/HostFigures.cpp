#include "perfmon/HostFigures.h"

#include <cstdio>
#include <string_view>

#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"

namespace perfmon {

namespace {

constexpr int kNetCounters = 16;
// The columns of a statistics line: received bytes, packets, errors, ...,
// then the same for sent from the ninth on.
constexpr int kReceivedBytes = 0;
constexpr int kReceivedPackets = 1;
constexpr int kReceivedErrors = 2;
constexpr int kSentBytes = 8;
constexpr int kSentPackets = 9;
constexpr int kSentErrors = 10;

uint64_t KbToBytes(uint64_t kb)
{
    return kb > UINT64_MAX / 1024 ? UINT64_MAX : kb * 1024;
}

std::optional<uint32_t> ReadLinkSpeed(const std::string& sysRoot, const std::string& name)
{
    // The name comes from a file: one that could leave the directory is no
    // interface name.
    if (name.find('/') != std::string::npos || name == "." || name == "..")
        return std::nullopt;
    char relative[128];
    int n = snprintf(relative, sizeof relative, kLinkSpeedFile, name.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof relative)
        return std::nullopt;
    std::string text;
    if (!ReadSmallFile(JoinPath(sysRoot, relative), text))
        return std::nullopt;
    // "-1" (or an error on read) when the speed is unknown.
    const char* p = text.c_str();
    uint64_t mbps = 0;
    if (!ParseU64(p, text.c_str() + text.size(), mbps) || mbps == 0 || mbps > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(mbps);
}

} // namespace

bool ReadMemoryFigures(const std::string& procRoot, MemoryFigures& out)
{
    CProcLineReader reader;
    if (!reader.Open(JoinPath(procRoot, kMemInfoFile)))
        return false;
    struct Key {
        std::string_view name;
        uint64_t kb = 0;
        bool found = false;
    } keys[] = {{"MemTotal:"}, {"MemFree:"}, {"MemAvailable:"}, {"Buffers:"}, {"Cached:"}, {"SwapTotal:"},
                {"SwapFree:"}};
    std::string line;
    while (reader.Next(line))
        for (Key& k : keys)
            if (!k.found && ParseKeyedU64(line, k.name, k.kb))
                k.found = true;
    auto& [total, memFree, available, buffers, cached, swapTotal, swapFree] = keys;
    if (!total.found)
        return false;
    out.totalBytes = KbToBytes(total.kb);
    out.freeBytes = KbToBytes(memFree.kb);
    out.availableBytes =
        available.found ? KbToBytes(available.kb) : KbToBytes(memFree.kb + buffers.kb + cached.kb);
    out.usedBytes = out.totalBytes > out.availableBytes ? out.totalBytes - out.availableBytes : 0;
    out.swapTotalBytes = KbToBytes(swapTotal.kb);
    out.swapFreeBytes = KbToBytes(swapFree.kb);
    return true;
}

bool ReadInterfaceFigures(const std::string& procRoot, const std::string& sysRoot, std::vector<InterfaceFigures>& out)
{
    out.clear();
    CProcLineReader reader;
    if (!reader.Open(JoinPath(procRoot, kNetDevFile)))
        return false;
    std::string line;
    NetDevLine entry;
    while (reader.Next(line)) {
        uint64_t counters[kNetCounters] = {};
        if (!SplitNetDevLine(line, entry, false) || ParseU64List(entry.counters, counters, kNetCounters) <= kSentBytes)
            continue;
        InterfaceFigures f;
        f.name = entry.name;
        f.receivedBytes = counters[kReceivedBytes];
        f.sentBytes = counters[kSentBytes];
        f.receivedPackets = counters[kReceivedPackets];
        f.receivedErrors = counters[kReceivedErrors];
        f.sentPackets = counters[kSentPackets];
        f.sentErrors = counters[kSentErrors];  // 0 on a line cut short
        f.speedMbps = ReadLinkSpeed(sysRoot, f.name);
        out.push_back(std::move(f));
    }
    return true;
}

std::optional<uint64_t> RatePerSecond(uint64_t before, uint64_t after, uint64_t elapsedMs)
{
    if (after < before || elapsedMs == 0)
        return std::nullopt;
    const unsigned __int128 rate = static_cast<unsigned __int128>(after - before) * 1000 / elapsedMs;
    return rate > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(rate);
}

} // namespace perfmon

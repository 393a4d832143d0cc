// The machine's figures as an administrator's own tools show them (free,
// ip -s link, ethtool): memory in use without the page cache, available
// memory, byte counters and link speed of every interface the kernel lists.
// They stand beside the monitor's percentages, which keep their own rules.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace perfmon {

/// Memory in bytes, from the meminfo file.
struct MemoryFigures {
    uint64_t totalBytes = 0;
    uint64_t freeBytes = 0;
    /// MemAvailable: what can be given to programs without swapping (kernel
    /// estimate, page cache included).  Kernels before 3.14 lack it: then
    /// free + buffers + cached, as free(1) computes it there.
    uint64_t availableBytes = 0;
    /// total − available, held at 0: what free(1) shows as "used".
    uint64_t usedBytes = 0;
    uint64_t swapTotalBytes = 0;
    uint64_t swapFreeBytes = 0;
};

/// Reads `procRoot`/meminfo.  false when it cannot be read or MemTotal is missing.
bool ReadMemoryFigures(const std::string& procRoot, MemoryFigures& out);

/// One interface with its 64-bit counters, whatever its name: read from a
/// captured proc tree here, and from the kernel itself over netlink by the
/// network interface library (modules/common/LinkFigures.h picks the source).
struct InterfaceFigures {
    std::string name;
    uint64_t receivedBytes = 0;
    uint64_t sentBytes = 0;
    uint64_t receivedPackets = 0;
    uint64_t sentPackets = 0;
    uint64_t receivedErrors = 0;
    uint64_t sentErrors = 0;
    /// Link speed in Mbit/s; absent when the kernel does not know it (no
    /// carrier, virtual interfaces).
    std::optional<uint32_t> speedMbps;
};

/// Reads `procRoot`/net/dev (every interface, in file order) and the link
/// speed of each from `sysRoot`/class/net/NAME/speed: the reader of a
/// captured tree (the running kernel's counters are read over netlink).
/// false when the statistics cannot be read.
bool ReadInterfaceFigures(const std::string& procRoot, const std::string& sysRoot,
                          std::vector<InterfaceFigures>& out);

/// Bytes per second between two readings `elapsedMs` apart; a counter that
/// went down (interface re-created) gives no rate.
std::optional<uint64_t> RatePerSecond(uint64_t before, uint64_t after, uint64_t elapsedMs);

} // namespace perfmon

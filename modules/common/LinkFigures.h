// Every interface's counters and rates for the performance module and
// kopperf.  On the machine itself the counters are the kernel's 64-bit ones,
// read over netlink by the network interface library (its view of every
// interface, speed and duplex included); a captured proc tree (another
// proc or sys root) is read from its device statistics file instead.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "netif/network_interface_manager.h"
#include "perfmon/HostFigures.h"
#include "perfmon/PerfMonPaths.h"

namespace tarvdmod {

/// Fills `out` with every interface; false when nothing could be read (the
/// netlink dump failed, or the captured statistics file is missing).
inline bool ReadLinkFigures(const std::string& procRoot, const std::string& sysRoot,
                            std::vector<perfmon::InterfaceFigures>& out)
{
    if (procRoot != perfmon::kDefaultProcRoot || sysRoot != perfmon::kDefaultSysRoot)
        return perfmon::ReadInterfaceFigures(procRoot, sysRoot, out);
    std::vector<libnetif::interface_record> links;
    out.clear();
    if (!libnetif::list_interfaces(links))
        return false;
    for (const libnetif::interface_record& r : links) {
        perfmon::InterfaceFigures f;
        f.name = r.name;
        f.receivedBytes = r.stats.rx_bytes;
        f.sentBytes = r.stats.tx_bytes;
        f.receivedPackets = r.stats.rx_packets;
        f.sentPackets = r.stats.tx_packets;
        f.receivedErrors = r.stats.rx_errors;
        f.sentErrors = r.stats.tx_errors;
        f.speedMbps = r.speed_mbps;
        out.push_back(std::move(f));
    }
    return true;
}

/// Rates per second of one interface between two readings; each absent
/// where its counter went down (the interface was made anew) or no time
/// passed.
struct LinkRates {
    std::optional<uint64_t> receivedBytes, sentBytes, receivedPackets, sentPackets;
};

/// The rates of `now` since the reading of the same name in `before`; all
/// absent when `before` has none.
inline LinkRates RatesSince(const std::vector<perfmon::InterfaceFigures>& before, const perfmon::InterfaceFigures& now,
                            uint64_t elapsedMs)
{
    LinkRates r;
    for (const perfmon::InterfaceFigures& b : before) {
        if (b.name != now.name)
            continue;
        r.receivedBytes = perfmon::RatePerSecond(b.receivedBytes, now.receivedBytes, elapsedMs);
        r.sentBytes = perfmon::RatePerSecond(b.sentBytes, now.sentBytes, elapsedMs);
        r.receivedPackets = perfmon::RatePerSecond(b.receivedPackets, now.receivedPackets, elapsedMs);
        r.sentPackets = perfmon::RatePerSecond(b.sentPackets, now.sentPackets, elapsedMs);
    }
    return r;
}

} // namespace tarvdmod

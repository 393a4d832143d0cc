// The records of the network interface library: interfaces with their
// figures, addresses, IPv4 routes, and the change events built from them.
// Plain values, copied freely; every text is already decoded (names, MAC,
// addresses in the notation `ip` uses).
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "common/CPciAddress.h"

namespace libnetif {

/// Thrown only by code that chooses exceptions for its own callers; the
/// library itself returns failures and traces them.
class libnetif_exception : public std::runtime_error {
public:
    explicit libnetif_exception(const std::string& message) : std::runtime_error(message) {}
    const char* message() const { return what(); }
};

/// The 64-bit counters of an interface (the kernel's own; 32-bit counters of
/// old kernels are widened).
struct link_statistics {
    uint64_t rx_packets = 0;
    uint64_t tx_packets = 0;
    uint64_t rx_bytes = 0;
    uint64_t tx_bytes = 0;
    uint64_t rx_errors = 0;
    uint64_t tx_errors = 0;
    uint64_t rx_dropped = 0;
    uint64_t tx_dropped = 0;
    uint64_t multicast = 0;
    uint64_t collisions = 0;
};

enum class link_duplex { half, full };

struct interface_record {
    int index = 0;
    std::string name;
    /// The hardware type (ARPHRD_*: 1 Ethernet, 772 loopback, ...).
    uint16_t type = 0;
    /// The kind of a virtual interface ("veth", "bridge", ...); empty otherwise.
    std::string kind;
    /// "aa:bb:cc:dd:ee:ff" (as many bytes as the hardware address has); empty when none.
    std::string mac;
    /// IFF_* flags as the kernel reports them (IFF_UP, IFF_RUNNING, ...).
    uint32_t flags = 0;
    /// IF_OPER_* (RFC 2863 state: 6 up, 2 down, 0 unknown).
    uint8_t operstate = 0;
    std::optional<bool> carrier;
    uint32_t mtu = 0;
    link_statistics stats;
    /// Link speed in Mbit/s and duplex; absent when the driver does not know them.
    std::optional<uint32_t> speed_mbps;
    std::optional<link_duplex> duplex;
    /// The driver bound to the device, and the PCI function it sits on; empty
    /// or absent for virtual interfaces.
    std::string driver;
    std::optional<CPciAddress> pci_address;

    /// Administratively up and with carrier (IFF_RUNNING).
    bool link_up() const;
};

struct address_record {
    int index = 0;
    /// AF_INET or AF_INET6.
    uint8_t family = 0;
    std::string address;
    uint8_t prefix = 0;
    /// RT_SCOPE_* (0 universe, 253 link, 254 host).
    uint8_t scope = 0;
    uint32_t flags = 0;
    std::string label;
};

/// A route of the main IPv4 table.
struct route_record {
    /// "0.0.0.0" with prefix 0 for the default route.
    std::string destination;
    uint8_t prefix = 0;
    /// Empty for a directly connected destination.
    std::string gateway;
    /// The output interface's index; 0 when the route has none (blackhole).
    int oif = 0;
    uint32_t metric = 0;
    /// RTPROT_* (2 kernel, 3 boot, 4 static, 16 dhcp).
    uint8_t protocol = 0;
    uint8_t scope = 0;
    /// RTN_* (1 unicast, 6 blackhole, 7 unreachable, ...).
    uint8_t type = 0;
    uint8_t tos = 0;
};

enum class event_kind {
    interface_added,
    interface_removed,
    link_up,
    link_down,
    mtu_changed,
    mac_changed,
    name_changed,
    speed_changed,
    address_added,
    address_removed,
    route_added,
    route_removed,
};

/// "interface_added", "link_up", ...
const char* event_kind_name(event_kind kind);
/// The operational state as `ip link` shows it, lower-case: "up", "down",
/// "dormant", ...; "unknown" for the kernel's unknown and for values it does
/// not define.
const char* operstate_name(uint8_t operstate);
/// "full" or "half".
const char* duplex_name(link_duplex duplex);

/// One change.  `iface` is the interface as it is now (as it was, for a
/// removal); `address` and `route` are filled for their own kinds;
/// `previous` holds the value before a change (old name, MAC, MTU or speed,
/// "unknown" for a speed that was not known).
struct netif_event {
    event_kind kind = event_kind::interface_added;
    interface_record iface;
    address_record address;
    route_record route;
    std::string previous;
};

} // namespace libnetif

// The names of the subkeys and values of a registry key, as the bundled
// modules list them to compare what is stored with what they publish.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "registry/CRegistry.h"
#include "registry/CRegistryNode.h"

namespace tarvdmod {

/// Longest name read back (registry names are shorter in practice).
inline constexpr unsigned kRegistryNameBuffer = 256;

/// Names of the subkeys of the current key of `reg`.
inline std::vector<std::string> SubKeyNames(CRegistry& reg)
{
    std::vector<std::string> names;
    for (unsigned index = 0;; ++index) {
        char name[kRegistryNameBuffer];
        unsigned size = sizeof name;
        if (reg.EnumKey(name, &size, index) != CRegistry::kOk)
            break;
        names.emplace_back(name, strnlen(name, sizeof name));
    }
    return names;
}

/// Names of the values of the current key of `reg`.
inline std::vector<std::string> ValueNames(CRegistry& reg)
{
    std::vector<std::string> names;
    for (unsigned index = 0;; ++index) {
        char name[kRegistryNameBuffer];
        unsigned size = sizeof name;
        if (reg.EnumVal(name, &size, index, RegAnyValue, nullptr, nullptr) != CRegistry::kOk)
            break;
        names.emplace_back(name, strnlen(name, sizeof name));
    }
    return names;
}

} // namespace tarvdmod

// ---- network interfaces ---------------------------------------------------------------
// The names the bundled modules publish network interfaces under: the
// inventory's key per interface (below ...\Inventory) and the performance
// module's per-interface figures (below ...\Performance\Interfaces).
namespace tarvdmod::net {

/// Below the inventory key: one subkey per interface, named by the escaped
/// interface name.
inline constexpr const char* kInterfacesKey = "NetworkInterfaces";

// Values of an interface key.
inline constexpr const char* kIndex = "Index";                  // number
inline constexpr const char* kType = "Type";                    // number: hardware type (1 Ethernet, 772 loopback)
inline constexpr const char* kKind = "Kind";                    // text: virtual kind (veth, bridge); absent otherwise
inline constexpr const char* kMacAddress = "MacAddress";        // text; absent when none
inline constexpr const char* kMtu = "Mtu";                      // number
inline constexpr const char* kOperState = "OperState";          // text: up, down, dormant, ...
inline constexpr const char* kCarrier = "Carrier";              // number 0/1; absent when unknown
inline constexpr const char* kLinkUp = "LinkUp";                // number 0/1: up and with carrier
inline constexpr const char* kSpeedMbps = "SpeedMbps";          // number; absent when unknown
inline constexpr const char* kDuplex = "Duplex";                // text full/half; absent when unknown
inline constexpr const char* kDriver = "Driver";                // text; absent for virtual interfaces
inline constexpr const char* kPciAddress = "PciAddress";        // text ssss:bb:dd.f; absent when not on PCI
inline constexpr const char* kIPv4Addresses = "IPv4Addresses";  // text: "a.b.c.d/p" separated by blanks
inline constexpr const char* kIPv6Addresses = "IPv6Addresses";  // text: "x::y/p" separated by blanks

// Values of a performance interface key, beside the byte counters and
// rates: packets and errors, totals (decimal text) and rates per second.
inline constexpr const char* kReceivedPackets = "ReceivedPackets";
inline constexpr const char* kSentPackets = "SentPackets";
inline constexpr const char* kReceivedErrors = "ReceivedErrors";
inline constexpr const char* kSentErrors = "SentErrors";
inline constexpr const char* kPerSecond = "PerSecond";  // suffix of a rate's name

} // namespace tarvdmod::net

// The PCI functions published under /proc/bus/pci, their configuration
// headers, class names and physical slots.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/CPciAddress.h"
#include "hwinfo/CPciSlotMap.h"

/// Size of the configuration header read for each function.
inline constexpr size_t kPciConfigHeaderSize = 64;
using PciConfigHeader = std::array<uint8_t, kPciConfigHeaderSize>;

/// Field access and names of the PCI Local Bus common configuration header.
class CPciCommonConfigHeader {
public:
    static uint16_t VendorId(const PciConfigHeader& h);
    static uint16_t DeviceId(const PciConfigHeader& h);
    static uint8_t ProgIf(const PciConfigHeader& h) { return h[0x09]; }
    static uint8_t SubClass(const PciConfigHeader& h) { return h[0x0A]; }
    static uint8_t BaseClass(const PciConfigHeader& h) { return h[0x0B]; }
    static uint8_t HeaderType(const PciConfigHeader& h) { return h[0x0E]; }
    static bool IsBridge(const PciConfigHeader& h) { return (h[0x0E] & 0x01) != 0; }
    /// Subsystem ids; 0 unless the header layout is 0.
    static uint16_t SubVendorId(const PciConfigHeader& h);
    static uint16_t SubDeviceId(const PciConfigHeader& h);
    static uint8_t PrimaryBus(const PciConfigHeader& h) { return h[0x18]; }
    static uint8_t SecondaryBus(const PciConfigHeader& h) { return h[0x19]; }
    /// Vendor neither 0x0000 nor 0xFFFF, device not 0.
    static bool IsValid(const PciConfigHeader& h);

    /// Name of the base class (0 and 18-254: "Unknown", 255: "Other").
    static const char* GetPciBaseClassDescription(uint8_t baseClass);
    /// Name of the header's subclass (the base-class name for codes not listed).
    static const char* GetPciSubClassDescription(const PciConfigHeader& h);
};

/// One PCI function as the configuration scan found it.
struct CPciSlotData {
    CPciAddress address;
    PciConfigHeader header{};
    int slot = -1;            ///< -1: no slot known, or slot lookup off
    std::string name;         ///< filled by the adapter scan
    std::string description;  ///< filled by the adapter scan
};

/// Ordered map from PCI address to the scanned function.
class CPciConfigList : public std::map<CPciAddress, CPciSlotData> {
public:
    /// Adds one record per valid function to `list`, with the slot decided
    /// from the firmware slot list and the bridges above it when `withSlots`.
    /// True when `list` holds any record afterwards.
    static bool ScanPciSlots(CPciConfigList& list, bool withSlots);
};

/// One line per PCI function: "ssss:bb:dd.f vvvv:dddd <subclass> slot N"
/// (slot from the process-wide slot map); each line is traced too.
std::vector<std::string> KelTRScanPciSlots();

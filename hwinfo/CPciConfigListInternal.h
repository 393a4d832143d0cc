// Access to the PCI configuration files under /proc/bus/pci: the seam of
// the configuration scan, internal to the hardware inventory.
#pragma once

#include <map>
#include <string>

#include "common/CPciAddress.h"
#include "hwinfo/CPciConfigList.h"

/// Access to the PCI configuration files.
class CDeviceBusIo {
public:
    using NameList = std::map<CPciAddress, std::string>;
    /// Fills `list` with address → file path for every function under
    /// /proc/bus/pci (first entry of an address wins).  False only when the
    /// directory itself cannot be listed.
    static bool BuildPciDeviceNameList(NameList& list);
    /// Reads the first 64 bytes of `path`; false (traced) when the file
    /// cannot be opened or is shorter.
    static bool GetPciConfigSpace(const std::string& path, PciConfigHeader& header);
};

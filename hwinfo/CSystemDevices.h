// The device records of the hardware inventory and their scans: adapters
// (one per PCI function), drives (block devices) and volumes (mounted file
// systems).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/CPciAddress.h"
#include "hwinfo/CPciConfigList.h"

/// One PCI function as an adapter.
class CSystemAdapter {
public:
    CPciAddress address;
    uint16_t vendorId = 0;
    uint16_t deviceId = 0;
    uint16_t subVendorId = 0;
    uint16_t subDeviceId = 0;
    uint8_t baseClass = 0;
    uint8_t subClass = 0;
    std::string className;     ///< base-class name
    std::string subClassName;  ///< subclass name
    int slot = -1;             ///< physical slot, -1 when unknown
    std::string deviceIdText;  ///< "vvvv:dddd" (lower-case hex)
    std::string name;          ///< from the adapter list file, else the subclass name

    const CPciAddress& GetPciAddress() const { return address; }
    const char* GetDeviceId() const { return deviceIdText.c_str(); }
    const char* GetName() const { return name.c_str(); }

    /// Refills `adapters` with one adapter per function of `config` (in
    /// address order) and names each one: the adapter list file
    /// /etc/tarvd/Adapter.ini, section [Adapters], key "vvvv:dddd:ssss:ssss"
    /// (vendor, device, subsystem vendor, subsystem id; lower-case hex) or,
    /// less specific, "vvvv:dddd"; value = the name.  Without an entry the
    /// subclass name is used.  The names are copied into the configuration
    /// records as well.  True when any adapter was made.
    static bool ScanSystemAdapters(std::vector<CSystemAdapter>& adapters, CPciConfigList& config, bool withNames = true);
    /// The name the adapter list file gives vendor/device/subsystem, or "".
    static std::string LookupAdapterName(uint16_t vendor, uint16_t device, uint16_t subVendor, uint16_t subDevice);
};

/// One block device.
class CSystemDrive {
public:
    std::string name;    ///< kernel name, e.g. "sda"
    std::string model;   ///< device/model, trimmed
    std::string vendor;  ///< device/vendor, trimmed
    uint64_t sizeBytes = 0;
    CPciAddress pciAddress;
    bool hasPciAddress = false;  ///< false when the device is not below a PCI function

    const CPciAddress& GetPciAddress() const { return pciAddress; }
    const char* GetName() const { return name.c_str(); }

    /// Refills `drives` from /sys/block.  Skipped: names beginning with
    /// "loop", "ram", "zram", "nbd" or "fd", and every entry without a
    /// "device" link (device-mapper, md and other virtual devices).
    /// True when the directory could be read.
    static bool ScanSystemDrives(std::vector<CSystemDrive>& drives);
    /// The last "ssss:bb:dd.f" component of `path`; false when none.
    static bool PciAddressFromPath(const std::string& path, CPciAddress& address);
};

/// One mounted file system.
class CSystemVolume {
public:
    std::string device;
    std::string mountPoint;
    std::string fsType;
    uint64_t totalBytes = 0;
    uint64_t freeBytes = 0;       ///< free, including blocks reserved for root
    uint64_t availableBytes = 0;  ///< available to unprivileged users

    /// Refills `volumes` from the mount table.  Only mounts whose source is
    /// an absolute path (a block device or an image file) are volumes:
    /// pseudo file systems (proc, sysfs, tmpfs, cgroup, overlay, ...) name
    /// no path as their source and are skipped, and so are "autofs" mounts
    /// (placeholders of automounted paths).  Sizes come from statvfs on the
    /// mount point (0 when it fails).  True when the mount table could be
    /// read.  The table is read line by line and at most kMaxVolumes
    /// volumes are kept (a trace line tells when more were left out), so a
    /// huge table costs bounded memory and time.
    static bool ScanSystemVolumes(std::vector<CSystemVolume>& volumes);
    /// The most volumes a scan keeps; far beyond any real machine's.
    static constexpr size_t kMaxVolumes = 16384;
    /// Parses one mount-table line; false when it has fewer than three fields.
    static bool ParseMountLine(const std::string& line, CSystemVolume& volume);
};

/// Partitions have no scan of their own; the record exists for the queries.
class CSystemPartition {
public:
    std::string name;
};

using CSystemAdapterList = std::vector<CSystemAdapter>;
using CSystemDriveList = std::vector<CSystemDrive>;
using CSystemVolumeList = std::vector<CSystemVolume>;
using CSystemPartitionList = std::vector<CSystemPartition>;

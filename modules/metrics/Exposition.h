// The metrics page: what the metrics module knows of the machine and of the
// agent, and the text a Prometheus server reads from it (text exposition
// format 0.0.4).  Building the text is a pure function of these figures, so
// that any input can be rendered without a machine behind it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace metrics {

/// The content type of the text format.
inline constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

struct CpuBusy {
    std::string cpu;  ///< "0", "1", ... ; empty for all CPUs together
    double ratio = 0;  ///< busy time over elapsed time, 0..1
};

struct Memory {
    uint64_t totalBytes = 0, availableBytes = 0, freeBytes = 0, usedBytes = 0;
    uint64_t swapTotalBytes = 0, swapFreeBytes = 0;
};

struct Interface {
    std::string name;
    uint64_t receiveBytes = 0, transmitBytes = 0;
    uint64_t receivePackets = 0, transmitPackets = 0;
    uint64_t receiveErrors = 0, transmitErrors = 0;
};

struct Volume {
    std::string mountPoint, device, fileSystem;
    uint64_t sizeBytes = 0, availableBytes = 0;
};

struct Drive {
    std::string name, vendor, model, hostAdapter;
    uint64_t sizeBytes = 0;
};

struct Adapter {
    std::string pciAddress;  ///< "0000:00:1f.2"
    std::string slot;        ///< the physical slot number; empty when none is known
    std::string vendorId, deviceId;  ///< four hex digits each
    std::string className, name;
};

/// The firmware's identity of the machine; a field the firmware left empty stays empty.
struct Identity {
    std::string manufacturer, product, serialNumber, uuid;
    std::string biosVendor, biosVersion, biosDate;
};

/// A memory module (DIMM) the firmware lists as installed.
struct MemoryDevice {
    std::string locator, bankLocator;
    uint64_t sizeBytes = 0;
};

struct Health {
    std::optional<uint32_t> modulesLoaded, modulesFailed;  ///< absent: the framework does not say
    uint64_t registrySaves = 0, registrySaveFailures = 0;
    uint64_t traceRingWraps = 0;
};

struct Snapshot {
    std::vector<CpuBusy> cpus;
    std::optional<Memory> memory;
    std::vector<Interface> interfaces;
    std::vector<Volume> volumes;
    std::vector<Drive> drives;
    std::vector<Adapter> adapters;
    std::vector<MemoryDevice> memoryDevices;
    std::optional<Identity> identity;
    std::optional<uint64_t> changeRecords;  ///< absent until the inventory keeps any
    Health health;
    double scrapeSeconds = 0;  ///< what gathering the figures took
};

/// `text` as a label value: backslash, double quote and line feed escaped,
/// a byte that is no part of valid UTF-8 replaced by '?'.
std::string EscapeLabelValue(const std::string& text);

/// The whole page: each family once with its HELP and TYPE lines, families
/// without samples left out.
std::string Render(const Snapshot& snapshot);

} // namespace metrics

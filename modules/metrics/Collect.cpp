// The figures of the metrics page, gathered at each scrape.
#include "modules/metrics/Collect.h"

#include <chrono>
#include <cstdio>
#include <string_view>
#include <sys/statvfs.h>

#include "common/FileIO.h"
#include "modules/common/LinkFigures.h"
#include "modules/common/RegistryNames.h"
#include "modules/inventory/InventoryModel.h"
#include "perfmon/HostFigures.h"
#include "perfmon/ProcParse.h"
#include "registry/CRegistry.h"
#include "trace/CDebug.h"

namespace metrics {

namespace {

/// The stat file is a few kilobytes per CPU.
constexpr size_t kStatLimit = 4 << 20;
constexpr uint64_t kMegabyte = 1024 * 1024;
constexpr uint32_t kNoSlot = inventory::kNoSlot;

/// Every interface's counters, as the performance module reads them.
void CollectInterfaces(Snapshot& s, const std::string& procRoot)
{
    std::vector<perfmon::InterfaceFigures> links;
    if (!tarvdmod::ReadLinkFigures(procRoot, perfmon::kDefaultSysRoot, links))
        return;
    for (const auto& l : links)
        s.interfaces.push_back({l.name, l.receivedBytes, l.sentBytes, l.receivedPackets, l.sentPackets,
                                l.receivedErrors, l.sentErrors});
}

void CollectHealth(Snapshot& s, ModuleCountsFunction moduleCounts)
{
    if (moduleCounts) {
        uint32_t loaded = 0, failed = 0;
        moduleCounts(&loaded, &failed);
        s.health.modulesLoaded = loaded;
        s.health.modulesFailed = failed;
    }
    s.health.registrySaves = CRegistry::GetSaveCount();
    s.health.registrySaveFailures = CRegistry::GetSaveFailureCount();
    s.health.traceRingWraps = Debug.GetRingWrapCount();
}

/// Reads the values of one inventory item (the registry handle's current key).
struct Item {
    CRegistry& reg;
    std::string Text(const char* name) const
    {
        std::string text;
        return reg.QueryValue(text, name) == CRegistry::kOk ? text : std::string();
    }
    uint32_t Number(const char* name, uint32_t fallback = 0) const
    {
        unsigned number = 0;
        return reg.QueryValue(&number, name) == CRegistry::kOk ? number : fallback;
    }
    std::string Hex(const char* name) const
    {
        char text[8];
        snprintf(text, sizeof text, "%04x", Number(name) & 0xFFFF);
        return text;
    }
};

/// Calls `read(item, key name)` for each item of the inventory category `category`.
template <typename F>
void EachItem(const char* category, F read)
{
    CRegistry reg;
    const std::string path = std::string(inventory::kInventoryKey) + "\\" + category;
    if (reg.Open(path.c_str(), CRegistry::HKEY_LOCAL_MACHINE) != 0)
        return;
    CRegistryNode* parent = reg.GetKey();
    for (const std::string& name : tarvdmod::SubKeyNames(reg))
        if (reg.Open(name.c_str(), parent) == 0)
            read(Item{reg}, name);
}

Volume ReadVolume(const Item& item)
{
    Volume v{item.Text("MountPoint"), item.Text("Device"), item.Text("FileSystem"), 0, 0};
    // Live figures where the file system can be asked; the inventory's
    // (whole megabytes, as of its last check) otherwise.
    struct statvfs fs {};
    if (!v.mountPoint.empty() && statvfs(v.mountPoint.c_str(), &fs) == 0) {
        v.sizeBytes = static_cast<uint64_t>(fs.f_blocks) * fs.f_frsize;
        v.availableBytes = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
    } else {
        v.sizeBytes = item.Number("TotalMB") * kMegabyte;
        v.availableBytes = item.Number("AvailableMB") * kMegabyte;
    }
    return v;
}

Drive ReadDrive(const Item& item, const std::string& key)
{
    Drive d{item.Text("Name"), item.Text("Vendor"), item.Text("Model"), item.Text("HostAdapter"), 0};
    if (d.name.empty())
        d.name = key;
    const std::string bytes = item.Text("SizeBytes");
    char* end = nullptr;
    const unsigned long long size = bytes.empty() ? 0 : strtoull(bytes.c_str(), &end, 10);
    d.sizeBytes = end && *end == '\0' ? size : item.Number("SizeMB") * kMegabyte;
    return d;
}

Adapter ReadAdapter(const Item& item, const std::string& key)
{
    const uint32_t slot = item.Number("Slot", kNoSlot);
    Adapter a{item.Text("PciAddress"), slot == kNoSlot ? std::string() : std::to_string(slot), item.Hex("VendorId"),
              item.Hex("DeviceId"), item.Text("ClassName"), item.Text("Name")};
    if (a.pciAddress.empty())
        a.pciAddress = key;
    return a;
}

void ReadIdentity(Snapshot& s)
{
    Identity id;
    bool any = false;
    EachItem(inventory::kIdentityKey, [&](const Item& item, const std::string& key) {
        if (key == "BIOS") {
            id.biosVendor = item.Text("Vendor");
            id.biosVersion = item.Text("Version");
            id.biosDate = item.Text("ReleaseDate");
            any = true;
        } else if (key == "System") {
            id.manufacturer = item.Text("Manufacturer");
            id.product = item.Text("ProductName");
            id.serialNumber = item.Text("SerialNumber");
            id.uuid = item.Text("UUID");
            any = true;
        } else if (key.rfind("Memory ", 0) == 0 && item.Number("Installed") != 0) {
            s.memoryDevices.push_back({item.Text("Locator"), item.Text("BankLocator"), item.Number("SizeMB") * kMegabyte});
        }
    });
    if (any)
        s.identity = std::move(id);
}

} // namespace

std::map<std::string, CpuTimes> ParseCpuTimes(const std::string& stat)
{
    std::map<std::string, CpuTimes> cpus;
    std::string_view rest(stat);
    while (!rest.empty()) {
        const size_t eol = rest.find('\n');
        const std::string_view line = rest.substr(0, eol);
        rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
        const size_t blank = line.find(' ');
        if (line.compare(0, 3, "cpu") != 0 || blank == std::string_view::npos)
            continue;
        // user nice system idle iowait irq softirq steal (guest time is
        // already part of user and nice).
        uint64_t v[8] = {};
        const int n = perfmon::ParseU64List(line.substr(blank), v, 8);
        if (n < 4)
            continue;
        CpuTimes t;
        for (int i = 0; i < n; ++i)
            t.total += v[i];
        // Idle and waiting are part of the total unless the figures are
        // nonsense (a wrapped sum): then nothing counts as busy.
        const uint64_t waiting = v[3] + v[4];
        t.busy = waiting <= t.total ? t.total - waiting : 0;
        cpus[std::string(line.substr(3, blank - 3))] = t;
    }
    return cpus;
}

void Collector::CollectCpus(Snapshot& s)
{
    std::string text;
    if (tarvd::ReadFileBounded((m_ProcRoot + "/stat").c_str(), kStatLimit, text) != 0)
        return;
    std::map<std::string, CpuTimes> now = ParseCpuTimes(text);
    std::lock_guard guard(m_CpuLock);
    for (const auto& [cpu, t] : now) {
        // Since the previous scrape; the first one (or a counter that went
        // back, a CPU brought online again) gives the figure since boot.
        CpuTimes before;
        if (auto it = m_LastCpu.find(cpu); it != m_LastCpu.end() && it->second.total < t.total &&
                                           it->second.busy <= t.busy)
            before = it->second;
        const uint64_t total = t.total - before.total, busy = t.busy - before.busy;
        s.cpus.push_back({cpu, total ? static_cast<double>(busy) / static_cast<double>(total) : 0.0});
    }
    m_LastCpu = std::move(now);
}

void CollectInventory(Snapshot& s)
{
    EachItem(inventory::kAdaptersKey,
             [&](const Item& item, const std::string& key) { s.adapters.push_back(ReadAdapter(item, key)); });
    EachItem(inventory::kDrivesKey,
             [&](const Item& item, const std::string& key) { s.drives.push_back(ReadDrive(item, key)); });
    EachItem(inventory::kVolumesKey, [&](const Item& item, const std::string&) { s.volumes.push_back(ReadVolume(item)); });
    ReadIdentity(s);
    CRegistry reg;
    unsigned last = 0;
    if (reg.Open(inventory::kInventoryKey, CRegistry::HKEY_LOCAL_MACHINE) == 0 &&
        reg.QueryValue(&last, "LastChange") == CRegistry::kOk)
        s.changeRecords = last;
}

Snapshot Collector::Collect()
{
    const auto start = std::chrono::steady_clock::now();
    Snapshot s;
    CollectCpus(s);
    perfmon::MemoryFigures m;
    if (perfmon::ReadMemoryFigures(m_ProcRoot, m))
        s.memory = Memory{m.totalBytes, m.availableBytes, m.freeBytes, m.usedBytes, m.swapTotalBytes, m.swapFreeBytes};
    CollectInterfaces(s, m_ProcRoot);
    CollectInventory(s);
    CollectHealth(s, m_ModuleCounts);
    s.scrapeSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return s;
}

} // namespace metrics

// Helpers of the bundled modules' tests: loading a module the way the
// framework does, a machine snapshot, a made-up proc root, registry readers.
#pragma once

#include <cstdint>
#include <dlfcn.h>
#include <map>
#include <string>
#include <vector>

#include "common/UniqueHandle.h"
#include "framework/tarvd_module.h"
#include "modules/inventory/InventoryModel.h"
#include "registry/CRegistry.h"
#include "support/Firmware.h"
#include "support/RegistryFixture.h"
#include "support/TestSupport.h"
#include "support/Wait.h"

namespace modtest {

using testsupport::MakeDirs;
using testsupport::ReadFile;
using testsupport::WaitFor;
using testsupport::WriteFile;

/// One module shared object, opened with dlopen and closed with dlclose.
class ModuleLibrary {
public:
    explicit ModuleLibrary(const char* path) : m_Handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    /// The module's table; null (the cause in dlerror) when it has none.
    const TarvdModuleV1* Table() const
    {
        auto entry = m_Handle ? reinterpret_cast<TarvdModuleEntry>(dlsym(m_Handle.Get(), TARVD_MODULE_ENTRY)) : nullptr;
        return entry ? entry() : nullptr;
    }
    const TarvdModuleV1* operator->() const { return Table(); }

private:
    UniqueLibrary m_Handle;
};

/// A loader configuration whose getValue answers from a map.
struct ModuleConfig {
    explicit ModuleConfig(std::map<std::string, std::string> v, uint32_t flags = 0)
        : values(std::move(v)), config{TARVD_MODULE_ABI_VERSION, 0, flags, "test", "test.conf", &Value, this, nullptr}
    {
    }
    ModuleConfig(const ModuleConfig&) = delete;  // `config` points at this object
    const TarvdModuleConfig* Get() const { return &config; }
    static const char* Value(const TarvdModuleConfig* c, const char* key)
    {
        const auto& v = static_cast<const ModuleConfig*>(c->reserved)->values;
        auto it = v.find(key);
        return it == v.end() ? nullptr : it->second.c_str();
    }

    std::map<std::string, std::string> values;
    TarvdModuleConfig config;
};

/// SMBIOS through sysfs: `ep` and `dmi` as the entry point and the table.
inline void WriteSmbios(const std::string& root, const std::string& ep, const std::string& dmi)
{
    WriteFile(root + hwinfo::kSysfsSmbiosEntryPoint, ep);
    WriteFile(root + hwinfo::kSysfsSmbiosTable, dmi);
}

/// A virtio disk of `sectors` behind 0000:00:02.0.
inline void WriteDisk(const std::string& root, const std::string& name, uint64_t sectors)
{
    hwtest::WriteDisk(root, name, "/sys/devices/pci0000:00/0000:00:02.0/virtio1/block/" + name, "Virtual Disk",
                      "0x1af4", sectors);
}

/// The small virtual machine of the fixtures (its /proc/bus/pci copied file by file: writable), the
/// SMBIOS table of a real workstation (0:2.0 onboard: slot 0), a disk behind 0000:00:02.0, three mounts.
inline void MakeSnapshot(const std::string& root)
{
    std::string fixtures = testsupport::FixturesDir();
    for (const char* f : {"00/00.0", "00/01.0", "00/02.0", "00/03.0", "00/04.0", "00/05.0", "devices"})
        WriteFile(root + "/proc/bus/pci/" + f, ReadFile(fixtures + "/procpci-vm/" + f));
    std::string smbios = fixtures + "/smbios/dell-precision-3620";
    WriteSmbios(root, ReadFile(smbios + ".ep"), ReadFile(smbios + ".dmi"));
    WriteDisk(root, "vda", 2 * 1024 * 1024 * 10);  // 10 GiB
    MakeDirs(root + "/boot");
    MakeDirs(root + "/srv/data dir");
    WriteFile(root + "/proc/self/mounts", "/dev/vda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\n"
                                          "/dev/vda2 /boot xfs rw 0 0\n/dev/vda3 /srv/data\\040dir ext4 rw 0 0\n");
}

/// A proc root: 75 % of memory (40 % without the page cache) and half the swap in use, the
/// counters standing still, eth0 and br0 monitored besides lo and enp3s0, pid_max; link speeds
/// below sys: eth0's known, enp3s0's -1, the others' missing.
inline void MakeProc(const std::string& proc)
{
    WriteFile(proc + "/meminfo", "MemTotal: 1000 kB\nMemFree: 250 kB\nMemAvailable: 600 kB\nCached: 350 kB\n"
                                 "SwapTotal: 2000 kB\nSwapFree: 1000 kB\n");
    WriteFile(proc + "/stat", "cpu  100 0 50 850 0 0 0 0 0 0\ncpu0 100 0 50 850 0 0 0 0 0 0\n");
    WriteFile(proc + "/net/dev", "Inter-|   Receive |  Transmit\n face |bytes    packets ...|bytes    packets ...\n"
                                 "    lo: 100 1 0 0 0 0 0 0 100 1 0 0 0 0 0 0\n"
                                 "  eth0: 1000 10 0 0 0 0 0 0 2000 20 0 0 0 0 0 0\n"
                                 "enp3s0: 5000000000 9 0 0 0 0 0 0 7 1 0 0 0 0 0 0\n"
                                 "   br0: 3000 30 0 0 0 0 0 0 4000 40 0 0 0 0 0 0\n");
    WriteFile(proc + "/sys/kernel/pid_max", "32768\n");
    WriteFile(proc + "/sys/class/net/eth0/speed", "1000\n");
    WriteFile(proc + "/sys/class/net/enp3s0/speed", "-1\n");
}

/// The inventory's recorded changes, oldest first: "Kind Object", with " Detail" when `detail`.
inline std::vector<std::string> RecordedChanges(bool detail = false)
{
    const std::string changes = std::string(inventory::kInventoryKey) + "\\" + inventory::kChangesKey;
    std::vector<std::string> out;
    for (const std::string& c : testsupport::SubKeys(changes)) {
        const std::string key = changes + "\\" + c;
        out.push_back(testsupport::TextOr(key, "Kind") + " " + testsupport::TextOr(key, "Object") +
                      (detail ? " " + testsupport::TextOr(key, "Detail") : ""));
    }
    return out;
}

} // namespace modtest

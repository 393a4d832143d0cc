// Helpers of the bundled modules' tests: loading a module the way the
// framework does, a machine snapshot for the inventory, a made-up proc root
// for the performance figures, and registry readers.
#pragma once

#include <chrono>
#include <cstdint>
#include <dlfcn.h>
#include <map>
#include <string>
#include <vector>

#include "common/UniqueHandle.h"
#include "framework/tarvd_module.h"
#include "hwinfo/HwTestUtil.h"
#include "registry/CRegistry.h"
#include "support/TestSupport.h"
#include "support/Wait.h"

namespace modtest {

using testsupport::MakeDirs;
using testsupport::ReadFile;
using testsupport::WriteFile;

/// One module shared object, opened with dlopen and closed with dlclose.
class ModuleLibrary {
public:
    explicit ModuleLibrary(const std::string& path) : m_Handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
    {
        const char* e = m_Handle ? nullptr : dlerror();
        auto entry = m_Handle ? reinterpret_cast<TarvdModuleEntry>(dlsym(m_Handle.Get(), TARVD_MODULE_ENTRY)) : nullptr;
        m_Table = entry ? entry() : nullptr;
        m_Error = m_Table ? "" : m_Handle ? "no entry point" : e ? e : "dlopen failed";
    }

    const TarvdModuleV1* operator->() const { return m_Table; }
    const TarvdModuleV1* Table() const { return m_Table; }
    const std::string& Error() const { return m_Error; }

private:
    UniqueLibrary m_Handle;
    const TarvdModuleV1* m_Table = nullptr;
    std::string m_Error;
};

/// A loader configuration whose getValue answers from a map.
class ModuleConfig {
public:
    explicit ModuleConfig(std::map<std::string, std::string> values, uint32_t flags = 0, uint32_t runMode = 0)
        : m_Values(std::move(values))
    {
        m_Config = {TARVD_MODULE_ABI_VERSION, runMode, flags, "test", "test.conf", &ModuleConfig::Get, this};
    }
    ModuleConfig(const ModuleConfig&) = delete;
    ModuleConfig& operator=(const ModuleConfig&) = delete;

    const TarvdModuleConfig* Get() const { return &m_Config; }

private:
    static const char* Get(const TarvdModuleConfig* config, const char* key)
    {
        auto* self = static_cast<const ModuleConfig*>(config->reserved);
        auto it = self->m_Values.find(key);
        return it == self->m_Values.end() ? nullptr : it->second.c_str();
    }

    std::map<std::string, std::string> m_Values;
    TarvdModuleConfig m_Config{};
};

/// Milliseconds that `f` took.
template <typename F>
long long TimedMs(F f)
{
    auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

/// Polls `done` until it is true or `seconds` pass.
template <typename F>
bool WaitFor(F done, int seconds = 30)
{
    return testsupport::WaitFor(done, std::chrono::seconds(seconds));
}

// ---- machine snapshot --------------------------------------------------------

/// A PCI configuration header (64 bytes) of a function.
inline hwtest::Bytes PciHeader(uint16_t vendor, uint16_t device, uint8_t baseClass, uint8_t subClass)
{
    hwtest::Bytes b(64, 0);
    hwtest::PutLe16(b, 0, vendor);
    hwtest::PutLe16(b, 2, device);
    b[0x0A] = subClass;
    b[0x0B] = baseClass;
    return b;
}

/// SMBIOS through sysfs: `ep` and `dmi` as the entry point and the table.
inline void WriteSmbios(const std::string& root, const std::string& ep, const std::string& dmi)
{
    WriteFile(root + "/sys/firmware/dmi/tables/smbios_entry_point", ep);
    WriteFile(root + "/sys/firmware/dmi/tables/DMI", dmi);
}

/// A table with one conventional PCI slot (type 9, slot type 0x06: it
/// holds only its own device) `slotId` for bus 0, device `device`.
inline void WriteSlotTable(const std::string& root, uint8_t device, uint8_t slotId)
{
    using namespace hwtest;
    Bytes table = Concat({SlotStructure(0x0900, 0x06, 4, slotId, 0, static_cast<uint8_t>(device << 3)),
                          EndOfTable(0x7F00)});
    WriteSmbios(root, Str(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20)), Str(table));
}

/// A block device below the PCI function `pciAddress` ("0000:00:02.0").
inline void WriteDisk(const std::string& root, const std::string& name, const std::string& pciAddress,
                      const std::string& model, uint64_t sectors)
{
    std::string devpath = root + "/sys/devices/pci0000:00/" + pciAddress + "/virtio1/block/" + name;
    WriteFile(devpath + "/model", model + "  \n");
    WriteFile(devpath + "/vendor", "0x1af4\n");
    WriteFile(root + "/sys/block/" + name + "/size", std::to_string(sectors) + "\n");
    (void)!symlink(devpath.c_str(), (root + "/sys/block/" + name + "/device").c_str());
}

/// The small virtual machine of the fixtures: its /proc/bus/pci (copied
/// file by file, so the copies are writable), the SMBIOS table of a real
/// workstation (bus 0 device 2 is an onboard device: slot 0), one disk
/// behind the virtio block device 0000:00:02.0 and three mounts.
inline void MakeSnapshot(const std::string& root)
{
    std::string fixtures = testsupport::FixturesDir();
    for (const char* f : {"00/00.0", "00/01.0", "00/02.0", "00/03.0", "00/04.0", "00/05.0", "devices"})
        WriteFile(root + "/proc/bus/pci/" + f, ReadFile(fixtures + "/procpci-vm/" + f));
    std::string smbios = fixtures + "/smbios/dell-precision-3620";
    WriteSmbios(root, ReadFile(smbios + ".ep"), ReadFile(smbios + ".dmi"));
    WriteDisk(root, "vda", "0000:00:02.0", "Virtual Disk", 2 * 1024 * 1024 * 10);  // 10 GiB
    MakeDirs(root + "/boot");
    MakeDirs(root + "/srv/data dir");
    WriteFile(root + "/proc/self/mounts", "/dev/vda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\n"
                                          "/dev/vda2 /boot xfs rw 0 0\n/dev/vda3 /srv/data\\040dir ext4 rw 0 0\n");
}

// ---- fake proc root for the performance monitor --------------------------------

inline void WriteMemInfo(const std::string& proc, uint64_t memTotal, uint64_t memFree, uint64_t swapTotal,
                         uint64_t swapFree)
{
    WriteFile(proc + "/meminfo", "MemTotal:       " + std::to_string(memTotal) + " kB\nMemFree:        " +
                                     std::to_string(memFree) + " kB\nSwapTotal:      " + std::to_string(swapTotal) +
                                     " kB\nSwapFree:       " + std::to_string(swapFree) + " kB\n");
}

/// meminfo at 75 % memory and 50 % swap, a static stat, two monitored
/// interfaces (eth0, br0) besides lo, and the kernel's pid_max.
inline void MakeProc(const std::string& proc)
{
    WriteMemInfo(proc, 1000, 250, 2000, 1000);
    WriteFile(proc + "/stat", "cpu  100 0 50 850 0 0 0 0 0 0\ncpu0 100 0 50 850 0 0 0 0 0 0\n");
    WriteFile(proc + "/net/dev",
              "Inter-|   Receive                                                |  Transmit\n"
              " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
              "carrier compressed\n"
              "    lo: 100 1 0 0 0 0 0 0 100 1 0 0 0 0 0 0\n"
              "  eth0: 1000 10 0 0 0 0 0 0 2000 20 0 0 0 0 0 0\n"
              "   br0: 3000 30 0 0 0 0 0 0 4000 40 0 0 0 0 0 0\n");
    WriteFile(proc + "/sys/kernel/pid_max", "32768\n");
}

// ---- registry readers (handles of their own, released at once) -----------------

/// A number (type 4 only) below HKEY_LOCAL_MACHINE, or `fallback`.
inline uint32_t NumberOr(const std::string& key, const char* name, uint32_t fallback)
{
    CRegistry reg;
    unsigned n = 0;
    bool ok = reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) == 0 && reg.GetValue(name) &&
              reg.GetLastType() == 4 && reg.QueryValue(&n, name) == 0;
    return ok ? n : fallback;
}

/// A text (type 1 only) below HKEY_LOCAL_MACHINE, or `fallback`.
inline std::string TextOr(const std::string& key, const char* name, const std::string& fallback = "<none>")
{
    CRegistry reg;
    std::string t;
    bool ok = reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) == 0 && reg.GetValue(name) &&
              reg.GetLastType() == 1 && reg.QueryValue(t, name) == 0;
    return ok ? t : fallback;
}

inline std::vector<std::string> SubKeys(const std::string& key)
{
    std::vector<std::string> names;
    CRegistry reg;
    char name[256];
    if (reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) == 0)
        for (unsigned i = 0, size = sizeof name; reg.EnumKey(name, &size, i) == 0; ++i, size = sizeof name)
            names.emplace_back(name);
    return names;
}

} // namespace modtest

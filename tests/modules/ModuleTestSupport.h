// Helpers of the bundled modules' tests: loading a module the way the
// framework does, a machine snapshot for the inventory, a made-up proc root
// for the performance figures, and registry readers.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "framework/tarvd_module.h"
#include "hwinfo/HwTestUtil.h"
#include "registry/CRegistry.h"
#include "support/TestSupport.h"

namespace modtest {

/// One module shared object, opened with dlopen and closed with dlclose.
class ModuleLibrary {
public:
    explicit ModuleLibrary(const std::string& path)
    {
        m_Handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!m_Handle) {
            const char* e = dlerror();
            m_Error = e ? e : "dlopen failed";
            return;
        }
        auto entry = reinterpret_cast<TarvdModuleEntry>(dlsym(m_Handle, TARVD_MODULE_ENTRY));
        if (!entry) {
            m_Error = "no entry point";
            return;
        }
        m_Table = entry();
    }
    ~ModuleLibrary()
    {
        if (m_Handle)
            dlclose(m_Handle);
    }
    ModuleLibrary(const ModuleLibrary&) = delete;
    ModuleLibrary& operator=(const ModuleLibrary&) = delete;

    const TarvdModuleV1* operator->() const { return m_Table; }
    const TarvdModuleV1* Table() const { return m_Table; }
    const std::string& Error() const { return m_Error; }

private:
    void* m_Handle = nullptr;
    const TarvdModuleV1* m_Table = nullptr;
    std::string m_Error;
};

/// A loader configuration whose getValue answers from a map.
class ModuleConfig {
public:
    explicit ModuleConfig(std::map<std::string, std::string> values, uint32_t flags = 0, uint32_t runMode = 0)
        : m_Values(std::move(values))
    {
        m_Config.abiVersion = TARVD_MODULE_ABI_VERSION;
        m_Config.runMode = runMode;
        m_Config.flags = flags;
        m_Config.name = "test";
        m_Config.configFile = "test.conf";
        m_Config.getValue = &ModuleConfig::Get;
        m_Config.reserved = this;
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

/// Polls `done` every 20 ms until it is true or `seconds` pass.
template <typename F>
bool WaitFor(F done, int seconds = 30)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
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

/// SMBIOS through sysfs: a table with one conventional PCI slot (type 9,
/// slot type 0x06: it holds only its own device) `slotId` for bus 0,
/// device `device`.
inline void WriteSlotTable(const std::string& root, uint8_t device, uint8_t slotId)
{
    using namespace hwtest;
    Bytes table = Concat({SlotStructure(0x0900, 0x06, 4, slotId, 0, static_cast<uint8_t>(device << 3)),
                          EndOfTable(0x7F00)});
    testsupport::WriteFile(root + "/sys/firmware/dmi/tables/smbios_entry_point",
                           Str(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20)));
    testsupport::WriteFile(root + "/sys/firmware/dmi/tables/DMI", Str(table));
}

/// A block device below the PCI function `pciAddress` ("0000:00:02.0").
inline void WriteDisk(const std::string& root, const std::string& name, const std::string& pciAddress,
                      const std::string& model, uint64_t sectors)
{
    std::string devpath = root + "/sys/devices/pci0000:00/" + pciAddress + "/virtio1/block/" + name;
    testsupport::MakeDirs(devpath);
    testsupport::WriteFile(devpath + "/model", model + "  \n");
    testsupport::WriteFile(devpath + "/vendor", "0x1af4\n");
    testsupport::WriteFile(root + "/sys/block/" + name + "/size", std::to_string(sectors) + "\n");
    std::string link = root + "/sys/block/" + name + "/device";
    if (symlink(devpath.c_str(), link.c_str()) != 0) {
    }
}

/// The small virtual machine of the fixtures: its /proc/bus/pci (copied
/// file by file, so the copies are writable), the SMBIOS table of a real
/// workstation (bus 0 device 2 is an onboard device: slot 0), one disk
/// behind the virtio block device 0000:00:02.0 and three mounts.
inline void MakeSnapshot(const std::string& root)
{
    std::string pci = testsupport::FixturesDir() + "/procpci-vm";
    for (const char* f : {"00/00.0", "00/01.0", "00/02.0", "00/03.0", "00/04.0", "00/05.0", "devices"})
        testsupport::WriteFile(root + "/proc/bus/pci/" + f, testsupport::ReadFile(pci + "/" + f));
    std::string smbios = testsupport::FixturesDir() + "/smbios/dell-precision-3620";
    testsupport::WriteFile(root + "/sys/firmware/dmi/tables/smbios_entry_point", testsupport::ReadFile(smbios + ".ep"));
    testsupport::WriteFile(root + "/sys/firmware/dmi/tables/DMI", testsupport::ReadFile(smbios + ".dmi"));
    WriteDisk(root, "vda", "0000:00:02.0", "Virtual Disk", 2 * 1024 * 1024 * 10);  // 10 GiB
    testsupport::MakeDirs(root + "/boot");
    testsupport::MakeDirs(root + "/srv/data dir");
    testsupport::WriteFile(root + "/proc/self/mounts", "/dev/vda1 / ext4 rw 0 0\n"
                                                       "proc /proc proc rw 0 0\n"
                                                       "/dev/vda2 /boot xfs rw 0 0\n"
                                                       "/dev/vda3 /srv/data\\040dir ext4 rw 0 0\n");
}

// ---- fake proc root for the performance monitor --------------------------------

inline void WriteMemInfo(const std::string& proc, uint64_t memTotal, uint64_t memFree, uint64_t swapTotal,
                         uint64_t swapFree)
{
    testsupport::WriteFile(proc + "/meminfo",
                           "MemTotal:       " + std::to_string(memTotal) + " kB\nMemFree:        " +
                               std::to_string(memFree) + " kB\nSwapTotal:      " + std::to_string(swapTotal) +
                               " kB\nSwapFree:       " + std::to_string(swapFree) + " kB\n");
}

/// meminfo at 75 % memory and 50 % swap, a static stat, two monitored
/// interfaces (eth0, br0) besides lo, and the kernel's pid_max.
inline void MakeProc(const std::string& proc)
{
    WriteMemInfo(proc, 1000, 250, 2000, 1000);
    testsupport::WriteFile(proc + "/stat", "cpu  100 0 50 850 0 0 0 0 0 0\ncpu0 100 0 50 850 0 0 0 0 0 0\n");
    testsupport::WriteFile(
        proc + "/net/dev",
        "Inter-|   Receive                                                |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
        "carrier compressed\n"
        "    lo: 100 1 0 0 0 0 0 0 100 1 0 0 0 0 0 0\n"
        "  eth0: 1000 10 0 0 0 0 0 0 2000 20 0 0 0 0 0 0\n"
        "   br0: 3000 30 0 0 0 0 0 0 4000 40 0 0 0 0 0 0\n");
    testsupport::WriteFile(proc + "/sys/kernel/pid_max", "32768\n");
}

// ---- registry readers (handles of their own, released at once) -----------------

/// Full path below HKEY_LOCAL_MACHINE.
inline bool ReadNumber(const std::string& key, const char* name, uint32_t& out)
{
    CRegistry reg;
    if (reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) != 0)
        return false;
    if (!reg.GetValue(name) || reg.GetLastType() != 4)
        return false;
    unsigned n = 0;
    if (reg.QueryValue(&n, name) != 0)
        return false;
    out = n;
    return true;
}

/// A text value (type 1 only).
inline bool ReadText(const std::string& key, const char* name, std::string& out)
{
    CRegistry reg;
    if (reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) != 0)
        return false;
    if (!reg.GetValue(name) || reg.GetLastType() != 1)
        return false;
    return reg.QueryValue(out, name) == 0;
}

inline uint32_t NumberOr(const std::string& key, const char* name, uint32_t fallback)
{
    uint32_t n = fallback;
    return ReadNumber(key, name, n) ? n : fallback;
}

inline std::string TextOr(const std::string& key, const char* name, const std::string& fallback = "<none>")
{
    std::string t;
    return ReadText(key, name, t) ? t : fallback;
}

inline std::vector<std::string> SubKeys(const std::string& key)
{
    std::vector<std::string> names;
    CRegistry reg;
    if (reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) != 0)
        return names;
    for (unsigned i = 0;; ++i) {
        char name[256];
        unsigned size = sizeof name;
        if (reg.EnumKey(name, &size, i) != 0)
            break;
        names.emplace_back(name);
    }
    return names;
}

} // namespace modtest

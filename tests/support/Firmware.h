// Builders of firmware tables (SMBIOS entry points and structures, the PCI
// IRQ routing table "$PIR", PCI configuration headers) and the fake machine
// root that the hardware inventory reads below while a test runs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/HwPaths.h"
#include "support/TestSupport.h"

namespace hwtest {

using Bytes = std::vector<uint8_t>;

inline std::string Str(const Bytes& b) { return std::string(b.begin(), b.end()); }
void PutLe(Bytes& b, size_t off, uint64_t v, size_t n);
Bytes Concat(const std::vector<Bytes>& parts);
/// Sets byte `at` so that the 8-bit sum of `b` is 0.
void FixChecksum(Bytes& b, size_t at);
/// SMBIOS structures: header, `formatted` bytes, the strings, double NUL;
/// type 9 (length 0x11) with the fields the slot rules read; type 41 (0x0B).
Bytes Structure(uint8_t type, uint16_t handle, const Bytes& formatted, const std::vector<std::string>& strings = {});
Bytes SlotStructure(uint16_t handle, uint8_t slotType, uint8_t usage, uint8_t slotId, uint8_t bus, uint8_t devfn);
Bytes OnboardStructure(uint16_t handle, uint8_t bus, uint8_t devfn);
inline Bytes EndOfTable(uint16_t handle) { return Structure(127, handle, {}); }
/// SMBIOS 2.1 entry point (31 bytes) with a valid checksum; 3.0 entry point (24 bytes).
Bytes EntryPoint21(uint16_t tableLength, uint32_t tableAddress, uint16_t count, uint8_t major = 2, uint8_t minor = 7);
Bytes EntryPoint30(uint32_t maxSize, uint64_t tableAddress, uint8_t major = 3, uint8_t minor = 2);
/// A "$PIR" table with records {bus, devfn, slot} and a valid checksum.
Bytes Pir(const std::vector<std::array<uint8_t, 3>>& entries, uint16_t version = 0x0100);
/// A PCI configuration header: layout 1 (bridge) names `secondary`, layout 0
/// subsystem 1111:2222; `size` cuts or pads the 64 bytes.
Bytes PciConfig(uint16_t vendor, uint16_t device, uint8_t base, uint8_t sub, uint8_t headerType = 0,
                uint8_t secondary = 0, size_t size = 64);
/// A file of tests/fixtures/smbios.
Bytes SmbiosFixture(const std::string& name);
/// A block device `name` of the machine below `root`: its sysfs device at `devpath`
/// (made up from the PCI path) and its size in 512-byte sectors.
void WriteDisk(const std::string& root, const std::string& name, const std::string& devpath, const std::string& model,
               const std::string& vendor, uint64_t sectors);

/// A temporary machine root: hwinfo reads all its paths below it (and the
/// process slot map starts empty) while the object lives.
class FakeRoot {
public:
    FakeRoot() { Use(m_Dir.Path().c_str()); }
    ~FakeRoot() { Use(nullptr); }
    FakeRoot(const FakeRoot&) = delete;
    FakeRoot& operator=(const FakeRoot&) = delete;

    std::string Path(const std::string& abs) const { return m_Dir.Path() + abs; }
    bool Write(const std::string& abs, const std::string& content) const
    {
        return testsupport::WriteFile(Path(abs), content);
    }
    bool Write(const std::string& abs, const Bytes& content) const { return Write(abs, Str(content)); }
    void SetSysfsSmbios(const Bytes& ep, const Bytes& table) const
    {
        Write(hwinfo::kSysfsSmbiosEntryPoint, ep);
        Write(hwinfo::kSysfsSmbiosTable, table);
    }
    /// `table` behind a 3.0 entry point in the sysfs copies.
    void SetSysfsTable(const Bytes& table) const
    {
        SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    }
    /// The fake physical memory: a sparse file of `size` bytes, then bytes at addresses.
    void MakeMemory(size_t size = 0x100000) const;
    void Poke(uint64_t address, const Bytes& bytes) const;
    void CopyFixture(const std::string& fixture, const std::string& abs) const;

private:
    static void Use(const char* root)
    {
        hwinfo::SetRootDirectory(root);
        CPciSlotMap::ResetProcessSlotMap();
    }
    testsupport::TempDir m_Dir;
};

} // namespace hwtest

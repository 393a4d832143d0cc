// Builders of synthetic firmware tables and fake system trees for the
// hardware inventory tests.
#pragma once

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/TestSupport.h"
#include "hwinfo/HwPaths.h"
#include "hwinfo/CPciSlotMap.h"

namespace hwtest {

using Bytes = std::vector<uint8_t>;

inline std::string Str(const Bytes& b)
{
    return std::string(b.begin(), b.end());
}

inline void PutLe16(Bytes& b, size_t off, uint16_t v)
{
    b[off] = static_cast<uint8_t>(v);
    b[off + 1] = static_cast<uint8_t>(v >> 8);
}
inline void PutLe32(Bytes& b, size_t off, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void PutLe64(Bytes& b, size_t off, uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}

/// One SMBIOS structure: header, `formatted` bytes after the header, then
/// the strings and the double NUL.
inline Bytes Structure(uint8_t type, uint16_t handle, const Bytes& formatted, const std::vector<std::string>& strings = {})
{
    Bytes b = {type, static_cast<uint8_t>(4 + formatted.size()), static_cast<uint8_t>(handle),
               static_cast<uint8_t>(handle >> 8)};
    b.insert(b.end(), formatted.begin(), formatted.end());
    for (const std::string& s : strings) {
        b.insert(b.end(), s.begin(), s.end());
        b.push_back(0);
    }
    if (strings.empty())
        b.push_back(0);
    b.push_back(0);
    return b;
}

/// A type-9 structure (length 0x11) with the fields the slot rules read.
inline Bytes SlotStructure(uint16_t handle, uint8_t slotType, uint8_t usage, uint8_t slotId, uint8_t bus, uint8_t devfn)
{
    Bytes f(0x11 - 4, 0);
    f[0x05 - 4] = slotType;
    f[0x07 - 4] = usage;
    f[0x09 - 4] = slotId;
    f[0x0F - 4] = bus;
    f[0x10 - 4] = devfn;
    return Structure(9, handle, f);
}

/// A type-41 structure (length 0x0B).
inline Bytes OnboardStructure(uint16_t handle, uint8_t bus, uint8_t devfn)
{
    Bytes f(0x0B - 4, 0);
    f[0x09 - 4] = bus;
    f[0x0A - 4] = devfn;
    return Structure(41, handle, f);
}

inline Bytes EndOfTable(uint16_t handle)
{
    return Structure(127, handle, {});
}

inline Bytes Concat(const std::vector<Bytes>& parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

/// SMBIOS 2.1 entry point (31 bytes) with a valid checksum.
inline Bytes EntryPoint21(uint16_t tableLength, uint32_t tableAddress, uint16_t count, uint8_t major = 2,
                          uint8_t minor = 7)
{
    Bytes e(31, 0);
    e[0] = '_'; e[1] = 'S'; e[2] = 'M'; e[3] = '_';
    e[5] = 31;
    e[6] = major;
    e[7] = minor;
    e[0x10] = '_'; e[0x11] = 'D'; e[0x12] = 'M'; e[0x13] = 'I'; e[0x14] = '_';
    PutLe16(e, 0x16, tableLength);
    PutLe32(e, 0x18, tableAddress);
    PutLe16(e, 0x1C, count);
    e[0x1E] = static_cast<uint8_t>((major << 4) | minor);
    uint8_t sum = 0;
    for (uint8_t c : e)
        sum = static_cast<uint8_t>(sum + c);
    e[4] = static_cast<uint8_t>(-sum);
    return e;
}

/// SMBIOS 3.0 entry point (24 bytes).
inline Bytes EntryPoint30(uint32_t maxSize, uint64_t tableAddress, uint8_t major = 3, uint8_t minor = 2)
{
    Bytes e(24, 0);
    e[0] = '_'; e[1] = 'S'; e[2] = 'M'; e[3] = '3'; e[4] = '_';
    e[6] = 24;
    e[7] = major;
    e[8] = minor;
    e[0x0A] = 1;
    PutLe32(e, 0x0C, maxSize);
    PutLe64(e, 0x10, tableAddress);
    return e;
}

/// A temporary machine root: hwinfo reads all its paths below it while the
/// object lives.
class FakeRoot {
public:
    FakeRoot()
    {
        hwinfo::SetRootDirectory(m_Dir.Path().c_str());
        CPciSlotMap::ResetProcessSlotMap();
    }
    ~FakeRoot()
    {
        hwinfo::SetRootDirectory(nullptr);
        CPciSlotMap::ResetProcessSlotMap();
    }
    FakeRoot(const FakeRoot&) = delete;
    FakeRoot& operator=(const FakeRoot&) = delete;

    std::string Path(const std::string& abs) const { return m_Dir.Path() + abs; }
    const std::string& Root() const { return m_Dir.Path(); }
    bool Write(const std::string& abs, const std::string& content) const
    {
        return testsupport::WriteFile(Path(abs), content);
    }
    bool Write(const std::string& abs, const Bytes& content) const { return Write(abs, Str(content)); }

    void SetSysfsSmbios(const Bytes& ep, const Bytes& table) const
    {
        Write("/sys/firmware/dmi/tables/smbios_entry_point", ep);
        Write("/sys/firmware/dmi/tables/DMI", table);
    }

    /// Creates the fake physical memory file (sparse) of `size` bytes.
    void MakeMemory(size_t size = 0x100000) const
    {
        testsupport::MakeDirs(Path("/dev"));
        int fd = open(Path("/dev/mem").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd >= 0) {
            if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
            }
            close(fd);
        }
    }
    /// Writes bytes into the fake physical memory at `address`.
    void Poke(uint64_t address, const Bytes& bytes) const
    {
        int fd = open(Path("/dev/mem").c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0) {
            if (pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(address)) < 0) {
            }
            close(fd);
        }
    }

private:
    testsupport::TempDir m_Dir;
};

} // namespace hwtest

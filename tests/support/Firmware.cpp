#include "support/Firmware.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "common/UniqueHandle.h"

#include <gtest/gtest.h>

namespace hwtest {

void PutLe(Bytes& b, size_t off, uint64_t v, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        b.at(off + i) = static_cast<uint8_t>(v >> (8 * i));
}

Bytes Concat(const std::vector<Bytes>& parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

void FixChecksum(Bytes& b, size_t at)
{
    b[at] = 0;
    uint8_t sum = 0;
    for (uint8_t c : b)
        sum = static_cast<uint8_t>(sum + c);
    b[at] = static_cast<uint8_t>(-sum);
}

Bytes Structure(uint8_t type, uint16_t handle, const Bytes& formatted, const std::vector<std::string>& strings)
{
    Bytes b = {type, static_cast<uint8_t>(4 + formatted.size()), 0, 0};
    PutLe(b, 2, handle, 2);
    b.insert(b.end(), formatted.begin(), formatted.end());
    for (const std::string& s : strings)
        b.insert(b.end(), s.c_str(), s.c_str() + s.size() + 1);
    b.resize(b.size() + (strings.empty() ? 2 : 1), 0);
    return b;
}

Bytes SlotStructure(uint16_t handle, uint8_t slotType, uint8_t usage, uint8_t slotId, uint8_t bus, uint8_t devfn)
{
    return Structure(9, handle, {0, slotType, 0, usage, 0, slotId, 0, 0, 0, 0, 0, bus, devfn});
}

Bytes OnboardStructure(uint16_t handle, uint8_t bus, uint8_t devfn)
{
    return Structure(41, handle, {0, 0, 0, 0, 0, bus, devfn});
}

Bytes EntryPoint21(uint16_t tableLength, uint32_t tableAddress, uint16_t count, uint8_t major, uint8_t minor)
{
    // Made at full size first: growing a short vector trips GCC's bounds warning.
    Bytes e(31, 0);
    std::copy_n("_SM_", 4, e.begin());
    e[5] = 31, e[6] = major, e[7] = minor;
    std::copy_n("_DMI_", 5, e.begin() + 0x10);
    PutLe(e, 0x16, tableLength, 2);
    PutLe(e, 0x18, tableAddress, 4);
    PutLe(e, 0x1C, count, 2);
    e[0x1E] = static_cast<uint8_t>((major << 4) | minor);
    FixChecksum(e, 4);
    return e;
}

Bytes EntryPoint30(uint32_t maxSize, uint64_t tableAddress, uint8_t major, uint8_t minor)
{
    Bytes e(24, 0);
    std::copy_n("_SM3_", 5, e.begin());
    e[6] = 24, e[7] = major, e[8] = minor, e[10] = 1;
    PutLe(e, 0x0C, maxSize, 4);
    PutLe(e, 0x10, tableAddress, 8);
    return e;
}

Bytes Pir(const std::vector<std::array<uint8_t, 3>>& entries, uint16_t version)
{
    Bytes t(32 + 16 * entries.size(), 0);
    std::copy_n("$PIR", 4, t.begin());
    PutLe(t, 4, version, 2);
    PutLe(t, 6, static_cast<uint16_t>(t.size()), 2);
    for (size_t i = 0; i < entries.size(); ++i)
        t[32 + 16 * i] = entries[i][0], t[33 + 16 * i] = entries[i][1], t[46 + 16 * i] = entries[i][2];
    FixChecksum(t, 31);
    return t;
}

Bytes PciConfig(uint16_t vendor, uint16_t device, uint8_t base, uint8_t sub, uint8_t headerType, uint8_t secondary,
                size_t size)
{
    Bytes b(64, 0);
    PutLe(b, 0, vendor, 2);
    PutLe(b, 2, device, 2);
    b[10] = sub, b[11] = base, b[14] = headerType;
    if ((headerType & 0x7F) == 0)
        PutLe(b, 0x2C, 0x22221111, 4);
    else
        b[0x19] = secondary;
    b.resize(size, 0);
    return b;
}

Bytes SmbiosFixture(const std::string& name)
{
    std::string s = testsupport::ReadFile(testsupport::FixturesDir() + "/smbios/" + name);
    return Bytes(s.begin(), s.end());
}

void WriteDisk(const std::string& root, const std::string& name, const std::string& devpath, const std::string& model,
               const std::string& vendor, uint64_t sectors)
{
    testsupport::WriteFile(root + devpath + "/model", model + "   \n");
    testsupport::WriteFile(root + devpath + "/vendor", vendor + "\n");
    testsupport::WriteFile(root + "/sys/block/" + name + "/size", std::to_string(sectors) + "\n");
    EXPECT_EQ(0, symlink((root + devpath).c_str(), (root + "/sys/block/" + name + "/device").c_str())) << name;
}

void FakeRoot::MakeMemory(size_t size) const
{
    testsupport::MakeDirs(Path("/dev"));
    UniqueFd fd(open(Path(hwinfo::kPhysicalMemoryDevice).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ASSERT_TRUE(fd && ftruncate(fd.Get(), static_cast<off_t>(size)) == 0);
}

void FakeRoot::Poke(uint64_t address, const Bytes& bytes) const
{
    UniqueFd fd(open(Path(hwinfo::kPhysicalMemoryDevice).c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(fd && pwrite(fd.Get(), bytes.data(), bytes.size(), static_cast<off_t>(address)) >= 0);
}

void FakeRoot::CopyFixture(const std::string& fixture, const std::string& abs) const
{
    std::filesystem::create_directories(std::filesystem::path(Path(abs)).parent_path());
    std::filesystem::copy(testsupport::FixturesDir() + "/" + fixture, Path(abs), std::filesystem::copy_options::recursive);
}

} // namespace hwtest

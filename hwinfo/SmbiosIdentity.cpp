#include "hwinfo/SmbiosIdentity.h"

#include <cstdio>
#include <map>

#include "hwinfo/CSMBios.h"
#include "hwinfo/SmbiosSlots.h"

namespace {

/// The structure types the identity is made of.
constexpr uint8_t kTypeBios = 0, kTypeSystem = 1, kTypeBaseboard = 2, kTypeChassis = 3, kTypeProcessor = 4,
                  kTypeMemoryArray = 16, kTypeMemoryDevice = 17;
/// Byte values that mean "see the extended field".
constexpr uint8_t kUseExtendedByte = 0xFF;
constexpr uint16_t kUseExtendedSpeed = 0xFFFF;
constexpr uint16_t kUseExtendedMemorySize = 0x7FFF;
constexpr uint32_t kUseExtendedCapacity = 0x80000000u;
constexpr unsigned kUseFamily2 = 0xFE;
constexpr uint64_t kKiB = 1024, kMiB = kKiB * 1024, kGiB = kMiB * 1024;

/// One structure, read only where its formatted length reaches.
class CFields {
public:
    explicit CFields(const CByteReader& s) : m_S(s), m_Length(s.U8Or(1)) {}

    bool Has(size_t offset, size_t width) const
    {
        return offset + width <= m_Length && m_S.Contains(offset, width);
    }
    std::optional<unsigned> U8(size_t off) const
    {
        return Has(off, 1) ? std::optional<unsigned>(m_S.U8Or(off)) : std::nullopt;
    }
    std::optional<unsigned> U16(size_t off) const
    {
        return Has(off, 2) ? std::optional<unsigned>(m_S.Le16Or(off)) : std::nullopt;
    }
    std::optional<uint32_t> U32(size_t off) const
    {
        return Has(off, 4) ? std::optional<uint32_t>(m_S.Le32Or(off)) : std::nullopt;
    }
    std::optional<uint64_t> U64(size_t off) const
    {
        return Has(off, 8) ? std::optional<uint64_t>(m_S.Le64Or(off)) : std::nullopt;
    }
    /// The string named by the byte at `off`: absent for string number 0,
    /// the bad-index marker when the structure has no such string.
    SmbiosText Text(size_t off) const
    {
        std::optional<unsigned> index = U8(off);
        if (!index || *index == 0)
            return std::nullopt;
        SmbiosText text = SmbiosStructureString(m_S, *index);
        return text ? text : SmbiosText(kSmbiosBadStringIndex);
    }
    const CByteReader& View() const { return m_S; }

private:
    CByteReader m_S;
    size_t m_Length;
};

/// A value unless it is 0 (the firmware's "unknown").
std::optional<unsigned> Known(std::optional<unsigned> v)
{
    return v && *v != 0 ? v : std::nullopt;
}

/// `base` unless it reads `marker`, then the extended field (when present).
std::optional<unsigned> WithExtended(std::optional<unsigned> base, unsigned marker, std::optional<unsigned> extended)
{
    if (base && *base == marker && extended)
        return extended;
    return base;
}

std::optional<uint64_t> BiosRomSize(const CFields& f)
{
    std::optional<unsigned> size = f.U8(0x09);
    if (!size)
        return std::nullopt;
    if (*size != kUseExtendedByte)
        return (static_cast<uint64_t>(*size) + 1) * 64 * kKiB;
    std::optional<unsigned> ext = f.U16(0x18);
    if (!ext)
        return std::nullopt;
    uint64_t unit = (*ext >> 14) == 0 ? kMiB : (*ext >> 14) == 1 ? kGiB : 0;
    if (unit == 0)
        return std::nullopt;  // reserved unit
    return static_cast<uint64_t>(*ext & 0x3FFF) * unit;
}

SmbiosText Uuid(const CFields& f, unsigned major, unsigned minor)
{
    if (!f.Has(0x08, 16))
        return std::nullopt;
    const uint8_t* p = f.View().Data() + 0x08;
    bool allFF = true, all00 = true;
    for (int i = 0; i < 16; ++i) {
        allFF = allFF && p[i] == 0xFF;
        all00 = all00 && p[i] == 0x00;
    }
    if (allFF)
        return std::string("Not Settable");
    if (all00)
        return std::string("Not Present");
    // From 2.6 on the first three fields are little-endian; before, the
    // firmware stored them in network order.
    static const int kLe[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    bool le = major > 2 || (major == 2 && minor >= 6);
    std::string out;
    char hex[4];
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            out += '-';
        snprintf(hex, sizeof hex, "%02X", p[le ? kLe[i] : i]);
        out += hex;
    }
    return out;
}

std::optional<uint64_t> MemoryDeviceSize(const CFields& f)
{
    std::optional<unsigned> size = f.U16(0x0C);
    if (!size || *size == 0xFFFF)
        return std::nullopt;
    if (*size == kUseExtendedMemorySize) {
        if (std::optional<uint32_t> ext = f.U32(0x1C))
            return static_cast<uint64_t>(*ext & 0x7FFFFFFFu) * kMiB;
    }
    // Bit 15: the size is in KiB, else in MiB.
    return static_cast<uint64_t>(*size & 0x7FFF) * ((*size & 0x8000) ? kKiB : kMiB);
}

const char* NameOf(const std::map<unsigned, const char*>& names, unsigned code, const char* fallback)
{
    auto it = names.find(code);
    return it == names.end() ? fallback : it->second;
}

} // namespace

SmbiosBiosInfo DecodeSmbiosBios(const CByteReader& s)
{
    CFields f(s);
    SmbiosBiosInfo b;
    b.vendor = f.Text(0x04);
    b.version = f.Text(0x05);
    b.releaseDate = f.Text(0x08);
    b.romSizeBytes = BiosRomSize(f);
    std::optional<unsigned> major = f.U8(0x14), minor = f.U8(0x15);
    if (major && minor && !(*major == kUseExtendedByte && *minor == kUseExtendedByte)) {
        b.biosMajor = major;
        b.biosMinor = minor;
    }
    return b;
}

SmbiosSystemInfo DecodeSmbiosSystem(const CByteReader& s, unsigned major, unsigned minor)
{
    CFields f(s);
    SmbiosSystemInfo sys;
    sys.manufacturer = f.Text(0x04);
    sys.productName = f.Text(0x05);
    sys.version = f.Text(0x06);
    sys.serialNumber = f.Text(0x07);
    sys.uuid = Uuid(f, major, minor);
    sys.skuNumber = f.Text(0x19);
    sys.family = f.Text(0x1A);
    return sys;
}

SmbiosBaseboardInfo DecodeSmbiosBaseboard(const CByteReader& s)
{
    CFields f(s);
    return {f.Text(0x04), f.Text(0x05), f.Text(0x06), f.Text(0x07), f.Text(0x08)};
}

SmbiosChassisInfo DecodeSmbiosChassis(const CByteReader& s)
{
    CFields f(s);
    SmbiosChassisInfo c;
    c.manufacturer = f.Text(0x04);
    if (std::optional<unsigned> type = f.U8(0x05)) {
        c.type = *type & 0x7F;
        c.locked = (*type & 0x80) != 0;
    }
    c.version = f.Text(0x06);
    c.serialNumber = f.Text(0x07);
    c.assetTag = f.Text(0x08);
    return c;
}

SmbiosProcessorInfo DecodeSmbiosProcessor(const CByteReader& s)
{
    CFields f(s);
    SmbiosProcessorInfo p;
    p.socket = f.Text(0x04);
    p.family = WithExtended(f.U8(0x06), kUseFamily2, f.U16(0x28));
    p.manufacturer = f.Text(0x07);
    p.version = f.Text(0x10);
    p.maxSpeedMHz = Known(f.U16(0x14));
    p.currentSpeedMHz = Known(f.U16(0x16));
    p.populated = (f.U8(0x18).value_or(0) & 0x40) != 0;
    p.coreCount = Known(WithExtended(f.U8(0x23), kUseExtendedByte, f.U16(0x2A)));
    p.coresEnabled = Known(WithExtended(f.U8(0x24), kUseExtendedByte, f.U16(0x2C)));
    p.threadCount = Known(WithExtended(f.U8(0x25), kUseExtendedByte, f.U16(0x2E)));
    return p;
}

SmbiosMemoryArrayInfo DecodeSmbiosMemoryArray(const CByteReader& s)
{
    CFields f(s);
    SmbiosMemoryArrayInfo a;
    a.location = f.U8(0x04);
    a.use = f.U8(0x05);
    a.errorCorrection = f.U8(0x06);
    if (std::optional<uint32_t> kib = f.U32(0x07)) {
        if (*kib != kUseExtendedCapacity)
            a.maxCapacityBytes = static_cast<uint64_t>(*kib) * kKiB;
        else
            a.maxCapacityBytes = f.U64(0x0F);
    }
    a.deviceCount = f.U16(0x0D);
    return a;
}

SmbiosMemoryDeviceInfo DecodeSmbiosMemoryDevice(const CByteReader& s)
{
    CFields f(s);
    SmbiosMemoryDeviceInfo m;
    m.installed = f.U16(0x0C).value_or(0) != 0;
    if (m.installed)
        m.sizeBytes = MemoryDeviceSize(f);
    m.locator = f.Text(0x10);
    m.bankLocator = f.Text(0x11);
    m.type = f.U8(0x12);
    std::optional<unsigned> speed = f.U16(0x15);
    if (speed && *speed == kUseExtendedSpeed)
        speed = f.U32(0x54);
    m.speedMTs = Known(speed);
    m.manufacturer = f.Text(0x17);
    m.serialNumber = f.Text(0x18);
    m.partNumber = f.Text(0x1A);
    return m;
}

SmbiosIdentity DecodeSmbiosIdentity(const CSMBios& bios)
{
    SmbiosIdentity id;
    for (const CByteReader& s : bios.GetStructures(kTypeBios))
        id.bios = id.bios ? id.bios : DecodeSmbiosBios(s);
    for (const CByteReader& s : bios.GetStructures(kTypeSystem))
        id.system = id.system ? id.system : DecodeSmbiosSystem(s, bios.GetMajor(), bios.GetMinor());
    for (const CByteReader& s : bios.GetStructures(kTypeBaseboard))
        id.baseboard = id.baseboard ? id.baseboard : DecodeSmbiosBaseboard(s);
    for (const CByteReader& s : bios.GetStructures(kTypeChassis))
        id.chassis = id.chassis ? id.chassis : DecodeSmbiosChassis(s);
    for (const CByteReader& s : bios.GetStructures(kTypeProcessor))
        id.processors.push_back(DecodeSmbiosProcessor(s));
    for (const CByteReader& s : bios.GetStructures(kTypeMemoryArray))
        id.memoryArrays.push_back(DecodeSmbiosMemoryArray(s));
    for (const CByteReader& s : bios.GetStructures(kTypeMemoryDevice))
        id.memoryDevices.push_back(DecodeSmbiosMemoryDevice(s));
    return id;
}

const char* SmbiosChassisTypeName(unsigned t)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "Desktop"}, {0x04, "Low Profile Desktop"}, {0x05, "Pizza Box"},
        {0x06, "Mini Tower"}, {0x07, "Tower"}, {0x08, "Portable"}, {0x09, "Laptop"}, {0x0A, "Notebook"},
        {0x0B, "Hand Held"}, {0x0C, "Docking Station"}, {0x0D, "All In One"}, {0x0E, "Sub Notebook"},
        {0x0F, "Space-saving"}, {0x10, "Lunch Box"}, {0x11, "Main Server Chassis"}, {0x12, "Expansion Chassis"},
        {0x13, "Sub Chassis"}, {0x14, "Bus Expansion Chassis"}, {0x15, "Peripheral Chassis"},
        {0x16, "RAID Chassis"}, {0x17, "Rack Mount Chassis"}, {0x18, "Sealed-case PC"}, {0x19, "Multi-system"},
        {0x1A, "CompactPCI"}, {0x1B, "AdvancedTCA"}, {0x1C, "Blade"}, {0x1D, "Blade Enclosing"},
        {0x1E, "Tablet"}, {0x1F, "Convertible"}, {0x20, "Detachable"}, {0x21, "IoT Gateway"},
        {0x22, "Embedded PC"}, {0x23, "Mini PC"}, {0x24, "Stick PC"},
    };
    return NameOf(kNames, t, "Unknown type");
}

const char* SmbiosProcessorFamilyName(unsigned family)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x0B, "Pentium"}, {0x0F, "Celeron"}, {0x2B, "Atom"},
        {0x6B, "Zen"}, {0x84, "Opteron"}, {0xB3, "Xeon"}, {0xC6, "Core i7"}, {0xCD, "Core i5"},
        {0xCE, "Core i3"}, {0x100, "ARMv7"}, {0x101, "ARMv8"}, {0x200, "RISC-V RV32"}, {0x201, "RISC-V RV64"},
    };
    return NameOf(kNames, family, "Other family");
}

const char* SmbiosMemoryTypeName(unsigned t)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "DRAM"}, {0x04, "EDRAM"}, {0x05, "VRAM"}, {0x06, "SRAM"},
        {0x07, "RAM"}, {0x08, "ROM"}, {0x09, "Flash"}, {0x0A, "EEPROM"}, {0x0B, "FEPROM"}, {0x0C, "EPROM"},
        {0x0D, "CDRAM"}, {0x0E, "3DRAM"}, {0x0F, "SDRAM"}, {0x10, "SGRAM"}, {0x11, "RDRAM"}, {0x12, "DDR"},
        {0x13, "DDR2"}, {0x14, "DDR2 FB-DIMM"}, {0x18, "DDR3"}, {0x19, "FBD2"}, {0x1A, "DDR4"},
        {0x1B, "LPDDR"}, {0x1C, "LPDDR2"}, {0x1D, "LPDDR3"}, {0x1E, "LPDDR4"},
        {0x1F, "Logical non-volatile device"}, {0x20, "HBM"}, {0x21, "HBM2"}, {0x22, "DDR5"}, {0x23, "LPDDR5"},
        {0x24, "HBM3"},
    };
    return NameOf(kNames, t, "Unknown type");
}

const char* SmbiosArrayLocationName(unsigned l)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "System Board Or Motherboard"}, {0x04, "ISA Add-on Card"},
        {0x05, "EISA Add-on Card"}, {0x06, "PCI Add-on Card"}, {0x07, "MCA Add-on Card"},
        {0x08, "PCMCIA Add-on Card"}, {0x09, "Proprietary Add-on Card"}, {0x0A, "NuBus"},
    };
    return NameOf(kNames, l, "Unknown location");
}

const char* SmbiosArrayUseName(unsigned u)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "System Memory"}, {0x04, "Video Memory"},
        {0x05, "Flash Memory"}, {0x06, "Non-volatile RAM"}, {0x07, "Cache Memory"},
    };
    return NameOf(kNames, u, "Unknown use");
}

const char* SmbiosErrorCorrectionName(unsigned e)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "None"}, {0x04, "Parity"},
        {0x05, "Single-bit ECC"}, {0x06, "Multi-bit ECC"}, {0x07, "CRC"},
    };
    return NameOf(kNames, e, "Unknown error correction");
}

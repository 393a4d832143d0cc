// The machine identity from SMBIOS (the real dumps: SmbiosFixtures):
// hand-made structures that are short, damaged or use the extended fields.
#include <gtest/gtest.h>

#include "hwinfo/CSMBios.h"
#include "hwinfo/SmbiosIdentity.h"
#include "support/Firmware.h"

using namespace hwtest;

namespace {

std::string T(const SmbiosText& t) { return t.value_or(""); }

} // namespace

// Hand-made structures: each case a structure and what its fields read.
TEST(SmbiosIdentity, ShortDamagedAndExtendedStructures)
{
    Bytes uuid = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    // Manufacturer, product, version, no serial; UUID; wake-up, SKU string 9 (bad), family string 1.
    Bytes sys = Concat({{1, 2, 3, 0}, uuid, {6, 9, 1}});
    Bytes full = Structure(1, 1, sys, {"Maker", "Box", "v1"});
    SmbiosSystemInfo s = DecodeSmbiosSystem(CByteReader(full.data(), full.size()), 2, 6);
    EXPECT_EQ(T(s.manufacturer) + "|" + T(s.productName) + "|" + T(s.version), "Maker|Box|v1");
    EXPECT_FALSE(s.serialNumber);
    EXPECT_EQ(T(s.uuid), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(T(s.skuNumber), kSmbiosBadStringIndex);
    EXPECT_EQ(T(s.family), "Maker");
    EXPECT_EQ(T(DecodeSmbiosSystem(CByteReader(full.data(), full.size()), 2, 5).uuid), "33221100-5544-7766-8899-AABBCCDDEEFF");
    // A 2.0 structure (length 8): no UUID, SKU, family.
    Bytes old = Structure(1, 1, Bytes(sys.begin(), sys.begin() + 4), {"Maker"});
    s = DecodeSmbiosSystem(CByteReader(old.data(), old.size()), 3, 0);
    EXPECT_TRUE(!s.uuid && !s.skuNumber && !s.family && T(s.manufacturer) == "Maker");
    EXPECT_EQ(T(s.productName), kSmbiosBadStringIndex);

    // BIOS: ROM size 0xFF with the extended size 16 GiB; revision 0xFF/0xFF absent.
    Bytes bios(0x1A - 4, 0);
    bios[0x09 - 4] = 0xFF;
    bios[0x14 - 4] = bios[0x15 - 4] = 0xFF;
    bios[0x18 - 4] = 0x10;
    bios[0x19 - 4] = 0x40;
    Bytes b = Structure(0, 1, bios);
    SmbiosBiosInfo bi = DecodeSmbiosBios(CByteReader(b.data(), b.size()));
    EXPECT_EQ(bi.romSizeBytes.value_or(0), 16ull << 30);
    EXPECT_TRUE(!bi.biosMajor && !bi.vendor);

    // Memory devices: {size word, extended size, bytes (0: not installed)}.
    struct Dimm { uint16_t size; uint32_t ext; uint64_t bytes; } dimms[] = {
        {0, 0, 0}, {0x8000 | 512, 0, 512ull << 10}, {4096, 0, 4ull << 30}, {0x7FFF, 0x10000, 64ull << 30}};
    for (const Dimm& d : dimms) {
        Bytes f(0x22 - 4, 0);
        PutLe(f, 0x0C - 4, d.size, 2);
        PutLe(f, 0x1C - 4, d.ext, 4);
        f[0x10 - 4] = 1;
        Bytes m = Structure(17, 2, f, {"DIMM A"});
        SmbiosMemoryDeviceInfo info = DecodeSmbiosMemoryDevice(CByteReader(m.data(), m.size()));
        EXPECT_EQ(info.installed, d.size != 0);
        EXPECT_EQ(info.sizeBytes.value_or(0), d.bytes) << d.size;
        EXPECT_EQ(T(info.locator), "DIMM A");
    }
    // Processor: core/thread bytes 0xFF point to the 3.0 words; family 0xFE to family 2.
    Bytes cpu(0x30 - 4, 0);
    cpu[0x06 - 4] = 0xFE;
    PutLe(cpu, 0x28 - 4, 0x101, 2);
    cpu[0x23 - 4] = cpu[0x25 - 4] = 0xFF;
    cpu[0x24 - 4] = 8;
    PutLe(cpu, 0x2A - 4, 256, 2);
    PutLe(cpu, 0x2E - 4, 512, 2);
    Bytes c = Structure(4, 3, cpu);
    SmbiosProcessorInfo pi = DecodeSmbiosProcessor(CByteReader(c.data(), c.size()));
    EXPECT_EQ(pi.family.value_or(0), 0x101u);
    EXPECT_EQ(pi.coreCount.value_or(0) * 10000 + pi.coresEnabled.value_or(0) * 1000 + pi.threadCount.value_or(0), 2560000u + 8000 + 512);
    // Memory array with the extended capacity.
    Bytes arr(0x17 - 4, 0);
    PutLe(arr, 0x07 - 4, 0x80000000u, 4);
    PutLe(arr, 0x0F - 4, 1ull << 42, 8);
    Bytes a = Structure(16, 4, arr);
    EXPECT_EQ(DecodeSmbiosMemoryArray(CByteReader(a.data(), a.size())).maxCapacityBytes.value_or(0), 1ull << 42);
}

// Structures cut anywhere, with any length byte: nothing outside the view is read.
TEST(SmbiosIdentity, TruncatedStructuresReadNothingOutside)
{
    Bytes dmi = SmbiosFixture("dell-poweredge-r777sd.dmi");
    for (uint8_t type : {0, 1, 2, 3, 4, 16, 17}) {
        size_t pos = 0;
        while (pos + 4 <= dmi.size() && dmi[pos] != type && dmi[pos + 1] >= 4) {
            pos += dmi[pos + 1];
            while (pos + 1 < dmi.size() && !(dmi[pos] == 0 && dmi[pos + 1] == 0))
                ++pos;
            pos += 2;
        }
        for (size_t cut = 0; pos + cut <= dmi.size() && cut <= 0x60; ++cut) {
            Bytes part(dmi.begin() + pos, dmi.begin() + pos + cut);  // its own allocation: ASan sees any overrun
            for (uint8_t len : {uint8_t(0), uint8_t(0xFF)}) {
                if (part.size() > 1)
                    part[1] = len == 0 ? part[1] : len;
                CByteReader r(part.data(), part.size());
                (void)DecodeSmbiosBios(r), (void)DecodeSmbiosSystem(r, 3, 2), (void)DecodeSmbiosBaseboard(r);
                (void)DecodeSmbiosChassis(r), (void)DecodeSmbiosProcessor(r), (void)DecodeSmbiosMemoryArray(r);
                (void)DecodeSmbiosMemoryDevice(r);
            }
        }
    }
}

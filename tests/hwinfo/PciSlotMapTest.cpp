// Slot records, the "$PIR" table, the SMBIOS slot rules and the merge.
#include <gtest/gtest.h>

#include "hwinfo/CPciSlotMap.h"
#include "support/Firmware.h"

using namespace hwtest;

namespace {
PciSlotData Slot(uint8_t bus, uint8_t dev, uint8_t slot, uint8_t type)
{
    PciSlotData d;
    d.bus = bus, d.device = dev, d.slot = slot, d.type = type;
    return d;
}
constexpr uint64_t kPirAddress = 0xF4A60;
} // namespace

TEST(PciSlotData, SerialRangesTextAndMatching)
{
    for (int t : {0x14, 0x17, 0x18, 0x1E, 0x1F, 0x20, 0x21, 0x23, 0xA5, 0xB6})
        EXPECT_TRUE(Slot(0, 0, 0, static_cast<uint8_t>(t)).IsSerialBus()) << t;
    for (int t : {0x00, 0x02, 0x06, 0x13, 0x24, 0xA4, 0xB7, 0xFF})
        EXPECT_FALSE(Slot(0, 0, 0, static_cast<uint8_t>(t)).IsSerialBus()) << t;
    EXPECT_EQ("PciSlotData 1a:0.** --> Slot 2 (Serial bus)", Slot(0x1A, 0, 2, 0xA5).ToString());
    EXPECT_EQ("PciSlotData 0:1f.** --> Slot 0 (Unknown bus type)", Slot(0, 31, 0, 2).ToString());
    EXPECT_EQ("PciSlotData ff:3.** --> Slot 200 (Unknown bus type)", Slot(0xFF, 3, 200, 0).ToString());
    EXPECT_EQ("PciSlotData 3:2.** --> Slot 7 (Parallel bus)", Slot(3, 2, 7, 0x06).ToString());
    // A serial slot holds every device on its bus, a parallel one only its own.
    PciSlotData pcie = Slot(3, 0, 1, 0xA5), pci = Slot(3, 2, 1, 0x06);
    EXPECT_TRUE(pcie.Matches(3, 0) && pcie.Matches(3, 17) && !pcie.Matches(4, 0));
    EXPECT_TRUE(pci.Matches(3, 2) && !pci.Matches(3, 0) && !pci.Matches(2, 2));
}

TEST(PciSlotMapSmbios, SkipRulesShortRecordsAndTheEightBitCount)
{
    FakeRoot root;
    root.SetSysfsTable(Concat({SlotStructure(1, 0xA5, 3, 1, 0xFF, 0x00),  // bus 0xFF: unavailable
                               SlotStructure(2, 0xA5, 5, 2, 0x04, 0x00),  // usage 5: unavailable
                               SlotStructure(3, 0x06, 4, 3, 0x05, 0x10), OnboardStructure(4, 0x00, 0xFA),
                               EndOfTable(5)}));
    std::vector<PciSlotData> v = CPciSlotMap::GetSlotMappingFromSMBIOS();
    ASSERT_EQ(2u, v.size());
    EXPECT_EQ("PciSlotData 5:2.** --> Slot 3 (Parallel bus)", v[0].ToString());
    EXPECT_EQ("PciSlotData 0:1f.** --> Slot 0 (Unknown bus type)", v[1].ToString());
    // A type-9 record of SMBIOS 2.0 length last in the table: its bus byte
    // lies past the end and counts as absent.
    Bytes f(0x0C - 4, 0);
    f[1] = 0xA5;
    root.SetSysfsTable(Structure(9, 1, f));
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromSMBIOS().empty());
    for (int n : {256, 257}) {
        std::vector<Bytes> parts;
        for (int i = 0; i < n; ++i)
            parts.push_back(SlotStructure(static_cast<uint16_t>(i), 0x06, 3, static_cast<uint8_t>(i), 1,
                                          static_cast<uint8_t>((i % 32) << 3)));
        parts.push_back(EndOfTable(0xFFF));
        root.SetSysfsTable(Concat(parts));
        EXPECT_EQ(static_cast<size_t>(n % 256), CPciSlotMap::GetSlotMappingFromSMBIOS().size()) << n;
    }
    FakeRoot empty;
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromSMBIOS().empty());
}

TEST(PciSlotMapIrq, RoutingTableChecks)
{
    Bytes zero = Pir({{0, 8, 1}}), large = zero, odd = zero, bad = zero;
    PutLe16(zero, 6, 0);
    FixChecksum(zero, 31);
    PutLe16(large, 6, static_cast<uint16_t>(0xFFE0 - (kPirAddress - 0xF0000) + 16));
    odd.push_back(0);
    PutLe16(odd, 6, 0x21);
    FixChecksum(odd, 31);
    bad[40] ^= 0x10;
    struct Case {
        const char* name;
        Bytes table;
        uint64_t at;
        size_t entries;
    } cases[] = {
        {"valid", Pir({{0, 0x08, 0}, {2, 0x18, 3}, {5, 0x00, 7}}), kPirAddress, 3},
        {"size 0", zero, kPirAddress, 0},
        {"size past the area", large, kPirAddress, 0},
        {"size not whole entries", odd, kPirAddress, 0},
        {"version 11.0", Pir({{0, 8, 1}}, 0x0B00), kPirAddress, 0},
        {"minor 21", Pir({{0, 8, 1}}, 0x0115), kPirAddress, 0},
        {"10.20 is the highest", Pir({{0, 8, 1}}, 0x0A14), kPirAddress, 1},
        {"bad checksum", bad, kPirAddress, 0},
        {"off a 16-byte boundary", Pir({{0, 8, 1}}), kPirAddress + 4, 0},
    };
    for (const Case& c : cases) {
        FakeRoot root;
        root.MakeMemory();
        root.Poke(c.at, c.table);
        std::vector<PciSlotData> v = CPciSlotMap::GetSlotMappingFromIrqRoutingTable();
        EXPECT_EQ(c.entries, v.size()) << c.name;
        if (c.entries == 3) {
            EXPECT_EQ("PciSlotData 0:1.** --> Slot 0 (Unknown bus type)", v[0].ToString());
            EXPECT_EQ("PciSlotData 2:3.** --> Slot 3 (Unknown bus type)", v[1].ToString());
            EXPECT_EQ(7, v[2].slot);
        }
    }
    FakeRoot noMemory;
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromIrqRoutingTable().empty());
}

TEST(PciSlotMapMerge, IrqSlotNumbersWithSmbiosTypes)
{
    FakeRoot root;
    root.MakeMemory();
    root.Poke(kPirAddress, Pir({{3, 0x10, 9}, {4, 0x08, 8}, {6, 0x00, 6}}));
    root.SetSysfsTable(Concat({SlotStructure(1, 0xA5, 4, 1, 3, 0x00),  // serial on bus 3: matches device 2
                               SlotStructure(2, 0x06, 4, 2, 4, 0x10),  // parallel 4:2 does not match 4:1
                               EndOfTable(3)}));
    std::vector<PciSlotData> v = CPciSlotMap::GetSlotMapping();
    ASSERT_EQ(3u, v.size());
    EXPECT_EQ("PciSlotData 3:2.** --> Slot 9 (Serial bus)", v[0].ToString());
    EXPECT_EQ(0xA5, v[0].type);
    EXPECT_EQ(2, v[1].type);
    EXPECT_EQ(2, v[2].type);
    EXPECT_EQ(9, GetPciSlotNumber(3, 0));  // serial: any device on bus 3
    EXPECT_EQ(9, GetPciSlotNumber(3, 30));
    EXPECT_EQ(8, GetPciSlotNumber(4, 1));
    EXPECT_EQ(0, GetPciSlotNumber(4, 2));
}

TEST(PciSlotMapMerge, SmbiosAloneNothingAndBuiltOnce)
{
    FakeRoot root;
    EXPECT_TRUE(CPciSlotMap::GetSlotMapping().empty());
    EXPECT_EQ(0, GetPciSlotNumber(2, 3));
    root.SetSysfsTable(Concat({SlotStructure(1, 0x06, 4, 5, 2, 0x18), EndOfTable(3)}));
    ASSERT_EQ(1u, CPciSlotMap::GetSlotMapping().size());
    EXPECT_EQ(0, GetPciSlotNumber(2, 3));  // firmware appearing later is not read again
    CPciSlotMap::ResetProcessSlotMap();
    EXPECT_EQ(5, GetPciSlotNumber(2, 3));
}

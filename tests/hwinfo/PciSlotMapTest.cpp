// Slot records, the "$PIR" table, the SMBIOS slot rules and the merge.
#include <gtest/gtest.h>

#include <array>

#include "HwTestUtil.h"
#include "hwinfo/CPciSlotMap.h"

using namespace hwtest;

namespace {

PciSlotData Slot(uint8_t bus, uint8_t dev, uint8_t slot, uint8_t type)
{
    PciSlotData d;
    d.bus = bus;
    d.device = dev;
    d.slot = slot;
    d.type = type;
    return d;
}

constexpr uint64_t kPirAddress = 0xF4A60;

/// A routing table with `entries` records {bus, devfn, ..., slot}.
Bytes Pir(const std::vector<std::array<uint8_t, 3>>& entries, uint16_t version = 0x0100)
{
    Bytes t(32, 0);
    t[0] = '$'; t[1] = 'P'; t[2] = 'I'; t[3] = 'R';
    PutLe16(t, 4, version);
    PutLe16(t, 6, static_cast<uint16_t>(32 + 16 * entries.size()));
    for (const auto& e : entries) {
        Bytes r(16, 0);
        r[0] = e[0];
        r[1] = e[1];
        r[14] = e[2];
        t.insert(t.end(), r.begin(), r.end());
    }
    uint8_t sum = 0;
    for (uint8_t c : t)
        sum = static_cast<uint8_t>(sum + c);
    t[31] = static_cast<uint8_t>(-sum);
    return t;
}

void FixChecksum(Bytes& t)
{
    t[31] = 0;
    uint8_t sum = 0;
    for (uint8_t c : t)
        sum = static_cast<uint8_t>(sum + c);
    t[31] = static_cast<uint8_t>(-sum);
}

std::vector<PciSlotData> PirSlots(const Bytes& table)
{
    FakeRoot root;
    root.MakeMemory();
    root.Poke(kPirAddress, table);
    return CPciSlotMap::GetSlotMappingFromIrqRoutingTable();
}

} // namespace

TEST(PciSlotData, SerialRangesAreFixed)
{
    for (int t = 0; t < 256; ++t) {
        bool serial = (t >= 0xA5 && t <= 0xB6) || t == 0x1F || t == 0x20 || (t >= 0x21 && t <= 0x23) ||
                      (t >= 0x18 && t <= 0x1E) || (t >= 0x14 && t <= 0x17);
        EXPECT_EQ(serial, Slot(0, 0, 0, static_cast<uint8_t>(t)).IsSerialBus()) << t;
    }
    EXPECT_FALSE(Slot(0, 0, 0, 0x24).IsSerialBus());
    EXPECT_FALSE(Slot(0, 0, 0, 0xB7).IsSerialBus());
    EXPECT_FALSE(Slot(0, 0, 0, 0x13).IsSerialBus());
}

TEST(PciSlotData, ToStringText)
{
    EXPECT_EQ("PciSlotData 1a:0.** --> Slot 2 (Serial bus)", Slot(0x1A, 0, 2, 0xA5).ToString());
    EXPECT_EQ("PciSlotData 0:1f.** --> Slot 0 (Unknown bus type)", Slot(0, 31, 0, 2).ToString());
    EXPECT_EQ("PciSlotData ff:3.** --> Slot 200 (Unknown bus type)", Slot(0xFF, 3, 200, 0).ToString());
    EXPECT_EQ("PciSlotData 3:2.** --> Slot 7 (Parallel bus)", Slot(3, 2, 7, 0x06).ToString());
}

TEST(PciSlotData, SerialMatchesEveryDeviceOnItsBusParallelOnlyItsDevice)
{
    PciSlotData pcie = Slot(3, 0, 1, 0xA5);
    EXPECT_TRUE(pcie.Matches(3, 0));
    EXPECT_TRUE(pcie.Matches(3, 1));
    EXPECT_TRUE(pcie.Matches(3, 17));
    EXPECT_FALSE(pcie.Matches(4, 0));
    PciSlotData pci = Slot(3, 2, 1, 0x06);
    EXPECT_TRUE(pci.Matches(3, 2));
    EXPECT_FALSE(pci.Matches(3, 0));
    EXPECT_FALSE(pci.Matches(3, 1));
    EXPECT_FALSE(pci.Matches(2, 2));
}

TEST(PciSlotMapSmbios, SkipRules)
{
    FakeRoot root;
    Bytes table = Concat({SlotStructure(1, 0xA5, 3, 1, 0xFF, 0x00),  // bus 0xFF: unavailable
                          SlotStructure(2, 0xA5, 5, 2, 0x04, 0x00),  // usage 5: unavailable
                          SlotStructure(3, 0x06, 4, 3, 0x05, 0x10),  // taken
                          OnboardStructure(4, 0x00, 0xFA),          // taken, device 31
                          EndOfTable(5)});
    root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    std::vector<PciSlotData> v = CPciSlotMap::GetSlotMappingFromSMBIOS();
    ASSERT_EQ(2u, v.size());
    EXPECT_EQ("PciSlotData 5:2.** --> Slot 3 (Parallel bus)", v[0].ToString());
    EXPECT_EQ(0x06, v[0].type);
    EXPECT_EQ(31, v[1].device);
    EXPECT_EQ(0, v[1].slot);
    EXPECT_EQ(2, v[1].type);
}

TEST(PciSlotMapSmbios, ShortSlotStructureAtTheTableEnd)
{
    // A type-9 structure of SMBIOS 2.0 length (0x0C) as the last thing in the
    // table: its bus byte would lie past the end and counts as absent.
    FakeRoot root;
    Bytes f(0x0C - 4, 0);
    f[1] = 0xA5;
    Bytes table = Structure(9, 1, f);
    root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromSMBIOS().empty());
}

TEST(PciSlotMapSmbios, CountOfATypeIsHeldInEightBits)
{
    for (int n : {256, 257}) {
        FakeRoot root;
        std::vector<Bytes> parts;
        for (int i = 0; i < n; ++i)
            parts.push_back(SlotStructure(static_cast<uint16_t>(i), 0x06, 3, static_cast<uint8_t>(i), 1,
                                          static_cast<uint8_t>((i % 32) << 3)));
        parts.push_back(EndOfTable(0xFFF));
        Bytes table = Concat(parts);
        root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
        EXPECT_EQ(static_cast<size_t>(n % 256), CPciSlotMap::GetSlotMappingFromSMBIOS().size()) << n;
    }
}

TEST(PciSlotMapSmbios, NoSmbiosGivesEmptyList)
{
    FakeRoot root;
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromSMBIOS().empty());
}

TEST(PciSlotMapIrq, ValidTableGivesEntries)
{
    std::vector<PciSlotData> v = PirSlots(Pir({{0, 0x08, 0}, {2, 0x18, 3}, {5, 0x00, 7}}));
    ASSERT_EQ(3u, v.size());
    EXPECT_EQ("PciSlotData 0:1.** --> Slot 0 (Unknown bus type)", v[0].ToString());
    EXPECT_EQ(2, v[1].bus);
    EXPECT_EQ(3, v[1].device);
    EXPECT_EQ(3, v[1].slot);
    EXPECT_EQ(7, v[2].slot);
}

TEST(PciSlotMapIrq, SizeChecks)
{
    Bytes zero = Pir({{0, 8, 1}});
    PutLe16(zero, 6, 0);
    FixChecksum(zero);
    EXPECT_TRUE(PirSlots(zero).empty());

    Bytes large = Pir({{0, 8, 1}});
    PutLe16(large, 6, static_cast<uint16_t>(0xFFE0 - (kPirAddress - 0xF0000) + 16));
    EXPECT_TRUE(PirSlots(large).empty());

    Bytes odd = Pir({{0, 8, 1}});
    odd.push_back(0);
    PutLe16(odd, 6, 0x21);
    FixChecksum(odd);
    EXPECT_TRUE(PirSlots(odd).empty());
}

TEST(PciSlotMapIrq, VersionChecks)
{
    EXPECT_TRUE(PirSlots(Pir({{0, 8, 1}}, 0x0B00)).empty());
    EXPECT_TRUE(PirSlots(Pir({{0, 8, 1}}, 0x0115)).empty());  // minor 21
    EXPECT_EQ(1u, PirSlots(Pir({{0, 8, 1}}, 0x0A14)).size());  // 10.20 is the highest accepted
}

TEST(PciSlotMapIrq, ChecksumAndPlacement)
{
    Bytes bad = Pir({{0, 8, 1}});
    bad[40] ^= 0x10;
    EXPECT_TRUE(PirSlots(bad).empty());

    // Off a 16-byte boundary the signature is not found.
    FakeRoot root;
    root.MakeMemory();
    root.Poke(kPirAddress + 4, Pir({{0, 8, 1}}));
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromIrqRoutingTable().empty());
}

TEST(PciSlotMapMerge, IrqSlotNumbersWithSmbiosTypes)
{
    FakeRoot root;
    root.MakeMemory();
    root.Poke(kPirAddress, Pir({{3, 0x10, 9}, {4, 0x08, 8}, {6, 0x00, 6}}));
    Bytes table = Concat({SlotStructure(1, 0xA5, 4, 1, 3, 0x00),   // serial on bus 3: matches device 2
                          SlotStructure(2, 0x06, 4, 2, 4, 0x10),   // parallel 4:2 does not match 4:1
                          EndOfTable(3)});
    root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    std::vector<PciSlotData> v = CPciSlotMap::GetSlotMapping();
    ASSERT_EQ(3u, v.size());
    EXPECT_EQ(3, v[0].bus);
    EXPECT_EQ(2, v[0].device);
    EXPECT_EQ(9, v[0].slot);
    EXPECT_EQ(0xA5, v[0].type);
    EXPECT_EQ(8, v[1].slot);
    EXPECT_EQ(2, v[1].type);
    EXPECT_EQ(2, v[2].type);

    EXPECT_EQ(9, CPciSlotMap::GetPciSlotNumber(3, 0));   // serial: any device on bus 3
    EXPECT_EQ(9, CPciSlotMap::GetPciSlotNumber(3, 30));
    EXPECT_EQ(8, CPciSlotMap::GetPciSlotNumber(4, 1));
    EXPECT_EQ(0, CPciSlotMap::GetPciSlotNumber(4, 2));
}

TEST(PciSlotMapMerge, SmbiosAloneOrNothing)
{
    {
        FakeRoot root;
        Bytes table = Concat({SlotStructure(1, 0x06, 4, 5, 2, 0x18), EndOfTable(3)});
        root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
        std::vector<PciSlotData> v = CPciSlotMap::GetSlotMapping();
        ASSERT_EQ(1u, v.size());
        EXPECT_EQ(5, v[0].slot);
    }
    {
        FakeRoot root;
        EXPECT_TRUE(CPciSlotMap::GetSlotMapping().empty());
    }
}

TEST(PciSlotMapLookup, BuiltOnceEvenWhenEmpty)
{
    FakeRoot root;
    EXPECT_EQ(0, CPciSlotMap::GetPciSlotNumber(2, 3));
    // Firmware appearing later is not read again.
    Bytes table = Concat({SlotStructure(1, 0x06, 4, 5, 2, 0x18), EndOfTable(3)});
    root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    EXPECT_EQ(0, CPciSlotMap::GetPciSlotNumber(2, 3));
    CPciSlotMap::ResetProcessSlotMap();
    EXPECT_EQ(5, CPciSlotMap::GetPciSlotNumber(2, 3));
}

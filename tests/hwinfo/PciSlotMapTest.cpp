// Slot records, the "$PIR" table, the SMBIOS slot rules and the merge.
#include <gtest/gtest.h>

#include "hwinfo/CPciSlotMap.h"
#include "support/Firmware.h"
#include "support/TraceEnv.h"

using namespace hwtest;

namespace {
PciSlotData Slot(uint8_t bus, uint8_t dev, uint8_t slot, uint8_t type) { return {bus, dev, slot, type}; }
std::string Text(const std::vector<PciSlotData>& list)
{
    std::string out;
    for (const PciSlotData& d : list)
        out += d.ToString() + ";";
    return out;
}
constexpr uint64_t kPirAddress = 0xF4A60;
} // namespace

TEST(PciSlotData, SerialRangesTextAndMatching)
{
    for (int t : {0x14, 0x17, 0x18, 0x1E, 0x1F, 0x20, 0x21, 0x23, 0xA5, 0xB6})
        EXPECT_TRUE(Slot(0, 0, 0, static_cast<uint8_t>(t)).IsSerialBus()) << t;
    for (int t : {0x00, 0x02, 0x06, 0x13, 0x24, 0xA4, 0xB7, 0xFF})
        EXPECT_FALSE(Slot(0, 0, 0, static_cast<uint8_t>(t)).IsSerialBus()) << t;
    EXPECT_EQ("PciSlotData 1a:0.** --> Slot 2 (Serial bus);PciSlotData ff:3.** --> Slot 200 (Unknown bus type);"
              "PciSlotData 3:2.** --> Slot 7 (Parallel bus);",
              Text({Slot(0x1A, 0, 2, 0xA5), Slot(0xFF, 3, 200, 0), Slot(3, 2, 7, 0x06)}));
    // A serial slot holds every device on its bus, a parallel one only its own.
    PciSlotData pcie = Slot(3, 0, 1, 0xA5), pci = Slot(3, 2, 1, 0x06);
    EXPECT_TRUE(pcie.Matches(3, 0) && pcie.Matches(3, 17) && !pcie.Matches(4, 0));
    EXPECT_TRUE(pci.Matches(3, 2) && !pci.Matches(3, 0) && !pci.Matches(2, 2));
}

TEST(PciSlotMapSmbios, SkipRulesShortRecordsAndTheEightBitCount)
{
    FakeRoot root;
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromSMBIOS().empty());
    root.SetSysfsTable(Concat({SlotStructure(1, 0xA5, 3, 1, 0xFF, 0x00),  // bus 0xFF: unavailable
                               SlotStructure(2, 0xA5, 5, 2, 0x04, 0x00),  // usage 5: unavailable
                               SlotStructure(3, 0x06, 4, 3, 0x05, 0x10), OnboardStructure(4, 0x00, 0xFA),
                               EndOfTable(5)}));
    EXPECT_EQ("PciSlotData 5:2.** --> Slot 3 (Parallel bus);PciSlotData 0:1f.** --> Slot 0 (Unknown bus type);",
              Text(CPciSlotMap::GetSlotMappingFromSMBIOS()));
    // A type-9 record of SMBIOS 2.0 length last in the table: its bus byte
    // lies past the end and counts as absent.
    root.SetSysfsTable(Structure(9, 1, {0, 0xA5, 0, 0, 0, 0, 0, 0}));
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
}

// Each table is read here, and again in a child with the program's trace on: the check that
// refused it is seen.
class PciSlotMapIrq : public testsupport::TraceEnv {};

TEST_F(PciSlotMapIrq, RoutingTableChecks)
{
    Bytes zero = Pir({{0, 8, 1}}), large = zero, odd = zero, bad = zero;
    PutLe16(zero, 6, 0);
    PutLe16(large, 6, static_cast<uint16_t>(0xFFE0 - (kPirAddress - 0xF0000) + 16));
    odd.push_back(0);
    PutLe16(odd, 6, 0x21);
    FixChecksum(zero, 31), FixChecksum(odd, 31);
    bad[40] ^= 0x10;
    std::tuple<const char*, Bytes, uint64_t, std::string, const char*> cases[] = {
        {"valid", Pir({{0, 0x08, 0}, {2, 0x18, 7}}), kPirAddress,
         "PciSlotData 0:1.** --> Slot 0 (Unknown bus type);PciSlotData 2:3.** --> Slot 7 (Unknown bus type);", ""},
        {"size 0", zero, kPirAddress, "", "Illegal table size"},
        {"size past the area", large, kPirAddress, "", "Illegal table size"},
        // Past the limit the room left would wrap to a huge size.
        {"offset past the limit", Pir({{0, 8, 1}}), 0xFFFF0, "", "Illegal table size"},
        {"size not whole entries", odd, kPirAddress, "", "is not zero (1)"},
        {"version 11.0", Pir({{0, 8, 1}}, 0x0B00), kPirAddress, "", "Illegal version number"},
        {"minor 21", Pir({{0, 8, 1}}, 0x0115), kPirAddress, "", "Illegal version number"},
        {"10.20 is the highest", Pir({{0, 8, 1}}, 0x0A14), kPirAddress,
         "PciSlotData 0:1.** --> Slot 1 (Unknown bus type);", ""},
        {"bad checksum", bad, kPirAddress, "", "Illegal checksum"},
        {"off a 16-byte boundary", Pir({{0, 8, 1}}), kPirAddress + 4, "", ""},
    };
    for (const char* v : {"TR_LOG_DEBUG_LEVEL", "TraceFileLimit", "TR_LOG_RINGBUF_WEIGHT"})
        Set(v, "1");
    for (const auto& [name, table, at, slots, error] : cases) {
        SCOPED_TRACE(name);
        FakeRoot root;
        root.MakeMemory();
        root.Poke(at, table);
        EXPECT_EQ(Text(CPciSlotMap::GetSlotMappingFromIrqRoutingTable()), slots);
        ExpectExit(InChild([&, &error = error] {
                       Debug.SetConfigDirectory(m_ConfigDir.c_str());
                       Debug.Init(m_Program.c_str());
                       CPciSlotMap::GetSlotMappingFromIrqRoutingTable();
                       for (const std::string& m : RingMessages(Debug.GetInitialRingPath()))
                           if (m.find(error) != std::string::npos)
                               return 0;
                       return 1;
                   }),
                   0);
    }
    FakeRoot noMemory;
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromIrqRoutingTable().empty());
}

TEST(PciSlotMapMerge, IrqSlotsWithSmbiosTypesSmbiosAloneAndBuiltOnce)
{
    FakeRoot root;
    EXPECT_TRUE(CPciSlotMap::GetSlotMapping().empty());
    EXPECT_EQ(0, GetPciSlotNumber(2, 3));
    root.SetSysfsTable(Concat({SlotStructure(1, 0x06, 4, 5, 2, 0x18), EndOfTable(3)}));
    EXPECT_EQ("PciSlotData 2:3.** --> Slot 5 (Parallel bus);", Text(CPciSlotMap::GetSlotMapping()));
    EXPECT_EQ(0, GetPciSlotNumber(2, 3));  // firmware appearing later is not read again
    root.MakeMemory();
    root.Poke(kPirAddress, Pir({{3, 0x10, 9}, {4, 0x08, 8}}));
    root.SetSysfsTable(Concat({SlotStructure(1, 0xA5, 4, 1, 3, 0x00),  // serial on bus 3: matches device 2
                               SlotStructure(2, 0x06, 4, 2, 4, 0x10),  // parallel 4:2 does not match 4:1
                               EndOfTable(3)}));
    EXPECT_EQ("PciSlotData 3:2.** --> Slot 9 (Serial bus);PciSlotData 4:1.** --> Slot 8 (Unknown bus type);",
              Text(CPciSlotMap::GetSlotMapping()));
    CPciSlotMap::ResetProcessSlotMap();
    // Serial: any device on bus 3.
    for (auto [bus, device, slot] : {std::tuple{3, 0, 9}, {3, 30, 9}, {4, 1, 8}, {4, 2, 0}})
        EXPECT_EQ(slot, GetPciSlotNumber(bus, device)) << bus << ":" << device;
}

// PCI: the configuration scan (enumeration, headers, names, slots and bridges) and the slot map
// (slot records, the "$PIR" table, the SMBIOS slot rules and the merge).
#include <gtest/gtest.h>

#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CPciConfigListInternal.h"
#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/CSystemDevices.h"
#include "support/Firmware.h"
#include "support/TraceEnv.h"

using namespace hwtest;
using H = CPciCommonConfigHeader;

TEST(PciConfigHeader, NamesValidityAndSubsystemIds)
{
    struct Case { uint8_t base, sub, progIf; const char* name; } cases[] = {
        {3, 0, 0, "VGA compatible controller"}, {3, 0, 1, "8514 compatible controller"},  // by interface
        {3, 0x80, 0, "Display controller"}, {0x12, 0, 0, "Unknown"}, {0xFF, 0xFF, 0, "Other"},  // fallbacks
        {0, 7, 0, "Unknown"}, {7, 0, 9, "Serial port"}, {8, 3, 1, "ISA RTC"}, {10, 0x55, 0, "Docking station"},
        {11, 64, 0, "Co-processor"}, {17, 0, 0, "DPIO module"},
    };
    for (const Case& c : cases) {
        PciConfigHeader h{};
        h[9] = c.progIf, h[10] = c.sub, h[11] = c.base;
        EXPECT_STREQ(c.name, H::GetPciSubClassDescription(h));
    }
    for (auto [vendor, device, valid] : std::vector<std::tuple<uint16_t, uint16_t, bool>>{
             {0x8086, 0x1521, true}, {0xFFFF, 0x1521, false}, {0, 0x1521, false}, {1, 0, false}, {0xFFFE, 1, true}}) {
        Bytes b = PciConfig(vendor, device, 2, 0);
        PciConfigHeader h;
        std::copy(b.begin(), b.end(), h.begin());
        EXPECT_EQ(valid, H::IsValid(h)) << vendor << ":" << device;
        h[0x0E] = 0x80;  // layout 0, multi-function
        EXPECT_EQ(0x2222, H::SubDeviceId(h));
        h[0x0E] = 0x81;  // bridge layout: no subsystem
        EXPECT_EQ(0, H::SubVendorId(h));
    }
}

TEST(PciConfigScan, VirtualMachineSnapshotAndAdapterNames)
{
    FakeRoot root;
    root.CopyFixture("procpci-vm", "/proc/bus/pci");
    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, false));
    ASSERT_EQ(6u, list.size());
    root.Write("/etc/tarvd/Adapter.ini", std::string("[Adapters]\n1af4:1041=Virtio network\n1af4:1042=Virtio block\n"
                                                     "1af4:1042:1111:2222=never (no such subsystem)\n"
                                                     "8086:1521=Generic\n8086:1521:15d9:1521=Onboard LOM\n"));
    CSystemAdapterList adapters;
    ASSERT_TRUE(CSystemAdapter::ScanSystemAdapters(adapters, list));
    std::string text;
    for (const CSystemAdapter& a : adapters)
        text += a.address.ToString() + " " + a.deviceIdText + " " + a.className + "/" + a.subClassName + " \"" + a.name +
                "\" " + std::to_string(a.slot) + "\n";
    EXPECT_EQ("0000:00:00.0 8086:0d57 Bridge device/Host bridge \"Host bridge\" -1\n"
              "0000:00:01.0 1af4:1045 Other/Other \"Other\" -1\n"
              "0000:00:02.0 1af4:1042 Mass storage controller/Mass storage controller \"Virtio block\" -1\n"
              "0000:00:03.0 1af4:1041 Network controller/Ethernet controller \"Virtio network\" -1\n"
              "0000:00:04.0 1af4:1053 Other/Other \"Other\" -1\n"
              "0000:00:05.0 1af4:1044 Other/Other \"Other\" -1\n",
              text);
    EXPECT_EQ("Virtio network", list[CPciAddress(0, 0, 3, 0)].name);
    EXPECT_EQ("Onboard LOM", CSystemAdapter::LookupAdapterName(0x8086, 0x1521, 0x15d9, 0x1521));
    EXPECT_EQ("Generic", CSystemAdapter::LookupAdapterName(0x8086, 0x1521, 0x15d9, 0x0001));
    EXPECT_EQ("", CSystemAdapter::LookupAdapterName(0x8086, 0x1522, 0, 0));
}

TEST(PciConfigScan, DirectoryFormsShortFilesAndInvalidHeaders)
{
    FakeRoot root;
    EXPECT_FALSE(CPciConfigList::ScanPciSlots(*std::make_unique<CPciConfigList>(), true));  // no directory
    root.Write("/proc/bus/pci/0000:3b/00.0", PciConfig(0x8086, 0x1521, 2, 0));
    root.Write("/proc/bus/pci/3b/00.0", PciConfig(0x10de, 0x1111, 3, 0));  // same address: first (sorted) wins
    root.Write("/proc/bus/pci/0001:02/1f.7", PciConfig(0x1234, 0x5678, 1, 6));
    root.Write("/proc/bus/pci/123/00.0", PciConfig(0x1234, 1, 1, 6));   // 3 characters: ignored
    root.Write("/proc/bus/pci/3b/000.0", PciConfig(0x1234, 2, 1, 6));   // 5 characters: ignored
    root.Write("/proc/bus/pci/0g/00.0", PciConfig(0x1234, 3, 1, 6));    // not hexadecimal: ignored
    root.Write("/proc/bus/pci/devices", std::string("0000\t80860d57\n"));
    testsupport::MakeDirs(root.Path("/proc/bus/pci/3b/02.0"));            // a directory is no function
    root.Write("/proc/bus/pci/00/00.0", PciConfig(0x8086, 1, 6, 0));
    root.Write("/proc/bus/pci/00/01.0", PciConfig(0xFFFF, 0xFFFF, 0xFF, 0xFF));  // invalid: skipped
    root.Write("/proc/bus/pci/00/03.0", PciConfig(0x8086, 3, 2, 0, 0, 0, 63));   // short: ends the walk
    CDeviceBusIo::NameList names;
    ASSERT_TRUE(CDeviceBusIo::BuildPciDeviceNameList(names));
    ASSERT_EQ(5u, names.size());
    EXPECT_EQ(root.Path("/proc/bus/pci/0000:3b/00.0"), names[CPciAddress(0, 0x3B, 0, 0)]);
    EXPECT_EQ(1u, names.count(CPciAddress(1, 2, 0x1F, 7)));
    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, false));
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(1u, list.count(CPciAddress(0, 0, 0, 0)));
}

TEST(PciConfigScan, SlotsAndBridgeInheritance)
{
    FakeRoot root;
    // Slot 4 on bus 0 device 1 (a root port), slot 7 for 9:0, slot 2 and 3 for
    // two bridges that both name bus 0x0b (the last one wins).
    root.SetSysfsTable(Concat({SlotStructure(1, 0x06, 4, 4, 0x00, 0x08), SlotStructure(2, 0x06, 4, 7, 0x09, 0x00),
                               SlotStructure(3, 0x06, 4, 2, 0x00, 0x20), SlotStructure(4, 0x06, 4, 3, 0x00, 0x28),
                               OnboardStructure(5, 0x00, 0x10), EndOfTable(6)}));
    struct Fn { const char* path; uint16_t device; uint8_t base, sub, headerType, secondary; int slot; };
    const Fn fns[] = {
        {"00/01.0", 0x0101, 6, 4, 0x01, 5, 4},     // bridge in slot 4 → bus 5
        {"00/02.0", 0x0102, 2, 0, 0, 0, 0},        // onboard: slot 0
        {"00/03.0", 0x0103, 6, 4, 0x01, 6, -1},    // bridge without slot
        {"00/04.0", 0x0104, 6, 4, 0x01, 0x0b, 2},
        {"00/05.0", 0x0105, 6, 4, 0x01, 0x0b, 3},
        {"05/00.0", 0x8747, 6, 4, 0x01, 7, 4},     // switch behind slot 4
        {"05/08.0", 0x8748, 6, 4, 0x81, 8, 4},
        {"06/00.0", 0x1017, 2, 0, 0, 0, -1},       // behind the slotless bridge
        {"07/00.0", 0x1018, 2, 0, 0, 0, 4},        // inherits 4 ...
        {"09/00.0", 0x1019, 6, 4, 0x01, 7, 7},     // ... though 9:0 in slot 7 names bus 7 later
        {"0a/00.0", 0x101a, 2, 0, 0, 0, -1},
        {"0b/00.0", 0x101b, 2, 0, 0, 0, 3},
    };
    for (const Fn& f : fns)
        root.Write(std::string("/proc/bus/pci/") + f.path, PciConfig(0x15b3, f.device, f.base, f.sub, f.headerType, f.secondary));
    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, true));
    ASSERT_EQ(std::size(fns), list.size());
    auto rec = list.begin();
    for (const Fn& f : fns)
        EXPECT_EQ(f.slot, (rec++)->second.slot) << f.path;
    std::vector<std::string> lines = KelTRScanPciSlots();
    ASSERT_EQ(std::size(fns), lines.size());
    EXPECT_EQ("0000:00:01.0 15b3:0101 PCI-to-PCI bridge slot 4", lines[0]);
    EXPECT_EQ("0000:07:00.0 15b3:1018 Ethernet controller slot 0", lines[8]);
}

namespace {
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
        EXPECT_TRUE((PciSlotData{0, 0, 0, static_cast<uint8_t>(t)}.IsSerialBus())) << t;
    for (int t : {0x00, 0x02, 0x06, 0x13, 0x24, 0xA4, 0xB7, 0xFF})
        EXPECT_FALSE((PciSlotData{0, 0, 0, static_cast<uint8_t>(t)}.IsSerialBus())) << t;
    EXPECT_EQ("PciSlotData 1a:0.** --> Slot 2 (Serial bus);PciSlotData ff:3.** --> Slot 200 (Unknown bus type);"
              "PciSlotData 3:2.** --> Slot 7 (Parallel bus);",
              Text({{0x1A, 0, 2, 0xA5}, {0xFF, 3, 200, 0}, {3, 2, 7, 0x06}}));
    // A serial slot holds every device on its bus, a parallel one only its own.
    PciSlotData pcie{3, 0, 1, 0xA5}, pci{3, 2, 1, 0x06};
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
    PutLe(zero, 6, 0, 2);
    PutLe(large, 6, 0xFFE0 - (kPirAddress - 0xF0000) + 16, 2);
    odd.push_back(0);
    PutLe(odd, 6, 0x21, 2);
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

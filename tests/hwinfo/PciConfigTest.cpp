// The PCI configuration scan: enumeration, headers, names, slots and bridges.
#include <gtest/gtest.h>

#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CPciConfigListInternal.h"
#include "hwinfo/CSystemDevices.h"
#include "support/Firmware.h"

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

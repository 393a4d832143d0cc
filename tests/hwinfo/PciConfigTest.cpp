// The PCI configuration scan: enumeration, headers, names, slots and bridges.
#include <gtest/gtest.h>

#include <filesystem>

#include "HwTestUtil.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CPciConfigListInternal.h"
#include "hwinfo/CSystemDevices.h"

using namespace hwtest;
using H = CPciCommonConfigHeader;

namespace {

Bytes Config(uint16_t vendor, uint16_t device, uint8_t base, uint8_t sub, uint8_t progIf = 0, uint8_t headerType = 0,
             uint8_t secondary = 0, size_t size = 64)
{
    Bytes b(size, 0);
    PutLe16(b, 0, vendor);
    PutLe16(b, 2, device);
    b[9] = progIf;
    b[10] = sub;
    b[11] = base;
    b[14] = headerType;
    if ((headerType & 0x7F) == 0) {
        PutLe16(b, 0x2C, 0x1111);
        PutLe16(b, 0x2E, 0x2222);
    } else {
        b[0x18] = 0;
        b[0x19] = secondary;
    }
    return b;
}

PciConfigHeader Header(uint8_t base, uint8_t sub, uint8_t progIf = 0)
{
    PciConfigHeader h{};
    h[9] = progIf;
    h[10] = sub;
    h[11] = base;
    return h;
}

} // namespace

TEST(PciClassNames, BaseClasses)
{
    EXPECT_STREQ("Unknown", H::GetPciBaseClassDescription(0));
    EXPECT_STREQ("Mass storage controller", H::GetPciBaseClassDescription(1));
    EXPECT_STREQ("Signal processing controller", H::GetPciBaseClassDescription(17));
    EXPECT_STREQ("Unknown", H::GetPciBaseClassDescription(0x12));
    EXPECT_STREQ("Unknown", H::GetPciBaseClassDescription(0xFE));
    EXPECT_STREQ("Other", H::GetPciBaseClassDescription(0xFF));
}

TEST(PciClassNames, SubClasses)
{
    EXPECT_STREQ("VGA compatible controller", H::GetPciSubClassDescription(Header(3, 0, 0)));
    EXPECT_STREQ("8514 compatible controller", H::GetPciSubClassDescription(Header(3, 0, 1)));
    EXPECT_STREQ("3D controller", H::GetPciSubClassDescription(Header(3, 2)));
    EXPECT_STREQ("Display controller", H::GetPciSubClassDescription(Header(3, 0x80)));
    EXPECT_STREQ("Unknown", H::GetPciSubClassDescription(Header(0x12, 0)));
    EXPECT_STREQ("Other", H::GetPciSubClassDescription(Header(0xFF, 0xFF)));
    EXPECT_STREQ("VGA compatible device", H::GetPciSubClassDescription(Header(0, 1)));
    EXPECT_STREQ("Unknown", H::GetPciSubClassDescription(Header(0, 7)));
    EXPECT_STREQ("16550 compatible serial port", H::GetPciSubClassDescription(Header(7, 0, 2)));
    EXPECT_STREQ("Serial port", H::GetPciSubClassDescription(Header(7, 0, 9)));
    EXPECT_STREQ("ECP 1.X compliant parallel port", H::GetPciSubClassDescription(Header(7, 1, 2)));
    EXPECT_STREQ("Parallel port", H::GetPciSubClassDescription(Header(7, 1, 3)));
    EXPECT_STREQ("ISA RTC", H::GetPciSubClassDescription(Header(8, 3, 1)));
    EXPECT_STREQ("RTC", H::GetPciSubClassDescription(Header(8, 3, 2)));
    EXPECT_STREQ("PCI hot-plug controller", H::GetPciSubClassDescription(Header(8, 4, 7)));
    EXPECT_STREQ("Docking station", H::GetPciSubClassDescription(Header(10, 0x55)));
    EXPECT_STREQ("Co-processor", H::GetPciSubClassDescription(Header(11, 64)));
    EXPECT_STREQ("Processor", H::GetPciSubClassDescription(Header(11, 3)));
    EXPECT_STREQ("InfiniBand", H::GetPciSubClassDescription(Header(12, 6)));
    EXPECT_STREQ("Serial bus controller", H::GetPciSubClassDescription(Header(12, 0x80)));
    EXPECT_STREQ("DPIO module", H::GetPciSubClassDescription(Header(17, 0)));
    EXPECT_STREQ("SAS controller", H::GetPciSubClassDescription(Header(1, 7)));
    EXPECT_STREQ("PCI-to-PCI bridge", H::GetPciSubClassDescription(Header(6, 4)));
}

TEST(PciConfigHeader, ValidityAndSubsystemIds)
{
    PciConfigHeader h{};
    auto set = [&](uint16_t v, uint16_t d) {
        h[0] = static_cast<uint8_t>(v); h[1] = static_cast<uint8_t>(v >> 8);
        h[2] = static_cast<uint8_t>(d); h[3] = static_cast<uint8_t>(d >> 8);
    };
    set(0x8086, 0x1521);
    EXPECT_TRUE(H::IsValid(h));
    set(0xFFFF, 0x1521);
    EXPECT_FALSE(H::IsValid(h));
    set(0x0000, 0x1521);
    EXPECT_FALSE(H::IsValid(h));
    set(0x0001, 0x0000);
    EXPECT_FALSE(H::IsValid(h));
    set(0xFFFE, 0x0001);
    EXPECT_TRUE(H::IsValid(h));
    h[0x2C] = 0x34; h[0x2D] = 0x12;
    EXPECT_EQ(0x1234, H::SubVendorId(h));
    h[0x0E] = 0x81;  // bridge layout, multi-function
    EXPECT_EQ(0, H::SubVendorId(h));
    h[0x0E] = 0x80;  // layout 0, multi-function
    EXPECT_EQ(0x1234, H::SubVendorId(h));
}

TEST(PciConfigScan, VirtualMachineSnapshot)
{
    FakeRoot root;
    std::filesystem::create_directories(root.Path("/proc/bus"));
    std::filesystem::copy(testsupport::FixturesDir() + "/procpci-vm", root.Path("/proc/bus/pci"),
                          std::filesystem::copy_options::recursive);
    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, false));
    ASSERT_EQ(6u, list.size());
    struct Expect {
        uint8_t dev;
        uint16_t vendor, device;
        const char* base;
        const char* sub;
    } expect[] = {
        {0, 0x8086, 0x0d57, "Bridge device", "Host bridge"},
        {1, 0x1af4, 0x1045, "Other", "Other"},
        {2, 0x1af4, 0x1042, "Mass storage controller", "Mass storage controller"},
        {3, 0x1af4, 0x1041, "Network controller", "Ethernet controller"},
        {4, 0x1af4, 0x1053, "Other", "Other"},
        {5, 0x1af4, 0x1044, "Other", "Other"},
    };
    for (const Expect& e : expect) {
        auto it = list.find(CPciAddress(0, 0, e.dev, 0));
        ASSERT_NE(list.end(), it) << int(e.dev);
        EXPECT_EQ(e.vendor, H::VendorId(it->second.header));
        EXPECT_EQ(e.device, H::DeviceId(it->second.header));
        EXPECT_STREQ(e.base, H::GetPciBaseClassDescription(H::BaseClass(it->second.header)));
        EXPECT_STREQ(e.sub, H::GetPciSubClassDescription(it->second.header));
        EXPECT_EQ(-1, it->second.slot);
        EXPECT_TRUE(it->second.name.empty());
    }

    // Adapters from the same list, named from the adapter list file.
    root.Write("/etc/tarvd/Adapter.ini", std::string("[Adapters]\n1af4:1041=Virtio network\n"
                                                     "1af4:1042=Virtio block\n1af4:1042:1111:2222=never (no such subsystem)\n"));
    CSystemAdapterList adapters;
    ASSERT_TRUE(CSystemAdapter::ScanSystemAdapters(adapters, list));
    ASSERT_EQ(6u, adapters.size());
    EXPECT_EQ("8086:0d57", adapters[0].deviceIdText);
    EXPECT_EQ("Host bridge", adapters[0].name);
    EXPECT_EQ("Virtio block", adapters[2].name);
    EXPECT_EQ("Virtio network", adapters[3].name);
    EXPECT_EQ("Ethernet controller", adapters[3].subClassName);
    EXPECT_EQ(CPciAddress(0, 0, 3, 0), adapters[3].GetPciAddress());
    EXPECT_EQ("Virtio network", list[CPciAddress(0, 0, 3, 0)].name);
}

TEST(PciConfigScan, AdapterNameMoreSpecificKeyWins)
{
    FakeRoot root;
    root.Write("/etc/tarvd/Adapter.ini", std::string("[Adapters]\n8086:1521=Generic\n8086:1521:15d9:1521=Onboard LOM\n"));
    EXPECT_EQ("Onboard LOM", CSystemAdapter::LookupAdapterName(0x8086, 0x1521, 0x15d9, 0x1521));
    EXPECT_EQ("Generic", CSystemAdapter::LookupAdapterName(0x8086, 0x1521, 0x15d9, 0x0001));
    EXPECT_EQ("", CSystemAdapter::LookupAdapterName(0x8086, 0x1522, 0, 0));
}

TEST(PciConfigScan, BothBusDirectoryFormsAndOtherNames)
{
    FakeRoot root;
    root.Write("/proc/bus/pci/0000:3b/00.0", Config(0x8086, 0x1521, 2, 0));
    root.Write("/proc/bus/pci/3b/00.0", Config(0x10de, 0x1111, 3, 0));  // same address: first (sorted) wins
    root.Write("/proc/bus/pci/3b/01.1", Config(0x10de, 0x2222, 3, 0));
    root.Write("/proc/bus/pci/0001:02/1f.7", Config(0x1234, 0x5678, 1, 6));
    root.Write("/proc/bus/pci/123/00.0", Config(0x1234, 0x0001, 1, 6));   // 3 characters: ignored
    root.Write("/proc/bus/pci/3b/000.0", Config(0x1234, 0x0002, 1, 6));   // 5 characters: ignored
    root.Write("/proc/bus/pci/devices", std::string("0000\t80860d57\n"));
    testsupport::MakeDirs(root.Path("/proc/bus/pci/3b/02.0"));            // a directory is no function
    CDeviceBusIo::NameList names;
    ASSERT_TRUE(CDeviceBusIo::BuildPciDeviceNameList(names));
    ASSERT_EQ(3u, names.size());
    auto it = names.begin();
    EXPECT_EQ(CPciAddress(0, 0x3B, 0, 0), it->first);
    EXPECT_EQ(root.Path("/proc/bus/pci/0000:3b/00.0"), it->second);
    ++it;
    EXPECT_EQ(CPciAddress(0, 0x3B, 1, 1), it->first);
    ++it;
    EXPECT_EQ(CPciAddress(1, 2, 0x1F, 7), it->first);

    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, false));
    EXPECT_EQ(0x8086, H::VendorId(list[CPciAddress(0, 0x3B, 0, 0)].header));
}

TEST(PciConfigScan, MissingDirectoryAndShortFile)
{
    {
        FakeRoot root;
        CDeviceBusIo::NameList names;
        EXPECT_FALSE(CDeviceBusIo::BuildPciDeviceNameList(names));
        CPciConfigList list;
        EXPECT_FALSE(CPciConfigList::ScanPciSlots(list, true));
        EXPECT_TRUE(list.empty());
    }
    {
        FakeRoot root;
        root.Write("/proc/bus/pci/00/00.0", Config(0x8086, 0x0001, 6, 0));
        root.Write("/proc/bus/pci/00/01.0", Config(0xFFFF, 0xFFFF, 0xFF, 0xFF));  // invalid: skipped
        root.Write("/proc/bus/pci/00/02.0", Config(0x8086, 0x0000, 2, 0));        // device 0: skipped
        root.Write("/proc/bus/pci/00/03.0", Config(0x8086, 0x0003, 2, 0));
        root.Write("/proc/bus/pci/00/04.0", Config(0x8086, 0x0004, 2, 0, 0, 0, 0, 63));  // ends the walk
        root.Write("/proc/bus/pci/00/05.0", Config(0x8086, 0x0005, 2, 0));
        CPciConfigList list;
        ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, false));
        ASSERT_EQ(2u, list.size());
        EXPECT_EQ(1u, list.count(CPciAddress(0, 0, 0, 0)));
        EXPECT_EQ(1u, list.count(CPciAddress(0, 0, 3, 0)));
    }
}

TEST(PciConfigScan, SlotsAndBridgeInheritance)
{
    FakeRoot root;
    // Firmware: a PCI Express slot 4 on bus 0 device 1 (a root port, parallel
    // match by device) and slot 7 for bus 9 device 0 (parallel type).
    Bytes table = Concat({SlotStructure(1, 0x06, 4, 4, 0x00, 0x08), SlotStructure(2, 0x06, 4, 7, 0x09, 0x00),
                          OnboardStructure(3, 0x00, 0x10), EndOfTable(4)});
    root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    root.Write("/proc/bus/pci/00/01.0", Config(0x8086, 0x0101, 6, 4, 0, 0x01, 5));  // bridge, slot 4 → bus 5
    root.Write("/proc/bus/pci/00/02.0", Config(0x8086, 0x0102, 2, 0));              // onboard: slot 0
    root.Write("/proc/bus/pci/00/03.0", Config(0x8086, 0x0103, 6, 4, 0, 0x01, 6));  // bridge without slot
    root.Write("/proc/bus/pci/05/00.0", Config(0x10b5, 0x8747, 6, 4, 0, 0x01, 7));  // switch behind slot 4
    root.Write("/proc/bus/pci/05/08.0", Config(0x10b5, 0x8748, 6, 4, 0, 0x81, 8));  // another, bus 8
    root.Write("/proc/bus/pci/06/00.0", Config(0x15b3, 0x1017, 2, 0));              // behind slotless bridge
    root.Write("/proc/bus/pci/07/00.0", Config(0x15b3, 0x1018, 2, 0));              // inherits 4
    root.Write("/proc/bus/pci/09/00.0", Config(0x15b3, 0x1019, 6, 4, 0, 0x01, 7));  // slot 7, also names bus 7
    root.Write("/proc/bus/pci/0a/00.0", Config(0x15b3, 0x101a, 2, 0));              // bus 10: none
    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, true));
    EXPECT_EQ(4, list[CPciAddress(0, 0, 1, 0)].slot);
    EXPECT_EQ(0, list[CPciAddress(0, 0, 2, 0)].slot);
    EXPECT_EQ(-1, list[CPciAddress(0, 0, 3, 0)].slot);
    EXPECT_EQ(4, list[CPciAddress(0, 5, 0, 0)].slot);
    EXPECT_EQ(4, list[CPciAddress(0, 5, 8, 0)].slot);
    EXPECT_EQ(-1, list[CPciAddress(0, 6, 0, 0)].slot);
    EXPECT_EQ(4, list[CPciAddress(0, 7, 0, 0)].slot);
    EXPECT_EQ(7, list[CPciAddress(0, 9, 0, 0)].slot);
    EXPECT_EQ(-1, list[CPciAddress(0, 10, 0, 0)].slot);
}

TEST(PciConfigScan, LastBridgeForABusWins)
{
    FakeRoot root;
    Bytes table = Concat({SlotStructure(1, 0x06, 4, 2, 0x00, 0x08), SlotStructure(2, 0x06, 4, 3, 0x00, 0x10),
                          EndOfTable(4)});
    root.SetSysfsSmbios(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20), table);
    root.Write("/proc/bus/pci/00/01.0", Config(0x8086, 0x0101, 6, 4, 0, 0x01, 5));  // slot 2 → bus 5
    root.Write("/proc/bus/pci/00/02.0", Config(0x8086, 0x0102, 6, 4, 0, 0x01, 5));  // slot 3 → bus 5
    root.Write("/proc/bus/pci/05/00.0", Config(0x15b3, 0x1017, 2, 0));
    CPciConfigList list;
    ASSERT_TRUE(CPciConfigList::ScanPciSlots(list, true));
    EXPECT_EQ(3, list[CPciAddress(0, 5, 0, 0)].slot);

    std::vector<std::string> lines = KelTRScanPciSlots();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("0000:00:01.0 8086:0101 PCI-to-PCI bridge slot 2", lines[0]);
    EXPECT_EQ("0000:05:00.0 15b3:1017 Ethernet controller slot 0", lines[2]);
}

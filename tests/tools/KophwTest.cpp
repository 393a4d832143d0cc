// kophw against an inventory snapshot made of the shared fixtures.
#include "ToolTestSupport.h"

#include "support/Firmware.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

using tooltest::json;

namespace {

const std::string kTool = KOPHW_PATH;

class KophwTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string smbios = "toshiba-satellite-pro-l70a";
        m_Snap.CopyFixture("procpci-vm", "/proc/bus/pci");
        m_Snap.SetSysfsSmbios(hwtest::SmbiosFixture(smbios + ".ep"), hwtest::SmbiosFixture(smbios + ".dmi"));
        // A disk behind the function 00:01.0, and a virtual one without device link.
        const std::string dev = "/sys/devices/pci0000:00/0000:00:01.0/host0/target0:0:0/0:0:0:0";
        m_Snap.Write(dev + "/model", "Test Disk       \n");
        m_Snap.Write(dev + "/vendor", "ACME    \n");
        m_Snap.Write("/sys/block/sda/size", "2048\n");
        ASSERT_EQ(symlink(("../../.." + dev).c_str(), m_Snap.Path("/sys/block/sda/device").c_str()), 0);
        m_Snap.Write("/sys/block/dm-0/size", "100\n");
        m_Snap.Write("/proc/self/mounts", "/dev/sda1 / ext4 rw,relatime 0 0\nproc /proc proc rw 0 0\n");
        // The kernel agrees about 00:01 and names a different slot for 00:03.
        m_Snap.Write("/sys/bus/pci/slots/1/address", "0000:00:01\n");
        m_Snap.Write("/sys/bus/pci/slots/9/address", "0000:00:03\n");
        m_Snap.Write("/sys/bus/pci/slots/bad/address", "junk\n");
        m_Snap.Write("/etc/tarvd/Adapter.ini", "[Adapters]\n1af4:1045=Balloon Device\n");
        m_Root = m_Snap.Path("");
    }
    static json Inventory(const std::string& root) { return tooltest::RunJson(kTool, {"--root", root, "--json"}); }
    hwtest::FakeRoot m_Snap;
    std::string m_Root;
};

} // namespace

TEST_F(KophwTest, SnapshotShowsFunctionsSlotsDevicesAndSmbios)
{
    using tooltest::HasMembers;
    json j = Inventory(m_Root);
    auto pci = [&j](const char* address) { return tooltest::FindBy(j.at("pci"), "address", address); };
    EXPECT_TRUE(HasMembers(pci("0000:00:00.0"), R"({"vendor_id": "8086", "device_id": "0d57", "class": 6,
        "subclass_name": "Host bridge", "kernel_slot": null})"));
    // 00:01.0 sits in SMBIOS slot 1 (bus 0, device 1), as the kernel says; for
    // 00:03.0 the kernel names another slot.
    EXPECT_TRUE(HasMembers(pci("0000:00:01.0"), R"({"slot": 1, "kernel_slot": 1, "slot_disagreement": null})"));
    ASSERT_TRUE(HasMembers(pci("0000:00:03.0"), R"({"kernel_slot": 9})"));
    EXPECT_FALSE(pci("0000:00:03.0")->at("slot_disagreement").is_null());
    ASSERT_EQ(j.at("slot_disagreements").size(), 1u);
    EXPECT_EQ(j.at("slot_disagreements")[0].get<std::string>().rfind("0000:00:03.0: ", 0), 0u);

    // Adapters with names from the adapter list, the drive and the volume.
    const json* adapter = tooltest::FindBy(j.at("adapters"), "address", "0000:00:01.0");
    EXPECT_TRUE(HasMembers(adapter, R"({"name": "Balloon Device"})"));
    ASSERT_EQ(j.at("drives").size(), 1u);
    EXPECT_TRUE(HasMembers(&j.at("drives")[0], R"({"name": "sda", "model": "Test Disk", "vendor": "ACME",
        "size_bytes": 1048576, "pci_address": "0000:00:01.0"})"));
    ASSERT_EQ(j.at("volumes").size(), 1u);
    EXPECT_EQ(j.at("volumes")[0].at("device"), "/dev/sda1");

    const json& s = j.at("smbios");
    EXPECT_TRUE(HasMembers(&s, R"({"found": true, "source": "sysfs", "version": "2.7"})"));
    EXPECT_TRUE(HasMembers(&s.at("system_slots")[0], R"({"type": 170, "type_name": "PCI Express x16"})"));

    // Human form.
    auto r = tooltest::Run(kTool, {"--root", m_Root, "pci"});
    EXPECT_TRUE(r.Exited(0) && r.out.find("0000:00:00.0  8086:0d57") != std::string::npos &&
                r.out.find("DISAGREES") != std::string::npos) << r.err << r.out;
    r = tooltest::Run(kTool, {"--root", m_Root, "smbios"});
    EXPECT_TRUE(r.Exited(0) && r.out.find("SMBIOS 2.7 from sysfs") != std::string::npos) << r.err << r.out;
}

TEST_F(KophwTest, CaptureOfSnapshotReplaysTheSame)
{
    testsupport::TempDir out;
    std::string dest = out.Sub("snap");
    auto r = tooltest::Run(kTool, {"--root", m_Root, "capture", dest});
    ASSERT_TRUE(r.Exited(0) && r.out.find("physical memory is not captured") != std::string::npos) << r.err;
    // The device link is relative, so the snapshot can be moved.
    char link[512] = {};
    ASSERT_GT(readlink((dest + "/sys/block/sda/device").c_str(), link, sizeof link - 1), 0);
    EXPECT_EQ(std::string(link).rfind("../../../sys/devices/", 0), 0u) << link;
    EXPECT_FALSE(testsupport::FileExists(dest + "/sys/block/dm-0/device"));
    EXPECT_EQ(testsupport::ReadFile(dest + "/proc/bus/pci/00/01.0"),
              testsupport::ReadFile(m_Root + "/proc/bus/pci/00/01.0"));

    // The snapshot reads back exactly as the tree it was taken from.
    json a = Inventory(m_Root), b = Inventory(dest);
    for (const char* part : {"pci", "adapters", "drives", "smbios"})
        EXPECT_EQ(a.at(part), b.at(part)) << part;
    // The volume's sizes are those of the live file system.
    EXPECT_TRUE(tooltest::HasMembers(&b.at("volumes").at(0), R"({"device": "/dev/sda1", "mount_point": "/"})"));
}

TEST_F(KophwTest, EmptyAndDamagedRoots)
{
    testsupport::TempDir empty;
    auto r = tooltest::Run(kTool, {"--root", empty.Path(), "--json"});
    EXPECT_TRUE(r.Exited(1)) << r.exitCode << " " << r.signal;
    EXPECT_NE(r.err.find("kophw: no hardware information"), std::string::npos) << r.err;
    json j = tooltest::ParseOutput(r.out);
    ASSERT_FALSE(j.is_discarded()) << r.out;
    EXPECT_TRUE(j.at("smbios").at("found") == false && j.at("smbios").at("version").is_null());

    // A damaged configuration file: no crash.
    testsupport::WriteFile(m_Root + "/proc/bus/pci/00/02.0", "\x86\x80");
    Inventory(m_Root);

    for (const char* bad : {"--bogus", "capture", "--root"})
        EXPECT_TRUE(tooltest::Run(kTool, {bad}).Exited(2)) << bad;
    EXPECT_TRUE(tooltest::Run(kTool, {"--help"}).Exited(0));
}

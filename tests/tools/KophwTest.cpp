// kophw against an inventory snapshot made of the shared fixtures.
#include "ToolTestSupport.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

using tooltest::Json;
using tooltest::ParseJson;

namespace {

const std::string kTool = KOPHW_PATH;

void CopyTree(const std::string& from, const std::string& to)
{
    DIR* d = opendir(from.c_str());
    ASSERT_NE(d, nullptr) << from;
    testsupport::MakeDirs(to);
    while (struct dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n == "." || n == ".." || n == "lspci.txt")
            continue;
        if (e->d_type == DT_DIR)
            CopyTree(from + "/" + n, to + "/" + n);
        else
            testsupport::WriteFile(to + "/" + n, testsupport::ReadFile(from + "/" + n));
    }
    closedir(d);
}

class KophwTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string root = m_Snap.Path();
        CopyTree(testsupport::FixturesDir() + "/procpci-vm", root + "/proc/bus/pci");
        std::string smbios = testsupport::FixturesDir() + "/smbios/toshiba-satellite-pro-l70a";
        testsupport::WriteFile(root + "/sys/firmware/dmi/tables/smbios_entry_point", testsupport::ReadFile(smbios + ".ep"));
        testsupport::WriteFile(root + "/sys/firmware/dmi/tables/DMI", testsupport::ReadFile(smbios + ".dmi"));
        // A disk behind the function 00:01.0, and a virtual one without device link.
        std::string dev = "/sys/devices/pci0000:00/0000:00:01.0/host0/target0:0:0/0:0:0:0";
        testsupport::WriteFile(root + dev + "/model", "Test Disk       \n");
        testsupport::WriteFile(root + dev + "/vendor", "ACME    \n");
        testsupport::WriteFile(root + "/sys/block/sda/size", "2048\n");
        ASSERT_EQ(symlink(("../../.." + dev).c_str(), (root + "/sys/block/sda/device").c_str()), 0);
        testsupport::WriteFile(root + "/sys/block/dm-0/size", "100\n");
        testsupport::WriteFile(root + "/proc/self/mounts",
                               "/dev/sda1 / ext4 rw,relatime 0 0\nproc /proc proc rw 0 0\n");
        // The kernel agrees about 00:01 and names a different slot for 00:03.
        testsupport::WriteFile(root + "/sys/bus/pci/slots/1/address", "0000:00:01\n");
        testsupport::WriteFile(root + "/sys/bus/pci/slots/9/address", "0000:00:03\n");
        testsupport::WriteFile(root + "/sys/bus/pci/slots/bad/address", "junk\n");
        testsupport::WriteFile(root + "/etc/tarvd/Adapter.ini", "[Adapters]\n1af4:1045=Balloon Device\n");
    }
    Json Inventory(const std::string& root)
    {
        auto r = tooltest::Run(kTool, {"--root", root, "--json"});
        EXPECT_TRUE(r.Exited(0)) << r.exitCode << " " << r.err;
        Json j;
        std::string err;
        EXPECT_TRUE(ParseJson(r.out, j, &err)) << err << r.out.substr(0, 1000);
        return j;
    }
    static const Json* FindPci(const Json& j, const std::string& address)
    {
        for (auto& f : j["pci"].items)
            if (f["address"].text == address)
                return &f;
        return nullptr;
    }
    testsupport::TempDir m_Snap;
};

} // namespace

TEST_F(KophwTest, SnapshotShowsFunctionsSlotsDevicesAndSmbios)
{
    Json j = Inventory(m_Snap.Path());
    ASSERT_EQ(j["pci"].type, Json::Array);
    EXPECT_GE(j["pci"].Size(), 4u);
    const Json* host = FindPci(j, "0000:00:00.0");
    ASSERT_NE(host, nullptr);
    EXPECT_EQ((*host)["vendor_id"].text, "8086");
    EXPECT_EQ((*host)["device_id"].text, "0d57");
    EXPECT_EQ((*host)["class"].number, 6);
    EXPECT_EQ((*host)["subclass_name"].text, "Host bridge");
    EXPECT_TRUE((*host)["kernel_slot"].IsNull());

    // 00:01.0 sits in SMBIOS slot 1 (bus 0, device 1), as the kernel says.
    const Json* balloon = FindPci(j, "0000:00:01.0");
    ASSERT_NE(balloon, nullptr);
    EXPECT_EQ((*balloon)["slot"].number, 1);
    EXPECT_EQ((*balloon)["kernel_slot"].text, "1");
    EXPECT_TRUE((*balloon)["slot_disagreement"].IsNull());
    const Json* third = FindPci(j, "0000:00:03.0");
    ASSERT_NE(third, nullptr);
    EXPECT_EQ((*third)["kernel_slot"].text, "9");
    EXPECT_FALSE((*third)["slot_disagreement"].IsNull());
    ASSERT_EQ(j["slot_disagreements"].Size(), 1u);
    EXPECT_EQ(j["slot_disagreements"][0].text.rfind("0000:00:03.0: ", 0), 0u);

    // Adapters with names from the adapter list, the drive and the volume.
    bool named = false;
    for (auto& a : j["adapters"].items)
        named = named || (a["address"].text == "0000:00:01.0" && a["name"].text == "Balloon Device");
    EXPECT_TRUE(named);
    ASSERT_EQ(j["drives"].Size(), 1u);
    EXPECT_EQ(j["drives"][0]["name"].text, "sda");
    EXPECT_EQ(j["drives"][0]["model"].text, "Test Disk");
    EXPECT_EQ(j["drives"][0]["vendor"].text, "ACME");
    EXPECT_EQ(j["drives"][0]["size_bytes"].number, 2048.0 * 512);
    EXPECT_EQ(j["drives"][0]["pci_address"].text, "0000:00:01.0");
    ASSERT_EQ(j["volumes"].Size(), 1u);
    EXPECT_EQ(j["volumes"][0]["device"].text, "/dev/sda1");

    const Json& s = j["smbios"];
    EXPECT_TRUE(s["found"].boolean);
    EXPECT_EQ(s["source"].text, "sysfs");
    EXPECT_EQ(s["version"].text, "2.7");
    EXPECT_EQ(s["structures"]["9"].number, 8);
    EXPECT_EQ(s["structures"]["41"].number, 1);
    ASSERT_EQ(s["system_slots"].Size(), 8u);
    const Json& first = s["system_slots"][0];
    EXPECT_EQ(first["type"].number, 0xAA);
    EXPECT_EQ(first["type_name"].text, "PCI Express x16");
    EXPECT_EQ(first["designation"].type, Json::String);
    EXPECT_FALSE(first["designation"].text.empty());
    EXPECT_GE(first["current_usage"].number, 1);
    EXPECT_LE(first["current_usage"].number, 5);

    // Human form.
    auto r = tooltest::Run(kTool, {"--root", m_Snap.Path(), "pci"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_NE(r.out.find("0000:00:00.0  8086:0d57"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("DISAGREES"), std::string::npos);
    r = tooltest::Run(kTool, {"--root", m_Snap.Path(), "smbios"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_NE(r.out.find("SMBIOS 2.7 from sysfs"), std::string::npos) << r.out;
}

TEST_F(KophwTest, CaptureOfSnapshotReplaysTheSame)
{
    testsupport::TempDir out;
    std::string dest = out.Sub("snap");
    auto r = tooltest::Run(kTool, {"--root", m_Snap.Path(), "capture", dest});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_NE(r.out.find("physical memory is not captured"), std::string::npos);
    // The device link is relative, so the snapshot can be moved.
    char link[512] = {};
    ASSERT_GT(readlink((dest + "/sys/block/sda/device").c_str(), link, sizeof link - 1), 0);
    EXPECT_EQ(std::string(link).rfind("../../../sys/devices/", 0), 0u) << link;
    EXPECT_FALSE(testsupport::FileExists(dest + "/sys/block/dm-0/device"));
    EXPECT_EQ(testsupport::ReadFile(dest + "/proc/bus/pci/00/01.0"),
              testsupport::ReadFile(m_Snap.Path() + "/proc/bus/pci/00/01.0"));

    Json a = Inventory(m_Snap.Path());
    Json b = Inventory(dest);
    ASSERT_EQ(a["pci"].Size(), b["pci"].Size());
    for (size_t i = 0; i < a["pci"].Size(); ++i) {
        EXPECT_EQ(a["pci"][i]["address"].text, b["pci"][i]["address"].text);
        EXPECT_EQ(a["pci"][i]["slot"].number, b["pci"][i]["slot"].number);
        EXPECT_EQ(a["pci"][i]["kernel_slot"].text, b["pci"][i]["kernel_slot"].text);
    }
    EXPECT_EQ(b["drives"][0]["pci_address"].text, "0000:00:01.0");
    EXPECT_EQ(b["drives"][0]["model"].text, "Test Disk");
    EXPECT_EQ(b["smbios"]["version"].text, "2.7");
    EXPECT_EQ(b["smbios"]["system_slots"].Size(), 8u);
    EXPECT_EQ(b["volumes"].Size(), 1u);
    EXPECT_EQ(b["adapters"].Size(), a["adapters"].Size());
}

TEST_F(KophwTest, EmptyMissingAndDamagedRoots)
{
    testsupport::TempDir empty;
    auto r = tooltest::Run(kTool, {"--root", empty.Path(), "--json"});
    EXPECT_TRUE(r.Exited(1)) << r.exitCode << " " << r.signal;
    EXPECT_NE(r.err.find("kophw: no hardware information"), std::string::npos) << r.err;
    Json j;
    ASSERT_TRUE(ParseJson(r.out, j)) << r.out;
    EXPECT_FALSE(j["smbios"]["found"].boolean);
    EXPECT_TRUE(j["smbios"]["version"].IsNull());

    r = tooltest::Run(kTool, {"--root", empty.Sub("nowhere")});
    EXPECT_TRUE(r.Exited(1));
    EXPECT_NE(r.err.find("is not a directory"), std::string::npos);

    // Truncated SMBIOS table and configuration files: no crash.
    std::string dmi = m_Snap.Path() + "/sys/firmware/dmi/tables/DMI";
    testsupport::WriteFile(dmi, testsupport::ReadFile(dmi).substr(0, 300));
    testsupport::WriteFile(m_Snap.Path() + "/proc/bus/pci/00/02.0", "\x86\x80");
    r = tooltest::Run(kTool, {"--root", m_Snap.Path(), "--json"});
    EXPECT_EQ(r.signal, 0);
    EXPECT_TRUE(r.Exited(0)) << r.err;
    EXPECT_TRUE(ParseJson(r.out, j)) << r.out;

    EXPECT_TRUE(tooltest::Run(kTool, {"frob"}).Exited(2));
    EXPECT_TRUE(tooltest::Run(kTool, {"--bogus"}).Exited(2));
    EXPECT_TRUE(tooltest::Run(kTool, {"capture"}).Exited(2));
    EXPECT_TRUE(tooltest::Run(kTool, {"--root"}).Exited(2));
    EXPECT_TRUE(tooltest::Run(kTool, {"--help"}).Exited(0));
}

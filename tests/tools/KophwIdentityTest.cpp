// kophw's identity and slot columns, its refusals (a garbage entry point, a capture into a used
// folder), JSON on every failure, and volume sizes that a replay takes from the capture.
#include "ToolTestSupport.h"

#include "support/Firmware.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using tooltest::json;

namespace {

const std::string kTool = KOPHW_PATH;

/// A machine root holding the SMBIOS dump `name`, two PCI functions, the
/// kernel's slots "1" (00:01) and "0-3" (00:03) and one mounted volume.
struct IdentityRoot {
    explicit IdentityRoot(const std::string& name)
    {
        root.SetSysfsSmbios(hwtest::SmbiosFixture(name + ".ep"), hwtest::SmbiosFixture(name + ".dmi"));
        root.CopyFixture("procpci-vm", "/proc/bus/pci");
        root.Write("/sys/bus/pci/slots/1/address", "0000:00:01\n");
        root.Write("/sys/bus/pci/slots/0-3/address", "0000:00:03\n");
        root.Write("/proc/self/mounts", "/dev/sda1 / ext4 rw 0 0\n/dev/sda2 /srv/a\\040b xfs rw 0 0\n");
    }
    json Json(const std::vector<std::string>& args, int status = 0) const
    {
        std::vector<std::string> all = {"--json", "--root", root.Path("")};
        all.insert(all.end(), args.begin(), args.end());
        return tooltest::RunJson(kTool, all, status);
    }
    hwtest::FakeRoot root;
};

} // namespace

TEST(KophwIdentity, IdentityAndSlotsInJsonAndText)
{
    IdentityRoot m("dell-poweredge-r777sd");
    json j = m.Json({"smbios"});
    const json& id = j.at("smbios").at("identity");
    EXPECT_TRUE(tooltest::HasMembers(&id.at("system"), R"({"manufacturer": "Dell Inc."})")) << id.at("system");
    EXPECT_TRUE(id.at("bios").at("vendor").is_string() && id.at("bios").at("rom_size_bytes").is_number());
    EXPECT_TRUE(id.at("memory_devices").at(0).contains("size_bytes"));
    // Empty slots (segment 0xFFFF, bus 0xFF) have no address; each slot has its ID and width.
    size_t empty = 0;
    for (const json& slot : j.at("smbios").at("system_slots")) {
        EXPECT_TRUE(slot.at("id").is_number() && slot.at("data_bus_width_name").is_string());
        EXPECT_NE(slot.at("address"), "ffff:ff:1f.7");
        empty += slot.at("address").is_null();
    }
    EXPECT_EQ(empty, 3u);

    auto r = tooltest::Run(kTool, {"--root", m.root.Path(""), "smbios"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    for (const char* text : {"System Information\n  Manufacturer: Dell Inc.\n", "Memory Device\n  Locator: ",
                             "BIOS Information\n  Vendor: ", "  at -\n", "ID 4  "})
        EXPECT_NE(r.out.find(text), std::string::npos) << text << "\n" << r.out;
    EXPECT_EQ(r.out.find("ffff:ff"), std::string::npos);

    // The kernel's slot is a number like the agent's, or null where its name is not one.
    j = m.Json({"pci"});
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("pci"), "address", "0000:00:01.0"),
                                     R"({"kernel_slot": 1, "kernel_slot_name": "1"})"));
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("pci"), "address", "0000:00:03.0"),
                                     R"({"kernel_slot": null, "kernel_slot_name": "0-3"})"));
}

// Bad input: each case one run; stdout is one JSON document with an error
// member, and no trace text (FATAL) or "SMBIOS 0.0" reaches the output.
TEST(KophwIdentity, FailuresGiveOneJsonDocumentAndAClearMessage)
{
    IdentityRoot m("lenovo-thinkpad-2347a49");
    hwtest::Bytes ep = hwtest::SmbiosFixture("lenovo-thinkpad-2347a49.ep");
    ep[0x10] ^= 1;  // the checksum no longer adds up
    struct Case { std::string ep; std::vector<std::string> args; int status; const char* err; } cases[] = {
        {"garbage garbage garbage garbage", {"smbios"}, 1, "smbios_entry_point: not an SMBIOS entry point"},
        {hwtest::Str(ep), {}, 1, "smbios_entry_point: damaged SMBIOS entry point (checksum"},
        {"", {"--root", "/nonexistent"}, 1, "/nonexistent is not a directory"},
        {"", {"frob"}, 2, "unknown command 'frob'"},
    };
    for (const Case& c : cases) {
        if (!c.ep.empty())
            m.root.Write(hwinfo::kSysfsSmbiosEntryPoint, c.ep);
        for (bool json : {true, false}) {
            std::vector<std::string> args = {"--root", m.root.Path("")};
            if (json)
                args.push_back("--json");
            args.insert(args.end(), c.args.begin(), c.args.end());
            auto r = tooltest::Run(kTool, args);
            EXPECT_TRUE(r.Exited(c.status)) << c.err << " " << r.exitCode;
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
            EXPECT_EQ((r.out + r.err).find("FATAL"), std::string::npos);
            EXPECT_EQ(r.out.find("SMBIOS 0.0"), std::string::npos);
            if (json) {
                EXPECT_NE(tooltest::ParseOutput(r.out).value("error", ""), "") << r.out;
            }
        }
    }
    // A table cut inside a structure: shown, with the damage in words.
    IdentityRoot cut("lenovo-thinkpad-2347a49");
    std::string dmi = cut.root.Path(hwinfo::kSysfsSmbiosTable);
    testsupport::WriteFile(dmi, testsupport::ReadFile(dmi).substr(0, 300));
    json j = cut.Json({"smbios"});
    EXPECT_EQ(j.at("smbios").at("error").get<std::string>().rfind("the structure table is damaged", 0), 0u);
}

TEST(KophwIdentity, CaptureRefusesAUsedFolderAndReplaysItsOwnVolumeSizes)
{
    IdentityRoot m("beelink-eq12");
    testsupport::TempDir out;
    testsupport::WriteFile(out.Sub("used/old-file"), "x");
    auto r = tooltest::Run(kTool, {"--root", m.root.Path(""), "capture", out.Sub("used")});
    EXPECT_TRUE(r.Exited(1));
    EXPECT_NE(r.err.find("used is not a new or empty folder"), std::string::npos) << r.err;
    EXPECT_EQ(testsupport::ReadFile(out.Sub("used/old-file")), "x");

    // Replaying a root without recorded sizes: unknown, not the running machine's.
    json j = m.Json({"devices"});
    ASSERT_EQ(j.at("volumes").size(), 2u);
    EXPECT_TRUE(j.at("volumes")[0].at("total_bytes").is_null());
    // Recorded sizes (total, free incl. reserved, available) travel with a capture.
    m.root.Write("/kophw/volume-sizes", "1000 900 800 /\n5000 4000 3000 /srv/a\\040b\n");
    ASSERT_TRUE(tooltest::Run(kTool, {"--root", m.root.Path(""), "capture", out.Sub("fresh")}).Exited(0));
    j = tooltest::ParseOutput(tooltest::Run(kTool, {"--json", "--root", out.Sub("fresh"), "devices"}).out);
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("volumes"), "mount_point", "/srv/a b"),
                                     R"({"total_bytes": 5000, "free_bytes": 4000, "available_bytes": 3000})"));
    r = tooltest::Run(kTool, {"--root", out.Sub("fresh"), "devices"});
    EXPECT_NE(r.out.find("/dev/sda1 on / type ext4  1000 bytes, 800 available\n"), std::string::npos) << r.out;
}

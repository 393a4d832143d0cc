// kophw: shows the hardware inventory as the agent sees it (PCI functions
// with slots, adapters, drives, volumes, an SMBIOS summary), cross-checks
// the slots with the kernel's own slot list, and captures a snapshot of the
// files the inventory reads so that it can be replayed with --root.
#include "tools/common/JsonWriter.h"
#include "tools/common/ToolSupport.h"

#include "common/ByteReader.h"
#include "common/CDataStream.h"
#include "common/UniqueHandle.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/CSystemDeviceScan.h"
#include "hwinfo/HwPaths.h"
#include "trace/CDebug.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

CDebug Debug;

namespace {

constexpr const char* kSysBusPciSlots = "/sys/bus/pci/slots";
constexpr const char* kSysFirmwareDmiTables = "/sys/firmware/dmi/tables";
constexpr const char* kSysDevices = "/sys/devices";
constexpr unsigned int kScanTimeoutMs = 60000;
/// Upper bounds of captured files: firmware tables and configuration
/// spaces are far smaller; sysfs attributes fit a page.
constexpr size_t kMaxFirmwareFile = 16u << 20;
constexpr size_t kMaxSmallFile = 64u << 10;

const char* const kUsage =
    "Usage: kophw [--root DIR] [--json] [pci|devices|smbios|all]\n"
    "       kophw [--root DIR] capture DIR\n"
    "Shows the hardware inventory: PCI functions with ids, class names and\n"
    "physical slots (checked against the kernel's slot list), adapters, drives\n"
    "and volumes, and an SMBIOS summary.  Default: all.\n"
    "\n"
    "capture DIR copies the files the inventory reads into DIR (SMBIOS tables,\n"
    "UEFI system table, /proc/bus/pci, /sys/block, the mount table, the adapter\n"
    "list, the kernel's PCI slots); physical memory is not captured.\n"
    "\n"
    "Options:\n"
    "  --root DIR  read everything under DIR (a captured snapshot)\n"
    "  --json      output as JSON\n"
    "  --help      this text\n"
    "\n"
    "Exit status: 0 ok, 1 nothing could be read or the capture failed,\n"
    "2 usage error.\n";

std::string Hex(unsigned value, int width)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%0*x", width, value);
    return buf;
}

std::vector<std::string> ListDir(const std::string& dir)
{
    std::vector<std::string> names;
    UniqueDir d(opendir(dir.c_str()));
    if (!d)
        return names;
    while (struct dirent* e = readdir(d.Get())) {
        std::string n = e->d_name;
        if (n != "." && n != "..")
            names.push_back(n);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string Trim(std::string s)
{
    size_t nul = s.find('\0');
    if (nul != std::string::npos)
        s.resize(nul);
    while (!s.empty() && isspace(static_cast<unsigned char>(s.back())))
        s.pop_back();
    size_t b = 0;
    while (b < s.size() && isspace(static_cast<unsigned char>(s[b])))
        ++b;
    return s.substr(b);
}

// ---- kernel slot list ---------------------------------------------------------

using SlotKey = std::tuple<unsigned, unsigned, unsigned>;  // segment, bus, device

/// The kernel's slots: "ssss:bb:dd" in /sys/bus/pci/slots/NAME/address.
std::map<SlotKey, std::string> KernelSlots()
{
    std::map<SlotKey, std::string> slots;
    std::string dir = hwinfo::RootedPath(kSysBusPciSlots);
    for (const std::string& name : ListDir(dir)) {
        std::string text;
        if (!tools::ReadFileBounded(dir + "/" + name + "/address", 256, text))
            continue;
        text = Trim(text);
        unsigned seg = 0, bus = 0, dev = 0;
        int used = 0;
        if (sscanf(text.c_str(), "%4x:%2x:%2x%n", &seg, &bus, &dev, &used) == 3 &&
            static_cast<size_t>(used) == text.size())
            slots[{seg, bus, dev}] = name;
    }
    return slots;
}

// ---- SMBIOS -------------------------------------------------------------------------

struct SmbiosSummary {
    bool found = false;
    std::string source;
    unsigned major = 0, minor = 0;
    std::map<unsigned, unsigned> countByType;
    struct Slot {
        std::optional<std::string> designation;
        unsigned type = 0, usage = 0;
        unsigned length = 0;
        std::optional<unsigned> segment, bus, device, function;
    };
    std::vector<Slot> slots;
    std::string error;
};

/// String `index` (1-based) of the structure `s`, bounded by the table.
std::optional<std::string> StructureString(const CByteReader& s, unsigned index)
{
    size_t pos = s.U8Or(1);
    if (index == 0 || pos > s.Size())
        return std::nullopt;
    for (unsigned n = 1; pos < s.Size(); ++n) {
        size_t end = pos;
        while (end < s.Size() && s.Data()[end] != 0)
            ++end;
        if (end == pos)
            return std::nullopt;  // the double NUL ends the strings
        if (n == index)
            return std::string(reinterpret_cast<const char*>(s.Data()) + pos, end - pos);
        pos = end + 1;
    }
    return std::nullopt;
}

const char* SlotTypeName(unsigned t)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "ISA"}, {0x04, "MCA"}, {0x05, "EISA"}, {0x06, "PCI"},
        {0x07, "PC Card (PCMCIA)"}, {0x08, "VL-VESA"}, {0x09, "Proprietary"}, {0x0A, "Processor Card Slot"},
        {0x0B, "Proprietary Memory Card Slot"}, {0x0C, "I/O Riser Card Slot"}, {0x0D, "NuBus"},
        {0x0E, "PCI - 66MHz Capable"}, {0x0F, "AGP"}, {0x10, "AGP 2X"}, {0x11, "AGP 4X"}, {0x12, "PCI-X"},
        {0x13, "AGP 8X"}, {0x14, "M.2 Socket 1-DP"}, {0x15, "M.2 Socket 1-SD"}, {0x16, "M.2 Socket 2"},
        {0x17, "M.2 Socket 3"}, {0x18, "MXM Type I"}, {0x19, "MXM Type II"}, {0x1A, "MXM Type III"},
        {0x1B, "MXM Type III-HE"}, {0x1C, "MXM Type IV"}, {0x1D, "MXM 3.0 Type A"}, {0x1E, "MXM 3.0 Type B"},
        {0x1F, "PCI Express Gen 2 SFF-8639 (U.2)"}, {0x20, "PCI Express Gen 3 SFF-8639 (U.2)"},
        {0x21, "PCI Express Mini 52-pin with bottom-side keep-outs"},
        {0x22, "PCI Express Mini 52-pin without bottom-side keep-outs"}, {0x23, "PCI Express Mini 76-pin"},
        {0x24, "PCI Express Gen 4 SFF-8639 (U.2)"}, {0x25, "PCI Express Gen 5 SFF-8639 (U.2)"},
        {0x26, "OCP NIC 3.0 Small Form Factor"}, {0x27, "OCP NIC 3.0 Large Form Factor"},
        {0x28, "OCP NIC Prior to 3.0"}, {0x30, "CXL Flexbus 1.0"}, {0xA0, "PC-98/C20"}, {0xA1, "PC-98/C24"},
        {0xA2, "PC-98/E"}, {0xA3, "PC-98/Local Bus"}, {0xA4, "PC-98/Card"}, {0xA5, "PCI Express"},
        {0xA6, "PCI Express x1"}, {0xA7, "PCI Express x2"}, {0xA8, "PCI Express x4"}, {0xA9, "PCI Express x8"},
        {0xAA, "PCI Express x16"}, {0xAB, "PCI Express Gen 2"}, {0xAC, "PCI Express Gen 2 x1"},
        {0xAD, "PCI Express Gen 2 x2"}, {0xAE, "PCI Express Gen 2 x4"}, {0xAF, "PCI Express Gen 2 x8"},
        {0xB0, "PCI Express Gen 2 x16"}, {0xB1, "PCI Express Gen 3"}, {0xB2, "PCI Express Gen 3 x1"},
        {0xB3, "PCI Express Gen 3 x2"}, {0xB4, "PCI Express Gen 3 x4"}, {0xB5, "PCI Express Gen 3 x8"},
        {0xB6, "PCI Express Gen 3 x16"}, {0xB8, "PCI Express Gen 4"}, {0xB9, "PCI Express Gen 4 x1"},
        {0xBA, "PCI Express Gen 4 x2"}, {0xBB, "PCI Express Gen 4 x4"}, {0xBC, "PCI Express Gen 4 x8"},
        {0xBD, "PCI Express Gen 4 x16"}, {0xBE, "PCI Express Gen 5"}, {0xBF, "PCI Express Gen 5 x1"},
        {0xC0, "PCI Express Gen 5 x2"}, {0xC1, "PCI Express Gen 5 x4"}, {0xC2, "PCI Express Gen 5 x8"},
        {0xC3, "PCI Express Gen 5 x16"}, {0xC4, "PCI Express Gen 6 and Beyond"},
        {0xC5, "EDSFF E1.S, E1.L"}, {0xC6, "EDSFF E3.S, E3.L"},
    };
    auto it = kNames.find(t);
    return it == kNames.end() ? "Unknown type" : it->second;
}

const char* SlotUsageName(unsigned u)
{
    switch (u) {
    case 1: return "Other";
    case 2: return "Unknown";
    case 3: return "Available";
    case 4: return "In use";
    case 5: return "Unavailable";
    default: return "Unknown usage";
    }
}

SmbiosSummary ReadSmbios()
{
    SmbiosSummary sum;
    CSMBios bios;
    CDataStream header, data;
    // The acquisition chain, step by step so that the source can be named.
    if (CBiosTables::GetAnySMBiosFromSysfs(header, data))
        sum.source = "sysfs";
    else if (CBiosTables::GetAnySMBiosFromMemory(header, data))
        sum.source = "uefi-memory";
    else if (CBiosTables::GetBiosTableESX(header, data))
        sum.source = "esx";
    else if (bios.getSmbiosDataFromBiosShadowMemory(header, data))
        sum.source = "bios-shadow";
    else {
        sum.error = bios.GetLastErrorText().empty() ? "no SMBIOS table found" : bios.GetLastErrorText();
        return sum;
    }
    bios.SetTables(header, data);
    bios.setSmbiosRevisionFromHeader();
    if (!bios.buildStructureList())
        sum.error = bios.GetLastErrorText().empty() ? "the structure table is damaged" : bios.GetLastErrorText();
    sum.found = true;
    sum.major = bios.GetMajor();
    sum.minor = bios.GetMinor();
    for (unsigned t = 0; t < 256; ++t) {
        auto list = bios.GetStructures(static_cast<uint8_t>(t));
        if (!list.empty())
            sum.countByType[t] = static_cast<unsigned>(list.size());
    }
    for (const CByteReader& s : bios.GetStructures(9)) {
        SmbiosSummary::Slot slot;
        slot.length = s.U8Or(1);
        if (slot.length >= 0x05)
            slot.designation = StructureString(s, s.U8Or(0x04));
        slot.type = s.U8Or(0x05);
        slot.usage = s.U8Or(0x07);
        if (slot.length >= 0x11 && s.Contains(0x0D, 4)) {
            slot.segment = s.Le16Or(0x0D);
            slot.bus = s.U8Or(0x0F);
            slot.device = s.U8Or(0x10) >> 3;
            slot.function = s.U8Or(0x10) & 7;
        }
        sum.slots.push_back(slot);
    }
    return sum;
}

// ---- reports ----------------------------------------------------------------------------

struct Report {
    bool pci = false, devices = false, smbios = false;
};

int Show(const Report& what, bool json)
{
    CJsonWriter w;
    w.BeginObject();
    w.Key("root").String(hwinfo::GetRootDirectory().empty() ? "/" : hwinfo::GetRootDirectory());
    bool anything = false;
    std::vector<std::string> disagreements;

    if (what.pci) {
        CPciConfigList list;
        bool ok = CPciConfigList::ScanPciSlots(list, true);
        anything = anything || ok;
        auto kernel = KernelSlots();
        if (!json)
            printf("PCI functions (%zu):\n", list.size());
        w.Key("pci").BeginArray();
        for (const auto& [addr, rec] : list) {
            const PciConfigHeader& h = rec.header;
            std::string ids = Hex(CPciCommonConfigHeader::VendorId(h), 4) + ":" +
                              Hex(CPciCommonConfigHeader::DeviceId(h), 4);
            const char* cls = CPciCommonConfigHeader::GetPciBaseClassDescription(CPciCommonConfigHeader::BaseClass(h));
            const char* sub = CPciCommonConfigHeader::GetPciSubClassDescription(h);
            std::optional<std::string> kslot;
            auto k = kernel.find({addr.GetSegment(), addr.GetBus(), addr.GetDevice()});
            if (k != kernel.end())
                kslot = k->second;
            std::optional<std::string> mismatch;
            if (kslot && *kslot != (rec.slot >= 0 ? std::to_string(rec.slot) : std::string("-"))) {
                mismatch = "slot " + (rec.slot >= 0 ? std::to_string(rec.slot) : std::string("unknown")) +
                           ", kernel slot " + *kslot;
                disagreements.push_back(addr.ToString() + ": " + *mismatch);
            }
            w.BeginObject();
            w.Key("address").String(addr.ToString());
            w.Key("vendor_id").String(Hex(CPciCommonConfigHeader::VendorId(h), 4));
            w.Key("device_id").String(Hex(CPciCommonConfigHeader::DeviceId(h), 4));
            w.Key("subsystem_vendor_id").String(Hex(CPciCommonConfigHeader::SubVendorId(h), 4));
            w.Key("subsystem_id").String(Hex(CPciCommonConfigHeader::SubDeviceId(h), 4));
            w.Key("class").Unsigned(CPciCommonConfigHeader::BaseClass(h));
            w.Key("subclass").Unsigned(CPciCommonConfigHeader::SubClass(h));
            w.Key("class_name").String(cls);
            w.Key("subclass_name").String(sub);
            w.Key("slot");
            if (rec.slot >= 0)
                w.Number(rec.slot);
            else
                w.Null();
            w.Key("kernel_slot").OptString(kslot);
            w.Key("slot_disagreement").OptString(mismatch);
            w.EndObject();
            if (!json) {
                printf("  %s  %s  %s / %s  slot %s", addr.ToString().c_str(), ids.c_str(), cls, sub,
                       rec.slot >= 0 ? std::to_string(rec.slot).c_str() : "-");
                if (kslot)
                    printf("  kernel slot %s", kslot->c_str());
                if (mismatch)
                    printf("  ** DISAGREES **");
                printf("\n");
            }
        }
        w.EndArray();
        w.Key("slot_disagreements").BeginArray();
        for (auto& d : disagreements)
            w.String(d);
        w.EndArray();
        if (!json && !disagreements.empty()) {
            printf("Slot disagreements with the kernel (%zu):\n", disagreements.size());
            for (auto& d : disagreements)
                printf("  %s\n", d.c_str());
        }
    }

    if (what.devices) {
        CSystemDeviceScan scan;
        int rc = scan.ScanHardware(CSystemDeviceScan::SCAN_ADAPTERS | CSystemDeviceScan::SCAN_DRIVES |
                                       CSystemDeviceScan::SCAN_VOLUMES,
                                   false, kScanTimeoutMs);
        if (rc != 0)
            return tools::Fail("the device scan did not run");
        // The scan object's drive queries answer nothing in this version, so
        // the drives come from the drive scan itself.
        CSystemDriveList drives;
        CSystemDrive::ScanSystemDrives(drives);
        int na = scan.GetAdapterCount(), nd = static_cast<int>(drives.size()), nv = scan.GetVolumeCount();
        anything = anything || na > 0 || nd > 0 || nv > 0;
        if (!json)
            printf("Adapters (%d):\n", na);
        w.Key("adapters").BeginArray();
        for (int i = 0; i < na; ++i) {
            CSystemAdapter a;
            if (!scan.GetAdapter(a, i))
                continue;
            w.BeginObject();
            w.Key("address").String(a.address.ToString());
            w.Key("id").String(a.deviceIdText);
            w.Key("name").String(a.name);
            w.Key("class_name").String(a.className);
            w.Key("subclass_name").String(a.subClassName);
            w.Key("slot");
            if (a.slot >= 0)
                w.Number(a.slot);
            else
                w.Null();
            w.EndObject();
            if (!json)
                printf("  %s  %s  %s  slot %s\n", a.address.ToString().c_str(), a.deviceIdText.c_str(),
                       a.name.c_str(), a.slot >= 0 ? std::to_string(a.slot).c_str() : "-");
        }
        w.EndArray();
        if (!json)
            printf("Drives (%d):\n", nd);
        w.Key("drives").BeginArray();
        for (int i = 0; i < nd; ++i) {
            const CSystemDrive& d = drives[static_cast<size_t>(i)];
            w.BeginObject();
            w.Key("name").String(d.name);
            w.Key("vendor").String(d.vendor);
            w.Key("model").String(d.model);
            w.Key("size_bytes").Unsigned(d.sizeBytes);
            w.Key("pci_address");
            if (d.hasPciAddress)
                w.String(d.pciAddress.ToString());
            else
                w.Null();
            w.EndObject();
            if (!json)
                printf("  %s  \"%s\" \"%s\"  %llu bytes  at %s\n", d.name.c_str(), d.vendor.c_str(), d.model.c_str(),
                       static_cast<unsigned long long>(d.sizeBytes),
                       d.hasPciAddress ? d.pciAddress.ToString().c_str() : "-");
        }
        w.EndArray();
        if (!json)
            printf("Volumes (%d):\n", nv);
        w.Key("volumes").BeginArray();
        for (int i = 0; i < nv; ++i) {
            CSystemVolume v;
            if (!scan.GetVolume(v, i))
                continue;
            w.BeginObject();
            w.Key("device").String(v.device);
            w.Key("mount_point").String(v.mountPoint);
            w.Key("fs_type").String(v.fsType);
            w.Key("total_bytes").Unsigned(v.totalBytes);
            w.Key("free_bytes").Unsigned(v.freeBytes);
            w.Key("available_bytes").Unsigned(v.availableBytes);
            w.EndObject();
            if (!json)
                printf("  %s on %s type %s  %llu bytes, %llu free\n", v.device.c_str(), v.mountPoint.c_str(),
                       v.fsType.c_str(), static_cast<unsigned long long>(v.totalBytes),
                       static_cast<unsigned long long>(v.freeBytes));
        }
        w.EndArray();
    }

    if (what.smbios) {
        SmbiosSummary s = ReadSmbios();
        anything = anything || s.found;
        w.Key("smbios").BeginObject();
        w.Key("found").Bool(s.found);
        w.Key("source").OptString(s.found ? std::optional<std::string>(s.source) : std::nullopt);
        w.Key("version").OptString(s.found ? std::optional<std::string>(std::to_string(s.major) + "." +
                                                                         std::to_string(s.minor))
                                           : std::nullopt);
        w.Key("error").OptString(s.error.empty() ? std::nullopt : std::optional<std::string>(s.error));
        w.Key("structures").BeginObject();
        for (auto& [t, n] : s.countByType)
            w.Key(std::to_string(t)).Unsigned(n);
        w.EndObject();
        w.Key("system_slots").BeginArray();
        for (auto& sl : s.slots) {
            w.BeginObject();
            w.Key("designation").OptString(sl.designation);
            w.Key("type").Unsigned(sl.type);
            w.Key("type_name").String(SlotTypeName(sl.type));
            w.Key("current_usage").Unsigned(sl.usage);
            w.Key("current_usage_name").String(SlotUsageName(sl.usage));
            w.Key("address");
            if (sl.segment)
                w.String(Hex(*sl.segment, 4) + ":" + Hex(*sl.bus, 2) + ":" + Hex(*sl.device, 2) + "." +
                         Hex(*sl.function, 1));
            else
                w.Null();
            w.EndObject();
        }
        w.EndArray();
        w.EndObject();
        if (!json) {
            if (!s.found) {
                printf("SMBIOS: not found (%s)\n", s.error.c_str());
            } else {
                printf("SMBIOS %u.%u from %s%s%s\n", s.major, s.minor, s.source.c_str(),
                       s.error.empty() ? "" : ", ", s.error.c_str());
                printf("Structures by type:");
                for (auto& [t, n] : s.countByType)
                    printf(" %u:%u", t, n);
                printf("\nSystem slots (%zu):\n", s.slots.size());
                for (auto& sl : s.slots) {
                    printf("  \"%s\"  %s (0x%02x)  %s", sl.designation ? sl.designation->c_str() : "",
                           SlotTypeName(sl.type), sl.type, SlotUsageName(sl.usage));
                    if (sl.segment)
                        printf("  at %s:%s:%s.%s", Hex(*sl.segment, 4).c_str(), Hex(*sl.bus, 2).c_str(),
                               Hex(*sl.device, 2).c_str(), Hex(*sl.function, 1).c_str());
                    printf("\n");
                }
            }
        }
    }
    w.EndObject();
    if (json)
        printf("%s\n", w.Text().c_str());
    fflush(stdout);
    if (!anything)
        return tools::Fail("no hardware information could be read under %s",
                           hwinfo::GetRootDirectory().empty() ? "/" : hwinfo::GetRootDirectory().c_str());
    return tools::kExitOk;
}

// ---- capture -----------------------------------------------------------------------------

class Capture {
public:
    explicit Capture(std::string dest) : m_Dest(std::move(dest)) {}

    /// Copies the file `path` (absolute, read under the root) to the same
    /// path below the destination.  Missing files are skipped.
    bool CopyFile(const std::string& path, size_t limit, bool required = false)
    {
        std::string content;
        if (!tools::ReadFileBounded(hwinfo::RootedPath(path), limit, content)) {
            if (required)
                tools::Warn("cannot read %s: %s", hwinfo::RootedPath(path).c_str(), strerror(errno));
            return false;
        }
        return Write(path, content);
    }
    bool Write(const std::string& path, const std::string& content)
    {
        std::string target = m_Dest + path;
        if (!tools::MakeDirectories(target.substr(0, target.rfind('/'))) || !tools::WriteWholeFile(target, content)) {
            m_Failed = true;
            tools::Warn("cannot write %s: %s", target.c_str(), strerror(errno));
            return false;
        }
        ++m_Files;
        return true;
    }
    void CopyTree(const std::string& path, int depth)
    {
        std::string src = hwinfo::RootedPath(path);
        struct stat st {};
        if (stat(src.c_str(), &st) != 0)
            return;
        if (S_ISDIR(st.st_mode)) {
            if (depth <= 0)
                return;
            for (const std::string& n : ListDir(src))
                CopyTree(path + "/" + n, depth - 1);
        } else if (S_ISREG(st.st_mode)) {
            CopyFile(path, kMaxSmallFile);
        }
    }
    /// A block device: size, and the device directory (model, vendor) at its
    /// resolved place below /sys/devices with "device" as a relative link, so
    /// that the drive scan finds the PCI address in the resolved path.
    void CaptureBlockDevice(const std::string& name)
    {
        std::string base = std::string(hwinfo::kSysBlock) + "/" + name;
        CopyFile(base + "/size", 256);
        std::string link = hwinfo::RootedPath(base + "/device");
        char resolved[PATH_MAX];
        if (!realpath(link.c_str(), resolved))
            return;  // a virtual device: no "device" link
        std::string real = resolved;
        const std::string& root = hwinfo::GetRootDirectory();
        if (!root.empty() && real.compare(0, root.size(), root) == 0)
            real = real.substr(root.size());
        if (real.empty() || real[0] != '/' || real.find("/..") != std::string::npos)
            return;
        if (real.compare(0, strlen(kSysDevices), kSysDevices) != 0)
            real = std::string(kSysDevices) + "/captured/" + name;  // keep it inside the snapshot
        for (const char* attr : {"model", "vendor"}) {
            std::string content;
            if (tools::ReadFileBounded(link + "/" + attr, 4096, content))
                Write(real + "/" + attr, content);
        }
        tools::MakeDirectories(m_Dest + real);
        // Relative target: from DEST/sys/block/NAME to DEST<real>.
        std::string target = "../../.." + real;
        std::string linkPath = m_Dest + base + "/device";
        tools::MakeDirectories(m_Dest + base);
        unlink(linkPath.c_str());
        if (symlink(target.c_str(), linkPath.c_str()) != 0) {
            m_Failed = true;
            tools::Warn("cannot create %s: %s", linkPath.c_str(), strerror(errno));
        }
    }
    int Run()
    {
        if (!tools::MakeDirectories(m_Dest))
            return tools::Fail("cannot create %s: %s", m_Dest.c_str(), strerror(errno));
        CopyFile(hwinfo::kSysfsSmbiosEntryPoint, kMaxFirmwareFile, true);
        CopyFile(hwinfo::kSysfsSmbiosTable, kMaxFirmwareFile, true);
        CopyFile(hwinfo::kEfiSystabSysfs, kMaxSmallFile);
        CopyTree(hwinfo::kProcBusPci, 3);
        for (const std::string& n : ListDir(hwinfo::RootedPath(hwinfo::kSysBlock)))
            CaptureBlockDevice(n);
        CopyFile(hwinfo::kMountTable, kMaxFirmwareFile, true);
        CopyFile(hwinfo::kAdapterIniFile, kMaxFirmwareFile);
        for (const std::string& n : ListDir(hwinfo::RootedPath(kSysBusPciSlots)))
            CopyFile(std::string(kSysBusPciSlots) + "/" + n + "/address", 256);
        (void)kSysFirmwareDmiTables;
        if (m_Failed)
            return tools::Fail("the snapshot in %s is incomplete", m_Dest.c_str());
        if (m_Files == 0)
            return tools::Fail("nothing could be captured");
        printf("%u files captured in %s (physical memory is not captured)\n", m_Files, m_Dest.c_str());
        return tools::kExitOk;
    }

private:
    std::string m_Dest;
    unsigned m_Files = 0;
    bool m_Failed = false;
};

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("kophw");
    bool json = false;
    std::string root;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return tools::kExitOk;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--root") {
            if (i + 1 >= argc)
                return tools::UsageError("option --root needs a directory");
            root = argv[++i];
        } else if (!a.empty() && a[0] == '-') {
            return tools::UsageError("unknown option '%s'", a.c_str());
        } else {
            args.push_back(a);
        }
    }
    if (!root.empty()) {
        struct stat st {};
        if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            return tools::Fail("%s is not a directory", root.c_str());
        char resolved[PATH_MAX];
        if (realpath(root.c_str(), resolved))
            root = resolved;
        hwinfo::SetRootDirectory(root.c_str());
    }
    std::string cmd = args.empty() ? "all" : args[0];
    if (cmd == "capture") {
        if (args.size() != 2)
            return tools::UsageError("usage: capture DIR");
        std::string dest = args[1];
        while (dest.size() > 1 && dest.back() == '/')
            dest.pop_back();
        return Capture(dest).Run();
    }
    if (args.size() > 1)
        return tools::UsageError("too many arguments");
    Report r;
    if (cmd == "all")
        r = {true, true, true};
    else if (cmd == "pci")
        r.pci = true;
    else if (cmd == "devices")
        r.devices = true;
    else if (cmd == "smbios")
        r.smbios = true;
    else
        return tools::UsageError("unknown command '%s'", cmd.c_str());
    return Show(r, json);
}

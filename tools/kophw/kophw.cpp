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
#include "hwinfo/SmbiosSlots.h"
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
    "  --version   the tool's version\n"
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
    std::vector<SmbiosSystemSlot> slots;
    std::string error;
};

SmbiosSummary ReadSmbios()
{
    SmbiosSummary sum;
    CSMBios bios;
    if (!bios.Acquire()) {
        sum.error = bios.GetLastErrorText().empty() ? "no SMBIOS table found" : bios.GetLastErrorText();
        return sum;
    }
    sum.source = SmbiosSourceName(bios.GetSource());
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
    for (const CByteReader& s : bios.GetStructures(kSmbiosSystemSlotsType))
        sum.slots.push_back(DecodeSystemSlot(s));
    return sum;
}

// ---- reports ----------------------------------------------------------------------------

struct Report {
    bool pci = false, devices = false, smbios = false;
};

std::string SlotText(int slot, const char* none)
{
    return slot >= 0 ? std::to_string(slot) : std::string(none);
}

void WriteSlot(CJsonWriter& w, int slot)
{
    w.Key("slot");
    if (slot >= 0)
        w.Number(slot);
    else
        w.Null();
}

/// One PCI function: its JSON object, and its text line unless `json`.
void ShowPciFunction(CJsonWriter& w, bool json, const CPciAddress& addr, const CPciSlotData& rec,
                     const std::optional<std::string>& kslot, const std::optional<std::string>& mismatch)
{
    const PciConfigHeader& h = rec.header;
    std::string ids = Hex(CPciCommonConfigHeader::VendorId(h), 4) + ":" + Hex(CPciCommonConfigHeader::DeviceId(h), 4);
    const char* cls = CPciCommonConfigHeader::GetPciBaseClassDescription(CPciCommonConfigHeader::BaseClass(h));
    const char* sub = CPciCommonConfigHeader::GetPciSubClassDescription(h);
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
    WriteSlot(w, rec.slot);
    w.Key("kernel_slot").OptString(kslot);
    w.Key("slot_disagreement").OptString(mismatch);
    w.EndObject();
    if (json)
        return;
    printf("  %s  %s  %s / %s  slot %s", addr.ToString().c_str(), ids.c_str(), cls, sub, SlotText(rec.slot, "-").c_str());
    if (kslot)
        printf("  kernel slot %s", kslot->c_str());
    if (mismatch)
        printf("  ** DISAGREES **");
    printf("\n");
}

/// The PCI functions with their slots, checked against the kernel's list.
bool ShowPci(CJsonWriter& w, bool json)
{
    CPciConfigList list;
    bool ok = CPciConfigList::ScanPciSlots(list, true);
    auto kernel = KernelSlots();
    std::vector<std::string> disagreements;
    if (!json)
        printf("PCI functions (%zu):\n", list.size());
    w.Key("pci").BeginArray();
    for (const auto& [addr, rec] : list) {
        std::optional<std::string> kslot;
        auto k = kernel.find({addr.GetSegment(), addr.GetBus(), addr.GetDevice()});
        if (k != kernel.end())
            kslot = k->second;
        std::optional<std::string> mismatch;
        if (kslot && *kslot != SlotText(rec.slot, "-")) {
            mismatch = "slot " + SlotText(rec.slot, "unknown") + ", kernel slot " + *kslot;
            disagreements.push_back(addr.ToString() + ": " + *mismatch);
        }
        ShowPciFunction(w, json, addr, rec, kslot, mismatch);
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
    return ok;
}

void ShowAdapters(CJsonWriter& w, bool json, CSystemDeviceScan& scan, int count)
{
    if (!json)
        printf("Adapters (%d):\n", count);
    w.Key("adapters").BeginArray();
    for (int i = 0; i < count; ++i) {
        CSystemAdapter a;
        if (!scan.GetAdapter(a, i))
            continue;
        w.BeginObject();
        w.Key("address").String(a.address.ToString());
        w.Key("id").String(a.deviceIdText);
        w.Key("name").String(a.name);
        w.Key("class_name").String(a.className);
        w.Key("subclass_name").String(a.subClassName);
        WriteSlot(w, a.slot);
        w.EndObject();
        if (!json)
            printf("  %s  %s  %s  slot %s\n", a.address.ToString().c_str(), a.deviceIdText.c_str(), a.name.c_str(),
                   SlotText(a.slot, "-").c_str());
    }
    w.EndArray();
}

void ShowDrives(CJsonWriter& w, bool json, const CSystemDriveList& drives)
{
    if (!json)
        printf("Drives (%d):\n", static_cast<int>(drives.size()));
    w.Key("drives").BeginArray();
    for (const CSystemDrive& d : drives) {
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
                   static_cast<unsigned long long>(d.sizeBytes), d.hasPciAddress ? d.pciAddress.ToString().c_str() : "-");
    }
    w.EndArray();
}

void ShowVolumes(CJsonWriter& w, bool json, CSystemDeviceScan& scan, int count)
{
    if (!json)
        printf("Volumes (%d):\n", count);
    w.Key("volumes").BeginArray();
    for (int i = 0; i < count; ++i) {
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

/// Adapters, drives and volumes; false when the scan did not run.
bool ShowDevices(CJsonWriter& w, bool json, bool& anything)
{
    CSystemDeviceScan scan;
    int rc = scan.ScanHardware(CSystemDeviceScan::SCAN_ADAPTERS | CSystemDeviceScan::SCAN_DRIVES |
                                   CSystemDeviceScan::SCAN_VOLUMES,
                               false, kScanTimeoutMs);
    if (rc != 0)
        return false;
    // The scan object's drive queries answer nothing in this version, so
    // the drives come from the drive scan itself.
    CSystemDriveList drives;
    CSystemDrive::ScanSystemDrives(drives);
    int na = scan.GetAdapterCount(), nv = scan.GetVolumeCount();
    anything = anything || na > 0 || !drives.empty() || nv > 0;
    ShowAdapters(w, json, scan, na);
    ShowDrives(w, json, drives);
    ShowVolumes(w, json, scan, nv);
    return true;
}

std::string SlotAddress(const SmbiosSystemSlot& sl)
{
    return Hex(*sl.segment, 4) + ":" + Hex(*sl.bus, 2) + ":" + Hex(*sl.device, 2) + "." + Hex(*sl.function, 1);
}

void PrintSmbiosText(const SmbiosSummary& s)
{
    if (!s.found) {
        printf("SMBIOS: not found (%s)\n", s.error.c_str());
        return;
    }
    printf("SMBIOS %u.%u from %s%s%s\n", s.major, s.minor, s.source.c_str(), s.error.empty() ? "" : ", ",
           s.error.c_str());
    printf("Structures by type:");
    for (auto& [t, n] : s.countByType)
        printf(" %u:%u", t, n);
    printf("\nSystem slots (%zu):\n", s.slots.size());
    for (auto& sl : s.slots) {
        printf("  \"%s\"  %s (0x%02x)  %s", sl.designation ? sl.designation->c_str() : "", SmbiosSlotTypeName(sl.type),
               sl.type, SmbiosSlotUsageName(sl.usage));
        if (sl.segment)
            printf("  at %s", SlotAddress(sl).c_str());
        printf("\n");
    }
}

/// The SMBIOS summary; true when a table was found.
bool ShowSmbios(CJsonWriter& w, bool json)
{
    SmbiosSummary s = ReadSmbios();
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
        w.Key("type_name").String(SmbiosSlotTypeName(sl.type));
        w.Key("current_usage").Unsigned(sl.usage);
        w.Key("current_usage_name").String(SmbiosSlotUsageName(sl.usage));
        w.Key("address");
        if (sl.segment)
            w.String(SlotAddress(sl));
        else
            w.Null();
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
    if (!json)
        PrintSmbiosText(s);
    return s.found;
}

const char* RootText()
{
    return hwinfo::GetRootDirectory().empty() ? "/" : hwinfo::GetRootDirectory().c_str();
}

int Show(const Report& what, bool json)
{
    CJsonWriter w;
    w.BeginObject();
    w.Key("root").String(RootText());
    bool anything = false;
    if (what.pci)
        anything = ShowPci(w, json) || anything;
    if (what.devices && !ShowDevices(w, json, anything))
        return tools::Fail("the device scan did not run");
    if (what.smbios)
        anything = ShowSmbios(w, json) || anything;
    w.EndObject();
    if (json)
        printf("%s\n", w.Text().c_str());
    fflush(stdout);
    if (!anything)
        return tools::Fail("no hardware information could be read under %s", RootText());
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

struct Options {
    bool json = false;
    std::string root;
    std::vector<std::string> args;
};

/// Fills `o` from the command line; -1 to go on, else the exit status.
int ParseOptions(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return tools::kExitOk;
        } else if (a == "--version") {
            return tools::PrintVersion();
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--root") {
            if (i + 1 >= argc)
                return tools::UsageError("option --root needs a directory");
            o.root = argv[++i];
        } else if (!a.empty() && a[0] == '-') {
            return tools::UsageError("unknown option '%s'", a.c_str());
        } else {
            o.args.push_back(a);
        }
    }
    return -1;
}

/// Reads everything under `root` from now on; -1 to go on, else the exit status.
int UseRoot(std::string root)
{
    if (root.empty())
        return -1;
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return tools::Fail("%s is not a directory", root.c_str());
    char resolved[PATH_MAX];
    if (realpath(root.c_str(), resolved))
        root = resolved;
    hwinfo::SetRootDirectory(root.c_str());
    return -1;
}

int RunCommand(const Options& o)
{
    std::string cmd = o.args.empty() ? "all" : o.args[0];
    if (cmd == "capture") {
        if (o.args.size() != 2)
            return tools::UsageError("usage: capture DIR");
        std::string dest = o.args[1];
        while (dest.size() > 1 && dest.back() == '/')
            dest.pop_back();
        return Capture(dest).Run();
    }
    if (o.args.size() > 1)
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
    return Show(r, o.json);
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("kophw");
    Options o;
    int rc = ParseOptions(argc, argv, o);
    if (rc < 0)
        rc = UseRoot(o.root);
    return rc < 0 ? RunCommand(o) : rc;
}

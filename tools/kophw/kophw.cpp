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
#include "hwinfo/SmbiosIdentity.h"
#include "hwinfo/SmbiosSlots.h"
#include "tools/kophw/KophwIdentity.h"
#include "tools/kophw/KophwNet.h"
#include "trace/CDebug.h"

#include <cerrno>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <dirent.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
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
/// The file of a capture that holds each volume's sizes as statvfs gave
/// them on the captured machine: "TOTAL FREE AVAILABLE MOUNT-POINT" per line
/// (the mount point escaped as in the mount table).  A replay takes the
/// sizes from here, never from the file systems of the machine running kophw.
constexpr const char* kVolumeSizesFile = "/kophw/volume-sizes";

const char* const kUsage =
    "Usage: kophw [--root DIR] [--json] [pci|devices|smbios|net|all]\n"
    "       kophw [--root DIR] capture DIR\n"
    "Shows the hardware inventory: PCI functions with ids, class names and\n"
    "physical slots (checked against the kernel's slot list), adapters, drives\n"
    "and volumes (free space as df's \"available\"), and an SMBIOS summary with\n"
    "the machine identity (BIOS, system, baseboard, chassis, processors, memory)\n"
    "and the system slots.  Default: all.\n"
    "\n"
    "net shows the network interfaces of the running kernel (read over\n"
    "netlink; not part of all): index, type, MAC, MTU, state, carrier, speed,\n"
    "duplex, driver and PCI address, with their addresses below each.  With\n"
    "--root the driver, PCI address and speed come from DIR/sys.\n"
    "\n"
    "capture DIR copies the files the inventory reads into DIR (SMBIOS tables,\n"
    "UEFI system table, /proc/bus/pci, /sys/block, the mount table, the adapter\n"
    "list, the kernel's PCI slots) and the volume sizes; physical memory is not\n"
    "captured.  DIR must be new or empty.\n"
    "\n"
    "Options:\n"
    "  --root DIR  read everything under DIR (a captured snapshot)\n"
    "  --json      output as JSON: one document, with an \"error\" member on failure\n"
    "  --help      this text\n"
    "  --version   the tool's version\n"
    "\n"
    "Exit status: 0 ok, 1 nothing could be read, the SMBIOS entry point is not\n"
    "valid, netlink could not be read (net) or the capture failed,\n"
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

/// The message of a failure, formatted.
std::string Format(const char* format, va_list args)
{
    char text[1024];
    vsnprintf(text, sizeof text, format, args);
    return text;
}

/// With --json every failure still prints one document; this one is for
/// failures before the inventory document is begun: {"error": MESSAGE}.
void PrintJsonError(bool json, const std::string& message)
{
    if (!json)
        return;
    fflush(stdout);
    tools::PrintJsonError(std::cout, message);
}

/// tools::Fail, and the JSON document when `json`.
__attribute__((format(printf, 2, 3))) int FailWith(bool json, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string message = Format(format, args);
    va_end(args);
    PrintJsonError(json, message);
    return tools::Fail("%s", message.c_str());
}

/// tools::UsageError, and the JSON document when `json`.
__attribute__((format(printf, 2, 3))) int UsageWith(bool json, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string message = Format(format, args);
    va_end(args);
    PrintJsonError(json, message);
    return tools::UsageError("%s", message.c_str());
}

// ---- volume sizes of a capture ----------------------------------------------------------

struct VolumeSizes {
    uint64_t total = 0, free = 0, available = 0;
};

/// A mount point as one field: space, tab, line feed and backslash as
/// octal escapes, like the mount table.
std::string EscapeField(const std::string& text)
{
    std::string out;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
            char esc[8];
            snprintf(esc, sizeof esc, "\\%03o", static_cast<unsigned char>(c));
            out += esc;
        } else {
            out += c;
        }
    }
    return out;
}

std::string UnescapeField(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && text.find_first_not_of("01234567", i + 1) >= i + 4) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

/// The sizes a capture recorded, by mount point; empty when it has none.
std::map<std::string, VolumeSizes> CapturedVolumeSizes()
{
    std::map<std::string, VolumeSizes> sizes;
    std::string text;
    if (!tools::ReadFileBounded(hwinfo::RootedPath(kVolumeSizesFile), kMaxFirmwareFile, text))
        return sizes;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end == std::string::npos ? text.size() : end + 1;
        unsigned long long t = 0, f = 0, a = 0;
        int used = 0;
        if (sscanf(line.c_str(), "%llu %llu %llu %n", &t, &f, &a, &used) == 3 && used > 0)
            sizes[UnescapeField(line.substr(static_cast<size_t>(used)))] = {t, f, a};
    }
    return sizes;
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
    bool refused = false;  ///< the entry point is not one: a failure of the run
    std::string source;
    unsigned major = 0, minor = 0;
    std::map<unsigned, unsigned> countByType;
    std::vector<SmbiosSystemSlot> slots;
    SmbiosIdentity identity;
    std::string error;
};

/// Where the entry point came from, for messages.
std::string EntryPointOrigin(SmbiosSource source)
{
    if (source == SmbiosSource::Sysfs)
        return hwinfo::RootedPath(hwinfo::kSysfsSmbiosEntryPoint);
    return std::string("the entry point from ") + SmbiosSourceName(source);
}

/// Why the entry point is not one ("" when it is): its anchor, its length
/// and its checksum.  The kernel's copy is not checked by the library, so
/// garbage there would otherwise read as "SMBIOS 0.0".
std::string EntryPointProblem(const CDataStream& header)
{
    CByteReader ep(header.GetData(), header.GetSize());
    size_t length = 0;
    if (ep.Matches(0, "_SM3_", 5))
        length = ep.U8Or(6);
    else if (ep.Matches(0, "_SM_", 4))
        length = ep.U8Or(5);
    else
        return "not an SMBIOS entry point (no \"_SM_\" or \"_SM3_\" anchor)";
    if (length < 16 || !ep.Contains(0, length))
        return "damaged SMBIOS entry point (length " + std::to_string(length) + ", " + std::to_string(ep.Size()) +
               " bytes present)";
    uint8_t sum = 0;
    for (size_t i = 0; i < length; ++i)
        sum = static_cast<uint8_t>(sum + ep.U8Or(i));
    return sum == 0 ? std::string() : "damaged SMBIOS entry point (checksum does not add up)";
}

SmbiosSummary ReadSmbios()
{
    SmbiosSummary sum;
    CSMBios bios;
    if (!bios.Acquire()) {
        sum.error = "no SMBIOS table found";
        return sum;
    }
    std::string problem = EntryPointProblem(bios.GetHeader());
    if (!problem.empty()) {
        sum.refused = true;
        sum.error = EntryPointOrigin(bios.GetSource()) + ": " + problem;
        return sum;
    }
    sum.source = SmbiosSourceName(bios.GetSource());
    bios.setSmbiosRevisionFromHeader();
    // The walk's own error text is a trace line; the administrator reads
    // what it means.
    if (!bios.buildStructureList())
        sum.error = "the structure table is damaged (" + std::to_string(bios.GetIndexedCount()) +
                    " structures could be read)";
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
    sum.identity = DecodeSmbiosIdentity(bios);
    return sum;
}

// ---- reports ----------------------------------------------------------------------------

struct Report {
    bool pci = false, devices = false, smbios = false, net = false;
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
    // The kernel's slot is a number like "slot" where its name is one; the
    // name itself is kept beside it (some platforms name slots "0-1").
    unsigned long long kernelNumber = 0;
    w.Key("kernel_slot");
    if (kslot && tools::ParseUnsigned(kslot->c_str(), INT_MAX, kernelNumber))
        w.Unsigned(kernelNumber);
    else
        w.Null();
    w.Key("kernel_slot_name").OptString(kslot);
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

/// The sizes of a volume: statvfs on the running machine, the captured
/// figures on replay (absent when the capture has none).
std::optional<VolumeSizes> SizesOf(const CSystemVolume& v, const std::map<std::string, VolumeSizes>* captured)
{
    if (!captured)
        return VolumeSizes{v.totalBytes, v.freeBytes, v.availableBytes};
    auto it = captured->find(v.mountPoint);
    return it == captured->end() ? std::nullopt : std::optional<VolumeSizes>(it->second);
}

void ShowVolumes(CJsonWriter& w, bool json, CSystemDeviceScan& scan, int count)
{
    std::map<std::string, VolumeSizes> captured;
    bool replay = !hwinfo::GetRootDirectory().empty();
    if (replay)
        captured = CapturedVolumeSizes();
    // The scan keeps a bounded number of volumes: say when the list is cut.
    bool cut = static_cast<size_t>(count) >= CSystemVolume::kMaxVolumes;
    if (cut)
        tools::Warn("the mount table lists more than %zu volumes; only the first are shown", CSystemVolume::kMaxVolumes);
    if (!json)
        printf("Volumes (%d):\n", count);
    w.Key("volumes_cut").Bool(cut);
    w.Key("volumes").BeginArray();
    for (int i = 0; i < count; ++i) {
        CSystemVolume v;
        if (!scan.GetVolume(v, i))
            continue;
        std::optional<VolumeSizes> sizes = SizesOf(v, replay ? &captured : nullptr);
        auto size = [&sizes](uint64_t VolumeSizes::*field) {
            return sizes ? std::optional<uint64_t>((*sizes).*field) : std::nullopt;
        };
        w.BeginObject();
        w.Key("device").String(v.device);
        w.Key("mount_point").String(v.mountPoint);
        w.Key("fs_type").String(v.fsType);
        w.Key("total_bytes").OptUnsigned(size(&VolumeSizes::total));
        w.Key("free_bytes").OptUnsigned(size(&VolumeSizes::free));
        w.Key("available_bytes").OptUnsigned(size(&VolumeSizes::available));
        w.EndObject();
        if (json)
            continue;
        printf("  %s on %s type %s  ", v.device.c_str(), v.mountPoint.c_str(), v.fsType.c_str());
        if (sizes)
            printf("%llu bytes, %llu available\n", static_cast<unsigned long long>(sizes->total),
                   static_cast<unsigned long long>(sizes->available));
        else
            printf("sizes not captured\n");
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

/// The slot's device address; absent when the slot is empty or the
/// structure is too short to say.
std::optional<std::string> SlotDevice(const SmbiosSystemSlot& sl)
{
    return sl.HasDeviceAddress() ? std::optional<std::string>(SlotAddress(sl)) : std::nullopt;
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
    for (auto& sl : s.slots)
        printf("  \"%s\"  ID %u  %s (0x%02x)  %s  %s  at %s\n", sl.designation ? sl.designation->c_str() : "", sl.id,
               SmbiosSlotTypeName(sl.type), sl.type, SmbiosSlotBusWidthName(sl.dataBusWidth),
               SmbiosSlotUsageName(sl.usage), SlotDevice(sl).value_or("-").c_str());
}

void WriteSystemSlots(CJsonWriter& w, const std::vector<SmbiosSystemSlot>& slots)
{
    w.Key("system_slots").BeginArray();
    for (auto& sl : slots) {
        w.BeginObject();
        w.Key("designation").OptString(sl.designation);
        w.Key("id").Unsigned(sl.id);
        w.Key("type").Unsigned(sl.type);
        w.Key("type_name").String(SmbiosSlotTypeName(sl.type));
        w.Key("data_bus_width").Unsigned(sl.dataBusWidth);
        w.Key("data_bus_width_name").String(SmbiosSlotBusWidthName(sl.dataBusWidth));
        w.Key("current_usage").Unsigned(sl.usage);
        w.Key("current_usage_name").String(SmbiosSlotUsageName(sl.usage));
        w.Key("address").OptString(SlotDevice(sl));
        w.EndObject();
    }
    w.EndArray();
}

/// The SMBIOS summary and the identity; `refused` tells that the entry
/// point is garbage (a failure of the run).  True when a table was found.
bool ShowSmbios(CJsonWriter& w, bool json, std::string& refused)
{
    SmbiosSummary s = ReadSmbios();
    if (s.refused)
        refused = s.error;
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
    WriteSystemSlots(w, s.slots);
    if (!json && !s.refused)
        PrintSmbiosText(s);
    if (s.found)
        kophw::ShowIdentity(w, json, s.identity);
    w.EndObject();
    return s.found;
}

const char* RootText()
{
    return hwinfo::GetRootDirectory().empty() ? "/" : hwinfo::GetRootDirectory().c_str();
}

/// The report; a failure is also the "error" member of the JSON document.
int Show(const Report& what, bool json)
{
    CJsonWriter w;
    w.BeginObject();
    w.Key("root").String(RootText());
    bool anything = false;
    std::string failure;
    if (what.pci)
        anything = ShowPci(w, json) || anything;
    if (what.devices && !ShowDevices(w, json, anything))
        failure = "the device scan did not run";
    if (failure.empty() && what.smbios)
        anything = ShowSmbios(w, json, failure) || anything;
    if (failure.empty() && what.net) {
        // The interfaces are the running kernel's; a root gives their details.
        const bool live = hwinfo::GetRootDirectory().empty();
        anything = kophw::ShowNet(w, json, live ? "/sys" : hwinfo::RootedPath("/sys"), live, failure) || anything;
    }
    if (failure.empty() && !anything)
        failure = std::string("no hardware information could be read under ") + RootText();
    if (!failure.empty())
        w.Key("error").String(failure);
    w.EndObject();
    if (json)
        printf("%s\n", w.Text().c_str());
    fflush(stdout);
    if (!failure.empty())
        return tools::Fail("%s", failure.c_str());
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
    /// The volume sizes: from statvfs on the running machine, copied from
    /// a capture that is captured again.
    void CaptureVolumeSizes()
    {
        if (!hwinfo::GetRootDirectory().empty()) {
            CopyFile(kVolumeSizesFile, kMaxFirmwareFile);
            return;
        }
        std::vector<CSystemVolume> volumes;
        if (!CSystemVolume::ScanSystemVolumes(volumes))
            return;
        std::string text;
        for (const CSystemVolume& v : volumes)
            text += std::to_string(v.totalBytes) + " " + std::to_string(v.freeBytes) + " " +
                    std::to_string(v.availableBytes) + " " + EscapeField(v.mountPoint) + "\n";
        Write(kVolumeSizesFile, text);
    }
    /// A capture goes into a new or empty folder only: files of an older
    /// capture left beside the new ones would replay as a machine that
    /// never was.
    bool DestinationIsFresh() const
    {
        struct stat st {};
        if (stat(m_Dest.c_str(), &st) != 0)
            return errno == ENOENT;
        return S_ISDIR(st.st_mode) && ListDir(m_Dest).empty();
    }
    int Run()
    {
        if (!DestinationIsFresh())
            return tools::Fail("%s is not a new or empty folder: capture refuses to mix snapshots", m_Dest.c_str());
        if (!tools::MakeDirectories(m_Dest))
            return tools::Fail("cannot create %s: %s", m_Dest.c_str(), strerror(errno));
        CopyFile(hwinfo::kSysfsSmbiosEntryPoint, kMaxFirmwareFile, true);
        CopyFile(hwinfo::kSysfsSmbiosTable, kMaxFirmwareFile, true);
        CopyFile(hwinfo::kEfiSystabSysfs, kMaxSmallFile);
        CopyTree(hwinfo::kProcBusPci, 3);
        for (const std::string& n : ListDir(hwinfo::RootedPath(hwinfo::kSysBlock)))
            CaptureBlockDevice(n);
        CopyFile(hwinfo::kMountTable, kMaxFirmwareFile, true);
        CaptureVolumeSizes();
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
    for (int i = 1; i < argc; ++i)
        o.json = o.json || strcmp(argv[i], "--json") == 0;
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
                return UsageWith(o.json, "option --root needs a directory");
            o.root = argv[++i];
        } else if (!a.empty() && a[0] == '-') {
            return UsageWith(o.json, "unknown option '%s'", a.c_str());
        } else {
            o.args.push_back(a);
        }
    }
    return -1;
}

/// Reads everything under `root` from now on; -1 to go on, else the exit status.
int UseRoot(std::string root, bool json)
{
    if (root.empty())
        return -1;
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return FailWith(json, "%s is not a directory", root.c_str());
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
            return UsageWith(o.json, "usage: capture DIR");
        std::string dest = o.args[1];
        while (dest.size() > 1 && dest.back() == '/')
            dest.pop_back();
        return Capture(dest).Run();
    }
    if (o.args.size() > 1)
        return UsageWith(o.json, "too many arguments");
    Report r;
    if (cmd == "all")
        r = {true, true, true};
    else if (cmd == "pci")
        r.pci = true;
    else if (cmd == "devices")
        r.devices = true;
    else if (cmd == "smbios")
        r.smbios = true;
    else if (cmd == "net")
        r.net = true;
    else
        return UsageWith(o.json, "unknown command '%s'", cmd.c_str());
    return Show(r, o.json);
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("kophw");
    Options o;
    int rc = ParseOptions(argc, argv, o);
    if (rc < 0)
        rc = UseRoot(o.root, o.json);
    return rc < 0 ? RunCommand(o) : rc;
}

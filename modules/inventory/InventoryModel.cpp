// The inventory's registry form and the comparison of two inventories.
#include "modules/inventory/InventoryModel.h"

#include "modules/common/RegistryNames.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <tuple>

#include "hwinfo/CSMBios.h"
#include "hwinfo/CSystemDeviceScan.h"
#include "hwinfo/SmbiosIdentity.h"
#include "registry/CRegistry.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"

namespace inventory {

namespace {

constexpr uint32_t kTypeText = 1;
constexpr uint32_t kTypeExpandText = 2;
constexpr uint32_t kTypeNumber = 4;

// Key names below Identity; processors, memory arrays and memory devices
// are numbered in table order from 01 ("Memory 03").
constexpr const char *kIdentityBios = "BIOS", *kIdentitySystem = "System", *kIdentityBaseboard = "Baseboard",
                     *kIdentityChassis = "Chassis", *kIdentityProcessor = "Processor",
                     *kIdentityMemoryArray = "MemoryArray", *kIdentityMemory = "Memory";

uint32_t Clamp32(uint64_t v)
{
    return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(v);
}

uint32_t Megabytes(uint64_t bytes)
{
    return Clamp32(bytes / (1024 * 1024));
}

const Value* Find(const Properties& props, const char* name)
{
    auto it = props.find(name);
    return it == props.end() ? nullptr : &it->second;
}

uint32_t Num(const Properties& props, const char* name, uint32_t fallback = 0)
{
    const Value* v = Find(props, name);
    return v && v->type == kTypeNumber ? v->number : fallback;
}

std::string Txt(const Properties& props, const char* name)
{
    const Value* v = Find(props, name);
    return v && v->type != kTypeNumber ? v->text : std::string();
}

std::string SlotText(uint32_t slot)
{
    return slot == kNoSlot ? std::string("no slot") : "slot " + std::to_string(slot);
}

using AdapterIdentity = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;

AdapterIdentity IdentityOf(const Properties& p)
{
    return {Num(p, "VendorId"), Num(p, "DeviceId"), Num(p, "SubVendorId"), Num(p, "SubDeviceId")};
}

std::string AdapterSummary(const std::string& address, const Properties& p)
{
    char ids[16];
    snprintf(ids, sizeof ids, "%04x:%04x", Num(p, "VendorId") & 0xFFFF, Num(p, "DeviceId") & 0xFFFF);
    return std::string(ids) + " " + Txt(p, "Name") + " at " + address + ", " + SlotText(Num(p, "Slot", kNoSlot));
}

std::string DriveSummary(const Properties& p)
{
    std::string text = Txt(p, "Vendor");
    if (!text.empty())
        text += " ";
    text += Txt(p, "Model") + ", " + std::to_string(Num(p, "SizeMB")) + " MB";
    std::string host = Txt(p, "HostAdapter");
    if (!host.empty())
        text += ", host adapter " + host;
    return text;
}

std::string VolumeSummary(const Properties& p)
{
    return Txt(p, "Device") + " (" + Txt(p, "FileSystem") + ", " + std::to_string(Num(p, "TotalMB")) + " MB)";
}

/// Keys only in `a`, in key order.
std::vector<std::string> OnlyIn(const Category& a, const Category& b)
{
    std::vector<std::string> out;
    for (const auto& [name, props] : a)
        if (!b.count(name))
            out.push_back(name);
    return out;
}

bool OpenInventory(CRegistry& reg, bool create)
{
    if (create)
        return reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, kInventoryKey) == 0;
    return reg.Open(kInventoryKey, CRegistry::HKEY_LOCAL_MACHINE) == 0;
}

/// The text and number values of the current key.
Properties ReadValues(CRegistry& reg)
{
    Properties props;
    CRegistryNode* key = reg.GetKey();
    for (const std::string& name : tarvdmod::ValueNames(reg)) {
        unsigned char* data = reg.GetValue(name.c_str(), key);
        if (!data)
            continue;
        uint32_t type = reg.GetLastType();
        if (type == kTypeNumber && reg.GetLastSize() == 4) {
            uint32_t n;
            memcpy(&n, data, sizeof n);
            props[name] = Value::Number(n);
        } else if (type == kTypeText || type == kTypeExpandText) {
            props[name] = Value::Text(reinterpret_cast<const char*>(data));
        }
    }
    return props;
}

/// Writes `props` into the current key where they differ; with `exact`,
/// values not in `props` are deleted.
void WriteValues(CRegistry& reg, const Properties& props, bool exact)
{
    if (exact) {
        for (const std::string& name : tarvdmod::ValueNames(reg))
            if (!props.count(name))
                reg.DeleteValue(name.c_str());
    }
    for (const auto& [name, value] : props) {
        if (value.type == kTypeNumber) {
            unsigned current = 0;
            if (reg.QueryValue(&current, name.c_str()) == CRegistry::kOk && current == value.number)
                continue;
            reg.SetValue(name.c_str(), value.number);
        } else {
            std::string current;
            if (reg.QueryValue(current, name.c_str()) == CRegistry::kOk && current == value.text)
                continue;
            reg.SetValue(name.c_str(), value.text.c_str());
        }
    }
}

/// Identity values: texts only where the firmware states them.
void PutText(Properties& p, const char* name, const SmbiosText& text)
{
    if (text)
        p[name] = Value::Text(SanitizeText(*text));
}

void PutNumber(Properties& p, const char* name, std::optional<uint64_t> n)
{
    if (n)
        p[name] = Value::Number(Clamp32(*n));
}

std::optional<uint64_t> Opt(std::optional<unsigned> v)
{
    return v ? std::optional<uint64_t>(*v) : std::nullopt;
}

std::optional<uint64_t> InMegabytes(std::optional<uint64_t> bytes)
{
    return bytes ? std::optional<uint64_t>(*bytes / (1024 * 1024)) : std::nullopt;
}

/// "Memory 03": the key of the third item of a numbered identity part.
std::string Numbered(const char* part, size_t index)
{
    char name[48];
    snprintf(name, sizeof name, "%s %02zu", part, index + 1);
    return name;
}

Properties BiosValues(const SmbiosBiosInfo& b)
{
    Properties p;
    PutText(p, "Vendor", b.vendor);
    PutText(p, "Version", b.version);
    PutText(p, "ReleaseDate", b.releaseDate);
    PutNumber(p, "RomSizeKB", b.romSizeBytes ? std::optional<uint64_t>(*b.romSizeBytes / 1024) : std::nullopt);
    if (b.biosMajor)
        p["Revision"] = Value::Text(std::to_string(*b.biosMajor) + "." + std::to_string(b.biosMinor.value_or(0)));
    return p;
}

Properties SystemValues(const SmbiosSystemInfo& s)
{
    Properties p;
    PutText(p, "Manufacturer", s.manufacturer);
    PutText(p, "ProductName", s.productName);
    PutText(p, "Version", s.version);
    PutText(p, "SerialNumber", s.serialNumber);
    PutText(p, "UUID", s.uuid);
    PutText(p, "SKUNumber", s.skuNumber);
    PutText(p, "Family", s.family);
    return p;
}

Properties BoardValues(const SmbiosBaseboardInfo& b)
{
    Properties p;
    PutText(p, "Manufacturer", b.manufacturer);
    PutText(p, "ProductName", b.productName);
    PutText(p, "Version", b.version);
    PutText(p, "SerialNumber", b.serialNumber);
    PutText(p, "AssetTag", b.assetTag);
    return p;
}

Properties ChassisValues(const SmbiosChassisInfo& c)
{
    Properties p;
    PutText(p, "Manufacturer", c.manufacturer);
    PutNumber(p, "Type", Opt(c.type));
    if (c.type)
        p["TypeName"] = Value::Text(SmbiosChassisTypeName(*c.type));
    PutText(p, "Version", c.version);
    PutText(p, "SerialNumber", c.serialNumber);
    PutText(p, "AssetTag", c.assetTag);
    return p;
}

Properties ProcessorValues(const SmbiosProcessorInfo& c)
{
    Properties p;
    PutText(p, "Socket", c.socket);
    PutNumber(p, "Family", Opt(c.family));
    PutText(p, "Manufacturer", c.manufacturer);
    PutText(p, "Version", c.version);
    PutNumber(p, "MaxSpeedMHz", Opt(c.maxSpeedMHz));
    PutNumber(p, "CurrentSpeedMHz", Opt(c.currentSpeedMHz));
    p["Populated"] = Value::Number(c.populated ? 1 : 0);
    PutNumber(p, "CoreCount", Opt(c.coreCount));
    PutNumber(p, "CoresEnabled", Opt(c.coresEnabled));
    PutNumber(p, "ThreadCount", Opt(c.threadCount));
    return p;
}

Properties MemoryArrayValues(const SmbiosMemoryArrayInfo& a)
{
    Properties p;
    PutNumber(p, "Location", Opt(a.location));
    PutNumber(p, "Use", Opt(a.use));
    PutNumber(p, "ErrorCorrection", Opt(a.errorCorrection));
    PutNumber(p, "MaxCapacityMB", InMegabytes(a.maxCapacityBytes));
    PutNumber(p, "Devices", Opt(a.deviceCount));
    return p;
}

Properties MemoryValues(const SmbiosMemoryDeviceInfo& m)
{
    Properties p;
    PutText(p, "Locator", m.locator);
    PutText(p, "BankLocator", m.bankLocator);
    p["Installed"] = Value::Number(m.installed ? 1 : 0);
    PutNumber(p, "SizeMB", InMegabytes(m.sizeBytes));
    PutNumber(p, "Type", Opt(m.type));
    PutNumber(p, "SpeedMTs", Opt(m.speedMTs));
    PutText(p, "Manufacturer", m.manufacturer);
    PutText(p, "SerialNumber", m.serialNumber);
    PutText(p, "PartNumber", m.partNumber);
    return p;
}

std::string ValueText(const Properties& p, const std::string& name)
{
    auto it = p.find(name);
    if (it == p.end())
        return "-";
    return it->second.type == kTypeNumber ? std::to_string(it->second.number) : it->second.text;
}

/// "Version: A -> B; ..." for the values that differ.
std::string Differences(const Properties& before, const Properties& after)
{
    std::set<std::string> names;
    for (const auto& [name, value] : before)
        names.insert(name);
    for (const auto& [name, value] : after)
        names.insert(name);
    std::string text;
    for (const std::string& name : names) {
        auto a = before.find(name), b = after.find(name);
        if (a != before.end() && b != after.end() && a->second == b->second)
            continue;
        text += (text.empty() ? "" : "; ") + name + ": " + ValueText(before, name) + " -> " + ValueText(after, name);
    }
    return text;
}

bool IsMemory(const std::string& key)
{
    return key.rfind(std::string(kIdentityMemory) + " ", 0) == 0;
}

/// A change of one identity key; `before`/`after` null when the key is new or gone.
void CompareIdentityKey(const std::string& key, const Properties* before, const Properties* after,
                        std::vector<Change>& changes)
{
    if (IsMemory(key)) {
        bool was = before && Num(*before, "Installed") != 0, is = after && Num(*after, "Installed") != 0;
        if (was != is) {
            const Properties& p = is ? *after : *before;
            changes.push_back({is ? ChangeKind::MemoryAdded : ChangeKind::MemoryRemoved, key,
                               Txt(p, "Locator") + ", " + std::to_string(Num(p, "SizeMB")) + " MB " +
                                   Txt(p, "PartNumber")});
            return;
        }
    }
    Properties none;
    std::string diff = Differences(before ? *before : none, after ? *after : none);
    if (!diff.empty())
        changes.push_back({ChangeKind::IdentityChanged, key, diff});
}

} // namespace

Value Value::Text(const std::string& t)
{
    Value v;
    v.type = kTypeText;
    v.text = t;
    return v;
}

Value Value::Number(uint32_t n)
{
    Value v;
    v.type = kTypeNumber;
    v.number = n;
    return v;
}

bool Value::operator==(const Value& other) const
{
    if (type != other.type)
        return false;
    return type == kTypeNumber ? number == other.number : text == other.text;
}

const char* ChangeKindName(ChangeKind kind)
{
    switch (kind) {
    case ChangeKind::AdapterAdded: return "AdapterAdded";
    case ChangeKind::AdapterRemoved: return "AdapterRemoved";
    case ChangeKind::AdapterMoved: return "AdapterMoved";
    case ChangeKind::DriveAdded: return "DriveAdded";
    case ChangeKind::DriveRemoved: return "DriveRemoved";
    case ChangeKind::DriveMoved: return "DriveMoved";
    case ChangeKind::VolumeAdded: return "VolumeAdded";
    case ChangeKind::VolumeRemoved: return "VolumeRemoved";
    case ChangeKind::VolumeChanged: return "VolumeChanged";
    case ChangeKind::IdentityChanged: return "IdentityChanged";
    case ChangeKind::MemoryAdded: return "MemoryAdded";
    case ChangeKind::MemoryRemoved: return "MemoryRemoved";
    case ChangeKind::InterfaceAdded: return "InterfaceAdded";
    case ChangeKind::InterfaceRemoved: return "InterfaceRemoved";
    case ChangeKind::LinkUp: return "LinkUp";
    case ChangeKind::LinkDown: return "LinkDown";
    case ChangeKind::SpeedChanged: return "SpeedChanged";
    case ChangeKind::AddressAdded: return "AddressAdded";
    case ChangeKind::AddressRemoved: return "AddressRemoved";
    case ChangeKind::MacChanged: return "MacChanged";
    }
    return "Unknown";
}

std::string EscapeKeyName(const std::string& text)
{
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c < 0x20 || c >= 0x7F || c == '%' || c == '/' || c == '\\' || c == '[' || c == ']' || c == '=') {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string UnescapeKeyName(const std::string& name)
{
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        return -1;
    };
    std::string out;
    out.reserve(name.size());
    for (size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '%' && i + 2 < name.size()) {
            int hi = hex(name[i + 1]), lo = hex(name[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += name[i];
    }
    return out;
}

std::string SanitizeText(const std::string& text)
{
    std::string out = text.substr(0, kMaxText);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '?';
    return out;
}

Properties AdapterProperties(const CSystemAdapter& a)
{
    Properties p;
    p["PciAddress"] = Value::Text(a.GetPciAddress().ToString());
    p["VendorId"] = Value::Number(a.vendorId);
    p["DeviceId"] = Value::Number(a.deviceId);
    p["SubVendorId"] = Value::Number(a.subVendorId);
    p["SubDeviceId"] = Value::Number(a.subDeviceId);
    p["BaseClass"] = Value::Number(a.baseClass);
    p["SubClass"] = Value::Number(a.subClass);
    p["Ids"] = Value::Text(SanitizeText(a.deviceIdText));
    p["ClassName"] = Value::Text(SanitizeText(a.className));
    p["SubClassName"] = Value::Text(SanitizeText(a.subClassName));
    p["Name"] = Value::Text(SanitizeText(a.name));
    p["Slot"] = Value::Number(a.slot < 0 ? kNoSlot : static_cast<uint32_t>(a.slot));
    return p;
}

Properties DriveProperties(const CSystemDrive& d, const std::string& hostAdapter)
{
    Properties p;
    p["Name"] = Value::Text(SanitizeText(d.name));
    p["Model"] = Value::Text(SanitizeText(d.model));
    p["Vendor"] = Value::Text(SanitizeText(d.vendor));
    p["SizeMB"] = Value::Number(Megabytes(d.sizeBytes));
    p["SizeBytes"] = Value::Text(std::to_string(d.sizeBytes));
    p["HostAdapter"] = Value::Text(hostAdapter);
    return p;
}

Properties VolumeProperties(const CSystemVolume& v)
{
    Properties p;
    p["MountPoint"] = Value::Text(SanitizeText(v.mountPoint));
    p["Device"] = Value::Text(SanitizeText(v.device));
    p["FileSystem"] = Value::Text(SanitizeText(v.fsType));
    p["TotalMB"] = Value::Number(Megabytes(v.totalBytes));
    p["FreeMB"] = Value::Number(Megabytes(v.freeBytes));
    p["AvailableMB"] = Value::Number(Megabytes(v.availableBytes));
    return p;
}

Category CollectVolumes(CSystemDeviceScan& scan)
{
    Category volumes;
    int count = scan.GetVolumeCount();
    for (int i = 0; i < count; ++i) {
        CSystemVolume v;
        if (!scan.GetVolume(v, i))
            continue;
        std::string name = EscapeKeyName(v.mountPoint);
        if (name.empty() || name.size() > kMaxKeyName) {
            DBG_PRINT(3, "\nInventoryModule     : volume with an overlong mount point not published (%zu characters)",
                      v.mountPoint.size());
            continue;
        }
        volumes[name] = VolumeProperties(v);
    }
    return volumes;
}

Inventory CollectInventory(CSystemDeviceScan& scan)
{
    Inventory inv;
    int count = scan.GetAdapterCount();
    for (int i = 0; i < count; ++i) {
        CSystemAdapter a;
        try {
            if (!scan.GetAdapter(a, i))
                continue;
        } catch (const std::out_of_range&) {
            break;  // the list shrank in between (a rescan)
        }
        std::string address = a.GetPciAddress().ToString();
        inv.adapters[address] = AdapterProperties(a);
        CSystemDriveList drives;
        if (!scan.GetHostDrives(drives, a))
            continue;
        for (const CSystemDrive& d : drives) {
            std::string name = EscapeKeyName(d.name);
            if (!name.empty() && name.size() <= kMaxKeyName)
                inv.drives[name] = DriveProperties(d, address);
        }
    }
    inv.volumes = CollectVolumes(scan);
    return inv;
}

Category IdentityCategory(const SmbiosIdentity& id)
{
    Category c;
    if (!id.bios && !id.system)
        return c;
    if (id.bios)
        c[kIdentityBios] = BiosValues(*id.bios);
    if (id.system)
        c[kIdentitySystem] = SystemValues(*id.system);
    if (id.baseboard)
        c[kIdentityBaseboard] = BoardValues(*id.baseboard);
    if (id.chassis)
        c[kIdentityChassis] = ChassisValues(*id.chassis);
    for (size_t i = 0; i < id.processors.size(); ++i)
        c[Numbered(kIdentityProcessor, i)] = ProcessorValues(id.processors[i]);
    for (size_t i = 0; i < id.memoryArrays.size(); ++i)
        c[Numbered(kIdentityMemoryArray, i)] = MemoryArrayValues(id.memoryArrays[i]);
    for (size_t i = 0; i < id.memoryDevices.size(); ++i)
        c[Numbered(kIdentityMemory, i)] = MemoryValues(id.memoryDevices[i]);
    return c;
}

Category CollectIdentity()
{
    CSMBios bios;
    if (!bios.Connect() && bios.GetIndexedCount() == 0) {
        DBG_PRINT(2, "\nInventoryModule     : no SMBIOS table: the machine identity is not published");
        return {};
    }
    return IdentityCategory(DecodeSmbiosIdentity(bios));
}

std::vector<Change> CompareIdentity(const Category& stored, const Category& now)
{
    std::vector<Change> changes;
    for (const auto& [key, props] : now) {
        auto old = stored.find(key);
        CompareIdentityKey(key, old == stored.end() ? nullptr : &old->second, &props, changes);
    }
    for (const std::string& key : OnlyIn(stored, now))
        CompareIdentityKey(key, &stored.at(key), nullptr, changes);
    return changes;
}

std::vector<Change> CompareAdapters(const Category& stored, const Category& now)
{
    std::vector<Change> changes;
    std::vector<std::string> removed = OnlyIn(stored, now);
    std::vector<std::string> added = OnlyIn(now, stored);
    for (const auto& [address, props] : now) {
        auto old = stored.find(address);
        if (old == stored.end())
            continue;
        if (IdentityOf(old->second) != IdentityOf(props)) {
            // Another card at the same address: the old one went, a new one came.
            changes.push_back({ChangeKind::AdapterRemoved, address, AdapterSummary(address, old->second)});
            changes.push_back({ChangeKind::AdapterAdded, address, AdapterSummary(address, props)});
        } else if (Num(old->second, "Slot", kNoSlot) != Num(props, "Slot", kNoSlot)) {
            changes.push_back({ChangeKind::AdapterMoved, address,
                               SlotText(Num(old->second, "Slot", kNoSlot)) + " -> " +
                                   SlotText(Num(props, "Slot", kNoSlot))});
        }
    }
    // A card taken out at one address and put in at another (another slot
    // usually means another bus) is one move.
    std::vector<bool> paired(added.size(), false);
    std::vector<Change> moves;
    std::set<std::string> movedFrom;
    for (const std::string& from : removed) {
        const Properties& oldProps = stored.at(from);
        for (size_t j = 0; j < added.size(); ++j) {
            if (paired[j] || IdentityOf(now.at(added[j])) != IdentityOf(oldProps))
                continue;
            paired[j] = true;
            movedFrom.insert(from);
            const Properties& newProps = now.at(added[j]);
            moves.push_back({ChangeKind::AdapterMoved, added[j],
                             from + " " + SlotText(Num(oldProps, "Slot", kNoSlot)) + " -> " + added[j] + " " +
                                 SlotText(Num(newProps, "Slot", kNoSlot))});
            break;
        }
    }
    for (const std::string& from : removed)
        if (!movedFrom.count(from))
            changes.push_back({ChangeKind::AdapterRemoved, from, AdapterSummary(from, stored.at(from))});
    for (size_t j = 0; j < added.size(); ++j)
        if (!paired[j])
            changes.push_back({ChangeKind::AdapterAdded, added[j], AdapterSummary(added[j], now.at(added[j]))});
    changes.insert(changes.end(), moves.begin(), moves.end());
    return changes;
}

std::vector<Change> CompareDrives(const Category& stored, const Category& now)
{
    std::vector<Change> changes;
    for (const auto& [name, props] : now) {
        auto old = stored.find(name);
        if (old == stored.end())
            continue;
        std::string before = Txt(old->second, "HostAdapter"), after = Txt(props, "HostAdapter");
        if (before != after)
            changes.push_back({ChangeKind::DriveMoved, UnescapeKeyName(name),
                               "host adapter " + before + " -> " + after});
    }
    for (const std::string& name : OnlyIn(stored, now))
        changes.push_back({ChangeKind::DriveRemoved, UnescapeKeyName(name), DriveSummary(stored.at(name))});
    for (const std::string& name : OnlyIn(now, stored))
        changes.push_back({ChangeKind::DriveAdded, UnescapeKeyName(name), DriveSummary(now.at(name))});
    return changes;
}

std::vector<Change> CompareVolumes(const Category& stored, const Category& now)
{
    std::vector<Change> changes;
    for (const auto& [name, props] : now) {
        auto old = stored.find(name);
        if (old == stored.end())
            continue;
        std::string before = Txt(old->second, "Device"), after = Txt(props, "Device");
        if (before != after)
            changes.push_back({ChangeKind::VolumeChanged, UnescapeKeyName(name), before + " -> " + after});
    }
    for (const std::string& name : OnlyIn(stored, now))
        changes.push_back({ChangeKind::VolumeRemoved, UnescapeKeyName(name), VolumeSummary(stored.at(name))});
    for (const std::string& name : OnlyIn(now, stored))
        changes.push_back({ChangeKind::VolumeAdded, UnescapeKeyName(name), VolumeSummary(now.at(name))});
    return changes;
}

bool ReadCategory(CRegistry& reg, const char* name, Category& out)
{
    out.clear();
    if (!OpenInventory(reg, false) || reg.Open(name, reg.GetKey()) != 0)
        return false;
    CRegistryNode* category = reg.GetKey();
    for (const std::string& item : tarvdmod::SubKeyNames(reg)) {
        if (reg.Open(item.c_str(), category) != 0)
            continue;
        out[item] = ReadValues(reg);
    }
    return true;
}

bool WriteCategory(CRegistry& reg, const char* name, const Category& items)
{
    if (!OpenInventory(reg, true) || reg.CreateKey(nullptr, name) != 0) {
        ReportFailure(SysLogTraces::SL_ERR, "\nInventoryModule     : ## ERROR! cannot create the registry key %s\\%s", kInventoryKey, name);
        return false;
    }
    CRegistryNode* category = reg.GetKey();
    for (const std::string& existing : tarvdmod::SubKeyNames(reg))
        if (!items.count(existing))
            reg.DeleteKey(existing.c_str());
    for (const auto& [item, props] : items) {
        if (reg.CreateKey(category, item.c_str()) != 0) {
            ReportFailure(SysLogTraces::SL_ERR, "\nInventoryModule     : ## ERROR! cannot create the registry key %s\\%s\\%s", kInventoryKey,
                      name, item.c_str());
            continue;
        }
        WriteValues(reg, props, true);
    }
    return true;
}

uint32_t RecordChanges(CRegistry& reg, const std::vector<Change>& changes, const std::string& isoTime, unsigned keep)
{
    if (keep < 1)
        keep = 1;
    uint32_t sequence = 0;
    if (!OpenInventory(reg, true))
        return 0;
    CRegistryNode* inventoryKey = reg.GetKey();
    unsigned stored = 0;
    if (reg.QueryValue(&stored, "LastChange") == CRegistry::kOk)
        sequence = stored;
    if (changes.empty())
        return sequence;
    if (reg.CreateKey(inventoryKey, kChangesKey) != 0)
        return sequence;
    CRegistryNode* changesKey = reg.GetKey();
    for (const Change& change : changes) {
        ++sequence;
        char name[16];
        snprintf(name, sizeof name, "%010u", sequence);
        if (reg.CreateKey(changesKey, name) != 0)
            continue;
        Properties p;
        p["Time"] = Value::Text(isoTime);
        p["Kind"] = Value::Text(ChangeKindName(change.kind));
        p["Object"] = Value::Text(SanitizeText(change.object));
        p["Detail"] = Value::Text(SanitizeText(change.detail));
        WriteValues(reg, p, true);
    }
    // Names are zero-padded numbers, so the key order is the order of time.
    reg.Open("", changesKey);
    std::vector<std::string> names = tarvdmod::SubKeyNames(reg);
    for (size_t i = 0; i + keep < names.size(); ++i)
        reg.DeleteKey(names[i].c_str());
    reg.Open("", inventoryKey);
    reg.SetValue("LastChange", sequence);
    return sequence;
}

bool ReadSummaryNumber(CRegistry& reg, const char* name, uint32_t& out)
{
    unsigned value = 0;
    if (!OpenInventory(reg, false) || reg.QueryValue(&value, name) != CRegistry::kOk)
        return false;
    out = value;
    return true;
}

bool WriteSummary(CRegistry& reg, const Properties& values)
{
    if (!OpenInventory(reg, true))
        return false;
    WriteValues(reg, values, false);
    return true;
}

} // namespace inventory

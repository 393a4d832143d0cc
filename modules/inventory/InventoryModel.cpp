// The inventory's registry form and the comparison of two inventories.
#include "modules/inventory/InventoryModel.h"

#include "modules/common/RegistryNames.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <tuple>

#include "hwinfo/CSystemDeviceScan.h"
#include "registry/CRegistry.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"

namespace inventory {

namespace {

constexpr uint32_t kTypeText = 1;
constexpr uint32_t kTypeExpandText = 2;
constexpr uint32_t kTypeNumber = 4;

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

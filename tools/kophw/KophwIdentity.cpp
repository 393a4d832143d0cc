#include "tools/kophw/KophwIdentity.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace kophw {

namespace {

/// Text of an absent field: the firmware did not state it.
constexpr const char* kNotSpecified = "Not Specified";

/// One field: its JSON member(s) and its text line.
struct Field {
    const char* label;
    const char* key;
    std::optional<std::string> text;  ///< a string member (or the name of a code)
    std::optional<uint64_t> number;   ///< a number member
    bool isNumber = false;
    std::string unit;        ///< after the number in text
    bool withName = false;   ///< number plus "<key>_name" text
    const char* absent = kNotSpecified;  ///< text of an absent number
};
using Section = std::vector<Field>;

Field Text(const char* label, const char* key, const SmbiosText& t)
{
    return {label, key, t, std::nullopt, false, "", false};
}

Field Number(const char* label, const char* key, std::optional<uint64_t> n, const char* unit = "")
{
    return {label, key, std::nullopt, n, true, unit, false};
}

Field Code(const char* label, const char* key, std::optional<unsigned> code, const char* (*name)(unsigned))
{
    Field f{label, key, std::nullopt, std::nullopt, true, "", true};
    if (code) {
        f.number = *code;
        f.text = name(*code);
    }
    return f;
}

std::optional<uint64_t> Opt(std::optional<unsigned> v)
{
    return v ? std::optional<uint64_t>(*v) : std::nullopt;
}

std::string Bytes(uint64_t b)
{
    static const char* const kUnits[] = {"bytes", "KB", "MB", "GB", "TB"};
    int u = 0;
    while (u < 4 && b >= 1024 && b % 1024 == 0) {
        b /= 1024;
        ++u;
    }
    return std::to_string(b) + " " + kUnits[u];
}

void Emit(CJsonWriter& w, bool json, const char* title, const Section& fields)
{
    w.BeginObject();
    if (!json)
        printf("%s\n", title);
    for (const Field& f : fields) {
        std::string line;
        if (!f.isNumber) {
            w.Key(f.key).OptString(f.text);
            line = f.text.value_or(kNotSpecified);
        } else {
            w.Key(f.key).OptUnsigned(f.number);
            if (f.withName) {
                w.Key(std::string(f.key) + "_name").OptString(f.text);
                char code[16];
                snprintf(code, sizeof code, " (0x%02llx)", static_cast<unsigned long long>(f.number.value_or(0)));
                line = f.text ? *f.text + code : kNotSpecified;
            } else if (f.number) {
                line = f.unit == "bytes" ? Bytes(*f.number) : std::to_string(*f.number) + f.unit;
            } else {
                line = f.absent;
            }
        }
        if (!json)
            printf("  %s: %s\n", f.label, line.c_str());
    }
    w.EndObject();
}

template <typename T>
void EmitOne(CJsonWriter& w, bool json, const char* key, const char* title, const std::optional<T>& item,
             const std::function<Section(const T&)>& fields)
{
    w.Key(key);
    if (item)
        Emit(w, json, title, fields(*item));
    else
        w.Null();
}

template <typename T>
void EmitList(CJsonWriter& w, bool json, const char* key, const char* title, const std::vector<T>& items,
              const std::function<Section(const T&)>& fields)
{
    w.Key(key).BeginArray();
    for (const T& item : items)
        Emit(w, json, title, fields(item));
    w.EndArray();
}

Section BiosFields(const SmbiosBiosInfo& b)
{
    std::optional<std::string> revision;
    if (b.biosMajor)
        revision = std::to_string(*b.biosMajor) + "." + std::to_string(b.biosMinor.value_or(0));
    return {Text("Vendor", "vendor", b.vendor), Text("Version", "version", b.version),
            Text("Release Date", "release_date", b.releaseDate), Number("ROM Size", "rom_size_bytes", b.romSizeBytes, "bytes"),
            Text("BIOS Revision", "bios_revision", revision)};
}

Section SystemFields(const SmbiosSystemInfo& s)
{
    return {Text("Manufacturer", "manufacturer", s.manufacturer), Text("Product Name", "product_name", s.productName),
            Text("Version", "version", s.version), Text("Serial Number", "serial_number", s.serialNumber),
            Text("UUID", "uuid", s.uuid), Text("SKU Number", "sku_number", s.skuNumber),
            Text("Family", "family", s.family)};
}

Section BaseboardFields(const SmbiosBaseboardInfo& b)
{
    return {Text("Manufacturer", "manufacturer", b.manufacturer), Text("Product Name", "product_name", b.productName),
            Text("Version", "version", b.version), Text("Serial Number", "serial_number", b.serialNumber),
            Text("Asset Tag", "asset_tag", b.assetTag)};
}

Section ChassisFields(const SmbiosChassisInfo& c)
{
    return {Text("Manufacturer", "manufacturer", c.manufacturer), Code("Type", "type", c.type, SmbiosChassisTypeName),
            Text("Version", "version", c.version), Text("Serial Number", "serial_number", c.serialNumber),
            Text("Asset Tag", "asset_tag", c.assetTag)};
}

Section ProcessorFields(const SmbiosProcessorInfo& p)
{
    return {Text("Socket Designation", "socket", p.socket),
            Code("Family", "family", p.family, SmbiosProcessorFamilyName),
            Text("Manufacturer", "manufacturer", p.manufacturer), Text("Version", "version", p.version),
            Number("Max Speed", "max_speed_mhz", Opt(p.maxSpeedMHz), " MHz"),
            Number("Current Speed", "current_speed_mhz", Opt(p.currentSpeedMHz), " MHz"),
            Text("Populated", "populated", std::string(p.populated ? "yes" : "no")),
            Number("Core Count", "core_count", Opt(p.coreCount)),
            Number("Core Enabled", "cores_enabled", Opt(p.coresEnabled)),
            Number("Thread Count", "thread_count", Opt(p.threadCount))};
}

Section ArrayFields(const SmbiosMemoryArrayInfo& a)
{
    return {Code("Location", "location", a.location, SmbiosArrayLocationName),
            Code("Use", "use", a.use, SmbiosArrayUseName),
            Code("Error Correction Type", "error_correction", a.errorCorrection, SmbiosErrorCorrectionName),
            Number("Maximum Capacity", "max_capacity_bytes", a.maxCapacityBytes, "bytes"),
            Number("Number Of Devices", "devices", Opt(a.deviceCount))};
}

Section DeviceFields(const SmbiosMemoryDeviceInfo& m)
{
    Field size = Number("Size", "size_bytes", m.sizeBytes, "bytes");
    if (!m.installed)
        size.absent = "No Module Installed";  // JSON: null, with "installed" "no"
    return {Text("Locator", "locator", m.locator), Text("Bank Locator", "bank_locator", m.bankLocator),
            Field{"Installed", "installed", std::string(m.installed ? "yes" : "no"), std::nullopt, false, "", false},
            size, Code("Type", "type", m.type, SmbiosMemoryTypeName),
            Number("Speed", "speed_mts", Opt(m.speedMTs), " MT/s"),
            Text("Manufacturer", "manufacturer", m.manufacturer), Text("Serial Number", "serial_number", m.serialNumber),
            Text("Part Number", "part_number", m.partNumber)};
}

} // namespace

void ShowIdentity(CJsonWriter& w, bool json, const SmbiosIdentity& id)
{
    w.Key("identity").BeginObject();
    EmitOne<SmbiosBiosInfo>(w, json, "bios", "BIOS Information", id.bios, BiosFields);
    EmitOne<SmbiosSystemInfo>(w, json, "system", "System Information", id.system, SystemFields);
    EmitOne<SmbiosBaseboardInfo>(w, json, "baseboard", "Base Board Information", id.baseboard, BaseboardFields);
    EmitOne<SmbiosChassisInfo>(w, json, "chassis", "Chassis Information", id.chassis, ChassisFields);
    EmitList<SmbiosProcessorInfo>(w, json, "processors", "Processor Information", id.processors, ProcessorFields);
    EmitList<SmbiosMemoryArrayInfo>(w, json, "memory_arrays", "Physical Memory Array", id.memoryArrays, ArrayFields);
    EmitList<SmbiosMemoryDeviceInfo>(w, json, "memory_devices", "Memory Device", id.memoryDevices, DeviceFields);
    w.EndObject();
}

} // namespace kophw

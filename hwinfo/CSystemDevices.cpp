#include "hwinfo/CSystemDevices.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "common/FileIO.h"
#include "common/NumberParse.h"
#include "common/CTRString.h"
#include "common/UniqueHandle.h"
#include "hwinfo/HwDirectory.h"
#include "hwinfo/HwPaths.h"
#include "trace/CDebug.h"
#include "trace/CIniFile.h"

namespace {

constexpr const char* kAdapterSection = "Adapters";
constexpr size_t kMaxAttributeFile = 4096;
constexpr size_t kMaxMountLine = 8192;

// A small sysfs attribute, without trailing white space.
std::string ReadAttribute(const std::string& path)
{
    std::string text;
    if (tarvd::ReadFileBounded(path.c_str(), kMaxAttributeFile, text) != 0)
        return {};
    size_t nul = text.find('\0');
    if (nul != std::string::npos)
        text.resize(nul);
    while (!text.empty() && isspace(static_cast<unsigned char>(text.back())))
        text.pop_back();
    size_t start = 0;
    while (start < text.size() && isspace(static_cast<unsigned char>(text[start])))
        ++start;
    return text.substr(start);
}

bool HexField(const std::string& s, size_t pos, size_t n)
{
    if (pos + n > s.size())
        return false;
    for (size_t i = pos; i < pos + n; ++i) {
        if (tarvd::HexDigitValue(s[i]) < 0)
            return false;
    }
    return true;
}

// Undoes the octal escapes (\040 for a blank, ...) of the mount table.
std::string UnescapeMountField(const std::string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] >= '0' && s[i + 1] <= '3' && s[i + 2] >= '0' &&
            s[i + 2] <= '7' && s[i + 3] >= '0' && s[i + 3] <= '7') {
            out += static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0'));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

} // namespace

// ---------------------------------------------------------------------------
// Adapters

std::string CSystemAdapter::LookupAdapterName(uint16_t vendor, uint16_t device, uint16_t subVendor, uint16_t subDevice)
{
    std::string file = hwinfo::RootedPath(hwinfo::kAdapterIniFile);
    char value[256] = "";
    CTRString key;
    key.Format("%04x:%04x:%04x:%04x", vendor, device, subVendor, subDevice);
    GetPrivateProfileString(kAdapterSection, key.c_str(), "", value, sizeof value, file.c_str());
    if (value[0] != '\0')
        return value;
    key.Format("%04x:%04x", vendor, device);
    GetPrivateProfileString(kAdapterSection, key.c_str(), "", value, sizeof value, file.c_str());
    return value;
}

bool CSystemAdapter::ScanSystemAdapters(std::vector<CSystemAdapter>& adapters, CPciConfigList& config, bool withNames)
{
    using H = CPciCommonConfigHeader;
    adapters.clear();
    for (auto& [address, rec] : config) {
        CSystemAdapter a;
        a.address = address;
        a.vendorId = H::VendorId(rec.header);
        a.deviceId = H::DeviceId(rec.header);
        a.subVendorId = H::SubVendorId(rec.header);
        a.subDeviceId = H::SubDeviceId(rec.header);
        a.baseClass = H::BaseClass(rec.header);
        a.subClass = H::SubClass(rec.header);
        a.className = H::GetPciBaseClassDescription(a.baseClass);
        a.subClassName = H::GetPciSubClassDescription(rec.header);
        a.slot = rec.slot;
        CTRString id;
        id.Format("%04x:%04x", a.vendorId, a.deviceId);
        a.deviceIdText = id;
        if (withNames)
            a.name = LookupAdapterName(a.vendorId, a.deviceId, a.subVendorId, a.subDeviceId);
        if (a.name.empty())
            a.name = a.subClassName;
        rec.name = a.name;
        rec.description = a.subClassName;
        DBG_PRINT(3, "\nCSystemAdapter      : %s %s \"%s\" slot %d", address.ToString().c_str(), a.deviceIdText.c_str(),
                  a.name.c_str(), a.slot);
        adapters.push_back(std::move(a));
    }
    DBG_PRINT(2, "\nCSystemAdapter      : %d adapters found", static_cast<int>(adapters.size()));
    return !adapters.empty();
}

// ---------------------------------------------------------------------------
// Drives

bool CSystemDrive::PciAddressFromPath(const std::string& path, CPciAddress& address)
{
    bool found = false;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        std::string comp = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        // "ssss:bb:dd.f"
        if (comp.size() == 12 && HexField(comp, 0, 4) && comp[4] == ':' && HexField(comp, 5, 2) && comp[7] == ':' &&
            HexField(comp, 8, 2) && comp[10] == '.' && comp[11] >= '0' && comp[11] <= '7') {
            CPciAddress a;
            if (a.FromString(comp)) {
                address = a;
                found = true;
            }
        }
        if (slash == std::string::npos)
            break;
        start = slash + 1;
    }
    return found;
}

bool CSystemDrive::ScanSystemDrives(std::vector<CSystemDrive>& drives)
{
    static const char* const kSkippedPrefixes[] = {"loop", "ram", "zram", "nbd", "fd"};
    std::string dir = hwinfo::RootedPath(hwinfo::kSysBlock);
    std::vector<std::string> names;
    if (!hwinfo::ListDirectory(dir, names)) {
        DBG_PRINT(1, "\nCSystemDrive        : Cannot list %s (%s)", dir.c_str(), strerror(errno));
        return false;
    }

    drives.clear();
    for (const std::string& name : names) {
        if (name.empty() || name[0] == '.')
            continue;
        bool skip = false;
        for (const char* prefix : kSkippedPrefixes)
            skip = skip || name.compare(0, strlen(prefix), prefix) == 0;
        if (skip)
            continue;
        std::string base = dir + "/" + name;
        std::string deviceLink = base + "/device";
        char resolved[PATH_MAX];
        if (!realpath(deviceLink.c_str(), resolved))
            continue;  // virtual block device
        CSystemDrive d;
        d.name = name;
        d.model = ReadAttribute(deviceLink + "/model");
        d.vendor = ReadAttribute(deviceLink + "/vendor");
        std::string size = ReadAttribute(base + "/size");
        d.sizeBytes = strtoull(size.c_str(), nullptr, 10) * 512ull;
        d.hasPciAddress = PciAddressFromPath(resolved, d.pciAddress);
        DBG_PRINT(3, "\nCSystemDrive        : %s \"%s\" \"%s\" %llu bytes at %s", d.name.c_str(), d.vendor.c_str(),
                  d.model.c_str(), static_cast<unsigned long long>(d.sizeBytes),
                  d.hasPciAddress ? d.pciAddress.ToString().c_str() : "(no PCI address)");
        drives.push_back(std::move(d));
    }
    return true;
}

// ---------------------------------------------------------------------------
// Volumes

bool CSystemVolume::ParseMountLine(const std::string& line, CSystemVolume& volume)
{
    std::vector<std::string> fields;
    size_t pos = 0;
    while (pos < line.size() && fields.size() < 3) {
        while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t' || line[pos] == '\n'))
            ++pos;
        size_t end = pos;
        while (end < line.size() && line[end] != ' ' && line[end] != '\t' && line[end] != '\n')
            ++end;
        if (end > pos)
            fields.push_back(UnescapeMountField(line.substr(pos, end - pos)));
        pos = end;
    }
    if (fields.size() < 3)
        return false;
    volume.device = fields[0];
    volume.mountPoint = fields[1];
    volume.fsType = fields[2];
    return true;
}

bool CSystemVolume::ScanSystemVolumes(std::vector<CSystemVolume>& volumes)
{
    std::string table = hwinfo::RootedPath(hwinfo::kMountTable);
    UniqueFile f(fopen(table.c_str(), "re"));
    if (!f) {
        DBG_PRINT(1, "\nCSystemVolume       : Cannot open %s (%s)", table.c_str(), strerror(errno));
        return false;
    }
    volumes.clear();
    std::vector<char> buffer(kMaxMountLine);
    while (fgets(buffer.data(), static_cast<int>(buffer.size()), f.Get())) {
        std::string line(buffer.data());
        if (!line.empty() && line.back() != '\n' && !feof(f.Get())) {
            // An over-long line: skip its rest.
            int c;
            while ((c = fgetc(f.Get())) != EOF && c != '\n') {
            }
            continue;
        }
        CSystemVolume v;
        if (!ParseMountLine(line, v))
            continue;
        if (v.device.empty() || v.device[0] != '/' || v.fsType == "autofs")
            continue;
        if (volumes.size() >= kMaxVolumes) {
            // Each volume costs a statvfs and its record: a table this large
            // is damaged or hostile, and the rest of it is not read.
            DBG_PRINT(1, "\nCSystemVolume       : ## WARNING! %s lists more than %zu volumes: the rest is left out",
                      table.c_str(), kMaxVolumes);
            break;
        }
        struct statvfs st {};
        std::string mountPath = hwinfo::RootedPath(v.mountPoint);
        if (statvfs(mountPath.c_str(), &st) == 0) {
            v.totalBytes = static_cast<uint64_t>(st.f_blocks) * st.f_frsize;
            v.freeBytes = static_cast<uint64_t>(st.f_bfree) * st.f_frsize;
            v.availableBytes = static_cast<uint64_t>(st.f_bavail) * st.f_frsize;
        }
        DBG_PRINT(3, "\nCSystemVolume       : %s on %s (%s) %llu/%llu bytes free", v.device.c_str(),
                  v.mountPoint.c_str(), v.fsType.c_str(), static_cast<unsigned long long>(v.freeBytes),
                  static_cast<unsigned long long>(v.totalBytes));
        volumes.push_back(std::move(v));
    }
    return true;
}

#include "framework/ModuleConfig.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/FileIO.h"
#include "common/NumberParse.h"
#include "common/UniqueHandle.h"

namespace tarvdfw {

namespace {

std::string Trim(const std::string& s)
{
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return {};
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

/// A decimal number as strtol reads it (leading blanks, an optional sign),
/// taking the whole text, in [min, max].
bool ParseNumber(const std::string& text, long min, long max, long& value)
{
    // Eleven characters cannot overflow a long: no clamping to care about.
    if (text.empty() || text.size() > 11)
        return false;
    const char* p = text.c_str();
    const char* end = p + text.size();
    while (p < end && isspace(static_cast<unsigned char>(*p)))
        ++p;
    const bool negative = p < end && *p == '-';
    if (p < end && (*p == '-' || *p == '+'))
        ++p;
    uint64_t magnitude = 0;
    if (!tarvd::ParseDigits(p, end, magnitude) || p != end)
        return false;
    const long v = negative ? -static_cast<long>(magnitude) : static_cast<long>(magnitude);
    if (v < min || v > max)
        return false;
    value = v;
    return true;
}

bool ParseRunModes(const std::string& text, ModuleDescriptor& out)
{
    out.runModes.clear();
    out.allRunModes = false;
    std::string item;
    auto flush = [&]() {
        if (item.empty())
            return true;
        bool ok = true;
        if (strcasecmp(item.c_str(), "all") == 0) {
            out.allRunModes = true;
        } else {
            long v = 0;
            ok = ParseNumber(item, 0, 0xFFFF, v);
            if (ok)
                out.runModes.push_back(static_cast<uint32_t>(v));
        }
        item.clear();
        return ok;
    };
    for (char c : text) {
        if (c == ',' || c == ' ' || c == '\t') {
            if (!flush())
                return false;
        } else {
            item.push_back(c);
        }
    }
    return flush() && (out.allRunModes || !out.runModes.empty());
}

bool ReadBounded(const std::string& path, std::string& text, std::string& error)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        error = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    bool cut = false;
    if (int err = tarvd::ReadFdBounded(fd.Get(), kMaxConfigSize, text, &cut); err != 0) {
        error = "cannot read " + path + ": " + strerror(err);
        return false;
    }
    if (cut) {
        error = path + " is larger than " + std::to_string(kMaxConfigSize) + " bytes";
        return false;
    }
    return true;
}

} // namespace

bool ModuleDescriptor::RunsIn(uint32_t runMode) const
{
    return allRunModes || std::find(runModes.begin(), runModes.end(), runMode) != runModes.end();
}

const char* ModuleDescriptor::Value(const char* key) const
{
    if (!key)
        return nullptr;
    for (const auto& [k, v] : values)
        if (strcasecmp(k.c_str(), key) == 0)
            return v.c_str();
    return nullptr;
}

bool ParseModuleConfig(const std::string& path, ModuleDescriptor& out, std::string& error)
{
    std::string text;
    if (!ReadBounded(path, text, error))
        return false;

    out = ModuleDescriptor{};
    out.configFile = path;
    std::string base = path.substr(path.find_last_of('/') + 1);
    if (base.size() > 5 && base.compare(base.size() - 5, 5, ".conf") == 0)
        base.resize(base.size() - 5);
    out.name = base;

    size_t pos = 0;
    int lineNo = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        size_t end = nl == std::string::npos ? text.size() : nl;
        ++lineNo;
        if (end - pos > kMaxLineLength) {
            error = path + ":" + std::to_string(lineNo) + ": line longer than " + std::to_string(kMaxLineLength);
            return false;
        }
        std::string line = Trim(text.substr(pos, end - pos));
        pos = end + 1;
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line.front() == '[') {
            if (line.back() != ']') {
                error = path + ":" + std::to_string(lineNo) + ": malformed section header";
                return false;
            }
            continue;  // sections only group keys for the reader
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos || eq == 0) {
            error = path + ":" + std::to_string(lineNo) + ": expected Key=Value";
            return false;
        }
        std::string key = Trim(line.substr(0, eq));
        std::string value = Trim(line.substr(eq + 1));
        long number = 0;
        if (strcasecmp(key.c_str(), "Name") == 0) {
            if (!value.empty())
                out.name = value;
        } else if (strcasecmp(key.c_str(), "Library") == 0) {
            out.library = value;
        } else if (strcasecmp(key.c_str(), "RunModes") == 0) {
            if (!ParseRunModes(value, out)) {
                error = path + ":" + std::to_string(lineNo) + ": bad RunModes '" + value + "'";
                return false;
            }
        } else if (strcasecmp(key.c_str(), "Order") == 0) {
            if (!ParseNumber(value, -100000, 100000, number)) {
                error = path + ":" + std::to_string(lineNo) + ": bad Order '" + value + "'";
                return false;
            }
            out.order = static_cast<int>(number);
        } else if (strcasecmp(key.c_str(), "Enabled") == 0) {
            out.enabled = !(value == "0" || strcasecmp(value.c_str(), "false") == 0 ||
                            strcasecmp(value.c_str(), "no") == 0);
        }
        out.values.emplace_back(std::move(key), std::move(value));
    }
    if (out.library.empty()) {
        error = path + ": no Library= given";
        return false;
    }
    if (out.library[0] != '/') {
        size_t slash = path.find_last_of('/');
        std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
        out.library = dir + "/" + out.library;
    }
    return true;
}

std::string ModulesDirectory()
{
    const char* dir = getenv(kModulesDirVariable);
    return (dir && *dir) ? dir : kDefaultModulesDir;
}

bool ListModuleConfigs(const std::string& dir, std::vector<std::string>& files, int* error)
{
    UniqueDir d(opendir(dir.c_str()));
    if (error)
        *error = d ? 0 : errno;
    if (!d)
        return false;
    while (struct dirent* e = readdir(d.Get())) {
        size_t len = strlen(e->d_name);
        if (len <= 5 || e->d_name[0] == '.' || strcmp(e->d_name + len - 5, ".conf") != 0)
            continue;
        files.push_back(dir + "/" + e->d_name);
    }
    std::sort(files.begin(), files.end());
    return true;
}

} // namespace tarvdfw

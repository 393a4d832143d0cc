#include "hwinfo/HwDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <memory>

#include "common/NumberParse.h"

namespace hwinfo {

namespace {

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};

} // namespace

bool ListDirectory(const std::string& dir, std::vector<std::string>& names)
{
    struct dirent** raw = nullptr;
    int n = scandir(dir.c_str(), &raw, nullptr, alphasort);
    if (n < 0)
        return false;
    // scandir hands over the array and each entry; owners free them all.
    std::unique_ptr<struct dirent*, FreeDeleter> list(raw);
    std::vector<std::unique_ptr<struct dirent, FreeDeleter>> entries;
    entries.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        entries.emplace_back(raw[i]);
    std::vector<std::string> out;
    out.reserve(entries.size());
    for (const auto& e : entries)
        out.emplace_back(e->d_name);
    names.swap(out);
    return true;
}

bool ParseHexField(const char* s, size_t n, unsigned& value)
{
    const char* p = s;
    uint64_t v = 0;
    if (!tarvd::ParseDigits(p, s + n, v, 16) || p != s + n)
        return false;
    value = static_cast<unsigned>(v);
    return true;
}

} // namespace hwinfo

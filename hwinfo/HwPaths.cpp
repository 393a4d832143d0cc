#include "hwinfo/HwPaths.h"

namespace hwinfo {

namespace {
std::string& Root()
{
    static std::string root;
    return root;
}
} // namespace

void SetRootDirectory(const char* root)
{
    std::string r = root ? root : "";
    while (!r.empty() && r.back() == '/')
        r.pop_back();
    Root() = r;
}

const std::string& GetRootDirectory()
{
    return Root();
}

std::string RootedPath(const char* path)
{
    return Root() + (path ? path : "");
}

} // namespace hwinfo

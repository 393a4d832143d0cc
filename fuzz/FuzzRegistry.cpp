// Fuzz target: the registry file reader, and a write-read round trip that must reproduce the tree:
// read the input, dump it, read the dump, dump again; both dumps must be byte-equal.
#include "FuzzSupport.h"

#include "common/UniqueHandle.h"
#include "registry/CRegistry.h"
#include "registry/CRegistryNode.h"

namespace {

// The dump of a node as text, through a memory stream.
std::string Dump(const CRegistryNode& node)
{
    char* buf = nullptr;
    size_t len = 0;
    UniqueFile f(open_memstream(&buf, &len));
    if (!f)
        return std::string();
    const bool ok = node.dumpNode(f.Get());
    f.Reset();  // flushes into `buf`
    std::string out(buf ? buf : "", buf ? len : 0);
    free(buf);
    FUZZ_CHECK(ok);
    return out;
}

bool Restore(CRegistryNode& node, const void* data, size_t size)
{
    if (size == 0)
        return false;
    UniqueFile f(fmemopen(const_cast<void*>(data), size, "r"));
    if (!f)
        return false;
    return node.restoreNode(f.Get());
}

// The reader takes at most 1023 characters of a line at a time, so a dump
// line that long (a long binary value grows by a third when written) is
// read back differently: a known limit of the format, not checked here.
bool LinesReadable(const std::string& text)
{
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        if (nl - start >= 1023)
            return false;
    return text.size() - start < 1023;
}

} // namespace

TARVD_FUZZ_TARGET(data, size)
{
    CRegistryNode first;
    bool read = Restore(first, data, size);
    std::string dump1 = Dump(first);
    if (!read || !LinesReadable(dump1))
        return 0;
    CRegistryNode second;
    Restore(second, dump1.data(), dump1.size());
    std::string dump2 = Dump(second);
    FUZZ_CHECK(dump1 == dump2);

    // The same text through the class-wide loader must be accepted too.
    const std::string path = fuzzsupport::ScratchDir() + "/registry";
    if (fuzzsupport::WriteWhole(path, dump1.data(), dump1.size())) {
        CRegistryNode third;
        CRegistry::ReadTree(path.c_str(), &third);
        FUZZ_CHECK(Dump(third) == dump1);
    }
    return 0;
}

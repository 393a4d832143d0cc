#include "registry/CRegistryNode.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "trace/CDebug.h"

namespace {

/// Lines of the registry file are read in pieces of this size (with NUL).
constexpr size_t kLineSize = 1024;
/// Sections nested deeper than this are skipped with their whole block, so
/// that a hostile file cannot build a tree too deep to write or destroy.
constexpr size_t kMaxDepth = 256;

char* CopyText(const char* text)
{
    return strdup(text);
}

/// Parses the hexadecimal byte list of a binary value.  The payload holds
/// (length / 3) + 2 bytes after its count: enough for the writer's
/// "xx " groups; denser text is cut at that capacity.
void* ParseBinary(const char* text)
{
    size_t len = strlen(text);
    size_t capacity = len / 3 + 2;
    auto* payload = static_cast<unsigned char*>(calloc(1, capacity + 4));
    if (payload == nullptr)
        return nullptr;
    uint32_t count = 0;
    const char* p = text;
    while (count < capacity) {
        char* end = nullptr;
        long v = strtol(p, &end, 16);
        if (end == p)
            break;
        payload[4 + count++] = static_cast<unsigned char>(v);
        p = end;
    }
    memcpy(payload, &count, sizeof count);
    return payload;
}

/// Stores a freshly allocated payload under `name`; frees it when the map
/// could not take it.
void StorePointer(CRegistryNode& node, const char* name, void* payload, uint32_t type)
{
    if (payload == nullptr)
        return;
    if (node.SetPointer(name, payload, type) < 0)
        free(payload);
}

/// Handles one value line (already cut at its line feed).  True when the
/// line carried a known tag.
bool RestoreValue(CRegistryNode& node, char* line)
{
    char* eq = strchr(line, '=');
    if (eq == nullptr)
        return false;
    *eq = '\0';
    const char* name = line;
    const char* tag = eq + 1;
    if (strncmp(tag, "s=", 2) == 0) {
        StorePointer(node, name, CopyText(tag + 2), RegString);
        return true;
    }
    if (strncmp(tag, "es=", 3) == 0) {
        StorePointer(node, name, CopyText(tag + 3), RegExpandString);
        return true;
    }
    if (strncmp(tag, "d=", 2) == 0) {
        char* end = nullptr;
        long v = strtol(tag + 2, &end, 10);
        if (end != tag + 2)
            node.SetNumber(name, static_cast<uint32_t>(v), RegNumber);
        return true;
    }
    if (strncmp(tag, "b=", 2) == 0) {
        StorePointer(node, name, ParseBinary(tag + 2), RegBinary);
        return true;
    }
    return false;
}

bool WriteBinary(FILE* file, const unsigned char* bytes, uint32_t count)
{
    static const char kHex[] = "0123456789abcdef";
    char chunk[3 * 256];
    uint32_t done = 0;
    while (done < count) {
        size_t n = 0;
        for (; n < sizeof chunk && done < count; ++done) {
            chunk[n++] = kHex[bytes[done] >> 4];
            chunk[n++] = kHex[bytes[done] & 0x0f];
            chunk[n++] = ' ';
        }
        if (fwrite(chunk, 1, n, file) != n)
            return false;
    }
    return true;
}

} // namespace

uint32_t CRegistryNode::BinaryCount(const void* payload)
{
    uint32_t count = 0;
    if (payload != nullptr)
        memcpy(&count, payload, sizeof count);
    return count;
}

void CRegistryNode::deleteNode(CRegistryNode* node, const char* name)
{
    DBG_PRINT(2, "CRegistryNode::deleteNode \"%s\"\n", name ? name : "");
    delete node;
}

void CRegistryNode::DeletePayload(Entry& entry)
{
    switch (entry.type) {
    case RegString:
    case RegExpandString:
    case RegBinary:
        free(entry.payload.ptr);
        break;
    case RegSubKey:
        deleteNode(static_cast<CRegistryNode*>(entry.payload.ptr), entry.name);
        break;
    default:
        break;  // numbers are held inline
    }
    entry.payload.ptr = nullptr;
}

bool CRegistryNode::dumpNode(FILE* file) const
{
    CCriticalSectionLock lock(GetLock());
    const int count = GetCount();
    for (int i = 0; i < count; ++i) {
        const Entry& e = At(i);
        if (e.name == nullptr)
            continue;
        switch (e.type) {
        case RegNumber:
            fprintf(file, "%s%s%d\n", e.name, "=d=", static_cast<int32_t>(e.payload.number));
            break;
        case RegString:
        case RegExpandString:
            if (e.payload.ptr != nullptr)
                fprintf(file, "%s%s%s\n", e.name, e.type == RegString ? "=s=" : "=es=",
                        static_cast<const char*>(e.payload.ptr));
            break;
        case RegBinary:
            if (e.payload.ptr != nullptr) {
                fprintf(file, "%s%s", e.name, "=b=");
                if (!WriteBinary(file, static_cast<const unsigned char*>(e.payload.ptr) + 4,
                                 BinaryCount(e.payload.ptr)))
                    return false;
                fputc('\n', file);
            }
            break;
        default:
            break;
        }
    }
    for (int i = 0; i < count; ++i) {
        const Entry& e = At(i);
        if (e.name == nullptr || e.type != RegSubKey || e.payload.ptr == nullptr)
            continue;
        fprintf(file, "[%s]\n", e.name);
        if (!static_cast<const CRegistryNode*>(e.payload.ptr)->dumpNode(file))
            return false;
    }
    fputc('\n', file);
    return ferror(file) == 0;
}

bool CRegistryNode::restoreNode(FILE* file)
{
    // One frame per open block; a frame without a node skips its block.
    struct Frame {
        CRegistryNode* node;                 // the key being filled (not owned by the frame for the first)
        std::unique_ptr<CRegistryNode> own;  // a new subkey, stored in its parent when its block ends
        std::string name;
        bool any;
    };
    std::vector<Frame> stack;
    stack.push_back(Frame{this, nullptr, std::string(), false});

    auto closeBlock = [&stack]() {
        Frame done = std::move(stack.back());
        stack.pop_back();
        Frame& parent = stack.back();
        if (done.any)
            parent.any = true;
        if (done.own && parent.node != nullptr) {
            // A section repeated at one level replaces the earlier subtree.
            if (parent.node->SetPointer(done.name.c_str(), done.own.get(), RegSubKey) >= 0)
                done.own.release();
        }
    };

    char line[kLineSize];
    while (fgets(line, sizeof line, file) != nullptr) {
        if (line[0] == '\n' || line[0] == '\0') {
            if (stack.size() == 1)
                break;
            closeBlock();
            continue;
        }
        if (char* lf = strrchr(line, '\n'))
            *lf = '\0';
        Frame& current = stack.back();
        if (line[0] == '[') {
            if (char* close = strchr(line, ']')) {
                *close = '\0';
                Frame child{nullptr, nullptr, std::string(line + 1), false};
                if (current.node != nullptr && stack.size() <= kMaxDepth) {
                    child.own.reset(new (std::nothrow) CRegistryNode);
                    child.node = child.own.get();
                }
                stack.push_back(std::move(child));
                continue;
            }
        }
        if (current.node != nullptr && RestoreValue(*current.node, line))
            current.any = true;
    }
    while (stack.size() > 1)
        closeBlock();
    return stack.front().any;
}

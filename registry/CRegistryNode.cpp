#include "registry/CRegistryNode.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/NumberParse.h"
#include "trace/CDebug.h"

namespace {

/// Lines of the registry file are read in pieces of this size (with NUL).
constexpr size_t kLineSize = 1024;
/// Up to `limit` + 1 digits of `base` from `p`, read one character at a
/// time (a line ends at its NUL, so nothing past it is read).  Returns how
/// many digits stood there (more than `limit` means: too long to be sure).
int ReadPlainDigits(const char* p, int limit, unsigned base, uint64_t& value, const char*& end)
{
    int count = 0;
    uint64_t v = 0;
    for (int d; count <= limit && (d = tarvd::HexDigitValue(p[count])) >= 0 && static_cast<unsigned>(d) < base;
         ++count)
        v = v * base + static_cast<unsigned>(d);
    value = v;
    end = p + count;
    return count;
}

/// One hexadecimal number as strtol(p, &end, 16) reads it, for the plain
/// form the writer produces (blanks, then at most 15 hex digits without a
/// sign or "0x" prefix).  False for anything else, which the caller leaves
/// to strtol itself.
bool PlainHex(const char* p, long& value, const char*& end)
{
    // At most 15 digits: a long cannot overflow, so strtol's clamping never
    // comes into play on this path.
    constexpr int kMaxPlainDigits = 15;
    // The writer's blank is a space; the locale's blank test only for others.
    while (*p == ' ' || (tarvd::HexDigitValue(*p) < 0 && isspace(static_cast<unsigned char>(*p))))
        ++p;
    if (*p == '0' && (p[1] == 'x' || p[1] == 'X'))
        return false;
    uint64_t v = 0;
    const int n = ReadPlainDigits(p, kMaxPlainDigits, 16, v, end);
    if (n == 0 || n > kMaxPlainDigits)
        return false;  // no digits (or a sign), or too long to be sure of no overflow
    value = static_cast<long>(v);
    return true;
}

/// A decimal number as strtol(p, &end, 10) reads it, for the plain form the
/// writer produces (an optional '-' and at most 18 digits, no blanks): such
/// a number cannot overflow a long.  Anything else goes to strtol itself.
long ParseDecimal(const char* p, char*& end)
{
    constexpr int kMaxPlainDigits = 18;
    const bool negative = *p == '-';
    uint64_t v = 0;
    const char* after = nullptr;
    const int n = ReadPlainDigits(p + (negative ? 1 : 0), kMaxPlainDigits, 10, v, after);
    if (n == 0 || n > kMaxPlainDigits)
        return strtol(p, &end, 10);
    end = const_cast<char*>(after);
    return negative ? -static_cast<long>(v) : static_cast<long>(v);
}

/// Parses the hexadecimal byte list of a binary value into `payload` (its
/// count, then the bytes).  The payload holds (length / 3) + 2 bytes after
/// its count: enough for the writer's "xx " groups; denser text is cut at
/// that capacity.  A line is at most kLineSize characters, so `payload`
/// (of kLineSize / 3 + 2 + 4 bytes) always has that room.  Returns the
/// payload's length.
size_t ParseBinary(const char* text, unsigned char* payload, size_t room)
{
    size_t len = strlen(text);
    size_t capacity = std::min(len / 3 + 2, room - 4);
    uint32_t count = 0;
    const char* p = text;
    while (count < capacity) {
        long v = 0;
        const char* end = nullptr;
        if (!PlainHex(p, v, end)) {
            char* e = nullptr;
            v = strtol(p, &e, 16);
            end = e;
        }
        if (end == p)
            break;
        payload[4 + count++] = static_cast<unsigned char>(v);
        p = end;
    }
    memcpy(payload, &count, sizeof count);
    return 4 + count;
}

/// Stores a binary value's payload in the key's arena.
void StoreBinary(CRegistryNode& node, const char* name, const char* text)
{
    unsigned char payload[kLineSize / 3 + 2 + 4];
    const size_t length = ParseBinary(text, payload, sizeof payload);
    CStrMap::Entry e{};
    e.type = RegBinary;
    node.SetBytesInArena(name, e, payload, length);
}

/// Stores a text value, its copy and the name's in the key's arena (a file
/// holds hundreds of thousands of them).
void StoreText(CRegistryNode& node, const char* name, const char* text, uint32_t type)
{
    CStrMap::Entry e{};
    e.type = type;
    node.SetInArena(name, e, text);
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
        StoreText(node, name, tag + 2, RegString);
        return true;
    }
    if (strncmp(tag, "es=", 3) == 0) {
        StoreText(node, name, tag + 3, RegExpandString);
        return true;
    }
    if (strncmp(tag, "d=", 2) == 0) {
        char* end = nullptr;
        long v = ParseDecimal(tag + 2, end);
        if (end != tag + 2) {
            CStrMap::Entry e{};
            e.payload.number = static_cast<uint32_t>(v);
            e.type = RegNumber;
            node.SetInArena(name, e);
        }
        return true;
    }
    if (strncmp(tag, "b=", 2) == 0) {
        StoreBinary(node, name, tag + 2);
        return true;
    }
    return false;
}

/// Hands out the lines of a stream cut exactly as fgets() on a kLineSize
/// buffer cuts them (at a line feed, after kLineSize - 1 characters, or at
/// the end of the stream), but reads the stream in large blocks.  Each line
/// comes back NUL-terminated with its line feed replaced by the NUL; a NUL
/// byte inside a line ends its text there, as it does for fgets().  What was
/// read ahead but not handed out is given back to the stream (by seeking)
/// when the source is destroyed, so the stream stands right after the last
/// line used, as it would after fgets().
class CLineSource {
public:
    explicit CLineSource(FILE* file) : m_File(file), m_Block(new (std::nothrow) char[kBlockSize]) {}
    ~CLineSource()
    {
        if (m_End > m_Pos)
            fseek(m_File, -static_cast<long>(m_End - m_Pos), SEEK_CUR);
    }
    CLineSource(const CLineSource&) = delete;
    CLineSource& operator=(const CLineSource&) = delete;

    /// The next line, or null at the end of the stream (or on a read error).
    char* Next()
    {
        if (!m_Block)
            return NextByFgets();
        for (;;) {
            const size_t avail = m_End - m_Pos;
            char* start = m_Block.get() + m_Pos;
            const size_t limit = avail < kLineSize - 1 ? avail : kLineSize - 1;
            if (auto* lf = static_cast<char*>(memchr(start, '\n', limit))) {
                *lf = '\0';
                m_Pos += static_cast<size_t>(lf - start) + 1;
                return start;
            }
            if (avail >= kLineSize - 1 || (m_Eof && avail > 0)) {
                // Cut without a line feed: the text is copied, since the
                // byte behind it belongs to the next line.
                memcpy(m_Line, start, limit);
                m_Line[limit] = '\0';
                m_Pos += limit;
                return m_Line;
            }
            if (m_Eof)
                return nullptr;
            Refill();
        }
    }

private:
    static constexpr size_t kBlockSize = 64 * 1024;

    void Refill()
    {
        const size_t avail = m_End - m_Pos;
        memmove(m_Block.get(), m_Block.get() + m_Pos, avail);
        m_Pos = 0;
        m_End = avail;
        const size_t n = fread(m_Block.get() + m_End, 1, kBlockSize - m_End, m_File);
        m_End += n;
        if (n == 0)
            m_Eof = true;
    }

    char* NextByFgets()
    {
        if (fgets(m_Line, sizeof m_Line, m_File) == nullptr)
            return nullptr;
        if (char* lf = strchr(m_Line, '\n'))
            *lf = '\0';
        return m_Line;
    }

    FILE* m_File;
    std::unique_ptr<char[]> m_Block;
    size_t m_Pos = 0;
    size_t m_End = 0;
    bool m_Eof = false;
    char m_Line[kLineSize];
};

/// Writes `value` as printf's "%d" would.
void WriteDecimal(FILE* file, int32_t value)
{
    char text[12];
    char* p = text + sizeof text;
    uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0)
        *--p = '-';
    fwrite_unlocked(p, 1, static_cast<size_t>(text + sizeof text - p), file);
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
        if (fwrite_unlocked(chunk, 1, n, file) != n)
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

namespace {

struct PendingDelete {
    CRegistryNode* node;
    std::string name;
};

// The subkeys met while a subtree is destroyed on this thread.  The
// outermost deleteNode destroys them one after the other instead of each
// destructor recursing into its subkeys, so that a tree as deep as a file
// can describe costs no C stack.
thread_local std::vector<PendingDelete>* t_PendingDeletes = nullptr;

} // namespace

void CRegistryNode::deleteNode(CRegistryNode* node, const char* name)
{
    if (t_PendingDeletes != nullptr) {
        t_PendingDeletes->push_back(PendingDelete{node, name ? name : ""});
        return;
    }
    std::vector<PendingDelete> pending;
    pending.push_back(PendingDelete{node, name ? name : ""});
    t_PendingDeletes = &pending;
    while (!pending.empty()) {
        PendingDelete next = std::move(pending.back());
        pending.pop_back();
        DBG_PRINT(2, "CRegistryNode::deleteNode \"%s\"\n", next.name.c_str());
        const size_t mark = pending.size();
        delete next.node;
        // Its subkeys were queued in entry order: the first goes on top, so
        // that keys are destroyed (and traced) in the order of a recursive
        // walk.
        std::reverse(pending.begin() + static_cast<std::ptrdiff_t>(mark), pending.end());
    }
    t_PendingDeletes = nullptr;
}

void CRegistryNode::DeletePayload(Entry& entry)
{
    switch (entry.type) {
    case RegString:
    case RegExpandString:
    case RegBinary:
        if ((entry.flags & kPayloadInArena) == 0)
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

bool CRegistryNode::dumpValues(FILE* file, int count) const
{
    for (int i = 0; i < count; ++i) {
        const Entry& e = At(i);
        if (e.name == nullptr)
            continue;
        switch (e.type) {
        case RegNumber:
            fputs_unlocked(e.name, file);
            fputs_unlocked("=d=", file);
            WriteDecimal(file, static_cast<int32_t>(e.payload.number));
            fputc_unlocked('\n', file);
            break;
        case RegString:
        case RegExpandString:
            if (e.payload.ptr != nullptr) {
                fputs_unlocked(e.name, file);
                fputs_unlocked(e.type == RegString ? "=s=" : "=es=", file);
                fputs_unlocked(static_cast<const char*>(e.payload.ptr), file);
                fputc_unlocked('\n', file);
            }
            break;
        case RegBinary:
            if (e.payload.ptr != nullptr) {
                fputs_unlocked(e.name, file);
                fputs_unlocked("=b=", file);
                if (!WriteBinary(file, static_cast<const unsigned char*>(e.payload.ptr) + 4,
                                 BinaryCount(e.payload.ptr)))
                    return false;
                fputc_unlocked('\n', file);
            }
            break;
        default:
            break;
        }
    }
    return true;
}

bool CRegistryNode::dumpNode(FILE* file) const
{
    // A walk with an explicit stack (a tree may be deeper than the C stack
    // allows), writing and locking as a recursive walk would: each key's
    // lock is held from its values until the blocks of all its subkeys
    // are written.
    struct Frame {
        const CRegistryNode* node;
        int count;  // the entries when the key was entered
        int next;   // the next entry to look at for a subkey
    };
    std::vector<Frame> stack;
    // The stream is locked once for the whole tree, and every write below
    // goes without its own locking (hundreds of thousands of small writes).
    struct Unlock {
        std::vector<Frame>& frames;
        FILE* stream;
        ~Unlock()
        {
            for (auto it = frames.rbegin(); it != frames.rend(); ++it)
                it->node->GetLock().Leave();
            funlockfile(stream);
        }
    } unlock{stack, file};
    flockfile(file);
    auto enter = [&](const CRegistryNode* node) {
        node->GetLock().Enter();
        stack.push_back(Frame{node, node->GetCount(), 0});
        return node->dumpValues(file, stack.back().count);
    };
    if (!enter(this))
        return false;
    while (!stack.empty()) {
        Frame& f = stack.back();
        const Entry* sub = nullptr;
        while (sub == nullptr && f.next < f.count) {
            const Entry& e = f.node->At(f.next++);
            if (e.name != nullptr && e.type == RegSubKey && e.payload.ptr != nullptr)
                sub = &e;
        }
        if (sub != nullptr) {
            fputc_unlocked('[', file);
            fputs_unlocked(sub->name, file);
            fputs_unlocked("]\n", file);
            if (!enter(static_cast<const CRegistryNode*>(sub->payload.ptr)))
                return false;
            continue;
        }
        fputc_unlocked('\n', file);
        f.node->GetLock().Leave();
        stack.pop_back();
        if (ferror_unlocked(file) != 0)
            return false;
    }
    return true;
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

    CLineSource source(file);
    while (char* line = source.Next()) {
        // An empty line (or one that starts with a NUL byte) ends a block.
        if (line[0] == '\0') {
            if (stack.size() == 1)
                break;
            closeBlock();
            continue;
        }
        Frame& current = stack.back();
        if (line[0] == '[') {
            if (char* close = strchr(line, ']')) {
                *close = '\0';
                Frame child{nullptr, nullptr, std::string(line + 1), false};
                if (current.node != nullptr) {
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

// The block reader of registry files against a plain line-by-line reader
// kept here as the reference: fgets() on a 1024-byte buffer and strtol()
// for every number, the straightforward form of the file rules.  Both read
// the same bytes (long lines, NUL bytes, missing final line feeds, lines
// across block borders, odd numbers) and the trees they build must write
// out identically.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "common/UniqueHandle.h"
#include "registry/CRegistryNode.h"
#include "support/TestSupport.h"

namespace {

// ---- the reference reader ----------------------------------------------------

void* RefBinary(const char* text)
{
    size_t capacity = strlen(text) / 3 + 2;
    auto* payload = static_cast<unsigned char*>(calloc(1, capacity + 4));
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

bool RefValue(CRegistryNode& node, char* line)
{
    char* eq = strchr(line, '=');
    if (eq == nullptr)
        return false;
    *eq = '\0';
    const char* tag = eq + 1;
    if (strncmp(tag, "s=", 2) == 0)
        return node.SetPointer(line, strdup(tag + 2), RegString), true;
    if (strncmp(tag, "es=", 3) == 0)
        return node.SetPointer(line, strdup(tag + 3), RegExpandString), true;
    if (strncmp(tag, "d=", 2) == 0) {
        char* end = nullptr;
        long v = strtol(tag + 2, &end, 10);
        if (end != tag + 2)
            node.SetNumber(line, static_cast<uint32_t>(v), RegNumber);
        return true;
    }
    if (strncmp(tag, "b=", 2) == 0)
        return node.SetPointer(line, RefBinary(tag + 2), RegBinary), true;
    return false;
}

bool RefRestore(CRegistryNode& root, FILE* file)
{
    struct Frame {
        CRegistryNode* node;
        std::unique_ptr<CRegistryNode> own;
        std::string name;
        bool any;
    };
    std::vector<Frame> stack;
    stack.push_back(Frame{&root, nullptr, std::string(), false});
    auto closeBlock = [&stack]() {
        Frame done = std::move(stack.back());
        stack.pop_back();
        Frame& parent = stack.back();
        if (done.any)
            parent.any = true;
        if (done.own && parent.node != nullptr &&
            parent.node->SetPointer(done.name.c_str(), done.own.get(), RegSubKey) >= 0)
            done.own.release();
    };
    char line[1024];
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
                if (current.node != nullptr && stack.size() <= 256) {
                    child.own = std::make_unique<CRegistryNode>();
                    child.node = child.own.get();
                }
                stack.push_back(std::move(child));
                continue;
            }
        }
        if (current.node != nullptr && RefValue(*current.node, line))
            current.any = true;
    }
    while (stack.size() > 1)
        closeBlock();
    return stack.front().any;
}

// ---- helpers -----------------------------------------------------------------------

std::string Dump(const CRegistryNode& node)
{
    testsupport::TempDir dir;
    std::string path = dir.Sub("dump");
    {
        UniqueFile f(fopen(path.c_str(), "we"));
        EXPECT_TRUE(f);
        EXPECT_TRUE(node.dumpNode(f.Get()));
    }
    return testsupport::ReadFile(path);
}

struct Outcome {
    bool result;
    std::string tree;
    long position;  // where the stream stands afterwards
};

template <typename Restore>
Outcome Load(const std::string& path, Restore restore)
{
    UniqueFile f(fopen(path.c_str(), "re"));
    EXPECT_TRUE(f);
    CRegistryNode node;
    Outcome out;
    out.result = restore(node, f.Get());
    out.position = ftell(f.Get());
    out.tree = Dump(node);
    return out;
}

// Both readers on the same bytes: same result, same tree, same stream
// position (a reader that stops at the end of the top block leaves the rest
// of the stream unread).
void ExpectSameAsReference(const std::string& bytes, const char* what)
{
    testsupport::TempDir dir;
    std::string path = dir.Sub("input");
    testsupport::WriteFile(path, bytes);
    Outcome ref = Load(path, [](CRegistryNode& n, FILE* f) { return RefRestore(n, f); });
    Outcome got = Load(path, [](CRegistryNode& n, FILE* f) { return n.restoreNode(f); });
    EXPECT_EQ(got.result, ref.result) << what;
    EXPECT_EQ(got.tree, ref.tree) << what;
    EXPECT_EQ(got.position, ref.position) << what;
}

} // namespace

TEST(CRegistryBlockReader, LongLinesAreCutAsBefore)
{
    std::string text = "[HKEY_LOCAL_MACHINE]\n";
    // 1022, 1023, 1024 and 3000 characters: cut at 1023, the rest read as
    // further lines (an exact 1023 leaves its line feed as an empty line).
    for (size_t len : {1022u, 1023u, 1024u, 3000u}) {
        std::string name = "V" + std::to_string(len);
        std::string line = name + "=s=";
        line += std::string(len - line.size(), 'x');
        text += line + "\n";
        text += "After" + std::to_string(len) + "=d=" + std::to_string(len) + "\n";
    }
    // A rest that itself looks like a value.
    text += "Cut=s=" + std::string(1017, 'y') + "Tail=d=7\n";
    text += "\n\n";
    ExpectSameAsReference(text, "long lines");
}

TEST(CRegistryBlockReader, NulBytesAndMissingFinalLineFeed)
{
    std::string text = "[HKEY_LOCAL_MACHINE]\nA=s=before";
    text += '\0';
    text += "hidden=d=5\nB=d=2\n";
    text += '\0';
    text += "starts with NUL, closes the block\nC=d=3\n";
    text += "[Sub]\nD=es=%PATH%\n\nE=b=01 02 ff";  // no final line feed
    ExpectSameAsReference(text, "NUL bytes");
    ExpectSameAsReference(std::string("X=d=1"), "single line without line feed");
    ExpectSameAsReference(std::string(1, '\0'), "only a NUL byte");
    ExpectSameAsReference(std::string(), "empty");
}

TEST(CRegistryBlockReader, OddBinaryAndNumberTexts)
{
    std::string text = "[HKEY_LOCAL_MACHINE]\n";
    const char* const binaries[] = {
        "00 01 7f 80 ff ",          "0x1f 0X20 x 21",           "-1 +2 - + 3",
        "123456789abcdef0123 44",   "fffffffffffffff 1",        "ffffffffffffffff 2",
        "\t\v\f\r 0a",              "ab",                        " ",
        "g1 02",                    "1g 02",                     "0",
        "000000000000000000000001", "AbCdEf 0Ab",               "0x",
        "0xg 5",                    "1 2 3 4 5 6 7 8 9 a b c d", "12345678901234567890"};
    int i = 0;
    for (const char* b : binaries)
        text += "B" + std::to_string(i++) + "=b=" + b + "\n";
    for (const char* d : {"-5", "4294967295", "99999999999999999999", "+7", " 8", "x", "", "-2147483649"})
        text += "D" + std::to_string(i++) + "=d=" + d + "\n";
    text += "\n";
    ExpectSameAsReference(text, "binary and number texts");
}

TEST(CRegistryBlockReader, LinesAcrossBlockBordersAndStreamPosition)
{
    // Several hundred KiB, so that lines straddle the reader's blocks at
    // many offsets; then a top-level empty line and text that must stay
    // unread in the stream.
    std::mt19937 rng(4711);
    std::string text = "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n";
    for (int k = 0; k < 400; ++k) {
        text += "[Key" + std::to_string(k) + "]\n";
        for (int v = 0; v < 40; ++v) {
            size_t len = rng() % 1500;
            text += "Value" + std::to_string(v) + "=s=" + std::string(len, static_cast<char>('a' + v % 26)) + "\n";
            text += "Bin" + std::to_string(v) + "=b=0" + std::to_string(v % 10) + " ff 10 \n";
        }
        text += "\n";
    }
    text += "\n\n";
    text += "[HKEY_USERS]\nLater=d=1\n\n";
    ASSERT_GT(text.size(), 300u * 1024u);
    ExpectSameAsReference(text, "large file");
}

TEST(CRegistryBlockReader, RandomBytes)
{
    std::mt19937 rng(20240611);
    const char alphabet[] = "ab=[]sdeb0x1f- \n\n\n\t";
    for (int round = 0; round < 100; ++round) {
        std::string text;
        size_t len = rng() % 6000;
        for (size_t i = 0; i < len; ++i) {
            unsigned r = rng() % 100;
            if (r < 2)
                text += '\0';
            else if (r < 4)
                text += std::string(rng() % 1200, 'z');
            else
                text += alphabet[rng() % (sizeof alphabet - 1)];
        }
        ExpectSameAsReference(text, ("random round " + std::to_string(round)).c_str());
    }
}

TEST(CRegistryBlockReader, SecondRestoreContinuesAfterTheFirstBlock)
{
    // Two top-level blocks in one stream: the first restore stops after the
    // first block's empty line, the second reads the next block.
    testsupport::TempDir dir;
    std::string path = dir.Sub("two");
    testsupport::WriteFile(path, "A=d=1\n\nB=d=2\n\n");
    UniqueFile f(fopen(path.c_str(), "re"));
    ASSERT_TRUE(f);
    CRegistryNode first, second;
    EXPECT_TRUE(first.restoreNode(f.Get()));
    EXPECT_TRUE(second.restoreNode(f.Get()));
    EXPECT_EQ(Dump(first), "A=d=1\n\n");
    EXPECT_EQ(Dump(second), "B=d=2\n\n");
}

TEST(CRegistryBlockWriter, NumbersAndSectionsAreWrittenAsPrintfWould)
{
    CRegistryNode node;
    const int32_t numbers[] = {0, 1, -1, 42, -2147483647 - 1, 2147483647, 1000000, -999};
    std::string expected;
    int i = 0;
    for (int32_t n : numbers) {
        char name[16];
        snprintf(name, sizeof name, "N%d", i++);
        node.SetNumber(name, static_cast<uint32_t>(n), RegNumber);
        char line[64];
        snprintf(line, sizeof line, "%s=d=%d\n", name, n);
        expected += line;
    }
    node.SetPointer("S", strdup("text with %percent% and = signs"), RegString);
    expected += "S=s=text with %percent% and = signs\n";
    auto* sub = new CRegistryNode;
    sub->SetPointer("E", strdup(""), RegExpandString);
    node.SetPointer("Sub key", sub, RegSubKey);
    expected += "[Sub key]\nE=es=\n\n\n";
    EXPECT_EQ(Dump(node), expected);
}

// Malformed lines of the registry file and exactly what the tree holds
// after reading them.
#include "support/RegistryFixture.h"

#include "registry/CRegistryNode.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct LineCase {
    const char* what;
    std::string line;     // written as the only value line besides "ok=d=1"
    const char* name;     // the value looked at
    std::string expected; // "absent", "s:<text>", "es:<text>", "d:<unsigned>", "b:<hex bytes>"
};

// The value `name` of HKEY_LOCAL_MACHINE in the notation of LineCase.
std::string Describe(const char* name)
{
    CRegistry reg;
    if (reg.Open("HKEY_LOCAL_MACHINE", nullptr, 0) != 0)
        return "no key";
    reg.SetExpand(false);
    unsigned char* v = reg.GetValue(name);
    if (!v) {
        // An empty binary value has nothing to return: look for its name.
        char found[1100];
        for (unsigned i = 0;; ++i) {
            unsigned size = sizeof found;
            if (reg.EnumVal(found, &size, i, RegBinary, nullptr, nullptr) != 0)
                return "absent";
            if (std::string(found) == name)
                return "b:";
        }
    }
    char hex[4];
    switch (reg.GetLastType()) {
    case RegString:
        return "s:" + std::string(reinterpret_cast<char*>(v));
    case RegExpandString:
        return "es:" + std::string(reinterpret_cast<char*>(v));
    case RegNumber: {
        unsigned n = 0;
        reg.QueryValue(&n, name);
        return "d:" + std::to_string(n);
    }
    case RegBinary: {
        std::string out = "b:";
        for (int i = 0; i < reg.GetLastSize(); ++i) {
            snprintf(hex, sizeof hex, "%02x", v[i]);
            out += hex;
        }
        return out;
    }
    default:
        return "type " + std::to_string(reg.GetLastType());
    }
}

std::string Nested(int depth)
{
    std::string s;
    for (int i = 0; i < depth; ++i)
        s += "[k]\n";
    return s + "x=d=1\n";
}

class CRegistryMalformedTest : public RegistryTest {};

TEST_F(CRegistryMalformedTest, EachLineReadsAsExpected)
{
    using namespace std::string_literals;
    const std::string longText(1100, 'a');
    const std::vector<LineCase> cases = {
        {"binary, one odd digit", "x=b=a", "x", "b:0a"},
        {"binary, three digits in one group", "x=b=abc", "x", "b:bc"},
        {"binary, single digits with blanks", "x=b=1 2 3", "x", "b:010203"},
        {"binary, no hex digit", "x=b=zz", "x", "b:"},
        {"binary, digits then garbage", "x=b=0a zz 0b", "x", "b:0a"},
        {"binary, more bytes than its capacity", "x=b=1 2 3 4 5 6 7 8 9", "x", "b:01020304050607"},
        {"binary, empty", "x=b=", "x", "b:"},
        {"binary, negative group", "x=b=-1 ", "x", "b:ff"},
        {"number overflows long", "x=d=99999999999999999999", "x", "d:4294967295"},
        {"number above 32 bits", "x=d=4294967297", "x", "d:1"},
        {"number negative", "x=d=-1", "x", "d:4294967295"},
        {"number with trailing text", "x=d=12abc", "x", "d:12"},
        {"number without digits", "x=d=abc", "x", "absent"},
        {"number with leading blanks and sign", "x=d=  +7", "x", "d:7"},
        {"unknown tag", "x=q=1", "x", "absent"},
        {"no tag", "x=1", "x", "absent"},
        {"no equals sign", "x", "x", "absent"},
        {"string keeps a carriage return", "x=s=abc\r", "x", "s:abc\r"},
        {"string keeps blanks", "x=s= a b ", "x", "s: a b "},
        {"expandable string kept unexpanded", "x=es=%HOME%", "x", "es:%HOME%"},
        {"name with blanks", " x =s=1", " x ", "s:1"},
        {"empty name", "=s=v", "", "s:v"},
        {"NUL inside the value", "x=s=ab\0cd"s, "x", "s:ab"},
        {"NUL inside the name", "x\0=s=v"s, "x", "absent"},
        {"string line over 1023 characters is cut", "x=s=" + longText, "x", "s:" + std::string(1019, 'a')},
        {"continuation of a long line read as a line", "y=s=" + std::string(1019, 'b') + "x=s=tail", "x",
         "s:tail"},
        {"section without closing bracket is a value line", "[x=s=v", "[x", "s:v"},
    };
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(testsupport::WriteFile(Current(), "[HKEY_LOCAL_MACHINE]\n" + c.line + "\nok=d=1\n\n"));
        Reload();
        EXPECT_EQ(c.expected, Describe(c.name));
        EXPECT_EQ("d:1", Describe("ok"));
    }
}

TEST_F(CRegistryMalformedTest, BrokenFilesFallBackOrFail)
{
    using namespace std::string_literals;
    struct FileCase {
        const char* what;
        std::string content;
        bool read;
    };
    const std::vector<FileCase> cases = {
        {"empty file", "", false},
        {"only empty lines", "\n\n\n", false},
        {"only a NUL", "\0"s, false},
        {"sections without values", "[A]\n[B]\n\n\n", false},
        {"unterminated section and no newline", "[A]\nx=d=1", true},
        {"value after the root block is ignored", "\nx=d=1\n", false},
        {"value nested 200 levels deep", Nested(200), true},
        {"value nested 2000 levels deep is skipped", Nested(2000), false},
    };
    for (const FileCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(testsupport::WriteFile(Current(), c.content));
        CRegistryNode node;
        EXPECT_EQ(c.read, CRegistry::ReadTree(Current().c_str(), &node));
    }
}

} // namespace

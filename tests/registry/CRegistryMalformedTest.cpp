// Malformed registry files and exactly the tree the reader builds from
// them, as that tree writes itself out again.
#include "support/RegistryFixture.h"

#include <cstdio>
#include <random>
#include <string>

namespace {

using namespace std::string_literals;

// 20000 values of one key in sorted order, on lines of random lengths (up to the 1023-character
// limit on every 50th) that cross the borders of the reader's blocks at many offsets.
std::string LargeFile()
{
    std::mt19937 rng(4711);
    std::string file = "[Big]\n";
    char name[16];
    for (int i = 0; i < 20000; ++i) {
        snprintf(name, sizeof name, "v%07d=s=", i);
        file += name + std::string(rng() % (i % 50 == 0 ? 1000 : 60), static_cast<char>('a' + i % 26)) + "\n";
    }
    return file + "\n[Other]\nbin=b=01 ff 10 \n\n\n";
}

std::string Repeat(const std::string& piece, int count)
{
    std::string s;
    for (int i = 0; i < count; ++i)
        s += piece;
    return s;
}

class CRegistryMalformedTest : public RegistryTest {
protected:
    // The tree ReadTree builds from `content`, dumped; "<none>" when it reports that nothing was read.
    std::string Read(const std::string& content)
    {
        EXPECT_TRUE(testsupport::WriteFile(Current(), content));
        CRegistryNode node;
        return CRegistry::ReadTree(Current().c_str(), &node) ? Dump(node) : "<none>";
    }
};

TEST_F(CRegistryMalformedTest, EachLineReadsAsExpected)
{
    const std::string a1019(1019, 'a');
    const std::string b1019(1019, 'b');
    struct LineCase {
        const char* what;
        std::string line;  // followed by a subkey whose value must still be read
        std::string dump;  // what the line leaves in the tree ("" nothing)
    } const cases[] = {
        {"binary, one odd digit", "x=b=a", "x=b=0a \n"},
        {"binary, three digits in one group", "x=b=abc", "x=b=bc \n"},
        {"binary, no hex digit", "x=b=zz", "x=b=\n"},
        {"binary, digits then garbage", "x=b=0a zz 0b", "x=b=0a \n"},
        {"binary, more bytes than its capacity", "x=b=1 2 3 4 5 6 7 8 9", "x=b=01 02 03 04 05 06 07 \n"},
        {"binary, negative group", "x=b=-1 ", "x=b=ff \n"},
        {"binary, 0x prefix and a comma", "x=b=0x1F,2", "x=b=1f \n"},
        {"binary, 0X prefix", "x=b=0X1F", "x=b=1f \n"},
        {"binary, group beyond a long", "x=b=123456789abcdef0123", "x=b=ff \n"},
        {"binary, any white space before a group", "x=b=\t\v\f\r 0a", "x=b=0a \n"},
        {"binary line cut at 1023 characters, then at its capacity", "x=b=" + Repeat("1 ", 600) + "1",
         "x=b=" + Repeat("01 ", 341) + "\n"},
        {"number overflows long", "x=d=99999999999999999999", "x=d=-1\n"},
        {"number above 32 bits", "x=d=4294967297", "x=d=1\n"},
        {"number below -2^31", "x=d=-2147483649", "x=d=2147483647\n"},
        {"number with trailing text", "x=d=12abc", "x=d=12\n"},
        {"number without digits", "x=d=abc", ""},
        {"number with leading blanks and sign", "x=d=  +7", "x=d=7\n"},
        {"unknown tag", "x=q=1", ""}, {"no equals sign", "x", ""},
        {"string keeps a carriage return", "x=s=abc\r", "x=s=abc\r\n"},
        {"string keeps blanks", "x=s= a b ", "x=s= a b \n"},
        {"expandable string kept unexpanded", "x=es=%HOME%", "x=es=%HOME%\n"},
        {"name with blanks", " x =s=1", " x =s=1\n"}, {"empty name", "=s=v", "=s=v\n"},
        {"NUL inside the value", "x=s=ab\0cd"s, "x=s=ab\n"},
        {"NUL inside the name", "x\0=s=v"s, ""},
        {"string line over 1023 characters is cut", "x=s=" + a1019 + "aaaa", "x=s=" + a1019 + "\n"},
        {"continuation of a long line read as a line", "y=s=" + b1019 + "x=s=tail",
         "x=s=tail\ny=s=" + b1019 + "\n"},
        {"section without closing bracket is a value line", "[x=s=v", "[x=s=v\n"},
    };
    const std::string after = "[~]\nok=d=1\n\n\n";
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Read(c.line + "\n" + after), c.dump + after);
    }
}

TEST_F(CRegistryMalformedTest, BrokenFilesFallBackOrFail)
{
    struct FileCase {
        const char* what;
        std::string content;
        std::string dump;
    } const cases[] = {
        {"empty file", "", "<none>"}, {"only empty lines", "\n\n\n", "<none>"}, {"only a NUL", "\0"s, "<none>"},
        {"sections without values", "[A]\n[B]\n\n\n", "<none>"},
        {"unterminated section and no final line feed", "[A]\nx=d=1", "[A]\nx=d=1\n\n\n"},
        {"sections after the root block's end", "x=d=1\n\n[After]\nz=d=1\n", "x=d=1\n\n"},
        {"a line starting with NUL ends the block", "[A]\n\0junk\nx=d=1\n\n"s, "x=d=1\n[A]\n\n\n"},
        {"empty section name", "[]\nv=d=1\n\n\n", "[]\nv=d=1\n\n\n"},
        {"a repeated section replaces the first", "[K]\nfirst=d=1\n\n[K]\nsecond=d=2\n\n\n",
         "[K]\nsecond=d=2\n\n\n"},
        {"a block of only a bad number still counts as read", "[K]\nx=d=abc\n\n\n", "[K]\n\n\n"},
        {"a large file reads back byte for byte", LargeFile(), LargeFile()},
    };
    for (const FileCase& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Read(c.content), c.dump);
    }
    CRegistryNode node;
    EXPECT_FALSE(CRegistry::ReadTree("", &node) || CRegistry::ReadTree(m_Dir.Sub("missing").c_str(), &node));
}

} // namespace

// Malformed INI files and trace configuration files, each with the exact
// result the readers give.
#include "trace/CDebugTraceConfigFile.h"
#include "trace/CIniFile.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

struct IniCase {
    const char* what;
    std::string content;
    const char* section;
    const char* key;
    std::string expected; // the value, or "<d>" for the default
};

TEST(IniMalformed, EachFileReadsAsExpected)
{
    const std::vector<IniCase> cases = {
        {"empty file", "", "S", "k", "<d>"},
        {"line over 1023 characters is cut", "[S]\nk=" + std::string(1100, 'v') + "\n", "S", "k",
         std::string(1021, 'v')},
        {"rest of a long line read as a line", "[S]\ny=" + std::string(1021, 'a') + "k=tail\n", "S", "k", "tail"},
        {"section header over 1023 characters", "[" + std::string(1100, 's') + "]\nk=1\n", "S", "k", "<d>"},
        {"NUL inside a key line", "[S]\nk\0=1\nk=2\n"s, "S", "k", "2"},
        {"NUL inside a value", "[S]\nk=ab\0cd\n"s, "S", "k", "ab"},
        {"NUL inside the header", "[S\0]\nk=1\n"s, "S", "k", "<d>"},
        {"unterminated header", "[S\nk=1\n", "S", "k", "<d>"},
        {"no newline at the end", "[S]\nk=1", "S", "k", "1"},
        {"carriage returns are white space", "[S]\r\nk = 1\r\n", "S", "k", "1"},
        {"value cut at ';'", "[S]\nk=a;b\n", "S", "k", "a"},
        {"empty value gives the default", "[S]\nk=\n", "S", "k", "<d>"},
        {"key before any section", "k=1\n[S]\n", "S", "k", "<d>"},
        {"equals sign only", "[S]\n=\nk=2\n", "S", "k", "2"},
        {"header with trailing text", "[S]x\nk=1\n", "S", "k", "1"},
        {"value of many equals signs", "[S]\nk===\n", "S", "k", "=="},
    };
    testsupport::TempDir dir;
    const std::string file = dir.Sub("t.ini");
    for (const IniCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(testsupport::WriteFile(file, c.content));
        char buf[2048];
        unsigned n = GetPrivateProfileString(c.section, c.key, "<d>", buf, sizeof buf, file.c_str());
        EXPECT_EQ(c.expected, std::string(buf));
        EXPECT_EQ(c.expected.size(), n);
    }
}

TEST(IniMalformed, WritingIntoALongLineFileKeepsTheRest)
{
    testsupport::TempDir dir;
    const std::string file = dir.Sub("t.ini");
    const std::string longLine = "y=" + std::string(1500, 'a') + "\n";
    ASSERT_TRUE(testsupport::WriteFile(file, "[S]\n" + longLine + "k=1\n[T]\nz=2\n"));
    ASSERT_TRUE(WritePrivateProfileString("S", "k", "22", file.c_str()));
    EXPECT_EQ("[S]\n" + longLine + "k=22\n[T]\nz=2\n", testsupport::ReadFile(file));
}

struct ConfigCase {
    const char* what;
    std::string content;
    bool open;
    const char* key;
    const char* expected; // null: ReadValue fails
    size_t limit;
};

TEST(TraceConfigMalformed, EachFileReadsAsExpected)
{
    const std::string v300(300, 'v');
    const std::vector<ConfigCase> cases = {
        {"empty file", "", false, "DebugLevel", nullptr, 64},
        {"no EndOfFile", "[kopd]\nDebugLevel=3\n", false, "DebugLevel", nullptr, 64},
        {"EndOfFile unterminated", "[kopd]\nDebugLevel=3\n[EndOfFile", false, "DebugLevel", nullptr, 64},
        {"EndOfFile in lower case", "[kopd]\nDebugLevel=3\n[endoffile]\n", true, "DebugLevel", "3", 64},
        {"EndOfFile not the last section", "[EndOfFile]\n[kopd]\nDebugLevel=3\n", false, "DebugLevel", nullptr, 64},
        {"section missing", "[other]\nDebugLevel=3\n[EndOfFile]\n", false, "DebugLevel", nullptr, 64},
        {"value over 64 characters", "[kopd]\nDebugLevel=" + v300 + "\n[EndOfFile]\n", true, "DebugLevel",
         "vvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvv", 64},
        {"directory over 256 characters", "[kopd]\nRingBufferDirectory=" + v300 + "\n[EndOfFile]\n", true,
         "RingBufferDirectory", nullptr, 256},
        {"NUL after the value", "[kopd]\nDebugLevel=3\0junk\n[EndOfFile]\n"s, true, "DebugLevel", "3", 64},
        {"NUL before the key", "[kopd]\n\0DebugLevel=3\n[EndOfFile]\n"s, true, "DebugLevel", nullptr, 64},
        {"NUL in the EndOfFile header", "[kopd]\nDebugLevel=3\n[EndOf\0File]\n"s, false, "DebugLevel", nullptr, 64},
        {"key without equals sign", "[kopd]\nDebugLevel\n[EndOfFile]\n", true, "DebugLevel", nullptr, 64},
        {"equals sign in the next section", "[kopd]\nDebugLevel\n[x]\ny=1\n[EndOfFile]\n", true, "DebugLevel",
         nullptr, 64},
        {"empty value at the end of the section", "[kopd]\nDebugLevel=\n[EndOfFile]\n", true, "DebugLevel", "", 64},
        {"section name in other case", "[KOPD]\nDebugLevel = 7\n[EndOfFile]\n", true, "DebugLevel", "7", 64},
    };
    testsupport::TempDir dir;
    for (const ConfigCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(testsupport::WriteFile(dir.Sub("t.ini"), c.content));
        CDebugTraceConfigFile file;
        ASSERT_EQ(c.open, file.OpenSectionInIniFile("kopd", "t.ini", dir.Path().c_str()));
        if (!c.open)
            continue;
        std::string value = "untouched";
        bool found = file.ReadValue(c.key, value, c.limit);
        if (c.expected) {
            EXPECT_TRUE(found);
            EXPECT_EQ(c.expected, value);
        } else if (c.limit == 256) {
            EXPECT_TRUE(found);
            EXPECT_EQ(std::string(256, 'v'), value);
        } else {
            EXPECT_FALSE(found);
            EXPECT_EQ("untouched", value);
        }
    }
}

} // namespace

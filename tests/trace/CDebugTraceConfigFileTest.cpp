// Malformed trace configuration files, each with the exact result the
// reader gives.
#include "trace/CDebugTraceConfigFile.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <dirent.h>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

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

// The listing's filter: ".ini" anywhere in the name.
TEST(TraceConfigMalformed, DirectoryListingTakesEveryNameContainingIni)
{
    const struct {
        const char* name;
        bool taken;
    } cases[] = {{"a.ini", true}, {"x.ini.bak", true}, {".ini", true}, {"ini", false}, {"a.in", false},
                 {"a.INI", false}, {"", false}};
    for (const auto& c : cases) {
        struct dirent entry {};
        strncpy(entry.d_name, c.name, sizeof entry.d_name - 1);
        EXPECT_EQ(CDirectoryList::SelectFilesInDir(&entry) != 0, c.taken) << c.name;
    }
    EXPECT_EQ(CDirectoryList::SelectFilesInDir(nullptr), 0);
}

} // namespace

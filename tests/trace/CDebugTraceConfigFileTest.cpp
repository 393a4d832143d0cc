// Malformed trace configuration files, each with the exact result the reader gives.
#include "trace/CDebugTraceConfigFile.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <dirent.h>
#include <string>

namespace {

using namespace std::string_literals;

TEST(TraceConfigMalformed, EachFileReadsAsExpected)
{
    const std::string v300(300, 'v'), none = "<not found>";
    const struct {
        const char* what;
        std::string content;
        bool open;
        const char* key;
        std::string expected;
    } cases[] = {
        {"empty file", "", false, "DebugLevel", none},
        {"EndOfFile unterminated", "[kopd]\nDebugLevel=3\n[EndOfFile", false, "DebugLevel", none},
        {"section missing", "[other]\nDebugLevel=3\n[EndOfFile]\n", false, "DebugLevel", none},
        {"value over 64 characters", "[kopd]\nDebugLevel=" + v300 + "\n[EndOfFile]\n", true, "DebugLevel",
         std::string(64, 'v')},
        {"directory over 256 characters", "[kopd]\nRingBufferDirectory=" + v300 + "\n[EndOfFile]\n", true,
         "RingBufferDirectory", std::string(256, 'v')},
        {"NUL after the value", "[kopd]\nDebugLevel=3\0junk\n[EndOfFile]\n"s, true, "DebugLevel", "3"},
        {"NUL before the key", "[kopd]\n\0DebugLevel=3\n[EndOfFile]\n"s, true, "DebugLevel", none},
        {"NUL in the EndOfFile header", "[kopd]\nDebugLevel=3\n[EndOf\0File]\n"s, false, "DebugLevel", none},
        {"key without equals sign", "[kopd]\nDebugLevel\n[EndOfFile]\n", true, "DebugLevel", none},
        {"equals sign in the next section", "[kopd]\nDebugLevel\n[x]\ny=1\n[EndOfFile]\n", true, "DebugLevel", none},
        {"empty value at the end of the section", "[kopd]\nDebugLevel=\n[EndOfFile]\n", true, "DebugLevel", ""},
        {"section name in other case", "[KOPD]\nDebugLevel = 7\n[EndOfFile]\n", true, "DebugLevel", "7"},
    };
    testsupport::TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(testsupport::WriteFile(dir.Sub("t.ini"), c.content));
        CDebugTraceConfigFile file;
        ASSERT_EQ(c.open, file.OpenSectionInIniFile("kopd", "t.ini", dir.Path().c_str()));
        std::string value = none;
        const size_t limit = c.expected.size() > CDebugTraceConfigFile::kValueLimit
                                 ? CDebugTraceConfigFile::kDirectoryLimit : CDebugTraceConfigFile::kValueLimit;
        EXPECT_TRUE(!c.open || file.ReadValue(c.key, value, limit) == (c.expected != none));
        EXPECT_TRUE(!c.open || value == c.expected) << value;
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

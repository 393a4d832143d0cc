// INI files: the reader on malformed files, the writer's exact output, the class on top.
#include "trace/CIniFile.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace std::string_literals;
using testsupport::ReadFile;
using testsupport::WriteFile;

namespace {

class IniTest : public ::testing::Test {
protected:
    // The value of `key`, "<d>" when the default came back; checks that
    // nothing was written past `size` and that the count is right.
    std::string Read(const char* section, const char* key, unsigned size = 2048)
    {
        std::vector<char> buf(size + 8, 'X');
        unsigned n = GetPrivateProfileString(section, key, "<d>", buf.data(), size, m_Path.c_str());
        EXPECT_EQ(buf[size], 'X') << "wrote past the buffer";
        EXPECT_EQ(n, strlen(buf.data()));
        return buf.data();
    }
    // The names GetPrivateProfileString lists (sections, or the keys of
    // `section`), with the count it returned.
    std::vector<std::string> List(const char* section, unsigned size, unsigned* count)
    {
        char buf[72];
        memset(buf, 'X', sizeof buf);
        *count = GetPrivateProfileString(section, nullptr, nullptr, buf, size, m_Path.c_str());
        EXPECT_EQ(buf[*count], '\0');
        EXPECT_EQ(buf[size], 'X');
        std::vector<std::string> out;
        for (const char* p = buf; *p; p += strlen(p) + 1)
            out.emplace_back(p);
        return out;
    }
    testsupport::TempDir m_Dir;
    std::string m_Path = m_Dir.Sub("test.ini");
};

} // namespace

TEST_F(IniTest, EachFileReadsAsExpected)
{
    const struct {
        const char* what;
        std::string content;
        const char *section, *key;
        std::string expected;  // the value, or "<d>" for the default
    } cases[] = {
        {"missing file", "", "S", "k", "<d>"},
        {"comments and white space", "; c\n[Main]\n  a = abc ; comment\n", "Main", "a", "abc"},
        {"white space inside a value", "[S]\nc\t=\t  spaced value  \n", "S", "c", "spaced value"},
        {"indented comment", "[S]\n   ; c=1\n", "S", "   ; c", "<d>"},
        {"key without value", "[S]\nnovalue\n", "S", "novalue", "<d>"},
        {"empty value gives the default", "[S]\nk=\n", "S", "k", "<d>"},
        {"sections are case-sensitive", "[Main]\na=1\n", "main", "a", "<d>"},
        {"keys are case-sensitive", "[Main]\na=1\n", "Main", "A", "<d>"},
        {"section ends at the next header", "[A]\nk1=1\n[B]\nk3=3\n", "A", "k3", "<d>"},
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
        {"key before any section", "k=1\n[S]\n", "S", "k", "<d>"},
        {"equals sign only", "[S]\n=\nk=2\n", "S", "k", "2"},
        {"header with trailing text", "[S]x\nk=1\n", "S", "k", "1"},
        {"value of many equals signs", "[S]\nk===\n", "S", "k", "=="},
        {"other white space before '='", "[S]\nf\f \t= 1\n", "S", "f", "1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(c.content.empty() || WriteFile(m_Path, c.content));
        EXPECT_EQ(Read(c.section, c.key), c.expected);
    }
    WriteFile(m_Path, "[S]\nkey=0123456789\n");
    EXPECT_EQ(Read("S", "key", 5), "0123");  // cut to size - 1
    EXPECT_EQ(Read("S", "key", 1), "");
}

TEST_F(IniTest, MissingFileYieldsDefaultOnlyWhenAllGiven)
{
    char buf[16] = "junk";
    EXPECT_EQ(GetPrivateProfileString("S", "k", "default-value-long", buf, sizeof buf, m_Path.c_str()), 15u);
    EXPECT_STREQ(buf, "default-value-l");
    EXPECT_EQ(GetPrivateProfileString("S", nullptr, "d", buf, sizeof buf, m_Path.c_str()), 0u);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(GetPrivateProfileString("S", "k", "d", nullptr, 16, m_Path.c_str()), 0u);
    EXPECT_EQ(GetPrivateProfileString("S", "k", "d", buf, sizeof buf, nullptr), 0u);
}

TEST_F(IniTest, ListsOfSectionsAndKeysEndWithEmptyStringAndStayInBounds)
{
    WriteFile(m_Path, "[A]\nk1=1\nk2=2\n[B]\nk3=3\n[C\n[D] ; c\n");
    unsigned n = 0;
    EXPECT_EQ(List(nullptr, 64, &n), (std::vector<std::string>{"A", "B", "D"}));
    EXPECT_EQ(List("A", 64, &n), (std::vector<std::string>{"k1", "k2"}));
    EXPECT_EQ(n, 6u);
    WriteFile(m_Path, "[S]\nkey=0123456789\nk2=x\nk3=y\n");
    EXPECT_EQ(List("S", 6, &n), (std::vector<std::string>{"key"}));  // cut
    EXPECT_EQ(n, 4u);
}

TEST_F(IniTest, WriterOutputByteForByte)
{
    const std::string longLine = "y=" + std::string(1500, 'a') + "\n";
    const struct {
        const char* what;
        std::string before;  // empty: no file
        std::vector<std::vector<const char*>> writes;  // section, key, value (null: delete)
        std::string after;
        bool lastResult = true;
    } cases[] = {
        {"new file", "", {{"Sec", "key", "value"}}, "\n[Sec]\n\nkey=value\n"},
        {"keys, sections, a missing key in front of the next header", "",
         {{"A", "k1", "v1"}, {"A", "k2", "v2"}, {"B", "x", "1"}, {"A", "k3", "v3"}, {"A", "k2", "changed"}},
         "\n[A]\n\nk1=v1\nk2=changed\n\nk3=v3\n[B]\n\nx=1\n"},
        {"the first key of a section adds a blank line each time", "\n[A]\n\nk1=v1\nk2=v2\n",
         {{"A", "k1", "w"}, {"A", "k1", "w2"}}, "\n[A]\n\n\n\nk1=w2\nk2=v2\n"},
        {"an indented key is not replaced; other case, other section", "[S]\n  k=old\nz=1\n",
         {{"S", "k", "new"}, {"s", "k", "v"}}, "[S]\n  k=old\nz=1\nk=new\n\n[s]\n\nk=v\n"},
        {"the writer skips only blanks and tabs before '='", "[S]\nk\v=old\nf\f \t= 1\nc\r=2\nb \t=3\n",
         {{"S", "k", "new"}, {"S", "f", "new"}, {"S", "b", "new"}},
         "[S]\nk\v=old\nf\f \t= 1\nc\r=2\nb=new\nk=new\nf=new\n"},
        {"nor does a delete find such a key", "[S]\nc\r=2\n", {{"S", "c", nullptr}}, "[S]\nc\r=2\n", false},
        {"delete of a key", "[A]\na1=1\na2=2\n[B]\nb1=1\nb2=2\n[C]\nc1=1\n", {{"A", "a2", nullptr}},
         "[A]\na1=1\n[B]\nb1=1\nb2=2\n[C]\nc1=1\n"},
        {"delete of a section", "[A]\na1=1\n[B]\nb1=1\nb2=2\n[C]\nc1=1\n", {{"B", nullptr, nullptr}},
         "[A]\na1=1\n[C]\nc1=1\n"},
        {"delete of the last key", "[A]\na1=1\n[C]\nc1=1\n", {{"C", "c1", nullptr}}, "[A]\na1=1\n[C]\n\n"},
        {"delete of the last section", "[A]\na1=1\n[C]\n\n", {{"C", nullptr, nullptr}}, "[A]\na1=1\n"},
        {"delete of a missing key", "[A]\na1=1\n[B]\n", {{"A", "nokey", nullptr}}, "[A]\na1=1\n[B]\n", false},
        {"delete of a missing section", "[A]\na1=1\n", {{"Z", nullptr, nullptr}}, "[A]\na1=1\n", false},
        {"no newline at the end, new key", "[S]\nk=v", {{"S", "n", "1"}}, "[S]\nk=v\nn=1\n"},
        {"no newline at the end, first key", "[S]\nk=v", {{"S", "k", "w"}}, "[S]\n\nk=w\n"},
        {"no newline at the end, new section", "[S]\nk=v", {{"T", "a", "b"}}, "[S]\nk=v\n\n[T]\n\na=b\n"},
        {"a long line is kept whole", "[S]\n" + longLine + "k=1\n[T]\nz=2\n", {{"S", "k", "22"}},
         "[S]\n" + longLine + "k=22\n[T]\nz=2\n"},
        {"physical lines of any length",
         "[S]\nlong=" + std::string(3000, 'v') + "\n" + std::string(1023, 'p') + "hidden=yes\nafter=1\n",
         {{"S", "after", "2"}, {"S", "long", "short"}},
         "[S]\n\nlong=short\n" + std::string(1023, 'p') + "hidden=yes\nafter=2\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        testsupport::RemoveTree(m_Path);
        ASSERT_TRUE(c.before.empty() || WriteFile(m_Path, c.before));
        bool ok = false;
        for (const auto& w : c.writes)
            ok = WritePrivateProfileString(w[0], w[1], w[2], m_Path.c_str());
        EXPECT_EQ(ok, c.lastResult);
        EXPECT_EQ(ReadFile(m_Path), c.after);
    }
    struct stat st {};
    WritePrivateProfileString("Sec", "k", "v", m_Dir.Sub("new.ini").c_str());
    EXPECT_TRUE(stat(m_Dir.Sub("new.ini").c_str(), &st) == 0 && (st.st_mode & 07777) == 0644);
    // Deleting from a missing file does nothing and succeeds; creating in a missing directory or
    // without section or file fails.
    std::string other = m_Dir.Sub("none.ini");
    EXPECT_TRUE(WritePrivateProfileString("Sec", nullptr, nullptr, other.c_str()));
    EXPECT_TRUE(WritePrivateProfileString("Sec", "k", nullptr, other.c_str()));
    EXPECT_FALSE(testsupport::FileExists(other));
    EXPECT_FALSE(WritePrivateProfileString("Sec", "k", "v", m_Dir.Sub("no/such.ini").c_str()));
    EXPECT_FALSE(WritePrivateProfileString(nullptr, "k", "v", m_Path.c_str()) ||
                 WritePrivateProfileString("Sec", "k", "v", nullptr));
}

TEST_F(IniTest, ClassReadsTypedValuesAndGrowsBuffers)
{
    CIniFile ini;
    EXPECT_FALSE(ini.Open(false));
    EXPECT_STREQ(ini.GetFileName(), "");
    EXPECT_STREQ(ini.GetString("S", "k", "d"), "d");
    EXPECT_FALSE(ini.Open(m_Path.c_str(), true));  // missing file
    EXPECT_TRUE(ini.Open(m_Path.c_str(), false));
    std::string content = "[N]\nhex=0x1F\noct=010\nempty=\nneg=-1\n";
    for (int i = 0; i < 300; ++i)
        content += "[Section_number_" + std::to_string(i) + "]\n";
    WriteFile(m_Path, content + "[Mid]\nv=" + std::string(1000, 'm') + "\n");
    const std::pair<const char*, unsigned> numbers[] = {
        {"hex", 31}, {"oct", 8}, {"empty", 7}, {"missing", 7}, {nullptr, 7}, {"neg", 0xFFFFFFFFu}};
    for (const auto& [key, expected] : numbers)
        EXPECT_EQ(ini.GetNumber("N", key, 7), expected) << (key ? key : "null");
    // A long value that fits a line grows the buffer.
    EXPECT_EQ(std::string(ini.GetString("Mid", "v", "d")), std::string(1000, 'm'));
    std::string s;
    EXPECT_TRUE(ini.GetString(s, "Mid", "v", "d") && s == std::string(1000, 'm'));
    std::vector<std::string> sections;
    EXPECT_TRUE(ini.GetSections(sections));
    ASSERT_EQ(sections.size(), 302u);  // well past 1024 bytes of names
    EXPECT_EQ(sections[1], "Section_number_0");
    EXPECT_EQ(sections.back(), "Mid");
    std::vector<std::string> keys;
    EXPECT_TRUE(ini.GetEnums(keys, "N"));
    EXPECT_EQ(keys, (std::vector<std::string>{"hex", "oct", "empty", "neg"}));
    EXPECT_FALSE(ini.GetEnums(keys, nullptr) || ini.GetEnums(keys, "Section_number_3"));
    EXPECT_STREQ(ini.GetEnum("N"), "hex");
    for (const char* next : {"oct", "empty", "neg", "", ""})
        EXPECT_STREQ(ini.GetNextEnum(), next);
    ini.Close();
    EXPECT_STREQ(ini.GetNextEnum(), "");  // nothing left of the closed file
    EXPECT_STREQ(ini.GetString("N", "hex", "closed"), "closed");
    content.clear();
    for (int i = 0; i < 3000; ++i)  // about 100 kB of names: past the buffer limit
        content += "[A_rather_long_section_name_" + std::to_string(i) + "]\n";
    WriteFile(m_Path, content);
    ASSERT_TRUE(ini.Open(m_Path.c_str()));
    std::vector<std::string> none;
    EXPECT_FALSE(ini.GetSections(none) || !none.empty());
}

TEST_F(IniTest, ClassWritesNumbersAndCopiesSections)
{
    CIniFile ini;
    ASSERT_TRUE(ini.Open(m_Path.c_str()));
    EXPECT_TRUE(ini.SetNumber("S", "u", 4000000000u) && ini.SetNumber("S", "i", -5) && ini.SetString("S", "s", "t"));
    EXPECT_FALSE(ini.SetNumber("S", nullptr, 1) || ini.SetString(nullptr, "k", "v"));
    EXPECT_TRUE(ini.CopySection("S", "T") && ini.DeleteKey("T", "s") && ini.DeleteSection("S"));
    ini.Flush();
    EXPECT_EQ(ReadFile(m_Path), "\n[T]\n\nu=4000000000\ni=-5\n");
    ini.Close();
    EXPECT_FALSE(ini.DeleteSection("T") || ini.CopySection("T", "U") || ini.SetString("N", "x", "1"));
}

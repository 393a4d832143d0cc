#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "support/TestSupport.h"
#include "trace/CIniFile.h"

using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

class IniTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(m_Dir.Path().empty());
        m_Path = m_Dir.Sub("test.ini");
    }
    std::string Read(const char* section, const char* key, const char* def = "DEF", unsigned size = 256)
    {
        std::vector<char> buf(size + 8, 'X');
        unsigned n = GetPrivateProfileString(section, key, def, buf.data(), size, m_Path.c_str());
        EXPECT_EQ(buf[size], 'X') << "wrote past the buffer";
        EXPECT_EQ(n, strlen(buf.data()));
        return buf.data();
    }
    TempDir m_Dir;
    std::string m_Path;
};

std::vector<std::string> SplitList(const char* p)
{
    std::vector<std::string> out;
    while (*p) {
        out.emplace_back(p);
        p += strlen(p) + 1;
    }
    return out;
}

} // namespace

TEST_F(IniTest, CommentsAndWhiteSpace)
{
    WriteFile(m_Path, "; leading comment\n"
                      "[Main]\n"
                      "  a = abc ; comment\n"
                      "b=x;y\n"
                      "   ; indented comment=1\n"
                      "c\t=\t  spaced value  \n"
                      "empty=\n"
                      "novalue\n");
    EXPECT_EQ(Read("Main", "a"), "abc");
    EXPECT_EQ(Read("Main", "b"), "x");
    EXPECT_EQ(Read("Main", "c"), "spaced value");
    EXPECT_EQ(Read("Main", "empty"), "DEF");
    EXPECT_EQ(Read("Main", "novalue"), "DEF");
    EXPECT_EQ(Read("Main", "   ; indented comment"), "DEF");
    // Case-sensitive sections and keys.
    EXPECT_EQ(Read("main", "a"), "DEF");
    EXPECT_EQ(Read("Main", "A"), "DEF");
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

TEST_F(IniTest, SectionEndsAtNextHeaderAndListsEndWithEmptyString)
{
    WriteFile(m_Path, "[A]\nk1=1\nk2=2\n[B]\nk3=3\n[C\n[D] ; c\n");
    EXPECT_EQ(Read("A", "k3"), "DEF");
    EXPECT_EQ(Read("B", "k3"), "3");
    char buf[64];
    memset(buf, 'X', sizeof buf);
    unsigned n = GetPrivateProfileString(nullptr, nullptr, nullptr, buf, sizeof buf, m_Path.c_str());
    EXPECT_EQ(n, 6u);  // "A\0B\0D\0"
    EXPECT_EQ(buf[6], '\0');
    EXPECT_EQ(SplitList(buf), (std::vector<std::string>{"A", "B", "D"}));
    memset(buf, 'X', sizeof buf);
    n = GetPrivateProfileString("A", nullptr, nullptr, buf, sizeof buf, m_Path.c_str());
    EXPECT_EQ(n, 6u);
    EXPECT_EQ(SplitList(buf), (std::vector<std::string>{"k1", "k2"}));
}

TEST_F(IniTest, CutResultsStayInsideTheBuffer)
{
    WriteFile(m_Path, "[S]\nkey=0123456789\nk2=x\nk3=y\n");
    EXPECT_EQ(Read("S", "key", "DEF", 5), "0123");  // size - 1 returned
    char buf[8];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(GetPrivateProfileString("S", nullptr, nullptr, buf, 6, m_Path.c_str()), 4u);
    EXPECT_EQ(buf[4], '\0');
    EXPECT_EQ(buf[5], '\0');
    EXPECT_EQ(buf[6], 'X');
    EXPECT_EQ(GetPrivateProfileString("S", "key", "DEF", buf, 1, m_Path.c_str()), 0u);
    EXPECT_EQ(buf[0], '\0');
}

TEST_F(IniTest, LongLinesAreReadInPiecesWithoutOverrun)
{
    std::string longValue(3000, 'v');
    std::string tail = "hidden=yes";
    WriteFile(m_Path, "[S]\nlong=" + longValue + "\n" + std::string(1023, 'p') + tail + "\nafter=1\n");
    // The reader takes 1023 characters a line; the rest counts as a line of its own.
    EXPECT_EQ(Read("S", "long", "DEF", 4096), std::string(1018, 'v'));
    EXPECT_EQ(Read("S", "hidden"), "yes");
    EXPECT_EQ(Read("S", "after"), "1");
    // The writer handles physical lines of any length.
    ASSERT_TRUE(WritePrivateProfileString("S", "after", "2", m_Path.c_str()));
    EXPECT_EQ(Read("S", "after"), "2");
    ASSERT_TRUE(WritePrivateProfileString("S", "long", "short", m_Path.c_str()));
    EXPECT_EQ(Read("S", "long"), "short");
}

TEST_F(IniTest, CreatesMissingFileWithLayoutAndMode)
{
    ASSERT_TRUE(WritePrivateProfileString("Sec", "key", "value", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "\n[Sec]\n\nkey=value\n");
    struct stat st {};
    ASSERT_EQ(stat(m_Path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    // Deleting from a missing file does nothing and succeeds.
    std::string other = m_Dir.Sub("none.ini");
    EXPECT_TRUE(WritePrivateProfileString("Sec", nullptr, nullptr, other.c_str()));
    EXPECT_TRUE(WritePrivateProfileString("Sec", "k", nullptr, other.c_str()));
    EXPECT_FALSE(testsupport::FileExists(other));
    // Creation in a missing directory fails.
    EXPECT_FALSE(WritePrivateProfileString("Sec", "k", "v", m_Dir.Sub("no/such.ini").c_str()));
    EXPECT_FALSE(WritePrivateProfileString(nullptr, "k", "v", m_Path.c_str()));
    EXPECT_FALSE(WritePrivateProfileString("Sec", "k", "v", nullptr));
}

TEST_F(IniTest, WritingKeysAndSections)
{
    ASSERT_TRUE(WritePrivateProfileString("A", "k1", "v1", m_Path.c_str()));
    ASSERT_TRUE(WritePrivateProfileString("A", "k2", "v2", m_Path.c_str()));
    ASSERT_TRUE(WritePrivateProfileString("B", "x", "1", m_Path.c_str()));
    // A missing key goes directly in front of the next header.
    ASSERT_TRUE(WritePrivateProfileString("A", "k3", "v3", m_Path.c_str()));
    ASSERT_TRUE(WritePrivateProfileString("A", "k2", "changed", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "\n[A]\n\nk1=v1\nk2=changed\n\nk3=v3\n[B]\n\nx=1\n");
    // Writing the first key of a section adds one blank line each time.
    ASSERT_TRUE(WritePrivateProfileString("A", "k1", "w", m_Path.c_str()));
    ASSERT_TRUE(WritePrivateProfileString("A", "k1", "w2", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "\n[A]\n\n\n\nk1=w2\nk2=changed\n\nk3=v3\n[B]\n\nx=1\n");
    EXPECT_EQ(Read("A", "k1"), "w2");
}

TEST_F(IniTest, IndentedKeyIsReadButNotReplaced)
{
    WriteFile(m_Path, "[S]\n  k=old\nz=1\n");
    EXPECT_EQ(Read("S", "k"), "old");
    ASSERT_TRUE(WritePrivateProfileString("S", "k", "new", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[S]\n  k=old\nz=1\nk=new\n");
    EXPECT_EQ(Read("S", "k"), "old");  // the reader finds the first line
    // A header written in a different case is a different section.
    ASSERT_TRUE(WritePrivateProfileString("s", "k", "v", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[S]\n  k=old\nz=1\nk=new\n\n[s]\n\nk=v\n");
}

TEST_F(IniTest, KeyBeforeOtherWhiteSpaceIsReadButNotReplaced)
{
    // The reader drops any white space between a key and '=', the writer
    // only blanks and tabs: a vertical tab, form feed or carriage return
    // there makes the writer add a second line that the reader never sees.
    WriteFile(m_Path, "[S]\nk\v=old\nf\f \t= 1\nc\r=2\nb \t=3\n");
    EXPECT_EQ(Read("S", "k"), "old");
    EXPECT_EQ(Read("S", "f"), "1");
    EXPECT_EQ(Read("S", "c"), "2");
    ASSERT_TRUE(WritePrivateProfileString("S", "k", "new", m_Path.c_str()));
    ASSERT_TRUE(WritePrivateProfileString("S", "f", "new", m_Path.c_str()));
    ASSERT_TRUE(WritePrivateProfileString("S", "b", "new", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[S]\nk\v=old\nf\f \t= 1\nc\r=2\nb=new\nk=new\nf=new\n");
    EXPECT_EQ(Read("S", "k"), "old");
    EXPECT_EQ(Read("S", "f"), "1");
    EXPECT_EQ(Read("S", "b"), "new");
    // Nor does a delete find such a key.
    EXPECT_FALSE(WritePrivateProfileString("S", "c", nullptr, m_Path.c_str()));
    EXPECT_EQ(Read("S", "c"), "2");
}

TEST_F(IniTest, DeletesInTheMiddleAndAtTheEnd)
{
    WriteFile(m_Path, "[A]\na1=1\na2=2\n[B]\nb1=1\nb2=2\n[C]\nc1=1\n");
    ASSERT_TRUE(WritePrivateProfileString("A", "a2", nullptr, m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[A]\na1=1\n[B]\nb1=1\nb2=2\n[C]\nc1=1\n");
    ASSERT_TRUE(WritePrivateProfileString("B", nullptr, nullptr, m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[A]\na1=1\n[C]\nc1=1\n");
    ASSERT_TRUE(WritePrivateProfileString("C", "c1", nullptr, m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[A]\na1=1\n[C]\n\n");
    ASSERT_TRUE(WritePrivateProfileString("C", nullptr, nullptr, m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[A]\na1=1\n");
    // Deleting what is missing fails and changes nothing.
    EXPECT_FALSE(WritePrivateProfileString("A", "nokey", nullptr, m_Path.c_str()));
    EXPECT_FALSE(WritePrivateProfileString("Z", nullptr, nullptr, m_Path.c_str()));
    WriteFile(m_Path, "[A]\na1=1\n[B]\n");
    EXPECT_FALSE(WritePrivateProfileString("A", "nokey", nullptr, m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[A]\na1=1\n[B]\n");
}

TEST_F(IniTest, FileWithoutTrailingNewline)
{
    WriteFile(m_Path, "[S]\nk=v");
    EXPECT_EQ(Read("S", "k"), "v");
    ASSERT_TRUE(WritePrivateProfileString("S", "n", "1", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[S]\nk=v\nn=1\n");
    WriteFile(m_Path, "[S]\nk=v");
    ASSERT_TRUE(WritePrivateProfileString("S", "k", "w", m_Path.c_str()));  // first key: blank line above
    EXPECT_EQ(ReadFile(m_Path), "[S]\n\nk=w\n");
    WriteFile(m_Path, "[S]\nk=v");
    ASSERT_TRUE(WritePrivateProfileString("T", "a", "b", m_Path.c_str()));
    EXPECT_EQ(ReadFile(m_Path), "[S]\nk=v\n\n[T]\n\na=b\n");
}

TEST_F(IniTest, ClassReadsTypedValuesAndGrowsBuffers)
{
    CIniFile ini;
    EXPECT_FALSE(ini.Open(false));
    EXPECT_STREQ(ini.GetFileName(), "");
    EXPECT_STREQ(ini.GetString("S", "k", "d"), "d");
    EXPECT_FALSE(ini.Open(m_Path.c_str(), true));  // missing file
    EXPECT_TRUE(ini.Open(m_Path.c_str(), false));
    EXPECT_TRUE(ini.IsOpen());

    std::string big(5000, 'q');
    std::string content = "[N]\nhex=0x1F\noct=010\nempty=\nneg=-1\n[Long]\nv=" + big + "\n";
    for (int i = 0; i < 300; ++i)
        content += "[Section_number_" + std::to_string(i) + "]\n";
    WriteFile(m_Path, content);

    EXPECT_EQ(ini.GetNumber("N", "hex", 7), 31u);
    EXPECT_EQ(ini.GetNumber("N", "oct", 7), 8u);
    EXPECT_EQ(ini.GetNumber("N", "empty", 7), 7u);
    EXPECT_EQ(ini.GetNumber("N", "missing", 7), 7u);
    EXPECT_EQ(ini.GetNumber("N", nullptr, 7), 7u);
    EXPECT_EQ(ini.GetNumber("N", "neg", 7), 0xFFFFFFFFu);

    // A long value is read in 1023-character lines, so the value is the
    // first piece; a long value that fits a line grows the buffer.
    WriteFile(m_Path, content + "[Mid]\nv=" + std::string(1000, 'm') + "\n");
    EXPECT_EQ(std::string(ini.GetString("Mid", "v", "d")), std::string(1000, 'm'));
    std::string s;
    EXPECT_TRUE(ini.GetString(s, "Mid", "v", "d"));
    EXPECT_EQ(s, std::string(1000, 'm'));

    std::vector<std::string> sections;
    EXPECT_TRUE(ini.GetSections(sections));
    ASSERT_EQ(sections.size(), 303u);  // well past 1024 bytes of names
    EXPECT_EQ(sections.front(), "N");
    EXPECT_EQ(sections[2], "Section_number_0");
    EXPECT_EQ(sections[301], "Section_number_299");
    EXPECT_EQ(sections.back(), "Mid");

    std::vector<std::string> keys;
    EXPECT_TRUE(ini.GetEnums(keys, "N"));
    EXPECT_EQ(keys, (std::vector<std::string>{"hex", "oct", "empty", "neg"}));
    EXPECT_FALSE(ini.GetEnums(keys, nullptr));
    EXPECT_FALSE(ini.GetEnums(keys, "Section_number_3"));
    EXPECT_STREQ(ini.GetEnum("N"), "hex");
    EXPECT_STREQ(ini.GetNextEnum(), "oct");
    EXPECT_STREQ(ini.GetNextEnum(), "empty");
    EXPECT_STREQ(ini.GetNextEnum(), "neg");
    EXPECT_STREQ(ini.GetNextEnum(), "");
    EXPECT_STREQ(ini.GetNextEnum(), "");
    ini.Close();
    EXPECT_STREQ(ini.GetNextEnum(), "");
    EXPECT_STREQ(ini.GetString("N", "hex", "closed"), "closed");
    EXPECT_FALSE(ini.SetString("N", "x", "1"));
}

TEST_F(IniTest, ClassGivesUpPastTheBufferLimit)
{
    std::string content;
    for (int i = 0; i < 3000; ++i)
        content += "[A_rather_long_section_name_" + std::to_string(i) + "]\n";
    WriteFile(m_Path, content);  // about 100 kB of names
    CIniFile ini;
    ASSERT_TRUE(ini.Open(m_Path.c_str()));
    std::vector<std::string> sections;
    EXPECT_FALSE(ini.GetSections(sections));
    EXPECT_TRUE(sections.empty());
}

TEST_F(IniTest, ClassWritesNumbersAndCopiesSections)
{
    CIniFile ini;
    ASSERT_TRUE(ini.Open(m_Path.c_str()));
    EXPECT_TRUE(ini.SetNumber("S", "u", 4000000000u));
    EXPECT_TRUE(ini.SetNumber("S", "i", -5));
    EXPECT_TRUE(ini.SetString("S", "s", "text"));
    EXPECT_FALSE(ini.SetNumber("S", nullptr, 1));
    EXPECT_FALSE(ini.SetString(nullptr, "k", "v"));
    EXPECT_EQ(ini.GetNumber("S", "u", 0), 4000000000u);
    EXPECT_STREQ(ini.GetString("S", "i", ""), "-5");
    EXPECT_TRUE(ini.CopySection("S", "T"));
    EXPECT_STREQ(ini.GetString("T", "s", ""), "text");
    EXPECT_EQ(ini.GetNumber("T", "u", 0), 4000000000u);
    EXPECT_TRUE(ini.DeleteKey("T", "s"));
    EXPECT_STREQ(ini.GetString("T", "s", "gone"), "gone");
    EXPECT_TRUE(ini.DeleteSection("S"));
    std::vector<std::string> sections;
    ini.GetSections(sections);
    EXPECT_EQ(sections, (std::vector<std::string>{"T"}));
    ini.Flush();
    ini.Close();
    EXPECT_FALSE(ini.DeleteSection("T"));
    EXPECT_FALSE(ini.CopySection("T", "U"));
}

// The registry files: the exact text a save writes, its rotation and the fall-backs.
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <tuple>

#include "support/RegistryFixture.h"

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

// The string value "from" of HKEY_LOCAL_MACHINE, through a fresh handle.
std::string From() { return testsupport::TextOr("", "from", ""); }

TEST_F(RegistryTest, WritesExactTextReadsItBackAndRotates)
{
    const unsigned char bin[] = {0x00, 0x01, 0x7f, 0x80, 0xff};
    {
        CRegistry reg;
        EXPECT_FALSE(CRegistry::IsSetUp());  // no file yet
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_CURRENT_USER, "Key with blanks/Inner"), 0);
        const std::pair<const char*, unsigned> numbers[] = {{"big", 2147483648u}, {"max", 0xFFFFFFFFu},
                                                            {"pos", 2147483647u}, {"zero", 0},
                                                            {"million", 1000000}, {"neg", 0u - 999u}};
        for (const auto& [name, number] : numbers)
            EXPECT_EQ(reg.SetValue(name, number), 0u);
        EXPECT_EQ(reg.SetValue("name with blanks", " text with blanks "), 0u);
        EXPECT_EQ(reg.SetValue("empty", ""), 0u);
        EXPECT_EQ(reg.SetValue("pct", "text with %percent% and = signs"), 0u);
        EXPECT_TRUE(reg.SetValue("bin", bin, sizeof bin, RegBinary));
        EXPECT_TRUE(reg.SetValue("nobytes", nullptr, 0, RegBinary));
        EXPECT_TRUE(reg.SetValue("exp", reinterpret_cast<const unsigned char*>("%X%"), 3, RegExpandString));
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_USERS, "Sub/Deeper"), 0);
        EXPECT_TRUE(CRegistry::IsDirty());
    }
    EXPECT_FALSE(CRegistry::IsDirty());
    const std::string head = "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n"
                             "[HKEY_CURRENT_USER]\n[Key with blanks]\n[Inner]\n"
                             "big=d=-2147483648\nbin=b=00 01 7f 80 ff \nempty=s=\nexp=es=%X%\n"
                             "max=d=-1\nmillion=d=1000000\nname with blanks=s= text with blanks \n"
                             "neg=d=-999\nnobytes=b=\npct=s=text with %percent% and = signs\n"
                             "pos=d=2147483647\nzero=d=0\n\n\n\n"
                             "[HKEY_LOCAL_MACHINE]\n\n[HKEY_USERS]\n";
    const std::string expected = head + "[Sub]\n[Deeper]\n\n\n\n\n";
    EXPECT_EQ(ReadFile(Current()), expected);
    EXPECT_FALSE(FileExists(Backup()) || FileExists(New()));
    struct stat st {};
    ASSERT_EQ(stat(Current().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    Reload();
    {
        CRegistry reg(CRegistry::HKEY_USERS);
        ASSERT_TRUE(CRegistry::IsSetUp());
        EXPECT_EQ(Dump(*CRegistry::GetRoot()), expected);
        ASSERT_EQ(reg.DeleteKey("Sub"), 0u);
    }
    EXPECT_EQ(ReadFile(Backup()), expected);
    EXPECT_EQ(ReadFile(Current()), head + "\n\n");
    // A clean tree is not written again.
    ASSERT_EQ(unlink(Current().c_str()), 0);
    { CRegistry reg; }
    EXPECT_FALSE(FileExists(Current()));
}

TEST_F(RegistryTest, LoadFallsBackToBackupThenDefault)
{
    for (const char* current : {static_cast<const char*>(nullptr), "", "\n\n\n", "[HKEY_LOCAL_MACHINE]\n\n\n"}) {
        SCOPED_TRACE(current ? current : "<missing>");
        unlink(Current().c_str());
        if (current)
            WriteFile(Current(), current);
        WriteFile(Backup(), "[HKEY_LOCAL_MACHINE]\nfrom=s=backup\n\n\n");
        Reload();
        EXPECT_TRUE(From() == "backup" && CRegistry::IsSetUp());
    }
    WriteFile(Backup(), "");
    WriteFile(Default(), "[HKEY_LOCAL_MACHINE]\nfrom=s=default\n\n\n");
    Reload();
    EXPECT_EQ(From(), "default");
    EXPECT_TRUE(CRegistry::HKEY_USERS && CRegistry::HKEY_CURRENT_CONFIG);  // made when the file lacks them

    // Nothing readable: the tree stays not set up and the next handle retries.
    unlink(Default().c_str());
    Reload();
    {
        CRegistry reg;
        EXPECT_TRUE(!CRegistry::IsSetUp() && CRegistry::HKEY_LOCAL_MACHINE &&
                    CRegistry::HKEY_LOCAL_MACHINE->GetCount() == 0);
    }
    WriteFile(Default(), "[HKEY_LOCAL_MACHINE]\nfrom=s=late\n\n\n");
    EXPECT_TRUE(From() == "late" && CRegistry::IsSetUp());
}

TEST_F(RegistryTest, SaveOfAnUnloadedTreeIsNotReloadedUnderOpenHandles)
{
    // No file at start: the tree is built in memory and not set up.  Once a save has written it, later
    // handles must not load that file over the live tree, which would replace the keys open handles point at.
    CRegistry holder(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_FALSE(CRegistry::IsSetUp());
    ASSERT_EQ(holder.CreateKey(nullptr, "Kept"), 0);
    CRegistryNode* kept = holder.GetKey();
    CRegistryNode* machine = CRegistry::HKEY_LOCAL_MACHINE;
    {
        CRegistry writer(CRegistry::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(writer.SetValue("first", 1u), 0u);
    }  // saved here
    ASSERT_TRUE(FileExists(Current()));
    EXPECT_TRUE(CRegistry::IsSetUp());
    ASSERT_EQ(holder.SetValue("late", 2u), 0u);  // newer than the file

    CRegistry other;
    EXPECT_EQ(CRegistry::HKEY_LOCAL_MACHINE, machine);
    EXPECT_TRUE(other.Open("HKEY_LOCAL_MACHINE/Kept") == 0u && other.GetKey() == kept);
    unsigned n = 0;
    EXPECT_TRUE(other.QueryValue(&n, "late") == 0 && n == 2);
    holder.Close();
}

TEST_F(RegistryTest, NamesAndTextsTheFileCannotCarryAreRefusedWithNothingLeftBehind)
{
    // {key below HKEY_LOCAL_MACHINE, value name, string}: what would read back as other keys or values.
    const std::tuple<const char*, const char*, const char*> refused[] = {
        {"Plain", "v", "x\n\n[Injected]\nevil=s=1"}, {"Plain", "a=b", "x"}, {"Plain", "[Injected", "x"},
        {"Plain", "line\nfeed", "x"}, {"With\nLineFeed", "v", "x"}, {"With=Equals", "v", "x"},
        {"[Leading", "v", "x"}, {"Closing]Bracket", "v", "x"}, {"Ok\\Then]Bad", "v", "x"}, {"Ok\\Then=Bad", "v", "x"}};
    for (const auto& [key, name, text] : refused) {
        CRegistry reg;
        const bool set = reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, key) == 0 &&
                         reg.SetValue(name, reinterpret_cast<const unsigned char*>(text),
                                      static_cast<unsigned>(strlen(text)), RegString);
        EXPECT_TRUE(!set && reg.GetStatus() == CRegistry::kInvalid) << key << " " << name;
    }
    {
        CRegistry reg;
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "Inner[Bracket"), 0);
        EXPECT_EQ(reg.SetValue("v", "text with = and [brackets] inside"), 0u);
        EXPECT_EQ(reg.SetValue("name[x]", "a"), 0u);
        const unsigned char bytes[] = {'\n', '[', '=', 0};  // binary forms are unaffected
        EXPECT_TRUE(reg.SetValue("b", bytes, sizeof bytes, RegBinary));
    }
    // A refused path left no part of itself (a refused value leaves its key); the rest reads back.
    Reload();
    CRegistry loaded;
    EXPECT_EQ(Dump(*CRegistry::HKEY_LOCAL_MACHINE),
              "[Inner[Bracket]\nb=b=0a 5b 3d 00 \nname[x]=s=a\nv=s=text with = and [brackets] inside\n\n[Plain]\n\n\n");
}

TEST_F(RegistryTest, AFileNestedFarBeyondTheCStackLoadsSavesAndGoesAway)
{
    // Far deeper than any recursion could go: reading, saving and
    // destroying the tree must all work without one.
    constexpr int kLevels = 200000;
    std::string file = "[HKEY_LOCAL_MACHINE]\nv=d=1\n";
    for (int i = 0; i < kLevels; ++i)
        file += "[n]\n";
    ASSERT_TRUE(WriteFile(Current(), file + "deep=d=1\n"));
    auto depth = [] {
        int levels = 0;
        for (CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE); reg.Open("n", reg.GetKey()) == 0;)
            ++levels;
        return levels;
    };
    EXPECT_EQ(depth(), kLevels);
    ASSERT_TRUE(CRegistry::SaveTree());
    Reload();
    EXPECT_EQ(depth(), kLevels);
    Reload();
}

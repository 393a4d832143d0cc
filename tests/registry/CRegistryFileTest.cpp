#include <cstring>
#include <string>
#include <sys/stat.h>

#include "support/RegistryFixture.h"

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

namespace {

const CStrMap::Entry* Entry(CRegistryNode* node, const char* name)
{
    return node ? node->Lookup(name) : nullptr;
}

CRegistryNode* Sub(CRegistryNode* node, const char* name)
{
    const CStrMap::Entry* e = Entry(node, name);
    return e && e->type == RegSubKey ? static_cast<CRegistryNode*>(e->payload.ptr) : nullptr;
}

std::string Text(CRegistryNode* node, const char* name)
{
    const CStrMap::Entry* e = Entry(node, name);
    if (!e || (e->type != RegString && e->type != RegExpandString))
        return "<missing>";
    return static_cast<const char*>(e->payload.ptr);
}

std::string Bytes(CRegistryNode* node, const char* name)
{
    const CStrMap::Entry* e = Entry(node, name);
    if (!e || e->type != RegBinary)
        return "<missing>";
    uint32_t n = CRegistryNode::BinaryCount(e->payload.ptr);
    return std::string(static_cast<const char*>(e->payload.ptr) + 4, n);
}

} // namespace

TEST_F(RegistryTest, WritesExactTextAndRotates)
{
    {
        CRegistry reg;
        EXPECT_FALSE(CRegistry::IsSetUp());  // no file yet
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "SOFTWARE\\Sub"), 0);
        ASSERT_EQ(reg.SetValue("x", 0xFFFFFFFFu), 0u);
        ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE/SOFTWARE"), 0u);
        ASSERT_EQ(reg.SetValue("b", "text"), 0u);
        ASSERT_EQ(reg.SetValue("a", 5u), 0u);
        const unsigned char bin[] = {0x0a, 0xff, 0x00};
        ASSERT_TRUE(reg.SetValue("c", bin, 3, RegBinary));
        ASSERT_TRUE(reg.SetValue("e", reinterpret_cast<const unsigned char*>("%HOME%"), 6, RegExpandString));
        EXPECT_TRUE(CRegistry::IsDirty());
    }
    EXPECT_FALSE(CRegistry::IsDirty());
    const std::string expected = "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n"
                                 "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\na=d=5\nb=s=text\nc=b=0a ff 00 \ne=es=%HOME%\n"
                                 "[Sub]\nx=d=-1\n\n\n\n[HKEY_USERS]\n\n\n";
    EXPECT_EQ(ReadFile(Current()), expected);
    EXPECT_FALSE(FileExists(Backup()));
    EXPECT_FALSE(FileExists(New()));
    struct stat st {};
    ASSERT_EQ(stat(Current().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    {
        CRegistryNode* fromRoot = nullptr;
        CRegistry reg("HKEY_LOCAL_MACHINE\\SOFTWARE", fromRoot);
        ASSERT_EQ(reg.GetStatus(), 0u);
        ASSERT_EQ(reg.DeleteKey("Sub"), 0u);
    }
    EXPECT_EQ(ReadFile(Backup()), expected);
    EXPECT_EQ(ReadFile(Current()), "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n"
                                   "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\na=d=5\nb=s=text\nc=b=0a ff 00 \ne=es=%HOME%\n"
                                   "\n\n[HKEY_USERS]\n\n\n");
    // A clean tree is not written again.
    ASSERT_EQ(unlink(Current().c_str()), 0);
    { CRegistry reg; }
    EXPECT_FALSE(FileExists(Current()));
}

TEST_F(RegistryTest, RoundTripKeepsEveryTypeAndValue)
{
    const unsigned char bin[] = {0x00, 0x01, 0x7f, 0x80, 0xff};
    {
        CRegistry reg;
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_CURRENT_USER, "Key with blanks/Inner"), 0);
        EXPECT_EQ(reg.SetValue("big", 2147483648u), 0u);
        EXPECT_EQ(reg.SetValue("max", 0xFFFFFFFFu), 0u);
        EXPECT_EQ(reg.SetValue("pos", 2147483647u), 0u);
        EXPECT_EQ(reg.SetValue("zero", 0u), 0u);
        EXPECT_EQ(reg.SetValue("name with blanks", " text with blanks "), 0u);
        EXPECT_EQ(reg.SetValue("empty", ""), 0u);
        EXPECT_TRUE(reg.SetValue("bin", bin, sizeof bin, RegBinary));
        EXPECT_TRUE(reg.SetValue("nobytes", nullptr, 0, RegBinary));
        EXPECT_TRUE(reg.SetValue("exp", reinterpret_cast<const unsigned char*>("%X%"), 3, RegExpandString));
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_USERS, "EmptyKey"), 0);
    }
    Reload();
    CRegistry reg;
    ASSERT_TRUE(CRegistry::IsSetUp());
    CRegistryNode* inner = Sub(Sub(CRegistry::HKEY_CURRENT_USER, "Key with blanks"), "Inner");
    ASSERT_NE(inner, nullptr);
    unsigned n = 0;
    EXPECT_EQ(reg.QueryValue(&n, "big", inner), 0u);
    EXPECT_EQ(n, 2147483648u);
    EXPECT_EQ(reg.QueryValue(&n, "max", inner), 0u);
    EXPECT_EQ(n, 0xFFFFFFFFu);
    EXPECT_EQ(reg.QueryValue(&n, "pos", inner), 0u);
    EXPECT_EQ(n, 2147483647u);
    EXPECT_EQ(reg.QueryValue(&n, "zero", inner), 0u);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(Text(inner, "name with blanks"), " text with blanks ");
    EXPECT_EQ(Text(inner, "empty"), "");
    EXPECT_EQ(Bytes(inner, "bin"), std::string(reinterpret_cast<const char*>(bin), sizeof bin));
    EXPECT_EQ(Bytes(inner, "nobytes"), "");
    ASSERT_NE(Entry(inner, "exp"), nullptr);
    EXPECT_EQ(Entry(inner, "exp")->type, static_cast<uint32_t>(RegExpandString));
    EXPECT_EQ(Text(inner, "exp"), "%X%");
    EXPECT_EQ(inner->GetCount(), 9);
    CRegistryNode* empty = Sub(CRegistry::HKEY_USERS, "EmptyKey");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->GetCount(), 0);
}

TEST_F(RegistryTest, LoadFallsBackToBackupThenDefault)
{
    const std::string good = "[HKEY_LOCAL_MACHINE]\nfrom=s=backup\n\n\n";
    for (const std::string& current : {std::string("<missing>"), std::string(), std::string("\n\n\n"),
                                       std::string("[HKEY_LOCAL_MACHINE]\n\n\n")}) {
        SCOPED_TRACE(current);
        unlink(Current().c_str());
        if (current != "<missing>")
            WriteFile(Current(), current);
        WriteFile(Backup(), good);
        Reload();
        CRegistry reg;
        EXPECT_TRUE(CRegistry::IsSetUp());
        EXPECT_EQ(Text(CRegistry::HKEY_LOCAL_MACHINE, "from"), "backup");
    }
    WriteFile(Backup(), "");
    WriteFile(Default(), "[HKEY_LOCAL_MACHINE]\nfrom=s=default\n\n\n");
    Reload();
    {
        CRegistry reg;
        EXPECT_EQ(Text(CRegistry::HKEY_LOCAL_MACHINE, "from"), "default");
        // The other root keys are made when the file lacks them.
        EXPECT_NE(CRegistry::HKEY_USERS, nullptr);
        EXPECT_NE(CRegistry::HKEY_CURRENT_CONFIG, nullptr);
    }

    // Nothing readable: the tree stays not set up and the next handle retries.
    unlink(Default().c_str());
    Reload();
    {
        CRegistry reg;
        EXPECT_FALSE(CRegistry::IsSetUp());
        ASSERT_NE(CRegistry::HKEY_LOCAL_MACHINE, nullptr);
        EXPECT_EQ(CRegistry::HKEY_LOCAL_MACHINE->GetCount(), 0);
    }
    WriteFile(Default(), "[HKEY_LOCAL_MACHINE]\nfrom=s=late\n\n\n");
    CRegistry reg;
    EXPECT_TRUE(CRegistry::IsSetUp());
    EXPECT_EQ(Text(CRegistry::HKEY_LOCAL_MACHINE, "from"), "late");
}

TEST_F(RegistryTest, SaveOfAnUnloadedTreeIsNotReloadedUnderOpenHandles)
{
    // No file at start: the tree is built in memory and not set up.  Once a
    // save has written it, later handles must not load that file over the
    // live tree, which would replace the keys open handles point at.
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
    ASSERT_EQ(other.Open("HKEY_LOCAL_MACHINE/Kept"), 0u);
    EXPECT_EQ(other.GetKey(), kept);
    unsigned n = 0;
    EXPECT_EQ(other.QueryValue(&n, "late"), 0u);
    EXPECT_EQ(n, 2u);
    holder.Close();
}

TEST_F(RegistryTest, ReaderKeepsItsQuirks)
{
    std::string longLine = "a=s=" + std::string(1019, 'x') + "b=s=tail";
    std::string file = "[HKEY_LOCAL_MACHINE]\n"
                       "cr=s=abc\r\n"
                       "sp =s= v \n" +
                       longLine +
                       "\n"
                       "bad=d=abc\n"
                       "neg=d= -12xyz\n"
                       "big=d=4294967295\n"
                       "unknown=q=1\n"
                       "no equals sign\n"
                       "[unclosed=s=v\n"
                       "[]\n"
                       "v=d=1\n"
                       "\n"
                       "[K]\n"
                       "first=d=1\n"
                       "\n"
                       "[K]\n"
                       "second=d=2\n"
                       "\n"
                       "\n"
                       "[HKEY_USERS]\n"
                       "only=d=abc\n"
                       "\n"
                       "\n"
                       "[AfterTheEnd]\n"
                       "z=d=1\n";
    WriteFile(Current(), file);
    CRegistry reg;
    ASSERT_TRUE(CRegistry::IsSetUp());
    CRegistryNode* hklm = CRegistry::HKEY_LOCAL_MACHINE;
    EXPECT_EQ(Text(hklm, "cr"), "abc\r");
    EXPECT_EQ(Text(hklm, "sp "), " v ");
    EXPECT_EQ(Text(hklm, "a"), std::string(1019, 'x'));
    EXPECT_EQ(Text(hklm, "b"), "tail");
    EXPECT_EQ(Entry(hklm, "bad"), nullptr);
    unsigned n = 0;
    EXPECT_EQ(reg.QueryValue(&n, "neg", hklm), 0u);
    EXPECT_EQ(static_cast<int>(n), -12);
    EXPECT_EQ(reg.QueryValue(&n, "big", hklm), 0u);
    EXPECT_EQ(n, 0xFFFFFFFFu);
    EXPECT_EQ(Entry(hklm, "unknown"), nullptr);
    EXPECT_EQ(Text(hklm, "[unclosed"), "v");
    CRegistryNode* emptyName = Sub(hklm, "");
    ASSERT_NE(emptyName, nullptr);
    EXPECT_EQ(reg.QueryValue(&n, "v", emptyName), 0u);
    CRegistryNode* k = Sub(hklm, "K");
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(Entry(k, "first"), nullptr);
    EXPECT_NE(Entry(k, "second"), nullptr);
    ASSERT_NE(CRegistry::HKEY_USERS, nullptr);
    EXPECT_EQ(CRegistry::HKEY_USERS->GetCount(), 0);
    EXPECT_EQ(Sub(CRegistry::GetRoot(), "AfterTheEnd"), nullptr);  // behind the root's closing line

    // A block whose only value line is a bad number still counts as read.
    Reload();
    WriteFile(Current(), "[HKEY_LOCAL_MACHINE]\nx=d=abc\n\n\n");
    CRegistry again;
    EXPECT_TRUE(CRegistry::IsSetUp());
    EXPECT_EQ(Entry(CRegistry::HKEY_LOCAL_MACHINE, "x"), nullptr);
}

TEST_F(RegistryTest, BinaryReaderStaysInsideItsPayload)
{
    std::string many;
    for (int i = 0; i < 600; ++i)
        many += "1 ";
    many += "1";  // 1201 characters would give 601 bytes; the line is cut at 1023
    WriteFile(Current(), "[HKEY_LOCAL_MACHINE]\n"
                         "b1=b=1 2 3\n"
                         "b2=b=abc\n"
                         "b3=b=zz\n"
                         "b4=b=" + many.substr(0, 1000) + "\n"
                         "b5=b=0x1F,2\n"
                         "b6=b=123456789abcdef0123\n"
                         "b7=b=f\n"
                         "b8=b=" + many + "\n\n\n");
    CRegistry reg;
    CRegistryNode* hklm = CRegistry::HKEY_LOCAL_MACHINE;
    EXPECT_EQ(Bytes(hklm, "b1"), std::string("\x01\x02\x03", 3));
    EXPECT_EQ(Bytes(hklm, "b2"), "\xbc");
    EXPECT_EQ(Bytes(hklm, "b3"), "");
    EXPECT_EQ(Bytes(hklm, "b4"), std::string(1000 / 3 + 2, '\x01'));  // cut at the capacity
    EXPECT_EQ(Bytes(hklm, "b5"), "\x1f");
    EXPECT_EQ(Bytes(hklm, "b6").size(), 1u);
    EXPECT_EQ(Bytes(hklm, "b7"), "\x0f");
    EXPECT_EQ(Bytes(hklm, "b8"), std::string(1018 / 3 + 2, '\x01'));
}

TEST_F(RegistryTest, DeeplyNestedFileDoesNotExhaustTheStack)
{
    std::string file = "[HKEY_LOCAL_MACHINE]\nv=d=1\n";
    for (int i = 0; i < 100000; ++i)
        file += "[n]\n";
    file += "deep=d=1\n";
    WriteFile(Current(), file);
    CRegistry reg;
    ASSERT_TRUE(CRegistry::IsSetUp());
    int depth = 0;
    for (CRegistryNode* n = Sub(CRegistry::HKEY_LOCAL_MACHINE, "n"); n != nullptr; n = Sub(n, "n"))
        ++depth;
    EXPECT_GT(depth, 100);
    EXPECT_LT(depth, 1000);
}

TEST_F(RegistryTest, LargeSortedKeyLoads)
{
    constexpr int kValues = 20000;
    std::string file = "[HKEY_LOCAL_MACHINE]\n[Big]\n";
    file.reserve(kValues * 24);
    char line[64];
    for (int i = 0; i < kValues; ++i) {
        snprintf(line, sizeof line, "v%07d=s=value %d\n", i, i);
        file += line;
    }
    file += "\n\n\n";
    WriteFile(Current(), file);
    CRegistry reg;
    CRegistryNode* big = Sub(CRegistry::HKEY_LOCAL_MACHINE, "Big");
    ASSERT_NE(big, nullptr);
    ASSERT_EQ(big->GetCount(), kValues);
    EXPECT_EQ(Text(big, "v0014321"), "value 14321");
    EXPECT_STREQ(big->At(kValues - 1).name, "v0019999");
}

TEST_F(RegistryTest, FailedSaveKeepsTheTreeDirty)
{
    {
        CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(reg.SetValue("k", 1u), 0u);
        // A directory in place of the new file makes its creation fail.
        ASSERT_TRUE(testsupport::MakeDirs(New()));
    }
    EXPECT_TRUE(CRegistry::IsDirty());
    EXPECT_FALSE(FileExists(Current()));
    rmdir(New().c_str());
    EXPECT_TRUE(CRegistry::SaveTree());
    EXPECT_FALSE(CRegistry::IsDirty());
    EXPECT_NE(ReadFile(Current()).find("k=d=1\n"), std::string::npos);
    // A symbolic link in place of the new file is not followed.
    ASSERT_EQ(symlink(m_Dir.Sub("target").c_str(), New().c_str()), 0);
    {
        CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(reg.SetValue("k", 2u), 0u);
    }
    EXPECT_TRUE(CRegistry::IsDirty());
    EXPECT_FALSE(FileExists(m_Dir.Sub("target")));
    unlink(New().c_str());
}

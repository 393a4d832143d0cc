// What the registry file can carry: names and texts that would read back as
// other keys and values are refused, and every tree the writer saves reads
// back whole, however deep.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "registry/CRegistry.h"
#include "registry/CRegistryNode.h"
#include "support/RegistryFixture.h"

namespace {

CRegistryNode* Sub(CRegistryNode* node, const char* name)
{
    const CStrMap::Entry* e = node ? node->Lookup(name) : nullptr;
    return e && e->type == RegSubKey ? static_cast<CRegistryNode*>(e->payload.ptr) : nullptr;
}

// Levels of keys named "n" below `node`.
int Depth(CRegistryNode* node)
{
    int depth = 0;
    for (CRegistryNode* n = Sub(node, "n"); n != nullptr; n = Sub(n, "n"))
        ++depth;
    return depth;
}

} // namespace

TEST_F(RegistryTest, NamesAndTextsTheFileCannotCarryAreRefused)
{
    struct Case {
        const char* key;    // created below HKEY_LOCAL_MACHINE
        const char* value;  // value name, set as a string
        const char* text;
        bool stored;
    } cases[] = {
        {"Plain", "v", "text with = and [brackets] inside", true},
        {"Plain", "name[x]", "a", true},
        {"Plain", "v", "x\n\n[Injected]\nevil=s=1", false},
        {"Plain", "a=b", "x", false},
        {"Plain", "[Injected", "x", false},
        {"Plain", "line\nfeed", "x", false},
        {"With\nLineFeed", "v", "x", false},
        {"With=Equals", "v", "x", false},
        {"[Leading", "v", "x", false},
        {"Closing]Bracket", "v", "x", false},
        {"Ok\\Then]Bad", "v", "x", false},
        {"Inner[Bracket", "v", "x", true},
        {"Ok\\Then=Bad", "v", "x", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " / " + c.value);
        CRegistry reg;
        int created = reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, c.key);
        bool keyOk = created == 0;
        bool set = keyOk && reg.SetValue(c.value, reinterpret_cast<const unsigned char*>(c.text),
                                         static_cast<unsigned>(strlen(c.text)), RegString);
        EXPECT_EQ(set, c.stored);
        if (!set) {
            EXPECT_EQ(reg.GetStatus(), CRegistry::kInvalid);
        }
    }
    // A refused path leaves no part of itself behind.
    EXPECT_EQ(Sub(CRegistry::HKEY_LOCAL_MACHINE, "Ok"), nullptr);
    ASSERT_TRUE(CRegistry::SaveTree());
    Reload();
    CRegistry reg;
    CRegistryNode* hklm = CRegistry::HKEY_LOCAL_MACHINE;
    EXPECT_EQ(Sub(CRegistry::GetRoot(), "Injected"), nullptr);
    EXPECT_EQ(Sub(hklm, "Injected"), nullptr);
    ASSERT_EQ(reg.Open("Plain", hklm), 0u);
    std::string text;
    EXPECT_EQ(reg.QueryValue(text, "v"), CRegistry::kOk);
    EXPECT_EQ(text, "text with = and [brackets] inside");
    EXPECT_EQ(reg.QueryValue(text, "name[x]"), CRegistry::kOk);
    unsigned count = 0;
    ASSERT_EQ(reg.NoOfSubKeys(&count), CRegistry::kOk);
    EXPECT_EQ(count, 0u);
    // The sanctioned forms of the other types are unaffected.
    EXPECT_EQ(reg.SetValue("n", 5u), CRegistry::kOk);
    unsigned char bytes[] = {'\n', '[', '=', 0};
    EXPECT_TRUE(reg.SetValue("b", bytes, sizeof bytes, RegBinary));
}

TEST_F(RegistryTest, TreesOfAnyDepthSaveAndReadBackWhole)
{
    constexpr int kLevels = 3000;
    {
        CRegistry reg;
        std::string path = "n";
        for (int i = 1; i < kLevels; ++i)
            path += "\\n";
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, path.c_str()), 0);
        EXPECT_EQ(reg.SetValue("deep", 1u), CRegistry::kOk);
    }
    ASSERT_TRUE(CRegistry::SaveTree());
    Reload();
    CRegistry reg;
    EXPECT_EQ(Depth(CRegistry::HKEY_LOCAL_MACHINE), kLevels);
}

TEST_F(RegistryTest, AFileNestedFarBeyondTheCStackLoadsAndGoesAway)
{
    // Far deeper than any recursion could go: reading, saving and
    // destroying the tree must all work without one.
    constexpr int kLevels = 200000;
    std::string file = "[HKEY_LOCAL_MACHINE]\nv=d=1\n";
    file.reserve(file.size() + kLevels * 4 + 16);
    for (int i = 0; i < kLevels; ++i)
        file += "[n]\n";
    file += "deep=d=1\n";
    ASSERT_TRUE(testsupport::WriteFile(Current(), file));
    {
        CRegistry reg;
        ASSERT_TRUE(CRegistry::IsSetUp());
        EXPECT_EQ(Depth(CRegistry::HKEY_LOCAL_MACHINE), kLevels);
        ASSERT_TRUE(CRegistry::SaveTree());
    }
    Reload();
    CRegistry reg;
    EXPECT_EQ(Depth(CRegistry::HKEY_LOCAL_MACHINE), kLevels);
    Reload();
}

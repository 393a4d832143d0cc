#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/CStrMap.h"

namespace {

std::vector<std::string> Names(const CStrMap& m)
{
    std::vector<std::string> out;
    for (int i = 0; i < m.GetCount(); ++i)
        out.push_back(m.At(i).name ? m.At(i).name : "<null>");
    return out;
}

int g_freed = 0;
void CountingDeleter(CStrMap::Entry& e)
{
    if (e.type == 1 && e.payload.ptr) {
        ++g_freed;
        free(e.payload.ptr);
    }
}

} // namespace

TEST(CStrMap, KeepsStrcmpOrderAndNullSortsLast)
{
    EXPECT_LT(CStrMap::compare("B", "a"), 0);
    EXPECT_GT(CStrMap::compare(nullptr, "zzz"), 0);
    EXPECT_LT(CStrMap::compare("", nullptr), 0);
    EXPECT_EQ(CStrMap::compare(nullptr, nullptr), 0);

    CStrMap m;
    for (const char* n : {"b", "a", "B", "ab", "", "a b"})
        ASSERT_GE(m.SetNumber(n, 1, 4), 0);
    EXPECT_EQ(Names(m), (std::vector<std::string>{"", "B", "a", "a b", "ab", "b"}));
    EXPECT_EQ(m.Find("ab"), 4);
    EXPECT_EQ(m.Find("AB"), -1);
}

TEST(CStrMap, GrowsBySixteenEntries)
{
    CStrMap m;
    EXPECT_EQ(m.GetCapacity(), 0u);
    EXPECT_FALSE(m.HasEntries());
    for (int i = 0; i < 16; ++i)
        m.SetNumber(std::to_string(100 + i).c_str(), static_cast<uint32_t>(i), 4);
    EXPECT_EQ(m.GetCapacity(), 16u);
    m.SetNumber("x", 0, 4);
    EXPECT_EQ(m.GetCapacity(), 32u);
    EXPECT_EQ(m.GetCount(), 17);
}

TEST(CStrMap, ReplacementFreesOldPayloadAndKeepsOneEntry)
{
    g_freed = 0;
    {
        CStrMap m(CountingDeleter);
        m.SetPointer("k", strdup("one"), 1);
        bool replaced = false;
        m.SetPointer("k", strdup("two"), 1, &replaced);
        EXPECT_TRUE(replaced);
        EXPECT_EQ(g_freed, 1);
        EXPECT_EQ(m.GetCount(), 1);
        EXPECT_STREQ(static_cast<char*>(m.Lookup("k")->payload.ptr), "two");
        m.SetNumber("k", 7, 4, &replaced);  // a number replaces the text
        EXPECT_EQ(g_freed, 2);
        EXPECT_EQ(m.Lookup("k")->payload.number, 7u);
        m.SetPointer("z", strdup("three"), 1);
        EXPECT_TRUE(m.Remove("z"));
        EXPECT_FALSE(m.Remove("z"));
        EXPECT_EQ(g_freed, 3);
        m.SetPointer("y", strdup("four"), 1);
    }
    EXPECT_EQ(g_freed, 4);  // the destructor frees what is left
}

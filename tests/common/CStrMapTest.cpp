#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
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

bool IsSorted(const CStrMap& m)
{
    int i = 1;
    while (i < m.GetCount() && CStrMap::compare(m.At(i - 1).name, m.At(i).name) < 0)
        ++i;
    return i >= m.GetCount();
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

TEST(CStrMap, StrcmpOrderNullLastRemovalAndGrowth)
{
    CStrMap m;
    for (const char* n : {"b", "a", "B", "ab", "", "a b", static_cast<const char*>(nullptr)})
        ASSERT_GE(m.SetNumber(n, 1, 4), 0);
    EXPECT_EQ(Names(m), (std::vector<std::string>{"", "B", "a", "a b", "ab", "b", "<null>"}));
    EXPECT_EQ(m.Find("AB"), -1);
    bool replaced = false;
    m.SetNumber(nullptr, 10, 4, &replaced);  // one null-named entry at most
    EXPECT_TRUE(replaced);
    EXPECT_EQ(m.Lookup(nullptr)->payload.number, 10u);
    EXPECT_TRUE(m.Remove(nullptr) && m.Remove("a") && m.Remove("b") && m.RemoveAt(0));  // end, middle, start
    EXPECT_FALSE(m.RemoveAt(3) || m.RemoveAt(-1));
    EXPECT_EQ(Names(m), (std::vector<std::string>{"B", "a b", "ab"}));
    for (int i = 99; i >= 0; --i)
        ASSERT_GE(m.SetNumber(("n" + std::to_string(i)).c_str(), static_cast<uint32_t>(i), 4), 0);
    EXPECT_EQ(m.GetCapacity(), 112u);  // grows by 16 entries
    EXPECT_TRUE(IsSorted(m));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(m.Lookup(("n" + std::to_string(i)).c_str())->payload.number, static_cast<uint32_t>(i));
    CCriticalSectionLock hold(m.GetLock());
    m.Clear();  // re-enters the lock: must not dead-lock
    EXPECT_EQ(m.Find("B"), -1);
}

TEST(CStrMap, PayloadsAreFreedOnceOnReplaceRemoveAndDestruction)
{
    g_freed = 0;
    {
        CStrMap m(CountingDeleter);
        char* same = strdup("same");
        m.SetPointer("s", same, 1);
        m.SetPointer("s", same, 1);  // the same payload again is not freed
        EXPECT_EQ(g_freed, 0);
        m.SetPointer("k", strdup("one"), 1);
        m.SetPointer("k", strdup("two"), 1);
        EXPECT_EQ(g_freed, 1);
        m.SetNumber("k", 7, 4);  // a number replaces the text
        EXPECT_EQ(g_freed, 2);
        EXPECT_TRUE(m.Remove("s") && !m.Remove("s"));
        EXPECT_EQ(g_freed, 3);
        m.SetPointer("y", strdup("four"), 1);
    }
    EXPECT_EQ(g_freed, 4);
}

TEST(CStrMap, ConcurrentSetAndFind)
{
    CStrMap m;
    constexpr int kThreads = 4, kPerThread = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                std::string name = "t" + std::to_string(t) + "-" + std::to_string(i);
                EXPECT_GE(m.SetNumber(name.c_str(), static_cast<uint32_t>(t * 1000 + i), 4), 0);
                EXPECT_GE(m.Find(name.c_str()), 0);
                if (i % 3 == 0)  // replacements race with insertions too
                    m.SetNumber(name.c_str(), static_cast<uint32_t>(t * 1000 + i), 4);
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(m.GetCount(), kThreads * kPerThread);
    EXPECT_TRUE(IsSorted(m));
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kPerThread; ++i)
            EXPECT_EQ(m.Lookup(("t" + std::to_string(t) + "-" + std::to_string(i)).c_str())->payload.number,
                      static_cast<uint32_t>(t * 1000 + i));
}

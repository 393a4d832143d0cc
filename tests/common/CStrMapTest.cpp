#include <gtest/gtest.h>

#include <atomic>
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

namespace {

bool IsSorted(const CStrMap& m)
{
    for (int i = 1; i < m.GetCount(); ++i)
        if (CStrMap::compare(m.At(i - 1).name, m.At(i).name) >= 0)
            return false;
    return true;
}

} // namespace

TEST(CStrMap, NullNamesSortLastAndCanBeFound)
{
    CStrMap m;
    m.SetNumber(nullptr, 9, 4);
    m.SetNumber("zz", 1, 4);
    m.SetNumber("a", 2, 4);
    EXPECT_EQ(Names(m), (std::vector<std::string>{"a", "zz", "<null>"}));
    EXPECT_EQ(m.Find(nullptr), 2);
    ASSERT_NE(m.Lookup(nullptr), nullptr);
    EXPECT_EQ(m.Lookup(nullptr)->payload.number, 9u);
    bool replaced = false;
    m.SetNumber(nullptr, 10, 4, &replaced);  // one null-named entry at most
    EXPECT_TRUE(replaced);
    EXPECT_EQ(m.GetCount(), 3);
    EXPECT_TRUE(m.Remove(nullptr));
    EXPECT_EQ(m.Find(nullptr), -1);
}

TEST(CStrMap, RemoveInTheMiddleAndAtTheEnd)
{
    CStrMap m;
    for (const char* n : {"e", "c", "a", "d", "b"})
        m.SetNumber(n, static_cast<uint32_t>(n[0]), 4);
    EXPECT_TRUE(m.Remove("c"));
    EXPECT_EQ(Names(m), (std::vector<std::string>{"a", "b", "d", "e"}));
    EXPECT_EQ(m.Lookup("d")->payload.number, static_cast<uint32_t>('d'));
    EXPECT_TRUE(m.Remove("e"));
    EXPECT_EQ(Names(m), (std::vector<std::string>{"a", "b", "d"}));
    EXPECT_TRUE(m.RemoveAt(0));
    EXPECT_FALSE(m.RemoveAt(2));
    EXPECT_FALSE(m.RemoveAt(-1));
    EXPECT_EQ(Names(m), (std::vector<std::string>{"b", "d"}));
    EXPECT_EQ(m.Find("a"), -1);
    EXPECT_EQ(m.Find("d"), 1);
    m.SetNumber("c", 3, 4);  // the freed slots are reused in order
    EXPECT_EQ(Names(m), (std::vector<std::string>{"b", "c", "d"}));
    EXPECT_EQ(m.GetCapacity(), 16u);
    m.Clear();
    EXPECT_EQ(m.GetCount(), 0);
    EXPECT_EQ(m.Find("b"), -1);
}

TEST(CStrMap, GrowthKeepsEveryEntryAndOrder)
{
    CStrMap m;
    for (int i = 99; i >= 0; --i)
        ASSERT_GE(m.SetNumber(("n" + std::to_string(i)).c_str(), static_cast<uint32_t>(i), 4), 0);
    EXPECT_EQ(m.GetCount(), 100);
    EXPECT_EQ(m.GetCapacity(), 112u);  // 7 steps of 16
    EXPECT_TRUE(IsSorted(m));
    for (int i = 0; i < 100; ++i) {
        CStrMap::Entry* e = m.Lookup(("n" + std::to_string(i)).c_str());
        ASSERT_NE(e, nullptr) << i;
        EXPECT_EQ(e->payload.number, static_cast<uint32_t>(i));
    }
}

TEST(CStrMap, StoringTheSamePayloadAgainDoesNotFreeIt)
{
    g_freed = 0;
    CStrMap m(CountingDeleter);
    char* text = strdup("same");
    m.SetPointer("k", text, 1);
    bool replaced = false;
    m.SetPointer("k", text, 1, &replaced);
    EXPECT_TRUE(replaced);
    EXPECT_EQ(g_freed, 0);
    EXPECT_STREQ(static_cast<char*>(m.Lookup("k")->payload.ptr), "same");
    m.Clear();
    EXPECT_EQ(g_freed, 1);
}

TEST(CStrMap, LockIsReentrantForItsHolder)
{
    CStrMap m;
    CCriticalSectionLock hold(m.GetLock());
    m.SetNumber("a", 1, 4);  // re-enters the lock: must not dead-lock
    EXPECT_EQ(m.Find("a"), 0);
    EXPECT_TRUE(m.Remove("a"));
    bool otherGotIt = true;
    std::thread other([&] { otherGotIt = m.GetLock().TryEnter(); });
    other.join();
    EXPECT_FALSE(otherGotIt);
}

TEST(CStrMap, ConcurrentSetAndFind)
{
    CStrMap m;
    constexpr int kThreads = 4, kPerThread = 150;
    std::atomic<int> misses{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                std::string name = "t" + std::to_string(t) + "-" + std::to_string(i);
                if (m.SetNumber(name.c_str(), static_cast<uint32_t>(t * 1000 + i), 4) < 0)
                    ++misses;
                if (m.Find(name.c_str()) < 0)
                    ++misses;
                m.Find("t0-0");
                if (i % 3 == 0)  // replacements race with insertions too
                    m.SetNumber(name.c_str(), static_cast<uint32_t>(t * 1000 + i), 4);
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(misses.load(), 0);
    EXPECT_EQ(m.GetCount(), kThreads * kPerThread);
    EXPECT_TRUE(IsSorted(m));
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kPerThread; ++i) {
            CStrMap::Entry* e = m.Lookup(("t" + std::to_string(t) + "-" + std::to_string(i)).c_str());
            ASSERT_NE(e, nullptr);
            EXPECT_EQ(e->payload.number, static_cast<uint32_t>(t * 1000 + i));
        }
}

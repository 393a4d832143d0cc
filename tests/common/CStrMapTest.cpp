// The sorted map of names: order, payload ownership, threads; and its hash index for large maps,
// checked against a model through insertions at the front, middle and end, replacements, removals
// and emptying, with entries in the map's arena going through the same changes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
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
// Frees (and counts) text payloads on the heap; those in the map's arena must never reach free().
void CountingDeleter(CStrMap::Entry& e)
{
    if (e.type == 1 && e.payload.ptr && (e.flags & CStrMap::kPayloadInArena) == 0) {
        ++g_freed;
        free(e.payload.ptr);
    }
}

void ExpectSameAs(CStrMap& map, const std::map<std::string, uint32_t>& model)
{
    ASSERT_EQ(map.GetCount(), static_cast<int>(model.size()));
    int i = 0;
    for (const auto& [name, number] : model) {
        ASSERT_STREQ(map.At(i).name, name.c_str());
        ASSERT_EQ(map.Find(name.c_str()), i) << name;
        ASSERT_EQ(map.Lookup(name.c_str())->payload.number, number) << name;
        ASSERT_EQ(map.Find((name + "~").c_str()), -1);
        ++i;
    }
}

std::string Name(unsigned n) { return "v" + std::to_string(100000 + n); }

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

TEST(CStrMapIndex, FollowsEveryChangeOfALargeMap)
{
    CStrMap map;
    std::map<std::string, uint32_t> model;
    // Names visited as (i * stride) % 600: far past the size at which the
    // index is made, and through several of its growths.
    struct Step {
        unsigned count, stride;
        bool remove;
    } const kSteps[] = {{200, 1, false}, {600, 7, false}, {300, 11, false}, {250, 13, true}, {600, 17, false}};
    uint32_t value = 0;
    for (const Step& step : kSteps) {
        for (unsigned i = 0; i < step.count; ++i) {
            const std::string name = Name((i * step.stride) % 600);
            if (step.remove) {
                EXPECT_EQ(map.Remove(name.c_str()), model.erase(name) == 1);
            } else {
                ASSERT_GE(map.SetNumber(name.c_str(), ++value, 4), 0);
                model[name] = value;
            }
        }
        ExpectSameAs(map, model);
    }
    for (int k = 0; k < 40; ++k) {  // by position, from both ends
        ASSERT_TRUE(map.RemoveAt(k % 2 ? map.GetCount() - 1 : 0));
        model.erase(k % 2 ? std::prev(model.end()) : model.begin());
    }
    ExpectSameAs(map, model);
    map.Clear();
    model.clear();
    for (unsigned i = 0; i < 100; ++i)  // refilled from the back
        ASSERT_GE(map.SetNumber(Name(99 - i).c_str(), model[Name(99 - i)] = i, 4), 0);
    ExpectSameAs(map, model);
}

TEST(CStrMapIndex, ArenaEntriesAreReplacedAndRemovedLikeOthers)
{
    g_freed = 0;
    {
        CStrMap map(CountingDeleter);
        CStrMap::Entry text{};
        text.type = 1;
        for (unsigned i = 0; i < 200; ++i)
            ASSERT_GE(map.SetInArena(Name(i).c_str(), text, std::string(i, 'x').c_str()), 0);
        EXPECT_EQ(static_cast<const char*>(map.Lookup(Name(150).c_str())->payload.ptr), std::string(150, 'x'));
        ASSERT_GE(map.SetPointer(Name(7).c_str(), strdup("heap"), 1), 0);
        EXPECT_EQ(map.Lookup(Name(7).c_str())->flags, CStrMap::kNameInArena);
        ASSERT_GE(map.SetInArena(Name(7).c_str(), text, "arena again"), 0);
        EXPECT_TRUE(map.Remove(Name(8).c_str()) && map.RemoveAt(0));
        EXPECT_EQ(map.Find(Name(9).c_str()), 7);
        ASSERT_GE(map.SetPointer("zz", strdup("heap"), 1), 0);
        map.Clear();
        ASSERT_GE(map.SetInArena(Name(1).c_str(), text, "after clear"), 0);
        EXPECT_STREQ(static_cast<const char*>(map.Lookup(Name(1).c_str())->payload.ptr), "after clear");
    }
    EXPECT_EQ(g_freed, 2);
}

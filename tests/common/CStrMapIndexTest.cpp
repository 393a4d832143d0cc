// The hash index of large maps against a plain model: after every kind of
// change (insertions at the front, middle and end, replacements, removals,
// emptying) every name is found at the index the sorted order gives it, and
// names that are not there are not found.  And entries kept in the map's
// arena go through the same changes without their memory reaching free().
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "common/CStrMap.h"

namespace {

// Checks the map against the model: sorted order, each name at its
// position, payload kept, misses missed.
void ExpectSameAs(CStrMap& map, const std::map<std::string, uint32_t>& model)
{
    ASSERT_EQ(map.GetCount(), static_cast<int>(model.size()));
    int i = 0;
    for (const auto& [name, number] : model) {
        ASSERT_STREQ(map.At(i).name, name.c_str());
        ASSERT_EQ(map.Find(name.c_str()), i) << name;
        CStrMap::Entry* e = map.Lookup(name.c_str());
        ASSERT_NE(e, nullptr) << name;
        ASSERT_EQ(e->payload.number, number) << name;
        ASSERT_EQ(map.Find((name + "~").c_str()), -1);
        ++i;
    }
    EXPECT_EQ(map.Find("absent"), -1);
}

std::string Name(unsigned n)
{
    char buf[16];
    snprintf(buf, sizeof buf, "v%05u", n);
    return buf;
}

TEST(CStrMapIndex, FollowsEveryChangeOfALargeMap)
{
    CStrMap map;
    std::map<std::string, uint32_t> model;
    // Steps over a scattered order of 600 names: far past the size at which
    // the index is made, and through several of its growths.
    struct Step {
        const char* what;
        unsigned count;
        unsigned stride;  // names visited as (i * stride) % 600
        bool remove;
    } const kSteps[] = {
        {"appended in order", 200, 1, false},
        {"inserted scattered (front, middle)", 600, 7, false},
        {"replaced", 300, 11, false},
        {"removed scattered", 250, 13, true},
        {"inserted again", 600, 17, false},
    };
    uint32_t value = 0;
    for (const Step& step : kSteps) {
        SCOPED_TRACE(step.what);
        for (unsigned i = 0; i < step.count; ++i) {
            const std::string name = Name((i * step.stride) % 600);
            if (step.remove) {
                EXPECT_EQ(map.Remove(name.c_str()), model.erase(name) == 1);
                continue;
            }
            ASSERT_GE(map.SetNumber(name.c_str(), ++value, 4), 0);
            model[name] = value;
        }
        ExpectSameAs(map, model);
    }
    // Removal by position from the front and the back.
    for (int k = 0; k < 40; ++k) {
        const bool front = k % 2 == 0;
        const int at = front ? 0 : map.GetCount() - 1;
        model.erase(front ? model.begin() : std::prev(model.end()));
        ASSERT_TRUE(map.RemoveAt(at));
    }
    ExpectSameAs(map, model);
    map.Clear();
    model.clear();
    ExpectSameAs(map, model);
    for (unsigned i = 0; i < 100; ++i) {
        ASSERT_GE(map.SetNumber(Name(99 - i).c_str(), i, 4), 0);
        model[Name(99 - i)] = i;
    }
    ExpectSameAs(map, model);
}

} // namespace

namespace {

int g_heapPayloadsFreed = 0;

// Frees heap payloads as the registry's deleter does; arena payloads are
// never handed to free().
void FreeHeapPayload(CStrMap::Entry& e)
{
    if ((e.flags & CStrMap::kPayloadInArena) == 0 && e.payload.ptr != nullptr) {
        free(e.payload.ptr);
        ++g_heapPayloadsFreed;
    }
}

// Entries whose name and text lie in the arena are replaced, removed and
// emptied like any other: nothing of the arena reaches free() (which would
// abort), and the heap payload that replaced one is freed exactly once.
TEST(CStrMapIndex, ArenaEntriesAreReplacedAndRemovedLikeOthers)
{
    g_heapPayloadsFreed = 0;
    {
        CStrMap map(&FreeHeapPayload);
        CStrMap::Entry text{};
        text.type = 1;
        for (unsigned i = 0; i < 200; ++i)
            ASSERT_GE(map.SetInArena(Name(i).c_str(), text, std::string(i, 'x').c_str()), 0);
        EXPECT_STREQ(static_cast<const char*>(map.Lookup(Name(150).c_str())->payload.ptr), std::string(150, 'x').c_str());
        ASSERT_GE(map.SetPointer(Name(7).c_str(), strdup("heap"), 1), 0);
        EXPECT_EQ(map.Lookup(Name(7).c_str())->flags, CStrMap::kNameInArena);
        ASSERT_GE(map.SetInArena(Name(7).c_str(), text, "arena again"), 0);
        EXPECT_EQ(g_heapPayloadsFreed, 1);
        EXPECT_TRUE(map.Remove(Name(8).c_str()));
        EXPECT_TRUE(map.RemoveAt(0));
        EXPECT_EQ(map.Find(Name(9).c_str()), 7);
        ASSERT_GE(map.SetPointer("zz", strdup("heap"), 1), 0);
        map.Clear();
        EXPECT_EQ(g_heapPayloadsFreed, 2);
        ASSERT_GE(map.SetInArena(Name(1).c_str(), text, "after clear"), 0);
        EXPECT_STREQ(static_cast<const char*>(map.Lookup(Name(1).c_str())->payload.ptr), "after clear");
    }
    EXPECT_EQ(g_heapPayloadsFreed, 2);
}

} // namespace

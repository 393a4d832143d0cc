// The hash index of large maps against a model, through insertions at the
// front, middle and end, replacements, removals and emptying; and entries
// in the map's arena going through the same changes without reaching free().
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "common/CStrMap.h"

namespace {

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

int g_heapFreed = 0;
void FreeHeapPayload(CStrMap::Entry& e)
{
    if ((e.flags & CStrMap::kPayloadInArena) == 0 && e.payload.ptr != nullptr && ++g_heapFreed)
        free(e.payload.ptr);
}

TEST(CStrMapIndex, ArenaEntriesAreReplacedAndRemovedLikeOthers)
{
    {
        CStrMap map(&FreeHeapPayload);
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
    EXPECT_EQ(g_heapFreed, 2);
}

} // namespace

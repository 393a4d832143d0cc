// Percentage arithmetic on made-up samples, the history buffer and the
// value/group table.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "perfmon/CDataHistoryBuffer.h"
#include "perfmon/CPerfMon.h"

using perfmon::AveragePercent;
using perfmon::CurrentPercent;
using perfmon::PartWhole;

// Checked by hand: each quotient is part × 100000 ÷ whole, truncated; the
// current form is (sum × 100 + 50000) ÷ (n × 100000), the average form
// rounds the truncated mean.  Samples without a whole do not count; when
// none counts, current reports the low byte of the last part.
TEST(PerfPercent, CurrentAndAverageByHand)
{
    struct Case { std::vector<PartWhole> samples; int current; int average; };
    const Case cases[] = {
        {{{1000, 100000}, {0, 100000}}, 0, 1},  // the current form divides the bias by n as well
        {{{499, 100000}}, 0, 0},      {{{500, 100000}}, 1, 1},     {{{1, 3}}, 33, 33},
        {{{2, 3}}, 67, 67},           {{{2, 3}, {2, 3}, {2, 3}}, 66, 67},  // 66666 each
        {{{300, 100}}, 100, 100},     {{{100, 100}}, 100, 100},
        {{{99500, 100000}}, 100, 100}, {{{99499, 100000}}, 99, 99},
        {{{UINT64_MAX, 1}, {UINT64_MAX, 1}}, 100, 100},  // no overflow, no wrap
        {{{UINT64_MAX / 2, UINT64_MAX}}, 50, 50},
        {{{5, 0}, {42, 0}}, 42, 0},   {{{0x1234, 0}}, 0x34, 0},
        {{{50, 100}, {7, 0}}, 50, 50},  // the zero-whole sample neither counts nor dilutes
        {{}, 0, 0},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        EXPECT_EQ(CurrentPercent(cases[i].samples), cases[i].current) << "case " << i;
        EXPECT_EQ(AveragePercent(cases[i].samples), cases[i].average) << "case " << i;
    }
}

TEST(CDataHistoryBuffer, DropsOldestAtMaximumAndOutOfRangeRequestsChangeNothing)
{
    CDataHistoryBuffer<int> h(3, 2);
    for (int i = 1; i <= 5; ++i)
        ASSERT_TRUE(h.Add(0, i));
    ASSERT_TRUE(h.Add(1, 99));
    std::vector<int> items;
    ASSERT_TRUE(h.GetAll(0, items));
    EXPECT_EQ(items, (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(h.GetCount(1), 1u);
    int item = -1;
    EXPECT_TRUE(h.GetItem(0, 2, item));
    EXPECT_EQ(item, 5);
    item = -1;
    for (auto [instance, index] : {std::pair{0, 3}, {0, -1}, {2, 0}, {-1, 0}})
        EXPECT_FALSE(h.GetItem(instance, index, item)) << instance << " " << index;
    EXPECT_EQ(item, -1);
    EXPECT_FALSE(h.Add(2, 8) || h.Add(-1, 8));
    EXPECT_FALSE(h.GetAll(5, items));
    EXPECT_EQ(items, (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(h.GetCount(9), 0u);
    h.Clear();
    EXPECT_EQ(h.GetCount(0), 0u);
    EXPECT_EQ(h.GetNumberInstances(), 2u);
    CDataHistoryBuffer<int> zero(0, 1);  // a zero maximum still keeps the newest
    zero.Add(0, 1);
    zero.Add(0, 2);
    zero.GetAll(0, items);
    EXPECT_EQ(items, (std::vector<int>{2}));
}

TEST(CDataHistoryBuffer, LockIsRecursiveAndGuardsWriters)
{
    CDataHistoryBuffer<int> h(50, 1);
    std::atomic<bool> stop{false};
    std::atomic<bool> bad{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i)
            h.Add(0, i);
        stop = true;
    });
    std::vector<int> items;
    while (!stop) {
        // Held across two calls: the pair must be consistent.
        CCriticalSectionLock lock(h.GetLock());
        unsigned n = h.GetCount(0);
        h.GetAll(0, items);
        if (items.size() != n || n > 50)
            bad = true;
        for (size_t i = 1; i < items.size(); ++i)
            if (items[i] != items[i - 1] + 1)
                bad = true;
    }
    writer.join();
    EXPECT_FALSE(bad);
    h.GetAll(0, items);
    ASSERT_EQ(items.size(), 50u);
    EXPECT_EQ(items.back(), 19999);
}

TEST(CPerfMonValues, IsMonitorValueGroups)
{
    struct Case { int type; int first; int last; };
    const Case cases[] = {{1, 0, 3}, {2, 4, 7}, {4, 10, 12}, {8, 8, 9}, {16, 13, 20}};
    for (const Case& c : cases) {
        for (int v = -1; v <= 21; ++v)
            EXPECT_EQ(CPerfMon::IsMonitorValue(v, c.type), v >= c.first && v <= c.last) << c.type << " " << v;
    }
    for (int type : {0, 3, 5, 32, 0x800, 0xF800, -1})
        for (int v = 0; v <= 20; ++v)
            EXPECT_FALSE(CPerfMon::IsMonitorValue(v, type)) << type << " " << v;
}

// The figures beside the monitor's percentages, as free(1) and ip(8) show
// them: memory used without the page cache, and every interface whatever
// its name, with a link speed that is absent when unknown.
#include <gtest/gtest.h>

#include "perfmon/HostFigures.h"
#include "support/FakeProc.h"

using namespace perfmon;
using testsupport::FakeProc;

TEST(HostFigures, MemoryUsedIsTotalLessAvailableAsFreeComputesIt)
{
    struct Case {
        const char* what;
        const char* meminfo;
        bool ok;
        uint64_t usedKb, availableKb;
    } cases[] = {
        // Figures of a 24 GiB machine right after reading a 6 GB file: the
        // page cache counts as available, not as used.
        {"with MemAvailable",
         "MemTotal:       24683520 kB\nMemFree:         1000000 kB\nMemAvailable:   23757824 kB\n"
         "Buffers:          100000 kB\nCached:          6000000 kB\nSwapTotal:       2097148 kB\nSwapFree:        "
         "2000000 kB\n",
         true, 24683520 - 23757824, 23757824},
        {"older kernel: free + buffers + cached",
         "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 50 kB\nCached: 250 kB\n", true, 600, 400},
        {"available above total: used held at 0", "MemTotal: 100 kB\nMemAvailable: 150 kB\n", true, 0, 150},
        {"no MemTotal", "MemFree: 100 kB\nMemAvailable: 150 kB\n", false, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        FakeProc proc;
        proc.Write("meminfo", c.meminfo);
        MemoryFigures m;
        ASSERT_EQ(ReadMemoryFigures(proc.Root(), m), c.ok);
        if (!c.ok)
            continue;
        EXPECT_EQ(m.usedBytes, c.usedKb * 1024);
        EXPECT_EQ(m.availableBytes, c.availableKb * 1024);
        EXPECT_EQ(m.usedBytes + std::min(m.availableBytes, m.totalBytes), m.totalBytes);
    }
    MemoryFigures m;
    EXPECT_FALSE(ReadMemoryFigures("/nonexistent-proc-root", m));
}

TEST(HostFigures, EveryInterfaceWithItsCountersAndAKnownSpeedOnly)
{
    FakeProc proc;
    proc.NetDev({{"lo", 6534, 6534}, {"enp3s0", 123456789012ULL, 42}, {"ens5", 7, 8}, {"wlp2s0", 1, 2}});
    // Link speeds: known, unknown (-1, as the kernel writes it without a
    // carrier), missing file, and garbage.
    proc.Write("sys/class/net/enp3s0/speed", "1000\n");
    proc.Write("sys/class/net/ens5/speed", "-1\n");
    proc.Write("sys/class/net/wlp2s0/speed", "fast\n");
    std::vector<InterfaceFigures> links;
    ASSERT_TRUE(ReadInterfaceFigures(proc.Root(), proc.Path("sys"), links));
    ASSERT_EQ(links.size(), 4u);
    EXPECT_EQ(links[0].name, "lo");
    EXPECT_EQ(links[1].name, "enp3s0");
    EXPECT_EQ(links[1].receivedBytes, 123456789012ULL);
    EXPECT_EQ(links[1].sentBytes, 42u);
    EXPECT_EQ(links[1].speedMbps, std::optional<uint32_t>(1000));
    for (size_t i : {0, 2, 3})
        EXPECT_FALSE(links[i].speedMbps.has_value()) << links[i].name;
}

TEST(HostFigures, MalformedStatisticsLinesAreSkipped)
{
    FakeProc proc;
    proc.Write("net/dev", "Inter-|   Receive\n face |bytes\n"
                          "  eth0: 1 2 3\n"                                   // too few counters
                          " ../../etc: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"  // a name that leaves the tree
                          "nocolon 1 2 3 4 5 6 7 8 9\n"
                          "  br0: 5 0 0 0 0 0 0 0 6 0 0 0 0 0 0 0\n");
    proc.Write("etc/speed", "100\n");
    std::vector<InterfaceFigures> links;
    ASSERT_TRUE(ReadInterfaceFigures(proc.Root(), proc.Path("sys"), links));
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0].name, "../../etc");
    EXPECT_FALSE(links[0].speedMbps.has_value());
    EXPECT_EQ(links[1].name, "br0");
    EXPECT_EQ(links[1].receivedBytes, 5u);
    EXPECT_EQ(links[1].sentBytes, 6u);
}

TEST(HostFigures, RatesPerSecond)
{
    struct Case {
        uint64_t before, after, elapsedMs;
        std::optional<uint64_t> rate;
    } cases[] = {
        {1000, 3000, 1000, 2000},
        {0, 1500, 500, 3000},
        {5, 5, 1000, 0},
        {3000, 1000, 1000, std::nullopt},  // counter went down: interface re-created
        {0, 100, 0, std::nullopt},
        {0, UINT64_MAX, 1, UINT64_MAX},    // held, not wrapped
    };
    for (const Case& c : cases)
        EXPECT_EQ(RatePerSecond(c.before, c.after, c.elapsedMs), c.rate) << c.before << " " << c.after;
}

// The figures beside the monitor's percentages: memory used without the page cache, and every
// interface whatever its name, with a link speed that is absent when unknown.
#include <gtest/gtest.h>

#include "perfmon/HostFigures.h"
#include "support/FakeProc.h"

using namespace perfmon;
using testsupport::FakeProc;

TEST(HostFigures, MemoryUsedIsTotalLessAvailable)
{
    struct Case { const char* what; const char* meminfo; bool ok; uint64_t usedKb, availableKb; };
    const Case cases[] = {
        // A 24 GiB machine right after reading a 6 GB file: the page cache is available, not used.
        {"with MemAvailable", "MemTotal: 24683520 kB\nMemFree: 1000000 kB\nMemAvailable: 23757824 kB\n"
                              "Cached: 6000000 kB\nSwapTotal: 2097148 kB\nSwapFree: 2000000 kB\n",
         true, 24683520 - 23757824, 23757824},
        {"older kernel: free + buffers + cached", "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 50 kB\nCached: 250 kB\n",
         true, 600, 400},
        {"available above total: used held at 0", "MemTotal: 100 kB\nMemAvailable: 150 kB\n", true, 0, 150},
        {"no MemTotal", "MemFree: 100 kB\nMemAvailable: 150 kB\n", false, 0, 0},
    };
    for (const Case& c : cases) {
        FakeProc proc;
        proc.Write("meminfo", c.meminfo);
        MemoryFigures m;
        ASSERT_EQ(ReadMemoryFigures(proc.Root(), m), c.ok) << c.what;
        EXPECT_EQ(m.usedBytes, c.usedKb * 1024) << c.what;
        EXPECT_EQ(m.availableBytes, c.availableKb * 1024) << c.what;
    }
    MemoryFigures m;
    EXPECT_FALSE(ReadMemoryFigures("/nonexistent-proc-root", m));
}

TEST(HostFigures, EveryInterfaceWithItsCountersAndAKnownSpeedOnly)
{
    FakeProc proc;
    std::vector<InterfaceFigures> links;
    EXPECT_FALSE(ReadInterfaceFigures(proc.Root(), proc.Path("sys"), links));
    proc.NetDev({{"lo", 6534, 6534}, {"enp3s0", 123456789012ULL, 42}, {"ens5", 7, 8}, {"wlp2s0", 1, 2}});
    // Too few counters, no colon and a name that would leave the tree.
    proc.Write("net/dev", testsupport::ReadFile(proc.Path("net/dev")) + "  eth0: 1 2 3\nnocolon 1 2 3 4 5 6 7 8 9\n"
                          " ../../etc: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n");
    // Speeds: known, unknown (-1 without a carrier), garbage, missing (lo), outside the tree.
    proc.Write("sys/class/net/enp3s0/speed", "1000\n");
    proc.Write("sys/class/net/ens5/speed", "-1\n");
    proc.Write("sys/class/net/wlp2s0/speed", "fast\n");
    proc.Write("etc/speed", "100\n");
    ASSERT_TRUE(ReadInterfaceFigures(proc.Root(), proc.Path("sys"), links));
    std::string seen;
    for (const InterfaceFigures& f : links)
        seen += f.name + " " + std::to_string(f.receivedBytes) + " " + std::to_string(f.sentBytes) + " " +
                (f.speedMbps ? std::to_string(*f.speedMbps) : "-") + ";";
    EXPECT_EQ(seen, "lo 6534 6534 -;enp3s0 123456789012 42 1000;ens5 7 8 -;wlp2s0 1 2 -;../../etc 1 9 -;");
}

TEST(HostFigures, RatesPerSecond)
{
    struct Case { uint64_t before, after, elapsedMs; std::optional<uint64_t> rate; };
    const Case cases[] = {
        {1000, 3000, 1000, 2000}, {0, 1500, 500, 3000}, {5, 5, 1000, 0},
        {3000, 1000, 1000, std::nullopt},  // counter went down: interface re-created
        {0, 100, 0, std::nullopt},
        {0, UINT64_MAX, 1, UINT64_MAX},  // held, not wrapped
    };
    for (const Case& c : cases)
        EXPECT_EQ(RatePerSecond(c.before, c.after, c.elapsedMs), c.rate) << c.before << " " << c.after;
}

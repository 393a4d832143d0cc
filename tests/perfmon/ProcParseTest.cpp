// Bounded parsing of the proc files and the network interface table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"
#include "support/TestSupport.h"

using namespace perfmon;

namespace {

uint64_t Parse(const std::string& text, bool* ok = nullptr)
{
    const char* p = text.data();
    uint64_t v = 12345;
    bool r = ParseU64(p, p + text.size(), v);
    if (ok)
        *ok = r;
    return v;
}

std::string NetDevHeader()
{
    return "Inter-|   Receive                                                |  Transmit\n"
           " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier compressed\n";
}

std::string NetLine(const std::string& name, uint64_t rx = 1, uint64_t tx = 2)
{
    return "  " + name + ": " + std::to_string(rx) + " 0 0 0 0 0 0 0 " + std::to_string(tx) + " 0 0 0 0 0 0 0\n";
}

} // namespace

TEST(ProcParse, NumbersSaturateInsteadOfOverflowing)
{
    bool ok = false;
    EXPECT_EQ(Parse("  42 kB", &ok), 42u);
    EXPECT_TRUE(ok);
    EXPECT_EQ(Parse("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(Parse("18446744073709551616"), UINT64_MAX);
    EXPECT_EQ(Parse("999999999999999999999999999999999999"), UINT64_MAX);
    Parse("  -5", &ok);
    EXPECT_FALSE(ok);
    Parse("", &ok);
    EXPECT_FALSE(ok);
    Parse("   ", &ok);
    EXPECT_FALSE(ok);

    // The parser stops at the end it is given, even inside digits.
    std::string text = "123456";
    const char* p = text.data();
    uint64_t v = 0;
    ASSERT_TRUE(ParseU64(p, text.data() + 3, v));
    EXPECT_EQ(v, 123u);
    EXPECT_EQ(p, text.data() + 3);
}

TEST(ProcParse, NumberListStopsAtTheFirstNonNumber)
{
    uint64_t v[16] = {};
    EXPECT_EQ(ParseU64List(" 1 2\t3 4 5", v, 4), 4);
    EXPECT_EQ(v[3], 4u);
    EXPECT_EQ(ParseU64List("1 2 x 4", v, 16), 2);
    EXPECT_EQ(ParseU64List("1 2 3abc 4", v, 16), 3);
    EXPECT_EQ(ParseU64List("", v, 16), 0);
    EXPECT_EQ(ParseU64List("99999999999999999999999 7", v, 16), 2);
    EXPECT_EQ(v[0], UINT64_MAX);
    EXPECT_EQ(v[1], 7u);
}

TEST(ProcParse, KeyedNumbersNeedTheKeyAtTheStart)
{
    uint64_t v = 0;
    EXPECT_TRUE(ParseKeyedU64("MemTotal:     16384 kB", "MemTotal:", v));
    EXPECT_EQ(v, 16384u);
    EXPECT_FALSE(ParseKeyedU64(" MemTotal: 5 kB", "MemTotal:", v));
    EXPECT_FALSE(ParseKeyedU64("MemTotal: kB", "MemTotal:", v));
    EXPECT_FALSE(ParseKeyedU64("MemTot", "MemTotal:", v));
}

TEST(ProcParse, LongLinesAreNeverSplitIntoTwo)
{
    testsupport::TempDir dir;
    // A line longer than the line buffer whose continuation would look like
    // an interface line, then a line longer than the longest kept line.
    std::string longLine = std::string(255, 'a') + "eth9: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16";
    std::string hugeLine = "eth8: " + std::string(3 * kMaxLineLength, '7');
    std::string text = longLine + "\n" + hugeLine + "\n" + NetLine("eth0") + "last line without newline";
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("f"), text));

    CProcLineReader reader;
    ASSERT_TRUE(reader.Open(dir.Sub("f")));
    std::vector<std::string> lines;
    std::string line;
    while (reader.Next(line))
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], longLine);
    EXPECT_EQ(lines[1].size(), kMaxLineLength);
    EXPECT_EQ(lines[2], NetLine("eth0").substr(0, NetLine("eth0").size() - 1));
    EXPECT_EQ(lines[3], "last line without newline");
}

TEST(ProcParse, MissingFileCannotBeOpened)
{
    testsupport::TempDir dir;
    CProcLineReader reader;
    EXPECT_FALSE(reader.Open(dir.Sub("absent")));
    std::string line = "x";
    EXPECT_FALSE(reader.Next(line));
    std::string out = "keep";
    EXPECT_FALSE(ReadSmallFile(dir.Sub("absent"), out));
    EXPECT_EQ(out, "keep");
}

TEST(ProcParse, InterfaceNamesByPrefix)
{
    for (const char* name : {"eth0", "eth10", "bond0", "sha1", "vswif0", "br0", "br-1a2b", "bridge", "xenbr0"})
        EXPECT_TRUE(IsMonitoredInterfaceName(name)) << name;
    for (const char* name : {"lo", "ifb0", "wlan0", "docker0", "veth12", "enp3s0", "et", "b", "", "Inter-|", "xen"})
        EXPECT_FALSE(IsMonitoredInterfaceName(name)) << name;

    NetDevLine entry;
    EXPECT_TRUE(SplitNetDevLine("  eth0: 1 2", entry));
    EXPECT_EQ(entry.name, "eth0");
    EXPECT_EQ(entry.counters, " 1 2");
    // Old kernels write the first counter right after the colon.
    EXPECT_TRUE(SplitNetDevLine("eth1:123 4", entry));
    EXPECT_EQ(entry.name, "eth1");
    EXPECT_EQ(entry.counters, "123 4");
    EXPECT_FALSE(SplitNetDevLine("  eth0 1 2 3", entry));  // no colon
    EXPECT_FALSE(SplitNetDevLine("    lo: 1 2", entry));
    EXPECT_FALSE(SplitNetDevLine("", entry));
    EXPECT_FALSE(SplitNetDevLine("      ", entry));
}

TEST(CNetworkInterfaceTable, CountsOnlyMonitoredInterfacesInFileOrder)
{
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("net/dev"), NetDevHeader() + NetLine("lo") + NetLine("ifb0") +
                                                               NetLine("eth0") + NetLine("docker0") +
                                                               NetLine("bond0") + NetLine("wlan0") +
                                                               NetLine("xenbr0")));
    CNetworkInterfaceTable table(dir.Path());
    EXPECT_EQ(table.GetNumberInterfaces(), 3);
    std::string name;
    EXPECT_TRUE(table.GetInterfaceName(0, name));
    EXPECT_EQ(name, "eth0");
    EXPECT_TRUE(table.GetInterfaceName(2, name));
    EXPECT_EQ(name, "xenbr0");
    name = "unchanged";
    EXPECT_FALSE(table.GetInterfaceName(3, name));
    EXPECT_FALSE(table.GetInterfaceName(-1, name));
    EXPECT_EQ(name, "unchanged");
}

TEST(CNetworkInterfaceTable, NoneAndUnreadable)
{
    testsupport::TempDir dir;
    CNetworkInterfaceTable table(dir.Path());
    EXPECT_EQ(table.GetNumberInterfaces(), kNoInterfaces);
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("net/dev"), NetDevHeader() + NetLine("lo")));
    EXPECT_EQ(table.GetNumberInterfaces(), 0);
}

TEST(CNetworkInterfaceTable, NeverAnswersTheNoneValueForManyInterfaces)
{
    testsupport::TempDir dir;
    std::string text = NetDevHeader();
    for (int i = 0; i < 300; ++i)
        text += NetLine("eth" + std::to_string(i));
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("net/dev"), text));
    CNetworkInterfaceTable table(dir.Path());
    EXPECT_EQ(table.GetNumberInterfaces(), 254);
}

TEST(CNetworkInterfaceTable, LongLineContinuationIsNotAnInterface)
{
    testsupport::TempDir dir;
    std::string text = NetDevHeader() + std::string(254, ' ') + "x" +
                       "eth7: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n" + NetLine("eth0");
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("net/dev"), text));
    CNetworkInterfaceTable table(dir.Path());
    EXPECT_EQ(table.GetNumberInterfaces(), 1);
}

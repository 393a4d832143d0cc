// Bounded parsing of the proc files and the network interface table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"
#include "support/FakeProc.h"

using namespace perfmon;

namespace {

std::vector<std::string> Lines(const std::string& path)
{
    CProcLineReader reader;
    EXPECT_TRUE(reader.Open(path));
    std::vector<std::string> lines;
    for (std::string line; reader.Next(line);)
        lines.push_back(line);
    return lines;
}

std::string NetLine(const std::string& name) { return "  " + name + ": 1 0 0 0 0 0 0 0 2 0 0 0 0 0 0 0\n"; }

} // namespace

TEST(ProcParse, NumbersSaturateAndStopAtTheEndGiven)
{
    // `stop`: where the parser leaves the pointer (0 when nothing is read).
    struct Case { std::string text; size_t end; bool ok; uint64_t value; size_t stop; };
    const Case cases[] = {{"  42 kB", 7, true, 42, 4},
                          {"18446744073709551615", 20, true, UINT64_MAX, 20},
                          {"18446744073709551616", 20, true, UINT64_MAX, 20},
                          {"999999999999999999999999999999999999", 36, true, UINT64_MAX, 36},
                          {"123456", 3, true, 123, 3},  // the end lies inside the digits
                          {"  -5", 4, false, 12345, 0}, {"", 0, false, 12345, 0}, {"   ", 3, false, 12345, 0}};
    for (const Case& c : cases) {
        const char* p = c.text.data();
        uint64_t v = 12345;
        EXPECT_EQ(ParseU64(p, c.text.data() + c.end, v), c.ok) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
        EXPECT_EQ(p, c.text.data() + c.stop) << c.text;
    }
}

TEST(ProcParse, NumberListsAndKeyedNumbers)
{
    struct Case { const char* text; int max; int count; uint64_t last; };
    const Case lists[] = {{" 1 2\t3 4 5", 4, 4, 4}, {"1 2 x 4", 16, 2, 2}, {"1 2 3abc 4", 16, 3, 3},
                          {"", 16, 0, 0}, {"99999999999999999999999 7", 16, 2, 7}};
    for (const Case& c : lists) {
        uint64_t v[16] = {};
        EXPECT_EQ(ParseU64List(c.text, v, c.max), c.count) << c.text;
        EXPECT_EQ(c.count ? v[c.count - 1] : 0, c.last) << c.text;
    }
    uint64_t v = 0;
    EXPECT_TRUE(ParseKeyedU64("MemTotal:     16384 kB", "MemTotal:", v));
    EXPECT_EQ(v, 16384u);
    for (const char* bad : {" MemTotal: 5 kB", "MemTotal: kB", "MemTot"})
        EXPECT_FALSE(ParseKeyedU64(bad, "MemTotal:", v)) << bad;
}

TEST(ProcParse, LongLinesAreNeverSplitAndAFileOverTheCapEndsAtAWholeLine)
{
    testsupport::FakeProc dir;
    // A line whose continuation would look like an interface line, then a
    // line longer than the longest kept line.
    std::string longLine = std::string(255, 'a') + "eth9: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16";
    const std::string longest = "eth8: " + std::string(3 * kMaxLineLength, '7');
    dir.Write("f", longLine + "\n" + longest + "\n\nlast line without newline");
    EXPECT_TRUE(Lines(dir.Path("f")) == (std::vector<std::string>{longLine, longest.substr(0, kMaxLineLength), "",
                                                                   "last line without newline"}));
    const std::string line(99, 'a');
    std::string text;
    while (text.size() <= kMaxTextFile)
        text += line + "\n";
    dir.Write("big", text);
    std::vector<std::string> lines = Lines(dir.Path("big"));
    EXPECT_EQ(lines.size(), kMaxTextFile / 100);
    EXPECT_EQ(lines.back(), line);
}

TEST(ProcParse, MissingFileCannotBeRead)
{
    testsupport::FakeProc dir;
    CProcLineReader reader;
    EXPECT_FALSE(reader.Open(dir.Path("absent")));
    EXPECT_EQ(errno, ENOENT);
    std::string line = "x", out = "keep";
    EXPECT_FALSE(reader.Next(line));
    EXPECT_EQ(line, "");
    EXPECT_FALSE(ReadSmallFile(dir.Path("absent"), out));
    EXPECT_EQ(out, "keep");
}

TEST(ProcParse, InterfaceNamesByPrefix)
{
    for (const char* name : {"eth0", "eth10", "bond0", "sha1", "vswif0", "br0", "br-1a2b", "bridge", "xenbr0"})
        EXPECT_TRUE(IsMonitoredInterfaceName(name)) << name;
    for (const char* name : {"lo", "ifb0", "wlan0", "docker0", "veth12", "enp3s0", "et", "b", "", "Inter-|", "xen"})
        EXPECT_FALSE(IsMonitoredInterfaceName(name)) << name;
    // Old kernels write the first counter right after the colon.
    struct Case { const char* line; bool ok; const char* name; const char* counters; };
    const Case cases[] = {{"  eth0: 1 2", true, "eth0", " 1 2"}, {"eth1:123 4", true, "eth1", "123 4"},
                          {"  eth0 1 2 3", false, "", ""},  {"    lo: 1 2", false, "", ""},
                          {"", false, "", ""},              {"      ", false, "", ""}};
    for (const Case& c : cases) {
        NetDevLine entry;
        EXPECT_EQ(SplitNetDevLine(c.line, entry), c.ok) << c.line;
        EXPECT_EQ(entry.name + "|" + entry.counters, std::string(c.name) + "|" + c.counters);
    }
}

TEST(CNetworkInterfaceTable, CountsOnlyMonitoredInterfacesInFileOrder)
{
    testsupport::FakeProc proc;
    CNetworkInterfaceTable table(proc.Root());
    EXPECT_EQ(table.GetNumberInterfaces(), kNoInterfaces);  // unreadable
    proc.NetDev({{"lo", 1, 2}, {"ifb0", 1, 2}, {"eth0", 1, 2}, {"docker0", 1, 2}, {"bond0", 1, 2}, {"xenbr0", 1, 2}});
    EXPECT_EQ(table.GetNumberInterfaces(), 3);
    std::string name;
    EXPECT_TRUE(table.GetInterfaceName(0, name) && name == "eth0");
    EXPECT_TRUE(table.GetInterfaceName(2, name) && name == "xenbr0");
    name = "unchanged";
    EXPECT_FALSE(table.GetInterfaceName(3, name) || table.GetInterfaceName(-1, name));
    EXPECT_EQ(name, "unchanged");
    EXPECT_EQ(CNetworkInterfaceTable(proc.Root() + "/").GetNumberInterfaces(), 3);  // no doubled separator
    proc.NetDev({{"lo", 1, 2}});
    EXPECT_EQ(table.GetNumberInterfaces(), 0);
    // At most 254 (never the "none" value); a long line's continuation is no interface.
    std::string text = "Inter-|\n face |\n";
    for (int i = 0; i < 300; ++i)
        text += NetLine("eth" + std::to_string(i));
    proc.Write("net/dev", text);
    EXPECT_EQ(table.GetNumberInterfaces(), 254);
    proc.Write("net/dev", "Inter-|\n face |\n" + std::string(254, ' ') + "x" + NetLine("eth7") + NetLine("eth0"));
    EXPECT_EQ(table.GetNumberInterfaces(), 1);
}

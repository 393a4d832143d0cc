// The performance monitor's parts: bounded parsing of the proc files (read fresh or through a kept
// descriptor), the network interface table, the percentage arithmetic, the history buffer, the
// value/group table, and the figures beside the percentages.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "perfmon/CDataHistoryBuffer.h"
#include "perfmon/CNetworkInterfaceTable.h"
#include "perfmon/CPerfMon.h"
#include "perfmon/HostFigures.h"
#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"
#include "support/FakeProc.h"
#include "support/TraceEnv.h"

using namespace perfmon;
using testsupport::FakeProc;

namespace {

/// The lines of `path`, read fresh or through `kept`.
std::vector<std::string> Lines(const std::string& path, CKeptProcFile* kept = nullptr)
{
    CProcLineReader reader;
    EXPECT_TRUE(kept ? reader.Open(*kept, path) : reader.Open(path)) << path;
    std::vector<std::string> lines;
    for (std::string line; reader.Next(line);)
        lines.push_back(line);
    return lines;
}

std::string NetLine(const std::string& name) { return "  " + name + ": 1 0 0 0 0 0 0 0 2 0 0 0 0 0 0 0\n"; }

// The "Threads:" line of the own status file, read through `kept`.
std::string ThreadsLine(CKeptProcFile& kept)
{
    EXPECT_TRUE(kept.Read("/proc/self/status"));
    const std::string text(kept.Text());
    const size_t at = text.find("Threads:");
    return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
}

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
    EXPECT_TRUE(ParseKeyedU64("MemTotal:     16384 kB", "MemTotal:", v) && v == 16384);
    for (const char* bad : {" MemTotal: 5 kB", "MemTotal: kB", "MemTot"})
        EXPECT_FALSE(ParseKeyedU64(bad, "MemTotal:", v)) << bad;
}

// A fresh read and one through a kept descriptor (the file rewritten between reads) give the same lines.
TEST(ProcParse, LongLinesAreNeverSplitALongFileEndsAtAWholeLineAndAMissingOneIsNotRead)
{
    FakeProc dir;
    // A line whose continuation would look like an interface line, then one
    // longer than the longest kept line.
    const std::string cont = std::string(255, 'a') + "eth9: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16";
    const std::string longest = "eth8: " + std::string(3 * kMaxLineLength, '7'), line(99, 'a');
    const std::string cut = longest.substr(0, kMaxLineLength);
    std::string big;
    while (big.size() <= kMaxTextFile)
        big += line + "\n";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {cont + "\n" + longest + "\n\nlast line without newline", {cont, cut, "", "last line without newline"}},
        {longest + "\n" + std::string(40000, 'b'), {cut, std::string(kMaxLineLength, 'b')}},  // past a first buffer
        {big, std::vector<std::string>(kMaxTextFile / 100, line)},
    };
    CKeptProcFile kept;
    for (const auto& [text, lines] : cases) {
        dir.Write("f", text);
        EXPECT_TRUE(Lines(dir.Path("f")) == lines) << text.size();
        EXPECT_TRUE(Lines(dir.Path("f"), &kept) == lines) << text.size();
    }
    // A missing file: nothing read, nothing changed; the kept text is dropped.
    EXPECT_FALSE(kept.Read(dir.Path("absent")));
    EXPECT_TRUE(errno == ENOENT && kept.Text().empty());
    CProcLineReader reader;
    EXPECT_TRUE(!reader.Open(dir.Path("absent")) && errno == ENOENT);
    std::string next = "x", out = "keep";
    EXPECT_FALSE(reader.Next(next) || ReadSmallFile(dir.Path("absent"), out));
    EXPECT_EQ(next + out, "keep");
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
    FakeProc proc;
    CNetworkInterfaceTable table(proc.Root());
    EXPECT_EQ(table.GetNumberInterfaces(), kNoInterfaces);  // unreadable
    proc.NetDev({{"lo", 1, 2}, {"ifb0", 1, 2}, {"eth0", 1, 2}, {"docker0", 1, 2}, {"bond0", 1, 2}, {"xenbr0", 1, 2}});
    EXPECT_EQ(table.GetNumberInterfaces(), 3);
    std::string name, last;
    EXPECT_TRUE(table.GetInterfaceName(0, name) && table.GetInterfaceName(2, last) && name + last == "eth0xenbr0");
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

// Checked by hand: each quotient is part × 100000 ÷ whole, truncated; the current form is (sum ×
// 100 + 50000) ÷ (n × 100000), the average form rounds the truncated mean. Samples without a whole
// do not count; when none counts, current reports the low byte of the last part.
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

TEST(CDataHistoryBuffer, LockGuardsWritersAndTheOldestIsDroppedAtTheMaximum)
{
    CDataHistoryBuffer<int> h(50, 1);
    std::atomic<bool> stop{false}, bad{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i)
            h.Add(0, i);
        stop = true;
    });
    std::vector<int> items, newest;
    while (!stop) {
        // Held across two calls: the pair must be consistent.
        CCriticalSectionLock lock(h.GetLock());
        unsigned n = h.GetCount(0);
        h.GetAll(0, items);
        bad = bad || items.size() != n || n > 50;
        for (size_t i = 1; i < items.size(); ++i)
            bad = bad || items[i] != items[i - 1] + 1;
    }
    writer.join();
    EXPECT_FALSE(bad);
    CDataHistoryBuffer<int> zero(0, 1);  // a zero maximum still keeps the newest
    EXPECT_FALSE(zero.Add(1, 1) || zero.Add(-1, 1));
    EXPECT_TRUE(zero.Add(0, 1) && zero.Add(0, 2));
    h.GetAll(0, items);
    zero.GetAll(0, newest);
    EXPECT_TRUE(items.size() == 50 && items.back() == 19999);  // the oldest dropped
    EXPECT_EQ(newest, std::vector<int>{2});
}

TEST(CPerfMonValues, IsMonitorValueGroups)
{
    // {type, first, last}; types of no group or of several hold no value.
    for (auto [type, first, last] : {std::tuple{1, 0, 3}, {2, 4, 7}, {4, 10, 12}, {8, 8, 9}, {16, 13, 20},
                                     {0, 1, 0}, {3, 1, 0}, {0x800, 1, 0}, {-1, 1, 0}})
        for (int v = -1; v <= 21; ++v)
            EXPECT_EQ(CPerfMon::IsMonitorValue(v, type), v >= first && v <= last) << type << " " << v;
}

TEST(CKeptProcFile, SeesEveryChangeAndAForkedChildItsOwnSelf)
{
    // A kept proc file shows the figures of the moment it is read.
    CKeptProcFile status;
    const std::string before = ThreadsLine(status);
    std::string during;
    std::thread([&] { during = ThreadsLine(status); }).join();
    EXPECT_TRUE(!before.empty() && during != before) << before;

    // A forked child reads its own "self", not its parent's.
    CKeptProcFile self;
    ASSERT_TRUE(self.Read("/proc/self/stat"));
    testsupport::TraceEnv::ExpectExit(testsupport::TraceEnv::InChild([&] {
        return self.Read("/proc/self/stat") && atoi(std::string(self.Text()).c_str()) == getpid() ? 0 : 1;
    }), 0);
}

// A kept descriptor that no longer reads (its thread or process has ended) is given up: the path is
// opened anew, here the reading thread's own file; a process gone and a directory fail.
TEST(CKeptProcFile, DescriptorOfAnEndedTaskIsReopenedOrFails)
{
    CKeptProcFile kept;
    std::string other;
    std::thread([&] { other = kept.Read("/proc/thread-self/stat") ? std::string(kept.Text()) : ""; }).join();
    ASSERT_TRUE(kept.Read("/proc/thread-self/stat"));
    EXPECT_NE(atoi(other.c_str()), getpid());
    EXPECT_EQ(atoi(std::string(kept.Text()).c_str()), getpid());  // the main thread's id is the process's
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    const std::string stat = "/proc/" + std::to_string(child) + "/stat";
    EXPECT_TRUE(kept.Read(stat));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(kept.Read(stat));
    testsupport::TempDir dir;
    EXPECT_FALSE(kept.Read(dir.Path()));
}

// Memory used without the page cache; every interface whatever its name, its speed absent when unknown.
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
        {"no file", nullptr, false, 0, 0},
    };
    for (const Case& c : cases) {
        FakeProc proc;
        if (c.meminfo)
            proc.Write("meminfo", c.meminfo);
        MemoryFigures m;
        ASSERT_EQ(ReadMemoryFigures(proc.Root(), m), c.ok) << c.what;
        EXPECT_EQ(m.usedBytes, c.usedKb * 1024) << c.what;
        EXPECT_EQ(m.availableBytes, c.availableKb * 1024) << c.what;
    }
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

// The rtnetlink parser on datagrams captured from a real kernel and on
// hand-made ones that lie about their lengths; the state comparison that
// turns notifications into events; the sysfs side of the link details and
// the words shown for a link's state and duplex.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <filesystem>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include "netif/link_details.h"
#include "netif/netif_state.h"
#include "netif/netif_types.h"
#include "support/TestSupport.h"

using namespace libnetif;
using netlink::message;

namespace {

std::string Fixture(const std::string& name)
{
    return testsupport::ReadFile(std::string(TARVD_FIXTURES_DIR) + "/netif/" + name);
}

std::vector<message> Split(const std::string& bytes, bool whole = true)
{
    std::vector<message> out;
    EXPECT_EQ(whole, netlink::split_messages(CByteReader(bytes.data(), bytes.size()), out));
    return out;
}

std::string Le(uint64_t v, size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s.push_back(static_cast<char>(i < 8 ? (v >> (8 * i)) & 0xFF : 0));
    return s;
}

std::string Attr(uint16_t type, const std::string& payload)
{
    std::string a = Le(static_cast<uint32_t>(4 + payload.size()), 2) + Le(type, 2) + payload;
    return a + std::string((4 - a.size() % 4) % 4, '\0');
}

std::string Msg(uint16_t type, const std::string& body)
{
    return Le(static_cast<uint32_t>(16 + body.size()), 4) + Le(type, 2) + Le(0, 2) + Le(0, 8) + body;
}

// ifinfomsg + name, MTU, hardware address.
std::string Link(uint16_t type, int index, uint32_t flags, const std::string& name, uint32_t mtu,
                 const std::string& mac = std::string("\x02\0\0\0\0\x01", 6), uint8_t family = AF_UNSPEC)
{
    std::string fixed = std::string(1, static_cast<char>(family)) + '\0' + Le(1, 2) + Le(index, 4) + Le(flags, 4) +
                        Le(0, 4);
    return Msg(type, fixed + Attr(IFLA_IFNAME, name + '\0') + Attr(IFLA_MTU, Le(mtu, 4)) + Attr(IFLA_ADDRESS, mac));
}

std::string Addr4(uint16_t type, int index, const char* text, uint8_t prefix)
{
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    std::string raw(reinterpret_cast<const char*>(&a), 4);
    return Msg(type, std::string{AF_INET, static_cast<char>(prefix), 0, 0} + Le(index, 4) + Attr(IFA_LOCAL, raw));
}

std::string Route4(uint16_t type, const std::string& dst, uint8_t prefix, int oif, uint8_t table = RT_TABLE_MAIN)
{
    // family, prefix, source prefix, tos, table, protocol static, scope, unicast; flags
    std::string fixed =
        std::string{AF_INET, static_cast<char>(prefix), 0, 0, static_cast<char>(table), 4, 0, 1} + Le(0, 4);
    return Msg(type, fixed + Attr(RTA_DST, dst) + Attr(RTA_OIF, Le(oif, 4)));
}

netif_state Apply(const std::string& bytes, netif_state state = {}, bool whole = true)
{
    for (const message& m : Split(bytes, whole))
        apply_message(m, state, nullptr);
    return state;
}

std::vector<std::string> Kinds(const netif_state& before, const netif_state& after)
{
    std::vector<netif_event> events;
    diff_states(before, after, events);
    std::vector<std::string> kinds;
    for (const netif_event& e : events)
        kinds.push_back(std::string(event_kind_name(e.kind)) + " " + e.iface.name + e.previous);
    return kinds;
}

} // namespace

TEST(NetlinkParse, CapturedDumpsDecodeToWhatIpShows)
{
    netif_state s = Apply(Fixture("link-01.bin") + Fixture("link-02.bin") + Fixture("addr-01.bin") +
                          Fixture("route-01.bin"));
    ASSERT_EQ(4u, s.interfaces.size());
    const interface_record& va = s.interfaces.at(3);
    EXPECT_EQ("va veth 1400 17", va.name + " " + va.kind + " " + std::to_string(va.mtu) + " " +
                                     std::to_string(va.mac.size()));
    EXPECT_EQ("bridge", s.interfaces.at(4).kind);
    EXPECT_EQ(772, s.interfaces.at(1).type);  // loopback
    EXPECT_TRUE(s.addresses.count("3 10.7.0.1/24") && s.addresses.count("3 fd00:7::1/64"));
    // Main table only: the two local-table entries of the dump are left out.
    ASSERT_EQ(3u, s.routes.size());
    std::vector<std::string> routes;
    for (const auto& [key, r] : s.routes)
        routes.push_back(r.destination + "/" + std::to_string(r.prefix) + " " + r.gateway + " " +
                         std::to_string(r.oif) + " " + std::to_string(r.metric) + " " + std::to_string(r.type));
    EXPECT_EQ((std::vector<std::string>{"10.66.0.0/16  0 0 6", "10.7.0.0/24  3 0 1", "10.9.0.0/16 10.7.0.2 3 50 1"}),
              routes);
}

// Every cut of a real datagram: whole messages before the cut are kept, and
// the walk reports the lie unless the cut falls between messages.
TEST(NetlinkParse, EveryTruncationOfACaptureIsRefusedInsideAMessage)
{
    const std::string bytes = Fixture("link-02.bin");
    const std::vector<message> whole = Split(bytes);
    ASSERT_EQ(2u, whole.size());
    const size_t boundary = whole[1].payload.Data() - 16 - reinterpret_cast<const uint8_t*>(bytes.data());
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
        std::vector<message> out;
        bool ok = netlink::split_messages(CByteReader(bytes.data(), cut), out);
        EXPECT_EQ(cut == 0 || cut == boundary, ok) << cut;
        EXPECT_EQ(cut < boundary ? 0u : 1u, out.size()) << cut;
    }
}

TEST(NetlinkParse, LyingLengthsAndForeignRecordsAreRefused)
{
    struct Case { const char* what; std::string bytes; bool split; size_t interfaces, addresses, routes; };
    std::string attr_too_long = Link(RTM_NEWLINK, 5, 0, "eth5", 1500);
    attr_too_long[16 + 16] = 120;  // the first attribute claims more than the message holds
    std::string no_nul = Msg(RTM_NEWLINK, std::string(1, 0) + '\0' + Le(1, 2) + Le(6, 4) + Le(0, 8) +
                                             Attr(IFLA_IFNAME, std::string(40, 'x')));
    const Case cases[] = {
        {"message shorter than its header", Le(8, 4) + Le(RTM_NEWLINK, 2) + std::string(10, 0), false, 0, 0, 0},
        {"message longer than the buffer", Link(RTM_NEWLINK, 5, 0, "eth5", 1500).substr(0, 40), false, 0, 0, 0},
        {"zero-length attribute ends the walk", Msg(RTM_NEWLINK, std::string(16, 0) + Le(0, 4)), true, 0, 0, 0},
        {"attribute longer than its message", attr_too_long, true, 1, 0, 0},
        {"name without NUL is cut", no_nul, true, 1, 0, 0},
        {"bridge port message is no interface", Link(RTM_NEWLINK, 5, 0, "eth5", 1, "", AF_BRIDGE), true, 0, 0, 0},
        {"index 0", Link(RTM_NEWLINK, 0, 0, "eth5", 1), true, 0, 0, 0},
        {"IPv4 address of 3 bytes",
         Msg(RTM_NEWADDR, std::string{AF_INET, 8, 0, 0} + Le(1, 4) + Attr(IFA_LOCAL, "\x0a\x00\x00")), true, 0, 0, 0},
        {"route of the local table", Route4(RTM_NEWROUTE, std::string("\x0a\0\0\0", 4), 8, 1, 255), true, 0, 0, 0},
        {"route prefix 33", Route4(RTM_NEWROUTE, std::string("\x0a\0\0\0", 4), 33, 1), true, 0, 0, 0},
        {"valid address and route", Addr4(RTM_NEWADDR, 1, "10.0.0.1", 8) +
                                        Route4(RTM_NEWROUTE, std::string("\x0a\0\0\0", 4), 8, 1), true, 0, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const netif_state s = Apply(c.bytes, {}, c.split);
        EXPECT_EQ(c.interfaces, s.interfaces.size());
        EXPECT_EQ(c.addresses, s.addresses.size());
        EXPECT_EQ(c.routes, s.routes.size());
        for (const auto& [index, r] : s.interfaces)
            EXPECT_LT(r.name.size(), size_t{IFNAMSIZ});
    }
}

TEST(NetifState, NotificationsBecomeEachEventOnce)
{
    const std::string dst("\x0a\x01\0\0", 4);
    const netif_state base = Apply(Link(RTM_NEWLINK, 7, IFF_UP, "eth7", 1500) + Addr4(RTM_NEWADDR, 7, "10.1.0.1", 16) +
                                   Route4(RTM_NEWROUTE, dst, 16, 7));
    struct Case { const char* what; std::string bytes; std::vector<std::string> kinds; bool reroute; };
    const Case cases[] = {
        {"carrier comes", Link(RTM_NEWLINK, 7, IFF_UP | IFF_RUNNING, "eth7", 1500), {"link_up eth7"}, false},
        {"renamed, new MAC and MTU", Link(RTM_NEWLINK, 7, IFF_UP, "lan0", 9000, std::string("\x02\0\0\0\0\x02", 6)),
         {"name_changed lan0eth7", "mac_changed lan002:00:00:00:00:01", "mtu_changed lan01500"}, false},
        {"same again", Link(RTM_NEWLINK, 7, IFF_UP, "eth7", 1500) + Addr4(RTM_NEWADDR, 7, "10.1.0.1", 16), {}, false},
        {"address moved", Addr4(RTM_DELADDR, 7, "10.1.0.1", 16) + Addr4(RTM_NEWADDR, 7, "10.2.0.1", 16),
         {"address_added eth7", "address_removed eth7"}, false},
        {"removed twice: the kernel forgets its routes and addresses silently",
         Link(RTM_DELLINK, 7, 0, "eth7", 1500) + Link(RTM_DELLINK, 7, 0, "eth7", 1500),
         {"route_removed eth7", "address_removed eth7", "interface_removed eth7"}, true},
        {"down drops the routes", Link(RTM_NEWLINK, 7, 0, "eth7", 1500), {"route_removed eth7"}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        netif_state s = base;
        bool reroute = false;
        for (const message& m : Split(c.bytes))
            reroute |= apply_message(m, s, nullptr);
        EXPECT_EQ(c.kinds, Kinds(base, s));
        EXPECT_EQ(c.reroute, reroute);
    }
    EXPECT_EQ((std::vector<std::string>{"interface_added eth7", "address_added eth7", "route_added eth7"}),
              Kinds({}, base));
}

TEST(LinkDetails, SysfsGivesSpeedDriverAndPciAddressAndNoNameLeavesItsFolder)
{
    testsupport::TempDir root;
    namespace fs = std::filesystem;
    const std::string net = root.Sub("class/net/");
    testsupport::WriteFile(net + "eno1/speed", "1000\n");
    testsupport::WriteFile(net + "eno1/duplex", "full\n");
    testsupport::WriteFile(net + "veth0/speed", "-1\n");  // no carrier: unknown
    testsupport::WriteFile(root.Sub("class/speed"), "10\n");
    fs::create_directories(root.Sub("devices/pci0000:00/0000:00:1f.6"));
    fs::create_directories(root.Sub("bus/pci/drivers/e1000e"));
    fs::create_symlink("../../../devices/pci0000:00/0000:00:1f.6", net + "eno1/device");
    fs::create_symlink("../../../../bus/pci/drivers/e1000e", root.Sub("devices/pci0000:00/0000:00:1f.6/driver"));
    struct Case { const char* name; std::optional<uint32_t> speed; const char* driver; const char* pci; };
    const Case cases[] = {
        {"eno1", 1000, "e1000e", "0000:00:1f.6"}, {"veth0", std::nullopt, "", ""}, {"..", std::nullopt, "", ""}};
    for (const Case& c : cases) {
        interface_record r;
        r.name = c.name;
        r.driver = "stale";
        read_link_details(r, root.Path(), false);
        EXPECT_EQ(c.speed, r.speed_mbps) << c.name;
        EXPECT_EQ(c.driver, r.driver) << c.name;
        EXPECT_EQ(c.pci, r.pci_address ? r.pci_address->ToString() : "") << c.name;
    }
}

// Those of `ip link` and ethtool, and "unknown" for what the kernel does not define.
TEST(NetifNames, OperationalStatesAndDuplexReadAsTheKernelsTools)
{
    const std::pair<uint8_t, const char*> states[] = {
        {0, "unknown"}, {1, "notpresent"}, {2, "down"}, {3, "lowerlayerdown"},
        {4, "testing"}, {5, "dormant"},    {6, "up"},   {7, "unknown"}, {255, "unknown"}};
    for (const auto& [state, name] : states)
        EXPECT_STREQ(operstate_name(state), name) << int(state);
    EXPECT_STREQ(duplex_name(link_duplex::full), "full");
    EXPECT_STREQ(duplex_name(link_duplex::half), "half");
}

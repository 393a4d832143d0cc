// kophw net and kopperf's per-interface figures against a veth pair the test makes in a private
// network namespace.
#include "ToolTestSupport.h"

#include "common/UniqueHandle.h"
#include "support/NetNamespace.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <regex>
#include <sys/socket.h>
#include <tuple>

using tooltest::json;

namespace {

class NetTools : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        if (!testsupport::EnterPrivateNetNamespace(why))
            GTEST_SKIP() << why;
        // va carries the addresses; 10.6.0.2 is vb's (a fixed neighbour
        // entry), so that datagrams to it leave va and arrive at vb.  No
        // link-local addresses: exactly the addresses made are shown.
        ASSERT_EQ(0, testsupport::Shell("ip link add va type veth peer name vb && "
                                        "ip link set va address 02:00:00:00:06:01 mtu 1400 && "
                                        "ip link set vb address 02:00:00:00:06:02 && "
                                        "ip link set va addrgenmode none && ip link set vb addrgenmode none && "
                                        "ip link set va up && ip link set vb up && "
                                        "ip addr add 10.6.0.1/24 dev va && ip addr add fd00:6::1/64 dev va nodad && "
                                        "ip neigh add 10.6.0.2 lladdr 02:00:00:00:06:02 dev va nud permanent"));
    }
};

/// Sends `count` datagrams of `size` bytes to 10.6.0.2.
void SendDatagrams(int count, size_t size)
{
    UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_TRUE(s);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, "10.6.0.2", &to.sin_addr);
    const std::string payload(size, 'x');
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(sendto(s.Get(), payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(size));
}

} // namespace

TEST_F(NetTools, KophwShowsTheInterfacesAsMade)
{
    json j = tooltest::RunJson(KOPHW_PATH, {"--json", "net"});
    const json* va = tooltest::FindBy(j.at("interfaces"), "name", "va");
    ASSERT_NE(va, nullptr) << j;
    EXPECT_TRUE(tooltest::HasMembers(va, R"({"type": 1, "kind": "veth", "mac": "02:00:00:00:06:01", "mtu": 1400,
        "operstate": "up", "carrier": true, "link_up": true, "speed_mbps": 10000, "pci_address": null})"));
    EXPECT_EQ(va->at("addresses").size(), 2u) << *va;
    for (const char* a : {R"({"family": "inet", "address": "10.6.0.1", "prefix": 24})",
                          R"({"family": "inet6", "address": "fd00:6::1", "prefix": 64})"}) {
        const json want = json::parse(a);
        EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(va->at("addresses"), "address", want.at("address")), a));
    }
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("interfaces"), "name", "vb"),
                                     R"({"mac": "02:00:00:00:06:02", "addresses": []})"));
    // The same in text: one aligned row per interface, its addresses below.
    auto r = tooltest::Run(KOPHW_PATH, {"net"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    const std::string index = std::to_string(va->at("index").get<int>());
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\n  va +" + index +
                                                    " +1 +veth +02:00:00:00:06:01 +1400 +up +yes +10000 +full +- +-\n"
                                                    "      inet 10.6.0.1/24\n")))
        << r.out;
}

TEST_F(NetTools, KopperfCountsTheTrafficOfBothEnds)
{
    SendDatagrams(20, 500);
    json j = tooltest::RunJson(KOPPERF_PATH, {"--seconds", "0", "--interval", "100", "--json"});
    const json* va = tooltest::FindBy(j.at("interfaces"), "name", "va");
    const json* vb = tooltest::FindBy(j.at("interfaces"), "name", "vb");
    ASSERT_TRUE(va && vb) << j;
    for (auto [end, counter, least] : {std::tuple{va, "sent_packets", 20u}, {va, "sent_bytes", 20u * 500},
                                       {vb, "received_packets", 20u}, {vb, "received_bytes", 20u * 500}})
        EXPECT_GE(end->at(counter).get<uint64_t>(), least) << *end;
    EXPECT_TRUE(tooltest::HasMembers(va, R"({"link_speed_mbps": 10000, "sent_errors": 0})"));
}

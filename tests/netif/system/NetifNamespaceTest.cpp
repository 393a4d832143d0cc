// The manager against the real kernel, in a private network namespace of the test's own process.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>
#include <mutex>

#include "netif/network_interface_manager.h"
#include "support/NetNamespace.h"
#include "support/TestSupport.h"
#include "support/Wait.h"

using namespace libnetif;

namespace {

// Generous for a loaded machine: the changes themselves come within
// milliseconds, and a test fails only when one never comes.
constexpr std::chrono::seconds kEventWait(10);

// Every event by "kind subject" (the interface's name, the address or the
// route's destination), counted.
class Recorder {
public:
    void operator()(const netif_event& e)
    {
        std::string subject = e.iface.name;
        if (e.kind == event_kind::address_added || e.kind == event_kind::address_removed)
            subject = e.address.address;
        else if (e.kind == event_kind::route_added || e.kind == event_kind::route_removed)
            subject = e.route.destination;
        std::lock_guard<std::mutex> guard(m_Lock);
        ++m_Counts[std::string(event_kind_name(e.kind)) + " " + subject];
    }
    int Count(const std::string& key)
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        return m_Counts.count(key) ? m_Counts[key] : 0;
    }
    bool WaitFor(const std::string& key)
    {
        return testsupport::WaitFor([&] { return Count(key) > 0; }, kEventWait);
    }

private:
    std::mutex m_Lock;
    std::map<std::string, int> m_Counts;
};

class NetifNamespace : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        if (!testsupport::EnterPrivateNetNamespace(why))
            GTEST_SKIP() << why;
    }
    static void Ip(const std::string& args) { ASSERT_EQ(0, testsupport::Shell("ip " + args)) << args; }
};

} // namespace

TEST_F(NetifNamespace, EveryChangeIsReportedOnce)
{
    network_interface_manager manager;
    Recorder record;
    manager.add_listener([&](const netif_event& e) { record(e); });
    int calls = 0, self = 0;
    self = manager.add_listener([&](const netif_event&) {
        ++calls;
        manager.remove_listener(self);
    });
    ASSERT_TRUE(manager.start());
    struct Step { const char* command; std::vector<const char*> events; };
    const Step steps[] = {
        {"link add va type veth peer name vb", {"interface_added va", "interface_added vb"}},
        {"link set va up", {}},
        {"link set vb up", {"link_up va", "link_up vb"}},
        {"link set va mtu 1400", {"mtu_changed va"}},
        {"link set va address 02:00:00:00:00:aa", {"mac_changed va"}},
        {"addr add 10.8.0.1/24 dev va", {"address_added 10.8.0.1", "route_added 10.8.0.0"}},
        {"addr add fd00:8::1/64 dev va", {"address_added fd00:8::1"}},
        {"route add 10.9.0.0/16 via 10.8.0.2 metric 7", {"route_added 10.9.0.0"}},
        {"route del 10.9.0.0/16 via 10.8.0.2 metric 7", {"route_removed 10.9.0.0"}},
        {"addr del 10.8.0.1/24 dev va", {"address_removed 10.8.0.1", "route_removed 10.8.0.0"}},
        {"link set vb down", {"link_down va", "link_down vb"}},
        {"link set vb name wan0", {"name_changed wan0"}},
        {"link del va", {"interface_removed va", "interface_removed wan0"}},
    };
    for (const Step& step : steps) {
        Ip(step.command);
        for (const char* e : step.events)
            EXPECT_TRUE(record.WaitFor(e)) << step.command << ": " << e;
    }
    // A last change: whatever was to come of the steps has come before it.
    Ip("link add sentinel type veth peer name sentinel1");
    ASSERT_TRUE(record.WaitFor("interface_added sentinel"));
    for (const Step& step : steps)
        for (const char* e : step.events)
            EXPECT_EQ(1, record.Count(e)) << e;
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0u, manager.resync_count());
    interface_record r;
    ASSERT_TRUE(manager.find_interface("sentinel", r));
    EXPECT_EQ(10000u, r.speed_mbps.value_or(0));  // what veth tells ethtool
}

TEST_F(NetifNamespace, OverflowOfTheNotificationSocketIsSurvivedByAResync)
{
    constexpr int kPairs = 40;
    manager_options options;
    options.receive_buffer = 1;  // the kernel's minimum: a few notifications fill it
    network_interface_manager manager(options);
    Recorder record;
    // Declared after the manager: gone first, so a failed case never leaves the listener waiting.
    std::promise<void> blocked, release;
    std::shared_future<void> released = release.get_future().share();
    manager.add_listener([&](const netif_event& e) {
        record(e);
        if (e.iface.name == "hold" && e.kind == event_kind::interface_added) {
            blocked.set_value();
            released.wait();
        }
    });
    ASSERT_TRUE(manager.start());
    Ip("link add hold type veth peer name hold1");
    ASSERT_EQ(std::future_status::ready, blocked.get_future().wait_for(kEventWait));
    std::string batch;
    for (int i = 0; i < kPairs; ++i)
        batch += "link add b" + std::to_string(i) + " type veth peer name c" + std::to_string(i) + "\n";
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::WriteFile(dir.Sub("batch"), batch));
    Ip("-batch " + dir.Sub("batch"));
    release.set_value();
    ASSERT_TRUE(testsupport::WaitFor([&] { return manager.resync_count() > 0; }, kEventWait));
    Ip("link add sentinel type veth peer name sentinel1");
    ASSERT_TRUE(record.WaitFor("interface_added sentinel"));
    for (int i = 0; i < kPairs; ++i)
        for (const char* side : {"b", "c"})
            EXPECT_EQ(1, record.Count("interface_added " + std::string(side) + std::to_string(i))) << side << i;
    EXPECT_EQ(1, record.Count("interface_added hold"));
    EXPECT_EQ(2u * kPairs + 5, manager.interfaces().size());  // lo, hold and the sentinel pairs
}

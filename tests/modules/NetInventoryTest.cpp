// The inventory module's network side against the real kernel, in a private network namespace.
// The link speed comes from the module root's sysfs (a veth pair's is fixed), the seam the test drives.
#include <gtest/gtest.h>

#include <algorithm>

#include "ModuleTestSupport.h"
#include "modules/common/RegistryNames.h"
#include "support/NetNamespace.h"

using namespace modtest;
using testsupport::NumberOr;
using testsupport::SubKeys;
using testsupport::TextOr;

namespace {

const std::string kInv = inventory::kInventoryKey;
const std::string kD0 = kInv + "\\" + tarvdmod::net::kInterfacesKey + "\\d0";

long Has(const std::string& prefix)
{
    auto all = RecordedChanges(true);
    return std::count_if(all.begin(), all.end(), [&](const std::string& c) { return c.rfind(prefix, 0) == 0; });
}

class NetInventoryTest : public RegistryTest {
protected:
    void SetUp() override
    {
        RegistryTest::SetUp();
        std::string why;
        if (!testsupport::EnterPrivateNetNamespace(why))
            GTEST_SKIP() << why;
        ASSERT_TRUE(m_Lib.Table()) << dlerror();
        WriteFile(m_Root.Sub("sys/class/net/d0/speed"), "100\n");
    }
    // Returns once the interfaces are published: what exists then is the
    // inventory as found (a first start records no change for it).
    void Start()
    {
        ASSERT_EQ(m_Lib->load(m_Config.Get()), 1);
        ASSERT_EQ(m_Lib->start(), 1);
        ASSERT_TRUE(WaitFor([] { return !SubKeys(kInv + "\\" + tarvdmod::net::kInterfacesKey).empty(); }));
    }
    void Stop()
    {
        m_Lib->stop();
        m_Lib->unload();
    }
    static void Ip(const std::string& args) { ASSERT_EQ(0, testsupport::Shell("ip " + args)) << args; }

    testsupport::TempDir m_Root;
    ModuleConfig m_Config{{{"Root", m_Root.Path()}, {"RescanSeconds", "3600"}, {"StartupDelaySeconds", "3600"},
                           {"VolumeCheckSeconds", "3600"}, {"MaxChanges", "1000"}}};
    ModuleLibrary m_Lib{TEST_INVENTORY_MODULE};
};

} // namespace

TEST_F(NetInventoryTest, EachChangeReachesTheKeyAndIsRecordedOnce)
{
    Start();
    struct Step {
        const char* command;
        const char* change;  // "Kind Object Detail" prefix; null: none recorded
        const char* value;   // a value of d0's key afterwards, "Name=text"
    };
    const Step steps[] = {
        {"link add d0 type veth peer name d0p", "InterfaceAdded d0 index ", "SpeedMbps=100"},
        {"link set d0p up", nullptr, nullptr},
        {"link set d0 up", "LinkUp d0 operational state up", "LinkUp=1"},
        {"addr add 10.7.0.1/24 dev d0", "AddressAdded d0 10.7.0.1/24", "IPv4Addresses=10.7.0.1/24"},
        {"addr add fd00:7::1/64 dev d0 nodad", "AddressAdded d0 fd00:7::1/64", nullptr},
        {"link set d0 address 02:00:00:00:07:07", "MacChanged d0 ", "MacAddress=02:00:00:00:07:07"},
        {"!1000", nullptr, nullptr},  // the speed file changes; the next link message reads it
        {"link set d0 mtu 1400", "SpeedChanged d0 100 -> 1000 Mbit/s", "Mtu=1400"},
        {"addr del 10.7.0.1/24 dev d0", "AddressRemoved d0 10.7.0.1/24", nullptr},
        {"link set d0 down", "LinkDown d0 operational state down", "LinkUp=0"},
        {"link del d0", "InterfaceRemoved d0 index ", nullptr},
    };
    const auto has = Has;
    for (const Step& s : steps) {
        if (s.command[0] == '!')
            WriteFile(m_Root.Sub("sys/class/net/d0/speed"), std::string(s.command + 1) + "\n");
        else
            Ip(s.command);
        EXPECT_TRUE(!s.change || WaitFor([&] { return has(s.change) > 0; })) << s.command;
        if (!s.value)
            continue;
        const std::string v = s.value, name = v.substr(0, v.find('='));
        EXPECT_TRUE(WaitFor([&] {  // a number is compared in its decimal form
            const std::string want = v.substr(name.size() + 1);
            return TextOr(kD0, name.c_str()) == want || std::to_string(NumberOr(kD0, name.c_str(), ~0u)) == want;
        })) << s.command << ": " << v;
    }
    // A last change: whatever the steps caused has been recorded before it.
    Ip("link add d9 type veth peer name d9p");
    ASSERT_TRUE(WaitFor([&] { return has("InterfaceAdded d9 ") > 0; }));
    for (const Step& s : steps)
        EXPECT_TRUE(!s.change || has(s.change) == 1) << s.change;
    EXPECT_TRUE(SubKeys(kD0).empty());
    EXPECT_EQ(NumberOr(kInv, "LastChange", 0), RecordedChanges(true).size());

    // Stopped, d9 goes and d8 comes: the next start records both once.
    Stop();
    Ip("link del d9");
    Ip("link add d8 type veth peer name d8p");
    Start();
    EXPECT_TRUE(WaitFor([&] { return has("InterfaceRemoved d9 ") == 1 && has("InterfaceAdded d8 ") == 1; }))
        << testing::PrintToString(RecordedChanges(true)) << testing::PrintToString(SubKeys(kInv + "\\NetworkInterfaces"));
    Stop();
}

// A burst faster than the registry is written overflows the notification
// socket: the lost notifications are made up by reading all anew.  An
// interface made and removed in between may then go unseen, but no change
// is recorded twice, and what is there at the end was recorded as added.
TEST_F(NetInventoryTest, NoChangeOfABurstIsRecordedTwice)
{
    Start();
    std::string burst;
    for (int i = 0; i < 60; ++i)
        burst += "link add b" + std::to_string(i) + " type veth peer name b" + std::to_string(i) + "p\n";
    for (int i = 0; i < 30; ++i)
        burst += "link del b" + std::to_string(i) + "\n";
    WriteFile(m_Root.Sub("burst"), burst);
    Ip("-batch " + m_Root.Sub("burst"));
    // Two last changes, one after the other: the second comes in a later
    // delivery than whatever the burst caused, a reading anew included.
    for (const char* last : {"d9", "d8"}) {
        Ip(std::string("link add ") + last + " type veth peer name " + last + "p");
        ASSERT_TRUE(WaitFor([&] { return Has(std::string("InterfaceAdded ") + last + " ") > 0; }));
    }
    for (int i = 0; i < 60; ++i) {
        const std::string name = "b" + std::to_string(i) + " ";
        const long added = Has("InterfaceAdded " + name), removed = Has("InterfaceRemoved " + name);
        EXPECT_EQ(added, i < 30 ? removed : 1) << name;
        EXPECT_LE(added, 1) << name;
    }
    Stop();
}

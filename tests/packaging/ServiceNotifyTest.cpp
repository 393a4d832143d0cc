// The readiness protocol: CServiceNotify against a datagram socket of the
// test's own, and kopd in a sandbox reporting READY=1 only after start-up
// is done and STOPPING=1 when it stops, and nothing when it forks.
#include <gtest/gtest.h>

#include <sys/un.h>

#include "daemon/CServiceNotify.h"
#include "support/Sandbox.h"

using namespace testsupport;

TEST(ServiceNotify, TakesTheAddressOutOfTheEnvironmentAndSendsToPathAndAbstractSockets)
{
    TempDir dir;
    const std::string abstract = "@tarvd-test-notify-" + std::to_string(getpid()) + "-" + std::to_string(rand());
    for (const std::string& address : {dir.Sub("notify"), abstract}) {
        DatagramSink manager(address);
        ASSERT_TRUE(manager.bound) << address;
        ScopedEnv env(CServiceNotify::kSocketVariable, address.c_str());
        CServiceNotify notify;
        ASSERT_TRUE(notify.TakeFromEnvironment());
        EXPECT_EQ(notify.Address(), address);
        // Children of the daemon must not inherit the manager's socket.
        EXPECT_EQ(getenv(CServiceNotify::kSocketVariable), nullptr);
        for (const char* state : {"READY=1", "STOPPING=1"}) {
            EXPECT_TRUE(notify.Notify(state));
            EXPECT_EQ(manager.Receive(5000), state);
        }
    }
    ScopedEnv env(CServiceNotify::kSocketVariable, nullptr);
    CServiceNotify notify;
    EXPECT_FALSE(notify.TakeFromEnvironment() || notify.Enabled());
}

TEST(ServiceNotify, RejectsUnusableAddressesAndReportsWhenNobodyListens)
{
    CServiceNotify notify;
    for (const std::string& bad : {std::string(), std::string("/"), std::string("@"), std::string("relative/path"),
                                   std::string("/") + std::string(200, 'x'), std::string("/a\0b", 4)}) {
        EXPECT_FALSE(notify.SetAddress(bad)) << bad;
        EXPECT_FALSE(notify.Enabled());
        EXPECT_FALSE(notify.Notify("READY=1"));
    }
    // The longest path sun_path holds with its terminator is still fine.
    EXPECT_TRUE(notify.SetAddress("/" + std::string(sizeof(sockaddr_un{}.sun_path) - 2, 'x')));
    TempDir dir;
    ASSERT_TRUE(notify.SetAddress(dir.Sub("absent")));
    EXPECT_TRUE(!notify.Notify("READY=1") && notify.LastError() == ENOENT);
}

/// kopd in a sandbox with the bundled example module, started by the "service manager".
class ReadinessTest : public KopdFixture {
protected:
    ReadinessTest() : KopdFixture(TEST_KOPD_PATH, TEST_FRAMEWORK_DIR)
    {
        m_Env = {"TARVD_MODULES_DIR=" TEST_EXAMPLE_CONF_DIR};
    }
    std::string Log() const { return ReadFile(TraceDir() + "/log.kopd"); }
};

TEST_F(ReadinessTest, ReadyOnlyAfterInitialisationStoppingAtStopAndNothingWhenForking)
{
    // (Abstract addresses: the unit case above.)
    DatagramSink manager(m_Dir.Sub("notify"));
    ASSERT_TRUE(manager.bound);
    pid_t pid = Start({"-n"}, {"NOTIFY_SOCKET=" + m_Dir.Sub("notify")});
    // The moment READY arrives the daemon has written its last start-up line.
    ASSERT_EQ(manager.Receive(60000), "READY=1") << Output();
    std::string log = Log();
    EXPECT_TRUE(Contains(log, "KOPD-MAIN: ## Done initializing ##")) << log;
    EXPECT_FALSE(Contains(log, "Someone signaled exit state"));
    EXPECT_EQ(manager.Receive(200), "");  // nothing else while it runs

    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(manager.Receive(60000), "STOPPING=1");
    EXPECT_TRUE(Contains(Log(), "## Someone signaled exit state ##")) << Log();
    EXPECT_EQ(WaitExit(pid), 0) << Output();
    EXPECT_EQ(manager.Receive(200), "");
    // Without -n the daemon forks and is not the process the manager
    // started: it must keep quiet, also past the end of its start-up.
    DatagramSink forking(m_Dir.Sub("forking"));
    ASSERT_TRUE(forking.bound);
    EXPECT_EQ(WaitExit(Start({}, {"NOTIFY_SOCKET=" + m_Dir.Sub("forking")})), 0) << Output();
    pid = WaitPidFile();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(WaitFor([&] { return Contains(Log(), "KOPD-MAIN: ## Done initializing ##"); })) << Log();
    ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    EXPECT_EQ(forking.Receive(100), "");
}

// The readiness protocol: CServiceNotify against a datagram socket of the
// test's own, and kopd in a sandbox reporting READY=1 only after start-up
// is done and STOPPING=1 when it stops, and nothing when it forks.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/UniqueHandle.h"
#include "daemon/CServiceNotify.h"
#include "support/Sandbox.h"
#include "support/TestSupport.h"

using namespace testsupport;

namespace {

/// A datagram socket standing in for the service manager.
class FakeManager {
public:
    /// `address`: a path, or "@name" for the abstract namespace.
    explicit FakeManager(const std::string& address)
    {
        m_Fd.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path, address.data(), address.size());
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
        if (address[0] == '@')
            addr.sun_path[0] = '\0';
        else
            ++len;
        m_Bound = m_Fd && bind(m_Fd.Get(), reinterpret_cast<sockaddr*>(&addr), len) == 0;
    }
    bool Bound() const { return m_Bound; }

    /// The next datagram, or "" after `ms` without one.
    std::string Receive(int ms)
    {
        pollfd p{m_Fd.Get(), POLLIN, 0};
        char buffer[512];
        ssize_t n = poll(&p, 1, ms) == 1 ? recv(m_Fd.Get(), buffer, sizeof buffer, 0) : 0;
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

private:
    UniqueFd m_Fd;
    bool m_Bound = false;
};

std::string UniqueAbstractName()
{
    return "@tarvd-test-notify-" + std::to_string(getpid()) + "-" + std::to_string(rand());
}

} // namespace

TEST(ServiceNotify, SendsToPathAndAbstractSockets)
{
    TempDir dir;
    for (const std::string& address : {dir.Sub("notify"), UniqueAbstractName()}) {
        FakeManager manager(address);
        ASSERT_TRUE(manager.Bound()) << address;
        CServiceNotify notify;
        ASSERT_TRUE(notify.SetAddress(address));
        EXPECT_TRUE(notify.Enabled());
        for (const char* state : {"READY=1", "STOPPING=1"}) {
            EXPECT_TRUE(notify.Notify(state));
            EXPECT_EQ(manager.Receive(5000), state);
        }
    }
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
    EXPECT_FALSE(notify.Notify("READY=1"));
    EXPECT_EQ(notify.LastError(), ENOENT);
}

TEST(ServiceNotify, TakesTheAddressOutOfTheEnvironment)
{
    TempDir dir;
    {
        ScopedEnv env(CServiceNotify::kSocketVariable, dir.Sub("sock").c_str());
        CServiceNotify notify;
        EXPECT_TRUE(notify.TakeFromEnvironment());
        EXPECT_EQ(notify.Address(), dir.Sub("sock"));
        // Children of the daemon must not inherit the manager's socket.
        EXPECT_EQ(getenv(CServiceNotify::kSocketVariable), nullptr);
    }
    ScopedEnv env(CServiceNotify::kSocketVariable, nullptr);
    CServiceNotify notify;
    EXPECT_FALSE(notify.TakeFromEnvironment());
    EXPECT_FALSE(notify.Enabled());
}

namespace {

/// kopd in a sandbox, started by the "service manager"; each run traces
/// into a directory of its own.
class ReadinessTest : public ::testing::Test {
protected:
    // The forking daemon leaves its parent: adopted, so that it can be collected.
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    void SetUp() override
    {
        if (!CanUseMountNamespace())
            GTEST_SKIP() << "needs root and mount namespaces";
        ASSERT_EQ(m_Box.Error(), "");
    }

    pid_t StartKopd(const std::string& notifySocket, std::vector<std::string> args)
    {
        std::vector<std::string> env = DaemonEnv(m_Dir.Sub("trace" + std::to_string(++m_Runs)));
        env.insert(env.end(), {"LD_LIBRARY_PATH=" TEST_FRAMEWORK_DIR, "TARVD_MODULES_DIR=" TEST_EXAMPLE_CONF_DIR,
                               "NOTIFY_SOCKET=" + notifySocket});
        return m_Box.Spawn({TEST_KOPD_PATH, std::move(args), env, m_Dir.Sub("out.txt")});
    }
    std::string Log() const { return ReadFile(m_Dir.Sub("trace" + std::to_string(m_Runs) + "/log.kopd")); }
    std::string Output() const { return ReadFile(m_Dir.Sub("out.txt")); }

    TempDir m_Dir;
    Sandbox m_Box{m_Dir.Sub("stage")};
    int m_Runs = 0;
};

} // namespace

TEST_F(ReadinessTest, ReadyOnlyAfterInitialisationAndStoppingAtStop)
{
    // The abstract namespace belongs to the network namespace, which the
    // mount namespace shares.
    for (const std::string& address : {m_Dir.Sub("notify"), UniqueAbstractName()}) {
        FakeManager manager(address);
        ASSERT_TRUE(manager.Bound());
        pid_t pid = StartKopd(address, {"-n"});
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
    }
}

TEST_F(ReadinessTest, ForkingModeDoesNotNotify)
{
    // Without -n the daemon forks and is not the process the manager
    // started: it must keep quiet, also past the end of its start-up.
    FakeManager manager(m_Dir.Sub("notify"));
    ASSERT_TRUE(manager.Bound());
    EXPECT_EQ(WaitExit(StartKopd(m_Dir.Sub("notify"), {})), 0) << Output();
    std::string pid;
    ASSERT_TRUE(WaitFor([&] { return Contains(pid = ReadFile(m_Box.Path("/run/kopd.pid")), "\n"); }));
    ASSERT_TRUE(WaitFor([&] { return Contains(Log(), "KOPD-MAIN: ## Done initializing ##"); })) << Log();
    ASSERT_EQ(kill(std::stoi(pid), SIGTERM), 0);
    EXPECT_EQ(WaitExit(std::stoi(pid)), 0);
    EXPECT_EQ(manager.Receive(100), "");
}

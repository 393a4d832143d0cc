// The readiness protocol: CServiceNotify against a datagram socket of the
// test's own, and kopd -n in a private mount namespace reporting READY=1
// only after start-up is done and STOPPING=1 when it stops.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "PackagingTestSupport.h"
#include "common/UniqueHandle.h"
#include "daemon/CServiceNotify.h"
#include "support/TestSupport.h"

using pkgtest::Quote;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::TempDir;

namespace {

/// A datagram socket standing in for the service manager.
class FakeManager {
public:
    /// `address`: a path, or "@name" for the abstract namespace.
    explicit FakeManager(const std::string& address) : m_Address(address)
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
        if (poll(&p, 1, ms) != 1)
            return "";
        char buffer[512];
        ssize_t n = recv(m_Fd.Get(), buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

private:
    std::string m_Address;
    UniqueFd m_Fd;
    bool m_Bound = false;
};

std::string UniqueAbstractName()
{
    return "@tarvd-test-notify-" + std::to_string(getpid()) + "-" + std::to_string(rand());
}

} // namespace

TEST(ServiceNotify, SendsToAPathSocket)
{
    TempDir dir;
    FakeManager manager(dir.Sub("notify"));
    ASSERT_TRUE(manager.Bound());
    CServiceNotify notify;
    ASSERT_TRUE(notify.SetAddress(dir.Sub("notify")));
    EXPECT_TRUE(notify.Enabled());
    EXPECT_TRUE(notify.Notify("READY=1"));
    EXPECT_EQ(manager.Receive(5000), "READY=1");
    EXPECT_TRUE(notify.Notify("STOPPING=1"));
    EXPECT_EQ(manager.Receive(5000), "STOPPING=1");
}

TEST(ServiceNotify, SendsToAnAbstractSocket)
{
    std::string name = UniqueAbstractName();
    FakeManager manager(name);
    ASSERT_TRUE(manager.Bound());
    CServiceNotify notify;
    ASSERT_TRUE(notify.SetAddress(name));
    EXPECT_TRUE(notify.Notify("READY=1"));
    EXPECT_EQ(manager.Receive(5000), "READY=1");
}

TEST(ServiceNotify, RejectsUnusableAddresses)
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
}

TEST(ServiceNotify, ReportsWhenNobodyListens)
{
    TempDir dir;
    CServiceNotify notify;
    ASSERT_TRUE(notify.SetAddress(dir.Sub("absent")));
    EXPECT_FALSE(notify.Notify("READY=1"));
    EXPECT_EQ(notify.LastError(), ENOENT);
}

TEST(ServiceNotify, TakesTheAddressOutOfTheEnvironment)
{
    TempDir dir;
    {
        testsupport::ScopedEnv env(CServiceNotify::kSocketVariable, dir.Sub("sock").c_str());
        CServiceNotify notify;
        EXPECT_TRUE(notify.TakeFromEnvironment());
        EXPECT_EQ(notify.Address(), dir.Sub("sock"));
        // Children of the daemon must not inherit the manager's socket.
        EXPECT_EQ(getenv(CServiceNotify::kSocketVariable), nullptr);
    }
    {
        testsupport::ScopedEnv env(CServiceNotify::kSocketVariable, nullptr);
        CServiceNotify notify;
        EXPECT_FALSE(notify.TakeFromEnvironment());
        EXPECT_FALSE(notify.Enabled());
    }
}

namespace {

/// kopd -n in a private mount namespace, started by the "service manager".
class ReadinessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!testsupport::CanUseMountNamespace())
            GTEST_SKIP() << "needs root and mount namespaces";
    }

    pid_t StartKopd(const std::string& notifySocket, const std::string& args)
    {
        testsupport::MakeDirs(TraceDir());
        std::string script = pkgtest::PrivateSystemDirs(m_Dir.Sub("stage")) +
                             "mkdir -p /etc/tarvd\n"
                             "exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin"
                             " LD_LIBRARY_PATH=" + Quote(TEST_FRAMEWORK_DIR) +
                             " TARVD_MODULES_DIR=" + Quote(TEST_EXAMPLE_CONF_DIR) +
                             " NOTIFY_SOCKET=" + Quote(notifySocket) +
                             " TR_LOG_DEBUG_LEVEL=3 TR_LOG_RINGBUF_DIR=" + Quote(TraceDir()) +
                             " TraceFileLimit=1 TR_LOG_RINGBUF_WEIGHT=1"
                             " ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1 " +
                             Quote(TEST_KOPD_PATH) + " " + args + "\n";
        return pkgtest::SpawnInNamespace(script, m_Dir.Sub("out.txt"));
    }

    std::string TraceDir() const { return m_Dir.Sub("trace"); }
    std::string LogFile() const { return TraceDir() + "/log.kopd"; }
    std::string Output() const { return ReadFile(m_Dir.Sub("out.txt")); }

    TempDir m_Dir;
};

} // namespace

TEST_F(ReadinessTest, ReadyOnlyAfterInitialisationAndStoppingAtStop)
{
    FakeManager manager(m_Dir.Sub("notify"));
    ASSERT_TRUE(manager.Bound());
    pid_t pid = StartKopd(m_Dir.Sub("notify"), "-n");

    std::string ready = manager.Receive(60000);
    // The moment READY arrives the daemon has written its last start-up line.
    std::string logAtReady = ReadFile(LogFile());
    ASSERT_EQ(ready, "READY=1") << Output();
    EXPECT_NE(logAtReady.find("KOPD-MAIN: ## Done initializing ##"), std::string::npos) << logAtReady;
    EXPECT_EQ(logAtReady.find("Someone signaled exit state"), std::string::npos);
    EXPECT_EQ(manager.Receive(200), "");  // nothing else while it runs

    ASSERT_EQ(kill(pid, SIGTERM), 0);
    std::string stopping = manager.Receive(60000);
    std::string logAtStopping = ReadFile(LogFile());
    EXPECT_EQ(stopping, "STOPPING=1");
    EXPECT_NE(logAtStopping.find("## Someone signaled exit state ##"), std::string::npos) << logAtStopping;
    EXPECT_EQ(pkgtest::WaitExit(pid), 0) << Output();
    EXPECT_EQ(manager.Receive(200), "");
}

TEST_F(ReadinessTest, AbstractSocketAddress)
{
    std::string name = UniqueAbstractName();
    FakeManager manager(name);
    ASSERT_TRUE(manager.Bound());
    // The abstract namespace belongs to the network namespace, which the
    // mount namespace shares.
    pid_t pid = StartKopd(name, "-n");
    EXPECT_EQ(manager.Receive(60000), "READY=1") << Output();
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(manager.Receive(60000), "STOPPING=1");
    EXPECT_EQ(pkgtest::WaitExit(pid), 0) << Output();
}

TEST_F(ReadinessTest, ForkingModeDoesNotNotify)
{
    FakeManager manager(m_Dir.Sub("notify"));
    ASSERT_TRUE(manager.Bound());
    // Without -n the daemon forks and is not the process the manager
    // started: it must keep quiet.  The script stays in the namespace until
    // the daemon's pid file appears, then stops it.
    std::string script = pkgtest::PrivateSystemDirs(m_Dir.Sub("stage")) +
                         "mkdir -p /etc/tarvd\n"
                         "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LD_LIBRARY_PATH=" + Quote(TEST_FRAMEWORK_DIR) +
                         " TARVD_MODULES_DIR=" + Quote(TEST_EXAMPLE_CONF_DIR) +
                         " NOTIFY_SOCKET=" + Quote(m_Dir.Sub("notify")) +
                         " ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1 " + Quote(TEST_KOPD_PATH) + "\n"
                         "i=0; while [ ! -s /run/kopd.pid ] && [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n"
                         "sleep 2\n"
                         "pid=$(cat /run/kopd.pid)\n"
                         "kill -TERM $pid\n"
                         "while kill -0 $pid 2>/dev/null; do sleep 0.1; done\n";
    std::string out;
    EXPECT_EQ(pkgtest::RunInNamespace(script, &out), 0) << out;
    EXPECT_EQ(manager.Receive(100), "");
}

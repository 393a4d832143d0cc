// The metrics module's HTTP server under bad clients: malformed and
// oversized requests, connections left half-open or beyond the limit, and
// many scrapes in a row.
#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <vector>

#include "MetricsTestSupport.h"
#include "modules/metrics/MetricsServer.h"
#include "support/TestSupport.h"
#include "support/Wait.h"

using namespace metricstest;
using testsupport::Contains;

namespace {

constexpr unsigned kMaxConnections = 4;

class MetricsServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        metrics::ServerSettings settings;
        settings.maxConnections = kMaxConnections;
        settings.connectionMemory = 8192;
        const std::string page = metrics::Render(Synthetic(64, 32, 100));
        std::string error;
        ASSERT_TRUE(m_Server.Start(settings, [page] { return page; }, error)) << error;
        m_Port = m_Server.Port();
    }
    bool Serves() { return Contains(Get(m_Port, "/metrics"), "HTTP/1.1 200 OK"); }

    metrics::MetricsServer m_Server;
    uint16_t m_Port = 0;
};

size_t OpenDescriptors()
{
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

long ResidentKilobytes()
{
    const std::string status = testsupport::ReadFile("/proc/self/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : std::atol(status.c_str() + at + 6);
}

} // namespace

TEST_F(MetricsServerTest, BadRequestsAreAnsweredOrClosedAndTheServerGoesOn)
{
    const std::string big(100000, 'a');
    struct Case {
        const char* what;
        std::string request;
        const char* answer;  // the status line's start; null: closed without an answer allowed
    } cases[] = {
        {"the page", "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", "HTTP/1.1 200"},
        {"old protocol", "GET /metrics HTTP/1.0\r\n\r\n", "HTTP/1.1 200"},
        {"other path", "GET /metric HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", "HTTP/1.1 404"},
        {"bad method", "DELETE /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", "HTTP/1.1 405"},
        {"body sent", "POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello",
         "HTTP/1.1 405"},
        {"huge header", "GET /metrics HTTP/1.1\r\nHost: x\r\nX-Big: " + big + "\r\n\r\n", nullptr},
        {"huge URL", "GET /" + big + " HTTP/1.1\r\nHost: x\r\n\r\n", nullptr},
        {"garbage", std::string("\x01\x02\xff\xfe\r\n\r\n\0\0zz\r\n\r\n", 16), nullptr},
    };
    for (const Case& c : cases) {
        const std::string answer = Exchange(m_Port, c.request, true);
        if (c.answer) {
            EXPECT_EQ(answer.rfind(c.answer, 0), 0u) << c.what << ": " << answer.substr(0, 200);
        } else {
            EXPECT_FALSE(Contains(answer, " 200 ")) << c.what << ": " << answer.substr(0, 200);
        }
        EXPECT_TRUE(Serves()) << c.what;
    }
    // A client that stops half-way through its request holds its connection
    // (until the idle time-out), not the server.
    UniqueFd half = Connect(m_Port);
    ASSERT_EQ(send(half.Get(), "GET /metrics HTTP/1.1\r\nHo", 26, MSG_NOSIGNAL), 26);
    shutdown(half.Get(), SHUT_WR);
    EXPECT_TRUE(Contains(Get(m_Port, "/metrics"), "Content-Type: text/plain; version=0.0.4"));
}

// Connections beyond the limit wait in the kernel's queue, unanswered,
// until one of those held open (by clients that never finish a request)
// goes; then they are served.
TEST_F(MetricsServerTest, ConnectionsBeyondTheLimitWaitForAFreeOne)
{
    std::vector<UniqueFd> idle;
    for (unsigned i = 0; i < kMaxConnections; ++i) {
        idle.push_back(Connect(m_Port));
        ASSERT_TRUE(idle.back());
        ASSERT_EQ(send(idle.back().Get(), "GET /met", 8, MSG_NOSIGNAL), 8);
    }
    UniqueFd surplus = Connect(m_Port);
    ASSERT_TRUE(surplus);
    const std::string request = "GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
    ASSERT_EQ(send(surplus.Get(), request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    pollfd p{surplus.Get(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 200), 0) << "answered beyond the connection limit";
    idle.pop_back();
    EXPECT_EQ(ReadAll(surplus.Get()).rfind("HTTP/1.1 200", 0), 0u);
    idle.clear();
    m_Server.Stop();
    EXPECT_EQ(Get(m_Port, "/metrics"), "");
}

// A port in use or an address that is none: the reason, and no server.
TEST_F(MetricsServerTest, AnAddressThatCannotBeUsedIsReported)
{
    struct Case {
        std::string address;
        uint16_t port;
        const char* reason;
    } cases[] = {
        {"127.0.0.1", m_Port, "Address already in use"},
        {"localhost", 0, "\"localhost\" is not a numeric IPv4 or IPv6 address"},
        {"192.0.2.1", 0, "Cannot assign requested address"},
    };
    for (const Case& c : cases) {
        metrics::MetricsServer other;
        metrics::ServerSettings settings;
        settings.address = c.address;
        settings.port = c.port;
        std::string error;
        EXPECT_FALSE(other.Start(settings, [] { return std::string(); }, error));
        EXPECT_TRUE(Contains(error, c.reason)) << error;
        EXPECT_FALSE(other.Running());
    }
}

TEST_F(MetricsServerTest, ThousandScrapesLeaveDescriptorsAndMemoryAsTheyWere)
{
    // The server closes its side of a connection just after the client
    // has read the answer: the count is compared once the server is idle.
    const size_t fds = OpenDescriptors();
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(Serves());
    const long rss = ResidentKilobytes();
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(Serves()) << i;
    EXPECT_TRUE(testsupport::WaitFor([&] { return OpenDescriptors() == fds; })) << OpenDescriptors() << " != " << fds;
#if defined(__SANITIZE_ADDRESS__)
    // The address checker keeps freed memory in quarantine on purpose; a
    // leak shows in its report at exit instead.
    (void)rss;
#else
    EXPECT_LT(ResidentKilobytes() - rss, 2048) << "kB grown over 1000 scrapes";
#endif
}

// The metrics module's HTTP server under bad clients (malformed, oversized,
// half-open, too many), with an address it cannot use, over many scrapes.
#include <gtest/gtest.h>

#include <filesystem>
#include <poll.h>

#include "MetricsTestSupport.h"
#include "common/ProcStatus.h"
#include "modules/metrics/MetricsServer.h"
#include "support/Wait.h"

using namespace metricstest;
using testsupport::Contains;

constexpr unsigned kMaxConnections = 4;

class MetricsServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string page = metrics::Render(Synthetic(64, 32, 100));
        std::string error;
        ASSERT_TRUE(m_Server.Start({"127.0.0.1", 0, kMaxConnections, 10, 8192}, [page] { return page; }, error)) << error;
        m_Port = m_Server.Port();
    }
    bool Serves() { return Get(m_Port, "/metrics").rfind("HTTP/1.1 200 OK", 0) == 0; }

    metrics::MetricsServer m_Server;
    uint16_t m_Port = 0;
};

TEST_F(MetricsServerTest, BadRequestsAreAnsweredOrClosedAndTheServerGoesOn)
{
    const std::string big(100000, 'a'), end = " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
    // The status line's start; null: closing without an answer will do.
    const struct { const char* what; std::string request; const char* answer; } cases[] = {
        {"the page", "GET /metrics" + end, "HTTP/1.1 200"},
        {"old protocol", "GET /metrics HTTP/1.0\r\n\r\n", "HTTP/1.1 200"},
        {"other path", "GET /metric" + end, "HTTP/1.1 404"},
        {"bad method", "DELETE /metrics" + end, "HTTP/1.1 405"},
        {"body sent", "POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello", "HTTP/1.1 405"},
        {"huge header", "GET /metrics HTTP/1.1\r\nX-Big: " + big + "\r\n\r\n", nullptr},
        {"huge URL", "GET /" + big + end, nullptr},
        {"garbage", std::string("\x01\x02\xff\xfe\r\n\r\n\0\0zz\r\n\r\n", 16), nullptr},
    };
    for (const auto& c : cases) {
        const std::string answer = Exchange(m_Port, c.request, true);
        EXPECT_TRUE(c.answer ? answer.rfind(c.answer, 0) == 0 : !Contains(answer, " 200 "))
            << c.what << ": " << answer.substr(0, 200);
        EXPECT_TRUE(Serves()) << c.what;
    }
    // A client that stops half-way holds its own connection, not the server.
    UniqueFd half = Connect(m_Port);
    ASSERT_EQ(send(half.Get(), "GET /metrics HTTP/1.1\r\nHo", 25, MSG_NOSIGNAL), 25);
    shutdown(half.Get(), SHUT_WR);
    EXPECT_TRUE(Contains(Get(m_Port, "/metrics"), "Content-Type: text/plain; version=0.0.4"));
}

// Connections beyond the limit wait unanswered in the kernel's queue until
// one of those held by clients that never finish a request goes.
TEST_F(MetricsServerTest, ConnectionsBeyondTheLimitWaitForAFreeOne)
{
    std::vector<UniqueFd> idle;
    for (unsigned i = 0; i < kMaxConnections; ++i) {
        idle.push_back(Connect(m_Port));
        ASSERT_EQ(send(idle.back().Get(), "GET /met", 8, MSG_NOSIGNAL), 8);
    }
    UniqueFd surplus = Connect(m_Port);
    const std::string request = "GET /metrics HTTP/1.1\r\nConnection: close\r\n\r\n";
    ASSERT_EQ(send(surplus.Get(), request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    pollfd p{surplus.Get(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 200), 0) << "answered beyond the connection limit";
    idle.pop_back();
    EXPECT_EQ(ReadAll(surplus.Get()).rfind("HTTP/1.1 200", 0), 0u);
    idle.clear();
    m_Server.Stop();
    EXPECT_EQ(Get(m_Port, "/metrics"), "");
}

// A port in use or a name for an address: the reason, and no server.
TEST_F(MetricsServerTest, AnAddressThatCannotBeUsedIsReported)
{
    const std::pair<metrics::ServerSettings, std::string> cases[] = {
        {{"127.0.0.1", m_Port}, "cannot listen on 127.0.0.1 port " + std::to_string(m_Port) + " (errno=98: Address already in use)"},
        {{"localhost", 0}, "\"localhost\" is not a numeric IPv4 or IPv6 address"},
    };
    for (const auto& [settings, reason] : cases) {
        metrics::MetricsServer other;
        std::string error;
        EXPECT_FALSE(other.Start(settings, [] { return std::string(); }, error));
        EXPECT_TRUE(Contains(error, reason) && !other.Running()) << error;
    }
}

TEST_F(MetricsServerTest, ThousandScrapesLeaveDescriptorsAndMemoryAsTheyWere)
{
    auto OpenDescriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    // The server closes its side just after the client read: compared once it is idle.
    const long fds = OpenDescriptors();
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(Serves());
    uint64_t before = 0, after = 0;
    tarvd::ReadProcStatusField(getpid(), "VmRSS:", 1, before);
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(Serves()) << i;
    tarvd::ReadProcStatusField(getpid(), "VmRSS:", 1, after);
    EXPECT_TRUE(testsupport::WaitFor([&] { return OpenDescriptors() == fds; })) << OpenDescriptors() << " != " << fds;
#if !defined(__SANITIZE_ADDRESS__)  // its quarantine keeps freed memory on purpose; its leak check runs at exit
    EXPECT_LT(after, before + 2048) << "kB resident after 1000 scrapes";
#endif
}

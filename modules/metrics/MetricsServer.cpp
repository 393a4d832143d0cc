// The HTTP side of the metrics module, on the embeddable server library.
#include "modules/metrics/MetricsServer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "modules/metrics/Exposition.h"

namespace metrics {

namespace {

constexpr const char* kMetricsPath = "/metrics";
constexpr int kListenBacklog = 64;

/// Marks a connection whose first call was seen (the library calls the
/// handler once with the headers before it may answer).
char g_Seen;

/// A socket address from a numeric IPv4 or IPv6 text.
bool MakeAddress(const std::string& text, uint16_t port, sockaddr_storage& out, socklen_t& size)
{
    out = {};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&out);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&out);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        size = sizeof *v4;
        return true;
    }
    if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        size = sizeof *v6;
        return true;
    }
    return false;
}

/// A listening socket on `settings`' address; the reason in `error` when none.
UniqueFd Listen(const ServerSettings& settings, uint16_t& port, std::string& error)
{
    sockaddr_storage address;
    socklen_t size = 0;
    if (!MakeAddress(settings.address, settings.port, address, size)) {
        error = "\"" + settings.address + "\" is not a numeric IPv4 or IPv6 address";
        return UniqueFd();
    }
    UniqueFd fd(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!fd || setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd.Get(), kListenBacklog) != 0) {
        const int err = errno;
        error = "cannot listen on " + settings.address + " port " + std::to_string(settings.port) + " (errno=" +
                std::to_string(err) + ": " + strerror(err) + ")";
        return UniqueFd();
    }
    size = sizeof address;
    getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                              : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    return fd;
}

MHD_Result Reply(MHD_Connection* connection, unsigned status, const std::string& body, const char* type,
                 const char* allow = nullptr)
{
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    if (allow)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result AccessHandler(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                         const char*, size_t* uploadSize, void** state)
{
    // A request with a body is answered at once; the body is never read.
    if (*state == nullptr && (!uploadSize || *uploadSize == 0) && strcmp(method, MHD_HTTP_METHOD_GET) == 0) {
        *state = &g_Seen;
        return MHD_YES;
    }
    return static_cast<MetricsServer*>(cls)->Answer(connection, url, method) ? MHD_YES : MHD_NO;
}

} // namespace

void DaemonTraits::Close(MHD_Daemon* d)
{
    MHD_stop_daemon(d);
}

int MetricsServer::Answer(void* handle, const char* url, const char* method)
{
    auto* connection = static_cast<MHD_Connection*>(handle);
    constexpr const char* kText = "text/plain; charset=utf-8";
    if (!url || strcmp(url, kMetricsPath) != 0)
        return Reply(connection, MHD_HTTP_NOT_FOUND, "Not found: the metrics are at /metrics\n", kText);
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0)
        return Reply(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "Only GET is served\n", kText, MHD_HTTP_METHOD_GET);
    // Nothing may leave a callback of the C library.
    try {
        return Reply(connection, MHD_HTTP_OK, m_Page(), kContentType);
    } catch (...) {
        return Reply(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "The metrics could not be gathered\n", kText);
    }
}

bool MetricsServer::Start(const ServerSettings& settings, PageFunction page, std::string& error)
{
    Stop();
    UniqueFd listening = Listen(settings, m_Port, error);
    if (!listening)
        return false;
    m_Page = std::move(page);
    // One internal thread polls every connection (epoll or poll, whichever
    // the system has): a scrape is answered while the framework goes on.
    const unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO |
                           (settings.address.find(':') != std::string::npos ? MHD_USE_IPv6 : 0);
    m_Daemon.Reset(MHD_start_daemon(
        flags, 0, nullptr, nullptr, &AccessHandler, this, MHD_OPTION_LISTEN_SOCKET, listening.Get(),
        MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(settings.maxConnections), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        settings.connectionMemory, MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(settings.timeoutSeconds),
        MHD_OPTION_END));
    if (!m_Daemon) {
        error = "the HTTP server could not be started on " + settings.address + " port " + std::to_string(m_Port);
        return false;
    }
    listening.Release();  // closed by the server when it stops
    return true;
}

void MetricsServer::Stop()
{
    m_Daemon.Reset();
}

} // namespace metrics

// The metrics module's HTTP server: answers GET /metrics with the page a
// function builds, on a thread of the server library's own, so that a slow
// or hostile client never holds up the daemon.  Connections, their memory
// (request line and headers) and their idle time are bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "common/UniqueHandle.h"

struct MHD_Daemon;

namespace metrics {

struct ServerSettings {
    std::string address = "127.0.0.1";  ///< IPv4 or IPv6 literal
    uint16_t port = 0;                   ///< 0: any free port (see Port())
    unsigned maxConnections = 16;
    unsigned timeoutSeconds = 10;        ///< an idle connection is closed after this
    size_t connectionMemory = 16384;     ///< request line and headers must fit
};

struct DaemonTraits {
    using Type = MHD_Daemon*;
    static MHD_Daemon* Invalid() { return nullptr; }
    static bool IsValid(MHD_Daemon* d) { return d != nullptr; }
    static void Close(MHD_Daemon* d);
};

class MetricsServer {
public:
    /// Builds the page body; called on the server's thread, one at a time.
    using PageFunction = std::function<std::string()>;

    /// Listens and serves.  false with `error` set (address, port and the
    /// reason) when the address cannot be used or the server not started.
    bool Start(const ServerSettings& settings, PageFunction page, std::string& error);
    /// Closes every connection and ends the server's thread; safe when not started.
    void Stop();
    bool Running() const { return m_Daemon.Valid(); }
    /// The port listened on.
    uint16_t Port() const { return m_Port; }

    /// The access handler's work (public for the C callback).
    int Answer(void* connection, const char* url, const char* method);

private:
    CUniqueHandle<DaemonTraits> m_Daemon;
    PageFunction m_Page;
    uint16_t m_Port = 0;
};

} // namespace metrics

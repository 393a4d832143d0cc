// CServiceNotify: readiness and stop notifications to a service manager
// that starts the daemon with a notification socket (the NOTIFY_SOCKET
// protocol of systemd's Type=notify services): one datagram per state
// change, "READY=1" when start-up is complete and "STOPPING=1" when the
// daemon begins to stop.  Plain AF_UNIX datagrams, no library needed.
#pragma once

#include <string>

class CServiceNotify {
public:
    /// The environment variable that names the service manager's socket.
    static constexpr const char* kSocketVariable = "NOTIFY_SOCKET";

    CServiceNotify() = default;

    /// Takes the socket address from NOTIFY_SOCKET and removes the variable
    /// from the environment, so that programs the modules start do not talk
    /// to the service manager in the daemon's name.  Call it before any
    /// other thread exists (it changes the environment).
    /// @return true when a usable address was found; false (and nothing
    ///         kept) when the variable is unset, empty or not a socket path
    ///         ("/..." or "@..." for the abstract namespace).
    bool TakeFromEnvironment();

    /// Uses `address` ("/path" or "@abstract") instead of the environment.
    /// @return false, and nothing kept, when the address is unusable.
    bool SetAddress(const std::string& address);

    /// A socket address is known.
    bool Enabled() const { return !m_Address.empty(); }
    const std::string& Address() const { return m_Address; }

    /// Sends `state` (e.g. "READY=1") as one datagram.
    /// @return true when it was sent; false when no address is known or
    ///         sending failed (errno in LastError()).  Never blocks for long:
    ///         the socket is non-blocking.
    bool Notify(const char* state);

    int LastError() const { return m_LastError; }

private:
    std::string m_Address;
    int m_LastError = 0;
};

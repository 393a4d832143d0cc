#include "daemon/CServiceNotify.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

#include "common/UniqueHandle.h"

bool CServiceNotify::TakeFromEnvironment()
{
    const char* value = getenv(kSocketVariable);
    std::string address = value ? value : "";
    unsetenv(kSocketVariable);
    return SetAddress(address);
}

bool CServiceNotify::SetAddress(const std::string& address)
{
    m_Address.clear();
    // sun_path has room for 107 characters and a terminator; an abstract
    // name uses the leading NUL in place of the '@'.
    if (address.size() < 2 || address.size() >= sizeof(sockaddr_un{}.sun_path))
        return false;
    if (address[0] != '/' && address[0] != '@')
        return false;
    if (address.find('\0') != std::string::npos)
        return false;
    m_Address = address;
    return true;
}

bool CServiceNotify::Notify(const char* state)
{
    if (m_Address.empty() || !state) {
        m_LastError = EINVAL;
        return false;
    }
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        m_LastError = errno;
        return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, m_Address.data(), m_Address.size());
    if (addr.sun_path[0] == '@')
        addr.sun_path[0] = '\0';
    // An abstract address counts its exact length, a path its terminator too.
    socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_Address.size() +
                                              (m_Address[0] == '@' ? 0 : 1));
    size_t size = strlen(state);
    ssize_t sent = sendto(fd.Get(), state, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&addr), length);
    if (sent != static_cast<ssize_t>(size)) {
        m_LastError = sent < 0 ? errno : EMSGSIZE;
        return false;
    }
    m_LastError = 0;
    return true;
}

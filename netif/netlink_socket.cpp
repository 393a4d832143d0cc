#include "netif/netlink_socket.h"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "trace/CDebug.h"

namespace libnetif::netlink {

namespace {

// A datagram larger than this is not an rtnetlink answer (the kernel's own
// dump pieces are at most 32 KiB).
constexpr size_t kMaxDatagram = 1 << 20;
// A dump that gets no answer at all in this time has lost its kernel side;
// it fails instead of hanging its caller.
constexpr int kDumpWaitSeconds = 5;

// The fixed part that precedes the attributes of each request type.
size_t request_size(uint16_t type)
{
    switch (type) {
    case RTM_GETLINK: return sizeof(ifinfomsg);
    case RTM_GETADDR: return sizeof(ifaddrmsg);
    default: return sizeof(rtmsg);
    }
}

} // namespace

bool netlink_socket::open(uint32_t groups, int receive_buffer)
{
    int flags = SOCK_RAW | SOCK_CLOEXEC | (groups ? SOCK_NONBLOCK : 0);
    m_Fd.Reset(socket(AF_NETLINK, flags, NETLINK_ROUTE));
    if (!m_Fd) {
        DBG_PRINT(1, "\nlibnetif::netlink_socket::open : socket(NETLINK_ROUTE) failed: %s\n", strerror(errno));
        return false;
    }
    if (receive_buffer > 0 &&
        setsockopt(m_Fd.Get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer) != 0)
        DBG_PRINT(4, "\nlibnetif::netlink_socket::open : SO_RCVBUF %d: %s\n", receive_buffer, strerror(errno));
    timeval wait = {kDumpWaitSeconds, 0};
    if (!groups)
        setsockopt(m_Fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_nl local = {};
    local.nl_family = AF_NETLINK;
    local.nl_groups = groups;
    socklen_t length = sizeof local;
    if (bind(m_Fd.Get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
        getsockname(m_Fd.Get(), reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        int error = errno;
        DBG_PRINT(1, "\nlibnetif::netlink_socket::open : bind(groups 0x%x) failed: %s\n", groups, strerror(error));
        m_Fd.Reset();
        errno = error;
        return false;
    }
    m_Port = local.nl_pid;
    return true;
}

int netlink_socket::receive_datagram(std::vector<uint8_t>& data)
{
    for (;;) {
        // Peek first: the size of the waiting datagram, so that none is cut.
        ssize_t size = recv(m_Fd.Get(), nullptr, 0, MSG_PEEK | MSG_TRUNC);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        if (static_cast<size_t>(size) > kMaxDatagram) {
            errno = EMSGSIZE;
            return -1;
        }
        data.assign(static_cast<size_t>(size), 0);
        sockaddr_nl sender = {};
        iovec io = {data.data(), data.size()};
        msghdr header = {};
        header.msg_name = &sender;
        header.msg_namelen = sizeof sender;
        header.msg_iov = &io;
        header.msg_iovlen = 1;
        ssize_t got = recvmsg(m_Fd.Get(), &header, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        data.resize(static_cast<size_t>(got));
        // Only the kernel speaks on this socket; anything else is dropped.
        if (header.msg_namelen == sizeof sender && sender.nl_pid == 0 && !(header.msg_flags & MSG_TRUNC))
            return 1;
        DBG_PRINT(4, "\nlibnetif::netlink_socket::receive : dropped a datagram from port %u\n", sender.nl_pid);
    }
}

int netlink_socket::receive(received& out)
{
    std::vector<uint8_t> data;
    int rc = receive_datagram(data);
    if (rc <= 0)
        return rc;
    out.datagrams.push_back(std::move(data));
    const std::vector<uint8_t>& kept = out.datagrams.back();
    if (!split_messages(CByteReader(kept.data(), kept.size()), out.messages))
        DBG_PRINT(1, "\nlibnetif::netlink_socket::receive : a message's length lies; the rest is dropped\n");
    return 1;
}

bool netlink_socket::dump(uint16_t type, uint8_t family, received& out)
{
    out = received();
    uint8_t request[NLMSG_HDRLEN + sizeof(ifinfomsg)] = {};
    const uint32_t seq = ++m_Seq;
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(NLMSG_HDRLEN + request_size(type));
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    header.nlmsg_seq = seq;
    memcpy(request, &header, sizeof header);
    request[NLMSG_HDRLEN] = family;  // the first byte of every request's fixed part
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    if (sendto(m_Fd.Get(), request, header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
        DBG_PRINT(1, "\nlibnetif::netlink_socket::dump : sending request %u failed: %s\n", type, strerror(errno));
        return false;
    }
    return collect_dump(seq, out);
}

// The answer's datagrams up to NLMSG_DONE.  Messages of another sequence
// number (left over from an earlier dump that failed half-way) are skipped.
bool netlink_socket::collect_dump(uint32_t seq, received& out)
{
    bool interrupted = false;
    for (;;) {
        std::vector<uint8_t> data;
        int rc = receive_datagram(data);
        if (rc <= 0) {
            int error = rc == 0 ? ETIMEDOUT : errno;
            DBG_PRINT(1, "\nlibnetif::netlink_socket::dump : receiving failed: %s\n", strerror(error));
            errno = error;
            return false;
        }
        std::vector<message> found;
        bool whole = split_messages(CByteReader(data.data(), data.size()), found);
        out.datagrams.push_back(std::move(data));
        for (const message& m : found) {
            if (m.seq != seq || m.pid != m_Port)
                continue;
            interrupted |= (m.flags & NLM_F_DUMP_INTR) != 0;
            if (m.type == NLMSG_DONE) {
                errno = EAGAIN;
                return !interrupted;
            }
            if (m.type == NLMSG_ERROR) {
                int32_t code = error_code(m).value_or(-EIO);
                errno = code < 0 ? -code : EIO;
                DBG_PRINT(1, "\nlibnetif::netlink_socket::dump : the kernel refused: %s\n", strerror(errno));
                return false;
            }
            out.messages.push_back(m);
        }
        if (!whole) {
            DBG_PRINT(1, "\nlibnetif::netlink_socket::dump : a message's length lies\n");
            errno = EBADMSG;
            return false;
        }
    }
}

} // namespace libnetif::netlink

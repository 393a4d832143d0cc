// An rtnetlink socket: dumps (request, multi-part answer, end) and the
// datagrams of subscribed notification groups.  Only datagrams sent by the
// kernel (sender port 0) are taken.
#pragma once

#include <cstdint>
#include <vector>

#include "common/UniqueHandle.h"
#include "netif/netlink_parse.h"

namespace libnetif::netlink {

/// Received datagrams and the messages found in them (the messages point
/// into the datagrams, so both travel together).
struct received {
    std::vector<std::vector<uint8_t>> datagrams;
    std::vector<message> messages;
};

class netlink_socket {
public:
    /// Opens and binds the socket; `groups` is the RTMGRP_* mask to
    /// subscribe to (0 for a socket that only dumps), `receive_buffer` the
    /// SO_RCVBUF size (0 keeps the system's).  Non-blocking when
    /// subscribed.  false (errno set, traced) on failure.
    bool open(uint32_t groups, int receive_buffer);
    int fd() const { return m_Fd.Get(); }

    /// Dumps `type` (RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE) of `family`:
    /// every message of the answer up to NLMSG_DONE, in `out` (replaced).
    /// false (errno set, traced) when the kernel refused, the answer lied
    /// or was cut, or the dump was interrupted by a change (EAGAIN: ask again).
    bool dump(uint16_t type, uint8_t family, received& out);

    /// One datagram of a subscribed socket, its messages appended to `out`.
    /// 1 when one came, 0 when none is waiting, -1 on an error (errno;
    /// ENOBUFS: notifications were lost).
    int receive(received& out);

private:
    int receive_datagram(std::vector<uint8_t>& data);
    bool collect_dump(uint32_t seq, received& out);

    UniqueFd m_Fd;
    uint32_t m_Port = 0;
    uint32_t m_Seq = 0;
};

} // namespace libnetif::netlink

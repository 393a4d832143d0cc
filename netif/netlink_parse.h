// The rtnetlink message parser: splits a received buffer into messages and
// decodes links, addresses and routes.  Everything the kernel sends is read
// through a bounded view: every message and attribute length is checked
// against the bytes that are really there, so a lying length ends the walk
// instead of reading past the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/ByteReader.h"
#include "netif/netif_types.h"

namespace libnetif::netlink {

/// One message of a buffer: its header fields and the payload after the header.
struct message {
    uint16_t type = 0;
    uint16_t flags = 0;
    uint32_t seq = 0;
    uint32_t pid = 0;
    CByteReader payload;
};

/// Splits `buffer` into messages.  Returns false when a header lies (shorter
/// than a header, or longer than what remains); the messages before it are
/// kept in `out` (appended to).
bool split_messages(CByteReader buffer, std::vector<message>& out);

/// The error code of an NLMSG_ERROR message (0 = acknowledgement, else a
/// negative errno); nullopt when the payload is too short.
std::optional<int32_t> error_code(const message& m);

/// The attributes of an area, indexed by type (nested and byte-order flags
/// masked off); types above `max_type` are skipped.  Returns false when an
/// attribute's length lies; the attributes before it are kept.
bool parse_attributes(CByteReader area, size_t max_type, std::vector<CByteReader>& out);

/// RTM_NEWLINK / RTM_DELLINK of family AF_UNSPEC.  false when the fixed part
/// is missing, the family is another or the index is not positive; the link details from sysfs and ethtool are not
/// filled here.
bool parse_link(const message& m, interface_record& out);

/// RTM_NEWADDR / RTM_DELADDR of AF_INET or AF_INET6.  false for other families
/// or when the address is missing or has the wrong length.
bool parse_address(const message& m, address_record& out);

/// RTM_NEWROUTE / RTM_DELROUTE of AF_INET in the main table.  false for any
/// other route (other families, other tables, cloned entries).
bool parse_route(const message& m, route_record& out);

} // namespace libnetif::netlink

#include "netif/netlink_parse.h"

#include <arpa/inet.h>
#include <bit>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

namespace libnetif::netlink {

// Netlink carries its numbers in the host's byte order; the agent runs on
// x86-64, so the bounded reader's little-endian reads are the host's.
static_assert(std::endian::native == std::endian::little, "netlink numbers are read as little-endian");

namespace {

constexpr size_t kHeaderSize = 16;      // struct nlmsghdr
constexpr size_t kAttrHeaderSize = 4;   // struct rtattr / nlattr
constexpr size_t kLinkFixedSize = 16;   // struct ifinfomsg
constexpr size_t kAddrFixedSize = 8;    // struct ifaddrmsg
constexpr size_t kRouteFixedSize = 12;  // struct rtmsg
constexpr size_t kMaxHardwareAddress = 32;

size_t align4(size_t n) { return (n + 3) & ~size_t{3}; }

CByteReader attribute(const std::vector<CByteReader>& attrs, size_t type)
{
    return type < attrs.size() ? attrs[type] : CByteReader();
}

std::optional<uint32_t> attribute_u32(const std::vector<CByteReader>& attrs, size_t type)
{
    CByteReader a = attribute(attrs, type);
    return a.Size() >= 4 ? a.ReadLe32(0) : std::nullopt;
}

std::optional<uint8_t> attribute_u8(const std::vector<CByteReader>& attrs, size_t type)
{
    CByteReader a = attribute(attrs, type);
    return a.Size() >= 1 ? a.ReadU8(0) : std::nullopt;
}

// A text attribute: up to its first NUL, never past the attribute.
std::string attribute_text(const std::vector<CByteReader>& attrs, size_t type, size_t limit)
{
    CByteReader a = attribute(attrs, type);
    std::string text;
    for (size_t i = 0; i < a.Size() && i < limit; ++i) {
        char c = static_cast<char>(a.U8Or(i));
        if (c == '\0')
            break;
        text.push_back(c);
    }
    return text;
}

std::string hardware_address(CByteReader a)
{
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < a.Size() && i < kMaxHardwareAddress; ++i) {
        uint8_t b = a.U8Or(i);
        if (i)
            text.push_back(':');
        text.push_back(kHex[b >> 4]);
        text.push_back(kHex[b & 15]);
    }
    return text;
}

// An IPv4 or IPv6 address of exactly the family's length, as text.
bool ip_text(uint8_t family, CByteReader a, std::string& out)
{
    const size_t want = family == AF_INET ? 4 : 16;
    if (a.Size() != want)
        return false;
    unsigned char raw[16] = {};
    for (size_t i = 0; i < want; ++i)
        raw[i] = a.U8Or(i);
    char text[INET6_ADDRSTRLEN] = {};
    if (!inet_ntop(family, raw, text, sizeof text))
        return false;
    out = text;
    return true;
}

void read_statistics(const std::vector<CByteReader>& attrs, link_statistics& s)
{
    uint64_t* fields[] = {&s.rx_packets, &s.tx_packets, &s.rx_bytes,   &s.tx_bytes,   &s.rx_errors,
                          &s.tx_errors,  &s.rx_dropped, &s.tx_dropped, &s.multicast, &s.collisions};
    // struct rtnl_link_stats64 begins with these ten counters in this order;
    // struct rtnl_link_stats (old kernels) has the same order in 32 bits.
    CByteReader wide = attribute(attrs, IFLA_STATS64);
    CByteReader narrow = attribute(attrs, IFLA_STATS);
    for (size_t i = 0; i < std::size(fields); ++i) {
        if (wide.Size() >= 8 * std::size(fields))
            *fields[i] = wide.Le64Or(8 * i);
        else if (narrow.Size() >= 4 * std::size(fields))
            *fields[i] = narrow.Le32Or(4 * i);
    }
}

std::string link_kind(const std::vector<CByteReader>& attrs)
{
    std::vector<CByteReader> info;
    parse_attributes(attribute(attrs, IFLA_LINKINFO), IFLA_INFO_KIND, info);
    return attribute_text(info, IFLA_INFO_KIND, 64);
}

} // namespace

bool split_messages(CByteReader buffer, std::vector<message>& out)
{
    size_t offset = 0;
    while (offset < buffer.Size()) {
        std::optional<uint32_t> length = buffer.ReadLe32(offset);
        if (!length || *length < kHeaderSize || !buffer.Contains(offset, *length))
            return false;
        message m;
        m.type = buffer.Le16Or(offset + 4);
        m.flags = buffer.Le16Or(offset + 6);
        m.seq = buffer.Le32Or(offset + 8);
        m.pid = buffer.Le32Or(offset + 12);
        m.payload = buffer.Sub(offset + kHeaderSize, *length - kHeaderSize);
        out.push_back(m);
        // The last message of a buffer may lack its padding.
        offset += align4(*length);
    }
    return true;
}

std::optional<int32_t> error_code(const message& m)
{
    std::optional<uint32_t> code = m.payload.ReadLe32(0);
    if (!code)
        return std::nullopt;
    return static_cast<int32_t>(*code);
}

bool parse_attributes(CByteReader area, size_t max_type, std::vector<CByteReader>& out)
{
    out.assign(max_type + 1, CByteReader());
    size_t offset = 0;
    while (offset + kAttrHeaderSize <= area.Size()) {
        uint16_t length = area.Le16Or(offset);
        uint16_t type = area.Le16Or(offset + 2) & NLA_TYPE_MASK;
        if (length < kAttrHeaderSize || !area.Contains(offset, length))
            return false;
        if (type <= max_type)
            out[type] = area.Sub(offset + kAttrHeaderSize, length - kAttrHeaderSize);
        offset += align4(length);
    }
    return true;
}

bool parse_link(const message& m, interface_record& out)
{
    if (!m.payload.Contains(0, kLinkFixedSize))
        return false;
    // Bridge port messages (family AF_BRIDGE) speak of a port's role, not
    // of the interface: a port leaving its bridge is no interface removed.
    if (m.payload.U8Or(0) != AF_UNSPEC)
        return false;
    interface_record r;
    r.type = m.payload.Le16Or(2);
    r.index = static_cast<int32_t>(m.payload.Le32Or(4));
    r.flags = m.payload.Le32Or(8);
    if (r.index <= 0)
        return false;
    std::vector<CByteReader> attrs;
    parse_attributes(m.payload.Sub(kLinkFixedSize, m.payload.Size()), IFLA_MAX, attrs);
    r.name = attribute_text(attrs, IFLA_IFNAME, IFNAMSIZ - 1);
    r.mac = hardware_address(attribute(attrs, IFLA_ADDRESS));
    r.mtu = attribute_u32(attrs, IFLA_MTU).value_or(0);
    r.operstate = attribute_u8(attrs, IFLA_OPERSTATE).value_or(0);
    if (std::optional<uint8_t> carrier = attribute_u8(attrs, IFLA_CARRIER))
        r.carrier = *carrier != 0;
    r.kind = link_kind(attrs);
    read_statistics(attrs, r.stats);
    out = std::move(r);
    return true;
}

bool parse_address(const message& m, address_record& out)
{
    if (!m.payload.Contains(0, kAddrFixedSize))
        return false;
    address_record r;
    r.family = m.payload.U8Or(0);
    r.prefix = m.payload.U8Or(1);
    r.flags = m.payload.U8Or(2);
    r.scope = m.payload.U8Or(3);
    r.index = static_cast<int32_t>(m.payload.Le32Or(4));
    if ((r.family != AF_INET && r.family != AF_INET6) || r.index <= 0)
        return false;
    std::vector<CByteReader> attrs;
    parse_attributes(m.payload.Sub(kAddrFixedSize, m.payload.Size()), IFA_MAX, attrs);
    // On a point-to-point link IFA_ADDRESS is the peer: the interface's own
    // address is IFA_LOCAL where the kernel sends one.
    CByteReader local = attribute(attrs, IFA_LOCAL);
    if (!ip_text(r.family, local.Empty() ? attribute(attrs, IFA_ADDRESS) : local, r.address))
        return false;
    r.flags = attribute_u32(attrs, IFA_FLAGS).value_or(r.flags);
    r.label = attribute_text(attrs, IFA_LABEL, IFNAMSIZ - 1);
    out = std::move(r);
    return true;
}

bool parse_route(const message& m, route_record& out)
{
    if (!m.payload.Contains(0, kRouteFixedSize))
        return false;
    route_record r;
    uint8_t family = m.payload.U8Or(0);
    r.prefix = m.payload.U8Or(1);
    r.tos = m.payload.U8Or(3);
    uint32_t table = m.payload.U8Or(4);
    r.protocol = m.payload.U8Or(5);
    r.scope = m.payload.U8Or(6);
    r.type = m.payload.U8Or(7);
    uint32_t flags = m.payload.Le32Or(8);
    if (family != AF_INET || r.prefix > 32 || (flags & RTM_F_CLONED))
        return false;
    std::vector<CByteReader> attrs;
    parse_attributes(m.payload.Sub(kRouteFixedSize, m.payload.Size()), RTA_MAX, attrs);
    // Tables above 255 only fit in RTA_TABLE.
    if (attribute_u32(attrs, RTA_TABLE).value_or(table) != RT_TABLE_MAIN)
        return false;
    r.destination = "0.0.0.0";
    CByteReader dst = attribute(attrs, RTA_DST);
    if (!dst.Empty() && !ip_text(AF_INET, dst, r.destination))
        return false;
    CByteReader gateway = attribute(attrs, RTA_GATEWAY);
    if (!gateway.Empty() && !ip_text(AF_INET, gateway, r.gateway))
        return false;
    r.oif = static_cast<int32_t>(attribute_u32(attrs, RTA_OIF).value_or(0));
    r.metric = attribute_u32(attrs, RTA_PRIORITY).value_or(0);
    out = std::move(r);
    return true;
}

} // namespace libnetif::netlink

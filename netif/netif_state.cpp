#include "netif/netif_state.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

namespace libnetif {

namespace {

constexpr uint32_t kUp = IFF_UP;

void drop_interface(int index, netif_state& state)
{
    state.interfaces.erase(index);
    std::erase_if(state.addresses, [index](const auto& a) { return a.second.index == index; });
    std::erase_if(state.routes, [index](const auto& r) { return r.second.oif == index; });
}

// The link message changes the interface; true when it went down or away.
bool apply_link(const netlink::message& m, netif_state& state, const link_details_fn& details)
{
    interface_record r;
    if (!netlink::parse_link(m, r))
        return false;
    auto old = state.interfaces.find(r.index);
    if (m.type == RTM_DELLINK) {
        bool known = old != state.interfaces.end();
        drop_interface(r.index, state);
        return known;
    }
    bool went_down = old != state.interfaces.end() && (old->second.flags & kUp) && !(r.flags & kUp);
    if (details)
        details(r);
    if (went_down)
        std::erase_if(state.routes, [&r](const auto& e) { return e.second.oif == r.index; });
    state.interfaces[r.index] = std::move(r);
    return went_down;
}

// An address or route message: the entry of its key added (replaced) or removed.
template <typename Record>
void apply_keyed(const netlink::message& m, bool remove, std::map<std::string, Record>& entries,
                 bool (*parse)(const netlink::message&, Record&), std::string (*key)(const Record&))
{
    Record r;
    if (!parse(m, r))
        return;
    if (remove)
        entries.erase(key(r));
    else
        entries[key(r)] = std::move(r);
}

netif_event make_event(event_kind kind, const interface_record& iface, std::string previous = {})
{
    netif_event e;
    e.kind = kind;
    e.iface = iface;
    e.previous = std::move(previous);
    return e;
}

std::string speed_text(const std::optional<uint32_t>& speed)
{
    return speed ? std::to_string(*speed) : "unknown";
}

void diff_interface(const interface_record& was, const interface_record& now, std::vector<netif_event>& out)
{
    if (was.name != now.name)
        out.push_back(make_event(event_kind::name_changed, now, was.name));
    if (was.mac != now.mac)
        out.push_back(make_event(event_kind::mac_changed, now, was.mac));
    if (was.mtu != now.mtu)
        out.push_back(make_event(event_kind::mtu_changed, now, std::to_string(was.mtu)));
    if (was.link_up() != now.link_up())
        out.push_back(make_event(now.link_up() ? event_kind::link_up : event_kind::link_down, now));
    if (was.speed_mbps != now.speed_mbps)
        out.push_back(make_event(event_kind::speed_changed, now, speed_text(was.speed_mbps)));
}

// Entries of `from` whose key `other` lacks, as events of `kind`.
template <typename Map, typename Fill>
void only_in(const Map& from, const Map& other, event_kind kind, const netif_state& names, Fill fill,
             std::vector<netif_event>& out)
{
    for (const auto& [key, value] : from) {
        if (other.count(key))
            continue;
        netif_event e;
        e.kind = kind;
        fill(e, value);
        auto it = names.interfaces.find(e.iface.index);
        if (it != names.interfaces.end())
            e.iface = it->second;
        out.push_back(std::move(e));
    }
}

} // namespace

bool interface_record::link_up() const { return (flags & IFF_RUNNING) != 0; }

std::string address_key(const address_record& a)
{
    return std::to_string(a.index) + " " + a.address + "/" + std::to_string(a.prefix);
}

std::string route_key(const route_record& r)
{
    return r.destination + "/" + std::to_string(r.prefix) + " tos " + std::to_string(r.tos) + " metric " +
           std::to_string(r.metric) + " via " + r.gateway + " dev " + std::to_string(r.oif) + " type " +
           std::to_string(r.type);
}

bool apply_message(const netlink::message& m, netif_state& state, const link_details_fn& details)
{
    switch (m.type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
        return apply_link(m, state, details);
    case RTM_NEWADDR:
    case RTM_DELADDR:
        apply_keyed(m, m.type == RTM_DELADDR, state.addresses, netlink::parse_address, address_key);
        return false;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        apply_keyed(m, m.type == RTM_DELROUTE, state.routes, netlink::parse_route, route_key);
        return false;
    default:
        return false;
    }
}

void diff_states(const netif_state& before, const netif_state& after, std::vector<netif_event>& out)
{
    auto fill_iface = [](netif_event& e, const interface_record& r) { e.iface = r; };
    auto fill_address = [](netif_event& e, const address_record& a) {
        e.address = a;
        e.iface.index = a.index;
    };
    auto fill_route = [](netif_event& e, const route_record& r) {
        e.route = r;
        e.iface.index = r.oif;
    };
    only_in(after.interfaces, before.interfaces, event_kind::interface_added, after, fill_iface, out);
    for (const auto& [index, now] : after.interfaces) {
        auto was = before.interfaces.find(index);
        if (was != before.interfaces.end())
            diff_interface(was->second, now, out);
    }
    only_in(after.addresses, before.addresses, event_kind::address_added, after, fill_address, out);
    only_in(after.routes, before.routes, event_kind::route_added, after, fill_route, out);
    only_in(before.routes, after.routes, event_kind::route_removed, before, fill_route, out);
    only_in(before.addresses, after.addresses, event_kind::address_removed, before, fill_address, out);
    only_in(before.interfaces, after.interfaces, event_kind::interface_removed, before, fill_iface, out);
}

const char* event_kind_name(event_kind kind)
{
    static const char* const kNames[] = {"interface_added", "interface_removed", "link_up",        "link_down",
                                         "mtu_changed",     "mac_changed",       "name_changed",   "speed_changed",
                                         "address_added",   "address_removed",   "route_added",    "route_removed"};
    size_t i = static_cast<size_t>(kind);
    return i < std::size(kNames) ? kNames[i] : "unknown";
}

const char* operstate_name(uint8_t operstate)
{
    // IF_OPER_UNKNOWN .. IF_OPER_UP, in the kernel's order.
    static const char* const kNames[] = {"unknown", "notpresent", "down", "lowerlayerdown", "testing", "dormant", "up"};
    return operstate < std::size(kNames) ? kNames[operstate] : "unknown";
}

const char* duplex_name(link_duplex duplex)
{
    return duplex == link_duplex::full ? "full" : "half";
}

} // namespace libnetif

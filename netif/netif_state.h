// What the library knows of the interfaces, addresses and routes at one
// moment, how a notification changes it, and the events that lead from one
// state to another.  The same comparison serves notifications and the
// full re-read after lost notifications, so that both report a change once.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "netif/netif_types.h"
#include "netif/netlink_parse.h"

namespace libnetif {

struct netif_state {
    std::map<int, interface_record> interfaces;
    std::map<std::string, address_record> addresses;
    std::map<std::string, route_record> routes;
};

/// The identities: an address by interface, address and prefix; a route by
/// every field the kernel tells routes apart by (a replaced route is a
/// removed one and an added one).
std::string address_key(const address_record& a);
std::string route_key(const route_record& r);

/// Fills what rtnetlink does not carry (speed, driver) of a new or changed link.
using link_details_fn = std::function<void(interface_record&)>;

/// Applies one notification.  true when the routes must be read again: the
/// kernel drops the routes of an interface that goes down or away without
/// telling (this drops the interface's own at once).
bool apply_message(const netlink::message& m, netif_state& state, const link_details_fn& details);

/// The events that lead from `before` to `after`, appended to `out`:
/// interfaces added, interfaces changed, addresses and routes added, routes
/// and addresses removed, interfaces removed.
void diff_states(const netif_state& before, const netif_state& after, std::vector<netif_event>& out);

} // namespace libnetif

// Fuzz target: the rtnetlink parser.  The input is one received datagram:
// it is split into messages, each decoded as a link, address or route and
// applied to a state, as the watcher does with notifications.
#include "FuzzSupport.h"

#include <net/if.h>

#include "netif/netif_state.h"

TARVD_FUZZ_TARGET(data, size)
{
    std::vector<libnetif::netlink::message> messages;
    libnetif::netlink::split_messages(CByteReader(data, size), messages);
    libnetif::netif_state state;
    for (const auto& m : messages) {
        FUZZ_CHECK(m.payload.Data() >= data && m.payload.Data() + m.payload.Size() <= data + size);
        libnetif::netlink::error_code(m);
        libnetif::apply_message(m, state, nullptr);
        // Dump answers and notifications are read alike.
        libnetif::netlink::message added = m;
        added.type = static_cast<uint16_t>(m.type & ~1u);  // RTM_DEL* -> RTM_NEW*
        libnetif::apply_message(added, state, nullptr);
    }
    for (const auto& [index, r] : state.interfaces) {
        FUZZ_CHECK(index > 0 && r.index == index);
        FUZZ_CHECK(r.name.size() < IFNAMSIZ);
    }
    // Everything known is new to an empty state, and nothing changes between a state and itself.
    std::vector<libnetif::netif_event> events;
    libnetif::diff_states({}, state, events);
    FUZZ_CHECK(events.size() == state.interfaces.size() + state.addresses.size() + state.routes.size());
    events.clear();
    libnetif::diff_states(state, state, events);
    FUZZ_CHECK(events.empty());
    return 0;
}

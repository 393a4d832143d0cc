#include "netif/network_interface_manager.h"

#include <cerrno>
#include <cstring>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netif/link_details.h"
#include "netif/netif_state.h"
#include "netif/netlink_socket.h"
#include "trace/CDebug.h"

namespace libnetif {

namespace {

constexpr uint32_t kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE;
// A dump that a change interrupted is asked again this often before the
// reading counts as failed.
constexpr int kDumpAttempts = 5;
// Datagrams taken from the notification socket before their changes are
// reported: a burst is applied in pieces, never held without end.
constexpr int kBatchDatagrams = 256;
// After a failed re-read the watcher tries again after this pause.
constexpr int kRetryMs = 1000;

struct dump_kind {
    uint16_t type;
    uint8_t family;
};
constexpr dump_kind kDumps[] = {{RTM_GETLINK, AF_UNSPEC}, {RTM_GETADDR, AF_UNSPEC}, {RTM_GETROUTE, AF_INET}};

} // namespace

struct network_interface_manager::impl {
    netlink::netlink_socket dumper;
    netlink::netlink_socket notifier;
    std::mutex dump_lock;
    mutable std::mutex state_lock;
    netif_state state;
    std::vector<netif_event> pending;  // made outside the watcher, delivered by it
    bool resync_wanted = false;
    link_details_fn details;

    // Reads the whole state by dumps into `out`.
    bool read_state(netif_state& out, const std::vector<dump_kind>& which)
    {
        std::lock_guard<std::mutex> guard(dump_lock);
        if (dumper.fd() < 0 && !dumper.open(0, 0))
            return false;
        for (const dump_kind& d : which) {
            netlink::received answer;
            int attempt = 0;
            while (!dumper.dump(d.type, d.family, answer))
                if (errno != EAGAIN || ++attempt == kDumpAttempts)
                    return false;
            for (const netlink::message& m : answer.messages)
                apply_message(m, out, details);
        }
        return true;
    }

    // Replaces the state with a fresh reading; its differences in `events`.
    bool resync(std::vector<netif_event>& events)
    {
        netif_state fresh;
        if (!read_state(fresh, {std::begin(kDumps), std::end(kDumps)})) {
            DBG_PRINT(1, "\nnetwork_interface_manager::resync : reading the interfaces failed: %s\n",
                      strerror(errno));
            return false;
        }
        std::lock_guard<std::mutex> guard(state_lock);
        diff_states(state, fresh, events);
        state = std::move(fresh);
        return true;
    }

    // Applies the notifications; routes read again where the kernel drops
    // them silently.
    void apply(const netlink::received& batch, std::vector<netif_event>& events)
    {
        netif_state next;
        {
            std::lock_guard<std::mutex> guard(state_lock);
            next = state;
        }
        bool reroute = false;
        for (const netlink::message& m : batch.messages)
            reroute |= apply_message(m, next, details);
        if (reroute) {
            netif_state routes;
            if (read_state(routes, {kDumps[2]}))
                next.routes = std::move(routes.routes);
        }
        std::lock_guard<std::mutex> guard(state_lock);
        diff_states(state, next, events);
        state = std::move(next);
    }
};

network_interface_manager::network_interface_manager(manager_options options)
    : m_Options(std::move(options)), m_Impl(std::make_unique<impl>())
{
    m_Impl->details = [this](interface_record& r) {
        read_link_details(r, m_Options.sysfs_root, m_Options.use_ethtool);
    };
}

network_interface_manager::~network_interface_manager() { stop(); }

bool network_interface_manager::refresh()
{
    std::vector<netif_event> events;
    if (!m_Impl->resync(events))
        return false;
    if (watching() && !events.empty()) {
        {
            std::lock_guard<std::mutex> guard(m_Impl->state_lock);
            m_Impl->pending.insert(m_Impl->pending.end(), events.begin(), events.end());
        }
        uint64_t one = 1;
        if (write(m_Wake.Get(), &one, sizeof one) < 0)
            DBG_PRINT(1, "\nnetwork_interface_manager::refresh : waking the watcher failed: %s\n", strerror(errno));
    }
    return true;
}

std::vector<interface_record> network_interface_manager::interfaces() const
{
    std::lock_guard<std::mutex> guard(m_Impl->state_lock);
    std::vector<interface_record> out;
    for (const auto& entry : m_Impl->state.interfaces)
        out.push_back(entry.second);
    return out;
}

std::vector<address_record> network_interface_manager::addresses() const
{
    std::lock_guard<std::mutex> guard(m_Impl->state_lock);
    std::vector<address_record> out;
    for (const auto& entry : m_Impl->state.addresses)
        out.push_back(entry.second);
    return out;
}

std::vector<route_record> network_interface_manager::routes() const
{
    std::lock_guard<std::mutex> guard(m_Impl->state_lock);
    std::vector<route_record> out;
    for (const auto& entry : m_Impl->state.routes)
        out.push_back(entry.second);
    return out;
}

bool network_interface_manager::find_interface(const std::string& name, interface_record& out) const
{
    std::lock_guard<std::mutex> guard(m_Impl->state_lock);
    for (const auto& entry : m_Impl->state.interfaces)
        if (entry.second.name == name) {
            out = entry.second;
            return true;
        }
    return false;
}

bool network_interface_manager::start()
{
    if (watching())
        return true;
    // Subscribed before the first reading, so that no change falls between.
    if (!m_Impl->notifier.open(kGroups, m_Options.receive_buffer))
        return false;
    m_Wake.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    std::vector<netif_event> ignored;
    if (!m_Wake || !m_Impl->resync(ignored)) {
        DBG_PRINT(1, "\nnetwork_interface_manager::start : not watching: %s\n", strerror(errno));
        return false;
    }
    m_Stopping = false;
    m_Thread = std::thread([this] { run(); });
    DBG_PRINT(3, "\nnetwork_interface_manager::start : watching %zu interfaces\n", interfaces().size());
    return true;
}

void network_interface_manager::stop()
{
    if (!m_Thread.joinable())
        return;
    m_Stopping = true;
    uint64_t one = 1;
    if (write(m_Wake.Get(), &one, sizeof one) < 0)
        DBG_PRINT(1, "\nnetwork_interface_manager::stop : waking the watcher failed: %s\n", strerror(errno));
    m_Thread.join();
    m_Impl->notifier = netlink::netlink_socket();
    m_Wake.Reset();
}

int network_interface_manager::add_listener(listener fn)
{
    std::lock_guard<std::mutex> guard(m_ListenerLock);
    int id = m_NextListener++;
    m_Listeners[id] = std::make_shared<listener>(std::move(fn));
    return id;
}

bool network_interface_manager::remove_listener(int id)
{
    // The delivery lock (held by the watcher while it calls listeners, and
    // recursive for a listener that removes itself) makes the removal final.
    std::lock_guard<std::recursive_mutex> delivery(m_DeliveryLock);
    std::lock_guard<std::mutex> guard(m_ListenerLock);
    return m_Listeners.erase(id) != 0;
}

void network_interface_manager::deliver(const std::vector<netif_event>& events)
{
    std::lock_guard<std::recursive_mutex> delivery(m_DeliveryLock);
    for (const netif_event& e : events) {
        DBG_PRINT(3, "\nnetwork_interface_manager::deliver : %s %s %s%s\n", event_kind_name(e.kind),
                  e.iface.name.c_str(), e.address.address.c_str(), e.route.destination.c_str());
        std::map<int, std::shared_ptr<listener>> now;
        {
            std::lock_guard<std::mutex> guard(m_ListenerLock);
            now = m_Listeners;
        }
        for (const auto& [id, fn] : now) {
            {
                // A listener removed by an earlier one of this event is not called.
                std::lock_guard<std::mutex> guard(m_ListenerLock);
                if (!m_Listeners.count(id))
                    continue;
            }
            try {
                (*fn)(e);
            } catch (...) {
                // A listener's failure must not end the watcher of all others.
                DBG_PRINT(1, "\nnetwork_interface_manager::deliver : listener %d threw on %s\n", id,
                          event_kind_name(e.kind));
            }
        }
    }
}

// The watcher: waits for notifications or a wake-up, applies what came,
// and delivers the events.  A full receive buffer (ENOBUFS) means lost
// notifications: what is still queued is stale and dropped, and the whole
// state is read anew, its differences reported like any other change.
void network_interface_manager::run()
{
    impl& s = *m_Impl;
    while (!m_Stopping) {
        pollfd fds[2] = {{s.notifier.fd(), POLLIN, 0}, {m_Wake.Get(), POLLIN, 0}};
        if (poll(fds, 2, s.resync_wanted ? kRetryMs : -1) < 0 && errno != EINTR) {
            DBG_PRINT(1, "\nnetwork_interface_manager::run : poll failed: %s\n", strerror(errno));
            break;
        }
        uint64_t count = 0;
        if ((fds[1].revents & POLLIN) && read(m_Wake.Get(), &count, sizeof count) < 0)
            count = 0;
        if (m_Stopping)
            break;
        std::vector<netif_event> events;
        {
            std::lock_guard<std::mutex> guard(s.state_lock);
            events.swap(s.pending);
        }
        netlink::received batch;
        int got = 0;
        int rc = 0;
        while (got < kBatchDatagrams && (rc = s.notifier.receive(batch)) > 0)
            ++got;
        if (rc < 0 && errno == ENOBUFS) {
            DBG_PRINT(2, "\nnetwork_interface_manager::run : notifications lost (receive buffer full); "
                         "reading all anew\n");
            netlink::received stale;
            while (s.notifier.receive(stale) > 0)
                stale = netlink::received();
            s.resync_wanted = true;
            ++m_Resyncs;
        } else {
            if (rc < 0)
                DBG_PRINT(1, "\nnetwork_interface_manager::run : receiving failed: %s\n", strerror(errno));
            if (got > 0)
                s.apply(batch, events);
        }
        if (s.resync_wanted)
            s.resync_wanted = !s.resync(events);
        deliver(events);
    }
}

bool list_interfaces(std::vector<interface_record>& out, const manager_options& options)
{
    network_interface_manager manager(options);
    if (!manager.refresh())
        return false;
    out = manager.interfaces();
    return true;
}

} // namespace libnetif

// network_interface_manager: the machine's network interfaces, their
// addresses and the main IPv4 routing table, read over rtnetlink, and the
// changes to them delivered to listeners on one thread of the manager's own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/UniqueHandle.h"
#include "netif/netif_types.h"

namespace libnetif {

/// The directory that stands for /sys unless told otherwise.
inline constexpr const char* kDefaultSysfsRoot = "/sys";

struct manager_options {
    /// Stands for /sys (driver, PCI address, and speed where ethtool cannot tell).
    std::string sysfs_root = kDefaultSysfsRoot;
    /// Ask the driver for speed and duplex (SIOCETHTOOL) before sysfs.
    bool use_ethtool = true;
    /// SO_RCVBUF of the notification socket: what a burst of changes may
    /// fill before notifications are lost (and everything is read again).
    /// The kernel holds it between its minimum and net.core.rmem_max.
    int receive_buffer = 1 << 20;
};

using listener = std::function<void(const netif_event&)>;

class network_interface_manager {
public:
    explicit network_interface_manager(manager_options options = {});
    /// Stops the watcher thread (see stop()).
    ~network_interface_manager();
    network_interface_manager(const network_interface_manager&) = delete;
    network_interface_manager& operator=(const network_interface_manager&) = delete;

    /// Reads interfaces, addresses and routes anew.  While watching, the
    /// differences to what was known are delivered as events by the watcher
    /// thread.  false (traced, the known state unchanged) when a dump fails.
    bool refresh();

    /// Copies of what is known (after refresh() or start()), by index / key
    /// order.  The counters are those of the last reading of the interface
    /// (a dump, or a notification of it): refresh() or list_interfaces()
    /// for current ones.
    std::vector<interface_record> interfaces() const;
    std::vector<address_record> addresses() const;
    std::vector<route_record> routes() const;
    /// The interface called `name`; false (out unchanged) when there is none.
    bool find_interface(const std::string& name, interface_record& out) const;

    /// Subscribes to link, address and IPv4 route changes, reads the state
    /// and starts the watcher thread.  false (traced) when the socket or the
    /// first reading fails; true at once when already watching.
    bool start();
    /// Stops and joins the watcher thread; events not yet delivered are
    /// dropped.  Safe to call when not watching; must not be called from a
    /// listener.
    void stop();
    bool watching() const { return m_Thread.joinable(); }

    /// Adds a listener, called on the watcher thread for each event in
    /// order.  Returns its id (never 0).  May be called at any time, also
    /// from a listener.
    int add_listener(listener fn);
    /// Removes a listener.  Once this returns, the listener is not called
    /// again (from another thread it waits for a delivery in progress; from
    /// a listener it takes effect for the next call).  false when unknown.
    bool remove_listener(int id);

    /// How many times lost notifications (a full receive buffer) made the
    /// watcher read everything anew.
    uint64_t resync_count() const { return m_Resyncs.load(); }

private:
    struct impl;
    void run();
    void deliver(const std::vector<netif_event>& events);

    manager_options m_Options;
    std::unique_ptr<impl> m_Impl;
    std::thread m_Thread;
    UniqueFd m_Wake;
    std::atomic<bool> m_Stopping{false};
    std::atomic<uint64_t> m_Resyncs{0};
    mutable std::mutex m_ListenerLock;
    std::recursive_mutex m_DeliveryLock;
    std::map<int, std::shared_ptr<listener>> m_Listeners;
    int m_NextListener = 1;
};

/// Every interface the kernel lists, with its figures (64-bit counters,
/// speed, driver), whatever its name: the view for modules and tools beside
/// the monitor's own table.  false (traced) when the dump fails.
bool list_interfaces(std::vector<interface_record>& out, const manager_options& options = {});

} // namespace libnetif

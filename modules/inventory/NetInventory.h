// The network side of the inventory: every interface the kernel lists,
// published below ...\Inventory\NetworkInterfaces by name, and each change
// the network interface manager tells of recorded under ...\Inventory\Changes
// (interface added or removed, link up or down, speed, address, MAC).
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "modules/inventory/InventoryModel.h"
#include "netif/network_interface_manager.h"

namespace inventory {

/// The registry form of interface `r` with its addresses (those of
/// `addresses` on its index).  Speed, duplex, carrier, driver, PCI address
/// and MAC are left out where they are not known.
Properties InterfaceProperties(const libnetif::interface_record& r,
                               const std::vector<libnetif::address_record>& addresses);
/// Every interface by escaped name; a name too long for a key is left out.
Category InterfaceCategory(const std::vector<libnetif::interface_record>& interfaces,
                           const std::vector<libnetif::address_record>& addresses);
/// The change record of an event; none for what the inventory does not
/// record (MTU, name and route changes: the interface key shows them).
std::optional<Change> ChangeOfEvent(const libnetif::netif_event& e);
/// What happened while nobody watched: interfaces that came or went and
/// MACs that changed between the stored category and the current one.
std::vector<Change> CompareInterfaces(const Category& stored, const Category& now);

/// Publishes the interfaces and records their changes from the manager's
/// own notification thread.  `recordLock` is the inventory's lock of the
/// change records: one writer numbers changes at a time.
class CNetInventory {
public:
    CNetInventory(std::mutex& recordLock, unsigned keep, libnetif::manager_options options);
    ~CNetInventory() { Stop(); }
    CNetInventory(const CNetInventory&) = delete;
    CNetInventory& operator=(const CNetInventory&) = delete;

    /// Starts watching; false (reported) when netlink cannot be had.
    bool Start();
    /// The first publication after a start (unless a change came first and
    /// made it): writes the current interfaces and records what changed
    /// since the stored list, each change once also when its notification
    /// is still on its way.
    void Publish();
    /// Stops the notification thread; no listener call runs after it.
    void Stop();
    unsigned Recorded() const { return m_Recorded.load(); }

private:
    void OnEvent(const libnetif::netif_event& e);
    void Baseline(CRegistry& reg);
    bool News(const libnetif::netif_event& e);
    void Write(CRegistry& reg, const std::vector<Change>& changes);

    std::mutex& m_RecordLock;
    unsigned m_Keep;
    libnetif::network_interface_manager m_Manager;
    int m_Listener = 0;
    /// MAC by interface index, as of the first publication and the events
    /// taken in since; empty until then.
    std::optional<std::map<int, std::string>> m_Baseline;
    std::atomic<unsigned> m_Recorded{0};
};

} // namespace inventory

#include "modules/inventory/NetInventory.h"

#include <sys/socket.h>

#include "modules/common/ModuleSettings.h"
#include "modules/common/RegistryNames.h"
#include "registry/CRegistry.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"

namespace inventory {

namespace {

namespace net = tarvdmod::net;
using libnetif::event_kind;

std::string TextOf(const Properties& p, const char* name)
{
    auto it = p.find(name);
    return it == p.end() ? std::string() : it->second.text;  // empty for a number
}

std::string SpeedText(const std::optional<uint32_t>& speed)
{
    return speed ? std::to_string(*speed) : std::string("unknown");
}

/// The interface in a few words, for the detail of an added or removed one.
std::string InterfaceSummary(const libnetif::interface_record& r)
{
    std::string text = "index " + std::to_string(r.index) + ", type " + std::to_string(r.type);
    if (!r.kind.empty())
        text += " (" + r.kind + ")";
    if (!r.mac.empty())
        text += ", MAC " + r.mac;
    if (!r.driver.empty())
        text += ", driver " + r.driver;
    if (r.pci_address)
        text += " at " + r.pci_address->ToString();
    return text;
}

/// The name an event is recorded under: the interface's, or its index when
/// the interface was not known (an address of one already gone).
std::string ObjectOf(const libnetif::netif_event& e)
{
    return e.iface.name.empty() ? "index " + std::to_string(e.iface.index) : e.iface.name;
}

std::string AddressText(const libnetif::address_record& a)
{
    return a.address + "/" + std::to_string(a.prefix);
}

} // namespace

Properties InterfaceProperties(const libnetif::interface_record& r,
                               const std::vector<libnetif::address_record>& addresses)
{
    Properties p;
    p[net::kIndex] = Value::Number(static_cast<uint32_t>(r.index));
    p[net::kType] = Value::Number(r.type);
    if (!r.kind.empty())
        p[net::kKind] = Value::Text(SanitizeText(r.kind));
    if (!r.mac.empty())
        p[net::kMacAddress] = Value::Text(r.mac);
    p[net::kMtu] = Value::Number(r.mtu);
    p[net::kOperState] = Value::Text(libnetif::operstate_name(r.operstate));
    if (r.carrier)
        p[net::kCarrier] = Value::Number(*r.carrier ? 1 : 0);
    p[net::kLinkUp] = Value::Number(r.link_up() ? 1 : 0);
    if (r.speed_mbps)
        p[net::kSpeedMbps] = Value::Number(*r.speed_mbps);
    if (r.duplex)
        p[net::kDuplex] = Value::Text(libnetif::duplex_name(*r.duplex));
    if (!r.driver.empty())
        p[net::kDriver] = Value::Text(SanitizeText(r.driver));
    if (r.pci_address)
        p[net::kPciAddress] = Value::Text(r.pci_address->ToString());
    std::string v4, v6;
    for (const libnetif::address_record& a : addresses) {
        if (a.index != r.index)
            continue;
        std::string& list = a.family == AF_INET ? v4 : v6;
        list += (list.empty() ? "" : " ") + AddressText(a);
    }
    if (!v4.empty())
        p[net::kIPv4Addresses] = Value::Text(SanitizeText(v4));
    if (!v6.empty())
        p[net::kIPv6Addresses] = Value::Text(SanitizeText(v6));
    return p;
}

Category InterfaceCategory(const std::vector<libnetif::interface_record>& interfaces,
                           const std::vector<libnetif::address_record>& addresses)
{
    Category c;
    for (const libnetif::interface_record& r : interfaces) {
        std::string name = EscapeKeyName(r.name);
        if (!name.empty() && name.size() <= kMaxKeyName)
            c[name] = InterfaceProperties(r, addresses);
    }
    return c;
}

std::optional<Change> ChangeOfEvent(const libnetif::netif_event& e)
{
    const std::string object = ObjectOf(e);
    switch (e.kind) {
    case event_kind::interface_added:
        return Change{ChangeKind::InterfaceAdded, object, InterfaceSummary(e.iface)};
    case event_kind::interface_removed:
        return Change{ChangeKind::InterfaceRemoved, object, InterfaceSummary(e.iface)};
    case event_kind::link_up:
    case event_kind::link_down:
        return Change{e.kind == event_kind::link_up ? ChangeKind::LinkUp : ChangeKind::LinkDown, object,
                      std::string("operational state ") + libnetif::operstate_name(e.iface.operstate)};
    case event_kind::speed_changed:
        return Change{ChangeKind::SpeedChanged, object,
                      e.previous + " -> " + SpeedText(e.iface.speed_mbps) + " Mbit/s"};
    case event_kind::address_added:
    case event_kind::address_removed:
        return Change{e.kind == event_kind::address_added ? ChangeKind::AddressAdded : ChangeKind::AddressRemoved,
                      object, AddressText(e.address)};
    case event_kind::mac_changed:
        return Change{ChangeKind::MacChanged, object, e.previous + " -> " + e.iface.mac};
    default:
        return std::nullopt;
    }
}

std::vector<Change> CompareInterfaces(const Category& stored, const Category& now)
{
    std::vector<Change> changes;
    for (const auto& [name, props] : now) {
        auto old = stored.find(name);
        if (old == stored.end())
            changes.push_back({ChangeKind::InterfaceAdded, UnescapeKeyName(name), TextOf(props, net::kMacAddress)});
        else if (TextOf(old->second, net::kMacAddress) != TextOf(props, net::kMacAddress))
            changes.push_back({ChangeKind::MacChanged, UnescapeKeyName(name),
                               TextOf(old->second, net::kMacAddress) + " -> " + TextOf(props, net::kMacAddress)});
    }
    for (const auto& [name, props] : stored)
        if (!now.count(name))
            changes.push_back({ChangeKind::InterfaceRemoved, UnescapeKeyName(name), TextOf(props, net::kMacAddress)});
    return changes;
}

CNetInventory::CNetInventory(std::mutex& recordLock, unsigned keep, libnetif::manager_options options)
    : m_RecordLock(recordLock), m_Keep(keep), m_Manager(std::move(options))
{
}

bool CNetInventory::Start()
{
    if (m_Manager.watching())
        return true;
    m_Listener = m_Manager.add_listener([this](const libnetif::netif_event& e) { OnEvent(e); });
    if (!m_Manager.start()) {
        m_Manager.remove_listener(m_Listener);
        ReportFailure(SysLogTraces::SL_ERR,
                      "\nInventoryModule     : ## ERROR! network interfaces cannot be watched (netlink not available)");
        return false;
    }
    return true;
}

void CNetInventory::Stop()
{
    m_Manager.stop();
    m_Manager.remove_listener(m_Listener);
}

void CNetInventory::Publish()
{
    std::lock_guard<std::mutex> guard(m_RecordLock);
    CRegistry reg;
    Baseline(reg);
}

/// The first publication of this start, the record lock held: what changed
/// since the stored list is recorded, and the interfaces as they are now
/// are what the events are measured against from here on.
void CNetInventory::Baseline(CRegistry& reg)
{
    if (m_Baseline)
        return;
    Category stored;
    // A list stored by a version without one is taken as it is.
    const bool haveStored = ReadCategory(reg, net::kInterfacesKey, stored);
    const std::vector<libnetif::interface_record> interfaces = m_Manager.interfaces();
    Category now = InterfaceCategory(interfaces, m_Manager.addresses());
    WriteCategory(reg, net::kInterfacesKey, now);
    if (haveStored)
        Write(reg, CompareInterfaces(stored, now));
    m_Baseline.emplace();
    for (const libnetif::interface_record& r : interfaces)
        (*m_Baseline)[r.index] = r.mac;
    DBG_PRINT(3, "\nInventoryModule     : %zu network interface(s) published", now.size());
}

/// Whether event `e` is news to the baseline (and takes it in).  The
/// baseline may already hold the outcome of an event still on its way:
/// the comparison with the stored list recorded that one, or (on a first
/// start) it is part of the inventory taken as it is.
bool CNetInventory::News(const libnetif::netif_event& e)
{
    auto& known = *m_Baseline;
    const int index = e.iface.index;
    switch (e.kind) {
    case event_kind::interface_added:
        return known.emplace(index, e.iface.mac).second;
    case event_kind::interface_removed:
        return known.erase(index) != 0;
    case event_kind::mac_changed: {
        auto [it, added] = known.emplace(index, e.iface.mac);
        const bool news = added || it->second != e.iface.mac;
        it->second = e.iface.mac;
        return news;
    }
    default:
        return true;  // kinds the comparison with the stored list never records
    }
}

/// Called on the manager's thread: the key shows the state as it is now
/// (later changes of the same batch included), the record tells this change.
void CNetInventory::OnEvent(const libnetif::netif_event& e)
{
    std::optional<Change> change = ChangeOfEvent(e);
    std::lock_guard<std::mutex> guard(m_RecordLock);
    CRegistry reg;
    Baseline(reg);
    const bool news = News(e);
    WriteCategory(reg, net::kInterfacesKey, InterfaceCategory(m_Manager.interfaces(), m_Manager.addresses()));
    if (change && news)
        Write(reg, {*change});
}

/// Records `changes` into the caller's registry handle (the record lock held).
void CNetInventory::Write(CRegistry& reg, const std::vector<Change>& changes)
{
    if (changes.empty())
        return;
    uint32_t last = RecordChanges(reg, changes, tarvdmod::IsoTimeUtc(), m_Keep);
    uint32_t sequence = last - static_cast<uint32_t>(changes.size());
    for (const Change& c : changes)
        DBG_PRINT(2, "\nInventoryModule     : network change %u: %s %s (%s)", ++sequence, ChangeKindName(c.kind),
                  c.object.c_str(), c.detail.c_str());
    m_Recorded += static_cast<unsigned>(changes.size());
}

} // namespace inventory

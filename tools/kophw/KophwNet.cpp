#include "tools/kophw/KophwNet.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sys/socket.h>
#include <vector>

#include "netif/network_interface_manager.h"

namespace kophw {

namespace {

using libnetif::address_record;
using libnetif::interface_record;

std::optional<std::string> Opt(const std::string& text)
{
    return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

const char* FamilyName(const address_record& a)
{
    return a.family == AF_INET ? "inet" : "inet6";
}

std::optional<std::string> PciText(const interface_record& r)
{
    return r.pci_address ? std::optional<std::string>(r.pci_address->ToString()) : std::nullopt;
}

void WriteAddresses(CJsonWriter& w, const interface_record& r, const std::vector<address_record>& addresses)
{
    w.Key("addresses").BeginArray();
    for (const address_record& a : addresses) {
        if (a.index != r.index)
            continue;
        w.BeginObject();
        w.Key("family").String(FamilyName(a));
        w.Key("address").String(a.address);
        w.Key("prefix").Unsigned(a.prefix);
        w.Key("scope").Unsigned(a.scope);
        w.Key("label").OptString(Opt(a.label));
        w.EndObject();
    }
    w.EndArray();
}

void WriteInterface(CJsonWriter& w, const interface_record& r, const std::vector<address_record>& addresses)
{
    w.BeginObject();
    w.Key("name").String(r.name);
    w.Key("index").Number(r.index);
    w.Key("type").Unsigned(r.type);
    w.Key("kind").OptString(Opt(r.kind));
    w.Key("mac").OptString(Opt(r.mac));
    w.Key("mtu").Unsigned(r.mtu);
    w.Key("flags").Unsigned(r.flags);
    w.Key("operstate").String(libnetif::operstate_name(r.operstate));
    w.Key("carrier");
    if (r.carrier)
        w.Bool(*r.carrier);
    else
        w.Null();
    w.Key("link_up").Bool(r.link_up());
    w.Key("speed_mbps").OptUnsigned(r.speed_mbps ? std::optional<uint64_t>(*r.speed_mbps) : std::nullopt);
    w.Key("duplex").OptString(r.duplex ? std::optional<std::string>(libnetif::duplex_name(*r.duplex)) : std::nullopt);
    w.Key("driver").OptString(Opt(r.driver));
    w.Key("pci_address").OptString(PciText(r));
    WriteAddresses(w, r, addresses);
    w.EndObject();
}

/// One row of the text table; absent values read "-".
std::vector<std::string> Row(const interface_record& r)
{
    auto dash = [](const std::optional<std::string>& v) { return v ? *v : std::string("-"); };
    return {r.name,
            std::to_string(r.index),
            std::to_string(r.type),
            dash(Opt(r.kind)),
            dash(Opt(r.mac)),
            std::to_string(r.mtu),
            libnetif::operstate_name(r.operstate),
            r.carrier ? (*r.carrier ? "yes" : "no") : "-",
            r.speed_mbps ? std::to_string(*r.speed_mbps) : "-",
            r.duplex ? libnetif::duplex_name(*r.duplex) : "-",
            dash(Opt(r.driver)),
            dash(PciText(r))};
}

/// The table, each column as wide as its widest cell, and below each
/// interface its addresses as `ip addr` writes them.
void PrintText(const std::vector<interface_record>& interfaces, const std::vector<address_record>& addresses)
{
    std::vector<std::vector<std::string>> rows = {
        {"name", "index", "type", "kind", "mac", "mtu", "state", "carrier", "speed", "duplex", "driver", "pci"}};
    for (const interface_record& r : interfaces)
        rows.push_back(Row(r));
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto& row : rows)
        for (size_t c = 0; c < row.size(); ++c)
            width[c] = std::max(width[c], row[c].size());
    printf("Network interfaces (%zu):\n", interfaces.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        std::string line = " ";
        for (size_t c = 0; c < rows[i].size(); ++c)
            line += " " + rows[i][c] + std::string(c + 1 < rows[i].size() ? width[c] - rows[i][c].size() : 0, ' ');
        printf("%s\n", line.c_str());
        if (i == 0)
            continue;
        for (const address_record& a : addresses)
            if (a.index == interfaces[i - 1].index)
                printf("      %s %s/%u\n", FamilyName(a), a.address.c_str(), a.prefix);
    }
}

} // namespace

bool ShowNet(CJsonWriter& w, bool json, const std::string& sysfsRoot, bool askDrivers, std::string& failure)
{
    libnetif::manager_options options;
    options.sysfs_root = sysfsRoot;
    options.use_ethtool = askDrivers;
    libnetif::network_interface_manager manager(options);
    errno = 0;
    if (!manager.refresh()) {
        failure = std::string("cannot read the network interfaces over netlink: ") +
                  (errno ? strerror(errno) : "the kernel's answer could not be read");
        return false;
    }
    const std::vector<interface_record> interfaces = manager.interfaces();
    const std::vector<address_record> addresses = manager.addresses();
    w.Key("interfaces").BeginArray();
    for (const interface_record& r : interfaces)
        WriteInterface(w, r, addresses);
    w.EndArray();
    if (!json)
        PrintText(interfaces, addresses);
    return true;
}

} // namespace kophw

// kophw net: the network interfaces as the agent's inventory sees them
// (index, type, MAC, MTU, state, carrier, speed, duplex, driver, PCI
// address, addresses), as aligned text and as the "interfaces" JSON member.
#pragma once

#include <string>

#include "tools/common/JsonWriter.h"

namespace kophw {

/// Reads the interfaces over netlink (details from `sysfsRoot`, the drivers
/// asked directly when `askDrivers`) and writes them into `w` and, unless
/// `json`, as text on standard output.  False with `failure` set when
/// netlink cannot be read.
bool ShowNet(CJsonWriter& w, bool json, const std::string& sysfsRoot, bool askDrivers, std::string& failure);

} // namespace kophw

// The details of an interface that rtnetlink does not carry: link speed
// and duplex (ethtool ioctl, else sysfs), the driver and the PCI function
// (sysfs).
#pragma once

#include <string>

#include "netif/netif_types.h"

namespace libnetif {

/// Where the interfaces' folders lie under the sysfs root.
inline constexpr const char* kClassNet = "class/net";

/// Fills speed, duplex, driver and PCI address of `r` (by its name) and
/// clears what cannot be found.  `sysfs_root` stands for /sys; with
/// `use_ethtool` false only sysfs is asked (tests, replayed captures).
void read_link_details(interface_record& r, const std::string& sysfs_root, bool use_ethtool);

} // namespace libnetif

// CNetworkInterfaceTable: the network interfaces that the performance
// monitor measures, numbered the way the monitor numbers its instances.
#pragma once

#include <string>

class CNetworkInterfaceTable {
public:
    /// `procRoot` is the directory that stands for /proc.
    explicit CNetworkInterfaceTable(std::string procRoot = "/proc");

    /// The number of monitored interfaces: the lines of the network device
    /// statistics whose interface name begins with eth, bond, sha, vswif, br
    /// or xenbr, read by exactly the rule the monitor's statistics use, so
    /// that interface i here is instance i there.  255 when the statistics
    /// cannot be read (255 and 0 both mean "none"); at most 254 otherwise.
    /// Traces the answer at level 3.
    int GetNumberInterfaces() const;

    /// The name of interface `index` (0-based, in the same order); false
    /// (name unchanged) when there is no such interface.
    bool GetInterfaceName(int index, std::string& name) const;

private:
    std::string m_ProcRoot;
};

// Gathers the figures of the metrics page from the machine (proc files,
// rtnetlink, file systems), from what the inventory module keeps in the
// registry, and from the agent itself.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "modules/metrics/Exposition.h"

namespace metrics {

/// The framework's module counts (see TarvdModuleConfig::getModuleCounts).
using ModuleCountsFunction = void (*)(uint32_t* loaded, uint32_t* failed);

/// Busy and total jiffies of one CPU line of the stat file.
struct CpuTimes {
    uint64_t busy = 0, total = 0;
};

/// Parses the "cpu" lines of a stat file: "" for the sum, "0", "1", ...
/// for each CPU.  Lines that are not CPU lines, or are malformed, are left out.
std::map<std::string, CpuTimes> ParseCpuTimes(const std::string& stat);

class Collector {
public:
    Collector(std::string procRoot, ModuleCountsFunction moduleCounts)
        : m_ProcRoot(std::move(procRoot)), m_ModuleCounts(moduleCounts) {}

    /// Every figure; also safe from several threads at once.
    Snapshot Collect();

private:
    void CollectCpus(Snapshot& s);

    std::string m_ProcRoot;
    ModuleCountsFunction m_ModuleCounts;
    std::mutex m_CpuLock;
    std::map<std::string, CpuTimes> m_LastCpu;  ///< the previous scrape's reading
};

/// The inventory module's adapters, drives, volumes, identity and change
/// count as it keeps them in the registry (nothing when it keeps none).
void CollectInventory(Snapshot& s);

} // namespace metrics

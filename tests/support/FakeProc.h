// Made-up proc trees in a temporary directory, laid out like /proc, for the
// readers that take a proc root: the kernel statistics, the memory figures,
// the network device table and per-process stat files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace testsupport {

/// One line of net/dev: byte counters received and sent.
struct NetIf {
    std::string name;
    uint64_t rx;
    uint64_t tx;
};

class FakeProc {
public:
    const std::string& Root() const { return m_Dir.Path(); }
    std::string Path(const std::string& rel) const { return m_Dir.Sub(rel); }
    /// Writes `text` to `rel` below the root (folders made as needed).
    void Write(const std::string& rel, const std::string& text);

    /// meminfo with the four figures (kB) amid other lines.
    void MemInfo(uint64_t memTotal, uint64_t memFree, uint64_t swapTotal, uint64_t swapFree);
    /// stat: the summary line, `processors` processor lines and an
    /// interrupt line longer than a page, as the kernel writes them.
    void Stat(uint64_t user, uint64_t nice, uint64_t system, uint64_t idle, int processors = 2);
    /// net/dev with its two header lines.
    void NetDev(const std::vector<NetIf>& interfaces);

    /// The text of a <pid>/stat file.
    static std::string ProcessStat(int pid, const std::string& comm, char state, uint64_t utime, uint64_t stime,
                                   uint64_t threads, uint64_t vsize, uint64_t rssPages);

private:
    TempDir m_Dir;
};

} // namespace testsupport

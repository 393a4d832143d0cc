// The /proc root every reader of process files uses, and the one reader of
// /proc/<pid>/status figures.  Lives below the trace facility because its
// entry header shows the process's resident memory.
#pragma once

#include "common/UniqueHandle.h"

#include <cstdint>
#include <string>

namespace tarvd {

/// The directory read as /proc ("/proc" unless tests or a replay changed it).
const std::string& ProcRoot();
/// Changes the /proc directory; null or "" restores "/proc".  Not
/// thread-safe: set it before any reader runs.
void SetProcRoot(const char* root);

/// The figure of `field` (for example "VmRSS:") in <proc root>/<pid>/status,
/// in bytes (a "kB", "MB" or "GB" unit applied), then shifted right by 10
/// bits `unitSteps` times.  `value` is left unchanged when the file or the
/// field is missing.  Plain read(2) into a stack buffer, no allocation: it
/// runs for every trace entry with the memory column.
void ReadProcStatusField(uint32_t pid, const char* field, unsigned unitSteps, uint64_t& value);

} // namespace tarvd

/// The resident set size of the own process at the cost of one pread(2):
/// keeps <proc root>/<pid>/statm open and takes its second field (resident
/// pages) times the page size.  That is the very figure the "VmRSS:" line
/// of the status file shows in kilobytes, without opening and scanning that
/// file each time.  The descriptor is reopened after a fork (in the child)
/// and after SetProcRoot.  Not thread-safe: one reader per caller, used
/// under the caller's lock.
class CResidentSizeReader {
public:
    CResidentSizeReader();
    /// @param sampleKey when not negative and equal to the key of the last
    ///        successful read (and /proc was not switched or forked since),
    ///        the figure of that read is returned without reading again.
    ///        The trace passes the millisecond of the entry's time stamp, so
    ///        that all entries of one printed millisecond share one sample.
    /// @return true and `kb` = the resident size in kilobytes; false with
    ///         `kb` unchanged when statm cannot be opened or parsed.
    bool ReadKilobytes(uint64_t& kb, int64_t sampleKey = -1);

private:
    UniqueFd m_Fd;
    unsigned m_Generation = 0;
    uint64_t m_PageSize = 4096;
    int64_t m_SampleKey = -1;
    uint64_t m_SampleKb = 0;
};

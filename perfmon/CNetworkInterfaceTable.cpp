#include "perfmon/CNetworkInterfaceTable.h"

#include <vector>

#include "perfmon/PerfMonPaths.h"
#include "perfmon/ProcParse.h"
#include "trace/CDebug.h"

CNetworkInterfaceTable::CNetworkInterfaceTable(std::string procRoot) : m_ProcRoot(std::move(procRoot)) {}

int CNetworkInterfaceTable::GetNumberInterfaces() const
{
    std::vector<perfmon::NetDevLine> lines;
    int count = perfmon::kNoInterfaces;
    // Capped at 254, so that 255 keeps meaning "none".
    if (perfmon::ReadNetDevInterfaces(perfmon::JoinPath(m_ProcRoot, perfmon::kNetDevFile),
                                      perfmon::kNoInterfaces - 1, lines))
        count = static_cast<int>(lines.size());
    DBG_PRINT(3, "CNetworkInterfaceTable: GetNumberInterfaces() = %d\n", count);
    return count;
}

bool CNetworkInterfaceTable::GetInterfaceName(int index, std::string& name) const
{
    if (index < 0 || index >= perfmon::kNoInterfaces - 1)
        return false;
    std::vector<perfmon::NetDevLine> lines;
    if (!perfmon::ReadNetDevInterfaces(perfmon::JoinPath(m_ProcRoot, perfmon::kNetDevFile),
                                       static_cast<size_t>(index) + 1, lines) ||
        lines.size() <= static_cast<size_t>(index))
        return false;
    name = lines[static_cast<size_t>(index)].name;
    return true;
}

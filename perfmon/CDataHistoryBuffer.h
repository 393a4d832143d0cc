// CDataHistoryBuffer<T>: a bounded history of samples per instance
// (processor, network interface, ...), guarded by its own recursive lock.
#pragma once

#include <cstddef>
#include <vector>

#include "common/CCriticalSection.h"
#include "trace/CDebug.h"

template <typename T>
class CDataHistoryBuffer {
public:
    /// Makes `instances` empty histories that keep at most `maxCount`
    /// samples each (a maximum of 0 is taken as 1: the newest sample is
    /// always kept).
    CDataHistoryBuffer(unsigned int maxCount, unsigned int instances)
        : m_History(instances), m_MaxCount(maxCount == 0 ? 1 : maxCount)
    {
        DBG_PRINT(4, "\nCDataHistoryBuffer  :   - create history buffer with %d elements for %d instances",
                  static_cast<int>(m_MaxCount), static_cast<int>(instances));
    }
    CDataHistoryBuffer(const CDataHistoryBuffer&) = delete;
    CDataHistoryBuffer& operator=(const CDataHistoryBuffer&) = delete;

    /// Appends `item` to the history of `instance`.  When the history already
    /// holds the maximum count, its oldest sample is dropped first.  false
    /// (nothing changes) for an instance that does not exist.  Takes the
    /// buffer's lock.
    bool Add(int instance, const T& item)
    {
        CCriticalSectionLock lock(m_Lock);
        if (!ValidInstance(instance, -1))
            return false;
        std::vector<T>& h = m_History[static_cast<size_t>(instance)];
        if (h.size() >= m_MaxCount)
            h.erase(h.begin());
        h.push_back(item);
        return true;
    }

    /// Copies sample `index` (0 = oldest) of `instance` into `item`.  false,
    /// `item` unchanged and the request traced at level 4 when either is out
    /// of range.  Takes the buffer's lock.
    bool GetItem(int instance, int index, T& item) const
    {
        CCriticalSectionLock lock(m_Lock);
        if (!ValidInstance(instance, index))
            return false;
        const std::vector<T>& h = m_History[static_cast<size_t>(instance)];
        if (index < 0 || static_cast<size_t>(index) >= h.size()) {
            TraceOutOfRange(instance, index);
            return false;
        }
        item = h[static_cast<size_t>(index)];
        return true;
    }

    /// Copies the samples of `instance` (oldest first) into `items`.  false
    /// (request traced, `items` unchanged) when the instance does not exist.
    /// Takes the buffer's lock.
    bool GetAll(int instance, std::vector<T>& items) const
    {
        CCriticalSectionLock lock(m_Lock);
        if (!ValidInstance(instance, -1))
            return false;
        items = m_History[static_cast<size_t>(instance)];
        return true;
    }

    /// Hands each sample of `instance` to `visit`, oldest first, under the
    /// buffer's lock and without copying; false when the instance does not
    /// exist.
    template <typename F>
    bool ForEach(int instance, F&& visit) const
    {
        CCriticalSectionLock lock(m_Lock);
        if (!ValidInstance(instance, -1))
            return false;
        for (const T& item : m_History[static_cast<size_t>(instance)])
            visit(item);
        return true;
    }

    /// The number of samples held for `instance`; 0 when it does not exist.
    unsigned int GetCount(int instance) const
    {
        CCriticalSectionLock lock(m_Lock);
        if (instance < 0 || static_cast<size_t>(instance) >= m_History.size())
            return 0;
        return static_cast<unsigned int>(m_History[static_cast<size_t>(instance)].size());
    }

    unsigned int GetNumberInstances() const { return static_cast<unsigned int>(m_History.size()); }
    unsigned int GetMaxCount() const { return m_MaxCount; }

    /// Empties every instance's history (the instances stay).
    void Clear()
    {
        CCriticalSectionLock lock(m_Lock);
        for (auto& h : m_History)
            h.clear();
    }

    /// The buffer's lock, for callers that read several instances as one
    /// consistent set.  It is recursive, so the accessors can be used while
    /// holding it.
    CCriticalSection& GetLock() const { return m_Lock; }

private:
    bool ValidInstance(int instance, int index) const
    {
        if (instance >= 0 && static_cast<size_t>(instance) < m_History.size())
            return true;
        TraceOutOfRange(instance, index);
        return false;
    }

    void TraceOutOfRange(int instance, int index) const
    {
        DBG_PRINT(4, "\nCDataHistoryBuffer  : Requested item: Instance %d, Index %d Max: Instance %d", instance, index,
                  static_cast<int>(m_History.size()));
    }

    mutable CCriticalSection m_Lock;
    std::vector<std::vector<T>> m_History;
    unsigned int m_MaxCount;
};

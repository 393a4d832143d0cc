// The hash index of a large CStrMap (see CStrMap.h).  Every function runs
// with the map's lock held.
#include "common/CStrMap.h"

#include <cstdlib>
#include <cstring>

namespace {

// FNV-1a: names are short, and this spreads them well enough for linear
// probing at half load.
uint32_t HashName(const char* name)
{
    uint32_t h = 2166136261u;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p)
        h = (h ^ *p) * 16777619u;
    return h;
}

} // namespace

bool CStrMap::UseIndex() const
{
    if (m_Index != nullptr)
        return true;
    if (m_Count < kIndexThreshold)
        return false;
    uint32_t slots = 2 * kIndexThreshold;
    while (slots < 2u * static_cast<uint32_t>(m_Count) + 2u)
        slots *= 2;
    return BuildIndex(slots);
}

// A failed allocation leaves the map without an index: the binary search
// still finds every name, only more slowly.
bool CStrMap::BuildIndex(uint32_t slots) const
{
    auto* table = static_cast<IndexSlot*>(malloc(static_cast<size_t>(slots) * sizeof(IndexSlot)));
    if (table == nullptr) {
        DropIndex();
        return false;
    }
    free(m_Index);
    m_Index = table;
    m_IndexSlots = slots;
    for (uint32_t i = 0; i < slots; ++i)
        m_Index[i] = IndexSlot{0, -1};
    for (int i = 0; i < m_Count; ++i)
        if (m_Entries[i].name != nullptr)
            IndexPut(HashName(m_Entries[i].name), i);
    return true;
}

void CStrMap::IndexPut(uint32_t hash, int index) const
{
    const uint32_t mask = m_IndexSlots - 1;
    uint32_t i = hash & mask;
    while (m_Index[i].index >= 0)
        i = (i + 1) & mask;
    m_Index[i] = IndexSlot{hash, index};
}

bool CStrMap::IndexFind(const char* name, uint32_t hash, int& index) const
{
    const uint32_t mask = m_IndexSlots - 1;
    for (uint32_t i = hash & mask; m_Index[i].index >= 0; i = (i + 1) & mask) {
        const IndexSlot& s = m_Index[i];
        if (s.hash == hash && strcmp(m_Entries[s.index].name, name) == 0) {
            index = s.index;
            return true;
        }
    }
    return false;
}

int CStrMap::Locate(const char* name) const
{
    if (name != nullptr && UseIndex()) {
        int index = -1;
        return IndexFind(name, HashName(name), index) ? index : -1;
    }
    bool found = false;
    int pos = Position(name, found);
    return found ? pos : -1;
}

int CStrMap::Place(const char* name, bool& found) const
{
    found = false;
    // Appending (a file loaded in order) needs no index.
    if (m_Count > 0 && compare(m_Entries[m_Count - 1].name, name) < 0)
        return m_Count;
    int index = -1;
    if (name != nullptr && UseIndex() && IndexFind(name, HashName(name), index)) {
        found = true;
        return index;
    }
    return Position(name, found);
}

// The entry at `index` is new: the entries behind it moved up by one.
void CStrMap::IndexAfterInsert(const char* name, int index)
{
    if (m_Index == nullptr)
        return;
    if (2u * static_cast<uint32_t>(m_Count) + 2u > m_IndexSlots) {
        BuildIndex(2 * m_IndexSlots);  // includes the new entry
        return;
    }
    if (index + 1 < m_Count)
        for (uint32_t i = 0; i < m_IndexSlots; ++i)
            if (m_Index[i].index >= index)
                ++m_Index[i].index;
    if (name != nullptr)
        IndexPut(HashName(name), index);
}

// The entry at `index` is about to go; the ones behind it move down by one.
// Its slot is emptied by moving later members of its probe run back, so
// that no search stops early at the hole.
void CStrMap::IndexBeforeRemove(int index)
{
    if (m_Index == nullptr)
        return;
    const uint32_t mask = m_IndexSlots - 1;
    if (const char* name = m_Entries[index].name) {
        uint32_t hole = HashName(name) & mask;
        while (m_Index[hole].index != index)
            hole = (hole + 1) & mask;
        for (uint32_t j = (hole + 1) & mask; m_Index[j].index >= 0; j = (j + 1) & mask) {
            const uint32_t home = m_Index[j].hash & mask;
            // Movable when its home is not in (hole, j], cyclically.
            const bool between = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
            if (!between) {
                m_Index[hole] = m_Index[j];
                hole = j;
            }
        }
        m_Index[hole] = IndexSlot{0, -1};
    }
    for (uint32_t i = 0; i < m_IndexSlots; ++i)
        if (m_Index[i].index > index)
            --m_Index[i].index;
}

void CStrMap::DropIndex() const
{
    free(m_Index);
    m_Index = nullptr;
    m_IndexSlots = 0;
}

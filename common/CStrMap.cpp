#include "common/CStrMap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

CStrMap::~CStrMap()
{
    Clear();
    free(m_Entries);
    DropIndex();
    while (m_Arena != nullptr) {
        ArenaChunk* next = m_Arena->next;
        free(m_Arena);
        m_Arena = next;
    }
}

char* CStrMap::ArenaCopy(const char* text, size_t len)
{
    // Chunks double from 1 KiB up to 64 KiB, so that a small key wastes
    // little; a text too big for that gets a chunk of its own.
    constexpr size_t kFirstChunk = 1024;
    constexpr size_t kLargestChunk = 64 * 1024;
    const size_t need = len + 1;
    if (m_Arena == nullptr || m_Arena->size - m_Arena->used < need) {
        size_t size = m_Arena == nullptr ? kFirstChunk : std::min(2 * m_Arena->size, kLargestChunk);
        if (size < need)
            size = need;
        auto* chunk = static_cast<ArenaChunk*>(malloc(sizeof(ArenaChunk) + size));
        if (chunk == nullptr)
            return nullptr;
        *chunk = ArenaChunk{m_Arena, size, 0};
        m_Arena = chunk;
    }
    char* copy = reinterpret_cast<char*>(m_Arena + 1) + m_Arena->used;
    memcpy(copy, text, len);
    copy[len] = '\0';
    m_Arena->used += need;
    return copy;
}

void CStrMap::FreeName(Entry& e)
{
    if ((e.flags & kNameInArena) == 0)
        free(e.name);
    e.name = nullptr;
}

int CStrMap::compare(const char* a, const char* b)
{
    if (a == nullptr)
        return b == nullptr ? 0 : 1;
    if (b == nullptr)
        return -1;
    return strcmp(a, b);
}

int CStrMap::Position(const char* name, bool& found) const
{
    int lo = 0, hi = m_Count;
    found = false;
    // Names arriving in order (a file being loaded) go after the last entry:
    // one comparison instead of a search.
    if (hi > 0 && compare(m_Entries[hi - 1].name, name) < 0)
        return hi;
    while (lo < hi) {
        int mid = lo + (hi - lo) / 2;
        int c = compare(m_Entries[mid].name, name);
        if (c == 0) {
            found = true;
            return mid;
        }
        if (c < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

int CStrMap::Find(const char* name) const
{
    CCriticalSectionLock lock(m_Lock);
    return Locate(name);
}

CStrMap::Entry* CStrMap::Lookup(const char* name)
{
    CCriticalSectionLock lock(m_Lock);
    int pos = Locate(name);
    return pos >= 0 ? &m_Entries[pos] : nullptr;
}

bool CStrMap::Grow()
{
    unsigned newCapacity = static_cast<unsigned>(m_Count) + kGrowth;
    // realloc keeps large arrays cheap to grow (the allocator can move
    // pages instead of copying); the new slots are zeroed as a fresh array's
    // would be.
    auto* grown = static_cast<Entry*>(realloc(m_Entries, newCapacity * sizeof(Entry)));
    if (grown == nullptr)
        return false;
    memset(grown + m_Capacity, 0, (newCapacity - m_Capacity) * sizeof(Entry));
    m_Entries = grown;
    m_Capacity = newCapacity;
    return true;
}

void CStrMap::FreeEntry(Entry& e)
{
    if (m_Deleter)
        m_Deleter(e);
    e.payload.ptr = nullptr;
}

int CStrMap::Set(const char* name, Entry value, bool* replaced)
{
    CCriticalSectionLock lock(m_Lock);
    value.flags = 0;
    return SetLocked(name, value, replaced, false);
}

int CStrMap::SetInArena(const char* name, Entry value, const char* text)
{
    CCriticalSectionLock lock(m_Lock);
    value.flags = 0;
    if (text != nullptr) {
        value.payload.ptr = ArenaCopy(text, strlen(text));
        if (value.payload.ptr == nullptr)
            return -1;
        value.flags = kPayloadInArena;
    }
    return SetLocked(name, value, nullptr, true);
}

int CStrMap::SetBytesInArena(const char* name, Entry value, const void* bytes, size_t length)
{
    CCriticalSectionLock lock(m_Lock);
    value.payload.ptr = ArenaCopy(static_cast<const char*>(bytes), length);
    if (value.payload.ptr == nullptr)
        return -1;
    value.flags = kPayloadInArena;
    return SetLocked(name, value, nullptr, true);
}

int CStrMap::SetLocked(const char* name, Entry value, bool* replaced, bool nameInArena)
{
    bool found = false;
    int pos = Place(name, found);
    if (replaced)
        *replaced = found;
    if (found) {
        // Storing the payload the entry already holds must not free it.
        Entry& old = m_Entries[pos];
        bool same = old.type == value.type && memcmp(&old.payload, &value.payload, sizeof old.payload) == 0;
        if (!same) {
            FreeEntry(old);
            old.flags = (old.flags & kNameInArena) | (value.flags & kPayloadInArena);
        }
        old.payload = value.payload;
        old.type = value.type;
        return pos;
    }
    char* copy = nullptr;
    if (name != nullptr) {
        copy = nameInArena ? ArenaCopy(name, strlen(name)) : strdup(name);
        if (copy == nullptr)
            return -1;
    }
    if (static_cast<unsigned>(m_Count) >= m_Capacity && !Grow()) {
        if (!nameInArena)
            free(copy);
        return -1;
    }
    memmove(&m_Entries[pos + 1], &m_Entries[pos], static_cast<size_t>(m_Count - pos) * sizeof(Entry));
    m_Entries[pos].name = copy;
    m_Entries[pos].payload = value.payload;
    m_Entries[pos].type = value.type;
    m_Entries[pos].flags = (nameInArena && copy != nullptr ? kNameInArena : 0) | (value.flags & kPayloadInArena);
    ++m_Count;
    IndexAfterInsert(copy, pos);
    return pos;
}

bool CStrMap::RemoveAt(int index)
{
    CCriticalSectionLock lock(m_Lock);
    if (index < 0 || index >= m_Count)
        return false;
    IndexBeforeRemove(index);
    FreeEntry(m_Entries[index]);
    FreeName(m_Entries[index]);
    // The emptied slot moves to the end, as a re-sort would put it there.
    memmove(&m_Entries[index], &m_Entries[index + 1], static_cast<size_t>(m_Count - index - 1) * sizeof(Entry));
    --m_Count;
    memset(&m_Entries[m_Count], 0, sizeof(Entry));
    return true;
}

bool CStrMap::Remove(const char* name)
{
    CCriticalSectionLock lock(m_Lock);
    int pos = Locate(name);
    return pos >= 0 && RemoveAt(pos);
}

int CStrMap::GetCount() const
{
    CCriticalSectionLock lock(m_Lock);
    return m_Count;
}

unsigned CStrMap::GetCapacity() const
{
    CCriticalSectionLock lock(m_Lock);
    return m_Capacity;
}

bool CStrMap::HasEntries() const
{
    CCriticalSectionLock lock(m_Lock);
    return m_Entries != nullptr;
}

void CStrMap::Clear()
{
    // The entries are handed out under the lock and freed after it is
    // released.  A deleter that destroys a nested map (a registry subtree)
    // then never runs with this map's lock held, so tearing down a deep tree
    // holds one or two locks at a time instead of one per level.
    Entry* taken = nullptr;
    int count = 0;
    {
        CCriticalSectionLock lock(m_Lock);
        DropIndex();
        if (m_Count == 0)
            return;
        const size_t bytes = static_cast<size_t>(m_Count) * sizeof(Entry);
        taken = static_cast<Entry*>(malloc(bytes));
        if (taken == nullptr) {
            // No memory for the hand-over: free them in place instead.
            for (int i = 0; i < m_Count; ++i) {
                FreeEntry(m_Entries[i]);
                FreeName(m_Entries[i]);
                memset(&m_Entries[i], 0, sizeof(Entry));
            }
            m_Count = 0;
            return;
        }
        memcpy(taken, m_Entries, bytes);
        memset(m_Entries, 0, bytes);
        count = m_Count;
        m_Count = 0;
    }
    for (int i = 0; i < count; ++i) {
        FreeEntry(taken[i]);
        FreeName(taken[i]);
    }
    free(taken);
}

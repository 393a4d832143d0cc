// CStrMap: a sorted array map from names to payloads, guarded by a recursive
// CCriticalSection.  Registry keys and the named-object registries of the
// synchronisation primitives are built on it.
//
// Order: entries are sorted by name with CStrMap::compare (byte-wise strcmp,
// a missing name sorts after every name).  Look-ups are binary searches; an
// insertion goes to its binary-search position, which yields exactly the
// order a full re-sort after every insertion would give, without moving the
// whole array each time.  When the array is full it grows by 16 entries.
//
// Large maps (a registry key of thousands of values) keep a hash index
// beside the array, so that finding a name costs the same however many
// entries there are.  It is made at the first search that needs it (a file
// loaded in order only appends and never builds one) and kept in step with
// every insertion and removal; the array and its order stay the only truth.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/CCriticalSection.h"

class CStrMap {
public:
    struct Entry {
        char* name;          ///< owned copy (malloc), null for an emptied slot
        union {
            void* ptr;       ///< owned payload; freed by the map's payload deleter
            uint32_t number; ///< inline payload (the registry's 32-bit numbers)
        } payload;
        uint32_t type;       ///< caller-defined type code, passed to the deleter
        uint32_t flags;      ///< kNameInArena, kPayloadInArena
    };
    /// The name, or the payload, lies in the map's arena (SetInArena): it is
    /// never freed on its own, only with the map.  A deleter leaves such a
    /// payload alone.
    static constexpr uint32_t kNameInArena = 1;
    static constexpr uint32_t kPayloadInArena = 2;

    /// Frees a payload of the given type; null means payloads are not owned.
    using PayloadDeleter = void (*)(Entry& entry);

    static constexpr unsigned kGrowth = 16;

    explicit CStrMap(PayloadDeleter deleter = nullptr) : m_Deleter(deleter) {}
    virtual ~CStrMap();
    CStrMap(const CStrMap&) = delete;
    CStrMap& operator=(const CStrMap&) = delete;

    /// Byte-wise comparison; a null name sorts after every name and two null
    /// names are equal.
    static int compare(const char* a, const char* b);

    /// Index of `name`, or -1.  Takes the lock.
    int Find(const char* name) const;
    /// The entry of `name`, or null.  The pointer is valid while the caller
    /// holds the lock (or no other thread changes the map).
    Entry* Lookup(const char* name);

    /// Stores `payload` under `name`: an existing entry of that name has its
    /// payload and type replaced in place (the old payload is freed by the
    /// deleter first, according to its old type, unless it is the very
    /// payload being stored); otherwise a new entry with
    /// a copy of the name is inserted at its sorted position.  `replaced`
    /// tells which happened.  Returns the entry's index, or -1 when memory
    /// ran out (nothing changed then; the caller keeps `payload`).
    int Set(const char* name, Entry payloadAndType, bool* replaced = nullptr);
    int SetPointer(const char* name, void* ptr, uint32_t type, bool* replaced = nullptr)
    {
        Entry e{};
        e.payload.ptr = ptr;
        e.type = type;
        return Set(name, e, replaced);
    }
    int SetNumber(const char* name, uint32_t number, uint32_t type, bool* replaced = nullptr)
    {
        Entry e{};
        e.payload.number = number;
        e.type = type;
        return Set(name, e, replaced);
    }

    /// As Set, for a map being filled in bulk (a file loaded): the copy of
    /// the name, and of `text` (when not null, as the payload, of that
    /// type), go into an arena of the map instead of one allocation each.
    /// Arena memory comes back when the map is destroyed, so this is for
    /// entries that are mostly kept.  Returns the index, or -1.
    int SetInArena(const char* name, Entry payloadAndType, const char* text = nullptr);
    /// As SetInArena with a text, for `length` raw bytes (which may hold
    /// NUL bytes) as the payload.
    int SetBytesInArena(const char* name, Entry payloadAndType, const void* bytes, size_t length);

    /// Removes the entry of `name` (name and payload freed).  False when absent.
    bool Remove(const char* name);
    /// Removes the entry at `index`.  False when out of range.
    bool RemoveAt(int index);
    /// Removes every entry.  Takes the lock to empty the map; the payloads
    /// are freed after it is released.
    void Clear();

    /// Number of entries.  Takes the lock.
    int GetCount() const;
    /// Number of allocated entry slots (a multiple of 16).  Takes the lock.
    unsigned GetCapacity() const;
    /// True when the entry array has been allocated (a first insertion
    /// happened).  Takes the lock.
    bool HasEntries() const;
    /// The entry at `index` (0 <= index < GetCount()); the caller holds the
    /// lock while it uses the reference when other threads change the map.
    Entry& At(int index) { return m_Entries[index]; }
    const Entry& At(int index) const { return m_Entries[index]; }

    CCriticalSection& GetLock() const { return m_Lock; }

protected:
    void FreeEntry(Entry& e);

private:
    /// Binary search: index of `name` when found (found = true), else the
    /// index where it would be inserted.
    int Position(const char* name, bool& found) const;
    /// Index of `name`, or -1 (the caller holds the lock).
    int Locate(const char* name) const;
    /// Set with the lock held; the name is copied into the arena when asked.
    int SetLocked(const char* name, Entry value, bool* replaced, bool nameInArena);
    /// A copy of `len` bytes of `text` and a NUL in the arena, or null.
    char* ArenaCopy(const char* text, size_t len);
    void FreeName(Entry& e);
    /// As Position, through the index where the map has one.
    int Place(const char* name, bool& found) const;
    bool Grow();

    // The hash index: open addressing with linear probing, at most half
    // full.  A slot holds the name's hash and the entry's index (-1: empty).
    struct IndexSlot {
        uint32_t hash;
        int32_t index;
    };
    static constexpr int kIndexThreshold = 64;
    bool UseIndex() const;
    bool BuildIndex(uint32_t slots) const;
    bool IndexFind(const char* name, uint32_t hash, int& index) const;
    void IndexPut(uint32_t hash, int index) const;
    void IndexAfterInsert(const char* name, int index);
    void IndexBeforeRemove(int index);
    void DropIndex() const;

    mutable CCriticalSection m_Lock;
    Entry* m_Entries = nullptr;
    unsigned m_Capacity = 0;
    int m_Count = 0;
    PayloadDeleter m_Deleter;
    /// Chunks of the arena, newest first; each starts with the link to the
    /// next one and its size.
    struct ArenaChunk {
        ArenaChunk* next;
        size_t size;
        size_t used;
    };
    ArenaChunk* m_Arena = nullptr;
    mutable IndexSlot* m_Index = nullptr;
    mutable uint32_t m_IndexSlots = 0; ///< a power of two; 0 without an index
};

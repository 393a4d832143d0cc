// CRegistryNode: one key of the registry tree.  A key is a CStrMap whose
// entries are its values and its subkeys together, sorted by name
// (byte-wise, case-sensitive), so a value and a subkey cannot share a name.
//
// Payloads by type (the codes are stored in the tree and decide the file
// form):
//   1 string, 2 expandable string: owned NUL-terminated array (malloc)
//   3 binary: owned array of a 32-bit byte count followed by the bytes
//   4 32-bit number: held inline, no allocation
//   666 subkey: owned CRegistryNode (new)
// The map's payload deleter frees each payload by its type, so replacing or
// removing an entry also destroys a subtree.  Values read from the file have
// their names and texts in the key's arena (CStrMap::SetInArena) instead:
// those go only with the key.
#pragma once

#include <cstdint>
#include <cstdio>

#include "common/CStrMap.h"

/// Type codes of registry entries.
enum RegValueType : uint32_t {
    RegString = 1,
    RegExpandString = 2,
    RegBinary = 3,
    RegNumber = 4,
    RegSubKey = 666,
    /// Not stored: the filter of CRegistry::EnumVal that admits every value.
    RegAnyValue = 999,
};

class CRegistryNode : public CStrMap {
public:
    CRegistryNode() : CStrMap(&DeletePayload) {}
    ~CRegistryNode() override = default;

    /// Frees the payload of `entry` according to its type; a subkey is
    /// destroyed with its whole subtree (traced at level 2).
    static void DeletePayload(Entry& entry);
    /// Destroys a subkey removed from the tree (traced at level 2).
    static void deleteNode(CRegistryNode* node, const char* name);

    /// Writes this key's block: its value lines in entry order, then a
    /// section line and block for each subkey, then one empty line.  Takes
    /// each node's lock while that node is written.  False on a write error.
    bool dumpNode(FILE* file) const;

    /// Reads a block (values and nested sections) from `file` into this key
    /// until an empty line or the end of the file.  True when at least one
    /// value line was recognised in this block or a nested one.  Lines are
    /// handled in pieces of at most 1023 characters.  Blocks nest to any
    /// depth (an explicit stack, no recursion), so every tree dumpNode
    /// writes reads back whole.
    bool restoreNode(FILE* file);

    /// Number of bytes in a binary payload (its leading count).
    static uint32_t BinaryCount(const void* payload);

private:
    /// The value lines of the first `count` entries (the caller holds the lock).
    bool dumpValues(FILE* file, int count) const;
};

// CRegistry: a handle on the process-wide registry tree.
//
// The tree (five predefined root keys, keys addressed by paths, named values
// of string, expandable-string, binary and 32-bit number type) lives in
// memory, is loaded once per process from the registry file and is written
// back whenever a handle is destroyed after a change.  All reads and writes
// go through handles; a handle is used by one thread at a time, while any
// number of threads may use handles of their own on the one tree.
//
// Status codes: 0 success; 22 no key open or a required argument missing;
// 61 value or index not found, or the value has the wrong type; 34 the
// caller's buffer is too small; 0xFFFFFFFF failure of Open and the pointer
// opens; -1 failure of CreateKey.
//
// Locks: every look-up, insertion and removal in a key takes that key's
// recursive lock; loading and saving take the class lock.  A handle's
// current key is a plain pointer into the shared tree: release handles
// before deleting the keys they hold.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "registry/CRegistryNode.h"

class CRegistry {
public:
    /// Directory of the registry files unless SetRegistryDirectory says otherwise.
    static constexpr const char* kDefaultDirectory = "/etc/tarvd";
    static constexpr const char* kCurrentName = "registry";
    static constexpr const char* kBackupName = "registry.old";
    static constexpr const char* kNewName = "registry.new";
    static constexpr const char* kDefaultName = "registry.default";
    /// The key whose string values point at product keys (OpenPointerKey).
    static constexpr const char* kPointerKeyPath =
        "SYSTEM\\CurrentControlSet\\Control\\UUID\\C3681B60-0D26-11D3-8319-00A0C9B61E25";

    static constexpr uint32_t kOk = 0;
    static constexpr uint32_t kInvalid = 22;     // EINVAL
    static constexpr uint32_t kRange = 34;       // ERANGE
    static constexpr uint32_t kNoData = 61;      // ENODATA
    static constexpr uint32_t kOpenFailed = 0xFFFFFFFFu;

    /// The predefined root keys (subkeys of the tree's root).  Valid after
    /// the construction of any handle.
    static CRegistryNode* HKEY_LOCAL_MACHINE;
    static CRegistryNode* HKEY_CURRENT_USER;
    static CRegistryNode* HKEY_USERS;
    static CRegistryNode* HKEY_CLASSES_ROOT;
    static CRegistryNode* HKEY_CURRENT_CONFIG;

    /// A handle with no key open.  Loads the tree on first use.
    CRegistry();
    /// A handle on `key` (read after the tree is set up, so a root-key
    /// variable may be passed on the very first construction).
    explicit CRegistry(CRegistryNode*& key);
    /// A handle on `path` below `parent` (null: the tree's root); the result
    /// of Open is the last status.
    CRegistry(const char* path, CRegistryNode*& parent, int access = 0);
    CRegistry(const CRegistry& other);
    CRegistry& operator=(const CRegistry& other);
    /// Saves the tree when it changed since the last save.
    ~CRegistry();

    // ---- class-wide tree --------------------------------------------------

    /// Loads the tree unless it is set up already (or `force`): the current
    /// file, else the backup, else the factory default.  When all three fail
    /// the tree stays not set up and the next handle tries again, until a
    /// save has written the tree (from then on the tree in memory is the
    /// newer one).  Reading replaces the root keys' subtrees: a forced set-up
    /// while handles are alive leaves their keys dangling.  Takes the class
    /// lock.
    static void SetupTree(bool force);
    /// Writes the tree when it is dirty: the new file is written completely
    /// and synchronised, the current file becomes the backup (when it is not
    /// empty) and the new file becomes the current one, atomically; the tree
    /// then counts as set up.  True when nothing had to be saved or the save
    /// succeeded; on failure the tree stays dirty.  Takes the class lock,
    /// and each key's lock while that key is written.
    static bool SaveTree();
    /// How many times SaveTree wrote the file, and how many times it failed,
    /// since the process started (saves with nothing to write count in
    /// neither).  Lock-free: any thread may ask at any time.
    static uint64_t GetSaveCount();
    static uint64_t GetSaveFailureCount();
    /// The file operations of SaveTree, replaceable so that tests can make
    /// any single write, fsync or rename fail.
    struct FileOps {
        int (*open)(const char* path, int flags, mode_t mode);
        ssize_t (*write)(int fd, const void* data, size_t size);
        int (*fsync)(int fd);
        int (*rename)(const char* from, const char* to);
    };
    /// Installs `ops` (copied); null restores the system calls.  No save may
    /// be running.  Takes the class lock.
    static void SetFileOps(const FileOps* ops);
    /// Reads the file `path` into `node`.  False (traced) when the path is
    /// empty, the file cannot be opened, is empty or holds no value line.
    static bool ReadTree(const char* path, CRegistryNode* node);

    /// Points the registry at another directory (default /etc/tarvd) and
    /// drops the tree, so that the next handle loads from there.  No handle
    /// may be alive.  Takes the class lock.
    static void SetRegistryDirectory(const char* directory);
    static std::string GetRegistryDirectory();
    /// Drops the whole tree and the set-up and dirty flags without saving
    /// (for tests; no handle may be alive).  Takes the class lock.
    static void ResetForTests();
    static bool IsSetUp();
    static bool IsDirty();
    /// The tree's root node (its entries are the root keys).
    static CRegistryNode* GetRoot();

    /// Reads the string value `valueName` of the pointer key under
    /// HKEY_LOCAL_MACHINE into `out` with a handle of its own, trying twice.
    static bool GetProductRegistryRoot(std::string& out, const char* valueName);

    // ---- handle -------------------------------------------------------------

    /// Opens `path` below `parent` (null: the root; empty path: `parent`
    /// itself).  Components are split at '\\', or at '/' when no '\\'
    /// follows.  Returns 0, or 0xFFFFFFFF (also the last status) when a
    /// component is missing or not a key; the current key is then unchanged.
    uint32_t Open(const char* path, CRegistryNode* parent = nullptr, int access = 0);
    /// Opens `path` below `parent` (null: the current key), creating missing
    /// keys.  Returns 0, or -1 without parent and current key, without path,
    /// or when a component is a value.
    int CreateKey(CRegistryNode* parent, const char* path, bool reserved = false, int access = 0);
    /// Opens the key whose full path is the string value `valueName` of the
    /// pointer key below `parent`; the root-key part of that path is
    /// upper-cased.  Returns the result of that Open, or 0xFFFFFFFF.
    uint32_t OpenPointerKey(const char* valueName, const char* reserved1 = nullptr, int reserved2 = 0,
                            CRegistryNode* parent = nullptr, int access = 0);
    uint32_t OpenUUIDPointer(const char* valueName, CRegistryNode* parent = nullptr, int access = 0,
                             const char* reserved1 = nullptr, bool reserved2 = false);

    /// Forgets the current key; true when one was open.
    bool Close();
    /// Returns the current key and forgets it.
    CRegistryNode* KeepKeyHandle();
    CRegistryNode* GetKey() const { return m_hKey; }

    // ---- values ---------------------------------------------------------------
    // `key` null means the current key.

    /// Size of a value: strings length + 1, binary its byte count, numbers
    /// 4; 0 when missing.  22 when there is no key.
    uint32_t GetValueSize(const char* name, CRegistryNode* key = nullptr);
    /// A copy of the value in the handle's buffer (strings terminated,
    /// binary without its count, numbers as 4 bytes; expandable strings
    /// expanded while the expand flag is set), valid until the next read
    /// through this handle.  Null when missing or empty.
    unsigned char* GetValue(const char* name, CRegistryNode* key = nullptr);
    /// A number value.  0, 61 (missing, other type, null `out`) or 22.
    uint32_t QueryValue(unsigned int* out, const char* name, CRegistryNode* key = nullptr);
    /// A string value.  0, 61 (missing or not a string) or 22.
    uint32_t QueryValue(std::string& out, const char* name, CRegistryNode* key = nullptr);
    /// A string value into `dst` of `*count` bytes.  Null `dst`: `*count`
    /// becomes length + 1 (0).  `*count` <= length: the first `*count`
    /// characters unterminated (34).  Otherwise the text terminated and
    /// `*count` = length (0).  Null `count`: 34.  Missing/other type: 61.
    uint32_t QueryValue(char* dst, const char* name, unsigned int* count, CRegistryNode* key = nullptr);
    uint32_t QueryValue(char* dst, const char* name, unsigned int count, CRegistryNode* key = nullptr);

    /// Stores a value of `type` (1, 2: `size` characters plus a terminator;
    /// 3: `size` bytes; 4: `size` must be 4).  Marks the tree dirty whenever
    /// a key is at hand.  False without key or for a bad type/size; true
    /// with nothing stored for a null name.  An existing entry of the name
    /// (value or subkey) is replaced.
    bool SetValue(const char* name, const unsigned char* data, unsigned int size, unsigned int type,
                  CRegistryNode* key = nullptr);
    /// A number in the current key: 0 or 22.
    uint32_t SetValue(const char* name, unsigned int number);
    /// A string in the current key: 0 or 22.
    uint32_t SetValue(const char* name, const char* text);

    // ---- enumeration and deletion -------------------------------------------

    /// Number of subkeys of the current key: 0, or 22.
    uint32_t NoOfSubKeys(unsigned int* count);
    /// Name of the `index`-th subkey (in sorted order), cut to `*nameSize`-1
    /// characters; `*nameSize` becomes the characters copied.  0, 22 or 61.
    uint32_t EnumKey(char* name, unsigned int* nameSize, unsigned int index, char* cls = nullptr,
                     unsigned int* clsSize = nullptr);
    uint32_t EnumKey(char* name, unsigned int nameSize, unsigned int index, char* cls = nullptr,
                     unsigned int clsSize = 0);
    /// Name and data of the `index`-th value passing `typeFilter` (999: all
    /// values).  Strings are copied as by QueryValue (an error there gives
    /// 22), numbers when `*dataSize` >= 4; binary values never (`*dataSize`
    /// becomes 0).  0, 22 or 61.
    uint32_t EnumVal(char* name, unsigned int* nameSize, unsigned int index, unsigned int typeFilter,
                     unsigned char* data, unsigned int* dataSize);
    /// Removes the entry `name` of the current key, whatever its type.  0 or 22.
    uint32_t DeleteValue(const char* name);
    /// Removes the subkey `name` of the current key with its subtree.  0 or
    /// 22 (no key, or `name` is not a subkey).
    uint32_t DeleteKey(const char* name);

    uint32_t GetStatus() const { return m_Status; }
    int32_t GetLastSize() const { return m_ValueSize; }
    uint32_t GetLastType() const { return m_ValueType; }
    /// Expandable strings are expanded on read while this is set (default).
    void SetExpand(bool expand) { m_Expand = expand ? 1 : 0; }
    const char* GetPath() const { return m_pPath; }

    /// Expands `%NAME%` from the environment (unset: nothing), `%%` to `%`,
    /// and drops a `%` without a closing one.  Null when memory ran out.
    static char* ExpandText(const char* text);

private:
    void InitClass();
    void FreeClass();
    void CopyFrom(const CRegistry& other);
    CRegistryNode* KeyOrCurrent(CRegistryNode* key) const { return key ? key : m_hKey; }
    /// The text of a string value (expanded as GetValue does) into `out`.
    uint32_t ReadText(const char* name, CRegistryNode* key, std::string& out);

    uint32_t m_Status = 0;
    int32_t m_ValueSize = 0;
    uint32_t m_ValueType = 0;
    int m_Expand = 1;
    uint32_t m_EnumIndex = 0;
    uint32_t m_EnumPos = 0;
    CRegistryNode* m_hKey = nullptr;
    unsigned char* m_pValue = nullptr;
    char* m_pPath = nullptr;
};

#include "registry/CRegistry.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "common/FileIO.h"
#include "common/UniqueHandle.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"

CRegistryNode* CRegistry::HKEY_LOCAL_MACHINE = nullptr;
CRegistryNode* CRegistry::HKEY_CURRENT_USER = nullptr;
CRegistryNode* CRegistry::HKEY_USERS = nullptr;
CRegistryNode* CRegistry::HKEY_CLASSES_ROOT = nullptr;
CRegistryNode* CRegistry::HKEY_CURRENT_CONFIG = nullptr;

namespace {

constexpr mode_t kFileMode = 0644;

/// The class-wide state shared by all handles.
struct TreeState {
    CCriticalSection lock;  ///< loading, saving, directory changes
    CRegistryNode root;
    std::atomic<bool> setUp{false};
    std::atomic<bool> dirty{false};
    std::atomic<uint64_t> saves{0};         ///< files written since the process started
    std::atomic<uint64_t> saveFailures{0};  ///< saves that left the tree dirty
    std::string directory{CRegistry::kDefaultDirectory};
    std::string current, backup, fresh, factory;

    void BuildPaths()
    {
        current = directory + "/" + CRegistry::kCurrentName;
        backup = directory + "/" + CRegistry::kBackupName;
        fresh = directory + "/" + CRegistry::kNewName;
        factory = directory + "/" + CRegistry::kDefaultName;
    }
};

TreeState& State()
{
    static TreeState state;
    return state;
}

struct RootKey {
    const char* name;
    CRegistryNode** handle;
};

const RootKey kRootKeys[] = {
    {"HKEY_LOCAL_MACHINE", &CRegistry::HKEY_LOCAL_MACHINE},
    {"HKEY_CURRENT_USER", &CRegistry::HKEY_CURRENT_USER},
    {"HKEY_USERS", &CRegistry::HKEY_USERS},
    {"HKEY_CLASSES_ROOT", &CRegistry::HKEY_CLASSES_ROOT},
    {"HKEY_CURRENT_CONFIG", &CRegistry::HKEY_CURRENT_CONFIG},
};

/// The subkey `name` of `node`, or null (also when `name` is a value).
/// Takes the node's lock.
CRegistryNode* FindSubKey(CRegistryNode* node, const char* name)
{
    CCriticalSectionLock lock(node->GetLock());
    CStrMap::Entry* e = node->Lookup(name);
    if (e == nullptr || e->type != RegSubKey)
        return nullptr;
    return static_cast<CRegistryNode*>(e->payload.ptr);
}

/// Splits off the next path component starting at `pos`: up to the next
/// '\\', or, when no '\\' follows, up to the next '/'.  Returns the
/// separator's position or npos.
size_t NextSeparator(const std::string& path, size_t pos)
{
    size_t sep = path.find('\\', pos);
    if (sep == std::string::npos)
        sep = path.find('/', pos);
    return sep;
}

// The registry file is line based: a section line '[' name ']' opens a key,
// a value line is name '=' type '=' text.  A line feed in a name or a text,
// an '=' in a name, a name that starts with '[' or a key name with a ']'
// would be written as it is and read back as keys and values nobody set
// (a text "x\n\n[Injected]" adds a key).  Such names and texts are refused,
// so that the file always reads back to the tree that was saved.
bool StorableName(const char* name, bool keyName)
{
    if (name == nullptr || name[0] == '[')
        return name == nullptr;
    for (const char* p = name; *p; ++p)
        if (*p == '\n' || *p == '=' || (keyName && *p == ']'))
            return false;
    return true;
}

// Every component of a key path, split as CreateKey splits it.
bool StorableKeyPath(const char* path)
{
    std::string work(path);
    size_t pos = 0;
    while (pos < work.size()) {
        size_t sep = NextSeparator(work, pos);
        if (!StorableName(work.substr(pos, sep == std::string::npos ? std::string::npos : sep - pos).c_str(), true))
            return false;
        if (sep == std::string::npos)
            break;
        work[sep] = '/';
        pos = sep + 1;
    }
    return true;
}

bool StorableText(const unsigned char* data, size_t size)
{
    return data == nullptr || memchr(data, '\n', size) == nullptr;
}

char* DupOrNull(const char* text)
{
    return text ? strdup(text) : nullptr;
}

// The save writes in pieces of this size, so that a large tree takes several
// writes (and a fault test can fail any one of them).
constexpr size_t kWritePiece = 4096;

tarvd::FileOps& Ops()
{
    static tarvd::FileOps ops = tarvd::SystemFileOps();
    return ops;
}

/// The tree as the registry file holds it, made in memory so that the file
/// itself is written by plain writes whose every failure is seen.
bool FormatTree(const CRegistryNode& root, std::string& text)
{
    char* buffer = nullptr;
    size_t length = 0;
    UniqueFile mem(open_memstream(&buffer, &length));
    bool ok = mem && root.dumpNode(mem.Get());
    if (mem && fclose(mem.Release()) != 0)
        ok = false;
    std::unique_ptr<char, decltype(&free)> owner(buffer, &free);
    if (ok && buffer != nullptr)
        text.assign(buffer, length);
    return ok;
}

/// Traces a failure the save went on after.
void TraceSaveWarning(void* context, tarvd::AtomicWrite::Step step, const std::string& path, int err)
{
    const auto& s = *static_cast<const TreeState*>(context);
    switch (step) {
    case tarvd::AtomicWrite::kMode:
        ReportFailure(SysLogTraces::SL_WARNING, "CRegistry: ERROR: Cannot set the mode of \"%s\": %s\n", path.c_str(), strerror(err));
        break;
    case tarvd::AtomicWrite::kBackup:
        ReportFailure(SysLogTraces::SL_WARNING, "CRegistry: ERROR: Cannot rename \"%s\" to \"%s\": %s\n", s.current.c_str(), s.backup.c_str(),
                  strerror(err));
        break;
    case tarvd::AtomicWrite::kSyncDir:
        ReportFailure(SysLogTraces::SL_WARNING, "CRegistry: ERROR: Cannot synchronise directory \"%s\": %s\n", path.c_str(), strerror(err));
        break;
    default:
        break;
    }
}

/// Traces the failure that stopped the save.
void TraceSaveFailure(const TreeState& s, const tarvd::AtomicWrite& w)
{
    const char* fresh = s.fresh.c_str();
    switch (w.failedStep) {
    case tarvd::AtomicWrite::kOpen:
        ReportFailure(SysLogTraces::SL_ERR, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", fresh);
        break;
    case tarvd::AtomicWrite::kReplace:
        ReportFailure(SysLogTraces::SL_ERR, "CRegistry: ERROR: Cannot rename \"%s\" to \"%s\": %s\n", fresh, s.current.c_str(),
                  strerror(w.failedErrno));
        break;
    default:  // the write, its fsync or the close
        ReportFailure(SysLogTraces::SL_ERR, "CRegistry: ERROR: Cannot write \"%s\": %s\n", fresh, strerror(w.failedErrno));
        break;
    }
}

} // namespace

// ---------------------------------------------------------------------------
// Construction

CRegistry::CRegistry()
{
    InitClass();
}

CRegistry::CRegistry(CRegistryNode*& key)
{
    InitClass();
    m_hKey = key;
}

CRegistry::CRegistry(const char* path, CRegistryNode*& parent, int access)
{
    InitClass();
    m_Status = Open(path, parent, access);
}

CRegistry::CRegistry(const CRegistry& other)
{
    CopyFrom(other);
}

CRegistry& CRegistry::operator=(const CRegistry& other)
{
    if (this != &other) {
        free(m_pValue);
        free(m_pPath);
        m_pValue = nullptr;
        m_pPath = nullptr;
        CopyFrom(other);
    }
    return *this;
}

void CRegistry::CopyFrom(const CRegistry& other)
{
    m_Status = other.m_Status;
    m_ValueSize = other.m_ValueSize;
    m_ValueType = other.m_ValueType;
    m_Expand = other.m_Expand;
    m_EnumIndex = other.m_EnumIndex;
    m_EnumPos = other.m_EnumPos;
    m_hKey = other.m_hKey;
    m_pPath = DupOrNull(other.m_pPath);
    if (other.m_pValue != nullptr && other.m_ValueSize > 0) {
        // An expanded text keeps its terminator behind the recorded size.
        size_t size = static_cast<size_t>(other.m_ValueSize) + 1;
        m_pValue = static_cast<unsigned char*>(malloc(size));
        if (m_pValue != nullptr)
            memcpy(m_pValue, other.m_pValue, size - 1), m_pValue[size - 1] = 0;
    }
}

CRegistry::~CRegistry()
{
    FreeClass();
}

void CRegistry::InitClass()
{
    DBG_PRINT(2, "\nCRegistry::InitClass");
    m_Status = 0;
    m_Expand = 1;
    m_EnumIndex = m_EnumPos = 0;
    m_ValueSize = 0;
    m_ValueType = 0;
    m_hKey = nullptr;
    m_pValue = nullptr;
    m_pPath = nullptr;
    SetupTree(false);

    CRegistryNode& root = State().root;
    CCriticalSectionLock lock(root.GetLock());
    for (const RootKey& rk : kRootKeys) {
        CStrMap::Entry* e = root.Lookup(rk.name);
        if (e != nullptr && e->type == RegSubKey && e->payload.ptr != nullptr) {
            // Written only when it changes: in the steady state handles
            // built on other threads read these without the lock.
            auto* node = static_cast<CRegistryNode*>(e->payload.ptr);
            if (*rk.handle != node)
                *rk.handle = node;
            continue;
        }
        DBG_PRINT(1, "CRegistry::InitClass() : re-initialize the registry-tree\n");
        auto* node = new (std::nothrow) CRegistryNode;
        if (node == nullptr || root.SetPointer(rk.name, node, RegSubKey) < 0) {
            delete node;
            *rk.handle = nullptr;
            continue;
        }
        *rk.handle = node;
    }
}

void CRegistry::FreeClass()
{
    free(m_pValue);
    free(m_pPath);
    m_pValue = nullptr;
    m_pPath = nullptr;
    SaveTree();
}

// ---------------------------------------------------------------------------
// Class-wide tree

bool CRegistry::ReadTree(const char* path, CRegistryNode* node)
{
    if (path == nullptr || *path == '\0') {
        DBG_PRINT(1, "CRegistry: ERROR: Empty file path");
        return false;
    }
    UniqueFile f(fopen(path, "re"));
    if (!f) {
        DBG_PRINT(1, "CRegistry: WARNING: Could not open \"%s\"\n", path);
        return false;
    }
    struct stat st {};
    if (fstat(fileno(f.Get()), &st) == 0 && st.st_size == 0) {
        DBG_PRINT(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path);
        return false;
    }
    if (node == nullptr || !node->restoreNode(f.Get())) {
        DBG_PRINT(1, "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this file\n",
                  path);
        return false;
    }
    return true;
}

void CRegistry::SetupTree(bool force)
{
    TreeState& s = State();
    CCriticalSectionLock lock(s.lock);
    if (s.setUp && !force)
        return;
    DBG_PRINT(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", force ? 1 : 0,
              s.setUp.load() ? 1 : 0, s.dirty.load() ? 1 : 0);
    try {
        s.BuildPaths();
        if (!ReadTree(s.current.c_str(), &s.root)) {
            ReportFailure(SysLogTraces::SL_WARNING, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n", s.current.c_str());
            if (!ReadTree(s.backup.c_str(), &s.root)) {
                ReportFailure(SysLogTraces::SL_WARNING, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n",
                          s.backup.c_str());
                if (!ReadTree(s.factory.c_str(), &s.root)) {
                    ReportFailure(SysLogTraces::SL_ERR, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n",
                              s.factory.c_str());
                    return;
                }
            }
        }
        for (const RootKey& rk : kRootKeys)
            *rk.handle = FindSubKey(&s.root, rk.name);
        s.setUp = true;
    } catch (...) {
        DBG_PRINT(2, "CRegistry: SetupTree(): ## ERROR during Setup\n");
        s.setUp = true;
    }
}

bool CRegistry::SaveTree()
{
    TreeState& s = State();
    if (!s.dirty)
        return true;
    CCriticalSectionLock lock(s.lock);
    if (!s.dirty)
        return true;  // saved by another thread meanwhile
    s.BuildPaths();
    // Cleared before the tree is written: a change made while the file is
    // being written marks the tree dirty again and is saved next time.
    s.dirty = false;

    std::string text;
    if (!FormatTree(s.root, text)) {
        ReportFailure(SysLogTraces::SL_ERR, "CRegistry: ERROR: Cannot format the tree for \"%s\"\n", s.fresh.c_str());
        s.dirty = true;
        ++s.saveFailures;
        return false;
    }
    // The new file is complete on disk before it replaces anything, and an
    // empty or missing current file is not kept as backup, so that a crash
    // at any moment leaves a whole current or backup file.
    tarvd::AtomicWrite write;
    write.path = s.current;
    write.tempPath = s.fresh;
    write.backupPath = s.backup;
    write.mode = kFileMode;
    write.piece = kWritePiece;
    write.ops = &Ops();
    write.onWarning = TraceSaveWarning;
    write.warningContext = &s;
    if (!write.Write(text.data(), text.size())) {
        TraceSaveFailure(s, write);
        s.dirty = true;
        ++s.saveFailures;
        return false;
    }
    // The file now holds the tree in memory.  A tree that could not be
    // loaded at start-up would otherwise be "loaded" from this very file by
    // the next handle: restoring it replaces every root key's subtree with
    // a copy of what was written, so changes made since then are lost and
    // the keys other handles hold are destroyed under them.
    s.setUp = true;
    ++s.saves;
    DBG_PRINT(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", s.fresh.c_str(), s.current.c_str());
    return true;
}

uint64_t CRegistry::GetSaveCount()
{
    return State().saves.load(std::memory_order_relaxed);
}

uint64_t CRegistry::GetSaveFailureCount()
{
    return State().saveFailures.load(std::memory_order_relaxed);
}

void CRegistry::SetFileOps(const FileOps* ops)
{
    TreeState& s = State();
    CCriticalSectionLock lock(s.lock);
    if (ops != nullptr)
        Ops() = tarvd::FileOps{ops->open, ops->write, ops->fsync, ops->rename};
    else
        Ops() = tarvd::SystemFileOps();
}

void CRegistry::ResetForTests()
{
    TreeState& s = State();
    CCriticalSectionLock lock(s.lock);
    s.root.Clear();
    for (const RootKey& rk : kRootKeys)
        *rk.handle = nullptr;
    s.setUp = false;
    s.dirty = false;
}

void CRegistry::SetRegistryDirectory(const char* directory)
{
    TreeState& s = State();
    CCriticalSectionLock lock(s.lock);
    s.directory = directory && *directory ? directory : kDefaultDirectory;
    s.BuildPaths();
    ResetForTests();
}

std::string CRegistry::GetRegistryDirectory()
{
    TreeState& s = State();
    CCriticalSectionLock lock(s.lock);
    return s.directory;
}

bool CRegistry::IsSetUp()
{
    return State().setUp;
}

bool CRegistry::IsDirty()
{
    return State().dirty;
}

CRegistryNode* CRegistry::GetRoot()
{
    return &State().root;
}

// ---------------------------------------------------------------------------
// Opening keys

uint32_t CRegistry::Open(const char* path, CRegistryNode* parent, int /*access*/)
{
    DBG_PRINT(2, "\nCRegistry::Open \"%s\", hKey = %d\n", path ? path : "",
              static_cast<int>(reinterpret_cast<intptr_t>(parent)));
    free(m_pPath);
    m_pPath = nullptr;
    CRegistryNode* node = parent ? parent : &State().root;
    if (path == nullptr) {
        m_Status = kOpenFailed;
        return kOpenFailed;
    }
    std::string work;
    try {
        work = path;
    } catch (...) {
        DBG_PRINT(2, "\nCRegistry::Open ##ERROR while opening !!!\n");
        m_Status = kOpenFailed;
        return kOpenFailed;
    }
    size_t pos = 0;
    while (pos < work.size()) {
        size_t sep = NextSeparator(work, pos);
        std::string component = work.substr(pos, sep == std::string::npos ? std::string::npos : sep - pos);
        node = FindSubKey(node, component.c_str());
        if (node == nullptr) {
            m_Status = kOpenFailed;
            return kOpenFailed;
        }
        if (sep == std::string::npos)
            break;
        work[sep] = '/';
        pos = sep + 1;
    }
    m_pPath = strdup(work.c_str());
    m_hKey = node;
    return kOk;
}

int CRegistry::CreateKey(CRegistryNode* parent, const char* path, bool, int)
{
    DBG_PRINT(2, "CRegistry::CreateKey \"%s\"\n", path ? path : "<null>");
    CRegistryNode* node = parent ? parent : m_hKey;
    if (node == nullptr || path == nullptr)
        return -1;
    // Checked whole before anything is created: a refused path leaves no
    // part of itself behind.
    if (!StorableKeyPath(path)) {
        DBG_PRINT(1, "CRegistry::CreateKey ## ERROR! key \"%s\" cannot be stored in the registry file\n", path);
        m_Status = kInvalid;
        return -1;
    }
    std::string work(path);
    size_t pos = 0;
    while (pos < work.size()) {
        size_t sep = NextSeparator(work, pos);
        std::string component = work.substr(pos, sep == std::string::npos ? std::string::npos : sep - pos);
        {
            CCriticalSectionLock lock(node->GetLock());
            CStrMap::Entry* e = node->Lookup(component.c_str());
            if (e != nullptr && e->type == RegSubKey && e->payload.ptr != nullptr) {
                node = static_cast<CRegistryNode*>(e->payload.ptr);
            } else if (e != nullptr && (e->type == RegNumber || e->payload.ptr != nullptr)) {
                return -1;  // the name is held by a value
            } else {
                auto* child = new (std::nothrow) CRegistryNode;
                if (child == nullptr || node->SetPointer(component.c_str(), child, RegSubKey) < 0) {
                    delete child;
                    return -1;
                }
                State().dirty = true;
                node = child;
            }
        }
        if (sep == std::string::npos)
            break;
        work[sep] = '/';
        pos = sep + 1;
    }
    m_hKey = node;
    return 0;
}

uint32_t CRegistry::OpenPointerKey(const char* valueName, const char*, int, CRegistryNode* parent, int access)
{
    DBG_PRINT(2, "CRegistry::OpenPointer \"%s\"\n", kPointerKeyPath);
    if (Open(kPointerKeyPath, parent, access) != kOk)
        return kOpenFailed;
    std::string target;
    if (valueName == nullptr || QueryValue(target, valueName) != kOk || target.empty()) {
        m_Status = kOpenFailed;
        return kOpenFailed;
    }
    size_t sep = target.find('\\');
    if (sep == std::string::npos)
        sep = target.find('/');
    if (sep == std::string::npos) {
        m_Status = kOpenFailed;
        return kOpenFailed;
    }
    // Only the root-key name is case-insensitive in stored pointers.
    for (size_t i = 0; i < sep; ++i)
        target[i] = static_cast<char>(toupper(static_cast<unsigned char>(target[i])));
    target[sep] = '/';
    return Open(target.c_str(), nullptr, access);
}

uint32_t CRegistry::OpenUUIDPointer(const char* valueName, CRegistryNode* parent, int access, const char*, bool)
{
    return OpenPointerKey(valueName, nullptr, 0, parent, access);
}

bool CRegistry::GetProductRegistryRoot(std::string& out, const char* valueName)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        CRegistry reg;
        if (reg.Open(kPointerKeyPath, HKEY_LOCAL_MACHINE) == kOk && reg.QueryValue(out, valueName) == kOk)
            return true;
    }
    return false;
}

bool CRegistry::Close()
{
    bool wasOpen = m_hKey != nullptr;
    m_hKey = nullptr;
    return wasOpen;
}

CRegistryNode* CRegistry::KeepKeyHandle()
{
    CRegistryNode* key = m_hKey;
    m_hKey = nullptr;
    return key;
}

// ---------------------------------------------------------------------------
// Values

char* CRegistry::ExpandText(const char* text)
{
    if (text == nullptr)
        return nullptr;
    // Two passes over the same rules: measure, then build.
    auto walk = [text](char* out) -> size_t {
        size_t n = 0;
        auto put = [&](const char* s, size_t len) {
            if (out)
                memcpy(out + n, s, len);
            n += len;
        };
        const char* p = text;
        while (*p != '\0') {
            if (*p != '%') {
                put(p, 1);
                ++p;
                continue;
            }
            const char* close = strchr(p + 1, '%');
            if (close == nullptr) {
                ++p;  // a lone '%' is dropped, the rest kept as it stands
                continue;
            }
            if (close == p + 1) {
                put("%", 1);
            } else {
                std::string name(p + 1, close);
                if (const char* value = getenv(name.c_str()))
                    put(value, strlen(value));
            }
            p = close + 1;
        }
        return n;
    };
    size_t len = walk(nullptr);
    char* result = static_cast<char*>(malloc(len + 1));
    if (result == nullptr)
        return nullptr;
    walk(result);
    result[len] = '\0';
    return result;
}

uint32_t CRegistry::GetValueSize(const char* name, CRegistryNode* key)
{
    CRegistryNode* node = KeyOrCurrent(key);
    if (node == nullptr)
        return kInvalid;
    if (name == nullptr)
        return 0;
    CCriticalSectionLock lock(node->GetLock());
    const CStrMap::Entry* e = node->Lookup(name);
    if (e == nullptr)
        return 0;
    switch (e->type) {
    case RegString:
    case RegExpandString:
        return e->payload.ptr ? static_cast<uint32_t>(strlen(static_cast<const char*>(e->payload.ptr)) + 1) : 0;
    case RegBinary:
        return CRegistryNode::BinaryCount(e->payload.ptr);
    case RegNumber:
        return 4;
    default:
        return 0;
    }
}

unsigned char* CRegistry::GetValue(const char* name, CRegistryNode* key)
{
    CRegistryNode* node = KeyOrCurrent(key);
    if (node == nullptr) {
        m_Status = kInvalid;
        return nullptr;
    }
    CCriticalSectionLock lock(node->GetLock());
    uint32_t size = GetValueSize(name, node);
    m_ValueSize = static_cast<int32_t>(size);
    if (size == 0)
        return nullptr;
    const CStrMap::Entry* e = node->Lookup(name);
    if (e == nullptr)
        return nullptr;
    free(m_pValue);
    m_pValue = static_cast<unsigned char*>(malloc(size));
    if (m_pValue == nullptr)
        return nullptr;
    if (e->type == RegNumber)
        memcpy(m_pValue, &e->payload.number, 4);
    else if (e->type == RegBinary)
        memcpy(m_pValue, static_cast<const unsigned char*>(e->payload.ptr) + 4, size);
    else
        memcpy(m_pValue, e->payload.ptr, size);
    m_ValueType = e->type;
    if (e->type == RegExpandString && m_Expand) {
        char* expanded = ExpandText(reinterpret_cast<const char*>(m_pValue));
        free(m_pValue);
        m_pValue = reinterpret_cast<unsigned char*>(expanded);
        if (m_pValue == nullptr)
            return nullptr;
        m_ValueSize = static_cast<int32_t>(strlen(expanded));
    }
    return m_pValue;
}

uint32_t CRegistry::ReadText(const char* name, CRegistryNode* key, std::string& out)
{
    CRegistryNode* node = KeyOrCurrent(key);
    if (node == nullptr)
        return kInvalid;
    if (name == nullptr)
        return kNoData;
    CCriticalSectionLock lock(node->GetLock());
    const CStrMap::Entry* e = node->Lookup(name);
    if (e == nullptr || (e->type != RegString && e->type != RegExpandString) || e->payload.ptr == nullptr)
        return kNoData;
    const char* text = static_cast<const char*>(e->payload.ptr);
    try {
        if (e->type == RegExpandString && m_Expand) {
            char* expanded = ExpandText(text);
            if (expanded == nullptr)
                return kNoData;
            out = expanded;
            free(expanded);
        } else {
            out = text;
        }
    } catch (...) {
        return kNoData;
    }
    return kOk;
}

uint32_t CRegistry::QueryValue(unsigned int* out, const char* name, CRegistryNode* key)
{
    CRegistryNode* node = KeyOrCurrent(key);
    if (node == nullptr)
        return m_Status = kInvalid;
    if (out == nullptr || name == nullptr)
        return m_Status = kNoData;
    CCriticalSectionLock lock(node->GetLock());
    const CStrMap::Entry* e = node->Lookup(name);
    if (e == nullptr || e->type != RegNumber)
        return m_Status = kNoData;
    *out = e->payload.number;
    return m_Status = kOk;
}

uint32_t CRegistry::QueryValue(std::string& out, const char* name, CRegistryNode* key)
{
    return m_Status = ReadText(name, key, out);
}

uint32_t CRegistry::QueryValue(char* dst, const char* name, unsigned int* count, CRegistryNode* key)
{
    std::string text;
    uint32_t rc = ReadText(name, key, text);
    if (rc != kOk)
        return m_Status = rc;
    if (count == nullptr) {
        DBG_PRINT(1, "CRegistry::QueryValue: ** ERROR **  pdwCount is a NULL pointer\n");
        return m_Status = kRange;
    }
    const size_t len = text.size();
    if (dst == nullptr) {
        *count = static_cast<unsigned>(len + 1);
        return m_Status = kOk;
    }
    if (*count <= len) {
        memcpy(dst, text.data(), *count);
        return m_Status = kRange;
    }
    memcpy(dst, text.c_str(), len + 1);
    *count = static_cast<unsigned>(len);
    return m_Status = kOk;
}

uint32_t CRegistry::QueryValue(char* dst, const char* name, unsigned int count, CRegistryNode* key)
{
    return QueryValue(dst, name, &count, key);
}

bool CRegistry::SetValue(const char* name, const unsigned char* data, unsigned int size, unsigned int type,
                         CRegistryNode* key)
{
    CRegistryNode* node = KeyOrCurrent(key);
    if (node == nullptr)
        return false;
    const bool text = type == RegString || type == RegExpandString;
    if (!StorableName(name, false) || (text && !StorableText(data, size))) {
        DBG_PRINT(1, "CRegistry::SetValue ## ERROR! value \"%s\" cannot be stored in the registry file\n",
                  name ? name : "");
        m_Status = kInvalid;
        return false;
    }
    State().dirty = true;
    DBG_PRINT(2, "CRegistry::SetValue \"%s\" %d %d\n", name ? name : "", static_cast<int>(size),
              static_cast<int>(type));
    if (data == nullptr && size > 0)
        return false;
    CStrMap::Entry entry{};
    entry.type = type;
    switch (type) {
    case RegBinary: {
        if (size > UINT32_MAX - 4)
            return false;
        auto* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(size) + 4));
        if (p == nullptr)
            return false;
        memcpy(p, &size, 4);
        if (size > 0)
            memcpy(p + 4, data, size);
        entry.payload.ptr = p;
        break;
    }
    case RegString:
    case RegExpandString: {
        auto* p = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
        if (p == nullptr)
            return false;
        if (size > 0)
            memcpy(p, data, size);
        p[size] = '\0';
        entry.payload.ptr = p;
        break;
    }
    case RegNumber:
        if (size != 4)
            return false;
        memcpy(&entry.payload.number, data, 4);
        break;
    default:
        return false;
    }
    if (name == nullptr) {
        if (type != RegNumber)
            free(entry.payload.ptr);
        return true;
    }
    CCriticalSectionLock lock(node->GetLock());
    bool replaced = false;
    if (node->Set(name, entry, &replaced) < 0) {
        if (type != RegNumber)
            free(entry.payload.ptr);
        return false;
    }
    // Marked again now that the value is in the tree: a save that ran
    // between the first mark and the insertion has cleared the flag without
    // writing this value.
    State().dirty = true;
    if (replaced)
        DBG_PRINT(2, "CRegistry::SetValue oEntry = %p\n", static_cast<void*>(node->Lookup(name)));
    return true;
}

uint32_t CRegistry::SetValue(const char* name, unsigned int number)
{
    return SetValue(name, reinterpret_cast<const unsigned char*>(&number), 4, RegNumber, nullptr) ? kOk : kInvalid;
}

uint32_t CRegistry::SetValue(const char* name, const char* text)
{
    if (text == nullptr)
        return kInvalid;
    return SetValue(name, reinterpret_cast<const unsigned char*>(text), static_cast<unsigned>(strlen(text)), RegString,
                    nullptr)
               ? kOk
               : kInvalid;
}

// ---------------------------------------------------------------------------
// Enumeration and deletion

uint32_t CRegistry::NoOfSubKeys(unsigned int* count)
{
    if (count == nullptr || m_hKey == nullptr)
        return kInvalid;
    CCriticalSectionLock lock(m_hKey->GetLock());
    unsigned n = 0;
    for (int i = 0; i < m_hKey->GetCount(); ++i)
        if (m_hKey->At(i).type == RegSubKey)
            ++n;
    *count = n;
    return kOk;
}

namespace {

/// Copies `src` cut to `*size` - 1 characters and terminated; `*size`
/// becomes the number of characters copied.
void CopyName(char* dst, unsigned* size, const char* src)
{
    if (*size == 0)
        return;
    size_t len = strlen(src);
    if (len > *size - 1)
        len = *size - 1;
    memcpy(dst, src, len);
    dst[len] = '\0';
    *size = static_cast<unsigned>(len);
}

} // namespace

uint32_t CRegistry::EnumKey(char* name, unsigned int* nameSize, unsigned int index, char*, unsigned int* clsSize)
{
    m_EnumIndex = m_EnumPos = 0;
    if (m_hKey == nullptr || name == nullptr || nameSize == nullptr)
        return kInvalid;
    CCriticalSectionLock lock(m_hKey->GetLock());
    for (int i = 0; i < m_hKey->GetCount(); ++i) {
        const CStrMap::Entry& e = m_hKey->At(i);
        if (e.type != RegSubKey || e.name == nullptr)
            continue;
        if (m_EnumIndex++ != index)
            continue;
        m_EnumPos = static_cast<uint32_t>(i + 1);
        CopyName(name, nameSize, e.name);
        if (clsSize != nullptr)
            *clsSize = 0;
        return kOk;
    }
    return kNoData;
}

uint32_t CRegistry::EnumKey(char* name, unsigned int nameSize, unsigned int index, char* cls, unsigned int clsSize)
{
    return EnumKey(name, &nameSize, index, cls, &clsSize);
}

uint32_t CRegistry::EnumVal(char* name, unsigned int* nameSize, unsigned int index, unsigned int typeFilter,
                            unsigned char* data, unsigned int* dataSize)
{
    m_EnumIndex = m_EnumPos = 0;
    if (m_hKey == nullptr || name == nullptr || nameSize == nullptr)
        return kInvalid;
    CRegistryNode* node = m_hKey;
    CCriticalSectionLock lock(node->GetLock());
    for (int i = 0; i < node->GetCount(); ++i) {
        const CStrMap::Entry& e = node->At(i);
        if (e.name == nullptr)
            continue;
        bool passes = typeFilter == RegAnyValue ? e.type != RegSubKey : e.type == typeFilter;
        if (!passes || m_EnumIndex++ != index)
            continue;
        m_EnumPos = static_cast<uint32_t>(i + 1);
        std::string entryName(e.name);
        CopyName(name, nameSize, entryName.c_str());
        if (data == nullptr) {
            if (dataSize != nullptr)
                *dataSize = 0;
        } else if (e.type == RegString || e.type == RegExpandString) {
            if (QueryValue(reinterpret_cast<char*>(data), entryName.c_str(), dataSize, node) != kOk)
                return kInvalid;
        } else if (e.type == RegNumber && dataSize != nullptr && *dataSize >= 4) {
            memcpy(data, &e.payload.number, 4);
            *dataSize = 4;
        } else if (dataSize != nullptr) {
            // Binary values are read with GetValue, never enumerated with data.
            *dataSize = 0;
        }
        return kOk;
    }
    return kNoData;
}

uint32_t CRegistry::DeleteValue(const char* name)
{
    DBG_PRINT(2, "CRegistry::DeleteValue \"%s\"\n", name ? name : "");
    if (m_hKey == nullptr)
        return kInvalid;
    State().dirty = true;
    if (name == nullptr)
        return kOk;
    m_hKey->Remove(name);
    State().dirty = true;  // again, after the change (see SetValue)
    return kOk;
}

uint32_t CRegistry::DeleteKey(const char* name)
{
    DBG_PRINT(2, "CRegistry::DeleteKey \"%s\"\n", name ? name : "");
    if (m_hKey == nullptr || name == nullptr)
        return kInvalid;
    CCriticalSectionLock lock(m_hKey->GetLock());
    CStrMap::Entry* e = m_hKey->Lookup(name);
    if (e == nullptr || e->type != RegSubKey)
        return kInvalid;
    m_hKey->Remove(name);
    State().dirty = true;
    return kOk;
}

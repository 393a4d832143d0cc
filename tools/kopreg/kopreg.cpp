// kopreg: lists, reads, writes and deletes keys and values of the agent's
// registry, and exports and imports subtrees in the registry's file form.
#include "tools/common/JsonWriter.h"
#include "tools/common/ToolSupport.h"

#include "common/CCriticalSection.h"
#include "common/NumberParse.h"
#include "common/UniqueHandle.h"
#include "registry/CRegistry.h"
#include "registry/CRegistryNode.h"
#include "trace/CDebug.h"

#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

CDebug Debug;

namespace {

const char* const kUsage =
    "Usage: kopreg [--dir DIR] [--json] COMMAND ARGUMENTS\n"
    "Reads and changes the agent's registry (default directory /etc/tarvd).\n"
    "\n"
    "Commands:\n"
    "  list [KEY]                       subkeys and values of KEY (root keys without KEY)\n"
    "  get KEY VALUE [--expand]         one value (--expand: expandable strings expanded)\n"
    "  set KEY VALUE --type T DATA      store a value (KEY is created when missing); T is\n"
    "                                   s (string), es (expandable\n"
    "                                   string), b (binary, hex bytes such as \"0a ff 00\"\n"
    "                                   or 0aff00) or d (32-bit number 0 to\n"
    "                                   4294967295, decimal or 0x0 to 0xffffffff;\n"
    "                                   no sign)\n"
    "  delete-value KEY VALUE           remove a value\n"
    "  delete-key KEY SUBKEY            remove a subkey with everything below it\n"
    "  create KEY                       create a key and the keys above it\n"
    "  export KEY FILE                  write KEY's values and subkeys to FILE\n"
    "                                   (- for standard output)\n"
    "  import KEY FILE                  read FILE (as written by export; - for\n"
    "                                   standard input) into KEY, creating KEY\n"
    "                                   when needed\n"
    "\n"
    "KEY is a path such as HKEY_LOCAL_MACHINE\\SOFTWARE\\X or HKEY_LOCAL_MACHINE/SOFTWARE/X;\n"
    "HKLM, HKCU, HKU, HKCR and HKCC stand for the root keys.\n"
    "\n"
    "Options:\n"
    "  --dir DIR   registry directory (files registry, registry.old, registry.default)\n"
    "  --json      output as one JSON document, also on failure (then an\n"
    "              object with the member \"error\"); commands that change the\n"
    "              registry report {\"command\": ..., \"ok\": true}\n"
    "  --help      this text\n"
    "  --version   the tool's version\n"
    "\n"
    "Changes to the registry in /etc/tarvd are refused while kopd runs: the\n"
    "daemon keeps the registry in memory and would overwrite them.\n"
    "\n"
    "Exit status: 0 ok, 1 registry not loadable, unknown key or value, write\n"
    "failure or kopd running, 2 usage error.\n";

// The largest file import reads: far above any real export, small enough
// to hold in memory.
constexpr size_t kImportSizeLimit = 64u << 20;

// The daemon's single-instance lock: held while kopd runs.
constexpr const char* kDaemonLockFile = "/var/lock/kopd.lock";

/// The commands that change the registry.
bool ChangesRegistry(const std::string& cmd)
{
    return cmd == "set" || cmd == "delete-value" || cmd == "delete-key" || cmd == "create" || cmd == "import";
}

/// True while kopd holds its lock.  A shared lock is tried and given back
/// at once: the daemon's exclusive lock refuses it.
bool DaemonRunning()
{
    UniqueFd fd(open(kDaemonLockFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd)
        return false;
    if (flock(fd.Get(), LOCK_SH | LOCK_NB) == 0) {
        flock(fd.Get(), LOCK_UN);
        return false;
    }
    return errno == EWOULDBLOCK;
}

/// The running daemon keeps the registry in memory and writes all of it at
/// its next save: a change made to its files now would be lost a moment
/// later, so it is refused.  Only the daemon's own directory is concerned.
bool RefusedWhileDaemonRuns(const std::string& cmd, const std::string& dir)
{
    std::string d = dir;
    while (d.size() > 1 && d.back() == '/')
        d.pop_back();
    if (!ChangesRegistry(cmd) || d != CRegistry::kDefaultDirectory || !DaemonRunning())
        return false;
    tools::Fail("kopd is running and keeps the registry in %s in memory: a change made now would be "
                "overwritten at its next save; stop kopd first (systemctl stop kopd), then try again",
                d.c_str());
    return true;
}

struct Options {
    std::string dir = CRegistry::kDefaultDirectory;
    bool json = false;
    bool expand = false;
    std::string type;
    std::vector<std::string> args;
    bool informational = false;  // --help or --version answered
};

/// Expands the short root-key names and drops separators at the ends.
std::string NormaliseKey(std::string key)
{
    static const struct {
        const char* shortName;
        const char* name;
    } kRoots[] = {{"HKLM", "HKEY_LOCAL_MACHINE"},
                  {"HKCU", "HKEY_CURRENT_USER"},
                  {"HKU", "HKEY_USERS"},
                  {"HKCR", "HKEY_CLASSES_ROOT"},
                  {"HKCC", "HKEY_CURRENT_CONFIG"}};
    while (!key.empty() && (key.front() == '\\' || key.front() == '/'))
        key.erase(0, 1);
    while (!key.empty() && (key.back() == '\\' || key.back() == '/'))
        key.pop_back();
    size_t sep = key.find_first_of("\\/");
    std::string first = key.substr(0, sep);
    for (const auto& r : kRoots)
        if (first == r.shortName)
            key = r.name + (sep == std::string::npos ? std::string() : key.substr(sep));
    return key;
}

const char* TypeTag(uint32_t type)
{
    switch (type) {
    case RegString: return "s";
    case RegExpandString: return "es";
    case RegBinary: return "b";
    case RegNumber: return "d";
    default: return "?";
    }
}

std::string HexBytes(const unsigned char* data, size_t n)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(buf, sizeof buf, "%02x", data[i]);
        if (i)
            out += ' ';
        out += buf;
    }
    return out;
}

bool ParseHex(const std::string& text, std::vector<unsigned char>& out)
{
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == ',' || c == '\t')
            continue;
        if (tarvd::HexDigitValue(c) < 0)
            return false;
        digits += c;
    }
    if (digits.size() % 2 != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<unsigned char>(tarvd::HexDigitValue(digits[i]) * 16 + tarvd::HexDigitValue(digits[i + 1])));
    return true;
}

/// One value as the tool shows it.
struct ValueView {
    std::string name;
    uint32_t type = 0;
    std::string text;                 // strings: the stored text
    std::vector<unsigned char> bytes; // binary
    uint32_t number = 0;
};

bool ViewOf(const CStrMap::Entry& e, ValueView& v)
{
    if (e.name == nullptr || e.type == RegSubKey)
        return false;
    v.name = e.name;
    v.type = e.type;
    switch (e.type) {
    case RegString:
    case RegExpandString:
        v.text = e.payload.ptr ? static_cast<const char*>(e.payload.ptr) : "";
        return true;
    case RegBinary:
        if (e.payload.ptr) {
            uint32_t n = CRegistryNode::BinaryCount(e.payload.ptr);
            const unsigned char* p = static_cast<const unsigned char*>(e.payload.ptr) + 4;
            v.bytes.assign(p, p + n);
        }
        return true;
    case RegNumber:
        v.number = e.payload.number;
        return true;
    default:
        return false;
    }
}

std::string DisplayData(const ValueView& v, bool expand)
{
    switch (v.type) {
    case RegBinary: return HexBytes(v.bytes.data(), v.bytes.size());
    case RegNumber: return std::to_string(v.number);
    case RegExpandString:
        if (expand) {
            char* x = CRegistry::ExpandText(v.text.c_str());
            std::string s = x ? x : "";
            free(x);
            return s;
        }
        return v.text;
    default: return v.text;
    }
}

void JsonValue(CJsonWriter& w, const ValueView& v, bool expand)
{
    w.BeginObject();
    w.Key("name").String(v.name);
    w.Key("type").String(TypeTag(v.type));
    w.Key("data");
    if (v.type == RegNumber)
        w.Unsigned(v.number);
    else
        w.String(DisplayData(v, expand));
    w.EndObject();
}

void PrintHuman(const ValueView& v, bool expand)
{
    printf("%s\t%s\t%s\n", v.name.c_str(), TypeTag(v.type), DisplayData(v, expand).c_str());
}

bool FileExists(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

/// False (with a message naming the path and the reason) when the registry
/// directory or one of its files is there but cannot be read: reading on
/// would take an unreadable file for a missing one, and the next save would
/// replace it.
bool CheckReadable(const std::string& dir)
{
    UniqueFd d(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!d) {
        tools::Fail("cannot open the registry directory %s: %s", dir.c_str(), strerror(errno));
        return false;
    }
    for (const char* name : {CRegistry::kCurrentName, CRegistry::kBackupName, CRegistry::kDefaultName}) {
        const std::string path = dir + "/" + name;
        UniqueFd f(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!f && errno != ENOENT) {
            tools::Fail("cannot read %s: %s", path.c_str(), strerror(errno));
            return false;
        }
    }
    return true;
}

/// Loads the tree from `dir`.  False (with a message) when the directory
/// or a file in it cannot be read, or when registry files exist but none
/// of them could be loaded.
bool LoadRegistry(const std::string& dir)
{
    if (!CheckReadable(dir))
        return false;
    CRegistry::SetRegistryDirectory(dir.c_str());
    const std::string current = dir + "/" + CRegistry::kCurrentName;
    bool anyFile = FileExists(current) || FileExists(dir + "/" + CRegistry::kBackupName) ||
                   FileExists(dir + "/" + CRegistry::kDefaultName);
    { CRegistry probe; }
    if (!CRegistry::IsSetUp()) {
        if (anyFile) {
            tools::Fail("cannot load the registry in %s: %s, %s and %s are missing, empty or damaged", dir.c_str(),
                        CRegistry::kCurrentName, CRegistry::kBackupName, CRegistry::kDefaultName);
            return false;
        }
        return true;  // a fresh directory: an empty tree
    }
    if (FileExists(current)) {
        CRegistryNode scratch;
        if (!CRegistry::ReadTree(current.c_str(), &scratch))
            tools::Warn("%s is empty or damaged; the backup or the default file was used instead", current.c_str());
    } else {
        tools::Warn("%s is missing; the backup or the default file was used instead", current.c_str());
    }
    return true;
}

bool OpenKey(CRegistry& reg, const std::string& key)
{
    if (reg.Open(NormaliseKey(key).c_str(), nullptr) != 0) {
        tools::Fail("no such key: %s", key.c_str());
        return false;
    }
    return true;
}

/// True when a value other than `skipValue` of `skipValueKey` is stored
/// anywhere below `root` outside the subtree `skipKey` (either may be null).
bool HoldsValueBesides(CRegistryNode* root, const CRegistryNode* skipKey, const CRegistryNode* skipValueKey,
                       const char* skipValue)
{
    std::vector<CRegistryNode*> pending{root};
    while (!pending.empty()) {
        CRegistryNode* node = pending.back();
        pending.pop_back();
        if (node == skipKey)
            continue;
        CCriticalSectionLock lock(node->GetLock());
        for (int i = 0; i < node->GetCount(); ++i) {
            const CStrMap::Entry& e = node->At(i);
            if (e.name == nullptr || (node == skipValueKey && strcmp(e.name, skipValue) == 0))
                continue;
            if (e.type != RegSubKey)
                return true;
            if (e.payload.ptr != nullptr)
                pending.push_back(static_cast<CRegistryNode*>(e.payload.ptr));
        }
    }
    return false;
}

/// A registry file without a single value reads back as damaged, and its
/// backup would take its place at the next load: a deletion that leaves no
/// value would silently come undone, so it is refused before anything is
/// deleted.
int RefuseEmptying()
{
    return tools::Fail("not deleted: the registry would hold no value at all, and a registry file without "
                       "values reads as damaged (its backup would be loaded instead); keep at least one value");
}

int Save()
{
    if (CRegistry::SaveTree())
        return tools::kExitOk;
    // The registry traces the failed step to the system log; the operator
    // here is told the reason too: an unnamed file in the directory shows
    // whether it can be written at all (and leaves nothing behind).
    const std::string dir = CRegistry::GetRegistryDirectory();
    UniqueFd probe(open(dir.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    int err = probe ? 0 : errno;
    if (err == EOPNOTSUPP || err == EISDIR)  // no unnamed files on this file system
        err = access(dir.c_str(), W_OK) == 0 ? 0 : errno;
    return tools::Fail("cannot save the registry in %s: %s", dir.c_str(),
                       err != 0 ? strerror(err) : "the file could not be written completely (see the system log)");
}

int CreatePath(CRegistry& reg, const std::string& key)
{
    std::string path = NormaliseKey(key);
    if (path.empty())
        return tools::UsageError("the key must not be empty");
    if (reg.CreateKey(CRegistry::GetRoot(), path.c_str()) != 0)
        return tools::Fail("cannot create %s (a part of the path is a value)", key.c_str());
    return tools::kExitOk;
}

int CmdList(const Options& o)
{
    std::string key = o.args.size() > 1 ? o.args[1] : "";
    CRegistry reg;
    if (!OpenKey(reg, key))
        return tools::kExitFailure;
    CRegistryNode* node = reg.GetKey();
    std::vector<std::string> subkeys;
    std::vector<ValueView> values;
    {
        CCriticalSectionLock lock(node->GetLock());
        for (int i = 0; i < node->GetCount(); ++i) {
            const CStrMap::Entry& e = node->At(i);
            if (e.name == nullptr)
                continue;
            ValueView v;
            if (e.type == RegSubKey)
                subkeys.emplace_back(e.name);
            else if (ViewOf(e, v))
                values.push_back(std::move(v));
        }
    }
    if (o.json) {
        CJsonWriter w;
        w.BeginObject();
        w.Key("key").String(NormaliseKey(key));
        w.Key("subkeys").BeginArray();
        for (auto& s : subkeys)
            w.String(s);
        w.EndArray();
        w.Key("values").BeginArray();
        for (auto& v : values)
            JsonValue(w, v, o.expand);
        w.EndArray();
        w.EndObject();
        printf("%s\n", w.Text().c_str());
    } else {
        for (auto& s : subkeys)
            printf("[%s]\n", s.c_str());
        for (auto& v : values)
            PrintHuman(v, o.expand);
    }
    return tools::kExitOk;
}

int CmdGet(const Options& o)
{
    if (o.args.size() != 3)
        return tools::UsageError("usage: get KEY VALUE");
    CRegistry reg;
    if (!OpenKey(reg, o.args[1]))
        return tools::kExitFailure;
    CRegistryNode* node = reg.GetKey();
    ValueView v;
    bool found = false;
    {
        CCriticalSectionLock lock(node->GetLock());
        const CStrMap::Entry* e = node->Lookup(o.args[2].c_str());
        found = e != nullptr && ViewOf(*e, v);
    }
    if (!found)
        return tools::Fail("no such value: %s in %s", o.args[2].c_str(), o.args[1].c_str());
    if (o.json) {
        CJsonWriter w;
        JsonValue(w, v, o.expand);
        printf("%s\n", w.Text().c_str());
    } else {
        printf("%s\n", DisplayData(v, o.expand).c_str());
    }
    return tools::kExitOk;
}

/// The bytes and type code of `set`'s DATA for `--type`; a usage error's
/// exit status when they do not fit.
int ParseValueData(const Options& o, std::vector<unsigned char>& bytes, unsigned int& type)
{
    const std::string& data = o.args[3];
    if (o.type == "s" || o.type == "es") {
        type = o.type == "s" ? RegString : RegExpandString;
        if (data.find('\n') != std::string::npos)
            return tools::UsageError("a string value cannot hold a line feed");
        bytes.assign(data.begin(), data.end());
    } else if (o.type == "b") {
        type = RegBinary;
        if (!ParseHex(data, bytes))
            return tools::UsageError("binary data must be pairs of hexadecimal digits, e.g. \"0a ff 00\"");
    } else if (o.type == "d") {
        // A DWORD is 0 to 4294967295, decimal or 0x hexadecimal; a sign is
        // refused rather than wrapped into a large number.
        type = RegNumber;
        unsigned long long n = 0;
        if (!tools::ParseUnsigned(data.c_str(), 0xFFFFFFFFull, n, true))
            return tools::UsageError("a number (type d) must be 0 to 4294967295 or 0x0 to 0xffffffff, not '%s'",
                                     data.c_str());
        uint32_t v = static_cast<uint32_t>(n);
        bytes.resize(4);
        memcpy(bytes.data(), &v, 4);
    } else if (o.type.empty()) {
        return tools::UsageError("set needs --type s|es|b|d");
    } else {
        return tools::UsageError("unknown value type '%s' (s, es, b or d)", o.type.c_str());
    }
    return tools::kExitOk;
}

int CmdSet(const Options& o)
{
    if (o.args.size() != 4)
        return tools::UsageError("usage: set KEY VALUE --type s|es|b|d DATA");
    std::vector<unsigned char> bytes;
    unsigned int type = 0;
    if (int rc = ParseValueData(o, bytes, type); rc != tools::kExitOk)
        return rc;
    if (o.args[2].empty() || o.args[2].find('=') != std::string::npos)
        return tools::UsageError("a value name must not be empty or contain '='");
    CRegistry reg;
    int rc = CreatePath(reg, o.args[1]);
    if (rc != tools::kExitOk)
        return rc;
    {
        CRegistryNode* node = reg.GetKey();
        CCriticalSectionLock lock(node->GetLock());
        const CStrMap::Entry* e = node->Lookup(o.args[2].c_str());
        if (e != nullptr && e->type == RegSubKey)
            return tools::Fail("%s is a subkey of %s, not a value", o.args[2].c_str(), o.args[1].c_str());
    }
    if (!reg.SetValue(o.args[2].c_str(), bytes.empty() ? nullptr : bytes.data(),
                      static_cast<unsigned int>(bytes.size()), type))
        return tools::Fail("cannot store %s", o.args[2].c_str());
    return Save();
}

int CmdDeleteValue(const Options& o)
{
    if (o.args.size() != 3)
        return tools::UsageError("usage: delete-value KEY VALUE");
    CRegistry reg;
    if (!OpenKey(reg, o.args[1]))
        return tools::kExitFailure;
    {
        CRegistryNode* node = reg.GetKey();
        CCriticalSectionLock lock(node->GetLock());
        const CStrMap::Entry* e = node->Lookup(o.args[2].c_str());
        if (e == nullptr || e->type == RegSubKey)
            return tools::Fail("no such value: %s in %s", o.args[2].c_str(), o.args[1].c_str());
    }
    if (!HoldsValueBesides(CRegistry::GetRoot(), nullptr, reg.GetKey(), o.args[2].c_str()))
        return RefuseEmptying();
    if (reg.DeleteValue(o.args[2].c_str()) != 0)
        return tools::Fail("cannot delete %s", o.args[2].c_str());
    return Save();
}

int CmdDeleteKey(const Options& o)
{
    if (o.args.size() != 3)
        return tools::UsageError("usage: delete-key KEY SUBKEY");
    CRegistry reg;
    if (!OpenKey(reg, o.args[1]))
        return tools::kExitFailure;
    CRegistryNode* sub = nullptr;
    {
        CRegistryNode* node = reg.GetKey();
        CCriticalSectionLock lock(node->GetLock());
        const CStrMap::Entry* e = node->Lookup(o.args[2].c_str());
        if (e != nullptr && e->type == RegSubKey)
            sub = static_cast<CRegistryNode*>(e->payload.ptr);
    }
    if (sub != nullptr && !HoldsValueBesides(CRegistry::GetRoot(), sub, nullptr, nullptr))
        return RefuseEmptying();
    if (reg.DeleteKey(o.args[2].c_str()) != 0)
        return tools::Fail("no such key: %s in %s", o.args[2].c_str(), o.args[1].c_str());
    return Save();
}

int CmdCreate(const Options& o)
{
    if (o.args.size() != 2)
        return tools::UsageError("usage: create KEY");
    CRegistry reg;
    int rc = CreatePath(reg, o.args[1]);
    return rc != tools::kExitOk ? rc : Save();
}

int CmdExport(const Options& o)
{
    if (o.args.size() != 3)
        return tools::UsageError("usage: export KEY FILE");
    const std::string& path = o.args[2];
    if (path == "-" && o.json)
        return tools::UsageError("export to standard output (-) writes the registry's file form, not JSON: "
                                 "leave out --json");
    CRegistry reg;
    if (!OpenKey(reg, o.args[1]))
        return tools::kExitFailure;
    if (path == "-") {
        bool ok = reg.GetKey()->dumpNode(stdout);
        if (fflush(stdout) != 0 || ferror(stdout) || !ok)
            return tools::Fail("cannot write to standard output: %s", strerror(errno));
        return tools::kExitOk;
    }
    UniqueFile f(fopen(path.c_str(), "we"));
    if (!f)
        return tools::Fail("cannot write %s: %s", path.c_str(), strerror(errno));
    bool ok = reg.GetKey()->dumpNode(f.Get());
    if (fclose(f.Release()) != 0 || !ok)
        return tools::Fail("cannot write %s: %s", path.c_str(), strerror(errno));
    return tools::kExitOk;
}

int CmdImport(const Options& o)
{
    if (o.args.size() != 3)
        return tools::UsageError("usage: import KEY FILE");
    // The file is read once, bounded, and parsed twice: first to check it
    // before anything in the tree changes, then into the tree ("-" is
    // standard input, which cannot be read twice).
    const std::string& path = o.args[2];
    const char* shown = path == "-" ? "standard input" : path.c_str();
    std::string content;
    if (!tools::ReadInputFile(path, kImportSizeLimit, content))
        return tools::Fail("cannot read %s: %s", shown,
                           errno == EFBIG ? "larger than 64 MiB, not a registry export" : strerror(errno));
    if (content.empty())
        return tools::Fail("%s holds no registry values or keys", shown);
    {
        UniqueFile check(fmemopen(content.data(), content.size(), "r"));
        CRegistryNode scratch;
        if (!check || (!scratch.restoreNode(check.Get()) && scratch.GetCount() == 0))
            return tools::Fail("%s holds no registry values or keys", shown);
    }
    UniqueFile f(fmemopen(content.data(), content.size(), "r"));
    if (!f)
        return tools::Fail("cannot read %s: %s", shown, strerror(errno));
    CRegistry reg;
    int rc = CreatePath(reg, o.args[1]);
    if (rc != tools::kExitOk)
        return rc;
    reg.GetKey()->restoreNode(f.Get());
    // Mark the tree changed (a value without a name stores nothing).
    reg.SetValue(nullptr, nullptr, 0, RegString);
    return Save();
}

/// Reads the options and arguments into `o`.  @return -1 to go on, else
/// the exit status (help shown, or a usage error).
int ParseArguments(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            o.informational = true;
            return tools::kExitOk;
        } else if (a == "--version") {
            o.informational = true;
            return tools::PrintVersion();
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--expand") {
            o.expand = true;
        } else if (a == "--dir" || a == "--type") {
            if (i + 1 >= argc)
                return tools::UsageError("option %s needs a value", a.c_str());
            (a == "--dir" ? o.dir : o.type) = argv[++i];
        } else if (a == "--") {
            for (++i; i < argc; ++i)
                o.args.push_back(argv[i]);
        } else if (a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9')) {
            return tools::UsageError("unknown option '%s'", a.c_str());
        } else {
            o.args.push_back(a);
        }
    }
    if (o.args.empty())
        return tools::UsageError("no command given");
    return -1;
}

/// Runs the command of `o` on the loaded registry.
int RunCommand(const Options& o)
{
    const std::string& cmd = o.args[0];
    static const struct {
        const char* name;
        int (*fn)(const Options&);
    } kCommands[] = {{"list", CmdList},           {"get", CmdGet},           {"set", CmdSet},
                     {"delete-value", CmdDeleteValue}, {"delete-key", CmdDeleteKey}, {"create", CmdCreate},
                     {"export", CmdExport},       {"import", CmdImport}};
    for (const auto& c : kCommands) {
        if (cmd == c.name) {
            if (cmd == "list" && o.args.size() > 2)
                return tools::UsageError("usage: list [KEY]");
            if (RefusedWhileDaemonRuns(cmd, o.dir) || !LoadRegistry(o.dir))
                return tools::kExitFailure;
            return c.fn(o);
        }
    }
    return tools::UsageError("unknown command '%s'", cmd.c_str());
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("kopreg");
    Options o;
    int rc = ParseArguments(argc, argv, o);
    if (rc < 0)
        rc = RunCommand(o);
    // In JSON mode every run writes one document: list and get write theirs
    // on success, the commands that change the registry a short report, and
    // a failure the message.
    if (tools::HasOption(argc, argv, "--json") && !o.informational) {
        if (rc != tools::kExitOk)
            tools::PrintJsonError(std::cout, tools::FirstError());
        else if (!o.args.empty() && o.args[0] != "list" && o.args[0] != "get")
            printf("{\"command\": %s, \"ok\": true}\n", CJsonWriter::Quote(o.args[0]).c_str());
    }
    return rc;
}

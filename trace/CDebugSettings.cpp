// The trace configuration: every setting comes from its environment
// variable, else from the trace configuration files, else from its default.
// The cascade is one table; the files are read first, then every row of the
// table is resolved the same way.
#include "trace/CDebugInternal.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

namespace tracedetail {

namespace {

// Environment numbers are decimal; the files' numbers follow C's prefixes.
uint64_t EnvUnsigned(const char* text) { return static_cast<unsigned>(strtoul(text, nullptr, 10)); }
uint64_t EnvSigned(const char* text) { return static_cast<uint64_t>(strtol(text, nullptr, 10)); }

struct SettingRow {
    const char* envName;                // the variable that wins (null: none)
    uint64_t (*parseEnv)(const char*);  // its parser
    const char* iniKey;                 // the key in the files (null: none)
    bool globalSection;                 // the key is in the global file's section
    bool resetBeforeRead;               // forgotten when the files are read again
    bool rereadWhileRunning;            // taken again when its file changes
    uint32_t CDebugSettings::*fileValue;  // what the file said (kUnset: nothing)
    uint64_t CDebugSettings::*value;    // in effect (null: the file's value is used as it is)
    uint64_t fallback;                  // the default
};

// The cascade.  Rows without a file key fall back to the value in effect
// (unless that is unset); rows without an effective value are file-only.
// The ring directory (a text) follows the same rule in ReadDirectory.
const SettingRow kSettings[] = {
    {"TR_LOG_DYNAMIC_UPDATE", EnvSigned, "DynamicUpdate", true, false, true, &CDebugSettings::iniDynamicUpdate,
     &CDebugSettings::dynamicInterval, 0},
    {"TR_LOG_FILE_MAX_SIZE", EnvUnsigned, nullptr, false, false, false, nullptr, &CDebugSettings::logMaxSize,
     kDefaultLogMaxSize},
    {"TR_LOG_DEBUG_LEVEL", EnvUnsigned, "FileDebugLevel", false, false, true, &CDebugSettings::iniLevel,
     &CDebugSettings::level, 0},
    // The ring factor shares its variable with the agent's configuration key.
    {"TraceFileLimit", EnvUnsigned, "RingBufferSizeFactor", false, true, false, &CDebugSettings::iniRingFactor,
     &CDebugSettings::ringFactor, 0},
    {"TR_LOG_RINGBUF_WEIGHT", EnvUnsigned, "RingBufferSizeWeight", false, true, false,
     &CDebugSettings::iniRingWeight, &CDebugSettings::ringWeight, 0},
    {"TR_LOG_NOHDR_TOSDTERR", EnvUnsigned, "NoHeaderToStderr", false, true, false, &CDebugSettings::iniNoHeader,
     &CDebugSettings::noHeader, 1},
    {nullptr, nullptr, "TraceFlags", false, false, true, &CDebugSettings::traceFlags, nullptr, 0},
    {nullptr, nullptr, "MemoryTracesFlag", false, true, true, &CDebugSettings::memoryTraces, nullptr, 0},
};

struct NameList {
    struct dirent** names = nullptr;
    int count = 0;
    ~NameList()
    {
        for (int i = 0; i < count; ++i)
            free(names[i]);
        free(names);
    }
};

// The keys of one section (global or program) into the file values.
void ReadKeys(CDebugSettings& s, const CDebugTraceConfigFile& file, bool global, bool rereading)
{
    unsigned long number = 0;
    for (const SettingRow& row : kSettings) {
        if (!row.iniKey || row.globalSection != global || (rereading && !row.rereadWhileRunning))
            continue;
        if (!file.ReadNumber(row.iniKey, number))
            continue;
        s.*row.fileValue = static_cast<uint32_t>(number);
        if (!rereading || !row.value)
            continue;
        // A change while running takes effect at once (the interval with
        // all the bits the file gave).
        s.*row.value = global ? number : static_cast<uint32_t>(number);
        if (row.value == &CDebugSettings::level)
            s.savedLevel = static_cast<unsigned>(s.level);
    }
}

// Re-reads `file` when it changed since it was read; forgets it when it is gone.
void RereadIfChanged(CDebugSettings& s, CDebugTraceConfigFile& file, const char* section, bool global)
{
    struct stat st;
    if (file.Path().empty())
        return;
    if (stat(file.Path().c_str(), &st) != 0) {
        file.CloseSectionInIniFile();
        return;
    }
    if (st.st_mtime <= file.ModificationTime())
        return;
    file.SetStat(static_cast<uint64_t>(st.st_size), st.st_mtime);
    if (file.OpenSectionInIniFile(section, nullptr, nullptr))
        ReadKeys(s, file, global, true);
}

} // namespace

void CDebugSettings::Read(const char* programName)
{
    NameList list;
    list.count = scandir(configDirectory.c_str(), &list.names, CDirectoryList::SelectFilesInDir, alphasort);
    if (list.count == 0)
        return; // a directory without files switches tracing off, whatever the environment says
    if (list.count < 0) {
        list.count = 0;
        list.names = nullptr;
    }
    for (const SettingRow& row : kSettings)
        if (row.resetBeforeRead)
            this->*row.fileValue = kUnset;
    iniRingDir[0] = '\0';

    globalFile.CloseSectionInIniFile();
    if (globalFile.OpenSectionInIniFile(kGlobalSection, kGlobalConfigFile, configDirectory.c_str()))
        ReadKeys(*this, globalFile, true, false);
    // The first file with a section of the program counts.
    programFile.CloseSectionInIniFile();
    for (int i = 0; i < list.count; ++i) {
        if (!programFile.OpenSectionInIniFile(programName, list.names[i]->d_name, configDirectory.c_str()))
            continue;
        std::string dir;
        if (programFile.ReadValue("RingBufferDirectory", dir, CDebugTraceConfigFile::kDirectoryLimit))
            CopyPath(iniRingDir, dir.c_str());
        ReadKeys(*this, programFile, false, false);
        break;
    }
    ApplyCascade();
}

void CDebugSettings::ApplyCascade()
{
    for (const SettingRow& row : kSettings) {
        if (!row.value)
            continue;
        const char* env = row.envName ? getenv(row.envName) : nullptr;
        if (env) {
            this->*row.value = row.parseEnv(env);
            continue;
        }
        const uint64_t fromFile = row.fileValue ? this->*row.fileValue : this->*row.value;
        this->*row.value = fromFile != kUnset ? fromFile : row.fallback;
    }
    // The ring directory decides for all trace files, also over
    // TR_LOG_FILE_DIR: log file and ring buffers always lie side by side.
    const char* dir = getenv("TR_LOG_RINGBUF_DIR");
    CopyPath(traceDir, dir ? dir : (iniRingDir[0] ? iniRingDir : kDefaultTraceDirectory));
    savedLevel = static_cast<unsigned>(level);
}

void CDebugSettings::RereadChangedFiles(const char* programName)
{
    RereadIfChanged(*this, globalFile, kGlobalSection, true);
    RereadIfChanged(*this, programFile, programName, false);
}

} // namespace tracedetail

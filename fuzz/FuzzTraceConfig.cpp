// Fuzz target: trace configuration files (section search and value reading).
#include "FuzzSupport.h"

#include "trace/CDebugTraceConfigFile.h"

TARVD_FUZZ_TARGET(data, size)
{
    const std::string& dir = fuzzsupport::ScratchDir();
    if (!fuzzsupport::WriteWhole(dir + "/trace.ini", data, size))
        return 0;
    static const char* const kSections[] = {"GlobalDebugSettings", "kopd", "EndOfFile", ""};
    static const char* const kKeys[] = {"DebugLevel",          "RingBufferSizeFactor", "RingBufferSizeWeight",
                                        "RingBufferDirectory", "DynamicUpdate",        "NoHeaderToStderr",
                                        "MemoryTracesFlag",    "TraceFlags",           "="};
    for (const char* section : kSections) {
        CDebugTraceConfigFile file;
        bool open = file.OpenSectionInIniFile(section, "trace.ini", dir.c_str());
        FUZZ_CHECK(open == file.IsOpen());
        if (!open) {
            FUZZ_CHECK(file.Path().empty());
            continue;
        }
        for (const char* key : kKeys) {
            std::string value = "untouched";
            if (file.ReadValue(key, value))
                FUZZ_CHECK(value.size() <= CDebugTraceConfigFile::kValueLimit);
            else
                FUZZ_CHECK(value == "untouched");
            if (file.ReadValue(key, value, CDebugTraceConfigFile::kDirectoryLimit))
                FUZZ_CHECK(value.size() <= CDebugTraceConfigFile::kDirectoryLimit);
            unsigned long number = 12345;
            file.ReadNumber(key, number);
        }
        file.CloseSectionInIniFile();
        FUZZ_CHECK(!file.IsOpen());
    }
    return 0;
}

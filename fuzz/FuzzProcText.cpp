// Fuzz target: the readers of the performance monitor's /proc text files
// (/proc/stat, /proc/meminfo, /proc/net/dev lines): the line reader, the
// number parsers and the keyed-number parser.
#include "FuzzSupport.h"

#include "perfmon/ProcParse.h"

#include <string_view>

TARVD_FUZZ_TARGET(data, size)
{
    const std::string path = fuzzsupport::ScratchDir() + "/proctext";
    if (!fuzzsupport::WriteWhole(path, data, size))
        return 0;
    perfmon::CProcLineReader reader;
    if (!reader.Open(path))
        return 0;
    std::string line;
    size_t lines = 0;
    while (reader.Next(line)) {
        FUZZ_CHECK(line.find('\n') == std::string::npos);
        ++lines;
        uint64_t values[16];
        int n = perfmon::ParseU64List(line, values, 16);
        FUZZ_CHECK(n >= 0 && n <= 16);
        // /proc/stat "cpu" lines, /proc/meminfo keys, /proc/net/dev rows.
        std::string_view view(line);
        uint64_t v = 0;
        perfmon::ParseKeyedU64(view, "cpu", v);
        perfmon::ParseKeyedU64(view, "MemTotal:", v);
        perfmon::ParseKeyedU64(view, "btime", v);
        size_t colon = view.find(':');
        if (colon != std::string_view::npos) {
            perfmon::IsMonitoredInterfaceName(view.substr(0, colon));
            perfmon::ParseU64List(view.substr(colon + 1), values, 16);
        }
        const char* p = line.data();
        const char* before = p;
        if (!perfmon::ParseU64(p, line.data() + line.size(), v))
            FUZZ_CHECK(p == before);
        else
            FUZZ_CHECK(p > before && p <= line.data() + line.size());
    }
    FUZZ_CHECK(lines <= size + 1);
    std::string whole;
    perfmon::ReadSmallFile(path, whole);
    return 0;
}

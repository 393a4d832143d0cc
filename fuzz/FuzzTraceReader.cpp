// Fuzz target: the trace file reader on arbitrary ring-buffer and log-file bytes.
#include "FuzzSupport.h"

#include "trace/CTraceReader.h"

#include <vector>

TARVD_FUZZ_TARGET(data, size)
{
    const char* text = reinterpret_cast<const char*>(data);
    size_t total = 0;
    std::vector<std::string> entries;
    bool wrapped = false;
    CTraceReader::ParseRingBuffer(text, size, entries, &wrapped);
    for (const std::string& e : entries) {
        total += e.size();
        // Entries are lines: the reader never hands out a newline.
        FUZZ_CHECK(e.find('\n') == std::string::npos);
        std::string m = CTraceReader::MessageOf(e);
        FUZZ_CHECK(m.size() <= e.size());
        CTraceReader::IsEntryLine(e.data(), e.size());
    }
    FUZZ_CHECK(total <= size);

    std::vector<std::string> lines;
    total = 0;
    CTraceReader::ParseLogFile(text, size, lines, &wrapped);
    for (const std::string& l : lines) {
        total += l.size();
        FUZZ_CHECK(l.find('\n') == std::string::npos);
        FUZZ_CHECK(CTraceReader::MessageOf(l).size() <= l.size());
    }
    FUZZ_CHECK(total <= size);
    CTraceReader::IsEntryLine(text, size);
    return 0;
}

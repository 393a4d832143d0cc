// koptrace: prints the trace files of a program (the log file, the initial
// ring buffer, plain or compressed, and the active ring buffer) in time
// order, optionally filtered, and can follow the active ring buffer.
#include "tools/common/JsonWriter.h"
#include "tools/common/ToolSupport.h"

#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

CDebug Debug;

namespace {

constexpr const char* kDefaultTraceDir = "/var/log/tarvd";
constexpr long kFollowPollMs = 200;
// Offsets in an entry line: "yyyy-mm-dd hh:mm:ss.mmm [XXXXXXXX] ".
constexpr size_t kTimeLength = 23;
constexpr size_t kThreadOpen = 24;
constexpr size_t kNameStart = 35;
// With the memory column: "%8zu KB !" before the name.
constexpr size_t kMemoryColumnLength = 13;

volatile sig_atomic_t g_Stop = 0;
void OnSignal(int) { g_Stop = 1; }

const char* const kUsage =
    "Usage: koptrace [OPTIONS] PROGRAM\n"
    "       koptrace [OPTIONS] FILE...\n"
    "Prints the trace files of PROGRAM (log.PROGRAM, log.PROGRAM_i.gz or\n"
    "log.PROGRAM_i, log.PROGRAM_a in the trace directory) or the given files\n"
    "in time order.\n"
    "\n"
    "Options:\n"
    "  --dir DIR        trace directory (default /var/log/tarvd)\n"
    "  --thread HEX     only entries of this thread id\n"
    "  --name TEXT      only entries whose name column is TEXT\n"
    "  --follow         keep printing new entries of the active ring buffer\n"
    "                   until interrupted (SIGINT or SIGTERM)\n"
    "  --json           a JSON array of entries: file, time, thread,\n"
    "                   memory_kb, name, text\n"
    "  --help           this text\n"
    "\n"
    "Exit status: 0 ok, 1 missing, truncated or damaged file, 2 usage error.\n";

enum class FileKind { Log, Ring, GzipRing };

struct TraceFile {
    std::string path;
    FileKind kind;
};

struct Entry {
    std::string file;
    std::string line;
    std::string key;  // time stamp that orders the entry
    bool isEntry = false;
    std::optional<std::string> time;
    std::optional<uint32_t> thread;
    std::optional<uint64_t> memoryKb;
    std::optional<std::string> name;
    std::string text;
};

bool Exists(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

bool EndsWith(const std::string& s, const char* suffix)
{
    size_t n = strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}


FileKind GuessKind(const std::string& path)
{
    if (EndsWith(path, ".gz"))
        return FileKind::GzipRing;
    if (EndsWith(path, "_a") || EndsWith(path, "_i"))
        return FileKind::Ring;
    std::string content;
    if (tools::ReadFileBounded(path, CTraceReader::kFileSizeLimit, content) &&
        (content.find("### Begin of RingBuffer. ###") != std::string::npos ||
         content.find("## TRACE-END ##") != std::string::npos))
        return FileKind::Ring;
    return FileKind::Log;
}

/// Splits an entry line into its columns (all bounded by the line's length).
void ParseColumns(Entry& e)
{
    const std::string& l = e.line;
    e.isEntry = CTraceReader::IsEntryLine(l.data(), l.size());
    e.text = CTraceReader::MessageOf(l);
    if (!e.isEntry)
        return;
    e.time = l.substr(0, kTimeLength);
    if (l.size() >= kThreadOpen + 10 && l[kThreadOpen] == '[' && l[kThreadOpen + 9] == ']') {
        std::string hex = l.substr(kThreadOpen + 1, 8);
        if (std::all_of(hex.begin(), hex.end(), [](char c) { return isxdigit(static_cast<unsigned char>(c)); }))
            e.thread = static_cast<uint32_t>(strtoul(hex.c_str(), nullptr, 16));
    }
    size_t nameStart = kNameStart;
    if (l.size() >= kNameStart + kMemoryColumnLength && l.compare(kNameStart + 8, 5, " KB !") == 0) {
        std::string digits = l.substr(kNameStart, 8);
        size_t p = digits.find_first_not_of(' ');
        if (p != std::string::npos &&
            std::all_of(digits.begin() + p, digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
            e.memoryKb = strtoull(digits.c_str() + p, nullptr, 10);
        nameStart += kMemoryColumnLength;
    }
    // The name column runs up to the message (one blank in between).
    if (l.size() >= nameStart && l.size() >= e.text.size() + 1) {
        size_t nameEnd = l.size() - e.text.size() - 1;
        if (nameEnd >= nameStart) {
            std::string name = l.substr(nameStart, nameEnd - nameStart);
            while (!name.empty() && name.back() == ' ')
                name.pop_back();
            e.name = name;
        }
    }
}

/// Reads one file's lines in time order.  False (with a message) when the
/// file is missing or damaged; `lines` then holds what could be recovered.
bool ReadTraceFile(const TraceFile& f, std::vector<std::string>& lines, bool quiet = false)
{
    lines.clear();
    if (!Exists(f.path)) {
        if (!quiet)
            tools::Fail("%s: no such file", f.path.c_str());
        return false;
    }
    bool ok = false;
    switch (f.kind) {
    case FileKind::Log:
        ok = CTraceReader::ReadLogFile(f.path, lines);
        if (!ok && !quiet)
            tools::Fail("%s: cannot read the log file completely (%zu lines recovered)", f.path.c_str(), lines.size());
        break;
    case FileKind::Ring:
        ok = CTraceReader::ReadRingBuffer(f.path, lines);
        if (!ok && !quiet)
            tools::Fail("%s: truncated or damaged ring buffer (%zu entries recovered)", f.path.c_str(), lines.size());
        break;
    case FileKind::GzipRing: {
        std::string content;
        if (!CTraceReader::ReadGzipFile(f.path, content)) {
            if (!quiet)
                tools::Fail("%s: cannot decompress the file", f.path.c_str());
            return false;
        }
        ok = CTraceReader::ParseRingBuffer(content.data(), content.size(), lines);
        if (!ok && !quiet)
            tools::Fail("%s: truncated or damaged ring buffer (%zu entries recovered)", f.path.c_str(), lines.size());
        break;
    }
    }
    return ok;
}

void AppendEntries(const std::string& file, const std::vector<std::string>& lines, std::vector<Entry>& out)
{
    std::string key;
    for (const std::string& l : lines) {
        Entry e;
        e.file = file;
        e.line = l;
        ParseColumns(e);
        if (e.time)
            key = *e.time;
        e.key = key;
        out.push_back(std::move(e));
    }
}

// Lines written regardless of the level stand both in the log file and in
// the ring buffer, with the same time stamp (to the millisecond), thread and
// text: show them once, as the ring buffer's entry.
void DropLogCopiesOfRingEntries(std::vector<Entry>& entries, const std::vector<TraceFile>& files)
{
    auto isLog = [&files](const std::string& path) {
        for (const TraceFile& f : files)
            if (f.path == path)
                return f.kind == FileKind::Log;
        return false;
    };
    std::vector<Entry> kept;
    kept.reserve(entries.size());
    size_t i = 0;
    while (i < entries.size()) {
        size_t end = i;
        while (end < entries.size() && entries[end].key == entries[i].key)
            ++end;
        for (size_t k = i; k < end; ++k) {
            const Entry& e = entries[k];
            bool duplicate = false;
            if (e.isEntry && isLog(e.file)) {
                for (size_t r = i; r < end && !duplicate; ++r)
                    duplicate = r != k && entries[r].isEntry && !isLog(entries[r].file) &&
                                entries[r].thread == e.thread && entries[r].text == e.text;
            }
            if (!duplicate)
                kept.push_back(std::move(entries[k]));
        }
        i = end;
    }
    entries.swap(kept);
}

struct Filter {
    std::optional<uint32_t> thread;
    std::optional<std::string> name;

    // Continuation lines (no header) follow the verdict of their entry.
    bool Accept(const Entry& e, bool& lastAccepted) const
    {
        if (!e.isEntry)
            return lastAccepted;
        bool ok = true;
        if (thread && (!e.thread || *e.thread != *thread))
            ok = false;
        if (name && (!e.name || *e.name != *name))
            ok = false;
        lastAccepted = ok;
        return ok;
    }
};

class Printer {
public:
    explicit Printer(bool json) : m_Json(json), m_Writer(false) {}

    void Begin()
    {
        if (m_Json)
            fputs("[", stdout);
    }
    void Print(const Entry& e)
    {
        if (!m_Json) {
            fwrite(e.line.data(), 1, e.line.size(), stdout);
            fputc('\n', stdout);
            return;
        }
        m_Writer.BeginObject();
        m_Writer.Key("file").String(e.file);
        m_Writer.Key("time").OptString(e.time);
        m_Writer.Key("thread");
        if (e.thread) {
            char buf[16];
            snprintf(buf, sizeof buf, "%08X", *e.thread);
            m_Writer.String(buf);
        } else {
            m_Writer.Null();
        }
        m_Writer.Key("memory_kb").OptUnsigned(e.memoryKb);
        m_Writer.Key("name").OptString(e.name);
        m_Writer.Key("text").String(e.text);
        m_Writer.EndObject();
        fputs(m_First ? "\n" : ",\n", stdout);
        m_First = false;
        std::string text = m_Writer.Take();
        fwrite(text.data(), 1, text.size(), stdout);
    }
    void End()
    {
        if (m_Json)
            fputs(m_First ? "]\n" : "\n]\n", stdout);
        fflush(stdout);
    }

private:
    bool m_Json;
    bool m_First = true;
    CJsonWriter m_Writer;
};

void SleepMs(long ms)
{
    struct timespec ts {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);  // a signal ends the sleep early
}

/// What follow mode has printed last: the newest line and every line of the
/// newest time stamp (to recognise them when the newest line was overwritten
/// by a wrap of the ring).
struct FollowState {
    std::string lastLine;
    std::string lastKey;
    std::set<std::string> atLastKey;

    void Remember(const std::vector<Entry>& printed)
    {
        for (const Entry& e : printed) {
            if (e.key != lastKey) {
                lastKey = e.key;
                atLastKey.clear();
            }
            atLastKey.insert(e.line);
            lastLine = e.line;
        }
    }
};

/// Polls the ring `file` and prints the entries written after those in `state`.
void Follow(const TraceFile& file, FollowState state, const Filter& filter, Printer& printer)
{
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    bool lastAccepted = true;
    std::vector<std::string> lines;
    while (!g_Stop) {
        SleepMs(kFollowPollMs);
        if (g_Stop)
            break;
        // A read that races with the writer may see no end marker: try again
        // at the next poll.
        if (!ReadTraceFile(file, lines, true) || lines.empty())
            continue;
        std::vector<Entry> all;
        AppendEntries(file.path, lines, all);
        std::vector<Entry> fresh;
        auto it = state.lastLine.empty() ? lines.rend() : std::find(lines.rbegin(), lines.rend(), state.lastLine);
        if (it != lines.rend()) {
            size_t from = static_cast<size_t>(lines.rend() - it);
            fresh.assign(all.begin() + static_cast<long>(from), all.end());
        } else {
            // Nothing printed yet, or the last printed entry was overwritten
            // by a wrap: everything newer than what was printed.
            for (Entry& e : all)
                if (e.key > state.lastKey || (e.key == state.lastKey && !state.atLastKey.count(e.line)))
                    fresh.push_back(std::move(e));
        }
        if (fresh.empty())
            continue;
        for (const Entry& e : fresh)
            if (filter.Accept(e, lastAccepted))
                printer.Print(e);
        fflush(stdout);
        state.Remember(fresh);
    }
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("koptrace");
    std::string dir = kDefaultTraceDir;
    bool json = false;
    bool follow = false;
    Filter filter;
    std::vector<std::string> args;

    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto needValue = [&](const char* opt) -> const char* {
            if (i + 1 >= argc)
                return nullptr;
            (void)opt;
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return tools::kExitOk;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--follow" || a == "-f") {
            follow = true;
        } else if (a == "--dir") {
            const char* v = needValue("--dir");
            if (!v)
                return tools::UsageError("option --dir needs a directory");
            dir = v;
        } else if (a == "--thread") {
            const char* v = needValue("--thread");
            unsigned long long id = 0;
            std::string t = v ? v : "";
            if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X'))
                t = t.substr(2);
            if (!v || t.empty() || t.size() > 8 ||
                !std::all_of(t.begin(), t.end(), [](char c) { return isxdigit(static_cast<unsigned char>(c)); }))
                return tools::UsageError("option --thread needs a hexadecimal thread id");
            id = strtoull(t.c_str(), nullptr, 16);
            filter.thread = static_cast<uint32_t>(id);
        } else if (a == "--name") {
            const char* v = needValue("--name");
            if (!v)
                return tools::UsageError("option --name needs a text");
            filter.name = v;
        } else if (a == "--") {
            for (++i; i < argc; ++i)
                args.push_back(argv[i]);
        } else if (!a.empty() && a[0] == '-') {
            return tools::UsageError("unknown option '%s'", a.c_str());
        } else {
            args.push_back(a);
        }
    }
    if (args.empty())
        return tools::UsageError("no program name or trace file given");

    std::vector<TraceFile> files;
    bool programMode = args.size() == 1 && args[0].find('/') == std::string::npos && !Exists(args[0]);
    if (programMode) {
        std::string name = args[0];
        for (char& c : name)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        std::string base = dir + "/log." + name;
        if (Exists(base))
            files.push_back({base, FileKind::Log});
        if (Exists(base + "_i.gz"))
            files.push_back({base + "_i.gz", FileKind::GzipRing});
        if (Exists(base + "_i"))
            files.push_back({base + "_i", FileKind::Ring});
        if (Exists(base + "_a"))
            files.push_back({base + "_a", FileKind::Ring});
        if (files.empty())
            return tools::Fail("no trace files of '%s' in %s", args[0].c_str(), dir.c_str());
    } else {
        for (const std::string& a : args)
            files.push_back({a, GuessKind(a)});
    }

    // The ring buffer that is written now: the active one, or the initial
    // one while the program is still starting up.
    const TraceFile* live = nullptr;
    for (const TraceFile& f : files)
        if (f.kind == FileKind::Ring)
            live = &f;
    if (follow && live == nullptr)
        return tools::Fail("--follow needs a ring buffer file (log.NAME_a or log.NAME_i)");

    bool ok = true;
    std::vector<Entry> entries;
    FollowState followState;
    for (const TraceFile& f : files) {
        std::vector<std::string> lines;
        if (!ReadTraceFile(f, lines))
            ok = false;
        if (&f == live) {
            std::vector<Entry> liveEntries;
            AppendEntries(f.path, lines, liveEntries);
            followState.Remember(liveEntries);
        }
        AppendEntries(f.path, lines, entries);
    }
    // Merge the files by time; entries of one time keep their file order.
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.key < b.key; });
    DropLogCopiesOfRingEntries(entries, files);

    Printer printer(json);
    printer.Begin();
    bool lastAccepted = true;
    for (const Entry& e : entries)
        if (filter.Accept(e, lastAccepted))
            printer.Print(e);
    fflush(stdout);
    if (follow)
        Follow(*live, followState, filter, printer);
    printer.End();
    return ok ? tools::kExitOk : tools::kExitFailure;
}

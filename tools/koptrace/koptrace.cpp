// koptrace: prints the trace files of a program (the log file, the initial
// ring buffer, plain or compressed, and the active ring buffer) in time
// order, optionally filtered, and can follow the file written now.
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
    "                   (or of the log file when there is no ring buffer)\n"
    "                   until interrupted (SIGINT or SIGTERM)\n"
    "  --json           a JSON array of entries: file, time, thread,\n"
    "                   memory_kb, name, text\n"
    "  --help           this text\n"
    "  --version        the tool's version\n"
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

/// Splits an entry line into its columns, as the trace reader reads them.
void ParseColumns(Entry& e)
{
    CTraceReader::EntryColumns c = CTraceReader::ParseEntry(e.line);
    e.isEntry = c.isEntry;
    e.time = std::move(c.time);
    e.thread = c.thread;
    e.memoryKb = c.memoryKb;
    e.name = std::move(c.name);
    e.text = std::move(c.text);
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

struct Options {
    std::string dir = kDefaultTraceDir;
    bool json = false;
    bool follow = false;
    Filter filter;
    std::vector<std::string> args;
};

/// The value of --thread: up to 8 hexadecimal digits, "0x" allowed.
bool ParseThreadId(const char* v, uint32_t& id)
{
    std::string t = v ? v : "";
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X'))
        t = t.substr(2);
    if (!v || t.empty() || t.size() > 8 ||
        !std::all_of(t.begin(), t.end(), [](char c) { return isxdigit(static_cast<unsigned char>(c)); }))
        return false;
    id = static_cast<uint32_t>(strtoull(t.c_str(), nullptr, 16));
    return true;
}

/// Parses the command line; an exit status when the program ends here.
std::optional<int> ParseArguments(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        auto take = [&]() { return value ? argv[++i] : nullptr; };
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return tools::kExitOk;
        } else if (a == "--version") {
            return tools::PrintVersion();
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--follow" || a == "-f") {
            o.follow = true;
        } else if (a == "--dir") {
            if (!take())
                return tools::UsageError("option --dir needs a directory");
            o.dir = value;
        } else if (a == "--thread") {
            uint32_t id = 0;
            if (!ParseThreadId(take(), id))
                return tools::UsageError("option --thread needs a hexadecimal thread id");
            o.filter.thread = id;
        } else if (a == "--name") {
            if (!take())
                return tools::UsageError("option --name needs a text");
            o.filter.name = value;
        } else if (a == "--") {
            for (++i; i < argc; ++i)
                o.args.push_back(argv[i]);
        } else if (!a.empty() && a[0] == '-') {
            return tools::UsageError("unknown option '%s'", a.c_str());
        } else {
            o.args.push_back(a);
        }
    }
    if (o.args.empty())
        return tools::UsageError("no program name or trace file given");
    return std::nullopt;
}

/// The files to show: a program's trace files in the directory, or the
/// files named.  An exit status when there are none.
std::optional<int> CollectFiles(const Options& o, std::vector<TraceFile>& files)
{
    const std::vector<std::string>& args = o.args;
    bool programMode = args.size() == 1 && args[0].find('/') == std::string::npos && !Exists(args[0]);
    if (!programMode) {
        for (const std::string& a : args)
            files.push_back({a, GuessKind(a)});
        return std::nullopt;
    }
    std::string name = args[0];
    for (char& c : name)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    std::string base = o.dir + "/log." + name;
    const std::pair<const char*, FileKind> candidates[] = {
        {"", FileKind::Log}, {"_i.gz", FileKind::GzipRing}, {"_i", FileKind::Ring}, {"_a", FileKind::Ring}};
    for (const auto& [suffix, kind] : candidates)
        if (Exists(base + suffix))
            files.push_back({base + suffix, kind});
    if (files.empty())
        return tools::Fail("no trace files of '%s' in %s", args[0].c_str(), o.dir.c_str());
    return std::nullopt;
}

/// Reads every file and merges them by time; `followState` gets what was
/// read from `live`.  false when a file was missing or damaged.
bool ReadAll(const std::vector<TraceFile>& files, const TraceFile* live, std::vector<Entry>& entries,
             FollowState& followState)
{
    bool ok = true;
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
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("koptrace");
    Options o;
    if (std::optional<int> status = ParseArguments(argc, argv, o))
        return *status;
    std::vector<TraceFile> files;
    if (std::optional<int> status = CollectFiles(o, files))
        return *status;

    // The file written now: the active ring buffer, the initial one while
    // the program is still starting up, or the log file of a program that
    // traces without a ring buffer.
    const TraceFile* live = nullptr;
    for (const TraceFile& f : files)
        if (f.kind == FileKind::Ring)
            live = &f;
    for (const TraceFile& f : files)
        if (live == nullptr && f.kind == FileKind::Log)
            live = &f;
    if (o.follow && live == nullptr)
        return tools::Fail("--follow needs a ring buffer or log file (log.NAME_a, log.NAME_i or log.NAME)");

    std::vector<Entry> entries;
    FollowState followState;
    bool ok = ReadAll(files, live, entries, followState);

    Printer printer(o.json);
    printer.Begin();
    bool lastAccepted = true;
    for (const Entry& e : entries)
        if (o.filter.Accept(e, lastAccepted))
            printer.Print(e);
    fflush(stdout);
    if (o.follow)
        Follow(*live, followState, o.filter, printer);
    printer.End();
    return ok ? tools::kExitOk : tools::kExitFailure;
}

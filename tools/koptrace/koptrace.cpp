// koptrace: prints the trace files of a program (the log file, the initial
// ring buffer, plain or compressed, and the active ring buffer) in time
// order, optionally filtered, and can follow the file written now.
#include "tools/common/JsonWriter.h"
#include "tools/common/ToolSupport.h"
#include "tools/common/LogStream.h"

#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include "common/UniqueHandle.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

CDebug Debug;

namespace {

constexpr const char* kDefaultTraceDir = "/var/log/tarvd";
constexpr long kFollowPollMs = 200;
// How much of a file's start is read to tell a ring from a log.
constexpr size_t kKindProbeLength = 64 * 1024;

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
    "  --name TEXT      only entries whose name column is TEXT (the program's\n"
    "                   own entries carry its name, a module's its own)\n"
    "  --follow         keep printing new entries of the active ring buffer\n"
    "                   (or of the log file when there is no ring buffer)\n"
    "                   until interrupted (SIGINT or SIGTERM)\n"
    "  --json           a JSON array of entries: file, time, thread,\n"
    "                   memory_kb, name, text\n"
    "  --help           this text\n"
    "  --version        the tool's version\n"
    "\n"
    "A file that cannot be read, is no regular file, is empty or holds no\n"
    "trace entries is refused with the reason.\n"
    "\n"
    "Exit status: 0 ok, 1 missing, unreadable, truncated or damaged file,\n"
    "2 usage error.\n";

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
    // A ring's begin line follows its short header: the start of the file
    // tells, without reading a log of any size.  Only a regular file is
    // looked into (a pipe could block); anything else is refused later.
    struct stat st {};
    std::string start;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && tools::ReadFileBounded(path, kKindProbeLength, start) &&
        (start.find("### Begin of RingBuffer. ###") != std::string::npos ||
         start.find("## TRACE-END ##") != std::string::npos))
        return FileKind::Ring;
    return FileKind::Log;
}

/// Whether `path` can be read as a trace file: a regular file that this
/// user may open and, for a log file, not empty (an empty ring is a
/// truncated one, reported as such).  Otherwise a message naming the file
/// and the reason (unless `quiet`): without this check a file that cannot
/// be opened would read as a damaged ring or a failed decompression, and a
/// directory or device as an empty trace.
bool CheckInput(const std::string& path, FileKind kind, bool quiet)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st {};
    const char* reason = nullptr;
    if (!fd || fstat(fd.Get(), &st) != 0)
        reason = errno == ENOENT ? "no such file" : strerror(errno);
    else if (S_ISDIR(st.st_mode))
        reason = "is a directory, not a trace file";
    else if (!S_ISREG(st.st_mode))
        reason = "not a regular file (a device, pipe or socket), not a trace file";
    else if (st.st_size == 0 && kind == FileKind::Log)
        reason = "empty file, no trace entries";
    if (reason != nullptr && !quiet)
        tools::Fail("%s: %s", path.c_str(), reason);
    return reason == nullptr;
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
bool ReadTraceFile(const TraceFile& f, std::vector<std::string>& lines)
{
    lines.clear();
    if (!CheckInput(f.path, f.kind, false))
        return false;
    bool ok = false;
    switch (f.kind) {
    case FileKind::Log:
        ok = CTraceReader::ReadLogFile(f.path, lines);
        if (!ok)
            tools::Fail("%s: cannot read the log file completely (%zu lines recovered)", f.path.c_str(), lines.size());
        break;
    case FileKind::Ring:
        ok = CTraceReader::ReadRingBuffer(f.path, lines);
        if (!ok)
            tools::Fail("%s: truncated or damaged ring buffer (%zu entries recovered)", f.path.c_str(), lines.size());
        break;
    case FileKind::GzipRing: {
        std::string content;
        if (!CTraceReader::ReadGzipFile(f.path, content)) {
            tools::Fail("%s: cannot decompress the file", f.path.c_str());
            return false;
        }
        ok = CTraceReader::ParseRingBuffer(content.data(), content.size(), lines);
        if (!ok)
            tools::Fail("%s: truncated or damaged ring buffer (%zu entries recovered)", f.path.c_str(), lines.size());
        break;
    }
    }
    return ok;
}

/// Parses `lines` from `from` on into entries; a continuation line takes the time of its entry,
/// `key` being that of the line before `from`.
void AppendEntries(const std::string& file, const std::vector<std::string>& lines, std::vector<Entry>& out,
                   size_t from = 0, std::string key = {})
{
    for (size_t i = from; i < lines.size(); ++i) {
        const std::string& l = lines[i];
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

    void Remember(const Entry& e)
    {
        if (e.key != lastKey) {
            lastKey = e.key;
            atLastKey.clear();
        }
        atLastKey.insert(e.line);
        lastLine = e.line;
    }
    void Remember(const std::vector<Entry>& printed)
    {
        for (const Entry& e : printed)
            Remember(e);
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
    std::string content, previous;
    while (!g_Stop) {
        SleepMs(kFollowPollMs);
        if (g_Stop)
            break;
        // Bytes the same as at the last poll hold nothing new: a program that traces little leaves
        // its ring (megabytes) unparsed between its entries.  A read that races with the writer may
        // see no end marker: the next poll tries again.
        if (!CheckInput(file.path, file.kind, true) || !CTraceReader::ReadWholeFile(file.path, content) ||
            content == previous)
            continue;
        previous.swap(content);
        const bool whole = file.kind == FileKind::Log
                               ? CTraceReader::ParseLogFile(previous.data(), previous.size(), lines)
                               : CTraceReader::ParseRingBuffer(previous.data(), previous.size(), lines);
        if (!whole || lines.empty())
            continue;
        std::vector<Entry> fresh;
        auto it = state.lastLine.empty() ? lines.rend() : std::find(lines.rbegin(), lines.rend(), state.lastLine);
        if (it != lines.rend()) {
            // Only the lines after the last printed one are parsed.
            AppendEntries(file.path, lines, fresh, static_cast<size_t>(lines.rend() - it), state.lastKey);
        } else {
            // Nothing printed yet, or the last printed entry was overwritten
            // by a wrap: everything newer than what was printed.
            std::vector<Entry> all;
            AppendEntries(file.path, lines, all);
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
    // A file the program has just created and not yet written to holds
    // nothing to show; any other file is read (and a bad one reported).
    for (const auto& [suffix, kind] : candidates) {
        struct stat st {};
        if (stat((base + suffix).c_str(), &st) == 0 && !(S_ISREG(st.st_mode) && st.st_size == 0))
            files.push_back({base + suffix, kind});
    }
    if (files.empty())
        return tools::Fail("no trace files of '%s' in %s", args[0].c_str(), o.dir.c_str());
    return std::nullopt;
}

/// One file's entries in time order: a ring read whole (it is as large as
/// the ring), or a log file read from the file as the merge asks for them.
class CSource {
public:
    explicit CSource(const TraceFile& file) : m_File(file) {}

    /// Reads a ring, opens a log; false (with a message) when the file is
    /// missing or damaged: what could be recovered is still given.
    bool Open()
    {
        if (m_File.kind != FileKind::Log) {
            std::vector<std::string> lines;
            bool ok = ReadTraceFile(m_File, lines);
            AppendEntries(m_File.path, lines, m_Entries);
            std::stable_sort(m_Entries.begin(), m_Entries.end(),
                             [](const Entry& a, const Entry& b) { return a.key < b.key; });
            return ok;
        }
        if (!CheckInput(m_File.path, m_File.kind, false))
            return false;
        m_Log = std::make_unique<CLogStream>();
        if (std::string reason = m_Log->Open(m_File.path); !reason.empty()) {
            m_Log.reset();
            tools::Fail("%s: %s", m_File.path.c_str(), reason.c_str());
            return false;
        }
        return true;
    }

    bool Next(Entry& e)
    {
        if (m_Log == nullptr) {
            if (m_Next >= m_Entries.size())
                return false;
            e = std::move(m_Entries[m_Next++]);
            return true;
        }
        e = Entry();
        if (!m_Log->Next(e.line))
            return false;
        e.file = m_File.path;
        ParseColumns(e);
        if (e.time)
            m_Key = *e.time;
        e.key = m_Key;
        return true;
    }

    /// After the last entry: false (with a message) when a log file ended
    /// in a line cut short.
    bool Finish() const
    {
        if (m_Log == nullptr || m_Log->Complete())
            return true;
        tools::Fail("%s: cannot read the log file completely (%zu lines recovered)", m_File.path.c_str(),
                    m_Log->Count());
        return false;
    }

    const TraceFile& File() const { return m_File; }
    const std::vector<Entry>& RingEntries() const { return m_Entries; }

private:
    const TraceFile& m_File;
    std::vector<Entry> m_Entries;
    size_t m_Next = 0;
    std::unique_ptr<CLogStream> m_Log;
    std::string m_Key;
};

/// What makes a log line the copy of a ring entry: lines written
/// regardless of the level stand both in the log file and in the ring
/// buffer with the same time stamp (to the millisecond), thread and text.
std::string CopyKey(const Entry& e)
{
    return e.key + '\n' + (e.thread ? std::to_string(*e.thread) : "-") + '\n' + e.text;
}

/// Merges the files by time (entries of one time keep the files' order) and
/// prints what the filter accepts, showing a log line that is the copy of
/// a ring entry once, as the ring's; `followState` gets what was read from
/// `live`.  The log files are streamed.  false when a file was missing or
/// damaged.
bool PrintMerged(const std::vector<TraceFile>& files, const TraceFile* live, const Filter& filter,
                 Printer& printer, FollowState& followState)
{
    bool ok = true;
    std::vector<CSource> sources;
    sources.reserve(files.size());
    std::set<std::string> ringCopies;
    for (const TraceFile& f : files) {
        sources.emplace_back(f);
        ok = sources.back().Open() && ok;
        for (const Entry& e : sources.back().RingEntries())
            if (e.isEntry)
                ringCopies.insert(CopyKey(e));
    }
    std::vector<std::optional<Entry>> heads(sources.size());
    auto advance = [&](size_t i) {
        Entry e;
        heads[i] = sources[i].Next(e) ? std::optional<Entry>(std::move(e)) : std::nullopt;
    };
    for (size_t i = 0; i < sources.size(); ++i)
        advance(i);
    bool lastAccepted = true;
    for (;;) {
        size_t best = heads.size();
        for (size_t i = 0; i < heads.size(); ++i)
            if (heads[i] && (best == heads.size() || heads[i]->key < heads[best]->key))
                best = i;
        if (best == heads.size())
            break;
        Entry e = std::move(*heads[best]);
        advance(best);
        if (&sources[best].File() == live)
            followState.Remember(e);
        bool copy = sources[best].File().kind == FileKind::Log && e.isEntry && ringCopies.count(CopyKey(e)) != 0;
        if (!copy && filter.Accept(e, lastAccepted))
            printer.Print(e);
    }
    for (const CSource& source : sources)
        ok = source.Finish() && ok;
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    tools::ToolInit("koptrace");
    Options o;
    std::optional<int> status = ParseArguments(argc, argv, o);
    std::vector<TraceFile> files;
    if (!status)
        status = CollectFiles(o, files);
    if (status) {
        // A run in JSON mode that ends before its array writes the message
        // as its one document.
        if (*status != tools::kExitOk && tools::HasOption(argc, argv, "--json"))
            tools::PrintJsonError(std::cout, tools::FirstError());
        return *status;
    }

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
    if (o.follow && live == nullptr) {
        tools::Fail("--follow needs a ring buffer or log file (log.NAME_a, log.NAME_i or log.NAME)");
        if (o.json)
            tools::PrintJsonError(std::cout, tools::FirstError());
        return tools::kExitFailure;
    }

    FollowState followState;
    Printer printer(o.json);
    printer.Begin();
    bool ok = PrintMerged(files, live, o.filter, printer, followState);
    fflush(stdout);
    if (o.follow)
        Follow(*live, followState, o.filter, printer);
    printer.End();
    return ok ? tools::kExitOk : tools::kExitFailure;
}

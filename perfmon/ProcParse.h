// Bounded readers and parsers for the text files of the proc file system,
// shared by the performance monitor and the network interface table.  The
// contents of these files are treated as untrusted: lines are capped, numbers
// saturate instead of overflowing, and nothing is read past a line's end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/UniqueHandle.h"

namespace perfmon {

/// root + "/" + relative (no doubled separator).
std::string JoinPath(const std::string& root, const char* relative);

/// A proc file read at every snapshot through one descriptor and into one
/// buffer, both kept between the reads: the kernel makes the text anew at
/// each read from the start.  Only files of the proc file system are kept
/// open; any other file (a captured tree that may be replaced between two
/// reads) is opened for each read.  A forked child opens its own (a kept
/// "self" file would still show the parent).
class CKeptProcFile {
public:
    /// Reads the file whole: at most kMaxTextFile bytes, taken up to the last
    /// whole line within the cap.  false on failure, with errno set.
    bool Read(const std::string& path);
    /// The text of the last successful read.
    std::string_view Text() const { return std::string_view(m_Buffer.data(), m_Length); }

private:
    bool Reopen(const std::string& path);
    bool ReadFromStart();

    UniqueFd m_Fd;
    std::string m_Path;
    int m_Pid = -1;
    bool m_Keep = false;
    std::string m_Buffer;
    size_t m_Length = 0;
};

/// The lines of a text file, read whole (at most kMaxTextFile bytes; a
/// longer file is taken up to its last whole line within the cap).  A line
/// keeps at most kMaxLineLength characters (the rest is skipped), so a long
/// line never turns into several lines.
class CProcLineReader {
public:
    /// Reads the file.  false on failure, with errno set to the cause.
    bool Open(const std::string& path);
    /// Reads the file through `file`, whose text the reader then walks (it
    /// must outlive the reader's use).
    bool Open(CKeptProcFile& file, const std::string& path);
    /// The next line without its newline; false (line empty) at the end.
    bool Next(std::string& line);

private:
    std::string m_Own;
    std::string_view m_Text;
    size_t m_Pos = 0;
};

/// Reads a whole file of at most kMaxSmallFile bytes (the rest is ignored).
/// false when it cannot be opened or read; `out` is then unchanged.
bool ReadSmallFile(const std::string& path, std::string& out);

/// Skips blanks and tabs at `p`, then parses a decimal number.  A number too
/// big for 64 bits saturates at UINT64_MAX (its remaining digits are
/// consumed).  true when at least one digit was read (p is moved past the
/// number); false otherwise (p unchanged).
bool ParseU64(const char*& p, const char* end, uint64_t& value);

/// Parses up to `maxCount` numbers separated by blanks; returns how many
/// were read before the first thing that is not a number.
int ParseU64List(std::string_view text, uint64_t* values, int maxCount);

/// When `line` begins with `key`, parses the number after it into `value`
/// and returns true.
bool ParseKeyedU64(std::string_view line, std::string_view key, uint64_t& value);

/// true when the interface name begins with one of the monitored prefixes.
bool IsMonitoredInterfaceName(std::string_view name);

/// One interface line of the network device statistics.
struct NetDevLine {
    std::string name;      ///< the interface name (blanks stripped)
    std::string counters;  ///< the text after the name's colon
};

/// Splits a line of the network device statistics into the name (leading
/// blanks skipped, up to the colon) and the counter text.  true only when
/// the line has a colon and the name is a monitored interface name (any
/// name with `monitoredOnly` false).
bool SplitNetDevLine(std::string_view line, NetDevLine& out, bool monitoredOnly = true);

/// Reads the network device statistics file and collects its monitored
/// interface lines in file order, at most `maxCount` of them.  false when
/// the file cannot be opened (errno kept); `out` is then empty.  Read
/// through `kept` when given.
bool ReadNetDevInterfaces(const std::string& path, size_t maxCount, std::vector<NetDevLine>& out,
                          CKeptProcFile* kept = nullptr);

} // namespace perfmon

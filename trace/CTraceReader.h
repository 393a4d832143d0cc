// CTraceReader: reads the trace's own files back in time order (for tests
// and for operators' tools).  Input is treated as untrusted: truncated or
// damaged files give what can be recovered and a false result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class CTraceReader {
public:
    /// Largest trace file read into memory.
    static constexpr uint64_t kFileSizeLimit = 256ull << 20;
    /// The text of the entry a log file's wrap writes where it starts again.
    static constexpr char kLogWrapText[] = "------ WRAP ----- Cycle=";
    /// Length of an entry's time stamp "yyyy-mm-dd hh:mm:ss.mmm".
    static constexpr size_t kTimeStampLength = 23;

    /// Entries of a ring-buffer file in time order, one element per line
    /// (without its newline).  Without a wrap: the lines after the
    /// "### Begin of RingBuffer. ###" line up to the end marker.  After a
    /// wrap: first the older lines behind the end marker up to the '.'
    /// fill (a line cut by the newest entries is dropped), then the lines
    /// after the begin line up to the end marker.
    /// @param wrapped (optional) set to whether the ring has wrapped.
    /// @return false when the file cannot be read or lacks the begin line or
    ///         the end marker; `entries` then holds what could be recovered.
    static bool ReadRingBuffer(const std::string& path, std::vector<std::string>& entries, bool* wrapped = nullptr);
    static bool ParseRingBuffer(const char* data, size_t size, std::vector<std::string>& entries,
                                bool* wrapped = nullptr);

    /// Lines of a log file in time order.  After a wrap the file holds: the
    /// kept start (before the "------ WRAP -----" line), the newest text
    /// from the WRAP line on, then older text up to the end of the file.
    /// The newest text ends before the first line that is not an entry line
    /// (the rest of an overwritten line) or whose time stamp is older than
    /// the newest part's; that rest line is dropped.  Messages with embedded
    /// newlines in the newest part can therefore end it too early.
    /// A last line without newline is dropped (and the result is false).
    static bool ReadLogFile(const std::string& path, std::vector<std::string>& lines, bool* wrapped = nullptr);
    static bool ParseLogFile(const char* data, size_t size, std::vector<std::string>& lines, bool* wrapped = nullptr);

    /// The decompressed content of a gzip file (the initial ring buffer
    /// after start-up), through "gzip -dc".  false when gzip fails or the
    /// output exceeds the size limit.
    static bool ReadGzipFile(const std::string& path, std::string& content);
    /// The whole file (at most kFileSizeLimit bytes).
    static bool ReadWholeFile(const std::string& path, std::string& content);

    /// True when the text starts like an entry: "yyyy-mm-dd hh:mm:ss.mmm [".
    static bool IsEntryLine(const char* text, size_t len);
    /// The message of an entry line (what follows the name column's blank),
    /// or the whole line when it is not an entry line.  Works for entries
    /// with and without the memory column, for names of up to 13 characters.
    static std::string MessageOf(const std::string& line);

    /// The columns of an entry line: "yyyy-mm-dd hh:mm:ss.mmm [XXXXXXXX] ",
    /// optionally the memory column "%8zu KB !", the name padded to 13
    /// columns, a blank and the message.
    struct EntryColumns {
        bool isEntry = false;             ///< the line starts like an entry
        std::optional<std::string> time;  ///< the time stamp text
        std::optional<uint32_t> thread;   ///< the hexadecimal thread id
        std::optional<uint64_t> memoryKb; ///< the memory column
        std::optional<std::string> name;  ///< the name column, trailing blanks dropped
        std::string text;                 ///< as MessageOf
    };
    /// Splits a line into its columns; a column that is damaged is left out
    /// (every access bounded by the line's length).
    static EntryColumns ParseEntry(const std::string& line);
};

// CLogStream: the lines of a trace log file in time order, read from the
// file as they are asked for, so that a log of any size costs two passes
// over the file and memory for one line.
#pragma once

#include "common/UniqueHandle.h"

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

class CLogStream {
public:
    /// Longest line kept whole; the rest of a longer line is skipped (a
    /// trace line is far shorter, a file without line feeds is not a log).
    static constexpr size_t kMaxLineLength = 1u << 20;
    /// The part of the file that must show a trace entry line and no NUL
    /// byte for the file to be taken as a log.
    static constexpr off_t kProbeLength = 64 * 1024;

    /// Opens `path` and finds its parts (the kept start, the newest part
    /// after a wrap, the older rest).  "" on success, else the reason.
    std::string Open(const std::string& path);

    /// The next line in time order (without its line feed); false at the end.
    /// The order is that of CTraceReader::ParseLogFile: the kept start, the
    /// older text behind the newest part, then the newest part.
    bool Next(std::string& line);

    /// False when the file ended in a line without line feed (dropped).
    bool Complete() const { return m_Complete; }
    /// Lines handed out so far.
    size_t Count() const { return m_Count; }

private:
    struct Segment {
        off_t from;
        off_t to;
    };
    /// The line starting at `pos` before `end`: false when there is no whole
    /// line there; `pos` then moves past it.
    bool ReadLine(off_t& pos, off_t end, std::string& line);
    /// Fills the buffer with the bytes from `pos`; false at the end or on error.
    bool Fill(off_t pos);
    std::string FindSegments(off_t size);

    UniqueFd m_Fd;
    std::vector<char> m_Buffer;
    off_t m_BufferStart = 0;
    size_t m_BufferLength = 0;
    std::vector<Segment> m_Segments;
    size_t m_Segment = 0;
    off_t m_Pos = 0;
    bool m_Complete = true;
    size_t m_Count = 0;
};

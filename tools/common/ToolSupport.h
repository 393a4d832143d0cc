// Helpers shared by the operator tools: exit codes, messages on standard
// error that start with the tool's name, optional tracing, bounded file I/O.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

namespace tools {

/// Exit codes of every tool.
enum ExitCode : int {
    kExitOk = 0,       ///< done
    kExitFailure = 1,  ///< runtime failure: missing or damaged file, unknown key, ...
    kExitUsage = 2,    ///< bad command line
};

/// Records the tool's name for messages and, when TR_LOG_DEBUG_LEVEL is set,
/// initialises the program's trace object (otherwise tracing stays off and
/// no trace file is created).
void ToolInit(const char* name);
const char* ToolName();

/// "<tool> (tarvd) <version>\n" on standard output; returns kExitOk.
int PrintVersion();
/// "<tool>: <message>\n" on standard error; returns kExitFailure.
int Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// "<tool>: warning: <message>\n" on standard error.
void Warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// "<tool>: <message>\n" and a hint to --help on standard error; returns kExitUsage.
int UsageError(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The first message Fail or UsageError wrote in this run ("" when none):
/// what a failing run in JSON mode reports in its "error" member.
const std::string& FirstError();
/// One JSON document {"error": "<message>"} and a newline on `out`: the
/// whole standard output of a run in JSON mode that failed before it had
/// written anything else.
void PrintJsonError(std::ostream& out, std::string_view message);

/// Whether `option` (e.g. "--json") is among the arguments before a "--":
/// known before the command line is parsed, so that even a usage error is
/// reported in the form asked for.
bool HasOption(int argc, char** argv, const char* option);

/// Reads at most `limit` bytes of `path` (regular files, sysfs and proc
/// files alike: read until end of file).  False with errno set on failure.
bool ReadFileBounded(const std::string& path, size_t limit, std::string& out);
/// Like ReadFileBounded, but "-" reads standard input.  A file that is not
/// a regular file (a directory, a device) fails with EISDIR or ENODEV, one
/// larger than `limit` with EFBIG, so that nothing is read in part.
bool ReadInputFile(const std::string& path, size_t limit, std::string& out);
/// Writes `content` to `path` (created with mode 0644, truncated).
bool WriteWholeFile(const std::string& path, const std::string& content);
/// mkdir -p with mode 0755.
bool MakeDirectories(const std::string& path);
/// Parses a whole decimal (or 0x hexadecimal when `allowHex`) number.
bool ParseUnsigned(const char* text, unsigned long long max, unsigned long long& value, bool allowHex = false);

} // namespace tools

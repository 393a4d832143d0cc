// Every test program keeps the library's system-log lines to itself: a sink
// installed before main() collects them, so that no test writes to the
// machine's system log, and tests can check what would have been logged.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

/// Puts the collecting sink back (after a test that installed its own).
void RestoreSysLogCapture();

/// The lines logged since the last call (priority, text), oldest first.
std::vector<std::pair<int, std::string>> TakeSysLogLines();

} // namespace testsupport

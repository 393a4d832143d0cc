// Helpers of the packaging tests: running shell commands, installing the
// build tree into a staging directory and running scripts in a private
// mount namespace.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

namespace pkgtest {

/// Quotes `s` for a POSIX shell.
std::string Quote(const std::string& s);

/// Runs `script` with /bin/sh; stdout and stderr end up in `output`.
/// @return the exit status, or -1 when the shell could not run or died.
int Shell(const std::string& script, std::string* output = nullptr);

/// Starts `script` with /bin/sh in a new private mount namespace
/// (`unshare --mount`); stdout and stderr go to `outputFile`.
pid_t SpawnInNamespace(const std::string& script, const std::string& outputFile);

/// Runs `script` like SpawnInNamespace and waits (generous time-out).
int RunInNamespace(const std::string& script, std::string* output);

/// Waits for `pid` with a generous time-out; kills it when that passes.
/// @return the exit status, 128 + signal, or -1 when it had to be killed.
int WaitExit(pid_t pid);

/// Shell lines that give a namespace its own /run, /var/run, /var/lock and
/// /var/log, and an /etc whose changes go to a tmpfs under `stage`.
std::string PrivateSystemDirs(const std::string& stage);

/// `cmake --install` of the build tree into `destdir`.
/// @return true on success; the command's output in `output`.
bool InstallInto(const std::string& destdir, std::string* output);

/// Polls `done` every 20 ms until it holds or 60 seconds pass.
bool WaitUntil(const std::function<bool()>& done);

} // namespace pkgtest

// Internals of the kopd daemon shared by its source files.
#pragma once

#include <sys/types.h>

#include "daemon/CSwitchApi.h"
#include "trace/CEvent.h"

/// Fixed paths and names of the daemon.
namespace kopd {
constexpr const char* kProgramName = "kopd";
constexpr const char* kPrefix = "KOPD";  // the "%s-MAIN" prefix of every daemon line
constexpr const char* kLockName = "/var/lock/kopd";  // the lock file is this + ".lock"
constexpr const char* kPidFile = "/var/run/kopd.pid";
constexpr mode_t kPidFileMode = 0644;
constexpr int kPidFileAttempts = 3;
constexpr const char* kRunLevelFile = "/etc/tarvd/RunLevel";
constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr const char* kRunLevelCommand = "/sbin/runlevel";
} // namespace kopd

/// Set by CatchSignals when the daemon is to stop; tested by the main loop.
extern CEvent g_ExitEvent;

/// Handles one signal returned by sigwait() (or SIGTERM when sigwait failed):
/// ignores SIGALRM, toggles tracing on SIGHUP, and for a termination signal
/// decides between operating-system shutdown and simple stop, notifies the
/// framework and sets g_ExitEvent.  Aborts on any other signal.
void CatchSignals(int signal, CSwitchApi& switchApi);

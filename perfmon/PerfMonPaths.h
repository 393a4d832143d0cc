// Fixed names of the performance monitor: the kernel files it reads (all
// relative to one proc root, "/proc" on a live system) and its limits.
#pragma once

#include <cstddef>

namespace perfmon {

/// The proc root of a live system.  Tests and replays of a captured
/// snapshot point the monitor at another directory laid out the same way.
inline constexpr const char* kDefaultProcRoot = "/proc";

// Files below the proc root.
inline constexpr const char* kMemInfoFile = "meminfo";
inline constexpr const char* kStatFile = "stat";
inline constexpr const char* kNetDevFile = "net/dev";
inline constexpr const char* kSelfStatFile = "self/stat";
inline constexpr const char* kSelfLimitsFile = "self/limits";
inline constexpr const char* kSelfFdDir = "self/fd";
inline constexpr const char* kPidMaxFile = "sys/kernel/pid_max";
inline constexpr const char* kLoadAvgFile = "loadavg";

/// The sysfs root of a live system, and the link speed file of an
/// interface below it ("%s" the interface name).
inline constexpr const char* kDefaultSysRoot = "/sys";
inline constexpr const char* kLinkSpeedFile = "class/net/%s/speed";

/// Largest text file read for its lines.  /proc/stat of a machine with
/// thousands of interrupts holds some hundred kilobytes, net/dev about 130
/// bytes an interface: the cap leaves room for tens of thousands of them.
inline constexpr size_t kMaxTextFile = 4u << 20;
/// Longest line kept (the kernel's own lines are well below it); the rest of
/// a longer line is skipped.
inline constexpr size_t kMaxLineLength = 4096;
/// Largest small file (a process's stat line, pid_max) read whole.
inline constexpr size_t kMaxSmallFile = 4096;

/// The process group re-reads pid_max and the own limit of open files
/// after this many snapshots (a minute at the default period).
inline constexpr unsigned kSlowRefreshSnapshots = 60;

/// Interface names that count as monitored network interfaces, by prefix.
inline constexpr const char* kInterfacePrefixes[] = {"eth", "bond", "sha", "vswif", "br", "xenbr"};

/// CNetworkInterfaceTable::GetNumberInterfaces() answer for "no table".
inline constexpr int kNoInterfaces = 255;

/// The number of threads the agent process is expected to stay within;
/// the process value "own threads" is taken relative to it.  The daemon,
/// the framework and the usual set of modules run a few dozen threads, so a
/// figure that approaches this budget points to a module leaking threads.
inline constexpr unsigned kAgentThreadBudget = 256;

} // namespace perfmon

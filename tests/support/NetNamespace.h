// A private network namespace for the test process itself: interfaces made
// there with `ip` are seen by the process and the programs it starts, and
// vanish with the process.  Only the root user may make one.
#pragma once

#include <sched.h>
#include <string>
#include <unistd.h>

#include "support/ChildProcess.h"

namespace testsupport {

/// Enters a fresh network namespace where `ip` can make veth pairs; false with `why` (for GTEST_SKIP) where that is impossible.
inline bool EnterPrivateNetNamespace(std::string& why)
{
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) {
        why = "no private network namespace (needs root)";
        return false;
    }
    if (Shell("ip link add probe0 type veth peer name probe1 && ip link del probe0") != 0) {
        why = "`ip` cannot make veth pairs here";
        return false;
    }
    return true;
}

} // namespace testsupport

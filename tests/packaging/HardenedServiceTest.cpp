// kopd under the sandbox of its systemd unit. Where systemd is not the service manager, the unit's
// file-system and privilege settings are reproduced in a mount namespace of the test's own: /
// read-only but for the unit's ReadWritePaths=, /proc/sys, /sys and the cgroups read-only, a
// private /tmp, no /home, no new privileges, the unit's capability bounding set and umask. The
// daemon must still start, load its modules, read the firmware (a real dump under
// /sys/firmware/dmi/tables) and write its registry.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/stat.h>

#include "support/ChildProcess.h"
#include "support/Sandbox.h"

using namespace testsupport;

namespace {

/// The unit's settings that the sandbox below reproduces, as the unit gives them.
const char* const kSettings[] = {"ProtectSystem=strict", "PrivateTmp=yes", "ProtectHome=yes", "NoNewPrivileges=yes",
                                 "ProtectKernelTunables=yes", "ProtectControlGroups=yes", "UMask=0027",
                                 "ReadWritePaths=/etc/tarvd /var/log/tarvd /run -/run/lock",
                                 "CapabilityBoundingSet=CAP_SYS_RAWIO"};

/// Shell that applies ProtectSystem=strict with the unit's ReadWritePaths= ("-" marking a path that
/// may be missing) and the other settings, then starts `command` in that namespace.  A checkout under
/// /tmp or a home folder, which the unit hides, is bound aside first and put back in its place after.
std::string SandboxScript(const std::string& command)
{
    return "set -e\nfor p in /etc/tarvd /var/log/tarvd /run -/run/lock"
           "; do p=${p#-}; if [ -d \"$p\" ]; then mount --bind \"$p\" \"$p\"; keep=\"$keep $p\"; fi; done\n"
           // Aside under /run, after its own bind (which would cover them).
           "set -- " + Quote(TARVD_SOURCE_DIR) + " " + Quote(TARVD_BINARY_DIR) + "\n"
           "n=0; for t in \"$@\"; do n=$((n+1)); mkdir -p /run/tree$n; mount --bind \"$t\" /run/tree$n; done\n"
           // Every other mount read-only; the API file systems (/dev, /proc,
           // /sys) stay as they are, but for the kernel's tunables and cgroups.
           "mount --bind /proc/sys /proc/sys\n"
           "awk '{print $5}' /proc/self/mountinfo | sort -u | while read -r m; do\n"
           "  case \"$m\" in /dev|/dev/*|/proc|/proc/[!s]*) continue;; esac\n"
           "  for k in $keep; do case \"$m\" in \"$k\"|\"$k\"/*) continue 2;; esac; done\n"
           // Bind remounts only: a plain remount would make the file system
           // read-only for the whole machine.
           "  mount -o remount,bind,ro \"$m\"\n"
           "done\n"
           // PrivateTmp=yes, ProtectHome=yes, NoNewPrivileges=yes (checked by the test).
           "mount -t tmpfs tmpfs /tmp\nmount -t tmpfs tmpfs /var/tmp\n"
           "for h in /home /root /run/user; do [ ! -d $h ] || mount -t tmpfs -o mode=0755 tmpfs $h; done\n"
           "n=0; for t in \"$@\"; do n=$((n+1))\n"
           "  [ -e \"$t\" ] || { mkdir -p \"$t\"; mount --bind /run/tree$n \"$t\"; }\ndone\n"
           "for h in /home /root /run/user; do [ ! -d $h ] || mount -o remount,ro $h; done\n"
           "umask 0027\nexec setpriv --no-new-privs --bounding-set -all,+sys_rawio --inh-caps -all " + command + "\n";
}

} // namespace

TEST(HardenedService, DaemonRunsItsModulesAndReadsTheFirmwareInTheUnitsSandbox)
{
    const std::string unit = ReadFile(TEST_UNIT_FILE);
    for (const char* setting : kSettings)
        EXPECT_TRUE(Contains(unit, "\n" + std::string(setting) + "\n")) << setting;
    // The service manager's own rating of the whole sandbox, where it can be asked offline.
    std::string rating;
    if (Shell("command -v systemd-analyze") == 0 &&
        Shell("systemd-analyze security --offline=true " + Quote(TEST_UNIT_FILE) + " 2>&1", &rating) == 0) {
        size_t at = rating.find("Overall exposure level for kopd.service: ");
        ASSERT_NE(at, std::string::npos) << rating;
        EXPECT_LE(std::strtod(rating.c_str() + at + 41, nullptr), 5.0) << rating;
    }
    if (!CanUseMountNamespace() || Shell("command -v setpriv && command -v unshare") != 0)
        GTEST_SKIP() << "needs root, mount namespaces, setpriv and unshare";
    if (HasFailure())
        return;

    TempDir dir;
    Sandbox box(dir.Sub("stage"));
    ASSERT_EQ(box.Error(), "");
    const std::string fixture = TARVD_SOURCE_DIR "/tests/fixtures/smbios/dell-poweredge-r777sd.";
    const std::string firmware = "/sys/firmware/dmi/tables";
    std::string out;
    ASSERT_EQ(box.RunScript("mkdir -p /etc/tarvd /var/log/tarvd && mount -t tmpfs tmpfs /sys/firmware\n"
                            "mkdir -p " + firmware + " && cp " + Quote(fixture + "ep") + " " + firmware +
                                "/smbios_entry_point && cp " + Quote(fixture + "dmi") + " " + firmware + "/DMI\n",
                            dir.Sub("setup.txt"), &out),
              0)
        << out;
    // Traces into the unit's writable trace directory, the build tree's modules.
    std::vector<std::string> env;
    for (const std::string& e : DaemonEnv(dir.Sub("unused")))
        if (e.rfind("TR_LOG_RINGBUF_DIR=", 0) != 0)
            env.push_back(e);
    env.insert(env.end(), {"TR_LOG_RINGBUF_DIR=/var/log/tarvd", "LD_LIBRARY_PATH=" TEST_FRAMEWORK_DIR,
                           "TARVD_MODULES_DIR=" TEST_EXAMPLE_CONF_DIR});
    // unshare makes the daemon's own mount namespace and runs the script in
    // it; every step execs, so the pid is the daemon's.
    pid_t pid = box.Spawn({"/usr/bin/unshare", {"--mount", "--propagation", "private", "sh", "-c",
                                                SandboxScript(TEST_KOPD_PATH " -n")},
                           env, dir.Sub("out.txt")});
    ASSERT_GT(pid, 0);
    const std::string registry = box.Path("/etc/tarvd/registry");
    EXPECT_TRUE(WaitFor([&] {
        std::string r = ReadFile(registry);
        return Contains(r, "ScanCount=d=1\n") && Contains(r, "[Memory]");
    })) << ReadFile(dir.Sub("out.txt"));

    // The daemon itself runs with the unit's privileges and a read-only root.
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    EXPECT_TRUE(Contains(status, "\nNoNewPrivs:\t1\n")) << status;
    EXPECT_TRUE(Contains(status, "\nCapBnd:\t0000000000020000\n")) << status;  // CAP_SYS_RAWIO alone
    EXPECT_EQ(Shell("awk '$5 == \"/\" && $6 ~ /(^|,)ro(,|$)/ {f=1} END {exit !f}' /proc/" + std::to_string(pid) +
                    "/mountinfo"),
              0);
    kill(pid, SIGTERM);
    EXPECT_EQ(WaitExit(pid), 0) << ReadFile(dir.Sub("out.txt"));

    const std::string trace = ReadDaemonTrace(box.Path("/var/log/tarvd"));
    struct stat ep{}, dmi{};
    ASSERT_EQ(stat((fixture + "ep").c_str(), &ep) | stat((fixture + "dmi").c_str(), &dmi), 0);
    EXPECT_TRUE(Contains(trace, "GetAnySMBiosFromSysfs() Success : Header (" + std::to_string(ep.st_size) +
                                    ") bytes, Data (" + std::to_string(dmi.st_size) + ") bytes"))
        << trace;
    for (const char* module : {"inventory", "perf"})
        EXPECT_TRUE(Contains(trace, "SWITCH              : module " + std::string(module) + " loaded from")) << module;
    EXPECT_TRUE(Contains(trace, "Done initializing"));
    EXPECT_FALSE(Contains(trace, "## ERROR!")) << trace;
}

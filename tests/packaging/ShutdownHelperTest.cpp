// The shutdown helper's decisions, with the service manager's job list and
// the run-level file replaced through its override variables, and the
// ordering of the units that run it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/ChildProcess.h"
#include "support/TestSupport.h"

using namespace testsupport;

namespace {

// What `systemctl list-jobs --no-legend` prints while the system goes down.
const char kReboot[] = "  1 reboot.target          start waiting\n"
                       "  7 systemd-reboot.service start waiting\n"
                       " 12 kopd-runlevel.service  stop  running\n";
const char kPowerOff[] = " 1 poweroff.target start waiting\n 12 kopd-runlevel.service stop running\n";
const char kEtcIsAFile[] = "<etc is a file>";

struct HelperCase {
    const char* action;
    std::string jobs;             ///< the job list, printed by `cat`
    const char* listCommand;      ///< instead of the job list, when set
    const char* before;           ///< the run-level file beforehand, if any
    int status;
    const char* after;            ///< the run-level file afterwards, null: none
    const char* says = "";        ///< a piece of the helper's output
};

const HelperCase kCases[] = {
    {"shutdown", kReboot, nullptr, nullptr, 0, "6\n"},
    {"shutdown", kPowerOff, nullptr, nullptr, 0, "0\n"},
    {"shutdown", " 1 halt.target start waiting\n", nullptr, nullptr, 0, "0\n"},
    {"shutdown", "3 kexec.target start waiting\n", nullptr, nullptr, 0, "6\n"},
    {"shutdown", "3 soft-reboot.target start waiting\n", nullptr, nullptr, 0, "6\n"},
    {"shutdown", std::string(kPowerOff) + kReboot, nullptr, nullptr, 0, "6\n"},  // reboot wins
    // A stop of the service alone, or an isolate to another target.
    {"shutdown", "", nullptr, nullptr, 0, nullptr},
    {"shutdown", " 5 kopd.service stop waiting\n 6 kopd-runlevel.service stop running\n", nullptr, nullptr, 0, nullptr},
    {"shutdown", " 9 rescue.target start waiting\n", nullptr, nullptr, 0, nullptr},
    // Target names must match whole units.
    {"shutdown", " 1 my-reboot.target.wants start waiting\n", nullptr, nullptr, 0, nullptr},
    {"shutdown", " 1 prereboot.target start waiting\n", nullptr, nullptr, 0, nullptr},
    {"shutdown", " 1 poweroff.targets start waiting\n", nullptr, nullptr, 0, nullptr},
    {"shutdown", " 1 reboot-helper.service start waiting\n", nullptr, nullptr, 0, nullptr},
    // A failing job list counts as a plain stop.
    {"shutdown", "", "exit 3", nullptr, 0, nullptr},
    {"shutdown", "", "/nonexistent/systemctl list-jobs", nullptr, 0, nullptr},
    // A stale value is replaced whole; at boot the file goes, whatever the jobs.
    {"shutdown", kReboot, nullptr, "0\nleft over from somewhere\n", 0, "6\n"},
    {"boot", kReboot, nullptr, "6\n", 0, nullptr},
    {"boot", "", nullptr, nullptr, 0, nullptr},
    {"shutdown", kReboot, nullptr, kEtcIsAFile, 1, nullptr, "cannot write"},
    {"restart", kReboot, nullptr, nullptr, 2, nullptr, "usage"},
    {"", "", "true", nullptr, 2, nullptr},
};

class ShutdownHelper : public ::testing::TestWithParam<HelperCase> {};

} // namespace

TEST_P(ShutdownHelper, DecidesTheRunLevel)
{
    const HelperCase& c = GetParam();
    TempDir dir;
    const std::string file = dir.Sub("etc/tarvd/RunLevel");
    if (c.before) {
        ASSERT_TRUE(c.before == kEtcIsAFile ? WriteFile(dir.Sub("etc"), "x") : WriteFile(file, c.before));
    }
    WriteFile(dir.Sub("jobs.txt"), c.jobs);
    std::string list = c.listCommand ? c.listCommand : "cat " + Quote(dir.Sub("jobs.txt"));
    std::string out;
    EXPECT_EQ(Shell("KOPD_RUNLEVEL_FILE=" + Quote(file) + " KOPD_LIST_JOBS_CMD=" + Quote(list) + " sh " +
                        Quote(TARVD_SOURCE_DIR "/packaging/kopd-shutdown-helper") + " " + c.action,
                    &out),
              c.status)
        << out;
    EXPECT_NE(out.find(c.says), std::string::npos) << out;
    if (!c.after) {
        EXPECT_FALSE(FileExists(file));
        return;
    }
    EXPECT_EQ(ReadFile(file), c.after);
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    Shell("ls -A " + Quote(dir.Sub("etc/tarvd")), &out);
    EXPECT_EQ(out, "RunLevel\n");  // no temporary file left beside it
}

INSTANTIATE_TEST_SUITE_P(Jobs, ShutdownHelper, ::testing::ValuesIn(kCases));

TEST(ServiceUnits, RunLevelUnitStopsBeforeTheDaemon)
{
    // Units stop in the reverse order of their start: the run-level unit
    // starts after kopd so that its stop (which writes the file) runs first.
    const struct {
        const char* unit;
        const char* line;
        bool present;
    } lines[] = {
        {"kopd-runlevel", "\nAfter=kopd.service\n", true}, {"kopd-runlevel", "Before=kopd.service", false},
        {"kopd-runlevel", "\nType=oneshot\n", true},       {"kopd-runlevel", "\nRemainAfterExit=yes\n", true},
        {"kopd-runlevel", "\nExecStart=@HELPER_PATH@ boot\n", true},
        {"kopd-runlevel", "\nExecStop=@HELPER_PATH@ shutdown\n", true},
        {"kopd", "\nType=notify\n", true},                 {"kopd", "\nExecStart=@KOPD_PATH@ -n\n", true},
        {"kopd", "\nNotifyAccess=main\n", true},           {"kopd", "\nWants=kopd-runlevel.service\n", true},
    };
    for (const auto& l : lines) {
        std::string unit = ReadFile(std::string(TARVD_SOURCE_DIR) + "/packaging/" + l.unit + ".service");
        EXPECT_EQ(unit.find(l.line) != std::string::npos, l.present) << l.unit << ": " << l.line;
    }
}

// The shutdown helper's decisions, with the service manager's job list and
// the run-level file replaced through its override variables.
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
    std::string jobs;              ///< the job list, printed by `cat`
    const char* after = nullptr;   ///< the run-level file afterwards, null: none
    const char* before = nullptr;  ///< the run-level file beforehand, if any
    int status = 0;
    const char* says = "";          ///< a piece of the helper's output
    const char* listCommand = nullptr;  ///< instead of the job list, when set
};

const HelperCase kCases[] = {
    {"shutdown", kReboot, "6\n"},
    {"shutdown", kPowerOff, "0\n"},
    {"shutdown", " 1 halt.target start waiting\n", "0\n"},
    {"shutdown", "3 kexec.target start waiting\n", "6\n"},
    {"shutdown", "3 soft-reboot.target start waiting\n", "6\n"},
    {"shutdown", std::string(kPowerOff) + kReboot, "6\n"},  // reboot wins
    // A stop of the service alone, or an isolate to another target.
    {"shutdown", ""},
    {"shutdown", " 5 kopd.service stop waiting\n 6 kopd-runlevel.service stop running\n"},
    {"shutdown", " 9 rescue.target start waiting\n"},
    // Target names must match whole units.
    {"shutdown", " 1 my-reboot.target.wants start waiting\n"},
    {"shutdown", " 1 prereboot.target start waiting\n"},
    {"shutdown", " 1 poweroff.targets start waiting\n"},
    {"shutdown", " 1 reboot-helper.service start waiting\n"},
    // A failing job list counts as a plain stop.
    {"shutdown", "", nullptr, nullptr, 0, "", "exit 3"},
    {"shutdown", "", nullptr, nullptr, 0, "", "/nonexistent/systemctl list-jobs"},
    // A stale value is replaced whole; at boot the file goes, whatever the jobs.
    {"shutdown", kReboot, "6\n", "0\nleft over from somewhere\n"},
    {"boot", kReboot, nullptr, "6\n"},
    {"boot", ""},
    {"shutdown", kReboot, nullptr, kEtcIsAFile, 1, "cannot write"},
    {"restart", kReboot, nullptr, nullptr, 2, "usage"},
    {"", "", nullptr, nullptr, 2, "", "true"},
};

class ShutdownHelper : public ::testing::TestWithParam<HelperCase> {};

} // namespace

TEST_P(ShutdownHelper, DecidesTheRunLevel)
{
    const HelperCase& c = GetParam();
    TempDir dir;
    const std::string file = dir.Sub("etc/tarvd/RunLevel");
    ASSERT_TRUE(!c.before || (c.before == kEtcIsAFile ? WriteFile(dir.Sub("etc"), "x") : WriteFile(file, c.before)));
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

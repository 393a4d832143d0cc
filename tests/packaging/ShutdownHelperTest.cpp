// The shutdown helper's decisions, with the service manager's job list
// and the run-level file replaced through its override variables, and the
// ordering of the units that run it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "PackagingTestSupport.h"
#include "support/TestSupport.h"

using pkgtest::Quote;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

const std::string kHelper = std::string(TARVD_SOURCE_DIR) + "/packaging/kopd-shutdown-helper";

class ShutdownHelper : public ::testing::Test {
protected:
    std::string RunLevelFile() const { return m_Dir.Sub("etc/tarvd/RunLevel"); }

    /// Runs the helper with `jobs` as the output of the job listing.
    int Run(const std::string& action, const std::string& jobs, std::string* output = nullptr)
    {
        WriteFile(m_Dir.Sub("jobs.txt"), jobs);
        return RunWith(action, "cat " + Quote(m_Dir.Sub("jobs.txt")), output);
    }

    int RunWith(const std::string& action, const std::string& listCommand, std::string* output = nullptr)
    {
        std::string cmd = "KOPD_RUNLEVEL_FILE=" + Quote(RunLevelFile()) + " KOPD_LIST_JOBS_CMD=" +
                          Quote(listCommand) + " sh " + Quote(kHelper) + " " + action;
        return pkgtest::Shell(cmd, output);
    }

    TempDir m_Dir;
};

// What `systemctl list-jobs --no-legend` prints while the system goes down.
const char* kRebootJobs = "  1 reboot.target          start waiting\n"
                          "  7 systemd-reboot.service start waiting\n"
                          " 12 kopd-runlevel.service  stop  running\n";
const char* kPowerOffJobs = " 1 poweroff.target start waiting\n 12 kopd-runlevel.service stop running\n";
const char* kHaltJobs = " 1 halt.target start waiting\n";

} // namespace

TEST_F(ShutdownHelper, RebootWritesSix)
{
    EXPECT_EQ(Run("shutdown", kRebootJobs), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "6\n");
    struct stat st {};
    ASSERT_EQ(stat(RunLevelFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST_F(ShutdownHelper, PowerOffAndHaltWriteZero)
{
    EXPECT_EQ(Run("shutdown", kPowerOffJobs), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "0\n");
    ASSERT_EQ(unlink(RunLevelFile().c_str()), 0);
    EXPECT_EQ(Run("shutdown", kHaltJobs), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "0\n");
}

TEST_F(ShutdownHelper, KexecAndSoftRebootCountAsReboot)
{
    EXPECT_EQ(Run("shutdown", "3 kexec.target start waiting\n"), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "6\n");
    EXPECT_EQ(Run("shutdown", "3 soft-reboot.target start waiting\n"), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "6\n");
}

TEST_F(ShutdownHelper, RebootWinsOverPowerOff)
{
    EXPECT_EQ(Run("shutdown", std::string(kPowerOffJobs) + kRebootJobs), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "6\n");
}

TEST_F(ShutdownHelper, PlainStopWritesNothing)
{
    // A stop of the service alone, or an isolate to another target.
    for (const char* jobs : {"", " 5 kopd.service stop waiting\n 6 kopd-runlevel.service stop running\n",
                             " 9 rescue.target start waiting\n"}) {
        EXPECT_EQ(Run("shutdown", jobs), 0) << jobs;
        EXPECT_FALSE(FileExists(RunLevelFile())) << jobs;
    }
}

TEST_F(ShutdownHelper, TargetNamesMustMatchWholeUnits)
{
    for (const char* jobs : {" 1 my-reboot.target.wants start waiting\n", " 1 prereboot.target start waiting\n",
                             " 1 poweroff.targets start waiting\n", " 1 reboot-helper.service start waiting\n"}) {
        EXPECT_EQ(Run("shutdown", jobs), 0) << jobs;
        EXPECT_FALSE(FileExists(RunLevelFile())) << jobs;
    }
}

TEST_F(ShutdownHelper, FailingJobListCountsAsPlainStop)
{
    std::string out;
    EXPECT_EQ(RunWith("shutdown", "exit 3", &out), 0) << out;
    EXPECT_FALSE(FileExists(RunLevelFile()));
    EXPECT_EQ(RunWith("shutdown", "/nonexistent/systemctl list-jobs", &out), 0) << out;
    EXPECT_FALSE(FileExists(RunLevelFile()));
}

TEST_F(ShutdownHelper, ReplacesAStaleValueWhole)
{
    ASSERT_TRUE(testsupport::MakeDirs(m_Dir.Sub("etc/tarvd")));
    ASSERT_TRUE(WriteFile(RunLevelFile(), "0\nleft over from somewhere\n"));
    EXPECT_EQ(Run("shutdown", kRebootJobs), 0);
    EXPECT_EQ(ReadFile(RunLevelFile()), "6\n");
    // No temporary file is left beside it.
    std::string out;
    pkgtest::Shell("ls -A " + Quote(m_Dir.Sub("etc/tarvd")), &out);
    EXPECT_EQ(out, "RunLevel\n");
}

TEST_F(ShutdownHelper, BootRemovesTheFile)
{
    ASSERT_EQ(Run("shutdown", kRebootJobs), 0);
    ASSERT_TRUE(FileExists(RunLevelFile()));
    EXPECT_EQ(Run("boot", kRebootJobs), 0);  // the job list does not matter at boot
    EXPECT_FALSE(FileExists(RunLevelFile()));
    EXPECT_EQ(Run("boot", ""), 0);  // nothing to remove is fine
}

TEST_F(ShutdownHelper, TheDirectoryIsAFileFailsLoudly)
{
    ASSERT_TRUE(WriteFile(m_Dir.Sub("etc"), "not a directory"));
    std::string out;
    EXPECT_EQ(Run("shutdown", kRebootJobs, &out), 1);
    EXPECT_NE(out.find("cannot write"), std::string::npos) << out;
}

TEST_F(ShutdownHelper, UnknownActionIsAUsageError)
{
    std::string out;
    EXPECT_EQ(Run("restart", kRebootJobs, &out), 2);
    EXPECT_NE(out.find("usage"), std::string::npos);
    EXPECT_EQ(RunWith("", "true", &out), 2);
    EXPECT_FALSE(FileExists(RunLevelFile()));
}

TEST(ServiceUnits, RunLevelUnitStopsBeforeTheDaemon)
{
    // systemd stops units in the reverse order of their start: the run-level
    // unit must start after kopd so that its stop (which writes the file)
    // runs before kopd's.
    std::string unit = ReadFile(std::string(TARVD_SOURCE_DIR) + "/packaging/kopd-runlevel.service");
    EXPECT_NE(unit.find("\nAfter=kopd.service\n"), std::string::npos);
    EXPECT_EQ(unit.find("Before=kopd.service"), std::string::npos);
    EXPECT_NE(unit.find("\nType=oneshot\n"), std::string::npos);
    EXPECT_NE(unit.find("\nRemainAfterExit=yes\n"), std::string::npos);
    EXPECT_NE(unit.find("\nExecStart=@HELPER_PATH@ boot\n"), std::string::npos);
    EXPECT_NE(unit.find("\nExecStop=@HELPER_PATH@ shutdown\n"), std::string::npos);

    std::string kopd = ReadFile(std::string(TARVD_SOURCE_DIR) + "/packaging/kopd.service");
    EXPECT_NE(kopd.find("\nType=notify\n"), std::string::npos);
    EXPECT_NE(kopd.find("\nExecStart=@KOPD_PATH@ -n\n"), std::string::npos);
    EXPECT_NE(kopd.find("\nNotifyAccess=main\n"), std::string::npos);
    EXPECT_NE(kopd.find("\nWants=kopd-runlevel.service\n"), std::string::npos);
}

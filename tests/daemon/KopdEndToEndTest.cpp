// End-to-end tests of the kopd binary in a sandbox (its own /run, /etc and /var/log), so that the
// daemon uses its real fixed paths without touching the machine's. The framework is a recording
// stand-in found through LD_LIBRARY_PATH.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <utmp.h>

#include "KopdTestSupport.h"

using namespace kopdtest;

namespace {

const std::string kMain = std::string(TEST_KOPD_PATH) + ": KOPD-MAIN: ";
const std::string kShutdown = "slot16 event=0x20000 data=null third=0";

/// A line of the smbus driver's answer: the field's name, padded to 28.
std::string Field(std::string name, const std::string& value)
{
    name.resize(28, ' ');
    return name + ": " + value + "\n";
}

} // namespace

TEST_F(KopdTest, ForegroundLifecycleWithSignalsRegistryToolAndShutdownRunLevel6)
{
    const std::string key = "HKLM\\SOFTWARE\\X", registry = NsPath("/etc/tarvd/registry");
    const Lines set = {"set", key, "v", "--type", "s", "y"};
    std::string out;
    ASSERT_EQ(RunPlain(TEST_KOPREG_PATH, {"set", key, "w", "--type", "s", "kept"}, out), 0) << out;
    // Not root: refused before touching the lock.
    EXPECT_EQ(WaitExit(Start({"-n"}, {}, "", 65534)), 1);
    EXPECT_EQ(Output(), kMain + "Error! Permission denied\n");
    EXPECT_FALSE(FileExists(LockFile()) || FileExists(RecordPath()));

    pid_t pid = Start();
    const std::string traceDir = TraceDir();  // (the refused starts below trace nothing)
    ASSERT_TRUE(WaitStarted()) << Output();
    EXPECT_EQ(WaitPidFile(), pid);  // "No Demon": no fork
    const std::string files = std::to_string(pid) + "\n" + "kopd#" + std::to_string(pid);
    EXPECT_EQ(ReadFile(PidFile()) + ReadFile(LockFile()), files);
    EXPECT_EQ(Output(), kMain + "started in \"No Demon\" Mode\n");

    // A second instance is refused in both modes and leaves the files alone.
    for (const char* mode : {"-nodemon", "-tinst"}) {
        EXPECT_EQ(WaitExit(Start({mode})), 1) << mode;
        EXPECT_EQ(Output(), kRefused);
        EXPECT_EQ(ReadFile(PidFile()) + ReadFile(LockFile()), files);
    }

    // The registry tool changes nothing while kopd runs, and reads as usual.
    const std::string before = ReadFile(registry);
    EXPECT_TRUE(RunPlain(TEST_KOPREG_PATH, set, out) == 1 && Contains(out, "kopd is running")) << out;
    EXPECT_EQ(ReadFile(registry), before);
    EXPECT_TRUE(RunPlain(TEST_KOPREG_PATH, {"get", key, "w"}, out) == 0 && Contains(out, "kept")) << out;
    // SIGHUP toggles tracing, SIGALRM is ignored: neither stops the daemon.
    for (int sig : {SIGHUP, SIGHUP, SIGALRM})
        ASSERT_TRUE(SignalAndWaitTaken(pid, sig));
    EXPECT_FALSE(Contains(Record(), "slot5"));
    SetRunLevel("6\n");
    ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    EXPECT_EQ(RecordLines(), (Lines{"query id=0", "slot2 flags=0 runmode=0", "slot4", kShutdown,
                                    "slot16 event=0x30000 level=6 third=0", "slot5", "slot3 value=0", "release"}));
    ExpectTraced({"SWITCH API          : Loading modules, force rescan = 1", "KOPD-MAIN: RUN MODE: 0",
                  "KOPD-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)",
                  "kopd Version=\"9.80-16\" Milestone=\"-\"", "KOPD-MAIN: ## Done initializing ##",
                  "KOPD-MAIN::DiscoverSmbusDriverInfo: cannot open /dev/pci/smbus (errno=2: ",
                  "KOPD-MAIN: INFO: smbus-driver is not available on this OS", "KOPD-MAIN: Current RunLevel = 6",
                  "KOPD-MAIN:  Waiting for signals...", "KOPD-MAIN: Signal 1 (SIGHUP) caught",
                  "KOPD-MAIN: Trace reset due to SIGHUP", "KOPD-MAIN: Trace forced due to SIGHUP",
                  "KOPD-MAIN: WARNING: Signal 14 (SIGALRM) caught -> ignoring",
                  "KOPD-MAIN: Signal 15 caught -> processing", "KOPD-MAIN: /usr/bin/systemctl detected on this OS",
                  "KOPD-MAIN: OS shutdown reguired: RunLevel = 6 from /etc/tarvd/RunLevel",
                  "KOPD-MAIN: ## Someone signaled exit state ##", "KOPD-MAIN: ## EXIT PROCESS KOPD ##"},
                 traceDir);
    EXPECT_EQ(RunPlain(TEST_KOPREG_PATH, set, out), 0) << out;
    EXPECT_TRUE(RunPlain(TEST_KOPREG_PATH, {"get", key, "v"}, out) == 0 && out == "y\n") << out;
}

TEST_F(KopdTest, DaemonModeRunModesAndRescan)
{
    SetRunLevel("3\n");
    struct Case { Lines args; bool foreground; std::string load; Lines traced; } cases[] = {
        {{"-no", "-tupd", "-tinst", "-rescan"}, false, "slot2 flags=1 runmode=7",
         {"TUPD mode due to -tupd", "TINST mode due to -tinst", "RESCAN due to -rescan"}},
        {{"-nodemonx", "-agentless", "-unknown"}, false, "slot2 flags=0 runmode=5", {"Agentsless mode due to -agentless"}},
        {{"-rescan", "-tupd-agentless", "-nodemon"}, true, "slot2 flags=1 runmode=10",
         {"RESCAN due to -rescan", "TAGL_TUPD mode due to -tupd-agentless"}},
        {{"-tinst", "-tupd"}, false, "slot2 flags=0 runmode=8", {"TINST mode due to -tinst", "TUPD mode due to -tupd"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.load);
        ClearRecords();
        // Preloaded: would report any open of the smbus device.
        pid_t launched = Start(c.args, {"LD_PRELOAD=" TEST_SMBUS_SHIM, "SHIM_SMBUS_MODE=ok"}), daemon = launched;
        if (!c.foreground) {
            EXPECT_EQ(WaitExit(launched), 0);  // the parent leaves at once
            ASSERT_GT(daemon = WaitPidFile(), 0);
            EXPECT_NE(daemon, launched);
        }
        ASSERT_TRUE(WaitStarted()) << Output();
        EXPECT_EQ(WaitPidFile(), daemon);
        // The lock is taken before the fork: the file names the launched process.
        EXPECT_EQ(ReadFile(LockFile()), "kopd#" + std::to_string(launched));
        ASSERT_NO_FATAL_FAILURE(Stop(daemon, SIGINT));
        // Run level 3: no shutdown notification.
        EXPECT_EQ(RecordLines(), (Lines{"query id=0", c.load, "slot4", kShutdown, "slot5", "slot3 value=0", "release"}));
        EXPECT_FALSE(FileExists(ShimRecordPath())) << "the smbus device was opened in a non-zero run mode";
        Lines traced;
        for (const std::string& line : c.traced)
            traced.push_back("KOPD-MAIN::ParseCommandLine   : " + line);
        // The rescan is forced whatever the command line said.
        traced.insert(traced.end(), {"KOPD-MAIN: RUN MODE: " + c.load.substr(c.load.rfind('=') + 1),
                                     "SWITCH API          : Loading modules, force rescan = 1",
                                     "KOPD-MAIN: OS shutdown reguired: RunLevel = 3 from /etc/tarvd/RunLevel",
                                     "KOPD-MAIN: Current RunLevel = -1", "KOPD-MAIN: Signal 2 caught -> processing"});
        const std::string t = ExpectTraced(traced);
        EXPECT_EQ(CountOf(t, "KOPD-MAIN::ParseCommandLine   : "), c.traced.size());
        EXPECT_FALSE(Contains(t, "DiscoverSmbusDriverInfo"));
    }
}

TEST_F(KopdTest, MissingRunLevelFileMeansSimpleStop)
{
    ASSERT_NO_FATAL_FAILURE(StartAndStop({"-n", "-agentless"}, {"TR_NICKNAME=RHEL7"}));  // after three tries
    EXPECT_EQ(CountOf(Record(), kShutdown + "\n"), 1u);
    EXPECT_FALSE(Contains(Record(), "event=0x30000"));
    const std::string t = ExpectTraced(
        {"KOPD-MAIN: cannot open /etc/tarvd/RunLevel (try 0)", "KOPD-MAIN: cannot open /etc/tarvd/RunLevel (try 1)",
         "KOPD-MAIN: cannot open /etc/tarvd/RunLevel (try 2)",
         "KOPD-MAIN: this seems to be a simple stop of KOPD (not OS shutdown)", "KOPD-MAIN: Current RunLevel = 5",
         "KOPD-MAIN: we are runing on OS \"RHEL7\""});
    EXPECT_FALSE(Contains(t, "(try 3)"));
}

TEST_F(KopdTest, WithoutSystemctlOlderSystemsUseUtmpAndNewerOnesTheFile)
{
    if (!Enter({.hideSystemctl = true}))
        GTEST_SKIP() << m_SkipReason;
    ASSERT_FALSE(FileExists(NsPath("/usr/bin/systemctl")));
    // An older system: the utmp run-level record says halt ('0').
    struct utmp record{};
    record.ut_type = RUN_LVL;
    record.ut_pid = 'N' * 256 + '0';
    strncpy(record.ut_user, "runlevel", sizeof record.ut_user);
    ASSERT_TRUE(WriteFile(NsPath("/run/utmp"), std::string(reinterpret_cast<char*>(&record), sizeof record)));
    SetRunLevel("6\n");  // must not be read on this path
    ASSERT_NO_FATAL_FAILURE(StartAndStop({"-n", "-tinst"}, {"TR_NICKNAME=SLES11"}));
    EXPECT_TRUE(Contains(Record(), kShutdown + "\nslot16 event=0x30000 level=0 third=0\n")) << Record();
    EXPECT_FALSE(Contains(ExpectTraced({"KOPD-MAIN: try to indentify runlevel on older OS",
                                        "KOPD-MAIN: Current RunLevel = 0"}), "detected on this OS"));

    // A newer system by name: the run-level file decides (6 = reboot).
    ClearRecords();
    ASSERT_NO_FATAL_FAILURE(StartAndStop({"-n", "-tinst"}, {"TR_NICKNAME=OL7"}));
    EXPECT_TRUE(Contains(Record(), "slot16 event=0x30000 level=6 third=0\n")) << Record();
}

TEST_F(KopdTest, MissingOrUnusableFrameworkIsFatal)
{
    MakeDirs(m_Dir.Sub("empty"));
    for (std::string dir : {m_Dir.Sub("empty"), std::string(TEST_NOQUERY_SWITCH_DIR)}) {
        SCOPED_TRACE(dir);
        EXPECT_EQ(WaitExit(Start({"-n", "-tupd"}, {}, dir)), 1);
        EXPECT_FALSE(FileExists(LockFile()) || FileExists(PidFile()));
        const std::string t = ExpectTraced({"KOPD-MAIN: FATAL ERROR! Server Control SWITCH could not be loaded!"});
        EXPECT_EQ(Contains(t, "LoadLibrary: ## ERROR:  libswitch.so: cannot open shared object file"),
                  dir == m_Dir.Sub("empty"));
        EXPECT_FALSE(Contains(t, "Waiting for signals"));
    }
}

TEST_F(KopdTest, FailingModuleLoadStillReachesTheSignalLoopAndStopsCleanly)
{
    SetRunLevel("0\n");
    for (std::string how : {"throw", "fail"}) {
        SCOPED_TRACE(how);
        ClearRecords();
        pid_t pid = Start({"-n", "-tupd"}, {"TEST_SWITCH_LOAD=" + how});
        ASSERT_TRUE(WaitStarted("slot2 flags=0 runmode=8")) << Output();
        EXPECT_TRUE(WaitFor([&] { return FileExists(PidFile()); }));
        ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
        EXPECT_EQ(RecordLines(), (Lines{"query id=0", "slot2 flags=0 runmode=8", kShutdown,
                                        "slot16 event=0x30000 level=0 third=0", "slot5", "slot3 value=0",
                                        "release"}));  // never started
        const std::string t = ExpectTraced({"KOPD-MAIN: ## EXIT PROCESS KOPD ##"});
        EXPECT_EQ(Contains(t, "SWITCH DLL - Exception during LoadModules"), how == "throw");
        EXPECT_EQ(CountOf(t, "SWITCH API          : ## ERROR! Loading modules FAILED!"), how == "throw" ? 1u : 0u);
        EXPECT_EQ(CountOf(t, "KOPD-MAIN: ERROR! Load extension modules FAILED!"), 1u);
        EXPECT_FALSE(Contains(t, "all modules started"));
        EXPECT_EQ(CountOf(t, "KOPD-MAIN:  Waiting for signals..."), 1u);
    }
}

TEST_F(KopdTest, DriverQueryRequestAndAnswer)
{
    SetRunLevel("3\n");
    const std::string longOs(140, 'o');  // longer than its 128-byte field
    for (std::string mode : {"ok", "fail"}) {
        SCOPED_TRACE(mode);
        ClearRecords();
        ASSERT_NO_FATAL_FAILURE(StartAndStop({"-n"}, {"LD_PRELOAD=" TEST_SMBUS_SHIM, "SHIM_SMBUS_MODE=" + mode,
                                                     "TR_SYSTEM=PRIMERGY", "TR_OS=" + longOs, "TR_NICKNAME="}));
        EXPECT_EQ(SplitLines(ReadFile(ShimRecordPath())),
                  (Lines{"open flags=0x80002",  // O_RDWR | O_CLOEXEC
                         "ioctl request=0xC00873FF", "header version=1 cmd=0xFF size=1312 success=0",
                         "in requestor=0x00095010 name=KOPD", "in TR_SYSTEM=PRIMERGY", "in TR_OS=" + longOs.substr(0, 128),
                         "in TR_NICKNAME=", "in nonzero-out-bytes=0"}));
        const std::string unavailable = "KOPD-MAIN: INFO: smbus-driver is not available on this OS (But, don't "
                                        "worry about this, it might be OK on some OS systems!)";
        const std::string noOs = "KOPD-MAIN: cannot identify OS (from TR_NICKNAME) on which we are running";
        if (mode == "fail") {
            const std::string t = ExpectTraced({noOs, "KOPD-MAIN::DiscoverSmbusDriverInfo: IOCTL_SMBUS_DRIVER_INFO "
                                                      "(0xC00873FF) to /dev/pci/smbus failed (errno=25: "});
            EXPECT_EQ(CountOf(t, unavailable), 1u);
            EXPECT_FALSE(Contains(t, "evaluating IOCTL_SMBUS_DRIVER_INFO"));
            continue;
        }
        // Text fields the driver left unterminated are printed up to the field's end only.
        const std::string t = ExpectTraced(
            {noOs, "KOPD-MAIN: WARNING: kopd version (0x00095010) is less than smbus driver version (0x0A000001)",
             "KOPD-MAIN::DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)",
             Field("Version", "0x00000001"), Field("CmdNumber", "0x000000FF"), Field("Success", "0x00000001"),
             Field("SizeOfInOutBuffer", "0x00000520"), "pInOutBuffer                : 0x0x",
             Field("smbus_VersionCode", "0x0A000001"), Field("RequestorVersion", "0x00095010"),
             Field("smbus_IsSmbusHwFound", "0x00000001"), Field("smbus_MajorDeviceNumber", "0x000000F0"),
             Field("RequestorName", "KOPD"), Field("smbus_Name", "smbus"), Field("TR_SYSTEM", "PRIMERGY"),
             Field("smbus_KernelVersion", std::string(160, 'K')), Field("smbus_ErrorReturnString", "none")});
        EXPECT_FALSE(Contains(t, "smbus-driver is not available"));
    }
}

TEST_F(KopdTest, HelpAndVersionAnswerAnyUserWithoutTakingTheLock)
{
    for (uid_t uid : {0u, 65534u})
        for (const char* option : {"--help", "--version"}) {
            SCOPED_TRACE(std::string(option) + " as " + std::to_string(uid));
            EXPECT_EQ(WaitExit(Start({"-n", option}, {}, "", uid)), 0);
            const char* expected = option[2] == 'h' ? "Usage: kopd \\[-n\\|-nodemon\\][^]*"  // the whole usage
                                                    : "kopd \\(.+\\) [0-9.-]+, built .+\n";
            EXPECT_TRUE(std::regex_match(Output(), std::regex(expected))) << Output();
            EXPECT_FALSE(FileExists(LockFile()) || FileExists(PidFile()) || FileExists(RecordPath()));
        }
}

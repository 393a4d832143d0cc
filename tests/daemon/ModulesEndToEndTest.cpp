// End-to-end test of the bundled modules: the real kopd with the real framework libswitch.so runs
// the inventory and performance modules in a private mount namespace; their figures reach the
// registry under the namespace's /etc/tarvd.
#include <gtest/gtest.h>

#include <syslog.h>

#include "KopdTestSupport.h"
#include "support/ChildProcess.h"
#include "trace/CDebugInternal.h"

using namespace kopdtest;

static const std::string kTraceConfigDir = tracedetail::kDefaultConfigDirectory;

class ModulesEndToEndTest : public KopdTest {
protected:
    ModulesEndToEndTest() : KopdTest("3\n") {}  // a simple stop, without waiting for the run level
    std::string Registry() const { return ReadFile(NsPath("/etc/tarvd/registry")); }
    /// Starts kopd with the real framework, `env` and nothing else (no trace variables).
    pid_t StartUntraced(const std::string& modulesDir, Lines env = {})
    {
        env.insert(env.end(), {"LD_LIBRARY_PATH=" TEST_FRAMEWORK_DIR, "TARVD_MODULES_DIR=" + modulesDir});
        return StartPlain(TEST_KOPD_PATH, {"-n"}, env);
    }
    /// Once the performance module has published (the modules run), stops kopd.
    void StopOncePublished(pid_t pid)
    {
        ASSERT_TRUE(WaitFor([&] { return Contains(Registry(), "[Memory]"); })) << Output();
        ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    }
};

// A trace directory that cannot be written is reported on standard error,
// and the daemon runs on; the shipped sample files switch tracing on.
TEST_F(ModulesEndToEndTest, TracingByTheSampleFilesAndAnUnwritableDirectory)
{
    const std::string missing = m_Dir.Sub("missing"), logDir = NsPath("/var/log/tarvd");
    ASSERT_NO_FATAL_FAILURE(StopOncePublished(StartUntraced(
        TEST_EXAMPLE_CONF_DIR, {"TR_LOG_DEBUG_LEVEL=3", "TraceFileLimit=1", "TR_LOG_RINGBUF_DIR=" + missing})));
    EXPECT_TRUE(Contains(Output(), "Warning! trace directory " + missing + " is missing or not writable")) << Output();

    unlink(NsPath("/etc/tarvd/registry").c_str());
    ASSERT_TRUE(MakeDirs(logDir));
    ASSERT_EQ(Shell("mkdir -p " + NsPath(kTraceConfigDir) + " && cp " TARVD_SOURCE_DIR "/packaging/TraceConfig/*.ini " +
                    NsPath(kTraceConfigDir)), 0);
    ASSERT_NO_FATAL_FAILURE(StopOncePublished(StartUntraced(TEST_EXAMPLE_CONF_DIR)));
    EXPECT_TRUE(FileExists(logDir + "/log.kopd_a") &&
                (FileExists(logDir + "/log.kopd_i") || FileExists(logDir + "/log.kopd_i.gz")));
    const std::string trace = ReadDaemonTrace(logDir);
    EXPECT_TRUE(Contains(trace, "SWITCH              : module perf loaded from")) << trace;
    EXPECT_TRUE(Contains(trace, "PerfModule          : started"));
}

// With tracing off, a module that cannot be loaded is still heard: an error
// in the system log (here a socket of the test's own on a private /dev).
TEST_F(ModulesEndToEndTest, FailingModulesAreReportedToTheSystemLog)
{
    DatagramSink log(m_Dir.Sub("log"));
    ASSERT_TRUE(log.bound);
    std::string out;
    ASSERT_EQ(m_Ns->RunScript("mkdir /run/dev && mount --bind /dev /run/dev && mount -t tmpfs tmpfs /dev\n"
                              "for d in null zero urandom log; do touch /dev/$d; done\n"
                              "for d in null zero urandom; do mount --bind /run/dev/$d /dev/$d; done\n"
                              "umount -l /run/dev && mount --bind " + Quote(m_Dir.Sub("log")) + " /dev/log\n",
                              m_Dir.Sub("dev.txt"), &out), 0) << out;
    const std::string mods = m_Dir.Sub("mods");
    ASSERT_TRUE(WriteFile(mods + "/missing.conf", "[Module]\nName=missing\nLibrary=" + mods + "/libnowhere.so\n") &&
                WriteFile(mods + "/text.conf", "[Module]\nName=text\nLibrary=" + mods + "/text.conf\n") &&
                WriteFile(mods + "/perf.conf", "[Module]\nName=perf\nLibrary=" TEST_PERF_MODULE "\n"));
    ASSERT_NO_FATAL_FAILURE(StopOncePublished(StartUntraced(mods)));  // the other module runs
    std::string errors;
    for (std::string d; !(d = log.Receive(100)).empty();)
        if (d[0] == '<' && (std::atoi(d.c_str() + 1) & 7) == LOG_ERR && Contains(d, "SWITCH") &&
            Contains(d, "-> skipped"))
            errors += d + "\n";
    EXPECT_TRUE(Contains(errors, "module missing") && Contains(errors, "module text")) << errors;
}

// The registry file is rewritten when something worth keeping changed, not for every new figure:
// over a minute of the modules' default settings (figures published once a minute), twice at most.
TEST_F(ModulesEndToEndTest, RegistryFileRewrittenOnlyForChangesWorthKeeping)
{
    pid_t pid = Start({"-n"}, {"TARVD_MODULES_DIR=" TEST_EXAMPLE_CONF_DIR}, TEST_FRAMEWORK_DIR);
    ASSERT_TRUE(WaitFor([&] { return Contains(Registry(), "ScanCount=d=1\n") && Contains(Registry(), "[Memory]"); }))
        << Output();
    const std::string file = NsPath("/etc/tarvd/registry");
    struct stat last{}, now{};
    ASSERT_EQ(stat(file.c_str(), &last), 0);
    int rewrites = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (stat(file.c_str(), &now) == 0 && (now.st_ino != last.st_ino || now.st_mtim.tv_sec != last.st_mtim.tv_sec ||
                                              now.st_mtim.tv_nsec != last.st_mtim.tv_nsec)) {
            ++rewrites;
            last = now;
        }
    }
    EXPECT_LE(rewrites, 2);
    ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
}

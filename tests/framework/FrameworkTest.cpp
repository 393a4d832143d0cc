// The bundled module framework library, driven through the daemon's loader as the daemon drives it.
#include <gtest/gtest.h>

#include <algorithm>

#include "daemon/CSwitchApi.h"
#include "framework/ModuleConfig.h"
#include "support/SysLogCapture.h"
#include "support/TestSupport.h"
#include "support/TraceEnv.h"
#include "trace/SysLogTraces.h"

using namespace testsupport;
using Texts = std::vector<std::string>;

namespace {

std::string Module(const char* name) { return std::string(TEST_FW_MODULES_DIR) + "/libfwtest_" + name + ".so"; }

// Tracing stays off unless a child turns it on (TraceEnv::InChild).
class FrameworkTest : public TraceEnv {
protected:
    void Conf(const std::string& f, const std::string& body) { ASSERT_TRUE(WriteFile(m_Dir.Sub("mods/" + f), body)); }
    void ModuleConf(const char* name, int order, const std::string& extra = "")
    {
        Conf(std::string(name) + ".conf",
             "[Module]\nLibrary=" + Module(name) + "\nOrder=" + std::to_string(order) + "\n" + extra);
    }
    Texts Record() const { return SplitLines(ReadFile(m_Record)); }

    /// Loads the framework and its modules with the given run mode and flags.
    int Load(uint32_t runMode = 0, uint32_t flags = 0)
    {
        if (!m_Api.LoadSwitch())
            return -1;
        _ExtensionModuleLoaderConfig config{flags, runMode};
        return m_Api.LoadModules(config);
    }
    SwitchInterface* Sw() { return m_Api.Interface(); }

    std::string m_Record = m_Dir.Sub("record.txt");
    ScopedEnv m_RecordEnv{"TEST_MODULE_RECORD", m_Record.c_str()};
    std::string m_ModsDir = (MakeDirs(m_Dir.Sub("mods")), m_Dir.Sub("mods"));
    ScopedEnv m_DirEnv{"TARVD_MODULES_DIR", m_ModsDir.c_str()};
    CSwitchApi m_Api{TEST_FRAMEWORK_LIBRARY};
};

} // namespace

// Run modes and Enabled select the modules; the last reference to the framework unloads the rest.
TEST_F(FrameworkTest, DrivesTheSelectedModulesInOrderFromStartToUnload)
{
    ModuleConf("good", 20, "Greeting=hello world\nRunModes=5, 7\n");
    ModuleConf("second", 10, "RunModes=all\n");
    ModuleConf("refuse", 3, "Enabled=0\nRunModes=all\n");
    ModuleConf("throwrun", 4, "RunModes=0 8\n");
    ASSERT_EQ(Load(7, 1), 1);
    Sw()->StartAllModules();
    Sw()->NotifySystemEvent(SW_EVENT_DAEMON_STOPPING, nullptr, 0);
    int level = 6;
    Sw()->NotifySystemEvent(SW_EVENT_OS_SHUTDOWN, &level, 0);
    Sw()->StopAllModules();
    m_Api.Release();
    EXPECT_EQ(Record(), (Texts{"second load runmode=7 flags=1 name=second greeting=(none)",
                               "good load runmode=7 flags=1 name=good greeting=hello world",
                               "second start", "good start", "second notify 0x20000", "good notify 0x20000",
                               "second notify 0x30000 level=6", "good notify 0x30000 level=6",
                               "good stop", "second stop", "good unload", "second unload"}));
}

TEST_F(FrameworkTest, BrokenAndThrowingModulesAreContainedAndTheOthersRun)
{
    int order = 0;
    for (const char* name : {"noentry", "badabi", "throwload", "refuse", "throwrun", "good"})
        ModuleConf(name, ++order);
    Conf("missing.conf", "Library=" + m_Dir.Sub("nowhere/libmissing.so") + "\n");
    Conf("garbage.conf", "this is not a key value line\nLibrary=" + Module("second") + "\n");
    Conf("ignored.txt", "Library=" + Module("second") + "\n");
    Conf("notlib.conf", "Library=" + m_Dir.Sub("mods/ignored.txt") + "\n");
    TakeSysLogLines();
    ASSERT_EQ(Load(), 1);
    EXPECT_NO_THROW(Sw()->StartAllModules());
    EXPECT_NO_THROW(Sw()->NotifySystemEvent(SW_EVENT_DAEMON_STOPPING, nullptr, 0));
    EXPECT_NO_THROW(Sw()->StopAllModules());
    EXPECT_NO_THROW(m_Api.UnloadModules(0));
    m_Api.Release();
    EXPECT_EQ(Record(), (Texts{"throwload load runmode=0 flags=0 name=throwload greeting=(none)",
                               "throwload unload",  // a chance to clean up after the throw
                               "refuse load runmode=0 flags=0 name=refuse greeting=(none)",
                               "throwrun load runmode=0 flags=0 name=throwrun greeting=(none)",
                               "good load runmode=0 flags=0 name=good greeting=(none)",
                               "throwrun start",  // threw: counts as not started, so it is not stopped
                               "good start", "throwrun notify 0x20000", "good notify 0x20000", "good stop",
                               "good unload", "throwrun unload"}));
    // Each failure reaches the system log as an error naming the module, with tracing off.
    const auto logged = TakeSysLogLines();
    for (const char* name : {"noentry", "badabi", "throwload", "refuse", "throwrun", "missing", "garbage", "notlib"})
        EXPECT_TRUE(std::any_of(logged.begin(), logged.end(), [&](const std::pair<int, std::string>& l) {
            return l.first == SysLogTraces::SL_ERR && l.second.find(name) != std::string::npos;
        })) << name;
}

TEST_F(FrameworkTest, EmptyOrMissingModulesDirectoryLoadsNothingAndAFileInItsPlaceFailsTheLoad)
{
    EXPECT_TRUE(Load() == 1 && Record().empty());
    m_Api.Release();
    // A machine without modules has no directory for them: nothing configured, one trace line.
    const std::string absent = m_Dir.Sub("absent");
    ScopedEnv dir("TARVD_MODULES_DIR", absent.c_str());
    for (const auto& [name, value] : {std::pair{"TR_LOG_DEBUG_LEVEL", "2"}, {"TraceFileLimit", "1"},
                                      {"TR_LOG_RINGBUF_WEIGHT", "1"}})
        Set(name, value);
    ExpectExit(InChild([&] {
                   Debug.SetConfigDirectory(m_ConfigDir.c_str());
                   Debug.Init(m_Program.c_str());
                   return Load() == 1 && Sw()->StartAllModules() == 0 ? 0 : 1;
               }),
               0);
    const Texts messages = RingMessages(m_Dir.Sub("log.testprog_i"));
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "SWITCH              : the modules directory " + absent + " is missing: no modules configured"),
              1);
    EXPECT_TRUE(TakeSysLogLines().empty());
    // A file in its place cannot be read (ENOTDIR): the load fails, and the system log hears it.
    ASSERT_TRUE(WriteFile(absent, ""));
    EXPECT_EQ(Load(), 0);
    EXPECT_EQ(TakeSysLogLines(), (std::vector<std::pair<int, std::string>>{
                                     {3, "SWITCH              : ## ERROR! cannot read the modules directory " + absent +
                                             " (errno=20: Not a directory)"}}));
    EXPECT_NO_THROW(Sw()->StartAllModules());
    EXPECT_EQ(m_Api.UnloadModules(0), 1);
}

TEST_F(FrameworkTest, InterfaceSlotsThroughTheVirtualTable)
{
    ModuleConf("good", 1);
    ASSERT_TRUE(m_Api.LoadSwitch());
    SwitchInterface* sw = Sw();
    void** vtable = *reinterpret_cast<void***>(sw);
    EXPECT_EQ(reinterpret_cast<uint32_t (*)(SwitchInterface*)>(vtable[0])(sw), SWITCH_INTERFACE_VERSION);
    for (int slot = 6; slot <= 15; ++slot)
        EXPECT_EQ(reinterpret_cast<int (*)(SwitchInterface*)>(vtable[slot])(sw), 0) << slot;
    _ExtensionModuleLoaderConfig config{1, 0};
    EXPECT_EQ(reinterpret_cast<int (*)(SwitchInterface*, _ExtensionModuleLoaderConfig*)>(vtable[2])(sw, &config), 1);
    reinterpret_cast<int (*)(SwitchInterface*)>(vtable[4])(sw);
    int level = 0;
    reinterpret_cast<int (*)(SwitchInterface*, uint32_t, void*, uint32_t)>(vtable[16])(sw, 0x30000, &level, 0);
    reinterpret_cast<int (*)(SwitchInterface*)>(vtable[5])(sw);
    EXPECT_EQ(reinterpret_cast<int (*)(SwitchInterface*, uint32_t)>(vtable[3])(sw, 0), 1);
    EXPECT_EQ(Record(), (Texts{"good load runmode=0 flags=1 name=good greeting=(none)", "good start",
                               "good notify 0x30000 level=0", "good stop", "good unload"}));
}

TEST_F(FrameworkTest, ExampleModuleStopsAndUnloadsDespiteALongHeartbeat)
{
    Conf("example.conf", std::string("[Module]\nLibrary=") + TEST_EXAMPLE_MODULE + "\nRunModes=all\nHeartbeatSeconds=3600\n");
    ASSERT_EQ(Load(), 1);
    Sw()->StartAllModules();
    Sw()->NotifySystemEvent(SW_EVENT_DAEMON_STOPPING, nullptr, 0);
    Sw()->StopAllModules();  // a stop that waited out the hour would hang the test
    Sw()->StartAllModules();
    Sw()->StartAllModules();  // a second start changes nothing
    // Unload alone must stop the thread before the module is closed (it would hang or crash).
    m_Api.UnloadModules(0);
    m_Api.Release();
}

TEST(ModuleConfig, ParsesKeysRejectsMalformedFilesAndListsADirectory)
{
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("mine.conf"),
                          "# comment\n; other comment\n[Module]\n  Library = libmine.so  \nRunModes=0,5 8\n"
                          "Order=-3\nCustom=a=b\r\n"));
    tarvdfw::ModuleDescriptor d;
    std::string error;
    ASSERT_TRUE(tarvdfw::ParseModuleConfig(dir.Sub("mine.conf"), d, error)) << error;
    EXPECT_EQ(d.name + " " + d.library + " " + std::to_string(d.order), "mine " + dir.Sub("libmine.so") + " -3");
    EXPECT_TRUE(d.RunsIn(0) && d.RunsIn(5) && d.RunsIn(8) && !d.RunsIn(7));
    EXPECT_STREQ(d.Value("CUSTOM"), "a=b");
    EXPECT_FALSE(d.Value("absent"));
    const std::pair<std::string, std::string> bad[] = {  // "absent" is never written
        {"nolib", "Name=x\n"}, {"order", "Library=/x.so\nOrder=12abc\n"},
        {"bigorder", "Library=/x.so\nOrder=99999999999999999999\n"}, {"modes", "Library=/x.so\nRunModes=,\n"},
        {"section", "[Module\nLibrary=/x.so\n"}, {"nokey", "=value\nLibrary=/x.so\n"},
        {"garbage", "not a key value line\nLibrary=/x.so\n"}, {"badmodes", "Library=/x.so\nRunModes=zero\n"},
        {"longline", "Library=/x.so\n" + std::string(tarvdfw::kMaxLineLength + 1, 'k') + "\n"},
        {"huge", "Library=/x.so\n" + std::string(tarvdfw::kMaxConfigSize, '#')}, {"absent", ""},
    };
    for (const auto& [name, body] : bad) {
        ASSERT_TRUE(name == "absent" || WriteFile(dir.Sub(name + ".conf"), body));
        tarvdfw::ModuleDescriptor none;
        std::string why;
        EXPECT_FALSE(tarvdfw::ParseModuleConfig(dir.Sub(name + ".conf"), none, why) || why.empty()) << name;
    }
    for (const char* f : {".hidden.conf", "c.conf.bak", "x.txt", ".conf"})
        ASSERT_TRUE(WriteFile(dir.Sub(f), "Library=/x.so\n"));
    std::vector<std::string> files;
    ASSERT_TRUE(tarvdfw::ListModuleConfigs(dir.Path(), files));
    EXPECT_EQ(files.size(), std::size(bad));  // the ones written and mine.conf, sorted
    EXPECT_TRUE(std::is_sorted(files.begin(), files.end()));
    EXPECT_EQ(files[0], dir.Sub("badmodes.conf"));
    int errorNumber = -1;
    EXPECT_TRUE(tarvdfw::ListModuleConfigs(dir.Path(), files, &errorNumber) && errorNumber == 0);
    for (auto [path, error] : {std::pair{dir.Sub("absent"), ENOENT}, {dir.Sub("mine.conf"), ENOTDIR}})
        EXPECT_TRUE(!tarvdfw::ListModuleConfigs(path, files, &errorNumber) && errorNumber == error) << path;
}

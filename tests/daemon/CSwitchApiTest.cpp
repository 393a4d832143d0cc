// The daemon's hold on the framework library, against stand-ins that record every call
// (tests/daemon/libs); the daemon's own use of it, end to end, is in KopdEndToEndTest.
#include <gtest/gtest.h>

#include "daemon/CSwitchApi.h"
#include "support/TestSupport.h"

using namespace testsupport;

static const std::string kRecording = TEST_RECORDING_SWITCH_DIR "/libswitch.so";

TEST(CSwitchApi, UnusableLibrariesAndModuleFailuresAreContained)
{
    TempDir dir;
    ScopedEnv record("TEST_SWITCH_RECORD", dir.Sub("record").c_str());
    _ExtensionModuleLoaderConfig config{1, 0};
    CSwitchApi missing(dir.Sub("libswitch.so").c_str());
    EXPECT_TRUE(!missing.LoadSwitch() && !missing.Handle());
    EXPECT_EQ(missing.LoadModules(config) + missing.UnloadModules(0), 0);

    CSwitchApi noQuery(TEST_NOQUERY_SWITCH_DIR "/libswitch.so");
    EXPECT_TRUE(!noQuery.LoadSwitch() && noQuery.Handle() && !noQuery.Interface());  // loaded, but no interface
    noQuery.CloseLibrary();  // the fatal path: SW_Release is not called
    EXPECT_TRUE(!noQuery.Handle() && !noQuery.ReleaseEntry());
    {
        ScopedEnv refuse("TEST_SWITCH_QUERY", "refuse");
        CSwitchApi refused(kRecording.c_str());
        EXPECT_TRUE(!refused.LoadSwitch() && !refused.Interface());
    }
    // A failure's result comes back whole (only its low byte counts); an
    // exception gives 0, and the object stays usable and releases normally.
    for (const char* how : {"fail", "throw"}) {
        ScopedEnv load("TEST_SWITCH_LOAD", how), unload("TEST_SWITCH_UNLOAD", how);
        CSwitchApi api(kRecording.c_str());
        ASSERT_TRUE(api.LoadSwitch());
        EXPECT_EQ(api.LoadModules(config), how[0] == 'f' ? 0x100 : 0) << how;
        EXPECT_EQ(api.UnloadModules(0), how[0] == 'f' ? 7 : 0) << how;
        EXPECT_NE(api.Interface(), nullptr);
    }
    EXPECT_EQ(SplitLines(ReadFile(dir.Sub("record"))),
              (std::vector<std::string>{"query id=0", "release", "query id=0", "slot2 flags=1 runmode=0", "slot3 value=0",
                                        "release", "query id=0", "slot2 flags=1 runmode=0", "slot3 value=0", "release"}));
}

TEST(CSwitchApi, CallsReachTheLibraryUnchangedAndReleaseIsOnce)
{
    TempDir dir;
    ScopedEnv env("TEST_SWITCH_RECORD", dir.Sub("record").c_str());
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    void* handle = api.Handle();
    ASSERT_TRUE(api.LoadSwitch());  // a second load reuses the handle
    EXPECT_EQ(api.Handle(), handle);
    EXPECT_TRUE(api.AddRefEntry() && api.ReleaseEntry() && api.QueryInterfaceEntry());
    ASSERT_NE(api.Interface(), nullptr);
    int level = 6;
    api.Interface()->NotifySystemEvent(SW_EVENT_OS_SHUTDOWN, &level, 0);
    _ExtensionModuleLoaderConfig config{1, 7};
    EXPECT_EQ(api.LoadModules(config), 1);
    EXPECT_EQ(api.UnloadModules(0), 7);  // the library's result, unchanged
    api.Release();
    EXPECT_TRUE(!api.Handle() && !api.Interface() && !api.AddRefEntry() && !api.ReleaseEntry() &&
                !api.QueryInterfaceEntry());
    api.Release();  // a second release does nothing, nor does the destructor
    // SW_AddRef is never called.
    EXPECT_EQ(SplitLines(ReadFile(dir.Sub("record"))),
              (std::vector<std::string>{"query id=0", "query id=0", "slot16 event=0x30000 level=6 third=0",
                                        "slot2 flags=1 runmode=7", "slot3 value=0", "release"}));
}

#include <gtest/gtest.h>

#include <algorithm>
#include <dlfcn.h>

#include "support/TestSupport.h"
#include "daemon/CSwitchApi.h"

using testsupport::ReadFile;
using testsupport::ScopedEnv;
using testsupport::SplitLines;
using testsupport::TempDir;

namespace {

const std::string kRecording = std::string(TEST_RECORDING_SWITCH_DIR) + "/libswitch.so";
const std::string kNoQuery = std::string(TEST_NOQUERY_SWITCH_DIR) + "/libswitch.so";

struct Recorder {
    TempDir dir;
    std::string path = dir.Sub("record.txt");
    ScopedEnv env{"TEST_SWITCH_RECORD", path.c_str()};
    std::vector<std::string> Lines() const { return SplitLines(ReadFile(path)); }
};

size_t Count(const std::vector<std::string>& lines, const std::string& line)
{
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

} // namespace

TEST(CSwitchApi, NewObjectHoldsNothing)
{
    CSwitchApi api(kRecording.c_str());
    EXPECT_EQ(api.Handle(), nullptr);
    EXPECT_EQ(api.Interface(), nullptr);
    EXPECT_EQ(api.AddRefEntry(), nullptr);
    EXPECT_EQ(api.ReleaseEntry(), nullptr);
    EXPECT_EQ(api.QueryInterfaceEntry(), nullptr);
    EXPECT_EQ(api.LastError(), 0u);
}

TEST(CSwitchApi, MissingLibraryFailsAndKeepsNothing)
{
    TempDir dir;
    std::string missing = dir.Sub("libswitch.so");
    CSwitchApi api(missing.c_str());
    EXPECT_FALSE(api.LoadSwitch());
    EXPECT_EQ(api.Handle(), nullptr);
    EXPECT_EQ(api.Interface(), nullptr);
    _ExtensionModuleLoaderConfig config{1, 0};
    EXPECT_EQ(api.LoadModules(config), 0);
    EXPECT_EQ(api.UnloadModules(0), 0);
}

TEST(CSwitchApi, LibraryWithoutQueryInterfaceFailsTheLoad)
{
    Recorder rec;
    CSwitchApi api(kNoQuery.c_str());
    EXPECT_FALSE(api.LoadSwitch());
    EXPECT_NE(api.Handle(), nullptr);  // loaded, but no interface
    EXPECT_EQ(api.QueryInterfaceEntry(), nullptr);
    EXPECT_NE(api.ReleaseEntry(), nullptr);
    EXPECT_EQ(api.Interface(), nullptr);
    api.CloseLibrary();
    EXPECT_EQ(api.Handle(), nullptr);
    EXPECT_EQ(api.ReleaseEntry(), nullptr);
    // The fatal path only closes the library: SW_Release is not called.
    EXPECT_EQ(Count(rec.Lines(), "release"), 0u);
}

TEST(CSwitchApi, RefusedInterfaceFailsTheLoad)
{
    Recorder rec;
    ScopedEnv refuse("TEST_SWITCH_QUERY", "refuse");
    CSwitchApi api(kRecording.c_str());
    EXPECT_FALSE(api.LoadSwitch());
    EXPECT_EQ(api.Interface(), nullptr);
    EXPECT_EQ(Count(rec.Lines(), "query id=0"), 1u);
}

TEST(CSwitchApi, FullCycleCallsTheSlotsAndReleasesOnce)
{
    Recorder rec;
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    EXPECT_NE(api.Handle(), nullptr);
    EXPECT_NE(api.AddRefEntry(), nullptr);
    EXPECT_NE(api.ReleaseEntry(), nullptr);
    EXPECT_NE(api.QueryInterfaceEntry(), nullptr);
    ASSERT_NE(api.Interface(), nullptr);

    _ExtensionModuleLoaderConfig config{1, 7};
    EXPECT_EQ(api.LoadModules(config), 1);
    api.Interface()->StartAllModules();
    int level = 6;
    api.Interface()->NotifySystemEvent(SW_EVENT_OS_SHUTDOWN, &level, 0);
    api.Interface()->StopAllModules();
    EXPECT_EQ(api.UnloadModules(0), 7);  // the library's result, unchanged
    api.Release();

    EXPECT_EQ(api.Handle(), nullptr);
    EXPECT_EQ(api.Interface(), nullptr);
    EXPECT_EQ(api.AddRefEntry(), nullptr);
    EXPECT_EQ(api.ReleaseEntry(), nullptr);
    EXPECT_EQ(api.QueryInterfaceEntry(), nullptr);
    api.Release();  // a second release does nothing

    std::vector<std::string> expected = {"query id=0",   "slot2 flags=1 runmode=7",
                                         "slot4",        "slot16 event=0x30000 level=6 third=0",
                                         "slot5",        "slot3 value=0",
                                         "release"};
    EXPECT_EQ(rec.Lines(), expected);  // SW_AddRef never called, slot 1 never reached
}

TEST(CSwitchApi, DestructorReleasesAHeldLibrary)
{
    Recorder rec;
    {
        CSwitchApi api(kRecording.c_str());
        ASSERT_TRUE(api.LoadSwitch());
    }
    EXPECT_EQ(Count(rec.Lines(), "release"), 1u);
}

TEST(CSwitchApi, LowByteOfTheLoadResultIsReturnedUnchanged)
{
    Recorder rec;
    ScopedEnv fail("TEST_SWITCH_LOAD", "fail");
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    _ExtensionModuleLoaderConfig config{0, 0};
    int result = api.LoadModules(config);
    EXPECT_EQ(result, 0x100);
    EXPECT_EQ(static_cast<uint8_t>(result), 0);
}

TEST(CSwitchApi, ExceptionsOfLoadAndUnloadAreCaught)
{
    Recorder rec;
    ScopedEnv loadThrows("TEST_SWITCH_LOAD", "throw");
    ScopedEnv unloadThrows("TEST_SWITCH_UNLOAD", "throw");
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    _ExtensionModuleLoaderConfig config{0, 0};
    EXPECT_EQ(api.LoadModules(config), 0);
    EXPECT_EQ(api.UnloadModules(0), 0);
    // The object is still usable and releases normally.
    EXPECT_NE(api.Interface(), nullptr);
    api.Release();
    EXPECT_EQ(Count(rec.Lines(), "release"), 1u);
}

TEST(CSwitchApi, SecondLoadSwitchReusesTheHandle)
{
    Recorder rec;
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    void* handle = api.Handle();
    ASSERT_TRUE(api.LoadSwitch());
    EXPECT_EQ(api.Handle(), handle);
    EXPECT_EQ(Count(rec.Lines(), "query id=0"), 2u);
}

TEST(SwitchInterfaceLayout, SlotsAreWhereTheDaemonCallsThem)
{
    // Call every slot through the raw virtual table, by number, and check
    // that the library saw the call on the operation of that number.
    Recorder rec;
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    SwitchInterface* sw = api.Interface();
    void** vtable = *reinterpret_cast<void***>(sw);

    using NoArg = int (*)(SwitchInterface*);
    for (int slot : {0, 1, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})
        EXPECT_EQ(reinterpret_cast<NoArg>(vtable[slot])(sw), slot);
    _ExtensionModuleLoaderConfig config{1, 10};
    reinterpret_cast<int (*)(SwitchInterface*, _ExtensionModuleLoaderConfig*)>(vtable[2])(sw, &config);
    reinterpret_cast<int (*)(SwitchInterface*, uint32_t)>(vtable[3])(sw, 9);
    EXPECT_EQ(reinterpret_cast<int (*)(SwitchInterface*, uint32_t, void*, uint32_t)>(vtable[16])(sw, 0x20000, nullptr,
                                                                                                0),
              16);

    auto lines = rec.Lines();
    std::vector<std::string> expected = {"query id=0"};
    for (int slot : {0, 1, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})
        expected.push_back("slot" + std::to_string(slot));
    expected.push_back("slot2 flags=1 runmode=10");
    expected.push_back("slot3 value=9");
    expected.push_back("slot16 event=0x20000 data=null third=0");
    EXPECT_EQ(lines, expected);
}

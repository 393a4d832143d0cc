// The daemon's hold on the framework library, against stand-ins that record
// every call (tests/daemon/libs).
#include <gtest/gtest.h>

#include <algorithm>

#include "daemon/CSwitchApi.h"
#include "support/TestSupport.h"

using namespace testsupport;

namespace {

const std::string kRecording = std::string(TEST_RECORDING_SWITCH_DIR) + "/libswitch.so";

class CSwitchApiTest : public ::testing::Test {
protected:
    std::vector<std::string> Lines() const { return SplitLines(ReadFile(m_Record)); }
    size_t Count(const std::string& line) const
    {
        auto lines = Lines();
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
    }
    static bool Empty(CSwitchApi& api)
    {
        return !api.Handle() && !api.Interface() && !api.AddRefEntry() && !api.ReleaseEntry() &&
               !api.QueryInterfaceEntry();
    }

    TempDir m_Dir;
    std::string m_Record = m_Dir.Sub("record.txt");
    ScopedEnv m_Env{"TEST_SWITCH_RECORD", m_Record.c_str()};
};

} // namespace

TEST_F(CSwitchApiTest, UnusableLibrariesFailTheLoad)
{
    CSwitchApi missing(m_Dir.Sub("libswitch.so").c_str());
    EXPECT_FALSE(missing.LoadSwitch());
    EXPECT_TRUE(Empty(missing));
    _ExtensionModuleLoaderConfig config{1, 0};
    EXPECT_EQ(missing.LoadModules(config), 0);
    EXPECT_EQ(missing.UnloadModules(0), 0);

    CSwitchApi noQuery((std::string(TEST_NOQUERY_SWITCH_DIR) + "/libswitch.so").c_str());
    EXPECT_FALSE(noQuery.LoadSwitch());
    EXPECT_NE(noQuery.Handle(), nullptr);  // loaded, but no interface
    EXPECT_NE(noQuery.ReleaseEntry(), nullptr);
    EXPECT_EQ(noQuery.Interface(), nullptr);
    noQuery.CloseLibrary();
    EXPECT_TRUE(Empty(noQuery));
    EXPECT_EQ(Count("release"), 0u);  // the fatal path only closes the library

    ScopedEnv refuse("TEST_SWITCH_QUERY", "refuse");
    CSwitchApi refused(kRecording.c_str());
    EXPECT_FALSE(refused.LoadSwitch());
    EXPECT_EQ(refused.Interface(), nullptr);
    EXPECT_EQ(Count("query id=0"), 1u);
}

TEST_F(CSwitchApiTest, FullCycleCallsTheSlotsAndReleasesOnce)
{
    CSwitchApi api(kRecording.c_str());
    EXPECT_TRUE(Empty(api));
    ASSERT_TRUE(api.LoadSwitch());
    void* handle = api.Handle();
    ASSERT_TRUE(api.LoadSwitch());  // a second load reuses the handle
    EXPECT_EQ(api.Handle(), handle);
    ASSERT_NE(api.Interface(), nullptr);
    EXPECT_TRUE(api.AddRefEntry() && api.ReleaseEntry() && api.QueryInterfaceEntry());
    _ExtensionModuleLoaderConfig config{1, 7};
    EXPECT_EQ(api.LoadModules(config), 1);
    api.Interface()->StartAllModules();
    int level = 6;
    api.Interface()->NotifySystemEvent(SW_EVENT_OS_SHUTDOWN, &level, 0);
    api.Interface()->StopAllModules();
    EXPECT_EQ(api.UnloadModules(0), 7);  // the library's result, unchanged
    api.Release();
    EXPECT_TRUE(Empty(api));
    api.Release();  // a second release does nothing
    // SW_AddRef never called, slot 1 never reached.
    EXPECT_EQ(Lines(), (std::vector<std::string>{"query id=0", "query id=0", "slot2 flags=1 runmode=7", "slot4",
                                                 "slot16 event=0x30000 level=6 third=0", "slot5", "slot3 value=0",
                                                 "release"}));
    {
        CSwitchApi held(kRecording.c_str());
        ASSERT_TRUE(held.LoadSwitch());
    }
    EXPECT_EQ(Count("release"), 2u);  // the destructor releases a held library
}

TEST_F(CSwitchApiTest, FailuresAndExceptionsOfTheModuleCallsAreContained)
{
    for (const char* how : {"fail", "throw"}) {
        ScopedEnv load("TEST_SWITCH_LOAD", how), unload("TEST_SWITCH_UNLOAD", how);
        CSwitchApi api(kRecording.c_str());
        ASSERT_TRUE(api.LoadSwitch());
        _ExtensionModuleLoaderConfig config{0, 0};
        // A failure's result comes back whole (only its low byte counts);
        // an exception gives 0 and the object stays usable.
        EXPECT_EQ(api.LoadModules(config), how[0] == 'f' ? 0x100 : 0) << how;
        EXPECT_EQ(api.UnloadModules(0), how[0] == 'f' ? 7 : 0) << how;
        EXPECT_NE(api.Interface(), nullptr);
    }
    EXPECT_EQ(Count("release"), 2u);
}

TEST(SwitchInterfaceLayout, SlotsAreWhereTheDaemonCallsThem)
{
    // Every slot called through the raw virtual table, by number: the
    // library must see the call on the operation of that number.
    TempDir dir;
    ScopedEnv env("TEST_SWITCH_RECORD", dir.Sub("record").c_str());
    CSwitchApi api(kRecording.c_str());
    ASSERT_TRUE(api.LoadSwitch());
    SwitchInterface* sw = api.Interface();
    void** vtable = *reinterpret_cast<void***>(sw);
    std::vector<std::string> expected = {"query id=0"};
    for (int slot : {0, 1, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}) {
        EXPECT_EQ(reinterpret_cast<int (*)(SwitchInterface*)>(vtable[slot])(sw), slot);
        expected.push_back("slot" + std::to_string(slot));
    }
    _ExtensionModuleLoaderConfig config{1, 10};
    reinterpret_cast<int (*)(SwitchInterface*, _ExtensionModuleLoaderConfig*)>(vtable[2])(sw, &config);
    reinterpret_cast<int (*)(SwitchInterface*, uint32_t)>(vtable[3])(sw, 9);
    using Notify = int (*)(SwitchInterface*, uint32_t, void*, uint32_t);
    EXPECT_EQ(reinterpret_cast<Notify>(vtable[16])(sw, 0x20000, nullptr, 0), 16);
    expected.insert(expected.end(), {"slot2 flags=1 runmode=10", "slot3 value=9",
                                     "slot16 event=0x20000 data=null third=0"});
    EXPECT_EQ(SplitLines(ReadFile(dir.Sub("record"))), expected);
}

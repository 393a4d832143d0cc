// Handles on the class-wide tree, also from threads of their own.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/RegistryFixture.h"
#include "support/TraceEnv.h"

static const unsigned char* Bytes(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

TEST_F(RegistryTest, PathsAreSplitAtBackslashThenSlash)
{
    CRegistry reg;
    CRegistryNode* const machine = CRegistry::HKEY_LOCAL_MACHINE;
    ASSERT_EQ(reg.CreateKey(machine, "SOFTWARE\\X/Y"), 0);
    CRegistryNode* y = reg.GetKey();
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE\\SOFTWARE/X"), 0u);
    EXPECT_STREQ(reg.GetPath(), "HKEY_LOCAL_MACHINE/SOFTWARE/X");
    CRegistryNode* x = reg.GetKey();
    ASSERT_EQ(reg.SetValue("val", 1u), 0u);
    struct { const char* path; CRegistryNode* parent; CRegistryNode* key; } const cases[] = {
        {"Y", x, y}, {"HKEY_LOCAL_MACHINE/SOFTWARE/X/", nullptr, x}, {"", x, x},
        // With a backslash further on, a slash is part of the component name.
        {"HKEY_LOCAL_MACHINE/SOFTWARE\\X", nullptr, nullptr},
        {"HKEY_LOCAL_MACHINE//SOFTWARE", nullptr, nullptr}, {"hkey_local_machine/SOFTWARE", nullptr, nullptr},
        {nullptr, nullptr, nullptr}, {"HKEY_LOCAL_MACHINE/SOFTWARE/X/val", nullptr, nullptr},  // a value is no key
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path ? c.path : "<null>");
        CRegistry handle(CRegistry::HKEY_USERS);
        EXPECT_EQ(handle.Open(c.path, c.parent), c.key ? 0u : CRegistry::kOpenFailed);
        // Unchanged on failure.
        EXPECT_EQ(handle.GetKey(), c.key ? c.key : CRegistry::HKEY_USERS);
        EXPECT_TRUE(c.key || handle.GetPath() == nullptr);
    }
    EXPECT_EQ(reg.CreateKey(nullptr, "val/below"), -1);
    EXPECT_EQ(reg.CreateKey(nullptr, nullptr), -1);
    EXPECT_EQ(CRegistry().CreateKey(x, ""), 0);
    EXPECT_EQ(CRegistry::GetRegistryDirectory(), m_Dir.Path());
}

TEST_F(RegistryTest, ValuesByTypeReplaceSubkeysOfTheSameName)
{
    testsupport::ScopedEnv home("HOME", "/home/tester");
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "Victim/Child"), 0);
    ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, ""), 0);
    const unsigned number = 42;
    const std::string four(reinterpret_cast<const char*>(&number), 4);
    EXPECT_TRUE(reg.SetValue("Victim", Bytes(four.data()), 4, RegNumber));  // the subkey and its subtree go
    EXPECT_EQ(reg.Open("Victim", CRegistry::HKEY_LOCAL_MACHINE), CRegistry::kOpenFailed);
    EXPECT_TRUE(reg.SetValue("bin", Bytes("\1\2\0\4"), 4, RegBinary) && reg.SetValue("nobytes", nullptr, 0, RegBinary));
    const char* text = "%HOME%/x%%y%z";
    EXPECT_TRUE(reg.SetValue("e", Bytes(text), static_cast<unsigned>(strlen(text)), RegExpandString));
    // Refused forms store nothing; a null name is accepted and ignored.
    EXPECT_FALSE(reg.SetValue("bad", Bytes("123"), 3, RegNumber));
    EXPECT_FALSE(reg.SetValue("bad", Bytes("1234"), 4, 5));
    EXPECT_FALSE(reg.SetValue("bad", nullptr, 3, RegBinary));
    EXPECT_EQ(reg.SetValue("bad", static_cast<const char*>(nullptr)), CRegistry::kInvalid);
    EXPECT_TRUE(reg.SetValue(nullptr, Bytes("1234"), 4, RegNumber));
    EXPECT_EQ(reg.GetValueSize("bad") + reg.GetValueSize(nullptr), 0u);
    // Copies of the values: numbers as 4 bytes, binary without its count, expandable strings expanded.
    auto got = [&reg](const char* name) {
        const unsigned char* v = reg.GetValue(name);
        return v ? std::string(reinterpret_cast<const char*>(v), reg.GetLastSize()) : "<null>";
    };
    EXPECT_EQ(got("Victim"), four);
    EXPECT_EQ(got("bin"), std::string("\1\2\0\4", 4));
    EXPECT_EQ(got("nobytes"), "<null>");
    EXPECT_EQ(got("VICTIM"), "<null>");  // names are case-sensitive
    EXPECT_EQ(got("e"), "/home/tester/x%yz");
    std::string s;
    EXPECT_EQ(reg.QueryValue(s, nullptr), CRegistry::kNoData);
    reg.SetExpand(false);
    EXPECT_EQ(reg.QueryValue(s, "e"), 0u);
    EXPECT_EQ(s, text);
    EXPECT_EQ(reg.GetValueSize("e"), strlen(text) + 1);
    const std::pair<const char*, const char*> expansions[] = {
        {"a%TARVD_SURELY_UNSET%b", "ab"}, {"%%%%", "%%"}, {"tail%", "tail"}, {"%HOME", "HOME"}, {"", ""}};
    for (const auto& [in, out] : expansions) {
        char* expanded = CRegistry::ExpandText(in);
        EXPECT_STREQ(expanded, out) << in;
        free(expanded);
    }
    // Copies of a handle keep buffers of their own.
    reg.GetValue("bin");
    CRegistry copy(reg);
    CRegistry& alias = copy;
    copy = alias;
    reg = copy;
    reg.GetValue("Victim");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(copy.GetValue("bin")), 4), std::string("\1\2\0\4", 4));
}

TEST_F(RegistryTest, HandleWithoutKeyRefusesEverything)
{
    CRegistry none;
    char name[8];
    unsigned size = sizeof name, n = 0;
    std::string s;
    EXPECT_FALSE(none.SetValue("x", Bytes("1234"), 4, RegNumber) || none.GetValue("x") || none.Close());
    EXPECT_EQ(none.CreateKey(nullptr, "x"), -1);
    const uint32_t statuses[] = {none.SetValue("x", 1u), none.SetValue("x", "t"), none.GetValueSize("x"),
                                 none.QueryValue(&n, "x"), none.QueryValue(s, "x"),
                                 none.EnumVal(name, &size, 0, RegAnyValue, nullptr, nullptr),
                                 none.EnumKey(name, &size, 0), none.NoOfSubKeys(&n), none.DeleteValue("x"),
                                 none.DeleteKey("x")};
    for (size_t i = 0; i < std::size(statuses); ++i)
        EXPECT_EQ(statuses[i], CRegistry::kInvalid) << i;
}

TEST_F(RegistryTest, QueryValueBufferRules)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    reg.SetValue("s", "hello");
    reg.SetValue("n", 7u);
    char buf[16];
    unsigned count = 0;
    EXPECT_TRUE(reg.QueryValue(nullptr, "s", &count) == 0 && count == 6);  // size query
    memset(buf, 'X', sizeof buf);
    count = 5;  // == length
    EXPECT_EQ(reg.QueryValue(buf, "s", &count), CRegistry::kRange);
    EXPECT_EQ(std::string(buf, 6), "helloX");  // copied unterminated
    count = 6;
    EXPECT_TRUE(reg.QueryValue(buf, "s", &count) == 0 && count == 5);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(reg.QueryValue(buf, "s", nullptr), CRegistry::kRange);
    EXPECT_EQ(reg.QueryValue(buf, "s", 3u), CRegistry::kRange);
    std::string s;  // the wrong type, or none
    for (uint32_t status : {reg.QueryValue(buf, "n", &count), reg.QueryValue(buf, "missing", &count),
                            reg.QueryValue(&count, "s"), reg.QueryValue(static_cast<unsigned*>(nullptr), "n"),
                            reg.QueryValue(s, "n")})
        EXPECT_EQ(status, CRegistry::kNoData);
}

TEST_F(RegistryTest, EnumeratesAndDeletesKeysAndValues)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "E/sub2"), 0);
    ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "E/sub1"), 0);
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE/E"), 0u);
    reg.SetValue("a_bin", Bytes("\1\2\3"), 3, RegBinary);
    reg.SetValue("b_num", 9u);
    reg.SetValue("c_str", "text");
    reg.SetValue("d_long_name_for_cutting", "x");
    EXPECT_EQ(reg.NoOfSubKeys(nullptr), CRegistry::kInvalid);
    char name[64];
    unsigned nameSize = 3;
    unsigned clsSize = 99;
    EXPECT_TRUE(reg.EnumKey(name, &nameSize, 1, nullptr, &clsSize) == 0 && nameSize == 2 && clsSize == 0);
    EXPECT_STREQ(name, "su");  // cut to the buffer
    EXPECT_EQ(reg.EnumKey(name, sizeof name, 0), 0u);
    EXPECT_STREQ(name, "sub1");  // sorted
    EXPECT_EQ(reg.EnumKey(name, sizeof name, 2), CRegistry::kNoData);
    EXPECT_EQ(reg.EnumKey(nullptr, &nameSize, 0), CRegistry::kInvalid);
    nameSize = 0;
    EXPECT_EQ(reg.EnumKey(name, &nameSize, 0), 0u);

    // "name:size afterwards" of a value, or its status.
    unsigned char data[64];
    auto value = [&](unsigned index, unsigned filter, unsigned size, bool withData = true) {
        nameSize = sizeof name;
        unsigned* sizeArg = size ? &size : nullptr;
        uint32_t status = reg.EnumVal(name, &nameSize, index, filter, withData ? data : nullptr, sizeArg);
        return status ? "status " + std::to_string(status) : std::string(name) + ":" + std::to_string(size);
    };
    const unsigned kNine = 9;
    EXPECT_EQ(value(0, RegAnyValue, 64), "a_bin:0");  // binary data is never enumerated
    EXPECT_EQ(value(1, RegAnyValue, 64), "b_num:4");
    EXPECT_EQ(memcmp(data, &kNine, 4), 0);
    EXPECT_EQ(value(1, RegAnyValue, 3), "b_num:0");
    EXPECT_EQ(value(2, RegAnyValue, 64), "c_str:4");
    EXPECT_STREQ(reinterpret_cast<char*>(data), "text");
    EXPECT_EQ(value(2, RegAnyValue, 2), "status 22");  // too small: the string copy fails
    EXPECT_EQ(value(4, RegAnyValue, 64), "status 61");
    EXPECT_EQ(value(1, RegString, 64, false), "d_long_name_for_cutting:0");
    EXPECT_EQ(value(2, RegString, 0, false), "status 61");
    EXPECT_EQ(value(0, RegSubKey, 0, false), "sub1:0");

    CRegistry::SaveTree();
    EXPECT_EQ(reg.DeleteValue("missing"), 0u);
    EXPECT_TRUE(CRegistry::IsDirty());  // set even when nothing is removed
    EXPECT_EQ(reg.DeleteValue(nullptr), 0u);
    EXPECT_EQ(reg.DeleteKey("b_num"), CRegistry::kInvalid);  // a value is not a key
    EXPECT_EQ(reg.DeleteValue("b_num"), 0u);
    EXPECT_EQ(reg.DeleteKey("missing"), CRegistry::kInvalid);
    EXPECT_EQ(reg.DeleteKey("sub1"), 0u);
    EXPECT_EQ(reg.Open("HKEY_LOCAL_MACHINE/E/sub1"), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.DeleteValue("sub2"), 0u);  // removes a subkey too
    unsigned n = 1;
    EXPECT_TRUE(reg.NoOfSubKeys(&n) == 0 && n == 0);
    CRegistryNode* kept = reg.KeepKeyHandle();
    EXPECT_EQ(CRegistry(kept).GetKey(), kept);
}

TEST_F(RegistryTest, PointerKeysUpperCaseOnlyTheRootPart)
{
    CRegistryNode* product = nullptr;
    {
        CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(reg.CreateKey(nullptr, "SOFTWARE/Norvane/Product"), 0);
        product = reg.GetKey();
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, CRegistry::kPointerKeyPath), 0);
        reg.SetValue("good", "hkey_local_machine\\SOFTWARE/Norvane/Product");
        reg.SetValue("slashes", "Hkey_Local_Machine/SOFTWARE/Norvane/Product");
        reg.SetValue("lower", "hkey_local_machine\\software/norvane/product");
        reg.SetValue("noseparator", "HKEY_LOCAL_MACHINE");
        reg.SetValue("empty", "");
    }
    CRegistry reg;
    CRegistryNode* const machine = CRegistry::HKEY_LOCAL_MACHINE;
    ASSERT_EQ(reg.OpenPointerKey("good", nullptr, 0, machine), 0u);
    EXPECT_EQ(reg.GetKey(), product);
    EXPECT_EQ(reg.OpenUUIDPointer("slashes", machine), 0u);
    for (const char* name : {"lower", "noseparator", "empty", "missing"})
        EXPECT_EQ(reg.OpenPointerKey(name, nullptr, 0, machine), CRegistry::kOpenFailed) << name;
    EXPECT_EQ(reg.OpenPointerKey("good", nullptr, 0, CRegistry::HKEY_USERS), CRegistry::kOpenFailed);
    std::string s;
    EXPECT_TRUE(CRegistry::GetProductRegistryRoot(s, "good") && s == "hkey_local_machine\\SOFTWARE/Norvane/Product");
    EXPECT_FALSE(CRegistry::GetProductRegistryRoot(s, "missing"));
}

// A deleted subtree goes key by key without recursion, yet in the order of a recursive walk.
TEST_F(RegistryTest, DeletedSubtreeGoesInWalkOrder)
{
    testsupport::GlobalTrace trace("2");
    for (const char* path : {"A/B/D", "A/C"})
        ASSERT_EQ(CRegistry(CRegistry::HKEY_LOCAL_MACHINE).CreateKey(nullptr, path), 0);
    ASSERT_EQ(CRegistry(CRegistry::HKEY_LOCAL_MACHINE).DeleteKey("A"), 0u);
    std::vector<std::string> order;
    for (const std::string& m : trace.Messages())
        if (size_t at = m.find("deleteNode \""); at != std::string::npos)
            order.push_back(m.substr(at + 11));
    EXPECT_EQ(order, (std::vector<std::string>{"\"A\"", "\"B\"", "\"D\"", "\"C\""}));
}

TEST_F(RegistryTest, ThreadsWithOwnHandlesLoseNoValues)
{
    constexpr int kThreads = 4, kRounds = 15, kPerRound = 20;
    { CRegistry init; }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t]() {
            std::string own = "Thread" + std::to_string(t);
            for (int r = 0; r < kRounds; ++r) {
                CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
                if (reg.CreateKey(nullptr, ("Shared\\" + own).c_str()) != 0)
                    return;
                CRegistryNode* fromRoot = nullptr;
                CRegistry shared("HKEY_LOCAL_MACHINE/Shared", fromRoot);
                for (int k = 0; k < kPerRound; ++k) {
                    int i = r * kPerRound + k;
                    reg.SetValue(("v" + std::to_string(i)).c_str(), static_cast<unsigned>(i));
                    if (shared.GetStatus() == 0)
                        shared.SetValue((own + "_" + std::to_string(i)).c_str(), "x");
                }
                // Both handles save here, concurrently with the other threads' changes.
            }
        });
    }
    for (auto& th : threads)
        th.join();
    CRegistry::SaveTree();
    Reload();
    CRegistry reg;
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE/Shared"), 0u);
    EXPECT_EQ(reg.GetKey()->GetCount(), kThreads * (1 + kRounds * kPerRound));
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(reg.Open(("HKEY_LOCAL_MACHINE/Shared/Thread" + std::to_string(t)).c_str()), 0u);
        EXPECT_EQ(reg.GetKey()->GetCount(), kRounds * kPerRound);
    }
}

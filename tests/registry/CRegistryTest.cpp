#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/RegistryFixture.h"

namespace {

const unsigned char* Bytes(const char* text)
{
    return reinterpret_cast<const unsigned char*>(text);
}

} // namespace

TEST_F(RegistryTest, PathsAreSplitAtBackslashThenSlash)
{
    CRegistry reg;
    ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "SOFTWARE\\X/Y"), 0);
    CRegistryNode* y = reg.GetKey();
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE\\SOFTWARE/X"), 0u);
    EXPECT_STREQ(reg.GetPath(), "HKEY_LOCAL_MACHINE/SOFTWARE/X");
    CRegistryNode* x = reg.GetKey();
    ASSERT_EQ(reg.Open("Y", x), 0u);
    EXPECT_EQ(reg.GetKey(), y);
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE/SOFTWARE/X/"), 0u);  // trailing separator
    EXPECT_EQ(reg.GetKey(), x);
    ASSERT_EQ(reg.Open("", x), 0u);  // empty path: the parent itself
    EXPECT_EQ(reg.GetKey(), x);
    ASSERT_EQ(reg.Open("SOFTWARE\\X\\Y", CRegistry::HKEY_LOCAL_MACHINE), 0u);
    EXPECT_EQ(reg.GetKey(), y);
    // With a backslash further on, a slash is part of the component name.
    EXPECT_EQ(reg.Open("HKEY_LOCAL_MACHINE/SOFTWARE\\X"), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.GetStatus(), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.GetPath(), nullptr);
    EXPECT_EQ(reg.GetKey(), y);  // unchanged on failure
    EXPECT_EQ(reg.Open("HKEY_LOCAL_MACHINE//SOFTWARE"), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.Open("hkey_local_machine/SOFTWARE"), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.Open(nullptr), CRegistry::kOpenFailed);

    // A value at the end of a path is not a key.
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE/SOFTWARE"), 0u);
    ASSERT_EQ(reg.SetValue("val", 1u), 0u);
    EXPECT_EQ(reg.Open("HKEY_LOCAL_MACHINE/SOFTWARE/val"), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.CreateKey(nullptr, "val/below"), -1);
    EXPECT_EQ(reg.CreateKey(nullptr, nullptr), -1);
    CRegistry empty;
    EXPECT_EQ(empty.CreateKey(nullptr, "x"), -1);
    EXPECT_EQ(empty.CreateKey(x, ""), 0);
    EXPECT_EQ(empty.GetKey(), x);
}

TEST_F(RegistryTest, NamesAreCaseSensitive)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "Key"), 0);
    CRegistryNode* upper = reg.GetKey();
    ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "key"), 0);
    EXPECT_NE(reg.GetKey(), upper);
    reg.SetValue("Name", "upper");
    reg.SetValue("name", "lower");
    std::string s;
    EXPECT_EQ(reg.QueryValue(s, "Name"), 0u);
    EXPECT_EQ(s, "upper");
    EXPECT_EQ(reg.QueryValue(s, "NAME"), CRegistry::kNoData);
    unsigned n = 0;
    CRegistry root(CRegistry::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(root.NoOfSubKeys(&n), 0u);
    EXPECT_EQ(n, 2u);
}

TEST_F(RegistryTest, ValueReplacesSubkeyOfTheSameName)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "Victim/Child"), 0);
    reg.SetValue("deep", "x");
    ASSERT_EQ(reg.Open("Victim", CRegistry::HKEY_LOCAL_MACHINE), 0u);
    reg.Close();
    CRegistry other(CRegistry::HKEY_LOCAL_MACHINE);
    unsigned value = 42;
    EXPECT_TRUE(other.SetValue("Victim", reinterpret_cast<unsigned char*>(&value), 4, RegNumber));
    EXPECT_EQ(other.Open("Victim", CRegistry::HKEY_LOCAL_MACHINE), CRegistry::kOpenFailed);
    unsigned n = 0;
    EXPECT_EQ(other.QueryValue(&n, "Victim", CRegistry::HKEY_LOCAL_MACHINE), 0u);
    EXPECT_EQ(n, 42u);
    // Refused forms change nothing.
    EXPECT_FALSE(other.SetValue("bad", reinterpret_cast<unsigned char*>(&value), 3, RegNumber));
    EXPECT_FALSE(other.SetValue("bad", reinterpret_cast<unsigned char*>(&value), 4, 5));
    EXPECT_TRUE(other.SetValue(nullptr, reinterpret_cast<unsigned char*>(&value), 4, RegNumber));
    EXPECT_EQ(other.GetValueSize("bad"), 0u);
    CRegistry none;
    EXPECT_FALSE(none.SetValue("x", reinterpret_cast<unsigned char*>(&value), 4, RegNumber));
    EXPECT_EQ(none.SetValue("x", 1u), CRegistry::kInvalid);
    EXPECT_EQ(none.SetValue("x", "t"), CRegistry::kInvalid);
}

TEST_F(RegistryTest, ExpandableStrings)
{
    testsupport::ScopedEnv home("HOME", "/home/tester");
    testsupport::ScopedEnv unset("TARVD_SURELY_UNSET", nullptr);
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    const char* text = "%HOME%/x%%y%z";
    ASSERT_TRUE(reg.SetValue("e", Bytes(text), static_cast<unsigned>(strlen(text)), RegExpandString));
    const char* expected = "/home/tester/x%yz";
    unsigned char* v = reg.GetValue("e");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(v), expected);
    EXPECT_EQ(reg.GetLastSize(), static_cast<int32_t>(strlen(expected)));
    EXPECT_EQ(reg.GetLastType(), static_cast<uint32_t>(RegExpandString));
    std::string s;
    EXPECT_EQ(reg.QueryValue(s, "e"), 0u);
    EXPECT_EQ(s, expected);
    char buf[64];
    unsigned count = sizeof buf;
    EXPECT_EQ(reg.QueryValue(buf, "e", &count), 0u);
    EXPECT_EQ(count, strlen(expected));

    auto expand = [](const char* in) {
        char* out = CRegistry::ExpandText(in);
        std::string r = out ? out : "<null>";
        free(out);
        return r;
    };
    EXPECT_EQ(expand("a%TARVD_SURELY_UNSET%b"), "ab");
    EXPECT_EQ(expand("%%%%"), "%%");
    EXPECT_EQ(expand("tail%"), "tail");
    EXPECT_EQ(expand("%HOME"), "HOME");
    EXPECT_EQ(expand(""), "");

    reg.SetExpand(false);
    EXPECT_EQ(reg.QueryValue(s, "e"), 0u);
    EXPECT_EQ(s, text);
    EXPECT_EQ(reg.GetValueSize("e"), strlen(text) + 1);
}

TEST_F(RegistryTest, GetValueCopiesByType)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    const unsigned char bin[] = {1, 2, 0, 4};
    reg.SetValue("bin", bin, sizeof bin, RegBinary);
    reg.SetValue("num", 0x01020304u);
    reg.SetValue("str", "abc");
    reg.SetValue("nobytes", nullptr, 0, RegBinary);
    EXPECT_EQ(reg.GetValueSize("bin"), 4u);
    EXPECT_EQ(reg.GetValueSize("num"), 4u);
    EXPECT_EQ(reg.GetValueSize("str"), 4u);
    EXPECT_EQ(reg.GetValueSize("missing"), 0u);
    EXPECT_EQ(reg.GetValueSize(nullptr), 0u);
    unsigned char* v = reg.GetValue("bin");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(memcmp(v, bin, 4), 0);
    EXPECT_EQ(reg.GetLastType(), static_cast<uint32_t>(RegBinary));
    v = reg.GetValue("num");
    ASSERT_NE(v, nullptr);
    unsigned n = 0;
    memcpy(&n, v, 4);
    EXPECT_EQ(n, 0x01020304u);
    EXPECT_STREQ(reinterpret_cast<char*>(reg.GetValue("str")), "abc");
    EXPECT_EQ(reg.GetValue("nobytes"), nullptr);
    EXPECT_EQ(reg.GetValue("missing"), nullptr);
    CRegistry none;
    EXPECT_EQ(none.GetValue("str"), nullptr);
    EXPECT_EQ(none.GetValueSize("str"), CRegistry::kInvalid);
    EXPECT_EQ(none.QueryValue(&n, "num"), CRegistry::kInvalid);
    // Copies keep their own buffers.
    reg.GetValue("str");
    CRegistry copy(reg);
    CRegistry assigned;
    assigned = reg;
    CRegistry& alias = assigned;
    assigned = alias;
    reg.GetValue("bin");
    EXPECT_EQ(copy.GetKey(), reg.GetKey());
    EXPECT_EQ(assigned.GetKey(), reg.GetKey());
    EXPECT_STREQ(reinterpret_cast<char*>(copy.GetValue("str")), "abc");
}

TEST_F(RegistryTest, QueryValueBufferRules)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    reg.SetValue("s", "hello");
    reg.SetValue("n", 7u);
    char buf[16];
    unsigned count = 0;
    EXPECT_EQ(reg.QueryValue(nullptr, "s", &count), 0u);  // size query
    EXPECT_EQ(count, 6u);
    memset(buf, 'X', sizeof buf);
    count = 5;  // == length
    EXPECT_EQ(reg.QueryValue(buf, "s", &count), CRegistry::kRange);
    EXPECT_EQ(std::string(buf, 6), "helloX");  // copied unterminated
    memset(buf, 'X', sizeof buf);
    count = 6;
    EXPECT_EQ(reg.QueryValue(buf, "s", &count), 0u);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(reg.QueryValue(buf, "s", nullptr), CRegistry::kRange);
    EXPECT_EQ(reg.GetStatus(), CRegistry::kRange);
    EXPECT_EQ(reg.QueryValue(buf, "s", 3u), CRegistry::kRange);
    EXPECT_EQ(reg.QueryValue(buf, "s", 16u), 0u);
    EXPECT_EQ(reg.QueryValue(buf, "n", &count), CRegistry::kNoData);
    EXPECT_EQ(reg.QueryValue(buf, "missing", &count), CRegistry::kNoData);
    unsigned n = 0;
    EXPECT_EQ(reg.QueryValue(&n, "s"), CRegistry::kNoData);
    EXPECT_EQ(reg.QueryValue(static_cast<unsigned*>(nullptr), "n"), CRegistry::kNoData);
    std::string s;
    EXPECT_EQ(reg.QueryValue(s, "n"), CRegistry::kNoData);
    EXPECT_EQ(reg.GetStatus(), CRegistry::kNoData);
}

TEST_F(RegistryTest, EnumeratesKeysAndValues)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "E"), 0);
    CRegistryNode* e = reg.GetKey();
    reg.CreateKey(e, "sub2");
    reg.CreateKey(e, "sub1");
    reg.Open("", e);
    const unsigned char bin[] = {1, 2, 3};
    reg.SetValue("a_bin", bin, 3, RegBinary);
    reg.SetValue("b_num", 9u);
    reg.SetValue("c_str", "text");
    reg.SetValue("d_long_name_for_cutting", "x");

    unsigned subKeys = 0;
    EXPECT_EQ(reg.NoOfSubKeys(&subKeys), 0u);
    EXPECT_EQ(subKeys, 2u);
    EXPECT_EQ(reg.NoOfSubKeys(nullptr), CRegistry::kInvalid);
    char name[64];
    unsigned nameSize = sizeof name;
    unsigned clsSize = 99;
    EXPECT_EQ(reg.EnumKey(name, &nameSize, 0, nullptr, &clsSize), 0u);
    EXPECT_STREQ(name, "sub1");
    EXPECT_EQ(nameSize, 4u);
    EXPECT_EQ(clsSize, 0u);
    EXPECT_EQ(reg.EnumKey(name, sizeof name, 1), 0u);
    EXPECT_STREQ(name, "sub2");
    EXPECT_EQ(reg.EnumKey(name, sizeof name, 2), CRegistry::kNoData);
    nameSize = 3;
    EXPECT_EQ(reg.EnumKey(name, &nameSize, 1), 0u);
    EXPECT_STREQ(name, "su");
    EXPECT_EQ(nameSize, 2u);
    EXPECT_EQ(reg.EnumKey(nullptr, &nameSize, 0), CRegistry::kInvalid);

    unsigned char data[64];
    unsigned dataSize = sizeof data;
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 0, RegAnyValue, data, &dataSize), 0u);
    EXPECT_STREQ(name, "a_bin");
    EXPECT_EQ(dataSize, 0u);  // binary data is never enumerated
    dataSize = sizeof data;
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 1, RegAnyValue, data, &dataSize), 0u);
    EXPECT_STREQ(name, "b_num");
    EXPECT_EQ(dataSize, 4u);
    unsigned n = 0;
    memcpy(&n, data, 4);
    EXPECT_EQ(n, 9u);
    dataSize = 3;
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 1, RegAnyValue, data, &dataSize), 0u);
    EXPECT_EQ(dataSize, 0u);
    dataSize = sizeof data;
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 2, RegAnyValue, data, &dataSize), 0u);
    EXPECT_STREQ(name, "c_str");
    EXPECT_STREQ(reinterpret_cast<char*>(data), "text");
    EXPECT_EQ(dataSize, 4u);
    dataSize = 2;  // too small: the string copy fails
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 2, RegAnyValue, data, &dataSize), CRegistry::kInvalid);
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 4, RegAnyValue, data, &dataSize), CRegistry::kNoData);
    // Filter by type: only strings.
    nameSize = sizeof name;
    dataSize = sizeof data;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 1, RegString, nullptr, &dataSize), 0u);
    EXPECT_STREQ(name, "d_long_name_for_cutting");
    EXPECT_EQ(dataSize, 0u);
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 2, RegString, nullptr, nullptr), CRegistry::kNoData);
    nameSize = sizeof name;
    EXPECT_EQ(reg.EnumVal(name, &nameSize, 0, RegSubKey, nullptr, nullptr), 0u);
    EXPECT_STREQ(name, "sub1");
    CRegistry none;
    EXPECT_EQ(none.EnumVal(name, &nameSize, 0, RegAnyValue, nullptr, nullptr), CRegistry::kInvalid);
    EXPECT_EQ(none.EnumKey(name, &nameSize, 0), CRegistry::kInvalid);
}

TEST_F(RegistryTest, DeletesValuesAndKeys)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "D/Sub/Deeper"), 0);
    reg.Open("D", CRegistry::HKEY_LOCAL_MACHINE);
    reg.SetValue("v", "x");
    CRegistry::SaveTree();
    EXPECT_EQ(reg.DeleteValue("missing"), 0u);
    EXPECT_TRUE(CRegistry::IsDirty());  // set even when nothing is removed
    EXPECT_EQ(reg.DeleteValue(nullptr), 0u);
    EXPECT_EQ(reg.DeleteKey("v"), CRegistry::kInvalid);  // a value is not a key
    EXPECT_EQ(reg.DeleteValue("v"), 0u);
    EXPECT_EQ(reg.GetValueSize("v"), 0u);
    EXPECT_EQ(reg.DeleteKey("missing"), CRegistry::kInvalid);
    EXPECT_EQ(reg.DeleteKey("Sub"), 0u);
    EXPECT_EQ(reg.Open("HKEY_LOCAL_MACHINE/D/Sub"), CRegistry::kOpenFailed);
    ASSERT_EQ(reg.CreateKey(nullptr, "Other"), 0);
    reg.Open("D", CRegistry::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(reg.DeleteValue("Other"), 0u);  // removes a subkey too
    unsigned n = 1;
    reg.NoOfSubKeys(&n);
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(reg.Close());
    EXPECT_FALSE(reg.Close());
    EXPECT_EQ(reg.DeleteValue("x"), CRegistry::kInvalid);
    EXPECT_EQ(reg.DeleteKey("x"), CRegistry::kInvalid);
    reg.Open("D", CRegistry::HKEY_LOCAL_MACHINE);
    CRegistryNode* kept = reg.KeepKeyHandle();
    EXPECT_EQ(reg.GetKey(), nullptr);
    CRegistry again(kept);
    EXPECT_EQ(again.GetKey(), kept);
}

TEST_F(RegistryTest, PointerKeysUpperCaseOnlyTheRootPart)
{
    {
        CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(reg.CreateKey(nullptr, "SOFTWARE/Norvane/Product"), 0);
        reg.SetValue("marker", "found");
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, CRegistry::kPointerKeyPath), 0);
        reg.SetValue("good", "hkey_local_machine\\SOFTWARE/Norvane/Product");
        reg.SetValue("slashes", "Hkey_Local_Machine/SOFTWARE/Norvane/Product");
        reg.SetValue("lower", "hkey_local_machine\\software/norvane/product");
        reg.SetValue("noseparator", "HKEY_LOCAL_MACHINE");
        reg.SetValue("empty", "");
    }
    CRegistry reg;
    ASSERT_EQ(reg.OpenPointerKey("good", nullptr, 0, CRegistry::HKEY_LOCAL_MACHINE), 0u);
    std::string s;
    EXPECT_EQ(reg.QueryValue(s, "marker"), 0u);
    EXPECT_EQ(s, "found");
    EXPECT_EQ(reg.OpenUUIDPointer("slashes", CRegistry::HKEY_LOCAL_MACHINE), 0u);
    EXPECT_EQ(reg.OpenPointerKey("lower", nullptr, 0, CRegistry::HKEY_LOCAL_MACHINE), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.OpenPointerKey("noseparator", nullptr, 0, CRegistry::HKEY_LOCAL_MACHINE), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.OpenPointerKey("empty", nullptr, 0, CRegistry::HKEY_LOCAL_MACHINE), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.OpenPointerKey("missing", nullptr, 0, CRegistry::HKEY_LOCAL_MACHINE), CRegistry::kOpenFailed);
    EXPECT_EQ(reg.OpenPointerKey("good", nullptr, 0, CRegistry::HKEY_USERS), CRegistry::kOpenFailed);

    std::string root;
    EXPECT_TRUE(CRegistry::GetProductRegistryRoot(root, "good"));
    EXPECT_EQ(root, "hkey_local_machine\\SOFTWARE/Norvane/Product");
    EXPECT_FALSE(CRegistry::GetProductRegistryRoot(root, "missing"));
}

TEST_F(RegistryTest, ThreadsWithOwnHandlesLoseNoValues)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 15;
    constexpr int kPerRound = 20;
    constexpr int kValues = kRounds * kPerRound;
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
                // Both handles are destroyed here: saves run concurrently
                // with the other threads' changes.
            }
        });
    }
    for (auto& th : threads)
        th.join();
    CRegistry::SaveTree();
    Reload();
    CRegistry reg;
    ASSERT_EQ(reg.Open("HKEY_LOCAL_MACHINE/Shared"), 0u);
    unsigned subKeys = 0;
    reg.NoOfSubKeys(&subKeys);
    EXPECT_EQ(subKeys, static_cast<unsigned>(kThreads));
    EXPECT_EQ(reg.GetKey()->GetCount(), kThreads + kThreads * kValues);
    for (int t = 0; t < kThreads; ++t) {
        CRegistry own;
        ASSERT_EQ(own.Open(("HKEY_LOCAL_MACHINE/Shared/Thread" + std::to_string(t)).c_str()), 0u);
        EXPECT_EQ(own.GetKey()->GetCount(), kValues);
        unsigned n = 0;
        EXPECT_EQ(own.QueryValue(&n, "v299"), 0u);
        EXPECT_EQ(n, 299u);
    }
}

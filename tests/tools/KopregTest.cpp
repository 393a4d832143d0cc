// kopreg against registry directories of its own.
#include "ToolTestSupport.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <sys/stat.h>

using tooltest::json;

namespace {

const std::string kTool = KOPREG_PATH;

class KopregTest : public ::testing::Test {
protected:
    tooltest::RunResult Reg(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--dir", m_Dir.Path()});
        return tooltest::Run(kTool, args);
    }
    void Ok(const std::vector<std::string>& args)
    {
        auto r = Reg(args);
        ASSERT_TRUE(r.Exited(0)) << args[0] << ": status " << r.exitCode << " signal " << r.signal << " " << r.err;
    }
    // A refused command: status 1 and, when given, `message` on stderr.
    void Fails(const std::vector<std::string>& args, const char* message = "kopreg: ")
    {
        auto r = Reg(args);
        EXPECT_TRUE(r.Exited(1)) << args[0] << ": status " << r.exitCode << " " << r.err;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    }
    std::string Get(const std::string& key, const std::string& value)
    {
        auto r = Reg({"get", key, value});
        EXPECT_TRUE(r.Exited(0)) << r.err;
        return r.out;
    }
    json JsonOf(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--dir", m_Dir.Path()});
        return tooltest::RunJson(kTool, args);
    }
    json ListJson(const std::string& key) { return JsonOf({"--json", "list", key}); }
    testsupport::TempDir m_Dir;
};

const char* const kKey = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Tools";

} // namespace

// The registry's own file form is the registry's unit tests' matter; here
// the tool's parsing of the data and its display of each type.
TEST_F(KopregTest, SetGetAllFourTypes)
{
    struct {
        const char *name, *type, *input, *shown;
    } const values[] = {
        {"Text", "s", "hello world", "hello world\n"},
        {"Path", "es", "%KOPREG_TEST_VAR%/bin", "%KOPREG_TEST_VAR%/bin\n"},
        {"Blob", "b", "0a FF 00", "0a ff 00\n"},
        {"Big", "d", "0xFFFFFFFF", "4294967295\n"},
        {"Empty", "b", "", "\n"},
    };
    for (const auto& v : values)
        Ok({"set", kKey, v.name, "--type", v.type, v.input});
    for (const auto& v : values)
        EXPECT_EQ(Get(kKey, v.name), v.shown);
    EXPECT_EQ(Get("HKLM/SOFTWARE/Tools", "Big"), "4294967295\n");
    {
        testsupport::ScopedEnv env("KOPREG_TEST_VAR", "/opt/x");
        EXPECT_EQ(Reg({"get", kKey, "Path", "--expand"}).out, "/opt/x/bin\n");
    }

    json j = ListJson(kKey);
    EXPECT_EQ(j.at("key"), "HKEY_LOCAL_MACHINE\\SOFTWARE\\Tools");
    ASSERT_EQ(j.at("values").size(), 5u);
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("values"), "name", "Big"),
                                     R"({"type": "d", "data": 4294967295})"));
    const json text = JsonOf({"--json", "get", kKey, "Text"});
    EXPECT_EQ(text, json::parse(R"({"name": "Text", "type": "s", "data": "hello world"})"));
    EXPECT_EQ(ListJson("").at("subkeys").size(), 5u);
}

TEST_F(KopregTest, ExportImportRoundTripAndDeletes)
{
    // A file holding keys but no value at all does not load (the backup is
    // used instead), so keep one value outside the subtree.
    Ok({"set", "HKLM\\Keep", "K", "--type", "d", "1"});
    Ok({"set", kKey, "A", "--type", "s", "one"});
    Ok({"set", std::string(kKey) + "\\Sub\\Deep", "N", "--type", "d", "42"});
    Ok({"create", std::string(kKey) + "/EmptyKey"});
    std::string exported = m_Dir.Sub("tools.reg");
    Ok({"export", kKey, exported});
    std::string text = testsupport::ReadFile(exported);
    EXPECT_EQ(text, "A=s=one\n[EmptyKey]\n\n[Sub]\n[Deep]\nN=d=42\n\n\n\n");

    Ok({"delete-key", "HKLM\\SOFTWARE", "Tools"});
    Fails({"list", kKey}, "kopreg: no such key");

    Ok({"import", "HKLM\\SOFTWARE\\Copy", exported});
    EXPECT_EQ(Get("HKLM\\SOFTWARE\\Copy", "A"), "one\n");
    EXPECT_EQ(Get("HKLM\\SOFTWARE\\Copy\\Sub\\Deep", "N"), "42\n");
    json j = ListJson("HKLM\\SOFTWARE\\Copy");
    ASSERT_EQ(j.at("subkeys").size(), 2u);
    EXPECT_EQ(j.at("subkeys")[0], "EmptyKey");

    Ok({"delete-value", "HKLM\\SOFTWARE\\Copy", "A"});
    Fails({"get", "HKLM\\SOFTWARE\\Copy", "A"}, "no such value");
    Fails({"delete-value", "HKLM\\SOFTWARE\\Copy", "A"});
    Fails({"delete-value", "HKLM\\SOFTWARE\\Copy", "Sub"});  // a key, not a value
    Fails({"delete-key", "HKLM\\SOFTWARE\\Copy", "Nope"});

    // A file without registry data is refused and changes nothing.
    ASSERT_TRUE(testsupport::WriteFile(m_Dir.Sub("junk"), "just text\nno tags\n"));
    Fails({"import", "HKLM\\SOFTWARE\\Junk", m_Dir.Sub("junk")});
    Fails({"list", "HKLM\\SOFTWARE\\Junk"});
    Fails({"import", kKey, m_Dir.Sub("missing")});

    // A deletion that would leave no value in the whole tree is refused; the files stay as they are.
    Ok({"delete-key", "HKLM", "SOFTWARE"});
    const std::string files = testsupport::ReadFile(m_Dir.Sub("registry")) + testsupport::ReadFile(m_Dir.Sub("registry.old"));
    Fails({"delete-value", "HKLM\\Keep", "K"}, "kopreg: not deleted: the registry would hold no value at all");
    Fails({"delete-key", "HKLM", "Keep"}, "kopreg: not deleted: the registry would hold no value at all");
    EXPECT_EQ(testsupport::ReadFile(m_Dir.Sub("registry")) + testsupport::ReadFile(m_Dir.Sub("registry.old")), files);
}

TEST_F(KopregTest, CorruptRegistryFallsBackOrFailsClearly)
{
    Ok({"set", kKey, "A", "--type", "s", "good"});
    Ok({"set", kKey, "A", "--type", "s", "newer"});  // "good" is now the backup
    ASSERT_TRUE(testsupport::WriteFile(m_Dir.Sub("registry"), "\n\n\n"));
    auto r = Reg({"get", kKey, "A"});
    EXPECT_TRUE(r.Exited(0) && r.out == "good\n") << r.err;
    EXPECT_NE(r.err.find("kopreg: warning:"), std::string::npos) << r.err;

    // Nothing loadable at all.
    ASSERT_TRUE(testsupport::WriteFile(m_Dir.Sub("registry.old"), "garbage without tags\n"));
    Fails({"get", kKey, "A"}, "kopreg: cannot load the registry");
    Fails({"set", kKey, "B", "--type", "d", "1"});
    EXPECT_EQ(testsupport::ReadFile(m_Dir.Sub("registry")), "\n\n\n") << "nothing written over the damaged files";
}

TEST_F(KopregTest, UsageErrorsExit2)
{
    std::vector<std::vector<std::string>> usage = {{}, {"frobnicate"}, {"--bogus", "list"}, {"get", kKey},
                                                   {"list", "a", "b"}, {"set", kKey, "V", "data"}};
    for (auto [name, type, data] : {std::array{"a=b", "s", "x"}, {"V", "s", "two\nlines"}, {"V", "q", "x"},
                                    {"V", "d", "4294967296"}, {"V", "d", "12abc"}, {"V", "d", "-5"}, {"V", "b", "abc"}, {"V", "b", "zz"}})
        usage.push_back({"set", kKey, name, "--type", type, data});
    for (auto args : usage) {  // also with --json: one document with the message
        args.insert(args.begin(), {"--dir", m_Dir.Path()});
        tooltest::ExpectRefused(kTool, args, 2, "kopreg: ");
        args.insert(args.begin(), "--json");
        tooltest::ExpectRefused(kTool, args, 2, "kopreg: ");
    }
    EXPECT_EQ(Reg({"set", kKey, "V", "--type", "d", "-5"}).err,
              "kopreg: a number (type d) must be 0 to 4294967295 or 0x0 to 0xffffffff, not '-5'\n"
              "Try 'kopreg --help' for more information.\n");
    auto r = tooltest::Run(kTool, {"--help"});
    EXPECT_TRUE(r.Exited(0) && r.out.find("delete-value") != std::string::npos);
    // A value name that is a subkey is not overwritten.
    Ok({"set", kKey, "V", "--type", "d", "1"});
    Ok({"create", std::string(kKey) + "\\K"});
    Fails({"set", kKey, "K", "--type", "d", "1"});
    EXPECT_EQ(ListJson(kKey).at("subkeys").size(), 1u);
}

TEST_F(KopregTest, FailuresNameTheReasonAlsoAsJson)
{
    Ok({"set", kKey, "A", "--type", "s", "one"});
    const std::string dir = m_Dir.Path();
    auto asOther = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--json", "--dir", dir});
        return tooltest::RunUnprivileged(dir, kTool, args);
    };
    const struct {
        std::function<tooltest::RunResult()> run;
        std::string message;
    } cases[] = {
        {[&] { return tooltest::Run(kTool, {"--json", "--dir", "/nonexistent", "list"}); },
         "cannot open the registry directory /nonexistent: No such file or directory"},
        {[&] { return Reg({"--json", "get", kKey, "Nope"}); }, "no such value: Nope in " + std::string(kKey)},
        // Readable files in a directory this user may not write to.
        {[&] { return asOther({"set", kKey, "B", "--type", "d", "1"}); },
         "cannot save the registry in " + dir + ": Permission denied"},
        {[&] {
             chmod(m_Dir.Sub("registry").c_str(), 0600);
             return asOther({"list"});
         },
         "cannot read " + m_Dir.Sub("registry") + ": Permission denied"},
    };
    for (const auto& c : cases) {
        auto r = c.run();
        EXPECT_TRUE(r.Exited(1)) << c.message << " status " << r.exitCode;
        EXPECT_EQ(r.err, "kopreg: " + c.message + "\n");
        const json j = tooltest::ParseOutput(r.out);
        EXPECT_EQ(j, json({{"error", c.message}})) << r.out;
    }
    EXPECT_EQ(Reg({"--json", "set", kKey, "B", "--type", "d", "7"}).out, "{\"command\": \"set\", \"ok\": true}\n");
}

TEST_F(KopregTest, DashIsStandardOutputAndInput)
{
    Ok({"set", kKey, "A", "--type", "d", "5"});
    auto r = Reg({"export", kKey, "-"});
    EXPECT_TRUE(r.Exited(0) && r.out == "A=d=5\n\n") << r.err << r.out;
    EXPECT_FALSE(testsupport::FileExists(m_Dir.Sub("-")));
    std::string out;
    EXPECT_EQ(testsupport::Shell("printf 'B=s=from stdin\\n\\n' | " + testsupport::Quote(kTool) + " --dir " +
                                     testsupport::Quote(m_Dir.Path()) + " import 'HKLM\\Copy' -",
                                 &out),
              0)
        << out;
    EXPECT_EQ(Get("HKLM\\Copy", "B"), "from stdin\n");
    Fails({"import", "HKLM\\Copy", "-"}, "kopreg: standard input holds no registry values or keys");
    EXPECT_TRUE(Reg({"--json", "export", kKey, "-"}).Exited(2));
}

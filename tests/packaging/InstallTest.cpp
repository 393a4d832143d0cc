// Installation into a staging directory: the layout, module builds out of tree against the
// installed files with CMake and with pkg-config, and a staged daemon loading them.
#include <gtest/gtest.h>

#include <regex>
#include <sys/stat.h>

#include "support/ChildProcess.h"
#include "support/Sandbox.h"

using namespace testsupport;

namespace {

class InstallTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ShellOk("DESTDIR=" + Quote(Root()) + " " + Quote(TEST_CMAKE_COMMAND) + " --install " + Quote(TARVD_BINARY_DIR));
        ASSERT_FALSE(HasFailure());
    }

    std::string Root() const { return m_Dir.Sub("root"); }
    std::string In(const std::string& absolute) const { return Root() + absolute; }
    std::string PkgConfigEnv() const
    {
        return "PKG_CONFIG_PATH=" + Quote(In(TEST_INSTALL_LIBDIR) + "/pkgconfig") +
               " PKG_CONFIG_SYSROOT_DIR=" + Quote(Root()) + " ";
    }
    static bool Executable(const std::string& path)
    {
        struct stat st{};
        return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0111) == 0111;
    }
    TempDir m_Dir;
};

} // namespace

TEST_F(InstallTest, FilesInTheirPlacesNamingInstalledPathsAndNoSearchPathOfTheirOwn)
{
    const std::string lib = TEST_INSTALL_LIBDIR, doc = TEST_INSTALL_DOCDIR, inc = TEST_INSTALL_INCLUDEDIR "/tarvd/";
    for (const std::string& f : std::vector<std::string>{
             lib + "/tarvd/libswitch.so", lib + "/libtarvd.so", lib + "/libtarvd.so.9", lib + "/libtarvd.so." TEST_PROJECT_VERSION,
          lib + "/tarvd/modules/libtarvd_example.so", inc + "tarvd_module.h", inc + "framework/tarvd_module.h",
          inc + "trace/CDebug.h", inc + "trace/CThread.h", inc + "common/UniqueHandle.h",
          inc + "daemon/CServiceNotify.h", inc + "registry/CRegistry.h", std::string(TEST_INSTALL_MANDIR "/man8/kopd.8.gz"),
          doc + "/copyright", doc + "/changelog.gz",
          doc + "/module-developer-guide.md", doc + "/examples/module/CMakeLists.txt", doc + "/examples/module/Makefile",
          doc + "/examples/module/ExampleModule.cpp", doc + "/examples/module/example.conf"})
        EXPECT_TRUE(FileExists(In(f))) << f;
    EXPECT_TRUE(Executable(In(TEST_INSTALL_SBINDIR "/kopd")));
    EXPECT_TRUE(Executable(In(TEST_INSTALL_HELPER)));
    // Operator tools, where the tools are part of the build: in sbin or bin.
    if (FileExists(TARVD_SOURCE_DIR "/tools/CMakeLists.txt"))
        for (std::string tool : {"koptrace", "kopreg", "kophw", "kopperf"}) {
            EXPECT_TRUE(Executable(In(TEST_INSTALL_BINDIR "/" + tool))) << tool;
            EXPECT_TRUE(FileExists(In(TEST_INSTALL_MANDIR "/man1/" + tool + ".1.gz"))) << tool;
        }
    // Compressed pages that man reads: the page's own section in its header.
    EXPECT_TRUE(Contains(ShellOk("gzip -dc " + Quote(In(TEST_INSTALL_MANDIR "/man8/kopd.8.gz"))), ".TH KOPD 8 "));

    // Under a system library directory the loader finds libtarvd and
    // libswitch.so by default; anywhere else the RUNPATH must name it.
    std::string out = ShellOk("readelf -d " + Quote(In(TEST_INSTALL_SBINDIR "/kopd")));
    if (lib == "/usr/lib/x86_64-linux-gnu" || lib == "/usr/lib" || lib == "/lib")
        EXPECT_FALSE(Contains(out, "RUNPATH") || Contains(out, "RPATH")) << out;
    else
        EXPECT_TRUE(Contains(out, "[" + lib + "]")) << out;
    EXPECT_FALSE(Contains(out, TARVD_BINARY_DIR)) << out;  // no build-tree path in installed files
    // The framework is the library's private plug-in: its RUNPATH names the directory.
    EXPECT_TRUE(Contains(ShellOk("readelf -d " + Quote(In(lib + "/libtarvd.so.9"))), "[" + lib + "/tarvd]"));

    // Configuration, units and samples name the installed paths.
    const std::string examples = In(TEST_INSTALL_DOCDIR) + "/examples/";
    const struct {
        std::string file;
        std::vector<std::string> lines;
    } expected[] = {
        {In(TEST_MODULE_CONF_DIR "/example.conf"),  // installed, not loaded
         {"\nLibrary=" TEST_INSTALL_LIBDIR "/tarvd/modules/libtarvd_example.so\n", "\nEnabled=0\n"}},
        {In(TEST_UNIT_DIR "/kopd.service"), {"\nExecStart=" TEST_INSTALL_SBINDIR "/kopd -n\n", "\nType=notify\n",
                                             "\nNotifyAccess=main\n", "\nWants=kopd-runlevel.service\n"}},
        // Units stop in the reverse order of their start: the run-level unit
        // starts after kopd so that its stop (which writes the file) runs first.
        {In(TEST_UNIT_DIR "/kopd-runlevel.service"),
         {"\nAfter=kopd.service\n", "\nType=oneshot\n", "\nRemainAfterExit=yes\n",
          "\nExecStart=" TEST_INSTALL_HELPER " boot\n", "\nExecStop=" TEST_INSTALL_HELPER " shutdown\n"}},
        {examples + "systemd/kopd-forking.service", {"\nType=forking\n", "\nPIDFile=/run/kopd.pid\n"}},
        {examples + "TraceConfig/kopd.ini", {"[KOPD]\nFileDebugLevel="}},
    };
    for (const auto& e : expected)
        for (const std::string& line : e.lines)
            EXPECT_TRUE(Contains(ReadFile(e.file), line)) << e.file << ": " << line;
    for (const char* unit : {"/kopd.service", "/kopd-runlevel.service"})
        EXPECT_FALSE(std::regex_search(ReadFile(In(TEST_UNIT_DIR) + unit), std::regex("@[A-Z_]+@")))
            << unit << ": unsubstituted placeholder";
    EXPECT_FALSE(Contains(ReadFile(In(TEST_UNIT_DIR "/kopd-runlevel.service")), "Before=kopd.service"));
    // Without its closing [EndOfFile] section the trace facility ignores a file.
    for (const char* f : {"global_trace.ini", "kopd.ini"}) {
        std::string text = ReadFile(examples + "TraceConfig/" + f);
        EXPECT_EQ(text.substr(std::min(text.rfind('['), text.size())), "[EndOfFile]\n") << f;
    }
}

namespace {

/// The first fenced block of the guide that opens with "```" + `kind` and holds `containing`.
std::string GuideBlock(const std::string& guide, const std::string& kind, const std::string& containing = "")
{
    for (size_t at = 0; (at = guide.find("```" + kind + "\n", at)) != std::string::npos;) {
        size_t begin = at + kind.size() + 4, end = guide.find("```", begin);
        if (end == std::string::npos)
            break;
        std::string block = guide.substr(begin, end - begin);
        if (Contains(block, containing))
            return block;
        at = end + 3;
    }
    ADD_FAILURE() << "no ```" << kind << " block with '" << containing << "' in the guide";
    return "";
}

std::string Replaced(std::string text, const std::string& what, const std::string& with)
{
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
    return text;
}

// A module of the test's own: no export attribute of its own, only the header's.
const char* const kMyModule = R"(#include "framework/tarvd_module.h"
#include "trace/CDebug.h"
static int Load(const TarvdModuleConfig* config)
{
    Debug.PrintAlways(0, "\nMyModule            : loaded as %s", config->name);
    return 1;
}
static const TarvdModuleV1 kTable = {TARVD_MODULE_ABI_VERSION, "my_module", Load, nullptr, nullptr, nullptr, nullptr};
const TarvdModuleV1* tarvd_module_v1(void) { return &kTable; }
)";

} // namespace

// The developer guide's commands as it prints them, with <root> and ~ the test's: the example and a
// module of the guide's own build files (CMake and pkg-config, hidden visibility) are built against
// a staging install, the CMake builds installed into it, and the staged kopd (run as the guide
// says) loads all three.
TEST_F(InstallTest, DeveloperGuideCommandsBuildInstallAndLoadModules)
{
    const std::string guide = ReadFile(TARVD_SOURCE_DIR "/docs/module-developer-guide.md");
    const std::string home = m_Dir.Sub("home"), mine = home + "/mine";
    const std::string staged = GuideBlock(guide, "sh", "<root>/usr/share/doc");
    ASSERT_TRUE(MakeDirs(mine) && WriteFile(mine + "/CMakeLists.txt", GuideBlock(guide, "cmake")) &&
                WriteFile(mine + "/Makefile", GuideBlock(guide, "make")) && WriteFile(mine + "/MyModule.cpp", kMyModule));
    // The example: the whole block; the module of the guide's files: its
    // commands after the copy, in their own folder.
    const std::string env = "set -e\nexport HOME=" + Quote(home) + "\n";
    ShellOk(env + Replaced(staged, "<root>", Quote(Root())));
    ShellOk(env + "cd " + Quote(mine) + "\n" + Replaced(staged.substr(staged.find('\n') + 1), "<root>", Quote(Root())));
    // The pkg-config file the guide's Makefile reads names the staged headers and the installed paths.
    const std::string flags = ShellOk(PkgConfigEnv() + "pkg-config --cflags --libs tarvd");
    EXPECT_TRUE(Contains(flags, "-I" + Root() + TEST_INSTALL_INCLUDEDIR "/tarvd") && Contains(flags, "-ltarvd")) << flags;
    EXPECT_EQ(ShellOk(PkgConfigEnv() + "pkg-config --modversion tarvd"), TEST_PROJECT_VERSION "\n");
    EXPECT_TRUE(Contains(ShellOk(PkgConfigEnv() + "pkg-config --variable=moduleconfdir tarvd"), TEST_MODULE_CONF_DIR));
    const std::string modules = In(TEST_INSTALL_LIBDIR "/tarvd/modules/");
    for (const std::string& so : {modules + "libtarvd_my_example.so", modules + "libmy_module.so", mine + "/libmy_module.so"})
        EXPECT_EQ(ShellOk("nm -D --defined-only " + Quote(so) + " | grep -c ' T '"), "1\n") << so;  // the entry point alone
    // CMake found the staged package, not one elsewhere on the machine; it refuses another major
    // version and accepts an older minor.
    EXPECT_TRUE(Contains(ReadFile(home + "/my_module/build/CMakeCache.txt"),
                         "tarvd_DIR:PATH=" + In(TEST_INSTALL_LIBDIR) + "/cmake/tarvd"));
    for (const char* version : {"8", "9.1"}) {
        WriteFile(mine + "/v/CMakeLists.txt", "cmake_minimum_required(VERSION 3.20)\nproject(p LANGUAGES CXX)\n"
                                              "find_package(tarvd " + std::string(version) + " REQUIRED)\n");
        std::string out;
        int rc = Shell(Quote(TEST_CMAKE_COMMAND) + " -S " + Quote(mine + "/v") + " -B " + Quote(m_Dir.Sub(version)) +
                           " -DCMAKE_PREFIX_PATH=" + Quote(In(TEST_INSTALL_PREFIX)), &out);
        EXPECT_EQ(rc == 0, version[0] == '9') << version << "\n" << out;
    }

    if (!CanUseMountNamespace())
        GTEST_SKIP() << "needs root and mount namespaces";
    const std::string conf = m_Dir.Sub("conf"), trace = m_Dir.Sub("trace");
    const std::string section = GuideBlock(guide, "ini", "[Module]");
    const struct {
        std::string name, library;
    } loads[] = {{"my_example", modules + "libtarvd_my_example.so"}, {"my_cmake", modules + "libmy_module.so"},
                 {"my_make", mine + "/libmy_module.so"}};
    for (const auto& l : loads) {
        std::string text = Replaced(section, "Name=my_module", "Name=" + l.name);
        text = Replaced(text, "/usr/lib/x86_64-linux-gnu/tarvd/modules/libmy_module.so", l.library);
        ASSERT_TRUE(WriteFile(conf + "/" + l.name + ".conf", text));
    }
    // The staged daemon's library path, as section 5 gives it.
    size_t at = guide.find("`LD_LIBRARY_PATH=<root>");
    ASSERT_NE(at, std::string::npos);
    const std::string path = Replaced(guide.substr(at + 17, guide.find('`', at + 1) - at - 17), "<root>", Root());
    Sandbox box(m_Dir.Sub("stage"));
    ASSERT_EQ(box.Error(), "");
    std::vector<std::string> daemonEnv = DaemonEnv(trace);
    daemonEnv.insert(daemonEnv.end(), {"LD_LIBRARY_PATH=" + path, "TARVD_MODULES_DIR=" + conf});
    pid_t pid = box.Spawn({In(TEST_INSTALL_SBINDIR "/kopd"), {"-n"}, daemonEnv, m_Dir.Sub("out.txt")});
    EXPECT_TRUE(WaitFor([&] { return Contains(ReadFile(trace + "/log.kopd"), "Done initializing"); }));
    kill(pid, SIGTERM);
    EXPECT_EQ(WaitExit(pid), 0) << ReadFile(m_Dir.Sub("out.txt"));
    std::string all = ReadDaemonTrace(trace);
    for (const auto& l : loads) {
        EXPECT_TRUE(Contains(all, "module " + l.name + " loaded from " + l.library)) << l.name << "\n" << all;
        EXPECT_EQ(Contains(all, "MyModule            : loaded as " + l.name), l.name != "my_example") << l.name;
    }
    EXPECT_TRUE(Contains(all, "ExampleModule       : stopped after"));
    EXPECT_FALSE(Contains(all, "## ERROR! module")) << all;
}

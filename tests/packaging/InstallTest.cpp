// Installation into a staging directory: the layout, module builds out of
// tree against the installed files with CMake and with pkg-config, and the
// installed daemon loading such a module.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "PackagingTestSupport.h"
#include "support/TestSupport.h"

using pkgtest::Quote;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

class InstallTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string out;
        ASSERT_TRUE(pkgtest::InstallInto(Root(), &out)) << out;
    }

    std::string Root() const { return m_Dir.Sub("root"); }
    std::string In(const std::string& absolute) const { return Root() + absolute; }
    std::string ExampleDir() const { return In(TEST_INSTALL_DOCDIR) + "/examples/module"; }
    std::string PkgConfigEnv() const
    {
        return "PKG_CONFIG_PATH=" + Quote(In(TEST_INSTALL_LIBDIR) + "/pkgconfig") +
               " PKG_CONFIG_SYSROOT_DIR=" + Quote(Root()) + " ";
    }

    bool Executable(const std::string& path) const
    {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0111) == 0111;
    }

    /// Builds the installed example with its Makefile and pkg-config.
    std::string BuildWithPkgConfig()
    {
        std::string src = m_Dir.Sub("make-src");
        std::string out;
        EXPECT_EQ(pkgtest::Shell("cp -r " + Quote(ExampleDir()) + " " + Quote(src) + " && " + PkgConfigEnv() +
                                     "make -C " + Quote(src),
                                 &out),
                  0)
            << out;
        return src + "/libtarvd_my_example.so";
    }

    TempDir m_Dir;
};

} // namespace

TEST_F(InstallTest, ProgramsLibrariesAndModulesInTheirPlaces)
{
    EXPECT_TRUE(Executable(In(TEST_INSTALL_SBINDIR) + "/kopd"));
    std::string lib = In(TEST_INSTALL_LIBDIR);
    EXPECT_TRUE(FileExists(lib + "/libswitch.so"));
    EXPECT_TRUE(FileExists(lib + "/libtarvd.so"));
    EXPECT_TRUE(FileExists(lib + "/libtarvd.so.9"));
    EXPECT_TRUE(FileExists(lib + "/libtarvd.so." TEST_PROJECT_VERSION));
    EXPECT_TRUE(FileExists(lib + "/tarvd/modules/libtarvd_example.so"));

    // The bundled module's configuration names the installed library.
    std::string conf = ReadFile(In(TEST_MODULE_CONF_DIR) + "/example.conf");
    EXPECT_NE(conf.find("\nLibrary=" TEST_INSTALL_LIBDIR "/tarvd/modules/libtarvd_example.so\n"), std::string::npos)
        << conf;

    // Tools, where the tools are part of the build.
    std::string tools = std::string(TARVD_SOURCE_DIR) + "/tools/CMakeLists.txt";
    if (FileExists(tools)) {
        for (const char* tool : {"koptrace", "kopreg", "kophw", "kopperf"}) {
            // Operator tools: in sbin (administrators' programs) or bin.
            EXPECT_TRUE(Executable(In(TEST_INSTALL_SBINDIR) + "/" + tool) ||
                        Executable(In(TEST_INSTALL_BINDIR) + "/" + tool))
                << tool;
            EXPECT_TRUE(FileExists(In(TEST_INSTALL_MANDIR) + "/man1/" + tool + ".1")) << tool;
        }
    } else {
        std::cout << "[   NOTE   ] no tools in this tree: tool layout not checked\n";
    }
}

TEST_F(InstallTest, InstalledDaemonNeedsNoSearchPathOfItsOwn)
{
    // Under a system library directory the loader finds libtarvd and
    // libswitch.so by default; anywhere else the RUNPATH must name it.
    std::string out;
    ASSERT_EQ(pkgtest::Shell("readelf -d " + Quote(In(TEST_INSTALL_SBINDIR) + "/kopd"), &out), 0) << out;
    bool systemDir = std::string(TEST_INSTALL_LIBDIR) == "/usr/lib/x86_64-linux-gnu" ||
                     std::string(TEST_INSTALL_LIBDIR) == "/usr/lib" || std::string(TEST_INSTALL_LIBDIR) == "/lib";
    if (systemDir) {
        EXPECT_EQ(out.find("RUNPATH"), std::string::npos) << out;
        EXPECT_EQ(out.find("RPATH"), std::string::npos) << out;
    } else {
        EXPECT_NE(out.find("[" TEST_INSTALL_LIBDIR "]"), std::string::npos) << out;
    }
    // The build tree's paths never end up in installed files.
    EXPECT_EQ(out.find(TARVD_BINARY_DIR), std::string::npos) << out;
}

TEST_F(InstallTest, HeadersManPagesServicesAndExamples)
{
    std::string inc = In(TEST_INSTALL_INCLUDEDIR) + "/tarvd";
    for (const char* h : {"tarvd_module.h", "framework/tarvd_module.h", "trace/CDebug.h", "trace/CThread.h",
                          "common/UniqueHandle.h", "daemon/CServiceNotify.h", "registry/CRegistry.h"})
        EXPECT_TRUE(FileExists(inc + "/" + h)) << h;
    EXPECT_TRUE(FileExists(In(TEST_INSTALL_MANDIR) + "/man8/kopd.8"));

    std::string unit = ReadFile(In(TEST_UNIT_DIR) + "/kopd.service");
    EXPECT_NE(unit.find("\nExecStart=" TEST_INSTALL_SBINDIR "/kopd -n\n"), std::string::npos) << unit;
    std::string runlevel = ReadFile(In(TEST_UNIT_DIR) + "/kopd-runlevel.service");
    EXPECT_NE(runlevel.find("\nExecStop=" TEST_INSTALL_HELPER " shutdown\n"), std::string::npos) << runlevel;
    EXPECT_TRUE(Executable(In(TEST_INSTALL_HELPER)));
    EXPECT_EQ(unit.find('@'), std::string::npos) << "unsubstituted placeholder";
    EXPECT_EQ(runlevel.find('@'), std::string::npos) << "unsubstituted placeholder";

    std::string doc = In(TEST_INSTALL_DOCDIR);
    std::string forking = ReadFile(doc + "/examples/systemd/kopd-forking.service");
    EXPECT_NE(forking.find("\nType=forking\n"), std::string::npos);
    EXPECT_NE(forking.find("\nPIDFile=/run/kopd.pid\n"), std::string::npos);
    EXPECT_TRUE(FileExists(doc + "/module-developer-guide.md"));
    for (const char* f : {"CMakeLists.txt", "Makefile", "ExampleModule.cpp", "example.conf"})
        EXPECT_TRUE(FileExists(ExampleDir() + "/" + f)) << f;

    // Trace configuration samples: each one ends with the [EndOfFile]
    // section, without which the trace facility ignores a file.
    for (const char* f : {"global_trace.ini", "kopd.ini"}) {
        std::string text = ReadFile(doc + "/examples/TraceConfig/" + f);
        size_t last = text.rfind('[');
        ASSERT_NE(last, std::string::npos) << f;
        EXPECT_EQ(text.substr(last), "[EndOfFile]\n") << f;
    }
    std::string kopd = ReadFile(doc + "/examples/TraceConfig/kopd.ini");
    EXPECT_NE(kopd.find("[KOPD]\nFileDebugLevel="), std::string::npos);
}

TEST_F(InstallTest, PkgConfigDescribesTheInstalledLibrary)
{
    std::string out;
    ASSERT_EQ(pkgtest::Shell(PkgConfigEnv() + "pkg-config --cflags --libs tarvd", &out), 0) << out;
    EXPECT_NE(out.find("-I" + Root() + TEST_INSTALL_INCLUDEDIR "/tarvd"), std::string::npos) << out;
    EXPECT_NE(out.find("-ltarvd"), std::string::npos) << out;
    ASSERT_EQ(pkgtest::Shell(PkgConfigEnv() + "pkg-config --modversion tarvd", &out), 0);
    EXPECT_EQ(out, TEST_PROJECT_VERSION "\n");
    ASSERT_EQ(pkgtest::Shell(PkgConfigEnv() + "pkg-config --variable=moduleconfdir tarvd", &out), 0);
    EXPECT_NE(out.find(TEST_MODULE_CONF_DIR), std::string::npos) << out;
}

TEST_F(InstallTest, ExampleBuildsOutOfTreeWithPkgConfig)
{
    std::string module = BuildWithPkgConfig();
    ASSERT_TRUE(FileExists(module));
    std::string out;
    ASSERT_EQ(pkgtest::Shell("nm -D --defined-only " + Quote(module), &out), 0) << out;
    EXPECT_NE(out.find(" T tarvd_module_v1"), std::string::npos) << out;
}

TEST_F(InstallTest, ExampleBuildsOutOfTreeWithFindPackage)
{
    std::string src = m_Dir.Sub("cmake-src");
    std::string build = m_Dir.Sub("cmake-build");
    std::string out;
    std::string prefix = In(TEST_INSTALL_PREFIX);
    int rc = pkgtest::Shell("cp -r " + Quote(ExampleDir()) + " " + Quote(src) + " && " +
                                Quote(TEST_CMAKE_COMMAND) + " -S " + Quote(src) + " -B " + Quote(build) +
                                " -G " + Quote(TEST_GENERATOR) + " -DCMAKE_PREFIX_PATH=" + Quote(prefix) +
                                " -DCMAKE_FIND_PACKAGE_NO_SYSTEM_PACKAGE_REGISTRY=ON && " +
                                Quote(TEST_CMAKE_COMMAND) + " --build " + Quote(build),
                            &out);
    ASSERT_EQ(rc, 0) << out;
    EXPECT_TRUE(FileExists(build + "/libtarvd_my_example.so"));
    // Found the staged package, not one elsewhere on the machine.
    std::string cache = ReadFile(build + "/CMakeCache.txt");
    EXPECT_NE(cache.find("tarvd_DIR:PATH=" + In(TEST_INSTALL_LIBDIR) + "/cmake/tarvd"), std::string::npos);

    // The package refuses another major version and accepts an older minor.
    WriteFile(src + "/CMakeLists.txt", "cmake_minimum_required(VERSION 3.20)\nproject(p LANGUAGES CXX)\n"
                                       "find_package(tarvd 8 REQUIRED)\n");
    rc = pkgtest::Shell(Quote(TEST_CMAKE_COMMAND) + " -S " + Quote(src) + " -B " + Quote(m_Dir.Sub("b8")) +
                            " -DCMAKE_PREFIX_PATH=" + Quote(prefix),
                        &out);
    EXPECT_NE(rc, 0) << out;
    WriteFile(src + "/CMakeLists.txt", "cmake_minimum_required(VERSION 3.20)\nproject(p LANGUAGES CXX)\n"
                                       "find_package(tarvd 9.1 REQUIRED)\n");
    rc = pkgtest::Shell(Quote(TEST_CMAKE_COMMAND) + " -S " + Quote(src) + " -B " + Quote(m_Dir.Sub("b9")) +
                            " -DCMAKE_PREFIX_PATH=" + Quote(prefix),
                        &out);
    EXPECT_EQ(rc, 0) << out;
}

TEST_F(InstallTest, InstalledDaemonLoadsAnOutOfTreeModule)
{
    if (!testsupport::CanUseMountNamespace())
        GTEST_SKIP() << "needs root and mount namespaces";
    std::string module = BuildWithPkgConfig();
    ASSERT_TRUE(FileExists(module));
    std::string trace = m_Dir.Sub("trace");
    ASSERT_TRUE(testsupport::MakeDirs(trace));

    // The staged /usr lies over the real one and the staged /etc goes
    // into the private /etc, so that the daemon, the framework and the
    // bundled module are found at their installed paths.
    std::string stage = m_Dir.Sub("stage");
    std::string script =
        pkgtest::PrivateSystemDirs(stage) +
        "mount -t overlay overlay -o lowerdir=" + Quote(In("/usr")) + ":/usr /usr\n"
        "cp -a " + Quote(Root() + "/etc") + "/. /etc/\n"
        "cat > " TEST_MODULE_CONF_DIR "/my_example.conf <<EOF\n"
        "[Module]\nName=my_example\nLibrary=" + module + "\nRunModes=all\nOrder=60\nHeartbeatSeconds=1\nEOF\n"
        "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin TR_LOG_DEBUG_LEVEL=3 TR_LOG_RINGBUF_DIR=" + Quote(trace) +
        " TraceFileLimit=1 TR_LOG_RINGBUF_WEIGHT=1 ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1"
        " " TEST_INSTALL_SBINDIR "/kopd -n &\n"
        "pid=$!\n"
        "i=0; while ! grep -q 'Done initializing' " + Quote(trace + "/log.kopd") +
        " 2>/dev/null && [ $i -lt 900 ]; do sleep 0.1; i=$((i+1)); done\n"
        "kill -TERM $pid\n"
        "wait $pid && echo kopd-exit=0\n";
    std::string out;
    EXPECT_EQ(pkgtest::RunInNamespace(script, &out), 0) << out;
    EXPECT_NE(out.find("kopd-exit=0"), std::string::npos) << out;

    std::string all = ReadFile(trace + "/log.kopd_a") + ReadFile(trace + "/log.kopd_i");
    std::string gz;
    pkgtest::Shell("gzip -dc " + Quote(trace + "/log.kopd_i.gz") + " 2>/dev/null", &gz);
    all += gz;
    EXPECT_NE(all.find("module my_example loaded from " + module), std::string::npos) << all;
    EXPECT_NE(all.find("module example loaded from " TEST_INSTALL_LIBDIR "/tarvd/modules/libtarvd_example.so"),
              std::string::npos)
        << all;
    EXPECT_NE(all.find("ExampleModule       : stopped after"), std::string::npos);
    EXPECT_EQ(all.find("## ERROR! module"), std::string::npos) << all;
}

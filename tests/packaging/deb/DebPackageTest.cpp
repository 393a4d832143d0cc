// The Debian package built by CPack: its control data and contents, and a real installation with
// dpkg in a sandbox whose /usr, /etc and /var take their changes on a tmpfs.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/ChildProcess.h"
#include "support/Sandbox.h"

using namespace testsupport;

namespace {

class DebPackage : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(TEST_DEB_DIR, ec))
            if (e.path().extension() == ".deb")
                m_Deb = e.path();
        ASSERT_FALSE(m_Deb.empty()) << "no package in " TEST_DEB_DIR " (the packaging_build_deb test makes it)";
    }

    std::string m_Deb;
};

} // namespace

TEST_F(DebPackage, ControlDataAndContents)
{
    std::string info = ShellOk("dpkg-deb --info " + Quote(m_Deb));
    std::string depends = ShellOk("dpkg-deb --field " + Quote(m_Deb) + " Depends");
    for (const char* field : {"Package: tarvd\n", "Version: " TEST_PROJECT_VERSION, "Architecture: amd64\n",
                              " postinst", " prerm", " postrm", " conffiles", " shlibs", " triggers",
                              "Maintainer: tarvd maintainers <tarvd@example.org>\n"})
        EXPECT_TRUE(Contains(info, field)) << field << " missing in:\n" << info;
    // Versioned: a system older than the build machine's refuses the package.
    for (const char* dep : {"libc6 (>= ", "libstdc++6 (>= ", "libgcc-s1 (>= ", "init-system-helpers (>= "})
        EXPECT_TRUE(Contains(depends, dep)) << dep << " missing in: " << depends;

    TempDir dir;
    ShellOk("dpkg-deb --control " + Quote(m_Deb) + " " + Quote(dir.Sub("control")));
    std::string conffiles = ReadFile(dir.Sub("control/conffiles"));
    EXPECT_TRUE(Contains(conffiles, TEST_MODULE_CONF_DIR "/example.conf\n")) << conffiles;
    // Every conffile is a module configuration file.
    for (const std::string& line : SplitLines(conffiles))
        EXPECT_EQ(line.rfind(TEST_MODULE_CONF_DIR "/", 0), 0u) << line;
    for (const char* script : {"postinst", "prerm", "postrm"})  // valid shell
        ShellOk("sh -n " + Quote(dir.Sub(std::string("control/") + script)));
    const std::string major = std::string(TEST_PROJECT_VERSION).substr(0, std::string(TEST_PROJECT_VERSION).find('.'));
    EXPECT_EQ(ReadFile(dir.Sub("control/shlibs")), "libtarvd " + major + " tarvd (>= " TEST_PROJECT_VERSION ")\n");
    EXPECT_EQ(ReadFile(dir.Sub("control/triggers")), "activate-noawait ldconfig\n");

    // The layout itself is InstallTest's: here the package holds what it
    // installs, owned by root, and nothing of the build tree.
    std::string contents = ShellOk("dpkg-deb --contents " + Quote(m_Deb));
    const std::string lib = TEST_INSTALL_LIBDIR;
    for (const std::string& path : std::vector<std::string>{
             TEST_INSTALL_SBINDIR "/kopd", lib + "/libtarvd.so.9", lib + "/tarvd/libswitch.so",
             lib + "/tarvd/modules/libtarvd_example.so", lib + "/pkgconfig/tarvd.pc", lib + "/cmake/tarvd/tarvdConfig.cmake",
             TEST_MODULE_CONF_DIR "/example.conf", TEST_UNIT_DIR "/kopd.service", TEST_UNIT_DIR "/kopd-runlevel.service",
             TEST_INSTALL_HELPER})
        EXPECT_TRUE(Contains(contents, " ." + path + "\n") || Contains(contents, " ." + path + " -> ")) << path;
    EXPECT_FALSE(Contains(contents, TARVD_BINARY_DIR));
    for (const std::string& line : SplitLines(contents))
        EXPECT_TRUE(Contains(line, " root/root ")) << line;
}

// What lintian may still say about the package, each with its reason; any
// other error or warning fails.
TEST_F(DebPackage, LintianFindsNoErrorAndNoUnjustifiedWarning)
{
    if (Shell("command -v lintian") != 0)
        GTEST_SKIP() << "no lintian";
    static const char* const kAllowed[] = {
        // One package carries the daemon, its modules and the library they
        // all link (the modules must match its major version), with the files
        // to build modules against it: no separate libtarvd9 / -dev packages.
        "W: tarvd: package-name-doesnt-match-sonames libtarvd9",
        "W: tarvd: link-to-shared-library-in-wrong-package usr/lib/x86_64-linux-gnu/libtarvd.so.",
    };
    // lintian leaves a database file in its temporary folder: the test's own.
    TempDir tmp;
    std::string out;
    Shell("TMPDIR=" + Quote(tmp.Path()) + " lintian --tag-display-limit 0 " + Quote(m_Deb), &out);
    for (const std::string& line : SplitLines(out)) {
        if (line.rfind("E: ", 0) != 0 && line.rfind("W: ", 0) != 0)
            continue;
        bool allowed = false;
        for (const char* a : kAllowed)
            allowed = allowed || line.rfind(a, 0) == 0;
        EXPECT_TRUE(allowed) << line;
    }
}

TEST_F(DebPackage, InstallsAndPurgesWithDpkg)
{
    if (!CanUseMountNamespace())
        GTEST_SKIP() << "needs root and mount namespaces";
    if (Shell("command -v dpkg") != 0)
        GTEST_SKIP() << "no dpkg";
    TempDir dir;
    SandboxOptions options;
    options.writable = {"/usr", "/etc", "/var"};
    Sandbox box(dir.Sub("stage"), options);
    ASSERT_EQ(box.Error(), "");
    // /run is a fresh tmpfs: no systemd is seen there, so the scripts leave
    // the service manager alone.
    std::string script =
        "rm -rf /etc/tarvd /var/log/tarvd\n"
        "dpkg -i " + Quote(m_Deb) + "\n"
        "echo status=$(dpkg-query -W -f='${Status}' tarvd)\n"
        "echo etc=$(stat -c '%a %U:%G' /etc/tarvd) log=$(stat -c '%a %U:%G' /var/log/tarvd)\n"
        "dpkg-query -W -f='${Conffiles}\\n' tarvd\n"
        "test -x " TEST_INSTALL_SBINDIR "/kopd && echo kopd-installed\n"
        "ldconfig -p | grep -q 'libtarvd.so.9 ' && echo ldcache-ok\n"
        "test -L /etc/systemd/system/multi-user.target.wants/kopd.service && echo unit-enabled\n"
        // The installed daemon runs with nothing but the default search path.
        "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin ASAN_OPTIONS=verify_asan_link_order=0 " TEST_INSTALL_SBINDIR
        "/kopd -n & pid=$!\n"
        "i=0; while [ ! -s /run/kopd.pid ] && [ $i -lt 900 ]; do sleep 0.1; i=$((i+1)); done\n"
        "kill -TERM $pid; wait $pid && echo kopd-stopped\n"
        "dpkg --purge tarvd\n"
        "test -e " TEST_INSTALL_SBINDIR "/kopd || echo kopd-removed\n"
        "test -e /var/log/tarvd || echo log-removed\n"
        "test -e " TEST_MODULE_CONF_DIR "/example.conf || echo conf-removed\n"
        "test -e /etc/systemd/system/multi-user.target.wants/kopd.service || echo unit-forgotten\n";
    std::string out;
    ASSERT_EQ(box.RunScript(script, dir.Sub("out.txt"), &out), 0) << out;
    for (const char* said : {"status=install ok installed", "etc=755 root:root log=750 root:root",
                             " " TEST_MODULE_CONF_DIR "/example.conf ", "kopd-installed", "ldcache-ok", "unit-enabled", "kopd-stopped",
                             "unit-forgotten",
                             "kopd-removed", "log-removed", "conf-removed"})
        EXPECT_TRUE(Contains(out, said)) << said << "\n" << out;
}

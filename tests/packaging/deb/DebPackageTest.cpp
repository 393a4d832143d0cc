// The Debian package built by CPack: its control data and contents, and a
// real installation with dpkg in a private mount namespace whose /usr,
// /etc and /var take their changes on a tmpfs.
#include <gtest/gtest.h>

#include <dirent.h>

#include "PackagingTestSupport.h"
#include "support/TestSupport.h"

using pkgtest::Quote;
using testsupport::TempDir;

namespace {

std::string FindDeb()
{
    std::string found;
    if (DIR* d = opendir(TEST_DEB_DIR)) {
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".deb") == 0)
                found = std::string(TEST_DEB_DIR) + "/" + name;
        }
        closedir(d);
    }
    return found;
}

class DebPackage : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_Deb = FindDeb();
        ASSERT_FALSE(m_Deb.empty()) << "no package in " TEST_DEB_DIR " (the packaging_build_deb test makes it)";
    }

    std::string Run(const std::string& cmd)
    {
        std::string out;
        EXPECT_EQ(pkgtest::Shell(cmd, &out), 0) << cmd << "\n" << out;
        return out;
    }

    std::string m_Deb;
};

bool Has(const std::string& text, const std::string& what)
{
    return text.find(what) != std::string::npos;
}

} // namespace

TEST_F(DebPackage, ControlDataNamesDependenciesAndScripts)
{
    std::string info = Run("dpkg-deb --info " + Quote(m_Deb));
    EXPECT_TRUE(Has(info, "Package: tarvd\n")) << info;
    EXPECT_TRUE(Has(info, "Version: " TEST_PROJECT_VERSION)) << info;
    EXPECT_TRUE(Has(info, "Architecture: amd64\n")) << info;
    std::string depends = Run("dpkg-deb --field " + Quote(m_Deb) + " Depends");
    for (const char* dep : {"libc6", "libstdc++6", "libgcc-s1", "gzip"})
        EXPECT_TRUE(Has(depends, dep)) << dep << " missing in: " << depends;
    for (const char* script : {" postinst", " prerm", " postrm", " conffiles"})
        EXPECT_TRUE(Has(info, script)) << script << " missing in:\n" << info;

    TempDir dir;
    Run("dpkg-deb --control " + Quote(m_Deb) + " " + Quote(dir.Sub("control")));
    std::string conffiles = testsupport::ReadFile(dir.Sub("control/conffiles"));
    EXPECT_TRUE(Has(conffiles, TEST_MODULE_CONF_DIR "/example.conf\n")) << conffiles;
    // Every conffile is a module configuration file.
    for (const std::string& line : testsupport::SplitLines(conffiles))
        EXPECT_EQ(line.rfind(TEST_MODULE_CONF_DIR "/", 0), 0u) << line;
    // The maintainer scripts are valid shell.
    for (const char* script : {"postinst", "prerm", "postrm"})
        Run("sh -n " + Quote(dir.Sub(std::string("control/") + script)));
}

TEST_F(DebPackage, ContentsFollowTheInstallLayout)
{
    std::string contents = Run("dpkg-deb --contents " + Quote(m_Deb));
    for (std::string path : {std::string(TEST_INSTALL_SBINDIR) + "/kopd", std::string(TEST_INSTALL_LIBDIR) + "/libswitch.so",
                             std::string(TEST_INSTALL_LIBDIR) + "/libtarvd.so.9",
                             std::string(TEST_INSTALL_LIBDIR) + "/tarvd/modules/libtarvd_example.so",
                             std::string(TEST_INSTALL_LIBDIR) + "/pkgconfig/tarvd.pc",
                             std::string(TEST_INSTALL_LIBDIR) + "/cmake/tarvd/tarvdConfig.cmake",
                             std::string(TEST_INSTALL_LIBDIR) + "/cmake/tarvd/tarvdConfigVersion.cmake",
                             std::string(TEST_INSTALL_INCLUDEDIR) + "/tarvd/tarvd_module.h",
                             std::string(TEST_MODULE_CONF_DIR) + "/example.conf",
                             std::string(TEST_UNIT_DIR) + "/kopd.service",
                             std::string(TEST_UNIT_DIR) + "/kopd-runlevel.service",
                             std::string(TEST_INSTALL_HELPER), std::string(TEST_INSTALL_MANDIR) + "/man8/kopd.8"})
        EXPECT_TRUE(Has(contents, " ." + path + "\n") || Has(contents, " ." + path + " -> ")) << path;
    if (testsupport::FileExists(std::string(TARVD_SOURCE_DIR) + "/tools/CMakeLists.txt")) {
        for (const char* tool : {"koptrace", "kopreg", "kophw", "kopperf"}) {
            EXPECT_TRUE(Has(contents, std::string("/") + tool + "\n")) << tool;
            EXPECT_TRUE(Has(contents, std::string(TEST_INSTALL_MANDIR) + "/man1/" + tool + ".1\n")) << tool;
        }
    }
    // Owned by root, and nothing of the build tree.
    EXPECT_FALSE(Has(contents, TARVD_BINARY_DIR));
    for (const std::string& line : testsupport::SplitLines(contents))
        EXPECT_TRUE(Has(line, " root/root ")) << line;
}

TEST_F(DebPackage, InstallsAndPurgesWithDpkg)
{
    if (!testsupport::CanUseMountNamespace())
        GTEST_SKIP() << "needs root and mount namespaces";
    std::string probe;
    if (pkgtest::Shell("command -v dpkg", &probe) != 0)
        GTEST_SKIP() << "no dpkg";
    TempDir dir;
    std::string stage = dir.Sub("stage");
    std::string s = Quote(stage);
    // /run is a fresh tmpfs: no systemd is seen there, so the scripts leave
    // the service manager alone.
    std::string script =
        "mkdir -p " + s + " && mount -t tmpfs -o mode=0700 tmpfs " + s + "\n"
        "for d in usr etc var; do\n"
        "  mkdir -p " + s + "/$d-up " + s + "/$d-work\n"
        "  mount -t overlay overlay -o lowerdir=/$d,upperdir=" + s + "/$d-up,workdir=" + s + "/$d-work /$d\n"
        "done\n"
        "mount -t tmpfs -o mode=0755 tmpfs /run\n"
        "mkdir -p /run/lock && chmod 1777 /run/lock\n"
        "rm -rf /etc/tarvd /var/log/tarvd\n"
        "dpkg -i " + Quote(m_Deb) + "\n"
        "echo status=$(dpkg-query -W -f='${Status}' tarvd)\n"
        "echo etc=$(stat -c '%a %U:%G' /etc/tarvd) log=$(stat -c '%a %U:%G' /var/log/tarvd)\n"
        "dpkg-query -W -f='${Conffiles}\\n' tarvd\n"
        "test -x " TEST_INSTALL_SBINDIR "/kopd && echo kopd-installed\n"
        "ldconfig -p | grep -q 'libtarvd.so.9 ' && echo ldcache-ok\n"
        // The installed daemon runs with nothing but the default search path.
        "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin ASAN_OPTIONS=verify_asan_link_order=0 " TEST_INSTALL_SBINDIR
        "/kopd -n & pid=$!\n"
        "i=0; while [ ! -s /run/kopd.pid ] && [ $i -lt 900 ]; do sleep 0.1; i=$((i+1)); done\n"
        "kill -TERM $pid; wait $pid && echo kopd-stopped\n"
        "dpkg --purge tarvd\n"
        "test -e " TEST_INSTALL_SBINDIR "/kopd || echo kopd-removed\n"
        "test -e /var/log/tarvd || echo log-removed\n"
        "test -e " TEST_MODULE_CONF_DIR "/example.conf || echo conf-removed\n";
    std::string out;
    ASSERT_EQ(pkgtest::RunInNamespace(script, &out), 0) << out;
    EXPECT_TRUE(Has(out, "status=install ok installed")) << out;
    EXPECT_TRUE(Has(out, "etc=755 root:root log=750 root:root")) << out;
    EXPECT_TRUE(Has(out, " " TEST_MODULE_CONF_DIR "/example.conf ")) << out;
    EXPECT_TRUE(Has(out, "kopd-installed")) << out;
    EXPECT_TRUE(Has(out, "ldcache-ok")) << out;
    EXPECT_TRUE(Has(out, "kopd-stopped")) << out;
    EXPECT_TRUE(Has(out, "kopd-removed")) << out;
    EXPECT_TRUE(Has(out, "log-removed")) << out;
    EXPECT_TRUE(Has(out, "conf-removed")) << out;
}

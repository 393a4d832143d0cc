// The metrics page: exact text for a small machine, a large one that
// Prometheus' own checker accepts, and the figures read for it (CPU times,
// the inventory module's registry keys, the registry's save counters).
#include <cerrno>
#include <fcntl.h>

#include "MetricsTestSupport.h"
#include "modules/ModuleTestSupport.h"
#include "modules/metrics/Collect.h"
#include "support/RegistryFixture.h"

using namespace metricstest;

TEST(MetricsPage, ExactTextWithEscapesUnitsAndEachFamilyOnce)
{
    metrics::Snapshot s;
    s.cpus = {{"", 0.5}, {"0", 0.25}, {"1", 1}};
    s.adapters = {{"0000:00:1f.2", "", "8086", "2922", "Mass storage", "A\"b\\c\nd \xFF\xC3\xA9"}};
    s.drives = {{"sda", "V", "M", "", 1ull << 40}};
    s.health = {std::nullopt, std::nullopt, 3, 1, 0};
    s.scrapeSeconds = 0.001;
    const std::string expected = R"(# HELP tarvd_cpu_busy_ratio Share of time all CPUs together were busy (not idle or waiting for I/O) since the previous scrape.
# TYPE tarvd_cpu_busy_ratio gauge
tarvd_cpu_busy_ratio 0.5
# HELP tarvd_cpu_core_busy_ratio Share of time one CPU was busy since the previous scrape.
# TYPE tarvd_cpu_core_busy_ratio gauge
tarvd_cpu_core_busy_ratio{cpu="0"} 0.25
tarvd_cpu_core_busy_ratio{cpu="1"} 1
# HELP tarvd_drive_size_bytes Capacity of the drive.
# TYPE tarvd_drive_size_bytes gauge
tarvd_drive_size_bytes{drive="sda"} 1099511627776
# HELP tarvd_drive_info A drive of the hardware inventory (always 1).
# TYPE tarvd_drive_info gauge
tarvd_drive_info{drive="sda",vendor="V",model="M",host_adapter=""} 1
# HELP tarvd_adapter_info A PCI function of the hardware inventory (always 1).
# TYPE tarvd_adapter_info gauge
tarvd_adapter_info{pci_address="0000:00:1f.2",slot="",vendor_id="8086",device_id="2922",class="Mass storage",name="A\"b\\c\nd ?)" "\xC3\xA9" R"("} 1
# HELP tarvd_registry_saves_total Times the registry file was written.
# TYPE tarvd_registry_saves_total counter
tarvd_registry_saves_total 3
# HELP tarvd_registry_save_failures_total Times writing the registry file failed.
# TYPE tarvd_registry_save_failures_total counter
tarvd_registry_save_failures_total 1
# HELP tarvd_trace_ring_wraps_total Times the trace ring buffer wrapped.
# TYPE tarvd_trace_ring_wraps_total counter
tarvd_trace_ring_wraps_total 0
# HELP tarvd_scrape_duration_seconds Time taken to gather the figures of this page.
# TYPE tarvd_scrape_duration_seconds gauge
tarvd_scrape_duration_seconds 0.001
)";
    EXPECT_EQ(metrics::Render(s), expected);
}

// Busy time is everything but idle and I/O wait.
TEST(MetricsPage, CpuTimesFromTheStatFile)
{
    const auto cpus = metrics::ParseCpuTimes("cpu  10 0 5 80 5 0 0 0 0 0\ncpu0 1 2 3\ncpu1 4 0 0 6\nintr 1 2\ncpux\n");
    ASSERT_EQ(cpus.size(), 2u) << "malformed lines left out";
    EXPECT_TRUE(cpus.at("").busy == 15 && cpus.at("").total == 100 && cpus.at("1").busy == 4 && cpus.at("1").total == 10);
}

TEST(MetricsPage, PrometheusCheckerAcceptsALargeMachine)
{
    if (access("/usr/bin/promtool", X_OK) != 0)
        GTEST_SKIP() << "promtool is not installed (Debian package prometheus)";
    testsupport::TempDir dir;
    const std::string page = dir.Sub("page.txt"), out = dir.Sub("out.txt");
    ASSERT_TRUE(testsupport::WriteFile(page, metrics::Render(Synthetic(64, 32, 100))));
    const int status = std::system(("/usr/bin/promtool check metrics < " + page + " > " + out + " 2>&1").c_str());
    EXPECT_EQ(status, 0) << testsupport::ReadFile(out);
}

TEST_F(RegistryTest, InventoryReadBackWithFallbacksAndSavesCounted)
{
    const uint64_t saves = CRegistry::GetSaveCount(), failures = CRegistry::GetSaveFailureCount();
    const struct { std::string key; const char *name, *text; unsigned number; } values[] = {
        {"Adapters\\0000:00:1f.2", "Slot", nullptr, 0xFFFFFFFFu},  // no slot known
        {"Adapters\\0000:00:1f.2", "VendorId", nullptr, 0x8086},
        {"Drives\\sda", "SizeBytes", "1099511627776", 0},
        {"Drives\\sdb", "SizeBytes", "12x", 0},  // not a number: the megabytes
        {"Drives\\sdb", "SizeMB", nullptr, 2},
        {"Volumes\\gone", "MountPoint", "/nonexistent/mount", 0},  // not mounted: the inventory's figures
        {"Volumes\\gone", "TotalMB", nullptr, 3},
        {"Volumes\\here", "MountPoint", "/", 0},
        {"Identity\\BIOS", "Version", "2.1", 0},
        {"Identity\\Memory 01", "Installed", nullptr, 1},
        {"Identity\\Memory 02", "Installed", nullptr, 0},
        {"", "LastChange", nullptr, 7},
    };
    {
        CRegistry reg;
        for (const auto& v : values)
            ASSERT_TRUE(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, ("SOFTWARE\\Tarvis\\Inventory\\" + v.key).c_str()) == 0 &&
                        (v.text ? reg.SetValue(v.name, v.text) : reg.SetValue(v.name, v.number)) == 0);
    }  // the handle saves the tree
    metrics::Snapshot s;
    metrics::CollectInventory(s);
    ASSERT_TRUE(s.adapters.size() == 1 && s.drives.size() == 2 && s.volumes.size() == 2 && s.identity);
    EXPECT_EQ(s.adapters[0].pciAddress + "|" + s.adapters[0].slot + "|" + s.adapters[0].vendorId, "0000:00:1f.2||8086");
    EXPECT_EQ(std::to_string(s.drives[0].sizeBytes) + " " + std::to_string(s.drives[1].sizeBytes) + " " +
                  std::to_string(s.volumes[0].sizeBytes) + " " + s.identity->biosVersion,
              "1099511627776 2097152 3145728 2.1");
    EXPECT_TRUE(s.volumes[1].sizeBytes > 0 && s.memoryDevices.size() == 1 && s.changeRecords == 7u);

    EXPECT_TRUE(CRegistry::SaveTree());  // nothing to write
    EXPECT_EQ(CRegistry::GetSaveCount(), saves + 1);
    CRegistry::FileOps failing = {[](const char* p, int f, mode_t m) { return ::open(p, f, m); }, ::write, ::fsync,
                                  [](const char*, const char*) { return errno = EIO, -1; }};
    CRegistry::SetFileOps(&failing);
    CRegistry(CRegistry::HKEY_LOCAL_MACHINE).SetValue("More", 1u);  // the handle's save fails
    CRegistry::SetFileOps(nullptr);
    EXPECT_TRUE(CRegistry::GetSaveCount() == saves + 1 && CRegistry::GetSaveFailureCount() == failures + 1);
}

// The module as the framework drives it, with the page also written to a file.
TEST_F(RegistryTest, ModuleServesAndWritesTheTextfile)
{
    modtest::ModuleLibrary lib(TEST_METRICS_MODULE);
    const std::string file = m_Dir.Sub("tarvd.prom");
    modtest::ModuleConfig config({{"Port", "0"}, {"TextfilePath", file}, {"TextfileSeconds", "1"}});
    ASSERT_TRUE(lib.Table() && lib->load(config.Get()) && lib->start());
    EXPECT_TRUE(testsupport::WaitFor([&] { return testsupport::Contains(testsupport::ReadFile(file), "tarvd_memory_total_bytes "); }));
    lib->stop();
    lib->unload();
}

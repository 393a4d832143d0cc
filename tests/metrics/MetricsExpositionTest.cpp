// The metrics page: exact text for a small machine, and a large one that
// Prometheus' own checker accepts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

#include "MetricsTestSupport.h"
#include "modules/metrics/Collect.h"
#include "support/TestSupport.h"

using namespace metricstest;

TEST(MetricsPage, ExactTextWithEscapesUnitsAndEachFamilyOnce)
{
    metrics::Snapshot s;
    s.cpus = {{"", 0.5}, {"0", 0.25}, {"1", 1}};
    s.interfaces = {{"a\"b\\c\nd", 1, 2, 3, 4, 5, 1ull << 40}};
    s.adapters = {{"0000:00:1f.2", "", "8086", "2922", "Mass storage", "AHCI \xFF\xC3\xA9"}};
    s.health = {std::nullopt, std::nullopt, 3, 1, 0};
    s.scrapeSeconds = 0.001;
    const std::string expected = R"(# HELP tarvd_cpu_busy_ratio Share of time all CPUs together were busy (not idle or waiting for I/O) since the previous scrape.
# TYPE tarvd_cpu_busy_ratio gauge
tarvd_cpu_busy_ratio 0.5
# HELP tarvd_cpu_core_busy_ratio Share of time one CPU was busy since the previous scrape.
# TYPE tarvd_cpu_core_busy_ratio gauge
tarvd_cpu_core_busy_ratio{cpu="0"} 0.25
tarvd_cpu_core_busy_ratio{cpu="1"} 1
# HELP tarvd_network_receive_bytes_total Bytes received by the interface.
# TYPE tarvd_network_receive_bytes_total counter
tarvd_network_receive_bytes_total{interface="a\"b\\c\nd"} 1
# HELP tarvd_network_transmit_bytes_total Bytes sent by the interface.
# TYPE tarvd_network_transmit_bytes_total counter
tarvd_network_transmit_bytes_total{interface="a\"b\\c\nd"} 2
# HELP tarvd_network_receive_packets_total Packets received by the interface.
# TYPE tarvd_network_receive_packets_total counter
tarvd_network_receive_packets_total{interface="a\"b\\c\nd"} 3
# HELP tarvd_network_transmit_packets_total Packets sent by the interface.
# TYPE tarvd_network_transmit_packets_total counter
tarvd_network_transmit_packets_total{interface="a\"b\\c\nd"} 4
# HELP tarvd_network_receive_errors_total Receive errors of the interface.
# TYPE tarvd_network_receive_errors_total counter
tarvd_network_receive_errors_total{interface="a\"b\\c\nd"} 5
# HELP tarvd_network_transmit_errors_total Transmit errors of the interface.
# TYPE tarvd_network_transmit_errors_total counter
tarvd_network_transmit_errors_total{interface="a\"b\\c\nd"} 1099511627776
# HELP tarvd_adapter_info A PCI function of the hardware inventory (always 1).
# TYPE tarvd_adapter_info gauge
tarvd_adapter_info{pci_address="0000:00:1f.2",slot="",vendor_id="8086",device_id="2922",class="Mass storage",name="AHCI ?)" "\xC3\xA9" R"("} 1
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

// Malformed lines are left out; busy time is everything but idle and I/O wait.
TEST(MetricsPage, CpuTimesFromTheStatFile)
{
    const auto cpus = metrics::ParseCpuTimes("cpu  10 0 5 80 5 0 0 0 0 0\ncpu0 1 2 3\ncpu1 4 0 0 6\nintr 1 2\ncpux\n");
    ASSERT_EQ(cpus.size(), 2u);
    EXPECT_EQ(cpus.at("").busy, 15u);
    EXPECT_EQ(cpus.at("").total, 100u);
    EXPECT_EQ(cpus.at("1").busy, 4u);
    EXPECT_EQ(cpus.at("1").total, 10u);
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

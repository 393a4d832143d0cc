// End to end: kopd runs the bundled modules with the metrics module in
// private mount and network namespaces, and a real Prometheus server there
// scrapes it; the figures are read back through the server's query API.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <thread>

#include "MetricsTestSupport.h"
#include "support/Sandbox.h"

using namespace testsupport;

namespace {

constexpr const char* kPrometheus = "/usr/bin/prometheus";

std::string UrlEncode(const std::string& text)
{
    std::string out, hex(3, '\0');
    for (unsigned char c : text)
        out += isalnum(c) || c == '_' ? std::string(1, static_cast<char>(c)) : (snprintf(hex.data(), 4, "%%%02X", c), hex);
    return out;
}

class MetricsEndToEndTest : public KopdFixture {
protected:
    MetricsEndToEndTest() : KopdFixture(TEST_KOPD_PATH, TEST_FRAMEWORK_DIR) {}
    void SetUp() override
    {
        if (access(kPrometheus, X_OK) != 0)
            GTEST_SKIP() << "Prometheus is not installed (Debian package prometheus, TARVD_WITH_PROMETHEUS=1 scripts/deps.sh)";
        KopdFixture::SetUp();
    }
    void TearDown() override
    {
        for (auto it = m_Pids.rbegin(); it != m_Pids.rend(); ++it)
            if (kill(*it, SIGKILL) == 0)  // not already stopped and collected
                WaitExit(*it);
    }
    std::string NetNs() const { return "/proc/" + std::to_string(m_Pids.at(0)) + "/ns/net"; }
    /// Starts `program` in the sandbox, in the network namespace of the first one started.
    pid_t Run(const std::string& program, std::vector<std::string> args, std::vector<std::string> env = {})
    {
        if (!m_Pids.empty())
            args.insert(args.begin(), {"--net=" + NetNs(), "--", program});
        env.push_back("PATH=/usr/sbin:/usr/bin:/sbin:/bin");
        const pid_t pid = m_Ns->Spawn({m_Pids.empty() ? program : "/usr/bin/nsenter", args, env,
                                       m_Dir.Sub("out" + std::to_string(m_Pids.size()) + ".txt")});
        return pid > 0 ? m_Pids.emplace_back(pid) : pid;
    }
    /// The values `query` gives, asked from a thread that joins the namespace's network.
    std::vector<std::string> Query(const std::string& query)
    {
        std::string answer;
        std::thread([&] {
            UniqueFd net(open(NetNs().c_str(), O_RDONLY | O_CLOEXEC));
            if (net && setns(net.Get(), CLONE_NEWNET) == 0)
                answer = metricstest::Get(9090, "/api/v1/query?query=" + UrlEncode(query));
        }).join();
        std::vector<std::string> values;
        auto json = nlohmann::json::parse(answer.substr(std::min(answer.find("\r\n\r\n"), answer.size())), nullptr, false);
        for (const auto& r : json.is_object() && json.contains("data") ? json["data"]["result"] : nlohmann::json())
            values.push_back(r["value"][1].get<std::string>());
        return values;
    }
    void ExpectValue(const std::string& query, const std::string& expected)
    {
        EXPECT_TRUE(WaitFor([&] { return Query(query) == std::vector<std::string>{expected}; }, std::chrono::minutes(3)))
            << query << " gives " << ::testing::PrintToString(Query(query)) << ", not " << expected << "\n"
            << ReadFile(m_Dir.Sub("out1.txt")) << ReadFile(m_Dir.Sub("out2.txt"));
    }

    std::vector<pid_t> m_Pids;
};

} // namespace

TEST_F(MetricsEndToEndTest, PrometheusScrapesMemoryNewInterfacesAndFailedModules)
{
    // A network namespace of its own, with loopback up, held by a sleeper (once it sleeps).
    ASSERT_GT(Run("/usr/bin/unshare", {"--net", "--", "/bin/sh", "-c", "ip link set lo up && exec sleep 86400"}), 0);
    ASSERT_TRUE(WaitFor([&] { return ReadFile("/proc/" + std::to_string(m_Pids[0]) + "/comm") == "sleep\n"; }));

    // The bundled modules, a configuration file without a library and a
    // library that is no library: two modules fail.
    const std::string mods = m_Dir.Sub("mods"), config = m_Dir.Sub("prometheus.yml");
    ASSERT_TRUE(WriteFile(NsPath("/etc/tarvd/RunLevel"), "3\n") &&
                WriteFile(mods + "/inventory.conf", "[Module]\nName=inventory\nLibrary=" TEST_INVENTORY_MODULE "\n") &&
                WriteFile(mods + "/metrics.conf", "[Module]\nName=metrics\nLibrary=" TEST_METRICS_MODULE "\n") &&
                WriteFile(mods + "/broken.conf", "[Module]\nName=broken\n") &&
                WriteFile(mods + "/text.conf", "[Module]\nName=text\nLibrary=" + mods + "/text.conf\n"));
    const pid_t kopd = Run(TEST_KOPD_PATH, {"-n"}, {"LD_LIBRARY_PATH=" TEST_FRAMEWORK_DIR, "TARVD_MODULES_DIR=" + mods});
    ASSERT_GT(kopd, 0);
    // A scrape may take a while on a loaded machine: the time-out is the interval.
    ASSERT_TRUE(WriteFile(config, "global: {scrape_interval: 5s, scrape_timeout: 5s}\nscrape_configs:\n"
                                  "  - {job_name: tarvd, static_configs: [{targets: ['127.0.0.1:9479']}]}\n"));
    ASSERT_GT(Run(kPrometheus, {"--config.file=" + config, "--storage.tsdb.path=" + m_Dir.Sub("tsdb"),
                                "--web.listen-address=127.0.0.1:9090"}, {"HOME=" + m_Dir.Path()}), 0);

    const std::string meminfo = ReadFile("/proc/meminfo");
    ExpectValue("tarvd_memory_total_bytes", std::to_string(std::stoull(meminfo.substr(meminfo.find("MemTotal:") + 9)) * 1024));
    ExpectValue("tarvd_modules_failed", "2");
    ExpectValue("tarvd_modules_loaded", "2");

    std::string out;
    ASSERT_EQ(m_Ns->RunScript("nsenter --net=" + NetNs() + " sh -c 'ip link add tarvdtest0 type dummy 2>/dev/null || "
                              "ip link add tarvdtest0 type veth peer name tarvdtest1'", m_Dir.Sub("ip.txt"), &out), 0) << out;
    ExpectValue("tarvd_network_receive_bytes_total{interface=\"tarvdtest0\"}", "0");

    ASSERT_NO_FATAL_FAILURE(Stop(kopd, SIGTERM));
}

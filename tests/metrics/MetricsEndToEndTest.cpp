// End to end: kopd runs the bundled modules with the metrics module in
// private mount and network namespaces, and a real Prometheus server there
// scrapes it; the figures are read back through the server's query API.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <thread>

#include "MetricsTestSupport.h"
#include "support/Sandbox.h"

using namespace testsupport;

namespace {

constexpr const char* kPrometheus = "/usr/bin/prometheus";
constexpr uint16_t kMetricsPort = 9479, kPrometheusPort = 9090;
constexpr const char* kPlainPath = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

std::string UrlEncode(const std::string& text)
{
    std::string out;
    char hex[4];
    for (unsigned char c : text)
        out += isalnum(c) || c == '_' ? std::string(1, static_cast<char>(c)) : (snprintf(hex, 4, "%%%02X", c), hex);
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
        // Everything started here ends here, whatever the case's outcome.
        for (auto it = m_Pids.rbegin(); it != m_Pids.rend(); ++it) {
            kill(*it, SIGKILL);
            WaitExit(*it);
        }
    }
    /// Starts `program` in the network namespace of the holder.
    pid_t InNet(const std::string& program, std::vector<std::string> args, std::vector<std::string> env,
                const std::string& output)
    {
        args.insert(args.begin(), {"--net=/proc/" + std::to_string(m_Holder) + "/ns/net", "--", program});
        env.push_back(kPlainPath);
        pid_t pid = m_Ns->Spawn({"/usr/bin/nsenter", args, env, m_Dir.Sub(output)});
        if (pid > 0)
            m_Pids.push_back(pid);
        return pid;
    }
    /// The sample values of `query` from Prometheus, asked from a thread
    /// that joins the namespace's network (the test's own threads stay out).
    std::vector<std::string> Query(const std::string& query)
    {
        std::string answer;
        std::thread asker([&] {
            UniqueFd net(open(("/proc/" + std::to_string(m_Holder) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC));
            if (net && setns(net.Get(), CLONE_NEWNET) == 0)
                answer = metricstest::Get(kPrometheusPort, "/api/v1/query?query=" + UrlEncode(query));
        });
        asker.join();
        std::vector<std::string> values;
        auto json = nlohmann::json::parse(answer.substr(std::min(answer.find("\r\n\r\n"), answer.size())), nullptr, false);
        for (const auto& r : json.is_object() && json.contains("data") ? json["data"]["result"] : nlohmann::json())
            values.push_back(r["value"][1].get<std::string>());
        return values;
    }
    /// Waits until `query` gives exactly the one value `expected`.
    bool WaitValue(const std::string& query, const std::string& expected)
    {
        std::vector<std::string> last;
        if (WaitFor([&] { return (last = Query(query)) == std::vector<std::string>{expected}; }, std::chrono::minutes(3)))
            return true;
        ADD_FAILURE() << query << " gives " << ::testing::PrintToString(last) << ", not " << expected;
        return false;
    }

    pid_t m_Holder = -1;
    std::vector<pid_t> m_Pids;
};

} // namespace

TEST_F(MetricsEndToEndTest, PrometheusScrapesMemoryNewInterfacesAndFailedModules)
{
    // A network namespace of its own, with loopback up, held by a sleeper.
    m_Holder = m_Ns->Spawn({"/usr/bin/unshare", {"--net", "--", "/bin/sh", "-c", "ip link set lo up && exec sleep 86400"},
                            {kPlainPath}, m_Dir.Sub("holder.txt")});
    ASSERT_GT(m_Holder, 0);
    m_Pids.push_back(m_Holder);
    ASSERT_TRUE(WaitFor([&] { return Contains(ReadFile("/proc/" + std::to_string(m_Holder) + "/cmdline"), "sleep"); }));

    // The bundled modules, a configuration file without a library and a
    // library that is no library: two modules fail.
    const std::string mods = m_Dir.Sub("mods");
    ASSERT_TRUE(WriteFile(NsPath("/etc/tarvd/RunLevel"), "3\n"));
    ASSERT_TRUE(WriteFile(mods + "/inventory.conf", "[Module]\nName=inventory\nLibrary=" TEST_INVENTORY_MODULE "\n") &&
                WriteFile(mods + "/metrics.conf", "[Module]\nName=metrics\nLibrary=" TEST_METRICS_MODULE "\n") &&
                WriteFile(mods + "/broken.conf", "[Module]\nName=broken\n") &&
                WriteFile(mods + "/text.conf", "[Module]\nName=text\nLibrary=" + mods + "/text.conf\n"));
    pid_t kopd = InNet(TEST_KOPD_PATH, {"-n"},
                       {"LD_LIBRARY_PATH=" TEST_FRAMEWORK_DIR, "TARVD_MODULES_DIR=" + mods}, "kopd.txt");
    ASSERT_GT(kopd, 0);

    // A scrape may take a while on a loaded machine: the time-out is the interval.
    const std::string config = m_Dir.Sub("prometheus.yml");
    ASSERT_TRUE(WriteFile(config, "global:\n  scrape_interval: 5s\n  scrape_timeout: 5s\n"
                                  "scrape_configs:\n  - job_name: tarvd\n    static_configs:\n"
                                  "      - targets: ['127.0.0.1:" + std::to_string(kMetricsPort) + "']\n"));
    ASSERT_GT(InNet(kPrometheus,
                    {"--config.file=" + config, "--storage.tsdb.path=" + m_Dir.Sub("tsdb"),
                     "--web.listen-address=127.0.0.1:" + std::to_string(kPrometheusPort)},
                    {"HOME=" + m_Dir.Path()}, "prometheus.txt"),
              0);

    const std::string meminfo = ReadFile("/proc/meminfo");
    const unsigned long long totalKb = std::stoull(meminfo.substr(meminfo.find("MemTotal:") + 9));
    EXPECT_TRUE(WaitValue("tarvd_memory_total_bytes", std::to_string(totalKb * 1024)))
        << ReadFile(m_Dir.Sub("kopd.txt")) << ReadFile(m_Dir.Sub("prometheus.txt"));
    EXPECT_TRUE(WaitValue("tarvd_modules_failed", "2"));
    EXPECT_TRUE(WaitValue("tarvd_modules_loaded", "2"));

    std::string out;
    ASSERT_EQ(m_Ns->RunScript("nsenter --net=/proc/" + std::to_string(m_Holder) +
                                  "/ns/net sh -c 'ip link add tarvdtest0 type dummy 2>/dev/null || "
                                  "ip link add tarvdtest0 type veth peer name tarvdtest1'",
                              m_Dir.Sub("ip.txt"), &out),
              0)
        << out;
    EXPECT_TRUE(WaitValue("tarvd_network_receive_bytes_total{interface=\"tarvdtest0\"}", "0"));

    m_Pids.erase(std::find(m_Pids.begin(), m_Pids.end(), kopd));
    ASSERT_NO_FATAL_FAILURE(Stop(kopd, SIGTERM));
}

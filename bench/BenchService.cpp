#include "bench/BenchService.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kelm::bench {

namespace fs = std::filesystem;

namespace {

pid_t start(const std::vector<std::string>& arguments, const fs::path& log) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(out, STDERR_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

int waitFor(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

BenchService::BenchService(int latencyMs)
    : m_programs(fs::canonical("/proc/self/exe").parent_path().parent_path()) {
    std::string pattern = (fs::temp_directory_path() / "kelm-bench-XXXXXX").string();
    m_directory = ::mkdtemp(pattern.data());
    fs::create_directories(m_directory / "config");
    const nlohmann::json config = {{"security_settings", {{"user_group", ""}}},
                                   {"debug_settings", {{"debug_service", false}}},
                                   {"fake_device_settings",
                                    {{"enable_fake_device", true},
                                     {"fake_device_number", 3},
                                     {"alloc_graph_latency", 0},
                                     {"load_tensor_latency", latencyMs},
                                     {"get_result_latency", latencyMs},
                                     {"latency_distribution_stddev", 0.0}}}};
    std::ofstream(m_directory / "config/kelm_service.config") << config;
    std::ofstream(m_directory / "a.graph") << std::string(4096, 'a');
    std::ofstream(m_directory / "b.graph") << std::string(4096, 'b');
    ::setenv("KELM_INSTALL_DIR", m_directory.c_str(), 1);
    ::setenv("KELM_RUN_DIR", m_directory.c_str(), 1);
    ::setenv("HOME", m_directory.c_str(), 1);
    fs::current_path(m_directory);
    m_pid = start({m_programs / "kelmdaemon"}, m_directory / "service.log");
    if (waitFor(start({m_programs / "kelmctl", "wait-ready"}, m_directory / "ctl.log")) != 0) {
        std::fprintf(stderr, "the service did not start\n");
        std::exit(1);
    }
}

BenchService::~BenchService() {
    ::kill(m_pid, SIGUSR1);
    std::printf("service ended with status %d\n", waitFor(m_pid));
    fs::current_path("/");
    fs::remove_all(m_directory);
}

ExchangeResult BenchService::measure(const Load& load, double seconds) {
    const fs::path json = m_directory / "report.json";
    const int status =
        waitFor(start({m_programs / "kelmctl", "bench", "--clients", std::to_string(load.clients),
                       "--depth", std::to_string(load.depth), "--seconds", std::to_string(seconds),
                       "--graph", "a.graph", "--graph", "b.graph", "--json", json.string()},
                      m_directory / "ctl.log"));
    if (status != 0) std::fprintf(stderr, "kelmctl bench ended with status %d\n", status);
    const nlohmann::json report = nlohmann::json::parse(std::ifstream(json));
    ExchangeResult result;
    result.requestsPerSecond = report["results_per_second"];
    result.medianMicros = report["clients"][0]["result"]["p50_ms"].get<double>() * 1000.0;
    return result;
}

}  // namespace kelm::bench

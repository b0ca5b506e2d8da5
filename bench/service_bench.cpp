// What does the service add to the bare exchange of its records? Both on one CPU, in one run: the
// service on simulated devices without latency, driven by `kelmctl bench`, against a server that
// only answers. Prints one row per load with the ratio.
//
//   service_bench [SECONDS]        seconds for each measurement, 5 by default

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/BareExchange.h"

namespace {

namespace fs = std::filesystem;
using kelm::bench::ExchangeResult;

struct Load {
    int clients;
    int depth;
};
constexpr Load kLoads[] = {{1, 1}, {4, 8}};

void pinToOneCpu() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    if (::sched_setaffinity(0, sizeof(set), &set) != 0) std::perror("sched_setaffinity");
}

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

// The service in a private directory, ended with SIGUSR1.
class Service {
 public:
    explicit Service(const fs::path& programs) : m_programs(programs) {
        std::string pattern = (fs::temp_directory_path() / "kelm-bench-XXXXXX").string();
        m_directory = ::mkdtemp(pattern.data());
        fs::create_directories(m_directory / "config");
        std::ofstream(m_directory / "config/kelm_service.config") << R"({
            "security_settings": { "user_group": "" },
            "debug_settings": { "debug_service": false },
            "fake_device_settings": { "enable_fake_device": true, "fake_device_number": 3,
                "alloc_graph_latency": 0, "load_tensor_latency": 0, "get_result_latency": 0,
                "latency_distribution_stddev": 0.0 }
        })";
        std::ofstream(m_directory / "a.graph") << std::string(4096, 'a');
        std::ofstream(m_directory / "b.graph") << std::string(4096, 'b');
        ::setenv("KELM_INSTALL_DIR", m_directory.c_str(), 1);
        ::setenv("KELM_RUN_DIR", m_directory.c_str(), 1);
        ::setenv("HOME", m_directory.c_str(), 1);
        fs::current_path(m_directory);
        m_pid = start({program("kelmdaemon")}, m_directory / "service.log");
        if (waitFor(start({program("kelmctl"), "wait-ready"}, m_directory / "ctl.log")) != 0) {
            std::fprintf(stderr, "the service did not start\n");
            std::exit(1);
        }
    }

    ~Service() {
        ::kill(m_pid, SIGUSR1);
        std::printf("service ended with status %d\n", waitFor(m_pid));
        fs::current_path("/");
        fs::remove_all(m_directory);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    ExchangeResult measure(const Load& load, double seconds) {
        const fs::path json = m_directory / "report.json";
        const int status = waitFor(
            start({program("kelmctl"), "bench", "--clients", std::to_string(load.clients),
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

 private:
    std::string program(const char* name) const { return (m_programs / name).string(); }

    const fs::path m_programs;
    fs::path m_directory;
    pid_t m_pid = -1;
};

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 5.0;
    pinToOneCpu();
    const fs::path programs = fs::canonical("/proc/self/exe").parent_path().parent_path();
    Service service(programs);
    std::printf("%-22s %12s %12s %12s %12s %8s %8s\n", "load", "bare req/s", "serv. req/s",
                "bare p50 us", "serv. p50 us", "req/s", "p50");
    for (const Load& load : kLoads) {
        const ExchangeResult bare = kelm::bench::runBareExchange(
            load.clients, load.depth, std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
        const ExchangeResult full = service.measure(load, seconds);
        std::printf("%d clients x depth %-5d %12.0f %12.0f %12.1f %12.1f %8.3f %8.2f\n",
                    load.clients, load.depth, bare.requestsPerSecond, full.requestsPerSecond,
                    bare.medianMicros, full.medianMicros,
                    full.requestsPerSecond / bare.requestsPerSecond,
                    full.medianMicros / bare.medianMicros);
    }
    return 0;
}

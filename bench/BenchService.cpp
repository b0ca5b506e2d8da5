#include "bench/BenchService.h"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kelm::bench {

namespace {

nlohmann::json configuration(const Load& load) {
    return {{"debug_settings", {{"debug_service", false}}},
            {"fake_device_settings",
             {{"fake_device_number", 3},
              {"alloc_graph_latency", 0},
              {"load_tensor_latency", load.loadTensorMs},
              {"get_result_latency", load.getResultMs}}}};
}

}  // namespace

BenchService::BenchService(const Load& load, const Build& build,
                           const std::vector<std::string>& environment)
    : m_load(load), m_kelmctl(build.kelmctl), m_service(configuration(load).dump()) {
    m_service.files().write("a.graph", std::string(4096, 'a'));
    m_service.files().write("b.graph", std::string(4096, 'b'));
    m_service.useRunDir();
    m_service.start({}, environment, build.daemon);
    if (!m_service.waitReady()) throw std::runtime_error(build.daemon + " did not start");
}

BenchService::~BenchService() {
    if (m_service.stop(std::chrono::seconds(20))) return;
    std::fprintf(stderr, "the service ended badly or not at all\n");
}

ClientRun BenchService::measure(double seconds) { return run(*prepareClients(seconds)); }

std::unique_ptr<Child> BenchService::prepareClients(double seconds,
                                                    const std::vector<std::string>& environment) {
    std::vector<std::string> arguments{m_kelmctl,   "bench",
                                       "--clients", std::to_string(m_load.clients),
                                       "--depth",   std::to_string(m_load.depth),
                                       "--graph",   file("a.graph"),
                                       "--graph",   file("b.graph"),
                                       "--json",    file("report.json")};
    if (seconds > 0.0) {
        arguments.insert(arguments.end(), {"--seconds", std::to_string(seconds)});
    } else {
        arguments.insert(arguments.end(), {"--count", "1"});
    }
    return std::make_unique<Child>(std::move(arguments), environment);
}

ClientRun BenchService::run(Child& clients) {
    ClientRun run;
    run.counts = clients.wait();
    const nlohmann::json report = nlohmann::json::parse(std::ifstream(file("report.json")));
    run.speed.requestsPerSecond = report["results_per_second"];
    run.speed.medianMicros = report["clients"][0]["result"]["p50_ms"].get<double>() * 1000.0;
    for (const nlohmann::json& client : report["clients"]) {
        run.tasks += client["requests"].get<double>();
        for (const auto& [error, count] : client["errors"].items()) {
            std::fprintf(stderr, "%s: %s\n", error.c_str(), count.dump().c_str());
        }
    }
    return run;
}

}  // namespace kelm::bench

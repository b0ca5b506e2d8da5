#include "bench/BenchService.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

namespace kelm::bench {

namespace {

nlohmann::json configuration(int latencyMs) {
    return {{"debug_settings", {{"debug_service", false}}},
            {"fake_device_settings",
             {{"fake_device_number", 3},
              {"alloc_graph_latency", 0},
              {"load_tensor_latency", latencyMs},
              {"get_result_latency", latencyMs}}}};
}

}  // namespace

BenchService::BenchService(int latencyMs) : m_service(configuration(latencyMs).dump()) {
    m_service.files().write("a.graph", std::string(4096, 'a'));
    m_service.files().write("b.graph", std::string(4096, 'b'));
    m_service.useRunDir();
    m_service.start();
    if (m_service.waitReady()) return;
    std::fprintf(stderr, "the service did not start\n");
    std::exit(1);
}

BenchService::~BenchService() {
    const bool ended = m_service.stop(std::chrono::seconds(20));
    std::printf("service ended %s\n", ended ? "well" : "badly or not at all");
}

ExchangeResult BenchService::measure(const Load& load, double seconds) {
    const std::string json = m_service.dir() + "/report.json";
    const std::string command = KELM_CTL " bench --clients " + std::to_string(load.clients) +
                                " --depth " + std::to_string(load.depth) + " --seconds " +
                                std::to_string(seconds) + " --graph " + m_service.dir() +
                                "/a.graph --graph " + m_service.dir() + "/b.graph --json " + json +
                                " >/dev/null";
    const int status = std::system(command.c_str());
    if (status != 0) std::fprintf(stderr, "kelmctl bench ended with status %d\n", status);
    const nlohmann::json report = nlohmann::json::parse(std::ifstream(json));
    ExchangeResult result;
    result.requestsPerSecond = report["results_per_second"];
    result.medianMicros = report["clients"][0]["result"]["p50_ms"].get<double>() * 1000.0;
    return result;
}

}  // namespace kelm::bench

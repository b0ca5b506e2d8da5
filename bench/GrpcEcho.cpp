#include "bench/GrpcEcho.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench/Child.h"
#include "bench/CpuPlacement.h"
#include "tests/fakes/TempDir.h"

namespace kelm::bench {

bool GrpcEcho::isInstalled() { return std::filesystem::exists(KELM_GRPC_ECHO); }

Figures GrpcEcho::measure(GrpcKind kind, const Load& load, double seconds) {
    const CpuPlacement placement(load.cpus);
    const TempDir dir;
    const std::string report = dir.path() + "/report.json";
    std::vector<std::string> arguments{KELM_GRPC_ECHO,
                                       "--clients",
                                       std::to_string(load.clients),
                                       "--depth",
                                       std::to_string(load.depth),
                                       "--seconds",
                                       std::to_string(seconds),
                                       "--json",
                                       report};
    if (kind == GrpcKind::kStream) arguments.emplace_back("--stream");
    Child(std::move(arguments), {}).wait();
    return nlohmann::json::parse(std::ifstream(report)).get<Figures>();
}

}  // namespace kelm::bench

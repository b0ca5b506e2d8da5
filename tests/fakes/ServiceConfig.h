#pragma once

#include <string>

namespace kelm {

// Pieces of the configuration that services under test start with.
struct ServiceConfig {
    // Two simulated devices of 1 ms, and a socket that takes no group.
    static constexpr const char* kBase = R"({
    "fake_device_settings": {
        "enable_fake_device": true,
        "fake_device_number": 2,
        "alloc_graph_latency": 1,
        "load_tensor_latency": 1,
        "get_result_latency": 1,
        "latency_distribution_stddev": 0.0
    },
    "security_settings": { "user_group": "" }
})";

    // A section. Each of the two steps of a task takes so long.
    static std::string fakeDevices(int number, int latencyMs) {
        const std::string latency = std::to_string(latencyMs);
        return R"("fake_device_settings": {"fake_device_number": )" + std::to_string(number) +
               R"(, "load_tensor_latency": )" + latency + R"(, "get_result_latency": )" + latency +
               "}";
    }
};

}  // namespace kelm

#pragma once

#include "config/ServiceConfigParser.h"

namespace kelm {

// Adds a configuration text on top of what the process has; for the rest of the process.
inline void addTestConfig(const std::string& text) {
    const TempDir dir;
    ServiceConfigParser::instance().appendConfigFile(dir.write("test.config", text), false);
}

// Simulated devices without latencies, with further settings as `"key": value, `.
inline void useFakeDevices(const std::string& settings = "") {
    addTestConfig(R"({"fake_device_settings": {"enable_fake_device": true,)" + settings + R"(
        "alloc_graph_latency": 0, "load_tensor_latency": 0, "get_result_latency": 0,
        "latency_distribution_stddev": 0.0}})");
}

}  // namespace kelm

#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelm::ctl {

// The names behind the ids in the names of spans: graph, client and device.
class TraceNames {
 public:
    // The tracer's names file; an empty path has no names. Lines that are none are passed over.
    // Takes some 100 bytes of memory for each task. Throws if the file cannot be read or has no
    // name.
    static TraceNames read(const std::string& path);

    // The details of a span: members "graph", "client" and "device" as far as they are known. The
    // spans of a task's attempts are to come in their order.
    nlohmann::json describe(std::string_view span);

 private:
    struct Task {
        uint64_t graph = 0;
        uint64_t client = 0;
        std::vector<uint64_t> devices;  // of its attempts, in their order
        size_t told = 0;                // of these
    };

    void add(std::string_view line);

    // By kind and id, as in {"graph", 12}.
    std::map<std::pair<std::string, uint64_t>, std::string> m_names;
    std::unordered_map<uint64_t, Task> m_tasks;
};

}  // namespace kelm::ctl

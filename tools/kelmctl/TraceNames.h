#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace kelm::ctl {

// The names behind the ids in the names of spans, as the events of the same run tell them.
class TraceNames {
 public:
    // A file that `kelmctl events --json` has written; an empty path has no names. Throws if it
    // cannot be read, or has no event.
    static TraceNames read(const std::string& path);

    // The details of a span: members "graph" and "device" as far as they are known.
    nlohmann::json describe(std::string_view span) const;

 private:
    std::map<uint64_t, std::string> m_graphs;
    std::map<uint64_t, std::string> m_devices;
};

}  // namespace kelm::ctl

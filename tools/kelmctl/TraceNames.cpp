#include "tools/kelmctl/TraceNames.h"

#include <charconv>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "tools/kelmctl/EventHistory.h"

namespace kelm::ctl {

namespace {

// The number behind the mark, as in "load_graph_12_device_3".
std::optional<uint64_t> numberBehind(std::string_view text, std::string_view mark) {
    const size_t at = text.find(mark);
    if (at == text.npos) return std::nullopt;
    text.remove_prefix(at + mark.size());
    uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

void addName(nlohmann::json& details, const char* member, std::optional<uint64_t> id,
             const std::map<uint64_t, std::string>& names) {
    const auto name = id ? names.find(*id) : names.end();
    if (name != names.end()) details[member] = name->second;
}

}  // namespace

// Ids of graphs are given once; of devices with one id the last one counts.
TraceNames TraceNames::read(const std::string& path) {
    TraceNames names;
    if (path.empty()) return names;
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read " + path);
    for (std::string line; std::getline(file, line);) {
        const EventRow event = parseEvent(line);
        if (event.graphId != 0) names.m_graphs[event.graphId] = event.graph;
        if (event.deviceId) names.m_devices[*event.deviceId] = event.device;
    }
    if (names.m_graphs.empty()) {
        throw std::runtime_error(path + " names no graph; write it with kelmctl events --json");
    }
    return names;
}

nlohmann::json TraceNames::describe(std::string_view span) const {
    nlohmann::json details = nlohmann::json::object();
    addName(details, "graph", numberBehind(span, "load_graph_"), m_graphs);
    addName(details, "device", numberBehind(span, "_device_"), m_devices);
    return details;
}

}  // namespace kelm::ctl

#include "tools/kelmctl/TraceNames.h"

#include <charconv>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

namespace kelm::ctl {

namespace {

// The number that the text begins with; what follows it stays.
std::optional<uint64_t> takeNumber(std::string_view& text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return number;
}

bool takeText(std::string_view& text, std::string_view begin) {
    if (!text.starts_with(begin)) return false;
    text.remove_prefix(begin.size());
    return true;
}

// The number behind the mark, as in "load_graph_12_device_3".
std::optional<uint64_t> numberBehind(std::string_view text, std::string_view mark) {
    const size_t at = text.find(mark);
    if (at == text.npos) return std::nullopt;
    text.remove_prefix(at + mark.size());
    return takeNumber(text);
}

}  // namespace

TraceNames TraceNames::read(const std::string& path) {
    TraceNames names;
    if (path.empty()) return names;
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read " + path);
    for (std::string line; std::getline(file, line);) names.add(line);
    if (names.m_names.empty()) {
        throw std::runtime_error(path + " has no names; give kelm-...-names-....csv of the run");
    }
    return names;
}

// Of an id that is told again the last name counts: a device has come back under it.
void TraceNames::add(std::string_view line) {
    const size_t comma = line.find(',');
    if (comma == line.npos) return;
    const std::string_view kind = line.substr(0, comma);
    line.remove_prefix(comma + 1);
    const auto id = takeNumber(line);
    if (!id || !takeText(line, ",")) return;
    if (kind == "graph" || kind == "client" || kind == "device") {
        m_names[{std::string(kind), *id}] = line;
        return;
    }
    const auto first = takeNumber(line);
    if (kind == "inference" && first) m_tasks[*id].devices.push_back(*first);
    if (kind != "task" || !first || !takeText(line, ",")) return;
    Task& task = m_tasks[*id];
    task.graph = *first;
    task.client = takeNumber(line).value_or(0);
}

nlohmann::json TraceNames::describe(std::string_view span) {
    nlohmann::json details = nlohmann::json::object();
    const auto tell = [&](const char* kind, std::optional<uint64_t> id) {
        const auto name = id ? m_names.find({kind, *id}) : m_names.end();
        if (name != m_names.end()) details[kind] = name->second;
    };
    tell("graph", numberBehind(span, "load_graph_"));
    tell("device", numberBehind(span, "_device_"));
    const auto taskId = span.starts_with("task_") ? numberBehind(span, "task_") : std::nullopt;
    const auto found = taskId ? m_tasks.find(*taskId) : m_tasks.end();
    if (found == m_tasks.end()) return details;
    Task& task = found->second;
    tell("graph", task.graph);
    tell("client", task.client);
    if (!span.ends_with("_inference")) return details;
    if (task.told < task.devices.size()) tell("device", task.devices[task.told++]);
    return details;
}

}  // namespace kelm::ctl

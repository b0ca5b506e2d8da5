#include "tools/kelmctl/StatusReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/SafeText.h"

namespace kelm::ctl {

namespace {

constexpr size_t kLeastWidth = 6;
// A name may be long; its middle is cut, see fitColumns().
constexpr size_t kMostWidth = 40;
constexpr std::string_view kGap = "  ";

std::string oneDecimal(float value) { return fmt::format("{:.1f}", value); }

// "GRAPHS 3", or "CLIENTS 2 of 5" when the answer had no room for all.
std::string heading(const char* what, size_t rows, uint32_t count) {
    return rows < count ? fmt::format("{} {} of {}", what, rows, count)
                        : fmt::format("{} {}", what, count);
}

// Rows of cells; all columns but the first and those of texts are numbers, to the right.
class Table {
 public:
    Table(const std::vector<std::string>& heads, size_t textColumns, bool utf8)
        : m_textColumns(textColumns), m_utf8(utf8) {
        add(heads);
    }

    void add(const std::vector<std::string>& cells) {
        auto& row = m_rows.emplace_back();
        for (const std::string& cell : cells) row.push_back(safeText(cell, m_utf8));
    }

    std::string text() const {
        std::string result;
        for (const auto& row : m_rows) {
            std::string line;
            for (size_t i = 0; i < row.size(); ++i) {
                line += toUtf8(i < m_textColumns ? fitColumns(row[i], widthOf(i))
                                                 : fitColumnsRight(row[i], widthOf(i)));
                line += kGap;
            }
            line.erase(line.find_last_not_of(' ') + 1);
            result += line + "\n";
        }
        return result;
    }

 private:
    // As wide as the widest cell of this table: each table has columns of its own.
    size_t widthOf(size_t column) const {
        size_t width = kLeastWidth;
        for (const auto& row : m_rows) width = std::max(width, columnsOf(row[column]));
        return std::min(width, kMostWidth);
    }

    const size_t m_textColumns;
    const bool m_utf8;
    std::vector<std::vector<std::u32string>> m_rows;
};

}  // namespace

std::string statusTable(const client::ServiceStatus& status, bool utf8) {
    Table devices({heading("DEVICES", status.devices.size(), status.deviceCount), "GRAPH", "ID",
                   "SUBCLASS", "FPS", "TEMP C"},
                  2, utf8);
    for (const client::DeviceStatus& device : status.devices) {
        devices.add({device.name, device.graph, std::to_string(device.id),
                     std::to_string(device.subclass), oneDecimal(device.fps),
                     oneDecimal(device.thermal)});
    }
    Table graphs({heading("GRAPHS", status.graphs.size(), status.graphCount), "IN/S", "OUT/S"}, 1,
                 utf8);
    for (const client::GraphStatus& graph : status.graphs) {
        graphs.add({graph.name, oneDecimal(graph.fpsIn), oneDecimal(graph.fpsOut)});
    }
    Table clients({heading("CLIENTS", status.clients.size(), status.clientCount), "FPS"}, 1, utf8);
    for (const client::ClientStatus& client : status.clients) {
        clients.add({client.name, oneDecimal(client.fps)});
    }
    return fmt::format("results/s {:.1f}  device scheduler {}  task scheduler {}\n\n{}\n{}\n{}",
                       status.serviceFps, toUtf8(safeText(status.deviceScheduler, utf8)),
                       toUtf8(safeText(status.taskScheduler, utf8)), devices.text(), graphs.text(),
                       clients.text());
}

std::string statusJson(const client::ServiceStatus& status,
                       std::chrono::system_clock::time_point now) {
    using Json = nlohmann::json;
    const auto rate = [](float value) { return toJsonNumber(static_cast<double>(value)); };
    Json json{{"time", toJsonNumber(std::chrono::duration<double>(now.time_since_epoch()).count())},
              {"fps", rate(status.serviceFps)},
              {"device_scheduler", status.deviceScheduler},
              {"task_scheduler", status.taskScheduler},
              {"device_count", status.deviceCount},
              {"graph_count", status.graphCount},
              {"client_count", status.clientCount},
              {"devices", Json::array()},
              {"graphs", Json::array()},
              {"clients", Json::array()}};
    for (const client::DeviceStatus& device : status.devices) {
        json["devices"].push_back({{"name", device.name},
                                   {"graph", device.graph},
                                   {"id", device.id},
                                   {"subclass", device.subclass},
                                   {"fps", rate(device.fps)},
                                   {"thermal", rate(device.thermal)}});
    }
    for (const client::GraphStatus& graph : status.graphs) {
        json["graphs"].push_back(
            {{"name", graph.name}, {"fps_in", rate(graph.fpsIn)}, {"fps_out", rate(graph.fpsOut)}});
    }
    for (const client::ClientStatus& client : status.clients) {
        json["clients"].push_back({{"name", client.name}, {"fps", rate(client.fps)}});
    }
    return toJsonText(json);
}

}  // namespace kelm::ctl

#include "tools/kelmctl/StatusTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "tools/kelmctl/MergedStatus.h"
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

// What is not known shows as in `kelmctl top`.
template <class More, class Value>
std::string cell(const More* more, const Value& value) {
    return more != nullptr ? fmt::format("{}", value(*more)) : "-";
}

// What concerns the service as a whole.
std::string head(const StatusLook& look, bool utf8) {
    // Without devices there is no device scheduler.
    const auto name = [utf8](const std::string& text) {
        return text.empty() ? "-" : toUtf8(safeText(text, utf8));
    };
    std::string text = fmt::format("results/s {:.1f}  device scheduler {}  task scheduler {}",
                                   look.status.serviceFps, name(look.status.deviceScheduler),
                                   name(look.status.taskScheduler));
    if (look.snapshot) {
        const client::MemorySnapshot& memory = look.snapshot->memory;
        return text + fmt::format("\nmemory {} of {} MB\n", memory.residentMB, memory.totalMB);
    }
    return text + "\nno throttling, no waiting tasks: " + name(look.snapshotWhy) + "\n";
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

    std::string text(size_t columns) const {
        const std::vector<size_t> widths = findWidths(columns);
        std::string result;
        for (const auto& row : m_rows) {
            std::string line;
            for (size_t i = 0; i < row.size(); ++i) {
                line += toUtf8(i < m_textColumns ? fitColumns(row[i], widths[i])
                                                 : fitColumnsRight(row[i], widths[i]));
                line += kGap;
            }
            line.erase(line.find_last_not_of(' ') + 1);
            result += line + "\n";
        }
        return result;
    }

 private:
    // Each column as wide as its widest cell; then the widest texts give up what a line lacks.
    std::vector<size_t> findWidths(size_t columns) const {
        std::vector<size_t> widths(m_rows[0].size(), kLeastWidth);
        for (const auto& row : m_rows) {
            for (size_t i = 0; i < row.size(); ++i) {
                widths[i] = std::min(std::max(widths[i], columnsOf(row[i])), kMostWidth);
            }
        }
        const auto textEnd = widths.begin() + static_cast<std::ptrdiff_t>(m_textColumns);
        const auto sum = [&] {
            const size_t gaps = (widths.size() - 1) * kGap.size();
            return std::accumulate(widths.begin(), widths.end(), gaps);
        };
        while (sum() > columns) {
            const auto widest = std::max_element(widths.begin(), textEnd);
            if (*widest <= kLeastWidth) break;
            --*widest;
        }
        return widths;
    }

    const size_t m_textColumns;
    const bool m_utf8;
    std::vector<std::vector<std::u32string>> m_rows;
};

}  // namespace

std::string statusTable(const StatusLook& look, bool utf8, size_t columns) {
    const client::ServiceStatus& status = look.status;
    const MergedStatus merged(status, look.snapshot ? &*look.snapshot : nullptr);
    Table devices({heading("DEVICES", status.devices.size(), status.deviceCount), "GRAPH", "ID",
                   "SUBCLASS", "FPS", "TEMP C", "THROTTLE", "INFERENCES"},
                  2, utf8);
    for (const auto& [device, more] : merged.devices) {
        devices.add(
            {device->name, device->graph, std::to_string(device->id),
             std::to_string(device->subclass), oneDecimal(device->fps),
             isMeasured(*device) ? oneDecimal(device->thermal) : "-",
             cell(more, [](const client::DeviceSnapshot& row) { return row.throttlingLevel; }),
             cell(more, inferencesOf)});
    }
    Table graphs({heading("GRAPHS", status.graphs.size(), status.graphCount), "IN/S", "OUT/S",
                  "WAITING", "DEVICES", "CLIENTS", "INFERENCES"},
                 1, utf8);
    for (const auto& [graph, more] : merged.graphs) {
        graphs.add({graph->name, oneDecimal(graph->fpsIn), oneDecimal(graph->fpsOut),
                    cell(more, [](const client::GraphSnapshot& row) { return row.waitingTasks; }),
                    cell(more, [](const client::GraphSnapshot& row) { return row.runningDevices; }),
                    cell(more, [](const client::GraphSnapshot& row) { return row.clientCount; }),
                    cell(more, [](const client::GraphSnapshot& row) { return row.inferences; })});
    }
    Table clients({heading("CLIENTS", merged.clients.size(), status.clientCount), "API", "FPS",
                   "WAITING", "INFERENCES"},
                  1, utf8);
    for (const auto& [client, more] : merged.clients) {
        clients.add({client != nullptr ? client->name : more->name, cell(more, apiOf),
                     client != nullptr ? oneDecimal(client->fps) : "-",
                     cell(more, [](const client::ClientSnapshot& row) { return row.waitingTasks; }),
                     cell(more, [](const client::ClientSnapshot& row) { return row.inferences; })});
    }
    return fmt::format("{}\n{}\n{}\n{}", head(look, utf8), devices.text(columns),
                       graphs.text(columns), clients.text(columns));
}

}  // namespace kelm::ctl

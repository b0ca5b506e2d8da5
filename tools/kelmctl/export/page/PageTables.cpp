#include "tools/kelmctl/export/page/PageTables.h"

#include <algorithm>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tools/kelmctl/export/page/HtmlWriter.h"
#include "tools/kelmctl/export/page/PageChart.h"
#include "tools/kelmctl/export/page/PageHistory.h"
#include "tools/kelmctl/export/page/PageIcon.h"
#include "tools/kelmctl/export/page/PageNumbers.h"

namespace kelm::ctl {

namespace {

using Element = HtmlWriter::Element;

constexpr std::string_view kUnknown = "\u2013";

std::string showRate(std::optional<double> rate) {
    return rate ? showNumber(*rate, 1) : std::string(kUnknown);
}

template <class Count>
std::string showKnown(const std::optional<Count>& count) {
    return count ? showCount(*count) : std::string(kUnknown);
}

std::string showTotal(const ExportedGraph& graph, uint64_t total) {
    return graph.isListed ? showCount(total) : std::string(kUnknown);
}

// A number of a row, under its label.
template <class Row>
struct NumberColumn {
    std::string_view label;
    std::string (*show)(const Row&);
};

// Not deduced: the rows tell the type.
template <class Row>
using Numbers = std::span<const NumberColumn<std::type_identity_t<Row>>>;

constexpr NumberColumn<ExportedGraph> kGraphColumns[] = {
    {"In per s", [](const ExportedGraph& graph) { return showRate(graph.fpsIn); }},
    {"Out per s", [](const ExportedGraph& graph) { return showRate(graph.fpsOut); }},
    {"Waiting", [](const ExportedGraph& graph) { return showKnown(graph.waiting); }},
    {"Devices", [](const ExportedGraph& graph) { return showKnown(graph.devices); }},
    {"Clients", [](const ExportedGraph& graph) { return showKnown(graph.clients); }},
    {"Moves in", [](const ExportedGraph& graph) { return showTotal(graph, graph.totals.movesIn); }},
    {"Moves out",
     [](const ExportedGraph& graph) { return showTotal(graph, graph.totals.movesOut); }},
    {"Inferences",
     [](const ExportedGraph& graph) { return showTotal(graph, graph.totals.inferences); }},
};

constexpr NumberColumn<ExportedClient> kClientColumns[] = {
    {"Per s", [](const ExportedClient& client) { return showRate(client.fps); }},
    {"Waiting", [](const ExportedClient& client) { return showKnown(client.waiting); }},
    // Not grouped: it is a name that happens to have digits.
    {"Id",
     [](const ExportedClient& client) {
         return client.id ? std::to_string(*client.id) : std::string(kUnknown);
     }},
};

constexpr NumberColumn<ExportedDevice> kDeviceColumns[] = {
    {"\u00b0C",
     [](const ExportedDevice& device) {
         return device.temperature ? showNumber(*device.temperature, 1) : std::string(kUnknown);
     }},
    {"Throttling",
     [](const ExportedDevice& device) {
         if (!device.throttling) return std::string(kUnknown);
         return *device.throttling == 0 ? "none" : "level " + std::to_string(*device.throttling);
     }},
    {"Replugs", [](const ExportedDevice& device) { return showCount(device.replugs); }},
};

// The open elements of a section with a table. What does not fit is scrolled within it, by keys
// too.
class TableSection {
 public:
    TableSection(HtmlWriter& html, std::string_view id, std::string_view classes)
        : m_scroll(html, "div",
                   {{"class", "scroll"},
                    {"role", "region"},
                    {"aria-labelledby", id},
                    {"tabindex", "0"}}),
          m_table(html, "table", {{"class", classes}, {"role", "table"}, {"aria-labelledby", id}}) {
    }

 private:
    const Element m_scroll;
    const Element m_table;
};

void writeHead(HtmlWriter& html, std::string_view label, std::string_view classes) {
    html.leaf("th", label, {{"scope", "col"}, {"role", "columnheader"}, {"class", classes}});
}

void writeNumber(HtmlWriter& html, std::string_view label, std::string_view text) {
    html.leaf("td", text, {{"role", "cell"}, {"class", "number"}, {"data-label", label}});
}

template <class Row>
void writeNumbers(HtmlWriter& html, Numbers<Row> columns, const Row& row) {
    for (const NumberColumn<Row>& column : columns) {
        writeNumber(html, column.label, column.show(row));
    }
}

template <class Row>
void writeNumberHeads(HtmlWriter& html, Numbers<Row> columns) {
    for (const NumberColumn<Row>& column : columns) writeHead(html, column.label, "number");
}

// By name, so that no row changes its place because a rate does.
template <class Row>
std::vector<const Row*> inOrder(const std::vector<Row>& rows) {
    std::vector<const Row*> ordered;
    ordered.reserve(rows.size());
    for (const Row& row : rows) ordered.push_back(&row);
    std::ranges::stable_sort(ordered, {},
                             [](const Row* row) { return std::tie(row->name, row->id); });
    return ordered;
}

// One table of names and numbers.
template <class Row>
void writeRows(HtmlWriter& html, std::string_view id, std::string_view first,
               const std::vector<Row>& rows, Numbers<Row> columns) {
    const TableSection section(html, id, "cards");
    {
        const Element head(html, "thead", {{"role", "rowgroup"}});
        const Element line(html, "tr", {{"role", "row"}});
        writeHead(html, first, "");
        writeNumberHeads<Row>(html, columns);
    }
    const Element body(html, "tbody", {{"role", "rowgroup"}});
    for (const Row* row : inOrder(rows)) {
        const Element line(html, "tr", {{"role", "row"}});
        {
            const Element name(html, "th", {{"scope", "row"}, {"role", "rowheader"}});
            html.name(row->name);
        }
        writeNumbers(html, columns, *row);
    }
}

void writeHeading(HtmlWriter& html, std::string_view id, std::string_view text, size_t rows,
                  size_t all) {
    html.leaf("h2", text, {{"id", id}});
    if (all <= rows) return;
    html.leaf("p",
              showCount(rows) + " of " + showCount(all) +
                  " are shown: an answer of the service has no room for more.",
              {{"class", "note"}});
}

void writeNone(HtmlWriter& html, std::string_view words) {
    html.leaf("p", words, {{"class", "none"}});
}

struct DeviceState {
    const PageIcon& icon;
    std::string_view words;
};

DeviceState stateOf(const ExportedDevice& device) {
    if (!device.isPresent) return {kBad, "lost"};
    if (device.throttling.value_or(0) > 0) return {kAttention, "throttled"};
    return {kGood, "serving"};
}

void writeDeviceName(HtmlWriter& html, const ExportedDevice& device) {
    const Element head(html, "th", {{"scope", "row"}, {"role", "rowheader"}});
    html.name(device.name);
    const DeviceState state = stateOf(device);
    const Element line(html, "span",
                       {{"class", std::string("state ") + std::string(state.icon.name)}});
    writeIcon(html, state.icon);
    html.text(state.words);
}

// The names of graphs, each once: those that a device holds first, then the others.
std::vector<std::string> graphNames(const ExportSnapshot& snapshot) {
    std::set<std::string> held;
    for (const ExportedDevice& device : snapshot.devices) {
        held.insert(device.graphs.begin(), device.graphs.end());
    }
    std::set<std::string> others;
    for (const ExportedGraph& graph : snapshot.graphs) {
        if (!held.contains(graph.name)) others.insert(graph.name);
    }
    std::vector<std::string> names(held.begin(), held.end());
    names.insert(names.end(), others.begin(), others.end());
    return names;
}

void writeDeviceRow(HtmlWriter& html, const ExportedDevice& device,
                    const PageHistory::Values& rates, double top,
                    const std::vector<std::string>& graphs) {
    const Element line(html, "tr", {{"role", "row"}});
    writeDeviceName(html, device);
    {
        const Element cell(html, "td",
                           {{"role", "cell"}, {"class", "number rate"}, {"data-label", "Per s"}});
        writeSparkline(html, rates, top);
        html.leaf("span", device.isPresent ? showRate(device.fps) : std::string(kUnknown));
    }
    writeNumbers(html, kDeviceColumns, device);
    for (const std::string& graph : graphs) {
        const bool isHeld = std::ranges::count(device.graphs, graph) > 0;
        const Element cell(
            html, "td",
            {{"role", "cell"}, {"class", isHeld ? "resident" : "absent"}, {"data-label", graph}});
        if (isHeld) writeIcon(html, {"resident", "M4 4h8v8H4z"});
        html.leaf("span", isHeld ? "resident" : kUnknown);
    }
}

}  // namespace

void writeDevices(HtmlWriter& html, const ExportSnapshot& snapshot, const PageHistory& history) {
    const Element section(html, "section", {});
    const size_t present =
        static_cast<size_t>(std::ranges::count_if(snapshot.devices, &ExportedDevice::isPresent));
    writeHeading(html, "devices", "Devices and what is resident on them", present,
                 snapshot.service.deviceCount);
    if (snapshot.devices.empty()) {
        writeNone(html, "There is no device. See kelmctl doctor.");
        return;
    }
    const std::vector<std::string> graphs = graphNames(snapshot);
    const TableSection table(html, "devices", "cards grid");
    {
        const Element head(html, "thead", {{"role", "rowgroup"}});
        const Element line(html, "tr", {{"role", "row"}});
        writeHead(html, "Device", "");
        writeHead(html, "Per s", "number");
        writeNumberHeads<ExportedDevice>(html, kDeviceColumns);
        for (const std::string& graph : graphs) {
            const Element name(html, "th",
                               {{"scope", "col"}, {"role", "columnheader"}, {"class", "graph"}});
            html.name(graph);
        }
    }
    std::vector<std::pair<const ExportedDevice*, PageHistory::Values>> rows;
    double top = 1.0;  // one for all, so that the lines can be compared
    for (const ExportedDevice* device : inOrder(snapshot.devices)) {
        rows.emplace_back(device, history.deviceRate(device->name));
        top = std::max(top, chartTop(rows.back().second));
    }
    const Element body(html, "tbody", {{"role", "rowgroup"}});
    for (const auto& [device, rates] : rows) writeDeviceRow(html, *device, rates, top, graphs);
}

void writeGraphs(HtmlWriter& html, const ExportSnapshot& snapshot) {
    const Element section(html, "section", {});
    writeHeading(html, "graphs", "Graphs", snapshot.graphs.size(), snapshot.service.graphCount);
    if (snapshot.graphs.empty()) {
        writeNone(html, "No client has a graph loaded.");
        return;
    }
    writeRows(html, "graphs", "Graph", snapshot.graphs, kGraphColumns);
}

void writeClients(HtmlWriter& html, const ExportSnapshot& snapshot) {
    const Element section(html, "section", {});
    writeHeading(html, "clients", "Clients", snapshot.clients.size(), snapshot.service.clientCount);
    if (snapshot.clients.empty()) {
        writeNone(html, "No client is registered.");
        return;
    }
    writeRows(html, "clients", "Client", snapshot.clients, kClientColumns);
}

}  // namespace kelm::ctl

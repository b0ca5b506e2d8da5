#include "tools/kelmctl/export/page/PageView.h"

#include <algorithm>
#include <vector>

#include "tools/kelmctl/export/page/HtmlWriter.h"
#include "tools/kelmctl/export/page/PageChart.h"
#include "tools/kelmctl/export/page/PageHistory.h"
#include "tools/kelmctl/export/page/PageIcon.h"
#include "tools/kelmctl/export/page/PageNumbers.h"
#include "tools/kelmctl/export/page/PageTables.h"

namespace kelm::ctl {

namespace {

using Element = HtmlWriter::Element;

struct DeviceCounts {
    size_t serving;  // the true count: there may be more than rows
    size_t lost = 0;
    size_t throttled = 0;

    explicit DeviceCounts(const ExportSnapshot& snapshot) : serving(snapshot.service.deviceCount) {
        for (const ExportedDevice& device : snapshot.devices) {
            if (!device.isPresent) {
                ++lost;
            } else if (device.throttling.value_or(0) > 0) {
                ++throttled;
            }
        }
    }

    // Empty when all is well.
    std::string troubles() const {
        std::string text = lost > 0 ? showCount(lost) + " lost" : "";
        if (throttled > 0) text += (text.empty() ? "" : ", ") + showCount(throttled) + " throttled";
        return text;
    }
};

struct State {
    const PageIcon& icon;
    std::string words;
    std::string more;  // what is wrong, empty if nothing is
};

State stateOf(const ExportSnapshot& snapshot) {
    if (snapshot.number == 0) return {kAttention, "Looking for the service", ""};
    if (!snapshot.isUp) return {kBad, "No service", snapshot.why};
    const DeviceCounts counts(snapshot);
    const size_t all = counts.serving + counts.lost;
    const std::string noun = all == 1 ? " device" : " devices";
    if (counts.serving == 0) {
        return {kBad, "No device",
                counts.lost > 0
                    ? "All devices are lost: tasks wait until one is back."
                    : "The service has found no device: tasks wait until one is there."};
    }
    if (counts.lost > 0) {
        return {kAttention,
                "Serving on " + showCount(counts.serving) + " of " + showCount(all) + noun,
                counts.troubles()};
    }
    return {counts.throttled > 0 ? kAttention : kGood,
            "Serving on " + showCount(counts.serving) + noun, counts.troubles()};
}

void writeTile(HtmlWriter& html, std::string_view label, std::string_view value,
               std::string_view note = {}) {
    const Element tile(html, "div", {});
    html.leaf("dt", label);
    const Element figure(html, "dd", {});
    html.leaf("strong", value);
    if (!note.empty()) html.leaf("span", note);
}

bool isKnown(const PageHistory::Values& values) {
    return std::ranges::any_of(values, [](const auto& value) { return value.has_value(); });
}

}  // namespace

std::string PageView::title() const { return stateOf(m_snapshot).words + " \u00b7 kelm"; }

std::string PageView::body() const {
    HtmlWriter html;
    writeState(html);
    writeSummary(html);
    writeCharts(html);
    if (m_snapshot.isUp) {
        writeDevices(html, m_snapshot, m_history);
        writeGraphs(html, m_snapshot);
        writeClients(html, m_snapshot);
        writeMoves(html);
        writeService(html);
    }
    return html.str();
}

void PageView::writeState(HtmlWriter& html) const {
    const State state = stateOf(m_snapshot);
    const Element line(html, "div",
                       {{"class", std::string("now ") + std::string(state.icon.name)}});
    {
        // Read out when it changes, and not with each look.
        const Element status(html, "p", {{"class", "service"}, {"role", "status"}});
        writeIcon(html, state.icon);
        html.leaf("strong", state.words);
        html.text(" ");
        if (!state.more.empty()) html.leaf("span", state.more);
    }
    if (m_snapshot.number == 0) return;
    const Element time(html, "p", {{"class", "time"}});
    html.text("As of ");
    html.leaf("time", showTime(m_snapshot.time), {{"datetime", showMachineTime(m_snapshot.time)}});
}

void PageView::writeSummary(HtmlWriter& html) const {
    if (!m_snapshot.missing.empty()) {
        html.leaf("p", "Some figures are missing: " + m_snapshot.missing, {{"class", "note"}});
    }
    const ExportedService& service = m_snapshot.service;
    const auto show = [&](std::string text) {
        return m_snapshot.isUp ? std::move(text) : std::string("\u2013");
    };
    const DeviceCounts counts(m_snapshot);
    const std::optional<uint64_t> waiting = waitingTasks(m_snapshot);
    const Element list(html, "dl", {{"class", "tiles"}});
    writeTile(html, "Inferences per second", show(showNumber(service.fps, 1)));
    writeTile(html, "Waiting tasks", show(waiting ? showCount(*waiting) : "\u2013"));
    writeTile(html, "Devices", show(showCount(service.deviceCount)), counts.troubles());
    writeTile(html, "Graphs", show(showCount(service.graphCount)));
    writeTile(html, "Clients", show(showCount(service.clientCount)));
}

void PageView::writeCharts(HtmlWriter& html) const {
    const Element section(html, "section", {{"aria-labelledby", "past"}});
    html.leaf("h2", "The last 15 minutes", {{"id", "past"}});
    html.leaf("p", "Means of 5 seconds; nothing is known where a chart is shaded.",
              {{"class", "note"}});
    const Element charts(html, "div", {{"class", "charts"}});
    writeChart(html, {"Inferences per second", "", 1}, m_history.values(PageHistory::kRate));
    writeChart(html, {"Waiting tasks", "", 1}, m_history.values(PageHistory::kWaiting));
    const PageHistory::Values hottest = m_history.values(PageHistory::kHottest);
    // Devices tell none before it was first read, and some never do.
    if (isKnown(hottest)) writeChart(html, {"Hottest device", " \u00b0C", 1}, hottest);
}

void PageView::writeMoves(HtmlWriter& html) const {
    if (!m_snapshot.moves) return;
    const Element section(html, "section", {{"aria-labelledby", "moves"}});
    html.leaf("h2", "The last moves", {{"id", "moves"}});
    const Element list(html, "ol", {{"class", "moves"}});
    for (const ExportedMove& move : *m_snapshot.moves) {
        const Element item(html, "li", {});
        html.leaf("time", showTime(move.time), {{"datetime", showMachineTime(move.time)}});
        html.name(move.graph);
        html.text(move.isIn ? " onto " : " off ");
        html.name(move.device);
        if (!move.from.empty()) {
            html.text(" from ");
            html.name(move.from);
        }
        html.text(": " + move.reason);
    }
}

void PageView::writeService(HtmlWriter& html) const {
    const ExportedService& service = m_snapshot.service;
    const Element section(html, "section", {{"aria-labelledby", "service"}});
    html.leaf("h2", "The service", {{"id", "service"}});
    const Element list(html, "dl", {{"class", "facts"}});
    const auto write = [&](std::string_view label, const std::string& value) {
        if (value.empty()) return;
        const Element fact(html, "div", {});
        html.leaf("dt", label);
        html.leaf("dd", value);
    };
    const auto known = [](const auto& value, auto show) {
        return value ? show(*value) : std::string();
    };
    write("Process", known(service.pid, [](pid_t pid) { return std::to_string(pid); }));
    write("Memory", known(service.residentBytes, showMegabytes));
    write("Threads", known(service.threads, showCount));
    const std::string limit = known(service.descriptorLimit, showCount);
    write("Descriptors", known(service.descriptors, [&](uint64_t count) {
              return showCount(count) + (limit.empty() ? "" : " of " + limit);
          }));
    write("Device scheduler", service.deviceScheduler);
    write("Task scheduler", service.taskScheduler);
}

}  // namespace kelm::ctl

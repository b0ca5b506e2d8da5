#include "devices/DeviceSnapshot.h"

#include "utils/StringHelper.h"
#include "utils/TextHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

// In characters, without the margins. Tools cut the columns out by these widths.
constexpr size_t kTableLabelWidth = 11;
constexpr size_t kTableCellWidth = 17;
constexpr size_t kListLabelWidth = 14;
constexpr size_t kListCellWidth = 18;

constexpr char kTimeFormat[] = "%Y%m%d %T";

using Style = DeviceSnapshot::Style;
using OptionalTime = std::optional<GraphFigures::TimePoint>;

// What a cell is about, and how wide it is.
struct Cell {
    const DeviceFigures& device;
    const int index;
    const size_t width;
    const GraphFigures::TimePoint now;

    const SlotFigures& slot() const { return device.slots.at(static_cast<size_t>(index)); }
    std::string shorten(const std::string& text) const { return shortenText(text, width); }
};

// An idle device shows one decimal only, as it always has.
std::string formatUtilization(const Cell& cell) {
    const float utilization = cell.device.utilization;
    return utilization > 0.0f ? formatFixed(utilization * 100, 2) + " %" : "0.0 %";
}

std::string formatThermal(const Cell& cell) {
    return formatFixed(cell.device.thermal, 2) + "(" +
           std::to_string(cell.device.thermalThrottlingLevel) + ")";
}

std::string formatCachedGraph(const Cell& cell) {
    const auto index = static_cast<size_t>(cell.index);
    const std::vector<std::string>& names = cell.device.cachedGraphs;
    return index < names.size() ? cell.shorten(names[index]) : "";
}

std::string formatFps(const Cell& cell) {
    return cell.slot().fps > 0.0f ? formatFixed(cell.slot().fps, 2) : "";
}

std::string formatTime(const OptionalTime& time) { return time ? putTime(*time, kTimeFormat) : ""; }

// A graph that is still loaded has no end yet, and a slot that was never used no begin.
std::string formatDuration(const OptionalTime& begin, const OptionalTime& end) {
    if (!begin || !end) return {};
    return formatDurationString(std::chrono::duration_cast<std::chrono::seconds>(*end - *begin));
}

// A graph that is loaded and has not run yet shows 0; empty means that there is none.
std::string formatCurrentInferenceCount(const Cell& cell) {
    const GraphFigures& current = cell.slot().current;
    return current.name.empty() ? "" : std::to_string(current.inferences);
}

}  // namespace

struct DeviceSnapshot::Row {
    const char* tableLabel;
    const char* listLabel;  // without the colon
    std::string (*format)(const Cell& cell);
    bool isNumbered = false;  // the index is part of the label
};

namespace {

using Row = DeviceSnapshot::Row;

constexpr Row kDeviceRows[] = {
    {"deviceId", "deviceId",
     [](const Cell& cell) {
         return StringHelper::format("%u(%#02x)", cell.device.deviceId, cell.device.deviceId);
     }},
    {"device", "device", [](const Cell& cell) { return cell.shorten(cell.device.name); }},
    {"util%", "util%", &formatUtilization},
    {"thermal", "thermal", &formatThermal},
    {"scheduler", "scheduler", [](const Cell& cell) { return cell.device.scheduler; }},
    {"comment", "comment", [](const Cell& cell) { return cell.device.comment; }},
    {"resetTimes", "resetTimes",
     [](const Cell& cell) { return std::to_string(cell.device.resetTimes); }},
    // Deliberate: the list has always called this row so too; the table tells the two apart.
    {"cacheNum", "resetTimes",
     [](const Cell& cell) { return std::to_string(cell.device.cachedGraphs.size()); }},
};

constexpr Row kCachedGraphRow = {"cacheGraph", "cacheGraph", &formatCachedGraph, true};

constexpr Row kStateRow = {"status", "status", [](const Cell& cell) { return cell.slot().state; }};
constexpr Row kFpsRow = {"fps", "fps", &formatFps};
constexpr Row kGraphRow = {"curGraph", "curGraph",
                           [](const Cell& cell) { return cell.shorten(cell.slot().current.name); }};
// Deliberate: the two forms differ in the order too.
constexpr Row kTableSlotRows[] = {kStateRow, kFpsRow, kGraphRow};
constexpr Row kListSlotRows[] = {kStateRow, kGraphRow, kFpsRow};

// First of the current graph, then of the previous one; some labels are the same for both.
constexpr Row kFullSlotRows[] = {
    {"loadTime", "loadTime",
     [](const Cell& cell) { return formatTime(cell.slot().current.loadTime); }},
    {"runTime", "runTime",
     [](const Cell& cell) { return formatDuration(cell.slot().current.loadTime, cell.now); }},
    {"inference", "inference#", &formatCurrentInferenceCount},
    {"prevGraph", "prevGraph",
     [](const Cell& cell) { return cell.shorten(cell.slot().previous.name); }},
    {"loadTime", "loadTime",
     [](const Cell& cell) { return formatTime(cell.slot().previous.loadTime); }},
    {"unloadTime", "unloadTime",
     [](const Cell& cell) { return formatTime(cell.slot().previous.unloadTime); }},
    {"runTime", "runTime",
     [](const Cell& cell) {
         const GraphFigures& previous = cell.slot().previous;
         return formatDuration(previous.loadTime, previous.unloadTime);
     }},
    {"inference", "inference#",
     [](const Cell& cell) { return std::to_string(cell.slot().previous.inferences); }},
};

TextTable makeTable(const Style& style) {
    if (style.isList) return {kListLabelWidth, kListCellWidth, TextTable::Labels::InCells};
    return {kTableLabelWidth, kTableCellWidth, TextTable::Labels::InColumn};
}

}  // namespace

DeviceSnapshot::DeviceSnapshot(const Style& style, const std::vector<DeviceFigures>& devices,
                               GraphFigures::TimePoint now)
    : m_style(style), m_devices(devices), m_now(now), m_table(makeTable(style)) {}

// As many rows as the settings allow, whatever one device holds: all devices are columns of the
// same rows.
std::string DeviceSnapshot::format(int subclass) {
    drawRows(kDeviceRows, 0);
    const int cachedGraphs = m_style.isFull ? m_style.cachedGraphs : 0;
    for (int place = 0; place < cachedGraphs; ++place) drawRow(kCachedGraphRow, place);
    m_table.rule(m_devices.size());
    for (int slot = 0; slot < m_style.slots; ++slot) drawSlot(slot);
    std::string text = "DeviceSnapshot(subclass=" + std::to_string(subclass) + "):\n";
    text += m_table.text();
    text.pop_back();  // the log ends the line
    return text;
}

void DeviceSnapshot::drawSlot(int slot) {
    drawRows(m_style.isList ? kListSlotRows : kTableSlotRows, slot);
    if (m_style.isFull) drawRows(kFullSlotRows, slot);
    m_table.rule(m_devices.size());
}

void DeviceSnapshot::drawRows(std::span<const Row> rows, int index) {
    for (const Row& row : rows) drawRow(row, index);
}

void DeviceSnapshot::drawRow(const Row& row, int index) {
    std::string label = m_style.isList ? row.listLabel : row.tableLabel;
    if (row.isNumbered) label += std::to_string(index);
    if (m_style.isList) label += ": ";
    const size_t width = m_style.isList ? kListCellWidth : kTableCellWidth;
    std::vector<std::string> cells;
    for (const DeviceFigures& device : m_devices) {
        cells.push_back(row.format({device, index, width, m_now}));
    }
    m_table.row(label, cells);
}

}  // namespace kelm

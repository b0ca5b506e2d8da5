#include "tools/kelmctl/TraceLayout.h"

#include <iterator>

namespace kelm::ctl {

namespace {

constexpr std::string_view kOnDevice = "_device_";

struct Kind {
    std::string_view prefix;
    std::string_view part;  // somewhere behind it
    std::string_view category;
    bool endsElsewhere;
};

// The first that fits.
constexpr Kind kKinds[] = {
    {"task_", "_inference", "inference", true},
    {"task_", "", "task", true},
    {"load_graph_", kOnDevice, "device", false},
    {"unload_graph_", kOnDevice, "device", false},
    {"load_graph_", "", "graph", true},
    {"unload_graph_", "", "graph", false},
    {"", "", "other", false},
};

// Ends at the last row at the latest, which fits every name.
const Kind& kindOf(std::string_view name) {
    const Kind* kind = kKinds;
    while (!name.starts_with(kind->prefix) || name.find(kind->part) == std::string_view::npos) {
        ++kind;
    }
    return *kind;
}

}  // namespace

bool TraceLayout::staysOnThread(const TraceRow& row) {
    return row.tid != 0 && !kindOf(row.name).endsElsewhere;  // 0 stands for an unknown thread
}

TracePlace TraceLayout::place(const TraceRow& row) {
    const std::string_view category = kindOf(row.name).category;
    if (staysOnThread(row) && nest(row)) return {category, true, 0};
    Lanes& lanes = m_lanes[{Thread(row.pid, row.tid), category}];
    return {category, false, lanes.take(row.start, row.end)};
}

// Spans that ended before this one begins are around nothing any more.
bool TraceLayout::nest(const TraceRow& row) {
    std::vector<uint64_t>& around = m_around[{row.pid, row.tid}];
    while (!around.empty() && around.back() <= row.start) around.pop_back();
    if (!around.empty() && around.back() < row.end) return false;
    around.push_back(row.end);
    return true;
}

uint64_t TraceLayout::Lanes::take(uint64_t start, uint64_t end) {
    // Of the free lanes the one that was used last, so that the others stay free for longer spans.
    auto after = ends.upper_bound({start, UINT64_MAX});
    if (after == ends.begin()) {
        const uint64_t lane = ends.size() + 1;
        ends.emplace(end, lane);
        return lane;
    }
    auto node = ends.extract(std::prev(after));
    const uint64_t lane = node.value().second;
    node.value().first = end;
    ends.insert(std::move(node));
    return lane;
}

}  // namespace kelm::ctl

#pragma once

#include <cstddef>
#include <span>

namespace kelm::ctl {

enum class TopSection : size_t { kDevices, kGraphs, kClients, kMoves };
constexpr size_t kTopSections = 4;

// The numbers of a row; which of them a section has, its columns tell.
enum class TopValue : size_t {
    kRate,     // results per second; of a graph what comes in
    kRateOut,  // of a graph
    kTemperature,
    kThrottling,
    kDevices,  // that hold the graph
    kWaiting,  // tasks
    kInferences,
    kNumber,  // id of the device, clients of the graph, number of the event
};
constexpr size_t kTopValues = 8;

enum class TopFormat { kText, kRate, kDegrees, kLevel, kCount };

// One column of a section. The name and the detail are texts; a history shows the recent past of
// its value.
struct TopColumn {
    enum class Kind { kName, kDetail, kValue, kHistory };

    const char* title;
    Kind kind;
    TopValue value;
    TopFormat format;
    size_t width;         // 0: a share of what the others leave
    size_t weight;        // of that share
    size_t leastColumns;  // of the terminal, to be shown at all
};

std::span<const TopColumn> topColumns(TopSection section);
// The column that rows are sorted by at first.
size_t topFirstOrder(TopSection section);

}  // namespace kelm::ctl

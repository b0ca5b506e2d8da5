#include "tools/kelmctl/TopColumns.h"

namespace kelm::ctl {

namespace {

using Kind = TopColumn::Kind;
using Value = TopValue;
using Format = TopFormat;

constexpr size_t kRateWidth = 8;
constexpr size_t kCountWidth = 8;

// The last number is the narrowest terminal that shows the column: those that are least needed
// leave first.
constexpr TopColumn kDeviceColumns[] = {
    {"DEVICES", Kind::kName, Value::kRate, Format::kText, 0, 5, 0},
    {"ID", Kind::kValue, Value::kNumber, Format::kCount, 10, 0, 110},
    {"GRAPH", Kind::kDetail, Value::kRate, Format::kText, 0, 5, 40},
    {"FPS", Kind::kValue, Value::kRate, Format::kRate, kRateWidth, 0, 0},
    {"TEMP C", Kind::kValue, Value::kTemperature, Format::kDegrees, 7, 0, 50},
    {"THROTTLE", Kind::kValue, Value::kThrottling, Format::kLevel, 8, 0, 50},
    {"INFERENCES", Kind::kValue, Value::kInferences, Format::kCount, 10, 0, 95},
    {"HISTORY", Kind::kHistory, Value::kRate, Format::kText, 0, 3, 60},
};
constexpr TopColumn kGraphColumns[] = {
    {"GRAPHS", Kind::kName, Value::kRate, Format::kText, 0, 5, 0},
    {"IN/S", Kind::kValue, Value::kRate, Format::kRate, kRateWidth, 0, 0},
    {"HISTORY", Kind::kHistory, Value::kRate, Format::kText, 0, 3, 70},
    {"OUT/S", Kind::kValue, Value::kRateOut, Format::kRate, kRateWidth, 0, 0},
    {"HISTORY", Kind::kHistory, Value::kRateOut, Format::kText, 0, 3, 60},
    {"WAITING", Kind::kValue, Value::kWaiting, Format::kCount, kCountWidth, 0, 50},
    {"DEVICES", Kind::kValue, Value::kDevices, Format::kCount, kCountWidth, 0, 50},
    {"CLIENTS", Kind::kValue, Value::kNumber, Format::kCount, kCountWidth, 0, 110},
    {"INFERENCES", Kind::kValue, Value::kInferences, Format::kCount, 10, 0, 95},
};
constexpr TopColumn kClientColumns[] = {
    {"CLIENTS", Kind::kName, Value::kRate, Format::kText, 0, 4, 0},
    {"API", Kind::kDetail, Value::kRate, Format::kText, 7, 0, 60},
    {"FPS", Kind::kValue, Value::kRate, Format::kRate, kRateWidth, 0, 0},
    {"WAITING", Kind::kValue, Value::kWaiting, Format::kCount, kCountWidth, 0, 50},
    {"INFERENCES", Kind::kValue, Value::kInferences, Format::kCount, 10, 0, 70},
    {"HISTORY", Kind::kHistory, Value::kRate, Format::kText, 0, 3, 60},
};

constexpr TopColumn kMoveColumns[] = {
    {"MOVES", Kind::kName, Value::kRate, Format::kText, 0, 5, 0},
    {"WHERE AND WHY", Kind::kDetail, Value::kRate, Format::kText, 0, 4, 40},
    {"EVENT", Kind::kValue, Value::kNumber, Format::kCount, kCountWidth, 0, 50},
};

struct SectionRow {
    std::span<const TopColumn> columns;
    size_t firstOrder;
};
// Devices keep their places; of graphs and clients the busiest come first, of moves the newest.
constexpr SectionRow kSections[kTopSections] = {
    {kDeviceColumns, 0}, {kGraphColumns, 3}, {kClientColumns, 2}, {kMoveColumns, 2}};

}  // namespace

std::span<const TopColumn> topColumns(TopSection section) {
    return kSections[static_cast<size_t>(section)].columns;
}

size_t topFirstOrder(TopSection section) {
    return kSections[static_cast<size_t>(section)].firstOrder;
}

}  // namespace kelm::ctl

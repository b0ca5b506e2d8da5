#include "devices/DeviceRows.h"

#include <algorithm>

#include "protocol/src/InfoPackage.h"
#include "utils/StringHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

// Deliberate: what tools have always found in this field, whatever the device does.
constexpr float kShownUtilization = 90.5f;

template <size_t N>
void writeTime(char (&field)[N], const std::optional<GraphFigures::TimePoint>& time) {
    StringHelper::copyStringSafe(field, time ? putTime(*time, "%T") : "");
}

// Takes the next place; false if the row has none left.
bool takePlace(int32_t& count, int32_t& place) {
    if (count >= kPackageDeviceGraphs) return false;
    place = count++;
    return true;
}

// The graphs of a row stand without gaps, whichever slots they are in.
void writeCurrentGraph(const SlotFigures& slot, InfoDeviceRow& row) {
    const GraphFigures& graph = slot.current;
    int32_t place = 0;
    if (graph.name.empty() || !takePlace(row.currentGraphCount, place)) return;
    StringHelper::copyStringSafe(row.currentGraphName[place], graph.name);
    writeTime(row.currentGraphLoadTime[place], graph.loadTime);
    row.currentInferenceCount[place] = graph.inferences;
    row.currentFps[place] = slot.fps;
    row.utilization[place] = kShownUtilization;
}

void writePreviousGraph(const GraphFigures& graph, InfoDeviceRow& row) {
    int32_t place = 0;
    if (graph.name.empty() || !takePlace(row.previousGraphCount, place)) return;
    StringHelper::copyStringSafe(row.previousGraphName[place], graph.name);
    writeTime(row.previousGraphLoadTime[place], graph.loadTime);
    writeTime(row.previousGraphUnloadTime[place], graph.unloadTime);
    row.previousInferenceCount[place] = graph.inferences;
}

// The counts start at 0 here: the package still holds what the last collection wrote.
void writeRow(const DeviceFigures& device, InfoDeviceRow& row) {
    row.deviceId = device.deviceId;
    row.thermal = device.thermal;
    row.thermalThrottlingLevel = device.thermalThrottlingLevel;
    row.currentGraphCount = 0;
    row.previousGraphCount = 0;
    for (const SlotFigures& slot : device.slots) {
        writeCurrentGraph(slot, row);
        writePreviousGraph(slot.previous, row);
    }
}

}  // namespace

// Deliberate: the count is not raised, so the rows of a further manager lie over those of the one
// before.
void writeDeviceRows(const std::vector<DeviceFigures>& devices, InfoPackage& package) {
    int row = std::clamp(package.deviceCount, 0, kPackageDevices);
    for (const DeviceFigures& device : devices) {
        if (row == kPackageDevices) return;
        writeRow(device, package.devices[row++]);
    }
}

}  // namespace kelm

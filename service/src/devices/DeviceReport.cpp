#include "devices/DeviceReport.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "devices/DeviceFigures.h"
#include "devices/DeviceRows.h"
#include "devices/DeviceSettings.h"
#include "devices/DeviceSnapshot.h"
#include "devices/WorkerRegistry.h"
#include "reporting/KelmStatus.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

bool DeviceReport::isPrinting() const {
    return m_settings.printDeviceFps || m_settings.printDeviceUtilization ||
           m_settings.snapshotEnabled;
}

void DeviceReport::print() {
    if (m_settings.printDeviceFps) printDeviceFps();
    if (m_settings.printDeviceUtilization) printDeviceUtilization();
    if (m_settings.snapshotEnabled) snapshot();
}

// One message of many lines, so that no other thread's line comes between. The names are texts of
// clients: a line end in one would forge a line of the log.
void DeviceReport::printDeviceFps() {
    const std::vector<DeviceFigures> devices = m_workers.readDevices();
    std::string text = "DeviceFps(count=" + std::to_string(devices.size()) + "):\n";
    for (const DeviceFigures& device : devices) {
        bool hasGraph = false;
        for (const SlotFigures& slot : device.slots) {
            if (slot.current.name.empty()) continue;
            hasGraph = true;
            text += "[" + device.name + "@" + escapeControls(slot.current.name) +
                    "].Fps = " + formatFixed(slot.fps, 2) + "\n";
        }
        if (!hasGraph) text += "[" + device.name + "@NoGraph].Fps = 0.0\n";
    }
    LOG_INFO("%s", text);
}

void DeviceReport::printDeviceUtilization() {
    const std::vector<DeviceFigures> devices = m_workers.readDevices();
    std::string text = "DeviceUtilization(count=" + std::to_string(devices.size()) + "):\n";
    for (const DeviceFigures& device : devices) {
        std::string graphs;
        for (const SlotFigures& slot : device.slots) {
            if (!slot.current.name.empty()) graphs += "@" + escapeControls(slot.current.name);
        }
        // The utilization is the device's, so its graphs share one line.
        text += "[" + device.name + (graphs.empty() ? "@" : graphs) +
                "] = " + formatFixed(device.utilization * 100, 2) + "\n";
    }
    LOG_INFO("%s", text);
}

void DeviceReport::snapshot() {
    const std::vector<DeviceFigures> devices = m_workers.readDevices();
    if (devices.empty()) return;  // a table without columns tells nothing
    const DeviceSnapshot::Style style{m_settings.snapshotListStyle, m_settings.snapshotFull,
                                      m_settings.maxGraphNumPerDevice,
                                      m_settings.maxCachedGraphNum};
    DeviceSnapshot table(style, devices, std::chrono::system_clock::now());
    LOG_INFO("%s", table.format(m_settings.subclass));
}

// The lists belong together by index: a row for each device is appended to every one of them.
void DeviceReport::queryDeviceStatus(KelmStatus& status) {
    std::vector<DeviceFigures> devices = m_workers.readDevices();
    // All the room first: a failed allocation between two appends would leave the lists askew.
    const size_t rows = status.deviceNames.size() + devices.size();
    status.deviceFps.reserve(rows);
    status.deviceGraphNames.reserve(rows);
    status.deviceNames.reserve(rows);
    status.deviceThermals.reserve(rows);
    status.deviceIds.reserve(rows);
    status.deviceSubclasses.reserve(rows);
    for (DeviceFigures& device : devices) {
        status.deviceFps.push_back(device.totalFps);
        status.deviceGraphNames.push_back(std::move(device.graphName));
        status.deviceNames.push_back(std::move(device.name));
        status.deviceThermals.push_back(device.thermal);
        status.deviceIds.push_back(device.deviceId);
        status.deviceSubclasses.push_back(m_settings.subclass);
    }
}

void DeviceReport::updateInfoPackage(InfoPackage& package) {
    writeDeviceRows(m_workers.readDevices(), package);
}

}  // namespace kelm

// What the device manager prints at intervals and tells when asked.
#include <algorithm>
#include <memory>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceFigures.h"
#include "devices/DeviceManager.h"
#include "devices/DeviceRows.h"
#include "devices/DeviceSnapshot.h"
#include "execution/WorkThread.h"
#include "reporting/InfoCollector.h"
#include "reporting/KelmStatus.h"
#include "scheduling/devices/DeviceSchedulerBase.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// In the order of the kinds of scheduler.
struct SchedulerText {
    const char* name;
    std::string (WorkThread::*comment)();  // null: nothing to say
};
constexpr SchedulerText kSchedulerTexts[] = {
    {"tag", &WorkThread::getGraphTag},
    {"stream", &WorkThread::getGraphStreamId},
    {"squeeze", nullptr},
};

}  // namespace

void DeviceManager::loadPrintSettings() {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    m_printDeviceFps = config.isPrintDeviceFpsEnabled();
    m_printDeviceUtilization = config.isPrintDeviceUtilizationEnabled();
    const std::string mode = toLower(config.getDeviceSnapshotMode());
    m_snapshotFull = mode == "full";
    m_snapshotEnabled = mode == "base" || m_snapshotFull;
    // Deliberate: compared as it stands, unlike the mode.
    m_snapshotListStyle = config.getDeviceSnapshotStyle() != "table";
}

bool DeviceManager::isPrinting() const {
    return m_printDeviceFps || m_printDeviceUtilization || m_snapshotEnabled;
}

void DeviceManager::startPrinting() {
    if (isPrinting()) Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
}

// Without m_mutex, which the printer may be waiting for.
void DeviceManager::stopPrinting() {
    if (isPrinting()) Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
}

// A manager that is stopping tells of no device: one that was left behind may hold graphs whose
// records are gone.
std::vector<DeviceFigures> DeviceManager::readDevices() {
    std::vector<DeviceFigures> devices;
    MutexLock lock(m_mutex);
    if (m_stopping) return devices;
    for (const auto& [worker, owner] : m_workThreads) devices.push_back(readDevice(*worker));
    return devices;
}

DeviceFigures DeviceManager::readDevice(WorkThread& worker) {
    DeviceFigures device = DeviceFigures::read(worker);
    device.graphName = getLoadedGraphName(&worker);
    const auto resets = m_resetTimes.find(device.name);
    if (resets != m_resetTimes.end()) device.resetTimes = resets->second;
    const DeviceSchedulerBase* const scheduler = worker.getDeviceScheduler();
    for (size_t kind = 0; kind < m_schedulers.size(); ++kind) {
        if (scheduler == nullptr || m_schedulers[kind].scheduler.get() != scheduler) continue;
        const SchedulerText& text = kSchedulerTexts[kind];
        device.scheduler = text.name;
        if (text.comment != nullptr) device.comment = (worker.*text.comment)();
    }
    return device;
}

std::string DeviceManager::getLoadedGraphName(WorkThread* worker) {
    const std::string name = worker->getGraphName();
    return name.empty() ? "NoGraph" : name;
}

void DeviceManager::onPrintInfo() {
    if (m_printDeviceFps) printDeviceFps();
    if (m_printDeviceUtilization) printDeviceUtilization();
    if (m_snapshotEnabled) snapshot("RegularPrint");
}

void DeviceManager::printDeviceFps() {
    const std::vector<DeviceFigures> devices = readDevices();
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

void DeviceManager::printDeviceUtilization() {
    const std::vector<DeviceFigures> devices = readDevices();
    std::string text = "DeviceUtilization(count=" + std::to_string(devices.size()) + "):\n";
    for (const DeviceFigures& device : devices) {
        std::string graphs;
        for (const SlotFigures& slot : device.slots) {
            if (!slot.current.name.empty()) graphs += "@" + escapeControls(slot.current.name);
        }
        text += "[" + device.name + (graphs.empty() ? "@" : graphs) +
                "] = " + formatFixed(device.utilization * 100, 2) + "\n";
    }
    LOG_INFO("%s", text);
}

// The table bears no title.
void DeviceManager::snapshot(const char* /*title*/) {
    if (!m_snapshotEnabled) return;
    const std::vector<DeviceFigures> devices = readDevices();
    if (devices.empty()) return;
    const DeviceSnapshot::Style style{m_snapshotListStyle, m_snapshotFull, m_maxGraphNumPerDevice,
                                      m_maxCachedGraphNum};
    DeviceSnapshot table(style, devices, std::chrono::system_clock::now());
    LOG_INFO("%s", table.format(m_subclass));
}

void DeviceManager::queryDeviceStatus(const std::shared_ptr<KelmStatus>& status) {
    std::vector<DeviceFigures> devices = readDevices();
    // All the room first: the lists are parallel whatever happens.
    const size_t rows = status->deviceNames.size() + devices.size();
    status->deviceFps.reserve(rows);
    status->deviceGraphNames.reserve(rows);
    status->deviceNames.reserve(rows);
    status->deviceThermals.reserve(rows);
    status->deviceIds.reserve(rows);
    status->deviceSubclasses.reserve(rows);
    for (DeviceFigures& device : devices) {
        status->deviceFps.push_back(device.totalFps);
        status->deviceGraphNames.push_back(std::move(device.graphName));
        status->deviceNames.push_back(std::move(device.name));
        status->deviceThermals.push_back(device.thermal);
        status->deviceIds.push_back(device.deviceId);
        status->deviceSubclasses.push_back(m_subclass);
    }
}

void DeviceManager::queryDeviceScheduler(const std::shared_ptr<KelmStatus>& status) {
    const SchedulerSlot& squeeze = m_schedulers[SQUEEZE];
    if (squeeze.scheduler) status->deviceSchedulerName = squeeze.scheduler->getName();
}

void DeviceManager::updateInfoPackage(InfoPackage* package) {
    writeDeviceRows(readDevices(), *package);
}

}  // namespace kelm

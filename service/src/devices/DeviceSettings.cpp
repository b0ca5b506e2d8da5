#include "devices/DeviceSettings.h"

#include <algorithm>
#include <stdexcept>

#include "config/ServiceConfigParser.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

void loadPrintSettings(const ServiceConfigParser& config, DeviceSettings& settings) {
    settings.printDeviceFps = config.isPrintDeviceFpsEnabled();
    settings.printDeviceUtilization = config.isPrintDeviceUtilizationEnabled();
    const std::string mode = toLower(config.getDeviceSnapshotMode());
    settings.snapshotFull = mode == "full";
    settings.snapshotEnabled = mode == "base" || settings.snapshotFull;
    // Deliberate: compared as it stands, unlike the mode.
    settings.snapshotListStyle = config.getDeviceSnapshotStyle() != "table";
}

}  // namespace

DeviceSettings DeviceSettings::load(int subclass) {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    DeviceSettings settings;
    settings.subclass = subclass;
    if (!config.getGraphTagMap(subclass, settings.graphTagMap)) {
        throw std::invalid_argument(
            "Please check \"graph_tag_map\" configuration in kelm_service.config");
    }
    settings.streamDeviceNum = static_cast<unsigned long>(
        bounded("scheduler_config.stream_device_number", config.getStreamDeviceNumber(subclass)));
    settings.sharedScheduler = config.getSharedScheduler();
    settings.maxGraphNumPerDevice =
        bounded("scheduler_config.max_graph_per_device", config.getMaxGraphNumPerDevice(subclass));
    settings.maxPendingTaskNum = config.getMaxPendingTaskNum(subclass);
    settings.maxPendingCycle = config.getMaxPendingCycle(subclass);
    // A device can always cache what it runs.
    settings.maxCachedGraphNum =
        std::max(config.getMaxCachedGraphNumber(), settings.maxGraphNumPerDevice);
    settings.updateThermalInterval = std::chrono::milliseconds(config.getUpdateThermalInterval());
    loadPrintSettings(config, settings);
    return settings;
}

}  // namespace kelm

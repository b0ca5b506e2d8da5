#pragma once

#include <chrono>
#include <map>
#include <string>

namespace kelm {

// What the configuration says about the devices of one subclass. A device manager loads it before
// its other threads start, so it is read without a lock.
struct DeviceSettings {
    int subclass = 0;
    std::string sharedScheduler = "squeeze2";  // of the graphs without tag and stream
    int maxGraphNumPerDevice = 1;  // slave workers of a device, and so graphs at once: 1 or 2
    int maxCachedGraphNum = 4;     // of a device; at least maxGraphNumPerDevice
    int maxPendingTaskNum = 0;
    int maxPendingCycle = 0;
    std::map<std::string, unsigned long> graphTagMap;    // tag to the devices reserved for it
    unsigned long streamDeviceNum = 0;                   // devices reserved for graphs of streams
    std::chrono::milliseconds updateThermalInterval{0};  // below 1: idle devices are not read
    bool printDeviceFps = false;
    bool printDeviceUtilization = false;
    bool snapshotEnabled = false;
    bool snapshotFull = false;  // with times, counts and the names of the cached graphs
    bool snapshotListStyle = true;

    // Throws std::invalid_argument for a broken tag map.
    static DeviceSettings load(int subclass);
};

}  // namespace kelm

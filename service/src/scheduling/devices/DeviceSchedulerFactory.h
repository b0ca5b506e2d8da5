#pragma once

#include <memory>
#include <string>

namespace kelm {

class DeviceSchedulerBase;

// Makes device schedulers by keyword, in any case. Their threads are not started yet. Any thread.
class DeviceSchedulerFactory {
 public:
    // An unknown keyword and a null pointer give the default.
    static std::unique_ptr<DeviceSchedulerBase> createScheduler(const std::string& name);
    static std::unique_ptr<DeviceSchedulerBase> createScheduler(const char* name);
    static std::unique_ptr<DeviceSchedulerBase> createDefaultScheduler();
};

}  // namespace kelm

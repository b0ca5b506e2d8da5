// What is asked of all device managers.
#include <exception>

#include "devices/DeviceManager.h"
#include "devices/DeviceManagerCreator.h"
#include "protocol/src/InfoPackage.h"
#include "reporting/InfoCollector.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

namespace {

constexpr const char* kSource = "DeviceManagerCreator";

// Who asked waits for the notice that follows, so no exception may come in between.
template <class Question>
void ask(DeviceManager& manager, Question question) {
    try {
        question(manager);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: device manager(%s) cannot report: %s", manager.getName(), error.what());
    }
}

void notifyStatusDone(const std::shared_ptr<KelmStatus>& status) {
    Port<InfoCollector>::notify<&InfoCollector::enqueueQueryStatusDone>(status, kSource);
}

}  // namespace

void DeviceManagerCreator::enqueueQueryDeviceStatus(const std::shared_ptr<KelmStatus>& status) {
    m_threadPool.post([this, status] { queryDeviceStatus(status); });
}

void DeviceManagerCreator::enqueueQueryDeviceScheduler(const std::shared_ptr<KelmStatus>& status) {
    m_threadPool.post([this, status] { queryDeviceScheduler(status); });
}

void DeviceManagerCreator::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_threadPool.postNotice([this, package] { updateInfoPackage(package); });
}

void DeviceManagerCreator::queryDeviceStatus(const std::shared_ptr<KelmStatus>& status) {
    for (const auto& [subclass, manager] : m_deviceManagers) {
        ask(*manager, [&status](DeviceManager& asked) { asked.queryDeviceStatus(status); });
    }
    notifyStatusDone(status);
}

void DeviceManagerCreator::queryDeviceScheduler(const std::shared_ptr<KelmStatus>& status) {
    if (!m_deviceManagers.empty()) {
        ask(*m_deviceManagers.begin()->second,
            [&status](DeviceManager& asked) { asked.queryDeviceScheduler(status); });
    }
    notifyStatusDone(status);
}

void DeviceManagerCreator::updateInfoPackage(InfoPackage* package) {
    package->deviceCount = 0;
    for (const auto& [subclass, manager] : m_deviceManagers) {
        ask(*manager, [package](DeviceManager& asked) { asked.updateInfoPackage(package); });
    }
    Port<InfoCollector>::notify<&InfoCollector::enqueueUpdateInfoPackageDone>(kSource);
}

}  // namespace kelm

// What is asked of all device managers.
#include "devices/DeviceManager.h"
#include "devices/DeviceManagerCreator.h"
#include "protocol/src/InfoPackage.h"
#include "reporting/ReportPart.h"

namespace kelm {

namespace {

constexpr const char* kSource = "DeviceManagerCreator";

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
    reportStatusPart(status, kSource, [this, &status](KelmStatus&) {
        for (const auto& [subclass, manager] : m_deviceManagers) manager->queryDeviceStatus(status);
    });
}

void DeviceManagerCreator::queryDeviceScheduler(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, kSource, [this, &status](KelmStatus&) {
        if (m_deviceManagers.empty()) return;
        m_deviceManagers.begin()->second->queryDeviceScheduler(status);
    });
}

void DeviceManagerCreator::updateInfoPackage(InfoPackage* package) {
    reportPackagePart(kSource, [this, package] {
        package->deviceCount = 0;
        for (const auto& [subclass, manager] : m_deviceManagers) {
            manager->updateInfoPackage(package);
        }
    });
}

}  // namespace kelm

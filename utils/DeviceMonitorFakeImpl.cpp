#include "utils/DeviceMonitorFakeImpl.h"

namespace kelm {

DeviceMonitorFakeImpl::DeviceMonitorFakeImpl(int deviceCount) {
    if (deviceCount > 0) m_deviceCount = deviceCount;
}

DeviceMonitorFakeImpl::~DeviceMonitorFakeImpl() { joinThread(); }

void DeviceMonitorFakeImpl::joinThread() {
    if (m_thread.joinable()) m_thread.join();
}

void DeviceMonitorFakeImpl::addDeviceFilter(int, int) {}

// The thread is there as for real devices, though it has nothing to watch.
bool DeviceMonitorFakeImpl::launch() {
    joinThread();
    m_thread = std::thread(&DeviceMonitorFakeImpl::monitorRoutine);
    return true;
}

void DeviceMonitorFakeImpl::monitorRoutine() {}

void DeviceMonitorFakeImpl::stop() {}

// All are of subclass 0, and take the ids that are asked for.
std::vector<DeviceDesc> DeviceMonitorFakeImpl::getDeviceList(int vendorId, int productId) {
    std::vector<DeviceDesc> devices;
    devices.reserve(static_cast<size_t>(m_deviceCount));
    for (int index = 0; index < m_deviceCount; ++index) {
        devices.push_back({"Fake" + std::to_string(index), vendorId, productId, 0});
    }
    return devices;
}

}  // namespace kelm

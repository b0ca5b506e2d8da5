#include "utils/DeviceMonitor.h"

#include <utility>

#include "utils/DeviceMonitorFakeImpl.h"
#include "utils/Log.h"

namespace kelm {

DeviceMonitor::DeviceMonitor(std::unique_ptr<DeviceMonitorImpl> impl) { setImpl(std::move(impl)); }

DeviceMonitor::~DeviceMonitor() { stop(); }

void DeviceMonitor::setImpl(std::shared_ptr<DeviceMonitorImpl> impl) {
    if (impl) impl->setParent(this);
    // The old one is destroyed outside the lock: it joins its thread, which may be notifying.
    MutexLock lock(m_mutex);
    m_impl.swap(impl);
    lock.unlock();
}

void DeviceMonitor::setFakeMode(int count) {
    setImpl(std::make_shared<DeviceMonitorFakeImpl>(count));
}

unsigned long DeviceMonitor::registerListen(Listener listener) {
    MutexLock lock(m_mutex);
    const unsigned long id = m_nextListenerId++;
    m_listeners.emplace(id, std::move(listener));
    return id;
}

void DeviceMonitor::unregisterListen(unsigned long id) {
    MutexLock lock(m_mutex);
    m_listeners.erase(id);
}

bool DeviceMonitor::isReadyForLaunchUnsafe() const {
    if (!m_impl) return false;
    if (m_launched) LOG_ERROR("Error: device monitor is already launched");
    return !m_launched;
}

bool DeviceMonitor::addDeviceFilter(int vendorId, int productId) {
    MutexLock lock(m_mutex);
    if (!isReadyForLaunchUnsafe()) return false;
    m_impl->addDeviceFilter(vendorId, productId);
    return true;
}

bool DeviceMonitor::launch() {
    MutexLock lock(m_mutex);
    if (!isReadyForLaunchUnsafe()) return false;
    m_launched = m_impl->launch();
    return m_launched;
}

void DeviceMonitor::stop() {
    std::shared_ptr<DeviceMonitorImpl> impl;
    {
        MutexLock lock(m_mutex);
        if (!m_launched) return;
        m_launched = false;
        impl = m_impl;
    }
    impl->stop();  // without the mutex: it joins a thread that may be notifying
}

std::vector<DeviceDesc> DeviceMonitor::getDeviceList(int vendorId, int productId) {
    MutexLock lock(m_mutex);
    if (!m_impl) return {};
    return m_impl->getDeviceList(vendorId, productId);
}

void DeviceMonitor::notifyPluginDevice(const DeviceDesc& desc) {
    notifyListeners(desc, PLUGGED_IN);
}

void DeviceMonitor::notifyPlugoutDevice(const DeviceDesc& desc) {
    notifyListeners(desc, PLUGGED_OUT);
}

// Under the mutex, so that none is called after its unregisterListen() has returned.
void DeviceMonitor::notifyListeners(const DeviceDesc& desc, PlugType type) {
    MutexLock lock(m_mutex);
    for (const auto& [id, listener] : m_listeners) listener(desc, type);
}

}  // namespace kelm

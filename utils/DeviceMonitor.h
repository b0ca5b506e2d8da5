#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "utils/DeviceMonitorImpl.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// Tells which devices exist and when they are plugged in and out: a front with listeners, over an
// implementation that can be swapped.
//
// Threads: any. Owns: the implementation.
// Locks: m_mutex, held across the calls of the listeners, so that a listener must not call back;
// not held while the implementation stops, since its thread may be notifying.
class DeviceMonitor : public NonCopyable {
 public:
    enum PlugType : int { PLUGGED_IN = 0, PLUGGED_OUT = 1 };
    using Listener = std::function<void(DeviceDesc, PlugType)>;

    // Without an implementation there are no devices.
    explicit DeviceMonitor(std::unique_ptr<DeviceMonitorImpl> impl = nullptr);
    ~DeviceMonitor();

    // Swaps the implementation for one of simulated devices; below 1 the usual number of them.
    void setFakeMode(int count) EXCLUDES(m_mutex);

    // Returns the id for unregisterListen().
    unsigned long registerListen(Listener listener) EXCLUDES(m_mutex);
    void unregisterListen(unsigned long id) EXCLUDES(m_mutex);

    // False without an implementation, and after launch().
    bool addDeviceFilter(int vendorId, int productId) EXCLUDES(m_mutex);
    bool launch() EXCLUDES(m_mutex);
    void stop() EXCLUDES(m_mutex);
    std::vector<DeviceDesc> getDeviceList(int vendorId, int productId) EXCLUDES(m_mutex);

    // From the implementation: calls each listener, in the order of the ids.
    void notifyPluginDevice(const DeviceDesc& desc) EXCLUDES(m_mutex);
    void notifyPlugoutDevice(const DeviceDesc& desc) EXCLUDES(m_mutex);

 private:
    void setImpl(std::shared_ptr<DeviceMonitorImpl> impl) EXCLUDES(m_mutex);
    // Whether there is an implementation that has not been launched.
    bool isReadyForLaunchUnsafe() const REQUIRES(m_mutex);
    void notifyListeners(const DeviceDesc& desc, PlugType type) EXCLUDES(m_mutex);

    Mutex m_mutex;
    unsigned long m_nextListenerId GUARDED_BY(m_mutex) = 0;
    bool m_launched GUARDED_BY(m_mutex) = false;
    std::map<unsigned long, Listener> m_listeners GUARDED_BY(m_mutex);
    // Shared with a stop() in progress, which does not hold the mutex.
    std::shared_ptr<DeviceMonitorImpl> m_impl GUARDED_BY(m_mutex);
};

}  // namespace kelm

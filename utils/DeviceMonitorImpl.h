#pragma once

#include <string>
#include <vector>

#include "utils/NonCopyable.h"

namespace kelm {

class DeviceMonitor;

struct DeviceFilter {
    int vendorId = 0;
    int productId = 0;
};

struct DeviceDesc {
    std::string name;  // the bus location, or a simulated name
    int vendorId = 0;
    int productId = 0;
    int interfaceSubclass = -1;  // of the first interface, -1 when it cannot be told
};

// What watches the devices behind a DeviceMonitor.
//
// Threads: setParent() before all else; the rest under the monitor's mutex, but for stop().
class DeviceMonitorImpl : public NonCopyable {
 public:
    virtual ~DeviceMonitorImpl() = default;

    // The monitor to notify, from the implementation's own thread. It outlives this object.
    virtual void setParent(DeviceMonitor* parent) { m_parent = parent; }
    virtual void addDeviceFilter(int vendorId, int productId) = 0;
    virtual bool launch() = 0;
    // No notification comes after it.
    virtual void stop() = 0;
    // The devices that are there; a product of 0 stands for all of the vendor.
    virtual std::vector<DeviceDesc> getDeviceList(int vendorId, int productId) = 0;

 protected:
    DeviceMonitor* m_parent = nullptr;
};

}  // namespace kelm

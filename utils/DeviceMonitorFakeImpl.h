#pragma once

#include <thread>

#include "utils/DeviceMonitorImpl.h"

namespace kelm {

// A fixed set of simulated devices, which are never plugged in or out.
//
// Threads: the owner's; its own thread ends at once.
class DeviceMonitorFakeImpl : public DeviceMonitorImpl {
 public:
    // `deviceCount` below 1 gives the usual number.
    explicit DeviceMonitorFakeImpl(int deviceCount);
    ~DeviceMonitorFakeImpl() override;

    void addDeviceFilter(int vendorId, int productId) override;
    bool launch() override;
    void stop() override;
    // "Fake0" and so on, with the ids given and one subclass for all.
    std::vector<DeviceDesc> getDeviceList(int vendorId, int productId) override;

 private:
    void joinThread();
    static void monitorRoutine();

    int m_deviceCount = 3;
    std::thread m_thread;
};

}  // namespace kelm

#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "utils/DeviceMonitorImpl.h"
#include "utils/Mutex.h"

struct libusb_context;

namespace kelm {

// The accelerators on the USB bus, as they are plugged in and out. A device's name is its place on
// the bus, so one that returns to the same socket has the same name.
//
// Threads: as for every implementation; the callbacks of the bus run on m_thread, from launch() to
// stop().
// Owns: the library's context. Without one, when the bus is out of reach, there are no devices.
// Locks: the parent's mutex, then m_mutex, which is not held while m_thread is joined.
class DeviceMonitorZorvanImpl : public DeviceMonitorImpl {
 public:
    DeviceMonitorZorvanImpl();
    ~DeviceMonitorZorvanImpl() override;

    void addDeviceFilter(int vendorId, int productId) override EXCLUDES(m_mutex);
    // False without a filter or where the bus tells of no changes.
    bool launch() override EXCLUDES(m_mutex);
    // For good: afterwards there are no devices and no other launch.
    void stop() override EXCLUDES(m_mutex);
    std::vector<DeviceDesc> getDeviceList(int vendorId, int productId) override EXCLUDES(m_mutex);

 private:
    bool registerCallbacks(const DeviceFilter& filter) REQUIRES(m_mutex);
    // The context stays until this thread has ended.
    void monitorRoutine(libusb_context* context);

    std::atomic<bool> m_stopped{false};  // atomic: tells m_thread to end, guards nothing else
    Mutex m_mutex;
    std::vector<DeviceFilter> m_filters GUARDED_BY(m_mutex);
    libusb_context* m_context GUARDED_BY(m_mutex) = nullptr;
    int m_arrivedHandle GUARDED_BY(m_mutex) = 0;
    int m_leftHandle GUARDED_BY(m_mutex) = 0;
    std::thread m_thread;  // set by launch(), joined by stop(), which the parent keeps apart
};

}  // namespace kelm

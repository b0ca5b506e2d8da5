#pragma once

#include "utils/NonCopyable.h"

namespace kelm {

class WorkerRegistry;
struct DeviceSettings;
struct InfoPackage;
struct KelmStatus;

// What a device manager prints at intervals and tells when asked. Figures are read first, under the
// registry's mutex, and formatted after; no report waits for a device.
//
// Threads: any. Owns nothing; the settings and the registry outlive it. Locks: none of its own.
class DeviceReport : public NonCopyable {
 public:
    DeviceReport(const DeviceSettings& settings, WorkerRegistry& workers)
        : m_settings(settings), m_workers(workers) {}

    // Whether the settings ask for anything that is printed.
    bool isPrinting() const;
    void print();

    // Appends a row for each device to the device lists.
    void queryDeviceStatus(KelmStatus& status);
    void updateInfoPackage(InfoPackage& package);

 private:
    void printDeviceFps();
    void printDeviceUtilization();
    void snapshot();

    const DeviceSettings& m_settings;
    WorkerRegistry& m_workers;
};

}  // namespace kelm

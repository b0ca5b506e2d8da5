#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "execution/ResetQueue.h"
#include "execution/WorkerFailureListener.h"
#include "records/StarvingGraphListener.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "utils/DeviceMonitor.h"
#include "utils/SerialPool.h"
#include "utils/Singleton.h"
#include "utils/ThreadPool.h"

namespace kelm {

class DeviceManager;
class KelmGraph;
class Request;
struct InfoPackage;
struct KelmStatus;

// The door to the device side of the service: finds the devices at start, groups them by their
// interface subclass, makes a manager for each group, and then routes graphs, resets and plug
// events. With no device at start there is no manager; a device of a new subclass cannot join.
//
// Threads: any. The construction starts all devices and blocks until they are tried; stop() is
// called by one thread. Questions are answered on the own pool, so that the asking thread waits for
// no manager; the info collector hears of each answer, also of one that failed. A reset of all
// devices has a thread of its own, since it may never return.
// Owns: the monitor and the managers.
// Locks: none; the managers are fixed by the construction.
class DeviceManagerCreator final : public Singleton<DeviceManagerCreator>,
                                   public WorkerRemovalListener,
                                   public WorkerFailureListener,
                                   public StarvingGraphListener {
 public:
    // Throws std::invalid_argument for a broken tag map in the configuration. `impl` watches the
    // devices in place of the usual implementation.
    explicit DeviceManagerCreator(std::unique_ptr<DeviceMonitorImpl> impl = nullptr);
    ~DeviceManagerCreator();

    // False if no manager has the graph's subclass: a load is answered through the listener, but
    // for an unload nothing follows, since the graph cannot have been loaded.
    bool enqueueLoadGraph(KelmGraph* graph);
    bool enqueueUnloadGraph(KelmGraph* graph);
    // Never waits for a device.
    void enqueueResetDevice(Request request);
    void enqueueRemoveWorkerDone(WorkThread* worker) override;
    void enqueueWorkerFailed(WorkThread* worker) override;
    void notifyGraphStarves(int32_t subclass) override;

    void enqueueQueryDeviceStatus(const std::shared_ptr<KelmStatus>& status);
    void enqueueQueryDeviceScheduler(const std::shared_ptr<KelmStatus>& status);
    // Never blocks, since the collector of a package waits for all its writers: a full pool would
    // close a circle. The package stays until the collector has heard of its end.
    void enqueueUpdateInfoPackage(InfoPackage* package);

    // Ends monitor, schedulers and workers in bounded time; to be called before static objects are
    // destroyed. False: a device does not answer, and what may still use it was left behind. The
    // process should then leave without destroying its static objects.
    bool stop();

 private:
    void initDeviceMonitor();
    void createDeviceManager();
    void launchDeviceMonitor();
    void handlePlugEvent(const DeviceDesc& desc, DeviceMonitor::PlugType type);
    // Null, with nothing logged, if there is none.
    std::shared_ptr<DeviceManager> findManager(int subclass) const;
    void queryDeviceStatus(const std::shared_ptr<KelmStatus>& status);
    void queryDeviceScheduler(const std::shared_ptr<KelmStatus>& status);
    void updateInfoPackage(InfoPackage* package);

    int m_vendorId = 0;
    int m_productId = 0;
    DeviceMonitor m_deviceMonitor;
    std::map<int, std::shared_ptr<DeviceManager>> m_deviceManagers;  // by subclass
    unsigned long m_listenerId = 0;
    ResetQueue m_resets;  // of all devices at once
    SerialPool m_resetPool;
    ThreadPool m_threadPool;  // last: its jobs use the managers
};

}  // namespace kelm

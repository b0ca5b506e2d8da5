#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "devices/BoundedThreads.h"
#include "devices/DeviceReport.h"
#include "devices/DeviceSchedulers.h"
#include "devices/DeviceSettings.h"
#include "devices/PlugQueue.h"
#include "devices/ThermalReader.h"
#include "devices/WorkerRegistry.h"
#include "reporting/PrintInfoListener.h"
#include "utils/NonCopyable.h"
#include "utils/SerialPool.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmGraph;
class Request;
class WorkThread;
struct InfoPackage;
struct KelmStatus;

// How long a device manager waits for devices.
struct DeviceManagerLimits {
    std::chrono::milliseconds stop{3000};       // for each of the two phases of stop()
    std::chrono::milliseconds oldWorker{5000};  // that a new worker waits for the old one
};

// The front of the devices of one subclass: of their workers, the schedulers that these are divided
// among, their plug events, temperatures and reports.
//
// Threads: any. The own pool passes resets on and begins the destruction of removed workers: both
// on one thread, so that the worker that a reset has found is not destroyed before it has the
// reset. The plug events of a device have a thread, the temperatures another. Owns: schedulers and
// workers. Locks: none of its own. The registry's comes before a scheduler's inbox and a worker's,
// the plug queue's before that of the threads, which is a leaf as the thermal reader's is.
class DeviceManager : public NonCopyable, public PrintInfoListener {
 public:
    // Dropping the last pointer stops the manager. If it cannot stop in time it is left behind with
    // all that it owns, since threads are still using it.
    static std::shared_ptr<DeviceManager> create(const std::string& name,
                                                 DeviceManagerLimits limits = {});

    // Opens the devices in order; blocks until all are tried. Throws std::invalid_argument for a
    // broken tag map in the configuration.
    void setDeviceList(int subclass, const std::vector<std::string>& names);

    // Route to the scheduler that the graph asks for; without it, the listener is told at once.
    void enqueueLoadGraph(KelmGraph* graph) { m_schedulers.loadGraph(graph); }
    void enqueueUnloadGraph(KelmGraph* graph) { m_schedulers.unloadGraph(graph); }

    bool hasDevice(uint32_t deviceId) { return m_workers.findWorker(deviceId) != nullptr; }
    // The request names the device, which must be one of this manager's.
    void enqueueResetDevice(Request request);
    // The scheduler does not use the removed worker any more: it is destroyed.
    void enqueueRemoveWorkerDone(WorkThread* worker);
    // Its device has failed: the scheduler is woken, and a reserved place is free for another.
    void enqueueWorkerFailed(WorkThread* worker) { m_workers.handleFailure(worker); }
    // A task waits for an ordinary graph that no device runs.
    void notifyGraphStarves() { m_schedulers.notifyStarving(); }
    // A device has come or left. Never block; false for a subclass that is not this manager's.
    bool enqueuePluginDevice(int subclass, const std::string& name);
    bool enqueuePlugoutDevice(int subclass, const std::string& name);

    void onPrintInfo() override { m_report.print(); }
    // Appends a row for each device to the device lists.
    void queryDeviceStatus(KelmStatus& status) { m_report.queryDeviceStatus(status); }
    // The name of the scheduler of ordinary graphs.
    void queryDeviceScheduler(KelmStatus& status) const;
    void updateInfoPackage(InfoPackage& package) { m_report.updateInfoPackage(package); }

    // Ends all threads, schedulers and workers in bounded time; later calls repeat the result.
    // False: some device did not answer, and nothing that it may use has been destroyed.
    bool stop();

    const std::string& getName() const { return m_threadPool.getName(); }
    uint64_t getWorkerNum() { return m_workers.getWorkerNum(); }

 private:
    enum StopState { RUNNING, STOPPED, LEFT_BEHIND };

    struct Deleter {
        void operator()(DeviceManager* manager) const;
    };

    DeviceManager(const std::string& name, DeviceManagerLimits limits);
    ~DeviceManager() override;

    void resetDevice(Request request);
    bool stopThreads();

    const DeviceManagerLimits m_limits;
    const StepTrace m_trace;
    DeviceSettings m_settings;  // fixed by setDeviceList(), before other threads come
    std::atomic<StopState> m_stopState{RUNNING};  // atomic: any thread may drop the last pointer
    // In the order of use: what stands below may use what stands above, until it is destroyed.
    DeviceSchedulers m_schedulers;
    BoundedThreads m_threads;
    WorkerRegistry m_workers;
    PlugQueue m_plugQueue;
    ThermalReader m_thermalReader;
    DeviceReport m_report;
    SerialPool m_threadPool;
};

}  // namespace kelm

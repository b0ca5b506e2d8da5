#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "reporting/PrintInfoListener.h"
#include "utils/InlineTask.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/ThreadPool.h"

namespace kelm {

class DeviceSchedulerBase;
class KelmGraph;
class Request;
class WorkThread;
struct DeviceFigures;
struct InfoPackage;
struct KelmStatus;

// Owns the work threads of one device subclass: makes and removes them as devices come and go,
// divides them among its schedulers, and hands each graph to the scheduler that it asks for.
//
// A worker is creating (only its device name is known), then active, then removing: its scheduler
// strips it, after which it is deleted here.
//
// Threads: any. The events of one device are handled on one thread, in their order; idle devices
// are read on another. Resets are passed on, and removed workers taken, on the own pool, so that a
// worker found there stays while it is used; a worker is deleted on a thread of its own, since its
// device may never answer. Reports wait for no device; once it stops there is none to tell of.
// Owns: schedulers and workers.
// Locks: m_mutex, then a scheduler's inbox or a worker's lock. Never held across a device call, a
// deletion or a post.
class DeviceManager : public NonCopyable, public PrintInfoListener {
 public:
    struct Limits {
        std::chrono::milliseconds stop{3000};       // for each of the two phases of stop()
        std::chrono::milliseconds oldWorker{5000};  // that a new worker waits for the old one
    };

    // Dropping the last pointer stops the manager. If it cannot stop in time it is left behind with
    // all that it owns, since threads are still using it.
    static std::shared_ptr<DeviceManager> create(const std::string& name);
    static std::shared_ptr<DeviceManager> create(const std::string& name, Limits limits);

    // Opens the devices in order; blocks until all are tried. Throws std::invalid_argument for a
    // broken tag map in the configuration.
    void setDeviceList(int subclass, const std::vector<std::string>& names);

    // Route to the scheduler that the graph asks for; without it, the listener is told at once.
    void enqueueLoadGraph(KelmGraph* graph);
    void enqueueUnloadGraph(KelmGraph* graph);

    bool hasDevice(uint32_t deviceId) EXCLUDES(m_mutex);
    // The request names the device, which must be one of this manager's.
    void enqueueResetDevice(Request request);
    // The scheduler has let go of the worker.
    void enqueueRemoveWorkerDone(WorkThread* worker);
    // Its device has failed: the scheduler is woken, and a reserved place is free again.
    void enqueueWorkerFailed(WorkThread* worker) EXCLUDES(m_mutex);
    // A device has come or gone. Never block; false for a subclass that is not this manager's.
    bool enqueuePluginDevice(int subclass, const std::string& name) EXCLUDES(m_mutex);
    bool enqueuePlugoutDevice(int subclass, const std::string& name) EXCLUDES(m_mutex);

    void onPrintInfo() override EXCLUDES(m_mutex);
    // Appends a row for each device to the device lists.
    void queryDeviceStatus(const std::shared_ptr<KelmStatus>& status) EXCLUDES(m_mutex);
    // The name of the scheduler of ordinary graphs.
    void queryDeviceScheduler(const std::shared_ptr<KelmStatus>& status);
    void updateInfoPackage(InfoPackage* package) EXCLUDES(m_mutex);

    // Ends all threads, schedulers and workers in bounded time; later calls repeat the result.
    // False: some device did not answer, and nothing that it may use has been destroyed.
    bool stop() EXCLUDES(m_mutex);

    const std::string& getName() const { return m_threadPool.getName(); }
    uint64_t getWorkerNum() EXCLUDES(m_mutex);
    // How often the device was taken away: a reset shows up as that too.
    int getResetTimes(const std::string& name) EXCLUDES(m_mutex);

 private:
    enum SchedulerKind { TAG, STREAM, SQUEEZE, SCHEDULER_KINDS };
    enum PlugEvent { PLUG_IN, PLUG_OUT };
    enum StopState { RUNNING, STOPPED, LEFT_BEHIND };
    using Deadline = std::chrono::steady_clock::time_point;

    // One scheduler and its share of the workers.
    struct SchedulerSlot {
        // Null while there is none. Not guarded: set before the first worker, then it stays.
        std::unique_ptr<DeviceSchedulerBase> scheduler;
        // Atomic: written under m_mutex, read without it to route a graph.
        std::atomic<uint64_t> workerCount{0};  // of a reserved slot: those that have not failed
        uint64_t deviceNum = 0;                // how many workers it may take
    };
    struct Deleter {
        void operator()(DeviceManager* manager) const;
    };

    DeviceManager(const std::string& name, Limits limits);
    ~DeviceManager() override;

    void loadServiceSettings();
    void createDeviceScheduler();
    void createSqueezeScheduler();

    // Workers coming.
    void createWorkThread(const std::string& name, int subclass) EXCLUDES(m_mutex);
    bool beginCreation(const std::string& name) EXCLUDES(m_mutex);
    void endCreation(const std::string& name) EXCLUDES(m_mutex);
    void waitOldWorkerGone(const std::string& name) REQUIRES(m_mutex);
    std::unique_ptr<WorkThread> openWorker(const std::string& name, int subclass);
    // Gives the worker back if the manager is stopping.
    std::unique_ptr<WorkThread> adoptWorker(std::unique_ptr<WorkThread> worker,
                                            const std::string& name) EXCLUDES(m_mutex);
    void assignScheduler(WorkThread* worker) REQUIRES(m_mutex);
    SchedulerSlot* findSlot(WorkThread* worker);  // null: its scheduler is none of these

    // Workers going.
    bool destroyWorkThread(const std::string& name) REQUIRES(m_mutex);
    void removeResetWorker(const std::string& name) EXCLUDES(m_mutex);
    void removeWorkerDone(WorkThread* worker) EXCLUDES(m_mutex);
    std::unique_ptr<WorkThread> takeRemovedWorker(WorkThread* worker) EXCLUDES(m_mutex);
    void deleteWorker(std::unique_ptr<WorkThread> worker, const std::string& device)
        EXCLUDES(m_mutex);
    void endLeaving(const std::string& device) EXCLUDES(m_mutex);

    // Plug events.
    bool enqueuePlugEvent(int subclass, const std::string& name, PlugEvent event) EXCLUDES(m_mutex);
    void handlePlugEvents(const std::string& name) EXCLUDES(m_mutex);
    void handlePlugEvent(const std::string& name, PlugEvent event) EXCLUDES(m_mutex);

    void resetDevice(Request request) EXCLUDES(m_mutex);
    WorkThread* findWorker(uint32_t deviceId) EXCLUDES(m_mutex);

    void deviceThermalUpdateRoutine() EXCLUDES(m_mutex);
    void updateThermals() EXCLUDES(m_mutex);
    bool pinForThermal(WorkThread* worker) EXCLUDES(m_mutex);
    void unpinForThermal() EXCLUDES(m_mutex);

    // Reports.
    void loadPrintSettings();
    bool isPrinting() const;
    void startPrinting();
    void stopPrinting() EXCLUDES(m_mutex);
    std::vector<DeviceFigures> readDevices() EXCLUDES(m_mutex);
    DeviceFigures readDevice(WorkThread& worker) REQUIRES(m_mutex);
    static std::string getLoadedGraphName(WorkThread* worker);
    void printDeviceFps() EXCLUDES(m_mutex);
    void printDeviceUtilization() EXCLUDES(m_mutex);
    void snapshot(const char* title) EXCLUDES(m_mutex);

    // A detached thread that stop() waits for. False, with an ERROR line, if there can be none.
    bool startThread(InlineTask body) EXCLUDES(m_mutex);
    void endThread() EXCLUDES(m_mutex);
    bool waitThreads(Deadline deadline) EXCLUDES(m_mutex);
    bool stopSchedulers(Deadline deadline);
    bool destroyWorkers(Deadline deadline) EXCLUDES(m_mutex);
    bool finishStop(StopState state) EXCLUDES(m_mutex);

    const Limits m_limits;
    // Settings: fixed by setDeviceList(), before other threads come.
    bool m_printDeviceFps = false;
    bool m_printDeviceUtilization = false;
    bool m_snapshotEnabled = false;
    bool m_snapshotFull = false;
    bool m_snapshotListStyle = true;
    bool m_debugProcess = false;
    int m_updateThermalInterval = 0;  // milliseconds
    int m_maxGraphNumPerDevice = 1;
    int m_maxPendingTaskNum = 0;
    int m_maxPendingCycle = 0;
    int m_maxCachedGraphNum = 4;
    std::map<std::string, unsigned long> m_graphTagMap;
    int m_subclass = 0;
    std::array<SchedulerSlot, SCHEDULER_KINDS> m_schedulers;

    Mutex m_mutex;
    CondVar m_changed;  // a worker or thread has gone, or the manager is stopping
    StopState m_stopState GUARDED_BY(m_mutex) = RUNNING;
    bool m_stopping GUARDED_BY(m_mutex) = false;
    uint64_t m_threadCount GUARDED_BY(m_mutex) = 0;  // started by startThread() and not done
    std::map<WorkThread*, std::unique_ptr<WorkThread>> m_workThreads GUARDED_BY(m_mutex);
    // Taken out, still in their scheduler's hands.
    std::map<WorkThread*, std::unique_ptr<WorkThread>> m_removingWorkers GUARDED_BY(m_mutex);
    // The device of each worker that is not active any more and not yet deleted.
    std::multiset<std::string> m_leavingDevices GUARDED_BY(m_mutex);
    std::map<std::string, int> m_resetTimes GUARDED_BY(m_mutex);
    std::map<std::string, WorkThread*> m_nameToWorker GUARDED_BY(m_mutex);
    std::set<std::string> m_creatingDevices GUARDED_BY(m_mutex);
    std::set<WorkThread*> m_failedWorkers GUARDED_BY(m_mutex);  // active, without their place
    // Per device, the events not yet done; the first is being handled.
    std::map<std::string, std::deque<PlugEvent>> m_plugEvents GUARDED_BY(m_mutex);
    WorkThread* m_thermalWorker GUARDED_BY(m_mutex) = nullptr;  // being read: not to be deleted
    ThreadPool m_threadPool;
};

}  // namespace kelm

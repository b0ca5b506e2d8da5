#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "devices/BoundedThreads.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"

namespace kelm {

class DeviceSchedulers;
class WorkThread;
struct DeviceFigures;
struct DeviceSettings;

// The workers of one device manager, from the opening of a device to the destruction of its worker.
//
// Threads: any. A worker that was found stays while its finder runs on the thread that calls
// removeWorkerDone(), or has pinned it. Destruction has a thread of its own, since it joins the
// worker's threads, and the device may never answer.
// Owns: the workers. Borrows the schedulers and the threads, which outlive them.
// Locks: m_mutex, then a scheduler's inbox or a worker's lock. Never held across a device call, a
// destruction or the start of a thread.
class WorkerRegistry : public NonCopyable {
 public:
    struct Unpin {
        WorkerRegistry* registry;
        void operator()(WorkThread* worker) const { registry->unpin(worker); }
    };
    // Keeps the worker from being destroyed.
    using PinnedWorker = std::unique_ptr<WorkThread, Unpin>;

    // A new worker waits for the old one of its device for `patience`. The settings are read from
    // the first createWorkThread() on.
    WorkerRegistry(const DeviceSettings& settings, DeviceSchedulers& schedulers,
                   BoundedThreads& threads, std::chrono::milliseconds patience);
    ~WorkerRegistry();

    // Opens the device and blocks until that is tried. Does nothing if it is being opened already.
    void createWorkThread(const std::string& device) EXCLUDES(m_mutex);
    // The device has left the bus, be it by a reset: counted as one, if it had a worker.
    void removeResetWorker(const std::string& device) EXCLUDES(m_mutex);
    // Its scheduler does not use the worker any more: it is destroyed, on a thread of its own.
    void removeWorkerDone(WorkThread* worker) EXCLUDES(m_mutex);
    // Its device has failed, and may stay on the bus like that.
    void handleFailure(WorkThread* worker) EXCLUDES(m_mutex);

    // Those whose phase is Active or Failed count in what follows.
    uint64_t getWorkerNum() EXCLUDES(m_mutex);
    std::set<WorkThread*> getWorkers() EXCLUDES(m_mutex);
    WorkThread* findWorker(uint32_t deviceId) EXCLUDES(m_mutex);  // null if there is none
    // Null if it does not count any more, or after close().
    PinnedWorker pin(WorkThread* worker) EXCLUDES(m_mutex);
    // In the order of the workers' addresses; waits for no device. Nothing after close(): workers
    // that are left behind may hold graphs whose records are destroyed.
    std::vector<DeviceFigures> readDevices() EXCLUDES(m_mutex);

    // No worker comes any more, and nothing waits for one that leaves.
    void close() EXCLUDES(m_mutex);
    // After close(), and once the threads have ended and the schedulers stopped: destroys all
    // workers. False if one has not ended by the deadline.
    bool destroyWorkers(BoundedThreads::Deadline deadline) EXCLUDES(m_mutex);

 private:
    // What a worker is going through, and what moves it on. Of the workers of one device at most
    // one is Creating, Active or Failed; older ones may still be Removing or Destroying.
    //
    //   (none)         -> Creating     its device is there; only its name is known yet
    //   Creating       -> Active       the device is open: the worker belongs to a scheduler
    //   Creating       -> (none)       it did not open, or close() came first
    //   Active         -> Failed       its device was lost, its reserved place is free for another
    //   Active, Failed -> Removing     unplugged, or plugged in anew: the scheduler unloads it
    //   Removing       -> Destroying   its scheduler does not use it any more: it is destroyed
    //   Destroying     -> (none)       destroyed: the device may be opened again
    //   all but Creating and Destroying -> (none)   destroyWorkers()
    enum class Phase { Creating, Active, Failed, Removing, Destroying };
    struct Entry;
    using Entries = std::list<Entry>;

    bool beginCreation(const std::string& device) EXCLUDES(m_mutex);
    void waitOldWorkerDestroyed(const std::string& device) REQUIRES(m_mutex);
    std::unique_ptr<WorkThread> openWorker(const std::string& device);
    void endCreation(const std::string& device) EXCLUDES(m_mutex);
    // Gives the worker back after close().
    std::unique_ptr<WorkThread> adoptWorker(std::unique_ptr<WorkThread> worker,
                                            const std::string& device) EXCLUDES(m_mutex);
    bool destroyWorkThread(const std::string& device) REQUIRES(m_mutex);
    // False, and nothing changes, unless the worker is Removing.
    bool beginDestruction(WorkThread* worker) EXCLUDES(m_mutex);
    void destroyWorker(WorkThread* worker) EXCLUDES(m_mutex);
    void unpin(WorkThread* worker) EXCLUDES(m_mutex);

    // The end of the list if there is none.
    template <class Predicate>
    Entries::iterator findIfUnsafe(Predicate fits) REQUIRES(m_mutex);
    Entries::iterator findUnsafe(const WorkThread* worker) REQUIRES(m_mutex);
    Entries::iterator findCreatingUnsafe(const std::string& device) REQUIRES(m_mutex);
    bool hasOldWorkerUnsafe(const std::string& device) REQUIRES(m_mutex);
    std::set<WorkThread*> getWorkersUnsafe() REQUIRES(m_mutex);

    const DeviceSettings& m_settings;
    DeviceSchedulers& m_schedulers;
    BoundedThreads& m_threads;
    const std::chrono::milliseconds m_patience;
    const StepTrace m_trace;

    Mutex m_mutex;
    CondVar m_changed;  // a worker was destroyed or unpinned, or close() was called
    bool m_closed GUARDED_BY(m_mutex) = false;
    Entries m_entries GUARDED_BY(m_mutex);
    std::map<std::string, int> m_resetTimes GUARDED_BY(m_mutex);  // removals, by device
};

}  // namespace kelm

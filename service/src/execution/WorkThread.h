#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "execution/ResetQueue.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/SerialPool.h"

namespace kelm {

class DeviceSchedulerBase;
class KelmDeviceBase;
class KelmGraph;
class KelmTask;
class SlaveWorker;

// One device in the service: the root device, and one slave worker with a clone of it for each
// graph that the device may run at once. The own pool does what must be serial per device and needs
// no slave worker.
//
// Threads: any. Owns: device, clones, slave workers. Borrows graphs, until their unload is done.
// Locks: m_mutex, then a graph's or a device's own; held across a notice to a slave worker's pool.
// Not held while the slave workers drain: the answers that they wait for come through here. While
// the device is being reset a thread that would assign a graph waits some seconds; tasks and
// readers do not.
// A slot is emptied before the graph's record may be deleted, so the graph can be followed under
// m_mutex.
class WorkThread : public NonCopyable {
 public:
    // Opens the device and blocks until its slave workers exist; see isReady().
    WorkThread(const std::string& deviceName, int32_t subclass, int32_t slaveWorkerNum,
               int32_t maxCachedGraphNum);
    // Waits for the slave workers to drain; takes as long as the device's tasks.
    ~WorkThread();

    // False when the device failed to open, or destruction has begun.
    bool isReady() EXCLUDES(m_mutex);
    const std::string& getName() const { return m_name; }
    int32_t getSubclass() const { return m_subclass; }
    // The device has failed for good: it takes no graph any more, whatever it still holds.
    bool isFailed() const;
    // Its device has been reset within the time that such a device takes to come back.
    bool wasResetLately() const;
    // The root device, null when it failed to open.
    KelmDeviceBase* getDevice() const { return m_device.get(); }
    // The scheduler that the worker belongs to; borrowed.
    void setDeviceScheduler(DeviceSchedulerBase* scheduler) { m_deviceScheduler = scheduler; }
    DeviceSchedulerBase* getDeviceScheduler() const { return m_deviceScheduler; }

    // Sum of the clones' results per second.
    float getTotalFps() EXCLUDES(m_mutex);
    std::vector<KelmDeviceBase*> getDevices() EXCLUDES(m_mutex);
    std::vector<std::string> getStates() EXCLUDES(m_mutex);
    // Name of the first assigned graph, or empty.
    std::string getGraphName() EXCLUDES(m_mutex);
    // Tag and stream id of the same graph.
    std::string getGraphTag() EXCLUDES(m_mutex);
    std::string getGraphStreamId() EXCLUDES(m_mutex);
    // The assigned graphs.
    std::set<KelmGraph*> getGraphs() EXCLUDES(m_mutex);

    // Tasks that have been handed to the slots and have not left them yet. Takes no lock.
    uint32_t getHeldTasks() const { return m_heldTasks.load(); }
    // A slave worker passes a task on.
    void noteTaskLeft() { m_heldTasks.fetch_sub(1); }

    // Hands the task to the slot of its graph, or back when there is none.
    void enqueueLoadTensor(KelmTask* task) EXCLUDES(m_mutex);
    // The task scheduler will send no more tasks of the graph to this worker.
    void enqueueAbortApplyTaskDone(KelmGraph* graph) EXCLUDES(m_mutex);
    // Futures of a KelmError.
    std::shared_future<int> enqueueLoadGraph(KelmGraph* graph) EXCLUDES(m_mutex);
    std::shared_future<int> enqueueUnloadGraph(KelmGraph* graph, bool keepCached) EXCLUDES(m_mutex);
    // Answered through the result sink.
    void enqueueResetDevice(Request request) { m_resets.enqueue(std::move(request)); }
    // The slave worker's load failed: frees its slot.
    void enqueueNotifyLoadGraphError(SlaveWorker* slaveWorker);
    // Each thread that meets a lost device says so here; the failure listener hears it once.
    void notifyDeviceFailed();
    // After a use of the root device: the same, if that was its end.
    void checkDevice();
    // Frees each slot that holds the graph.
    void removeInvalidGraph(KelmGraph* graph) EXCLUDES(m_mutex);

 private:
    struct Slot;

    void init() EXCLUDES(m_mutex);
    bool openDevice();
    void createSlaveWorker() EXCLUDES(m_mutex);
    void destroySlaveWorker() EXCLUDES(m_mutex);
    std::vector<SlaveWorker*> getSlaveWorkers() EXCLUDES(m_mutex);
    Slot* findSlotUnsafe(KelmGraph* graph) REQUIRES(m_mutex);  // null: the first free one
    KelmGraph* firstGraphUnsafe() REQUIRES(m_mutex);           // null: nothing is assigned
    void waitResetDoneUnsafe() REQUIRES(m_mutex);
    bool handToSlot(KelmTask* task) EXCLUDES(m_mutex);

    // On the pool.
    int deallocateGraph(KelmGraph* graph, bool keepCached);
    void notifyLoadGraphError(SlaveWorker* slaveWorker) EXCLUDES(m_mutex);
    int resetDevice() EXCLUDES(m_mutex);
    void setResetting(bool resetting) EXCLUDES(m_mutex);
    std::shared_future<int> answer(int result);

    const std::string m_name;
    const std::string m_deviceName;
    const int32_t m_subclass;
    const int32_t m_slaveWorkerNum;
    const int32_t m_maxCachedGraphNum;
    int32_t m_maxInferenceNumber = 1;  // tasks in flight per slave worker; fixed after construction
    std::unique_ptr<KelmDeviceBase> m_device;  // fixed after construction
    // Atomic: set by the device manager after the scheduler may already know the worker.
    std::atomic<DeviceSchedulerBase*> m_deviceScheduler{nullptr};

    std::atomic<bool> m_failed{false};     // atomic: set once, on any thread
    std::atomic<uint32_t> m_heldTasks{0};  // atomic: a count that a task scheduler compares
    // Atomic: set by the pool, read by the scheduler's thread, for its reports only.
    std::atomic<std::chrono::steady_clock::time_point> m_lastReset{};

    Mutex m_mutex;
    CondVar m_resetDone;
    bool m_stopped GUARDED_BY(m_mutex) = false;
    bool m_resetting GUARDED_BY(m_mutex) = false;
    std::vector<Slot> m_slots GUARDED_BY(m_mutex);
    ResetQueue m_resets;
    SerialPool m_pool;  // last: its jobs use all of the above
};

}  // namespace kelm

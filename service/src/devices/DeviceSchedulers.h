#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "devices/BoundedThreads.h"
#include "utils/NonCopyable.h"

namespace kelm {

class DeviceSchedulerBase;
class KelmGraph;
class WorkThread;
struct DeviceFigures;
struct DeviceSettings;

// The schedulers of one device manager, at most one of each kind: divides the workers among them,
// and hands each graph to the one that it asks for. Those for tags and streams have a quota of
// reserved devices; the squeeze scheduler has all others.
//
// Threads: graphs come on any. Workers are added, removed and counted under the mutex of the
// manager's registry; create() comes before the first of them, and the schedulers then stay.
// Owns: the schedulers. Locks: none of its own, but those of a scheduler's inbox and of a worker.
class DeviceSchedulers : public NonCopyable {
 public:
    DeviceSchedulers();
    ~DeviceSchedulers();

    void create(const DeviceSettings& settings);

    // To the scheduler that the graph asks for; without it, the listener is told of the failure.
    void loadGraph(KelmGraph* graph);
    // Always confirmed, whatever became of the load, so that a destroy never hangs.
    void unloadGraph(KelmGraph* graph);

    // A task waits for an ordinary graph that no device runs.
    void notifyStarving();

    // To the first of tag, stream and squeeze that is short of workers.
    void addWorker(WorkThread* worker);
    // Its scheduler unloads what it holds. `hasPlace`: no failure has freed its place before.
    void removeWorker(WorkThread* worker, bool hasPlace);
    // Wakes the scheduler of a worker whose device has failed. True if the worker had a reserved
    // place: that is free now for the next device that comes.
    bool handleFailure(WorkThread* worker);

    // Ends all scheduling threads; false if one has not ended by the deadline.
    bool stop(BoundedThreads::Deadline deadline);

    // Empty without a squeeze scheduler.
    std::string getSqueezeName() const;
    // Enters the worker's scheduler, and for what that keeps the device.
    void describe(WorkThread& worker, DeviceFigures& device);

 private:
    // In the order in which devices are given out.
    enum Kind { TAG, STREAM, SQUEEZE, KINDS };

    // One scheduler and its share of the workers.
    struct Slot {
        std::unique_ptr<DeviceSchedulerBase> scheduler;  // null while there is none
        uint64_t deviceNum = 0;                          // how many workers it may take
        // Without the reserved places of failed devices. Atomic: read to route a graph, without
        // the mutex under which it is written.
        std::atomic<uint64_t> workerCount{0};
    };

    void createSqueezeScheduler(const DeviceSettings& settings);
    Slot* findSlot(WorkThread* worker);  // null: its scheduler is none of these

    int m_subclass = 0;
    int m_maxGraphNumPerDevice = 1;
    std::array<Slot, KINDS> m_slots;
};

}  // namespace kelm

#pragma once

#include <set>
#include <string>

#include "scheduling/devices/DeviceSchedulerLazy.h"

namespace kelm {

// Serves graphs that carry a stream id: each gets one device of its own and keeps it. A graph whose
// device is taken away or fails gets another as soon as there is one, ahead of new graphs.
//
// Threads, owns, locks: as the base.
class DeviceSchedulerStream : public DeviceSchedulerLazy {
 public:
    explicit DeviceSchedulerStream(const char* name) : DeviceSchedulerLazy(name) {}
    ~DeviceSchedulerStream() override;

    void setStreamDeviceNum(unsigned long number) override { m_streamDeviceNum = number; }
    void handleLoadGraphFail(KelmGraph* graph) REQUIRES(m_onSchedulingThread) override;

 protected:
    bool mapResource() REQUIRES(m_onSchedulingThread) override;
    std::string describe(KelmGraph* graph) override;
    PlacementReason findLoadReason(KelmGraph*, WorkThread*)
        REQUIRES(m_onSchedulingThread) override {
        return PlacementReason::Stream;
    }
    PlacementLack findLack(KelmGraph* graph) REQUIRES(m_onSchedulingThread) override;

 private:
    void forgetPlacedGraphs() REQUIRES(m_onSchedulingThread);
    void handleUnloadGraph() REQUIRES(m_onSchedulingThread);
    void handleRemoveWorker() REQUIRES(m_onSchedulingThread);
    void displace(const std::set<KelmGraph*>& graphs) REQUIRES(m_onSchedulingThread);
    void placeDisplacedGraphs() REQUIRES(m_onSchedulingThread);
    void handleLoadGraph() REQUIRES(m_onSchedulingThread);
    // Whether the graph of a leaving or lost worker is to be moved to another.
    bool needsNewWorker(KelmGraph* graph) REQUIRES(m_onSchedulingThread);

    // Deliberate: nothing here reads it, the manager sends no more workers than that.
    unsigned long m_streamDeviceNum = 0;
    // Graphs whose worker was removed or lost. One leaves the set when it is seen on another
    // worker, so that a new load that fails leaves it waiting; and when it is unloaded or given up.
    std::set<KelmGraph*> m_displacedGraphs GUARDED_BY(m_onSchedulingThread);
};

}  // namespace kelm

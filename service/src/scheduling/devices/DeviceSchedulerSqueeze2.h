#pragma once

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "scheduling/devices/DeviceSchedulerActive.h"
#include "scheduling/mapping/GraphMapper.h"

namespace kelm {

// The default device scheduler: squeezes all graphs that are tied to no tag and no stream onto its
// devices by their current demand, and divides the devices anew as demand changes. The mapper
// computes the target; the operations follow from what the workers really hold, so that a dropped
// plan leaves nothing to repair.
//
// Threads, owns, locks: as the base; the mapper locks itself.
class DeviceSchedulerSqueeze2 : public DeviceSchedulerActive {
 public:
    using MapResult = GraphMapper::MapResult;

    explicit DeviceSchedulerSqueeze2(const char* name,
                                     std::chrono::nanoseconds interval = kInterval);
    ~DeviceSchedulerSqueeze2() override;

    void setMaxGraphNumPerDevice(int number) override;
    void setMaxPendingTaskNum(int number) override;
    void setMaxPendingCycle(int number) override;
    void handleLoadGraphFail(KelmGraph* graph) REQUIRES(m_onSchedulingThread) override;

    // Exchanges the graph sets of whole workers so that graphs land where they are cached, and need
    // no load over the bus: the mapper knows no caches. The sets themselves stay as they are.
    void adjustMapResult(MapResult& result) REQUIRES(m_onSchedulingThread);

    struct WorkerState {
        WorkThread* worker;
        std::set<KelmGraph*> graphs;           // the target, which the adjustment may exchange
        std::vector<KelmGraph*> cachedGraphs;  // as the device lists them
        std::set<KelmGraph*> initialGraphs;    // the target before the adjustment
    };
    // The arithmetic of adjustMapResult(): graphs and workers are keys that are not followed. True
    // if a target has changed its worker.
    static bool exchangeGraphs(std::vector<WorkerState>& states);

 protected:
    bool mapResource() REQUIRES(m_onSchedulingThread) override;
    void restoreScene() REQUIRES(m_onSchedulingThread) override;
    void handleLostWorker(WorkThread* worker) REQUIRES(m_onSchedulingThread) override;
    PlacementReason findLoadReason(KelmGraph* graph, WorkThread* worker)
        REQUIRES(m_onSchedulingThread) override;

 private:
    void addDevice(WorkThread* worker) REQUIRES(m_onSchedulingThread);
    // The steps of mapResource() that feed the mapper.
    void forgetPass() REQUIRES(m_onSchedulingThread);
    void takeNewWorkers() REQUIRES(m_onSchedulingThread);
    void dropLeavingWorkers() REQUIRES(m_onSchedulingThread);
    void dropFailedWorkers() REQUIRES(m_onSchedulingThread);
    void takeNewGraphs() REQUIRES(m_onSchedulingThread);
    void dropLeavingGraphs() REQUIRES(m_onSchedulingThread);
    void updateDemand() REQUIRES(m_onSchedulingThread);
    void tellPendingStates() REQUIRES(m_onSchedulingThread);
    // The steps that turn the target into operations.
    void makeOperations(const MapResult& result) REQUIRES(m_onSchedulingThread);
    void makeOperations(WorkThread* worker, const std::set<KelmGraph*>& target)
        REQUIRES(m_onSchedulingThread);
    void logAdjustment(const std::vector<WorkerState>& states) REQUIRES(m_onSchedulingThread);
    std::string nameOf(KelmGraph* graph) REQUIRES(m_onSchedulingThread);

    GraphMapper m_graphMapper;
    // The graphs that the mapper knows, or has refused.
    std::set<KelmGraph*> m_mappedGraphs GUARDED_BY(m_onSchedulingThread);
    // The workers that have not been plugged out.
    std::set<WorkThread*> m_mappedWorkers GUARDED_BY(m_onSchedulingThread);
    // Those of them whose device is lost: the mapper does not know them any more, and they get no
    // graphs until they are plugged out.
    std::set<WorkThread*> m_lostWorkers GUARDED_BY(m_onSchedulingThread);
    // What this pass put in and took out; a dropped plan gives back no more than that.
    std::set<KelmGraph*> m_passNewGraphs GUARDED_BY(m_onSchedulingThread);
    std::set<KelmGraph*> m_passGoneGraphs GUARDED_BY(m_onSchedulingThread);
    std::set<WorkThread*> m_passGoneWorkers GUARDED_BY(m_onSchedulingThread);
};

}  // namespace kelm

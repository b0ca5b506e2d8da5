#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "scheduling/devices/DeviceSchedulerActive.h"
#include "scheduling/placement/PlacementPlanner.h"

namespace kelm {

// The device scheduler that moves a graph as soon as that gains more than it costs. The planner
// decides; this class draws the picture from graphs and workers, and turns the plan into
// operations. It plans at requests, when a device fails, while a graph starves up to ten times a
// second, and else as often as the planner asks.
//
// Threads, owns, locks: as the base.
class DeviceSchedulerAdaptive : public DeviceSchedulerActive {
 public:
    explicit DeviceSchedulerAdaptive(const char* name);
    ~DeviceSchedulerAdaptive() override;

    void setMaxGraphNumPerDevice(int number) override;
    void handleLoadGraphFail(KelmGraph* graph) REQUIRES(m_onSchedulingThread) override;
    void notifyStarving() EXCLUDES(m_requestMutex) override;

 protected:
    bool mapResource() REQUIRES(m_onSchedulingThread) override;
    void restoreScene() REQUIRES(m_onSchedulingThread) override;
    void handleLostWorker(WorkThread* worker) REQUIRES(m_onSchedulingThread) override;
    PlacementReason findLoadReason(KelmGraph* graph, WorkThread* worker)
        REQUIRES(m_onSchedulingThread) override;
    bool waitChangeRequestUntilTimeout() REQUIRES(m_onSchedulingThread)
        EXCLUDES(m_requestMutex) override;

 private:
    using Clock = std::chrono::steady_clock;

    struct KnownGraph {
        KelmGraph* graph = nullptr;
        double waitsSince = 0.0;  // a task, or its creator, for a device; 0: nobody
        double loadTime = 0.0;
        double cachedTime = 0.0;
    };
    struct KnownWorker {
        WorkThread* worker = nullptr;
        double speed = 1.0;
        bool lost = false;
        std::map<uint64_t, double> since;  // of the graphs that it runs
    };
    struct Load {
        uint64_t graph = 0;
        KelmGraph* key = nullptr;  // not followed
        uint64_t worker = 0;
        bool cached = false;
    };

    // What the commit of the last plan has changed.
    void settle() REQUIRES(m_onSchedulingThread);
    void noteLoads() REQUIRES(m_onSchedulingThread);
    void takeNewGraphs() REQUIRES(m_onSchedulingThread);
    void takeNewWorkers() REQUIRES(m_onSchedulingThread);
    void dropFailedWorkers() REQUIRES(m_onSchedulingThread);
    void drawPicture() REQUIRES(m_onSchedulingThread);
    void drawDevice(uint64_t id, KnownWorker& known) REQUIRES(m_onSchedulingThread);
    void drawGraph(uint64_t id, KnownGraph& known) REQUIRES(m_onSchedulingThread);
    void measureSpeed(KnownWorker& known) REQUIRES(m_onSchedulingThread);
    void makeOperations() REQUIRES(m_onSchedulingThread);
    void unloadLeavingGraphs() REQUIRES(m_onSchedulingThread);
    void tellPendingStates() REQUIRES(m_onSchedulingThread);
    uint64_t findWorker(WorkThread* worker) const REQUIRES(m_onSchedulingThread);

    PlacementPlanner m_planner GUARDED_BY(m_onSchedulingThread);
    PlacementPicture m_picture GUARDED_BY(m_onSchedulingThread);
    PlacementPlan m_plan GUARDED_BY(m_onSchedulingThread);
    // By graph id, and by a number in the order of arrival: the order of creation.
    std::map<uint64_t, KnownGraph> m_graphs GUARDED_BY(m_onSchedulingThread);
    std::map<uint64_t, KnownWorker> m_known GUARDED_BY(m_onSchedulingThread);
    uint64_t m_lastWorker GUARDED_BY(m_onSchedulingThread) = 0;
    // Of the plan at work: not to be followed after its commit.
    std::set<uint64_t> m_leavingGraphs GUARDED_BY(m_onSchedulingThread);
    std::set<uint64_t> m_leavingWorkers GUARDED_BY(m_onSchedulingThread);
    std::map<KelmGraph*, size_t> m_drawn GUARDED_BY(m_onSchedulingThread);  // in the picture
    // The workers that failed to load a graph, by graph, until one has loaded it.
    std::map<uint64_t, std::set<uint64_t>> m_refusals GUARDED_BY(m_onSchedulingThread);
    std::vector<Load> m_loads GUARDED_BY(m_onSchedulingThread);
    double m_now GUARDED_BY(m_onSchedulingThread) = 0.0;
    Clock::time_point m_lastPass GUARDED_BY(m_onSchedulingThread);
    uint32_t m_slots = 1;  // fixed before the start
    bool m_starving GUARDED_BY(m_requestMutex) = false;
};

}  // namespace kelm

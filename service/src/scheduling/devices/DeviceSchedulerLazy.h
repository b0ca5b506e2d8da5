#pragma once

#include <map>
#include <set>
#include <vector>

#include "scheduling/devices/DeviceSchedulerBase.h"

namespace kelm {

// A device scheduler that acts on requests only. Before each plan it asks every worker anew for its
// graphs, so that a load that failed and a worker that was lost leave nothing to repair: what they
// had taken is free again in the next view.
//
// Threads, owns, locks: as the base.
class DeviceSchedulerLazy : public DeviceSchedulerBase {
 public:
    explicit DeviceSchedulerLazy(const char* name) : DeviceSchedulerBase(name) {}

 protected:
    // Turns the sets into operations; they are committed if the result is true.
    virtual bool mapResource() REQUIRES(m_onSchedulingThread) = 0;

    void schedule() REQUIRES(m_onSchedulingThread) override;
    void handleLostWorker(WorkThread* worker) REQUIRES(m_onSchedulingThread) override;

    // One pass, from the requests to the answers.
    void makePass() REQUIRES(m_onSchedulingThread);

    // For plans. The worker that is taken is not idle any more; there must be one.
    WorkThread* takeIdleWorker() REQUIRES(m_onSchedulingThread);
    // Workers that this pass unloads, but for the lost ones.
    void makeIdle(const std::vector<WorkThread*>& workers) REQUIRES(m_onSchedulingThread);

    // The workers that stay or come, without a graph and by graph. Rebuilt before each plan.
    std::set<WorkThread*> m_idleWorkers GUARDED_BY(m_onSchedulingThread);
    std::map<KelmGraph*, std::vector<WorkThread*>> m_graphWorkers GUARDED_BY(m_onSchedulingThread);
    // Graphs that this pass takes off lost workers, but for those that are to be unloaded anyway.
    std::set<KelmGraph*> m_strandedGraphs GUARDED_BY(m_onSchedulingThread);

 private:
    // False when the thread is to end.
    bool waitChangeRequest() REQUIRES(m_onSchedulingThread) EXCLUDES(m_requestMutex);
    void collectAndClassify() REQUIRES(m_onSchedulingThread);
    void classify(WorkThread* worker) REQUIRES(m_onSchedulingThread);
    void strand(KelmGraph* graph, WorkThread* worker) REQUIRES(m_onSchedulingThread);

    // Held workers whose device is lost. They refuse every load, so they are never idle.
    std::set<WorkThread*> m_lostWorkers GUARDED_BY(m_onSchedulingThread);
};

}  // namespace kelm

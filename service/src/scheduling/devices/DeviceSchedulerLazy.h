#pragma once

#include <map>
#include <set>
#include <vector>

#include "scheduling/devices/DeviceSchedulerBase.h"

namespace kelm {

// A device scheduler that acts on requests only. Before each plan it asks the workers anew who is
// idle and who runs what.
//
// Threads, owns, locks: as the base.
class DeviceSchedulerLazy : public DeviceSchedulerBase {
 public:
    explicit DeviceSchedulerLazy(const char* name) : DeviceSchedulerBase(name) {}

 protected:
    // Turns the sets into operations; they are committed if the result is true.
    virtual bool mapResource() REQUIRES(m_onSchedulingThread) = 0;

    void schedule() REQUIRES(m_onSchedulingThread) override;

    // The workers that stay or come, without a graph and by graph. Rebuilt before each plan.
    std::set<WorkThread*> m_idleWorkers GUARDED_BY(m_onSchedulingThread);
    std::map<KelmGraph*, std::vector<WorkThread*>> m_graphWorkers GUARDED_BY(m_onSchedulingThread);

 private:
    // False when the thread is to end.
    bool waitChangeRequest() EXCLUDES(m_requestMutex);
    void collectAndClassify() REQUIRES(m_onSchedulingThread);
    void classify(WorkThread* worker) REQUIRES(m_onSchedulingThread);
};

}  // namespace kelm

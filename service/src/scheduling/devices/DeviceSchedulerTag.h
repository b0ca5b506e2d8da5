#pragma once

#include <map>
#include <string>

#include "scheduling/devices/DeviceSchedulerLazy.h"

namespace kelm {

// Serves graphs that carry a tag. Each tag has a number of devices reserved, its headcount; a graph
// takes all that its tag has left and that are idle, and has them to itself until it is unloaded.
// The graph that holds a tag also gets what comes free later, without asking.
//
// Threads, owns, locks: as the base.
class DeviceSchedulerTag : public DeviceSchedulerLazy {
 public:
    explicit DeviceSchedulerTag(const char* name) : DeviceSchedulerLazy(name) {}
    ~DeviceSchedulerTag() override;

    // Tags and their headcounts.
    void setTagMap(std::map<std::string, unsigned long>& tags) override { m_headcounts = tags; }
    void handleLoadGraphFail(KelmGraph* graph) REQUIRES(m_onSchedulingThread) override;

 protected:
    bool mapResource() REQUIRES(m_onSchedulingThread) override;
    std::string describe(KelmGraph* graph) override;
    PlacementReason findLoadReason(KelmGraph*, WorkThread*)
        REQUIRES(m_onSchedulingThread) override {
        return PlacementReason::Tag;
    }
    PlacementLack findLack(KelmGraph* graph) REQUIRES(m_onSchedulingThread) override;

 private:
    void countFreeHeads() REQUIRES(m_onSchedulingThread);
    void handleUnloadGraph() REQUIRES(m_onSchedulingThread);
    void handleRemoveWorker() REQUIRES(m_onSchedulingThread);
    void handleLoadGraph() REQUIRES(m_onSchedulingThread);
    void handlePendingGraph() REQUIRES(m_onSchedulingThread);
    void releaseTag(KelmGraph* graph) REQUIRES(m_onSchedulingThread);
    // Loads on as many idle workers as `free` allows, and lowers it by their number.
    void makeLoads(KelmGraph* graph, unsigned long& free) REQUIRES(m_onSchedulingThread);

    std::map<std::string, unsigned long> m_headcounts;  // fixed before start()
    // The headcount still free for each tag in this pass, and 0 for tags that were asked for and
    // are unknown. Never kept from pass to pass: it is the headcount less the workers that hold the
    // tag's graphs, so that it is right whatever became of the loads and the workers.
    std::map<std::string, unsigned long> m_tagMap GUARDED_BY(m_onSchedulingThread);
    // The graph that holds the tag, until it is unloaded or its first load fails.
    std::map<std::string, KelmGraph*> m_tagGraphs GUARDED_BY(m_onSchedulingThread);
};

}  // namespace kelm

#include "scheduling/devices/DeviceSchedulerTag.h"

#include <algorithm>

#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// Clients choose the tags that they ask for: only so many unknown ones are remembered.
constexpr size_t kMaxKnownTags = 1000;

}  // namespace

// Here and not in the base: the thread uses the fields of this class.
DeviceSchedulerTag::~DeviceSchedulerTag() { join(); }

// The worker has forgotten a failed load by now, so the next count finds its headcount free.
void DeviceSchedulerTag::handleLoadGraphFail(KelmGraph* graph) {
    releaseTag(graph);
    // Deliberate: an unknown tag that was refused counts from now on as one without devices.
    if (m_tagMap.size() < kMaxKnownTags) m_tagMap.try_emplace(graph->getTag(), 0);
}

// What frees devices and headcount comes before what takes them; new graphs come before holders
// that would take more.
bool DeviceSchedulerTag::mapResource() {
    countFreeHeads();
    handleUnloadGraph();
    handleRemoveWorker();
    handleLoadGraph();
    handlePendingGraph();
    return true;
}

// Workers that leave in this pass are not in the view, so what they held is free.
void DeviceSchedulerTag::countFreeHeads() {
    for (const auto& [tag, headcount] : m_headcounts) m_tagMap[tag] = headcount;
    for (const auto& [graph, workers] : m_graphWorkers) {
        unsigned long& free = m_tagMap[graph->getTag()];
        // Never below 0: the count is unsigned, and a wrapped one would give the tag every idle
        // device.
        free -= std::min<unsigned long>(free, workers.size());
    }
}

// The workers that come free count as idle at once: a load that follows on one of them waits there
// for the unload.
void DeviceSchedulerTag::handleUnloadGraph() {
    for (KelmGraph* graph : m_unloadGraphs) {
        const auto entry = m_tagMap.find(graph->getTag());
        if (entry == m_tagMap.end()) {
            // No device holds it, or the count above would have made an entry. The commit answers
            // the unload.
            LOG_ERROR("Error: invalid graph tag '%s'", escapeControls(graph->getTag()));
            continue;
        }
        releaseTag(graph);
        const auto loaded = m_graphWorkers.extract(graph);
        if (loaded.empty()) continue;
        for (WorkThread* worker : loaded.mapped()) makeUnload(graph, worker, false);
        makeIdle(loaded.mapped());
        entry->second += loaded.mapped().size();
    }
}

// Only the holder frees the tag: a second graph of it may be loaded and unloaded meanwhile.
void DeviceSchedulerTag::releaseTag(KelmGraph* graph) {
    const auto holder = m_tagGraphs.find(graph->getTag());
    if (holder != m_tagGraphs.end() && holder->second == graph) m_tagGraphs.erase(holder);
}

void DeviceSchedulerTag::handleRemoveWorker() {
    for (WorkThread* worker : m_removeWorkers) makePlugout(worker);
}

// A graph that gets no operation here fails at the end of the pass, since no device holds it.
void DeviceSchedulerTag::handleLoadGraph() {
    for (KelmGraph* graph : m_loadGraphs) {
        if (m_idleWorkers.empty()) return;
        const auto entry = m_tagMap.find(graph->getTag());
        if (entry == m_tagMap.end()) {
            LOG_ERROR("Error: invalid graph tag '%s'", escapeControls(graph->getTag()));
            continue;
        }
        if (entry->second == 0) {
            LOG_ERROR("Error: no headcount for graph tag '%s'", escapeControls(graph->getTag()));
            continue;
        }
        makeLoads(graph, entry->second);
        // The first one stays the holder when a second graph of the tag takes what it left.
        m_tagGraphs.try_emplace(graph->getTag(), graph);
    }
}

// After a device was lost or a new one came.
void DeviceSchedulerTag::handlePendingGraph() {
    for (auto& [tag, free] : m_tagMap) {
        if (m_idleWorkers.empty()) return;
        const auto holder = m_tagGraphs.find(tag);
        if (holder != m_tagGraphs.end()) makeLoads(holder->second, free);
    }
}

void DeviceSchedulerTag::makeLoads(KelmGraph* graph, unsigned long& free) {
    for (; free > 0 && !m_idleWorkers.empty(); --free) {
        makeLoad(graph, takeIdleWorker());
    }
}

PlacementLack DeviceSchedulerTag::findLack(KelmGraph* graph) {
    const auto free = m_tagMap.find(graph->getTag());
    const bool hasQuota = free != m_tagMap.end() && free->second > 0;
    return hasQuota ? PlacementLack::Devices : PlacementLack::Quota;
}

std::string DeviceSchedulerTag::describe(KelmGraph* graph) {
    return DeviceSchedulerLazy::describe(graph) + " graphTag=" + escapeControls(graph->getTag());
}

}  // namespace kelm

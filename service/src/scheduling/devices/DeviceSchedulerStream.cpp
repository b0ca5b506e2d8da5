#include "scheduling/devices/DeviceSchedulerStream.h"

#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

// Here and not in the base: the thread uses the fields of this class.
DeviceSchedulerStream::~DeviceSchedulerStream() { join(); }

// The client is told, and may destroy the graph: it must not be placed later.
void DeviceSchedulerStream::handleLoadGraphFail(KelmGraph* graph) {
    m_displacedGraphs.erase(graph);
}

// What frees devices comes before what takes them, and running graphs are served before new ones.
// Always true: what finds no device fails or waits, and the plan for the rest is good.
bool DeviceSchedulerStream::mapResource() {
    forgetPlacedGraphs();
    handleUnloadGraph();
    handleRemoveWorker();
    displace(m_strandedGraphs);
    placeDisplacedGraphs();
    handleLoadGraph();
    return true;
}

// By what the workers hold, not by what was planned.
void DeviceSchedulerStream::forgetPlacedGraphs() {
    std::erase_if(m_displacedGraphs, [this](KelmGraph* graph) REQUIRES(m_onSchedulingThread) {
        return m_graphWorkers.contains(graph);
    });
}

// The workers that come free count as idle at once: a load that follows on one of them waits there
// for the unload.
void DeviceSchedulerStream::handleUnloadGraph() {
    for (KelmGraph* graph : m_unloadGraphs) {
        m_displacedGraphs.erase(graph);  // its record may be destroyed after the answer
        const auto loaded = m_graphWorkers.extract(graph);
        if (loaded.empty()) {
            LOG_ERROR("Error: cannot find loaded graph %s", escapeControls(graph->getName()));
            continue;
        }
        for (WorkThread* worker : loaded.mapped()) makeUnload(graph, worker, false);
        makeIdle(loaded.mapped());
    }
}

void DeviceSchedulerStream::handleRemoveWorker() {
    for (WorkThread* worker : m_removeWorkers) {
        // Its graphs are read now: once the plug-out has been waited for it may be destroyed.
        makePlugout(worker);
        displace(worker->getGraphs());
    }
}

void DeviceSchedulerStream::displace(const std::set<KelmGraph*>& graphs) {
    for (KelmGraph* graph : graphs) {
        if (needsNewWorker(graph)) m_displacedGraphs.insert(graph);
    }
}

// Not one that is to be unloaded, nor one that this pass loads anyway or that another worker has.
bool DeviceSchedulerStream::needsNewWorker(KelmGraph* graph) {
    return !m_unloadGraphs.contains(graph) && !m_loadGraphs.contains(graph) &&
           !m_graphWorkers.contains(graph);
}

// Before new graphs: a displaced one has clients that run. It stays in the set until it is seen on
// a worker, as its load may fail.
void DeviceSchedulerStream::placeDisplacedGraphs() {
    for (KelmGraph* graph : m_displacedGraphs) {
        if (m_idleWorkers.empty()) return;
        makeLoad(graph, takeIdleWorker());
    }
}

// A graph that gets no operation here fails at the end of the pass, since no device holds it.
void DeviceSchedulerStream::handleLoadGraph() {
    for (KelmGraph* graph : m_loadGraphs) {
        if (m_idleWorkers.empty()) return;
        makeLoad(graph, takeIdleWorker());
    }
}

// Every device that is set aside has a stream.
PlacementLack DeviceSchedulerStream::findLack(KelmGraph* /*graph*/) {
    return m_workers.empty() ? PlacementLack::Devices : PlacementLack::Quota;
}

std::string DeviceSchedulerStream::describe(KelmGraph* graph) {
    return DeviceSchedulerLazy::describe(graph) +
           " streamId=" + escapeControls(graph->getStreamId());
}

}  // namespace kelm

// What the graph manager tells those who look into the running service.
#include "managers/GraphManager.h"
#include "protocol/src/InfoPackage.h"
#include "records/KelmGraph.h"
#include "reporting/ReportPart.h"
#include "utils/StringHelper.h"

namespace kelm {

namespace {

void fillRow(KelmGraph& graph, InfoGraphRow& row) {
    row.graphId = graph.getId();
    StringHelper::copyStringSafe(row.graphName, graph.getName());
    row.fpsIn = graph.getFpsIn();
    row.fpsOut = graph.getFpsOut();
    row.runningDeviceNum = graph.getRunningDeviceNum();
    row.inferenceTimes = graph.getInferenceTimes();
    row.waitingTaskNum = graph.getNumWaitTasks();
    for (const std::string& name : graph.getClientNames()) {
        if (row.clientNum == kPackageClients) break;
        StringHelper::copyStringSafe(row.clientNames[row.clientNum++], name);
    }
}

}  // namespace

void GraphManager::enqueueQueryGraphStatus(const std::shared_ptr<KelmStatus>& status) {
    m_pool.post([this, status] { queryGraphStatus(status); });
}

void GraphManager::queryGraphStatus(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, "GraphManager", [this](KelmStatus& record) {
        MutexLock lock(m_mutex);
        for (KelmGraph* graph : m_loadedGraphs) {
            record.graphNames.push_back(graph->getName());
            record.graphFpsIn.push_back(graph->getFpsIn());
            record.graphFpsOut.push_back(graph->getFpsOut());
        }
    });
}

void GraphManager::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_pool.postNotice([this, package] { updateInfoPackage(package); });
}

void GraphManager::updateInfoPackage(InfoPackage* package) {
    reportPackagePart("GraphManager", [this, package] {
        MutexLock lock(m_mutex);
        for (KelmGraph* graph : m_loadedGraphs) {
            if (package->graphCount == kPackageGraphs) break;
            fillRow(*graph, package->graphs[package->graphCount++]);
        }
    });
}

}  // namespace kelm

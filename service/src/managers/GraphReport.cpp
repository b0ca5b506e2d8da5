#include "managers/GraphReport.h"

#include <chrono>
#include <string>

#include "protocol/src/InfoPackage.h"
#include "records/KelmGraph.h"
#include "reporting/KelmStatus.h"
#include "utils/Log.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"
#include "utils/TextTable.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

constexpr size_t kGraphLabelWidth = 12;
constexpr size_t kGraphCellWidth = 17;

std::string formatPendingTime(KelmGraph& graph) {
    KelmGraph::TimePoint start;
    if (!graph.getStartPendingTime(start)) return "00:00:00";
    const auto pending = std::chrono::system_clock::now() - start;
    return formatDurationString(std::chrono::duration_cast<std::chrono::seconds>(pending));
}

struct Row {
    const char* label;
    std::string (*cell)(KelmGraph& graph);
};

constexpr Row kRows[] = {
    {"graphId", [](KelmGraph& graph) { return std::to_string(graph.getId()); }},
    {"graphName", [](KelmGraph& graph) { return shortenText(graph.getName(), kGraphCellWidth); }},
    {"fpsIn", [](KelmGraph& graph) { return formatFixed(graph.getFpsIn(), 2); }},
    {"fpsOut", [](KelmGraph& graph) { return formatFixed(graph.getFpsOut(), 2); }},
    {"inferTimes", [](KelmGraph& graph) { return std::to_string(graph.getInferenceTimes()); }},
    {"waitTaskNum", [](KelmGraph& graph) { return std::to_string(graph.getNumWaitTasks()); }},
    {"isPending",
     [](KelmGraph& graph) -> std::string { return graph.isPending() ? "True" : "False"; }},
    {"pendingTime", &formatPendingTime},
    {"outCycleNum", [](KelmGraph& graph) { return std::to_string(graph.getOutCycleNum()); }},
    {"avgInferTime", [](KelmGraph& graph) { return formatFixed(graph.getAvgInferTime(), 2); }},
    {"devReqNum", [](KelmGraph& graph) { return formatFixed(graph.getDevReqNum(), 2); }},
    {"deviceNum",
     [](KelmGraph& graph) {
         return std::to_string(graph.getCachedDeviceNum()) + " / " +
                std::to_string(graph.getRunningDeviceNum());
     }},
    {"graphTag", [](KelmGraph& graph) { return shortenText(graph.getTag(), kGraphCellWidth); }},
    {"streamId",
     [](KelmGraph& graph) { return shortenText(graph.getStreamId(), kGraphCellWidth); }},
};

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

void printGraphFps(const std::vector<KelmGraph*>& graphs) {
    std::string text = StringHelper::format("GraphFps(count=%lu):\n", graphs.size());
    for (KelmGraph* graph : graphs) {
        text += " [" + escapeControls(graph->getName()) + "] = (in) " +
                formatFixed(graph->getFpsIn(), 2) + " (out) " + formatFixed(graph->getFpsOut(), 2) +
                "\n";
    }
    LOG_INFO("%s", text);
}

void printGraphSnapshot(const std::vector<KelmGraph*>& graphs) {
    TextTable table(kGraphLabelWidth, kGraphCellWidth);
    for (const Row& row : kRows) {
        std::vector<std::string> cells;
        cells.reserve(graphs.size());
        for (KelmGraph* graph : graphs) cells.push_back(row.cell(*graph));
        table.row(row.label, cells);
    }
    table.rule(graphs.size());
    LOG_INFO("%s", "GraphSnapshot(RegularPrint):\n" + table.text());
}

void fillGraphStatus(const std::vector<KelmGraph*>& graphs, KelmStatus& status) {
    for (KelmGraph* graph : graphs) {
        status.graphNames.push_back(graph->getName());
        status.graphFpsIn.push_back(graph->getFpsIn());
        status.graphFpsOut.push_back(graph->getFpsOut());
    }
}

void fillGraphRows(const std::vector<KelmGraph*>& graphs, InfoPackage& package) {
    for (KelmGraph* graph : graphs) {
        if (package.graphCount == kPackageGraphs) break;  // the rest has no row
        fillRow(*graph, package.graphs[package.graphCount++]);
    }
}

}  // namespace kelm

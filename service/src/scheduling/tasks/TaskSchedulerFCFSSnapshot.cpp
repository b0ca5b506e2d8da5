#include <chrono>
#include <set>

#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "scheduling/tasks/TaskQueueBase.h"
#include "scheduling/tasks/TaskSchedulerFCFS.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {

void TaskSchedulerFCFS::onPrintInfo() { snapShotUnlocked("Regular"); }

void TaskSchedulerFCFS::snapShotUnlocked(const char* label) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    std::string text = std::string("TaskSnapshot(") + label + ")\n";
    text += "----------------------------- " + getName() + " ------------------------------\n";
    text += "Time: " + getCurrentTime() + "\n";
    {
        MutexLock lock(m_mutex);
        std::set<KelmGraph*> graphs;
        for (const auto& entry : m_taskQueues) graphs.insert(entry.first);
        for (const auto& entry : m_waitingWorkers) {
            if (!entry.second.empty()) graphs.insert(entry.first);
        }
        for (KelmGraph* const graph : graphs) appendGraphUnsafe(text, graph);
    }
    const auto cost = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    text += "TaskSnapshot costs " + std::to_string(cost.count()) + " ms\n" + std::string(71, '-');
    LOG_INFO("%s", text);
}

void TaskSchedulerFCFS::appendGraphUnsafe(std::string& text, KelmGraph* graph) {
    text += "GraphName: [" + escapeControls(graph->getName()) + "]\n";
    const auto queue = m_taskQueues.find(graph);
    text += queue != m_taskQueues.end() ? "  " + queue->second->getDescription()
                                        : "  WaitingTasks(numWaitTasks=0):\n";
    const auto entry = m_waitingWorkers.find(graph);
    if (entry == m_waitingWorkers.end() || entry->second.empty()) {
        text += "  WaitingWorkers(numWaitWorkers=0):\n";
        return;
    }
    const WorkerList& workers = entry->second;
    text += "  WaitingWorkers(numWaitWorkers=" + std::to_string(workers.size()) + "): ";
    for (size_t i = 0; i < workers.size(); ++i) text += "[" + workers.at(i)->getName() + "]";
    text += "\n";
}

}  // namespace kelm

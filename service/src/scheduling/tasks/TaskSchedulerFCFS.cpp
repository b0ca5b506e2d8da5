#include "scheduling/tasks/TaskSchedulerFCFS.h"

#include <chrono>
#include <set>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "execution/WorkThread.h"
#include "records/ClientDirectory.h"
#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "records/StarvingGraphListener.h"
#include "reporting/InfoCollector.h"
#include "scheduling/tasks/TaskQueueFIFO.h"
#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

using Listener = Port<TaskScheduleListener>;

// Null also when the port has no provider, as in a test of this class alone.
KelmClient* findClient(uint64_t clientId) {
    return Port<ClientDirectory>::ask<&ClientDirectory::getClientById>(
        static_cast<KelmClient*>(nullptr), clientId);
}

void destroyTask(KelmTask* task) {
    Listener::notify<&TaskScheduleListener::enqueueDestroyTask>(task);
}

void destroyCanceledTask(KelmTask* task) {
    LOG_INFO("Destroy task(%lu), reason=canceled", task->getId());
    destroyTask(task);
}

// So many tasks wait that more devices may be needed.
constexpr uint32_t kLateTasks = 16;

// Told of each task without a device, since the number that waits may be too high, and once as a
// backlog grows. Graphs with a tag or a stream have a device at all times, or none to get.
bool isStarving(KelmGraph& graph) {
    return (graph.getRunningDeviceNum() == 0 || graph.getNumWaitTasks() == kLateTasks) &&
           graph.getTag().empty() && graph.getStreamId().empty();
}

// A client that is found stays for this call: it is destroyed after its last task, and this task
// still is.
void decreaseClientWaitingInferenceNum(const KelmTask* task) {
    // Outside m_mutex: the directory has a lock of its own.
    KelmClient* const client = findClient(task->getClientId());
    if (client != nullptr) client->decreaseWaitingInferenceNum();
}

}  // namespace

// Ends a hand-over on every way out; a pool that is stopped throws.
class TaskSchedulerFCFS::HandOverScope {
 public:
    explicit HandOverScope(TaskSchedulerFCFS& scheduler) : m_scheduler(scheduler) {}
    ~HandOverScope() { m_scheduler.endHandOver(); }
    HandOverScope(const HandOverScope&) = delete;
    HandOverScope& operator=(const HandOverScope&) = delete;

 private:
    TaskSchedulerFCFS& m_scheduler;
};

TaskSchedulerFCFS::TaskSchedulerFCFS(const std::string& name)
    : TaskSchedulerFCFS(name, ForDerived{}) {
    startPrinting();
}

TaskSchedulerFCFS::TaskSchedulerFCFS(const std::string& name, ForDerived)
    : TaskSchedulerBase(name),
      m_snapshotBase(ServiceConfigParser::instance().getTaskSnapshotMode() == "base"),
      m_trace(ServiceConfigParser::instance().isTaskSchedulerDebugProcessEnabled()) {
    // Tasks that wait in this scheduler, over all graphs and clients. 0 and below: no limit.
    const int limit = ServiceConfigParser::instance().getServerMaxTaskNumber();
    if (limit > 0) m_maxWaitTasks = static_cast<uint64_t>(limit);
}

TaskSchedulerFCFS::~TaskSchedulerFCFS() { shutDown(); }

// Last in a constructor: from here on the printer's thread may call.
void TaskSchedulerFCFS::startPrinting() {
    if (!m_snapshotBase) return;
    m_printing = true;
    (void)Port<InfoCollector>::ask<&InfoCollector::registerListener>(false, this);
}

// First in a destructor: the printer's thread and the pools end before any part of the object does.
void TaskSchedulerFCFS::shutDown() {
    if (std::exchange(m_printing, false)) {
        Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    }
    stopPools();
}

std::unique_ptr<TaskQueueBase> TaskSchedulerFCFS::createTaskQueue() {
    return std::make_unique<TaskQueueFIFO>();
}

// Without the mutex: tasks have one thread, so the count can only fall between this look and the
// queueing, and the limit is never exceeded by new tasks.
bool TaskSchedulerFCFS::hasRoom(uint64_t) { return m_maxWaitTasks > m_numWaitTasks.load(); }

bool TaskSchedulerFCFS::acceptTask(KelmTask* task) {
    if (task->isCanceled()) {
        LOG_INFO("[TaskSchedule] Abort schedule canceled task(%lu)", task->getId());
        return false;
    }
    if (hasRoom(task->getClientId())) return true;
    LOG_WARN("[TaskSchedule] Exceed maxWaitTaks(%lu) at service end", m_maxWaitTasks);
    LOG_STEP("[Schedule#1] WARN: exceed maxWaitTaks(%lu)", m_maxWaitTasks);
    return false;
}

void TaskSchedulerFCFS::scheduleTask(KelmTask* task) {
    const uint64_t taskId = task->getId();  // once handed on, the task may be destroyed
    KelmGraph* const graph = task->getGraph();
    graph->countArrival();
    LOG_STEP("[Schedule#0] schedule task(%lu) start", taskId);
    if (!acceptTask(task)) {
        LOG_STEP("[Schedule#2] schedule task(%lu) finish", taskId);
        Listener::notify<&TaskScheduleListener::enqueueScheduleTaskDone>(task, false);
        return;
    }
    // Before the task is handed on: its end may be reported right after that, and must come second.
    Listener::notify<&TaskScheduleListener::enqueueScheduleTaskDone>(task, true);
    if (WorkThread* const worker = takeWorkerOrQueue(task, false)) {
        const HandOverScope scope(*this);
        LOG_STEP("[Schedule#1] task(%lu) -> worker(%s)", taskId, worker->getName());
        // In and out as a pair: the rates count this task too, and the number of those that wait
        // stays right.
        graph->updateFpsIn();
        worker->enqueueLoadTensor(task);
        graph->updateFpsOut();
    } else {
        LOG_STEP("[Schedule#1] no worker for task(%lu) (nWaitTasks=%lu)", taskId,
                 m_numWaitTasks.load());
    }
    LOG_STEP("[Schedule#2] schedule task(%lu) finish", taskId);
}

// The limit is not asked: the task was accepted when it was first scheduled. Handed on at once it
// does not count for the rates again; queued it counts like any task that waits.
void TaskSchedulerFCFS::rescheduleTask(KelmTask* task) {
    const uint64_t taskId = task->getId();
    LOG_STEP("[Reschedule#0] re-schedule task(%lu) start", taskId);
    if (task->isCanceled()) {
        LOG_INFO("[TaskSchedule] Abort re-schedule canceled task(%lu)", taskId);
        Listener::notify<&TaskScheduleListener::enqueueRescheduleTaskDone>(task, false);
        LOG_STEP("[Reschedule#2] re-schedule task(%lu) finish", taskId);
        return;
    }
    Listener::notify<&TaskScheduleListener::enqueueRescheduleTaskDone>(task, true);
    if (WorkThread* const worker = takeWorkerOrQueue(task, true)) {
        const HandOverScope scope(*this);
        LOG_STEP("[Reschedule#1] task(%lu) -> worker(%s)", taskId, worker->getName());
        worker->enqueueLoadTensor(task);
    } else {
        LOG_STEP("[Reschedule#1] no worker for task(%lu) (nWaitTasks=%lu)", taskId,
                 m_numWaitTasks.load());
    }
    LOG_STEP("[Reschedule#2] re-schedule task(%lu) finish", taskId);
}

// A first look without the search for the client, which only a task that must wait needs.
WorkThread* TaskSchedulerFCFS::takeWorkerOrQueue(KelmTask* task, bool head) {
    {
        MutexLock lock(m_mutex);
        WorkThread* const worker = dequeueWaitingWorkerUnsafe(*task);
        if (worker != nullptr) return worker;
    }
    return enqueueWaitingTask(task, head);
}

WorkThread* TaskSchedulerFCFS::dequeueWaitingWorkerUnsafe(const KelmTask& task) {
    KelmGraph* const graph = task.getGraph();
    const auto entry = m_waitingWorkers.find(graph);
    if (entry == m_waitingWorkers.end() || entry->second.empty()) return nullptr;
    CR_ASSERT(m_handOver.worker == nullptr, "tasks have one thread");
    m_handOver = {takeWorkerUnsafe(entry->second, task), graph, 0};
    return m_handOver.worker;
}

WorkThread* TaskSchedulerFCFS::takeWorkerUnsafe(WorkerList& workers, const KelmTask&) {
    return workers.popFront();
}

WorkThread* TaskSchedulerFCFS::enqueueWaitingTask(KelmTask* task, bool head) {
    // The client cannot be destroyed while the task lives, and the task is this thread's until it
    // is queued.
    KelmClient* const client = findClient(task->getClientId());
    if (client == nullptr) {
        destroyTask(task);
        return nullptr;
    }
    const int32_t subclass = task->getGraph()->getInterfaceSubclass();
    bool starves = false;
    bool queued = false;
    {
        MutexLock lock(m_mutex);
        // When a graph departs its tasks are canceled before descheduleGraph() empties its queue. A
        // task that is not canceled here is queued before that; a canceled one would come after it
        // and stay queued for ever.
        if (!task->isCanceled()) {
            WorkThread* const worker = dequeueWaitingWorkerUnsafe(*task);
            if (worker != nullptr) return worker;
            enqueueWaitingTaskUnsafe(task, *client, head);
            queued = true;
            starves = isStarving(*task->getGraph());
        }
    }
    if (!queued) destroyCanceledTask(task);
    if (starves) {
        Port<StarvingGraphListener>::notify<&StarvingGraphListener::notifyGraphStarves>(subclass);
    }
    return nullptr;
}

void TaskSchedulerFCFS::enqueueWaitingTaskUnsafe(KelmTask* task, KelmClient& client, bool head) {
    KelmGraph* const graph = task->getGraph();
    std::unique_ptr<TaskQueueBase>& queue = m_taskQueues[graph];
    if (!queue) queue = createTaskQueue();
    // `head`: a task that a device has given back has waited before, and keeps its place ahead.
    queue->enqueue(task, head);
    m_numWaitTasks.fetch_add(1);
    noteQueuedUnsafe(task->getClientId());
    graph->updateFpsIn();
    client.increaseWaitingInferenceNum();
}

// The confirmations are given outside the lock: the worker locks too.
void TaskSchedulerFCFS::endHandOver() {
    HandOver ended;
    {
        MutexLock lock(m_mutex);
        ended = std::exchange(m_handOver, HandOver());
    }
    for (; ended.deferredAborts > 0; --ended.deferredAborts) {
        ended.worker->enqueueAbortApplyTaskDone(ended.graph);
    }
}

// No hand-over here: this is the pool of descheduleWorker(), so the worker cannot depart meanwhile.
void TaskSchedulerFCFS::scheduleWorker(WorkThread* worker, KelmGraph* graph) {
    LOG_STEP("[Schedule#0] schedule worker(%s) start", worker->getName());
    if (KelmTask* const task = takeTaskOrWait(worker, graph)) {
        LOG_STEP("[Schedule#1] task(%lu) -> worker(%s)", task->getId(), worker->getName());
        worker->enqueueLoadTensor(task);
    } else {
        LOG_STEP("[Schedule#1] no task for worker(%s)", worker->getName());
    }
    LOG_STEP("[Schedule#2] schedule worker(%s) finish", worker->getName());
}

// One lock over the look and the listing, or a task could be queued between them and wait for a
// worker that is listed already. No notice is given under it.
KelmTask* TaskSchedulerFCFS::takeTaskOrWait(WorkThread* worker, KelmGraph* graph) {
    for (;;) {
        KelmTask* task = nullptr;
        {
            MutexLock lock(m_mutex);
            task = dequeueWaitingTaskUnsafe(graph);
            if (task == nullptr) {
                m_waitingWorkers[graph].pushBack(worker);
                return nullptr;
            }
        }
        decreaseClientWaitingInferenceNum(task);
        // Looked at outside the lock, as it may be canceled at any time: a worker looks once more,
        // and has a canceled task destroyed.
        if (!task->isCanceled()) return task;
        destroyCanceledTask(task);
    }
}

KelmTask* TaskSchedulerFCFS::dequeueWaitingTaskUnsafe(KelmGraph* graph) {
    const auto entry = m_taskQueues.find(graph);
    KelmTask* const task = entry != m_taskQueues.end() ? entry->second->dequeue() : nullptr;
    if (task == nullptr) return nullptr;
    m_numWaitTasks.fetch_sub(1);
    noteLeftUnsafe(task->getClientId());
    graph->updateFpsOut();
    return task;
}

// One turn of the ring, which keeps the order of the others. A worker may be listed more than once:
// only its first entry is removed.
void TaskSchedulerFCFS::removeWaitingWorkerUnsafe(WorkThread* worker, KelmGraph* graph) {
    const auto entry = m_waitingWorkers.find(graph);
    if (entry == m_waitingWorkers.end()) return;
    WorkerList& workers = entry->second;
    bool found = false;
    for (size_t left = workers.size(); left > 0; --left) {
        WorkThread* const other = workers.popFront();
        if (other == worker && !found) {
            found = true;
        } else {
            workers.pushBack(other);
        }
    }
    if (workers.empty()) m_waitingWorkers.erase(entry);
}

// This runs on the pool of scheduleWorker(), so no task reaches the worker from there afterwards. A
// task event may hold the worker at this moment: then the confirmation waits for endHandOver().
void TaskSchedulerFCFS::descheduleWorker(WorkThread* worker, KelmGraph* graph) {
    // Named first: once confirmed, both may be destroyed.
    const std::string workerName = m_trace.isOn() ? worker->getName() : std::string();
    const std::string graphName = m_trace.isOn() ? graph->getName() : std::string();
    bool handedOver = false;
    {
        MutexLock lock(m_mutex);
        removeWaitingWorkerUnsafe(worker, graph);
        handedOver = m_handOver.worker == worker && m_handOver.graph == graph;
        if (handedOver) ++m_handOver.deferredAborts;
    }
    if (!handedOver) worker->enqueueAbortApplyTaskDone(graph);
    LOG_STEP("[Deschedule] deschedule worker(%s) with graph(%s) done", workerName,
             escapeControls(graphName));
}

void TaskSchedulerFCFS::descheduleTask(KelmTask* task) {
    const uint64_t taskId = task->getId();  // once answered, the task may be destroyed
    const bool removed = removeWaitingTask(task);
    Listener::notify<&TaskScheduleListener::enqueueDescheduleTaskDone>(task, removed);
    LOG_STEP("[Deschedule] deschedule task(%lu) %s", taskId, removed ? "success" : "failure");
}

// Deliberate: the graph's waiting count and the client's waiting number stay one too high for each
// task that is canceled out of a queue; only the service's own limit gets its place back.
bool TaskSchedulerFCFS::removeWaitingTask(KelmTask* task) {
    const uint64_t clientId = task->getClientId();  // once removed, the task may be destroyed
    MutexLock lock(m_mutex);
    const auto entry = m_taskQueues.find(task->getGraph());
    if (entry == m_taskQueues.end() || !entry->second->removeTask(task)) return false;
    m_numWaitTasks.fetch_sub(1);
    noteLeftUnsafe(clientId);
    return true;
}

std::unique_ptr<TaskQueueBase> TaskSchedulerFCFS::takeQueueUnsafe(KelmGraph* graph) {
    const auto entry = m_taskQueues.find(graph);
    if (entry == m_taskQueues.end()) return nullptr;
    std::unique_ptr<TaskQueueBase> queue = std::move(entry->second);
    m_taskQueues.erase(entry);
    // Only here and where a task leaves a queue is the count lowered: it is the sum of all queues.
    m_numWaitTasks.fetch_sub(queue->size());
    for (const uint64_t clientId : queue->getClientIds()) noteLeftUnsafe(clientId);
    return queue;
}

void TaskSchedulerFCFS::descheduleGraph(KelmGraph* graph) {
    // Named first: once confirmed, the graph may be destroyed.
    const std::string name = m_trace.isOn() ? graph->getName() : std::string();
    LOG_STEP("[Deschedule#0] deschedule graph(%s) start", escapeControls(name));
    // Emptied outside the lock: the end of its tasks notifies.
    std::unique_ptr<TaskQueueBase> queue;
    uint64_t workerNum = 0;
    {
        MutexLock lock(m_mutex);
        queue = takeQueueUnsafe(graph);
        const auto entry = m_waitingWorkers.find(graph);
        if (entry != m_waitingWorkers.end()) {
            workerNum = entry->second.size();
            m_waitingWorkers.erase(entry);
        }
    }
    if (queue) {
        LOG_STEP("[Deschedule#1] delete task queue for graph(%s)", escapeControls(name));
        queue.reset();  // destroys its tasks
    }
    if (workerNum > 0) {
        LOG_STEP("[Deschedule#2] erase %lu workers waiting for graph(%s)", workerNum,
                 escapeControls(name));
    }
    Listener::notify<&TaskScheduleListener::enqueueDescheduleGraphDone>(graph);
    LOG_STEP("[Deschedule#3] deschedule graph(%s) done", escapeControls(name));
}

void TaskSchedulerFCFS::onPrintInfo() { snapShotUnlocked("Regular"); }

// Takes the mutex by itself: the name tells that the caller does not hold it.
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

// The keys of m_taskQueues and of lists with workers are alive: both are erased before the graph's
// departure is confirmed.
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

#include "managers/TaskManager.h"

#include <utility>

#include "config/ServiceConfigParser.h"
#include "managers/ClientManager.h"
#include "managers/GraphManager.h"
#include "managers/ResultDispatcher.h"
#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "records/KelmTaskParam.h"
#include "reporting/ReportPart.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "scheduling/tasks/TaskSchedulerFactory.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/Tracer.h"

namespace kelm {

TaskManager::TaskManager(const std::string& name)
    : m_scheduler(TaskSchedulerFactory::createScheduler(
          ServiceConfigParser::instance().getTaskScheduler())),
      m_trace(ServiceConfigParser::instance().isTaskManagerDebugProcessEnabled()),
      m_registry(m_trace),
      m_pool(std::make_unique<SerialPool>(name, 10000, SerialPool::LIGHT)),
      m_destroyPool(std::make_unique<SerialPool>(name + "D", 1000, SerialPool::LIGHT)) {}

TaskManager::~TaskManager() {
    Port<TaskExchange>::disconnect();
    Port<TaskScheduleListener>::disconnect();
    m_stopping.store(true);
    m_pool.reset();       // its handlers use the scheduler
    m_scheduler.reset();  // its notices are dropped, now that the port is disconnected
    m_destroyPool.reset();
}

void TaskManager::enqueueCreateTask(Request request, std::unique_ptr<KelmTaskParam> taskParam) {
    m_pool->post([this, request = std::move(request), taskParam = std::move(taskParam)]() mutable {
        createTask(std::move(request), std::move(taskParam));
    });
}

void TaskManager::enqueueCancelTask(Request request) {
    m_pool->post(
        [this, request = std::move(request)]() mutable { cancelTask(std::move(request)); });
}

void TaskManager::enqueueQueryTaskStatus(Request request) {
    m_pool->post(
        [this, request = std::move(request)]() mutable { queryTaskStatus(std::move(request)); });
}

void TaskManager::enqueueQueryTaskScheduler(const std::shared_ptr<KelmStatus>& status) {
    m_pool->post([this, status] { queryTaskScheduler(status); });
}

// A notice, as are those below: the threads of devices and schedulers post them, and one that
// waited here for room could be the one that makes room.
void TaskManager::enqueueDestroyTask(KelmTask* task) {
    InlineTask end([this, task] {
        if (auto dying = m_registry.end(task)) finishTask(*dying);
    });
    task->mayWaitAtEnd() ? m_destroyPool->postOwn(std::move(end))
                         : m_destroyPool->postNotice(std::move(end));
}

void TaskManager::enqueueReturnTask(KelmTask* task) {
    m_pool->postNotice([this, task] { returnTask(task); });
}

void TaskManager::enqueueScheduleTaskDone(KelmTask* task, bool accepted) {
    m_pool->postNotice([this, task, accepted] { scheduleTaskDone(task, accepted); });
}

void TaskManager::enqueueRescheduleTaskDone(KelmTask* task, bool accepted) {
    m_pool->postNotice([this, task, accepted] { rescheduleTaskDone(task, accepted); });
}

void TaskManager::enqueueDescheduleTaskDone(KelmTask* task, bool removed) {
    m_pool->postNotice([this, task, removed] { descheduleTaskDone(task, removed); });
}

void TaskManager::enqueueDescheduleGraphDone(KelmGraph* graph) {
    m_pool->postNotice([this, graph] { descheduleGraphDone(graph); });
}

// Not by this manager's thread: a worker that waits for its next task is an idle device.
void TaskManager::enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) {
    m_scheduler->enqueueScheduleWorker(worker, graph);
}

void TaskManager::enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) {
    m_scheduler->enqueueDescheduleWorker(worker, graph);
}

void TaskManager::enqueueNotifyClientInDestroy(uint64_t clientId) {
    m_pool->postNotice([this, clientId] { notifyClientInDestroy(clientId); });
}

void TaskManager::enqueueNotifyGraphInDestroy(KelmGraph* graph) {
    m_pool->postNotice([this, graph] { notifyGraphInDestroy(graph); });
}

void TaskManager::createTask(Request request, std::unique_ptr<KelmTaskParam> taskParam) {
    KelmClient* client = nullptr;
    KelmGraph* graph = nullptr;
    const KelmError refusal = admitTask(request, client, graph);
    if (refusal != KELM_OK) {
        sendCreateTaskResponse(nullptr, refusal, std::move(request));
        if (taskParam->mayWaitAtEnd()) {
            m_destroyPool->postOwn(
                [taskParam = std::move(taskParam)]() mutable { taskParam.reset(); });
        }
        return;
    }
    const uint64_t taskId = m_nextTaskId.fetch_add(1);
    auto task = std::make_unique<KelmTask>(taskId, client, graph, taskParam.release(),
                                           &request.as<KelmMsgReqInferTask>());
    m_taskTraces.begin(taskId, graph->getId(), client->getId());
    // In the registry before the scheduler has it, whose answer may come first otherwise.
    KelmTask* const entered = task.release();
    m_registry.enter(entered, std::move(request));
    // Outside the registry's mutex, since it can block. The pin keeps the task until the scheduler
    // has answered, which comes as a job of this thread.
    m_scheduler->enqueueScheduleTask(entered);
}

KelmError TaskManager::admitTask(const Request& request, KelmClient*& client,
                                 KelmGraph*& graph) const {
    // The records that are found here live until the task has ended: neither is deleted before this
    // thread has counted its tasks, by a notice that queues behind this request.
    client = ClientManager::instance().findRequester(request);
    if (client == nullptr) {
        LOG_ERROR("Error: invalid clientId %lu", request.getClientId());
        return KELM_ERROR_INVALID_CLIENT;
    }
    // A bound for each client, so that one which sends without waiting does not fill the queues of
    // all.
    if (!client->allowInferTask()) {
        LOG_STEP("aggressive client(id:%lu) with too many task requests", client->getId());
        return KELM_ERROR_TOO_MANY_TASK;
    }
    const uint64_t graphId = request.as<KelmMsgReqInferTask>().graphId;
    graph = getGraphById(graphId);
    if (graph == nullptr) {
        LOG_ERROR("Error: invalid graphId %lu", graphId);
        return KELM_ERROR_INVALID_GRAPH;
    }
    return KELM_OK;
}

void TaskManager::scheduleTaskDone(KelmTask* task, bool accepted) {
    Request request;
    const int result = m_registry.takeScheduleRequest(task, request);
    if (result == -2) destroyTask(task);
    if (result != 0) return;
    if (accepted) {
        LOG_STEP("task(%lu) scheduled success, userParam=%p", task->getId(), request.getMessage());
        sendCreateTaskResponse(task, KELM_OK, std::move(request));
        unpinTask(task);  // last: a task that has run already is deleted by it
        return;
    }
    LOG_STEP("task(%lu) scheduled failed, userParam=%p, reason: KELM_ERROR_TOO_MANY_TASK.",
             task->getId(), request.getMessage());
    sendCreateTaskResponse(nullptr, KELM_ERROR_TOO_MANY_TASK, std::move(request));
    // The task only ends here; taking the pin off deletes it, after which nothing may read it.
    LOG_STEP("Destroy task(%lu), reason=scheduled failed", task->getId());
    destroyTask(task);
    unpinTask(task);
}

// Only a refusal matters. It means that the task has been canceled, so the client awaits no answer.
void TaskManager::rescheduleTaskDone(KelmTask* task, bool accepted) {
    if (accepted || !m_registry.verify(task)) return;
    LOG_STEP("Destroy task(%lu), reason=rescheduled failed", task->getId());
    destroyTask(task);
}

// A worker has given the task back unrun. Looked up first: a task that has ended meanwhile is not
// in the registry, and its pointer is not to be followed.
void TaskManager::returnTask(KelmTask* task) {
    if (!m_registry.verify(task)) return;
    if (task->isCanceled()) {
        LOG_STEP("Destroy task(%lu), reason=canceled", task->getId());
        destroyTask(task);
        return;
    }
    m_scheduler->enqueueRescheduleTask(task);
}

void TaskManager::cancelTask(Request request) {
    KelmError error = KELM_OK;
    KelmTask* task = m_registry.pinForCancel(getTaskOwner(request), request, error);
    if (task == nullptr) {
        sendCancelTaskResponse(false, error, std::move(request));
        return;
    }
    // The pin of the request keeps the task until descheduleTaskDone().
    // Deliberate: the cancel flag stays down, so a task that a worker holds runs to its end.
    m_scheduler->enqueueDescheduleTask(task);
}

void TaskManager::descheduleTaskDone(KelmTask* task, bool removed) {
    Request request;
    if (!m_registry.takeCancelRequest(task, request)) return;
    sendCancelTaskResponse(removed, KELM_OK, std::move(request));
    unpinTask(task);
}

void TaskManager::queryTaskStatus(Request request) {
    KelmError error = KELM_OK;
    const uint64_t taskId = request.as<KelmMsgReqQueryTaskStatus>().taskId;
    const int32_t status = m_registry.getStatus(getTaskOwner(request), taskId, error);
    sendQueryTaskStatusResponse(status, error, std::move(request));
}

void TaskManager::queryTaskScheduler(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, "TaskManager", [this](KelmStatus& record) {
        if (m_scheduler) record.taskSchedulerName = m_scheduler->getName();
    });
}

uint64_t TaskManager::getTaskOwner(const Request& request) {
    return ClientManager::instance().isOfAnotherUser(request) ? 0 : request.getClientId();
}

void TaskManager::destroyTask(KelmTask* task) {
    if (auto dying = m_registry.end(task)) endTask(*dying);
}

// The last to touch a task: the caller must not read it afterwards.
void TaskManager::unpinTask(KelmTask* task) {
    if (auto dying = m_registry.unpin(task)) endTask(*dying);
}

// Jobs of the first pool come here, which may be run by a thread that must not wait.
void TaskManager::endTask(const TaskRegistry::DyingTask& dying) {
    if (!dying.task->mayWaitAtEnd()) return finishTask(dying);
    m_destroyPool->postOwn([this, dying] { finishTask(dying); });
}

// Runs on either pool. Removed from the counts only after the deletion: client and graph, which the
// record refers to, may be destroyed as soon as their counts are 0.
void TaskManager::finishTask(const TaskRegistry::DyingTask& dying) {
    LOG_TASK("%s", dying.summary);
    // The sender of a done message ends the trace when that is written.
    if (isTracerOn() && !dying.task->hasTaskDoneResponse()) finishTaskLifeTrace(dying.id);
    delete dying.task;  // closes descriptors and unmaps, so under no mutex
    const TaskDepartures::Done done = m_registry.removed(dying);
    LOG_STEP("task(%lu) destroyed", dying.id);
    if (done.client) notifyClientDone(dying.clientId);
    if (done.graph) notifyGraphDone(dying.graph);
}

void TaskManager::notifyClientInDestroy(uint64_t clientId) {
    // Giving up a shared graph sends this notice too. It only cancels then: a count made while the
    // client can still create tasks would miss those, and the client's record would be destroyed
    // before them.
    const bool departing = !verifyClient(clientId);
    std::vector<KelmTask*> finished;
    const int count = m_registry.cancelTasksOf(clientId, departing, finished);
    // Outside the registry's mutex, which the end of a task takes.
    for (KelmTask* task : finished) destroyTask(task);
    if (departing && count == 0) notifyClientDone(clientId);
}

void TaskManager::notifyGraphInDestroy(KelmGraph* graph) {
    // The graph's end waits for the scheduler's answer also without tasks: its queues name the
    // graph.
    if (m_registry.cancelTasksOf(graph)) m_scheduler->enqueueDescheduleGraph(graph);
}

void TaskManager::descheduleGraphDone(KelmGraph* graph) {
    if (m_registry.confirmDescheduled(graph)) notifyGraphDone(graph);
}

void TaskManager::notifyClientDone(uint64_t clientId) {
    LOG_STEP("no task related with client(%lu), notify ClientManager", clientId);
    ClientManager::instance().enqueueNotifyAllTasksDone(clientId);
}

void TaskManager::notifyGraphDone(KelmGraph* graph) {
    LOG_STEP("no task related with graph(%s), notify GraphManager",
             escapeControls(graph->getName()));
    GraphManager::instance().enqueueNotifyAllTasksDone(graph);
}

bool TaskManager::waitIdleFor(std::chrono::milliseconds time) {
    return m_pool->waitIdleFor(time) && m_destroyPool->waitIdleFor(time);
}

bool TaskManager::verifyClient(uint64_t clientId) {
    return ClientManager::instance().verifyClient(clientId);
}

KelmGraph* TaskManager::getGraphById(uint64_t graphId) {
    return GraphManager::instance().getGraphById(graphId);
}

void TaskManager::sendCreateTaskResponse(KelmTask* task, KelmError error, Request request) {
    if (m_stopping.load()) return;
    ResultDispatcher::instance().enqueueSendCreateTaskResponse(task, error, std::move(request));
}

void TaskManager::sendCancelTaskResponse(bool success, KelmError error, Request request) {
    if (m_stopping.load()) return;
    ResultDispatcher::instance().enqueueSendCancelTaskResponse(success, error, std::move(request));
}

void TaskManager::sendQueryTaskStatusResponse(int32_t status, KelmError error, Request request) {
    if (m_stopping.load()) return;
    ResultDispatcher::instance().enqueueSendQueryTaskStatusResponse(status, error,
                                                                    std::move(request));
}

}  // namespace kelm

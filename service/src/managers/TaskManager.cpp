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

namespace kelm {

TaskManager::TaskManager(const std::string& name)
    : m_scheduler(TaskSchedulerFactory::createScheduler(
          ServiceConfigParser::instance().getTaskScheduler())),
      m_debugProcess(ServiceConfigParser::instance().isTaskManagerDebugProcessEnabled()),
      m_pool(std::make_unique<ThreadPool>(name, 1, 10000)),
      m_destroyPool(std::make_unique<ThreadPool>(name + "D", 1, 1000)) {}

TaskManager::~TaskManager() {
    Port<TaskExchange>::disconnect();
    Port<TaskScheduleListener>::disconnect();
    m_stopping.store(true);
    m_pool.reset();       // its handlers use the scheduler
    m_scheduler.reset();  // its notices go nowhere by now
    m_destroyPool.reset();
    deleteLeftovers();
}

void TaskManager::enqueueCreateTask(uint64_t clientId, uint64_t graphId, KelmTaskParam* taskParam,
                                    int socket, void* userParam) {
    m_pool->post([this, clientId, graphId, taskParam, response = Response{userParam, socket}] {
        createTask(clientId, graphId, std::unique_ptr<KelmTaskParam>(taskParam), response);
    });
}

void TaskManager::enqueueCancelTask(uint64_t clientId, uint64_t taskId, int socket,
                                    void* userParam) {
    m_pool->post([this, clientId, taskId, response = Response{userParam, socket}] {
        cancelTask(clientId, taskId, response);
    });
}

void TaskManager::enqueueQueryTaskStatus(uint64_t clientId, uint64_t taskId, int socket,
                                         void* userParam) {
    m_pool->post([this, clientId, taskId, response = Response{userParam, socket}] {
        queryTaskStatus(clientId, taskId, response);
    });
}

void TaskManager::enqueueQueryTaskScheduler(const std::shared_ptr<KelmStatus>& status) {
    m_pool->post([this, status] { queryTaskScheduler(status); });
}

void TaskManager::enqueueDestroyTask(KelmTask* task) {
    m_destroyPool->postNotice([this, task] { destroyTask(task); });
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

void TaskManager::createTask(uint64_t clientId, uint64_t graphId,
                             std::unique_ptr<KelmTaskParam> taskParam, const Response& response) {
    KelmClient* client = nullptr;
    KelmGraph* graph = nullptr;
    const KelmError refusal = admitTask(clientId, graphId, response.userParam, client, graph);
    if (refusal != KELM_OK) {
        sendCreateTaskResponse(nullptr, refusal, response);
        return;
    }
    const uint64_t taskId = m_nextTaskId.fetch_add(1);
    auto task =
        std::make_unique<KelmTask>(taskId, client, graph, taskParam.release(),
                                   static_cast<const KelmMsgReqInferTask*>(response.userParam));
    m_taskTraces.begin(taskId);
    enterTask(task.release(), clientId, response);
}

KelmError TaskManager::admitTask(uint64_t clientId, uint64_t graphId, const void* request,
                                 KelmClient*& client, KelmGraph*& graph) {
    // A client that runs now is not confirmed as gone, and a graph that is found now not deleted,
    // before this thread has handled the notice of their end, which queues behind this request.
    const bool admitted = ClientManager::instance().verifyRequester(clientId, request);
    client = admitted ? getClientById(clientId) : nullptr;
    if (client == nullptr) {
        LOG_ERROR("Error: invalid clientId %lu", clientId);
        return KELM_ERROR_INVALID_CLIENT;
    }
    if (!client->allowInferTask()) {
        LOG_PROC(m_debugProcess, "aggressive client(id:%lu) with too many task requests", clientId);
        return KELM_ERROR_TOO_MANY_TASK;
    }
    graph = getGraphById(graphId);
    if (graph == nullptr) {
        LOG_ERROR("Error: invalid graphId %lu", graphId);
        return KELM_ERROR_INVALID_GRAPH;
    }
    return KELM_OK;
}

void TaskManager::enterTask(KelmTask* task, uint64_t clientId, const Response& response) {
    const uint64_t taskId = task->getId();
    {
        MutexLock lock(m_mutex);
        LOG_PROC(m_debugProcess, "task(%lu) created for client(%lu) with userParam(%p)", taskId,
                 clientId, response.userParam);
        m_tasks.insert(task, TaskState{1, false});
        m_taskIdMap.insert(taskId, task);
        m_scheduleResponses.insert(task, response);
    }
    // After the mutex, since it can block. The pin keeps the task; the scheduler's answer comes as
    // work on this thread.
    m_scheduler->enqueueScheduleTask(task);
}

void TaskManager::scheduleTaskDone(KelmTask* task, bool accepted) {
    Response response;
    const int result = removeTaskInSchedule(task, response);
    if (result == -2) destroyTask(task);
    if (result != 0) return;
    if (accepted) {
        LOG_PROC(m_debugProcess, "task(%lu) scheduled success, userParam=%p", task->getId(),
                 response.userParam);
        sendCreateTaskResponse(task, KELM_OK, response);
        unpinTask(task);
        return;
    }
    LOG_PROC(m_debugProcess,
             "task(%lu) scheduled failed, userParam=%p, reason: KELM_ERROR_TOO_MANY_TASK.",
             task->getId(), response.userParam);
    sendCreateTaskResponse(nullptr, KELM_ERROR_TOO_MANY_TASK, response);
    LOG_PROC(m_debugProcess, "Destroy task(%lu), reason=scheduled failed", task->getId());
    destroyTask(task);
    unpinTask(task);
}

int TaskManager::removeTaskInSchedule(KelmTask* task, Response& response) {
    MutexLock lock(m_mutex);
    if (m_tasks.find(task) == nullptr) {
        LOG_ERROR("Error: invalid task pointer %p", task);
        return -1;
    }
    const Response* waiting = m_scheduleResponses.find(task);
    if (waiting == nullptr) {
        LOG_ERROR("Error: cannot find task(%lu) in task schedule list, destroy it", task->getId());
        return -2;
    }
    response = *waiting;
    m_scheduleResponses.erase(task);
    return 0;
}

void TaskManager::rescheduleTaskDone(KelmTask* task, bool accepted) {
    if (accepted || !verifyTask(task)) return;
    LOG_PROC(m_debugProcess, "Destroy task(%lu), reason=rescheduled failed", task->getId());
    destroyTask(task);
}

void TaskManager::returnTask(KelmTask* task) {
    if (!verifyTask(task)) return;
    if (task->isCanceled()) {
        LOG_PROC(m_debugProcess, "Destroy task(%lu), reason=canceled", task->getId());
        destroyTask(task);
        return;
    }
    m_scheduler->enqueueRescheduleTask(task);
}

void TaskManager::cancelTask(uint64_t clientId, uint64_t taskId, const Response& response) {
    KelmError error = KELM_OK;
    KelmTask* task = nullptr;
    const uint64_t owner = getTaskOwner(clientId, response);
    {
        MutexLock lock(m_mutex);
        task = findTaskOfClientUnsafe(owner, taskId, error);
        if (task != nullptr) {
            m_cancelResponses.emplace(task, response);
            ++m_tasks.find(task)->pins;
        }
    }
    if (task == nullptr) {
        sendCancelTaskResponse(false, error, response);
        return;
    }
    // Deliberate: the cancel flag stays down, so a task that a worker holds runs to its end.
    m_scheduler->enqueueDescheduleTask(task);
}

void TaskManager::descheduleTaskDone(KelmTask* task, bool removed) {
    Response response;
    {
        MutexLock lock(m_mutex);
        const auto waiting = m_cancelResponses.lower_bound(task);  // the oldest one
        if (waiting == m_cancelResponses.end() || waiting->first != task) return;
        response = waiting->second;
        m_cancelResponses.erase(waiting);
    }
    if (response.userParam != nullptr) sendCancelTaskResponse(removed, KELM_OK, response);
    unpinTask(task);
}

void TaskManager::queryTaskStatus(uint64_t clientId, uint64_t taskId, const Response& response) {
    KelmError error = KELM_OK;
    int32_t status = -1;
    const uint64_t owner = getTaskOwner(clientId, response);
    {
        MutexLock lock(m_mutex);
        KelmTask* task = findTaskOfClientUnsafe(owner, taskId, error);
        if (task != nullptr) status = task->getStatus();
    }
    sendQueryTaskStatusResponse(status, error, response);
}

void TaskManager::queryTaskScheduler(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, "TaskManager", [this](KelmStatus& record) {
        if (m_scheduler) record.taskSchedulerName = m_scheduler->getName();
    });
}

uint64_t TaskManager::getTaskOwner(uint64_t clientId, const Response& response) {
    return ClientManager::instance().isOfAnotherUser(clientId, response.userParam) ? 0 : clientId;
}

KelmTask* TaskManager::findTaskOfClientUnsafe(uint64_t clientId, uint64_t taskId,
                                              KelmError& error) {
    KelmTask** task = m_taskIdMap.find(taskId);
    if (task == nullptr) {
        LOG_ERROR("Error: invalid taskId %lu", taskId);
        error = KELM_ERROR_INVALID_TASK;
        return nullptr;
    }
    if ((*task)->getClientId() != clientId) {
        error = KELM_ERROR_NO_RIGHTS;
        return nullptr;
    }
    return *task;
}

bool TaskManager::verifyTask(KelmTask* task) {
    MutexLock lock(m_mutex);
    return m_tasks.find(task) != nullptr;
}

MessagePtr TaskManager::notifyCreateResponseSent(uint64_t taskId, KelmTask*& task) {
    MutexLock lock(m_mutex);
    KelmTask** found = m_taskIdMap.find(taskId);
    MessagePtr held = found != nullptr ? (*found)->setSendCreateResponseDone() : nullptr;
    task = held ? *found : nullptr;
    return held;
}

bool TaskManager::waitIdleFor(std::chrono::milliseconds time) {
    return m_pool->waitIdleFor(time) && m_destroyPool->waitIdleFor(time);
}

bool TaskManager::verifyClient(uint64_t clientId) {
    return ClientManager::instance().verifyClient(clientId);
}

KelmClient* TaskManager::getClientById(uint64_t clientId) {
    return ClientManager::instance().getClientById(clientId);
}

KelmGraph* TaskManager::getGraphById(uint64_t graphId) {
    return GraphManager::instance().getGraphById(graphId);
}

void TaskManager::sendCreateTaskResponse(KelmTask* task, KelmError error,
                                         const Response& response) {
    if (dropResponse(response)) return;
    ResultDispatcher::instance().enqueueSendCreateTaskResponse(task, error, response.socket,
                                                               response.userParam);
}

void TaskManager::sendCancelTaskResponse(bool success, KelmError error, const Response& response) {
    if (dropResponse(response)) return;
    ResultDispatcher::instance().enqueueSendCancelTaskResponse(success, error, response.socket,
                                                               response.userParam);
}

void TaskManager::sendQueryTaskStatusResponse(int32_t status, KelmError error,
                                              const Response& response) {
    if (dropResponse(response)) return;
    ResultDispatcher::instance().enqueueSendQueryTaskStatusResponse(status, error, response.socket,
                                                                    response.userParam);
}

bool TaskManager::dropResponse(const Response& response) {
    if (!m_stopping.load()) return false;
    kelmReleaseMessage(static_cast<KelmMsgBase*>(response.userParam));
    return true;
}

}  // namespace kelm

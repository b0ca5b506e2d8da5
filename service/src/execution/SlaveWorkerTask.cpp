#include <algorithm>

#include "execution/KelmDeviceBase.h"
#include "execution/ResultSink.h"
#include "execution/SlaveWorker.h"
#include "execution/TaskExchange.h"
#include "protocol/src/KelmError.h"
#include "records/KelmTask.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

namespace {

// A task that was offered to a device this often and failed again gets its error.
constexpr int32_t kRetries = 3;

}  // namespace

void SlaveWorker::enqueueLoadTensor(KelmTask* task) {
    if (!m_isDeviceValid) {
        returnTask(task);
        return;
    }
    m_inputPool.postNotice([this, task] {
        m_onInputThread.assertHeld();
        loadTensor(task);
    });
}

void SlaveWorker::loadTensor(KelmTask* task) {
    KelmGraph* const graph = getGraph();
    if (!m_isDeviceValid || graph == nullptr || task->getGraph() != graph) {
        returnTask(task);
        return;
    }
    LOG_PROC_OF(m_name.c_str(), m_debugProcess, "begin loadTensor(%lu)", task->getId());
    m_state = STATE_RUNNING;
    // The scheduler looks for the next task while this one is being fed.
    applyNextTask();
    if (task->isCanceled()) {
        LOG_INFO("Destroy task(%lu), reason=canceled", task->getId());
        destroyTask(task);
        return;
    }
    waitRunningTaskNotFull();
    feedDevice(task);
}

void SlaveWorker::feedDevice(KelmTask* task) {
    task->setStatus(TASK_STATUS_LOADING);
    LOG_PROC_OF(m_name.c_str(), m_debugProcess, "call loadTensor(%lu)", task->getId());
    const int rc = m_device->loadTensor(task);
    LOG_PROC_OF(m_name.c_str(), m_debugProcess, "called loadTensor(%lu)", task->getId());
    task->addLoadCount();
    if (rc == KELM_OK) {
        task->setStatus(TASK_STATUS_LOADED);
        LOG_PROC_OF(m_name.c_str(), m_debugProcess, "enqueueGetResult(%lu)", task->getId());
        enqueueGetResult(task);
        return;
    }
    LOG_ERROR("[%s] Error: loadTensor(%lu) failed, rc=%d", m_name, task->getId(), rc);
    handleTaskWithRunError(task, rc);
    handleDeviceError(rc);
}

void SlaveWorker::waitRunningTaskNotFull() {
    MutexLock lock(m_mutex);
    // Deliberate: one wait and no second look. This thread alone fills the set and each task that
    // leaves it notifies; one task too many only makes the set larger.
    if (m_runningTasks.size() >= m_maxRunningTasks) m_notFullCond.wait(m_mutex);
}

void SlaveWorker::enqueueGetResult(KelmTask* task) {
    {
        // Here and not on the result thread, so that the next input counts this task.
        MutexLock lock(m_mutex);
        if (std::find(m_runningTasks.begin(), m_runningTasks.end(), task) == m_runningTasks.end()) {
            m_runningTasks.push_back(task);
        }
    }
    m_resultPool.post([this, task] {
        m_onResultThread.assertHeld();
        getResult(task);
    });
}

void SlaveWorker::getResult(KelmTask* task) {
    LOG_PROC_OF(m_name.c_str(), m_debugProcess, "getResult(%lu)", task->getId());
    if (!m_isDeviceValid) {
        m_device->abandonResult(task);
        returnTask(task);
        eraseRunningTask(task);
        return;
    }
    LOG_PROC_OF(m_name.c_str(), m_debugProcess, "call getResult(%lu)", task->getId());
    const int rc = m_device->getResult(task);
    LOG_PROC_OF(m_name.c_str(), m_debugProcess, "called getResult(%lu)", task->getId());
    eraseRunningTask(task);
    if (rc == KELM_OK) {
        sendTaskDoneResponse(task, KELM_OK);
        return;
    }
    LOG_ERROR("[%s] Error: getResult(%lu) failed, rc=%d", m_name, task->getId(), rc);
    handleTaskWithRunError(task, rc);
    handleDeviceError(rc);
}

void SlaveWorker::eraseRunningTask(KelmTask* task) {
    MutexLock lock(m_mutex);
    const auto found = std::find(m_runningTasks.begin(), m_runningTasks.end(), task);
    if (found != m_runningTasks.end()) m_runningTasks.erase(found);
    m_notFullCond.notifyOne();
    if (!m_runningTasks.empty()) return;
    // Deliberate: whatever the state was, an error included. It is for display.
    m_state = STATE_WAIT_TASK;
    m_noRunningCond.notifyOne();
}

void SlaveWorker::handleTaskWithRunError(KelmTask* task, int rc) {
    const int32_t loadCount = task->getLoadCount();
    if (loadCount > kRetries) {
        LOG_ERROR("[%s] Task(%lu) done with error(%d)", m_name, task->getId(), rc);
        sendTaskDoneResponse(task, rc);
        return;
    }
    LOG_INFO("[%s] Return task(%lu) to TaskManager, loadCount=%d error=%d", m_name, task->getId(),
             loadCount, rc);
    returnTask(task);
}

void SlaveWorker::sendTaskDoneResponse(KelmTask* task, int rc) {
    task->setStatus(TASK_STATUS_DONE);
    Port<ResultSink>::notify<&ResultSink::enqueueSendTaskDoneResponse>(task,
                                                                       static_cast<KelmError>(rc));
}

void SlaveWorker::returnTask(KelmTask* task) {
    Port<TaskExchange>::notify<&TaskExchange::enqueueReturnTask>(task);
}

void SlaveWorker::destroyTask(KelmTask* task) {
    Port<TaskExchange>::notify<&TaskExchange::enqueueDestroyTask>(task);
}

}  // namespace kelm

#include "execution/SlaveWorker.h"

#include <algorithm>

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "execution/ResultSink.h"
#include "execution/SubmitNotice.h"
#include "execution/TaskExchange.h"
#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

constexpr uint64_t kTaskPoolLimit = 50;
constexpr std::chrono::seconds kCheckInterval{1};
// A worker that is being destroyed waits a second for the scheduler's word, in turns of 100 ms: a
// request that is on its way names this worker, but at the end of the process the scheduler may
// have been stopped before.
constexpr long kAbortTurnMs = 100;
constexpr int kAbortTurnsWhenStopping = 10;
// A task that was offered to a device this often and failed again gets its error.
constexpr int32_t kRetries = 3;
// Slots of the running tasks to start with; a few more or less are no matter.
constexpr uint64_t kUsualRunningTasks = 16;

// In the order of the states.
constexpr const char* kStateNames[] = {"INIT",      "WAIT_GRAPH", "LOAD_GRAPH", "UNLOAD_GRAPH",
                                       "WAIT_TASK", "RUNNING",    "QX_ERROR"};

}  // namespace

SlaveWorker::SlaveWorker(const std::string& name, WorkThread* workThread, KelmDeviceBase* device,
                         uint64_t maxRunningTasks)
    : m_name(name),
      m_workThread(workThread),
      m_device(device),
      m_trace(ServiceConfigParser::instance().isDeviceWorkThreadDebugProcessEnabled(), m_name),
      m_maxRunningTasks(maxRunningTasks),
      m_abortSemaphore(0, 0),
      m_resultPool(name + "G", kTaskPoolLimit),
      m_inputPool(name + "I", kTaskPoolLimit) {
    m_runningTasks.reserve(std::min(maxRunningTasks, kUsualRunningTasks));
    m_state = STATE_WAIT_GRAPH;
}

// A root device that outlives this clone must not go on holding a graph for it.
SlaveWorker::~SlaveWorker() {
    stop();
    KelmGraph* const graph = getGraph();
    if (graph != nullptr)
        (void)m_device->deallocateGraph(graph, false);  // no client waits for it any more
}

// The flags come first: a job that starts after them gives its task back and touches no device.
void SlaveWorker::stop() {
    m_isDeviceValid = false;
    m_isApplyEnabled = false;
    m_isStopping = true;
    // The input pool first: its jobs post to the result pool.
    while (!m_inputPool.waitIdleFor(kCheckInterval)) {
    }
    while (!m_resultPool.waitIdleFor(kCheckInterval)) {
    }
}

const char* SlaveWorker::getState() const { return kStateNames[m_state.load()]; }

std::shared_future<int> SlaveWorker::enqueueLoadGraph(KelmGraph* graph) {
    // Here and not in the job: from now on the slot is taken, see isOccupied().
    m_loadsUnderWay.fetch_add(1);
    return submitNotice(m_inputPool, [this, graph] {
        m_onInputThread.assertHeld();
        return loadGraph(graph);
    });
}

std::shared_future<int> SlaveWorker::enqueueUnloadGraph(KelmGraph* graph, bool keepCached) {
    return submitNotice(m_inputPool, [this, graph, keepCached] {
        m_onInputThread.assertHeld();
        return unloadGraph(graph, keepCached);
    });
}

int SlaveWorker::loadGraph(KelmGraph* graph) {
    const int rc = allocateGraph(graph);
    m_loadsUnderWay.fetch_sub(1);  // before the notice below, which looks at it
    if (rc == KELM_OK) return KELM_OK;
    m_workThread->enqueueNotifyLoadGraphError(this);
    handleDeviceError(rc);
    return rc;
}

int SlaveWorker::allocateGraph(KelmGraph* graph) {
    if (!m_isDeviceValid) return KELM_ERROR_DEVICE_FAILED;
    // Already here and asking for tasks: a second request would list the worker twice.
    if (graph == m_graph) return KELM_OK;
    m_state = STATE_LOAD_GRAPH;
    LOG_STEP("call allocateGraph(%s)", escapeControls(graph->getName()));
    OwedPools::settle();
    const auto start = std::chrono::steady_clock::now();
    const int rc = m_device->allocateGraph(graph);
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    if (rc == KELM_OK) graph->setLoadTime(spent.count());
    LOG_STEP("called allocateGraph(%s)", escapeControls(graph->getName()));
    if (rc != KELM_OK) {
        LOG_ERROR("[%s] Error: allocateGraph(%s) failed, rc=%d", m_name,
                  escapeControls(graph->getName()), rc);
        return rc;
    }
    m_state = STATE_WAIT_TASK;
    // Before the request: its answer may come at once, and a task of another graph is given back.
    m_graph = graph;
    applyNextTask();
    return KELM_OK;
}

int SlaveWorker::unloadGraph(KelmGraph* graph, bool keepCached) {
    if (getGraph() != graph) return KELM_OK;  // the load failed, or it was never loaded here
    // First no new task, then none in flight, then no answer on its way that names this worker:
    // only then does nothing lead from the scheduler to the graph on this device.
    abortApplyTask();
    waitNoRunningTask();
    waitAbortApplyTaskDone();
    if (!m_isDeviceValid) {
        // Once this unload is answered the record may be deleted.
        m_device->forgetGraph(graph);
        m_graph = nullptr;
        return KELM_ERROR_DEVICE_FAILED;
    }
    return deallocateGraph(graph, keepCached);
}

int SlaveWorker::deallocateGraph(KelmGraph* graph, bool keepCached) {
    m_state = STATE_UNLOAD_GRAPH;
    LOG_STEP("call deallocateGraph(%s)", escapeControls(graph->getName()));
    OwedPools::settle();
    const int rc = m_device->deallocateGraph(graph, keepCached);
    LOG_STEP("called deallocateGraph(%s)", escapeControls(graph->getName()));
    m_graph = nullptr;
    m_state = STATE_WAIT_GRAPH;
    if (rc != KELM_OK) {
        LOG_ERROR("[%s] Error: deallocateGraph(%s) failed, rc=%d", m_name,
                  escapeControls(graph->getName()), rc);
        handleDeviceError(rc);
    }
    // A failing step inside may have lost the device although the graph was released.
    if (m_device->isFailed()) m_workThread->notifyDeviceFailed();
    return rc;
}

// One request at a time: for a new graph, and then each time a task has been taken over.
void SlaveWorker::applyNextTask() {
    if (!m_isApplyEnabled) return;
    Port<TaskExchange>::notify<&TaskExchange::enqueueScheduleWorker>(m_workThread, getGraph());
}

void SlaveWorker::abortApplyTask() {
    // An answer that came late to an earlier request must not pass for the one asked for here.
    m_abortSemaphore.resetValue(0);
    Port<TaskExchange>::notify<&TaskExchange::enqueueDescheduleWorker>(m_workThread, getGraph());
}

void SlaveWorker::waitAbortApplyTaskDone() {
    int turnsLeft = kAbortTurnsWhenStopping;
    while (!m_abortSemaphore.waitFor(kAbortTurnMs)) {
        if (m_isStopping && --turnsLeft == 0) return;
    }
}

void SlaveWorker::waitNoRunningTask() {
    MutexLock lock(m_mutex);
    while (!m_runningTasks.empty()) {
        // The limit serves the trace alone: it shows once a second what is still waited for.
        (void)m_noRunningCond.waitFor(m_mutex, kCheckInterval);
        LOG_STEP("m_runningTasks.size()=%lu", m_runningTasks.size());
    }
}

void SlaveWorker::enqueueLoadTensor(KelmTask* task) {
    // Not a second time through the pool: that one may be held up by a call that never returns.
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
    // An unload may have been queued between the scheduler's choice and this job.
    if (!m_isDeviceValid || graph == nullptr || task->getGraph() != graph) {
        returnTask(task);
        return;
    }
    LOG_STEP("begin loadTensor(%lu)", task->getId());
    m_state = STATE_RUNNING;
    // The scheduler looks for the next task while this one is being fed. First of all, also for a
    // canceled task: a worker that has asked for nothing gets nothing.
    applyNextTask();
    if (task->isCanceled()) {
        LOG_INFO("Destroy task(%lu), reason=canceled", task->getId());
        destroyTask(task);
        return;
    }
    OwedPools::settle();  // the next task is looked for before the device takes this one
    waitRunningTaskNotFull();
    feedDevice(task);
}

void SlaveWorker::feedDevice(KelmTask* task) {
    task->setStatus(TASK_STATUS_LOADING);
    LOG_STEP("call loadTensor(%lu)", task->getId());
    const int rc = m_device->loadTensor(task);
    LOG_STEP("called loadTensor(%lu)", task->getId());
    task->addLoadCount();
    if (rc == KELM_OK) {
        // Before the job is posted: the result thread sets the next status.
        task->setStatus(TASK_STATUS_LOADED);
        LOG_STEP("enqueueGetResult(%lu)", task->getId());
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
    LOG_STEP("getResult(%lu)", task->getId());
    if (!m_isDeviceValid) {
        m_device->abandonResult(task);
        returnTask(task);
        // Only its address is compared: the task may have been destroyed. An unload waits for this,
        // so that it is answered when all tasks are given back.
        eraseRunningTask(task);
        return;
    }
    LOG_STEP("call getResult(%lu)", task->getId());
    OwedPools::settle();
    const int rc = m_device->getResult(task);
    LOG_STEP("called getResult(%lu)", task->getId());
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
    // Deliberate: whatever the state was, an error included, since the state is only shown.
    m_state = STATE_WAIT_TASK;
    m_noRunningCond.notifyOne();
}

// A task that fails is offered again, perhaps to another device: the fault may be this one's.
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

// The task passes to the result sink here: it is not followed after this call.
void SlaveWorker::sendTaskDoneResponse(KelmTask* task, int rc) {
    m_workThread->noteTaskLeft();  // first: its client may send the next one at once
    task->setStatus(TASK_STATUS_DONE);
    Port<ResultSink>::notify<&ResultSink::enqueueSendTaskDoneResponse>(task,
                                                                       static_cast<KelmError>(rc));
}

void SlaveWorker::returnTask(KelmTask* task) {
    m_workThread->noteTaskLeft();
    Port<TaskExchange>::notify<&TaskExchange::enqueueReturnTask>(task);
}

void SlaveWorker::destroyTask(KelmTask* task) {
    m_workThread->noteTaskLeft();
    Port<TaskExchange>::notify<&TaskExchange::enqueueDestroyTask>(task);
}

// From here on every queued task is given back instead of fed. Tasks that the device has already
// are given back by their getResult() jobs, in order.
void SlaveWorker::handleDeviceError(int rc) {
    if (!m_device->isHardwareError(rc) || !m_isDeviceValid.exchange(false)) return;
    m_isApplyEnabled = false;
    m_state = STATE_ERROR;
    m_workThread->notifyDeviceFailed();
}

}  // namespace kelm

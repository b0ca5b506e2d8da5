#include "records/KelmTask.h"

#include <new>
#include <utility>

#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTaskParam.h"
#include "utils/BlockCache.h"
#include "utils/Log.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"
#include "utils/TimeHelper.h"
#include "utils/Tracer.h"

namespace kelm {

static_assert(std::atomic<KelmTask::TimePoint>::is_always_lock_free);

namespace {

// Tasks in flight beyond this number are rare enough for the heap.
constexpr size_t kTasksToKeep = 512;
constexpr size_t kDescribedNameLength = 10;

// Never destroyed: a task may end while static objects are being destroyed.
BlockCache& taskCache() {
    static BlockCache& obj = *new BlockCache(sizeof(KelmTask), kTasksToKeep);
    return obj;
}

BlockCache::Local& localTaskBlocks() {
    thread_local BlockCache::Local local;
    thread_local const BlockCache::End end(taskCache(), local);
    return local;
}

int64_t wholeMillis(KelmTask::TimePoint::duration time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

std::shared_ptr<const std::string> nameOf(KelmClient* client) {
    static const auto kNoName = std::make_shared<const std::string>();
    return client != nullptr ? client->getSharedName() : kNoName;
}

}  // namespace

KelmTask::KelmTask(uint64_t id, KelmClient* client, KelmGraph* graph, KelmTaskParam* taskParam,
                   const KelmMsgReqInferTask* request)
    : m_id(id),
      m_client(client),
      m_clientId(client != nullptr ? client->getId() : 0),
      m_clientName(nameOf(client)),
      m_graph(graph),
      m_taskParam(taskParam),
      m_createTaskRequest(*request),
      m_isCreateRspSent(request->head.needResponse == 0) {
    m_times[TASK_STATUS_CREATED].store(std::chrono::system_clock::now());
    if (m_client != nullptr) m_client->increaseTaskCount();
    m_graph->increaseTaskCount();
}

bool KelmTask::mayWaitAtEnd() const { return m_taskParam && m_taskParam->mayWaitAtEnd(); }

// The counts of client and graph are lowered after the last use of the two, which may be deleted
// from then on.
KelmTask::~KelmTask() {
    finishExecutionTrace();  // of an attempt that gave no result
    if (m_taskParam) {
        LOG_DEBUG("[TrackFd] close: clientId=%lu graphId=%lu inFd=%d outFd=%d auxFd=%d", m_clientId,
                  m_graph->getId(), m_taskParam->getInputBuffer().fd,
                  m_taskParam->getOutputBuffer().fd, m_taskParam->getAuxBuffer().fd);
        m_taskParam.reset();
    }
    if (m_client != nullptr) m_client->decreaseTaskCount();
    m_graph->decreaseTaskCount();
    // An answer that was owed to the client has never been sent.
    if (!m_isCreateRspSent || m_taskDoneMsg) {
        LOG_WARN("m_isCreateRspSent=%d, m_taskDoneMsg=%p", static_cast<int>(m_isCreateRspSent),
                 m_taskDoneMsg.get());
    }
}

// A derived class would not fit the blocks.
void* KelmTask::operator new(size_t size) {
    if (size != sizeof(KelmTask)) return ::operator new(size);
    return taskCache().take(localTaskBlocks());
}

void KelmTask::operator delete(void* block) { taskCache().give(localTaskBlocks(), block); }

void KelmTask::setStatus(int32_t status) {
    if (status > TASK_STATUS_LAST) return;
    m_status.store(status);
    if (status < TASK_STATUS_CREATED || status > TASK_STATUS_DONE) return;
    m_times[static_cast<size_t>(status)].store(std::chrono::system_clock::now());
}

std::string KelmTask::getTimeToKelmHal() const {
    return formatTimeMilli(m_times[TASK_STATUS_CREATED].load());
}

std::string KelmTask::getTimeToTaskQueue() const {
    return formatTimeMilli(m_times[TASK_STATUS_QUEUED].load());
}

// Two threads meet here and in the next operation. Under one mutex exactly one of them finds the
// other's mark, and sends the message.
bool KelmTask::setTaskDoneResponse(MessagePtr& message) {
    MutexLock lock(m_mutex);
    m_hasTaskDoneMsg = true;
    if (m_isCreateRspSent) return false;
    m_taskDoneMsg = std::move(message);
    return true;
}

MessagePtr KelmTask::setSendCreateResponseDone() {
    MutexLock lock(m_mutex);
    m_isCreateRspSent = true;
    return std::move(m_taskDoneMsg);
}

bool KelmTask::hasTaskDoneResponse() {
    MutexLock lock(m_mutex);
    return m_hasTaskDoneMsg;
}

bool KelmTask::dropTaskDoneResponse() {
    MutexLock lock(m_mutex);
    m_isCreateRspSent = true;
    const MessagePtr held = std::move(m_taskDoneMsg);
    // No message tells the task's end any more, so its trace ends with the record.
    if (held) m_hasTaskDoneMsg = false;
    return held != nullptr;
}

void KelmTask::finishExecutionTrace() {
    // The device's thread and the destructor may both come here; the exchange lets one of them end
    // it.
    const uint64_t index = m_executionTraceIndex.exchange(kNoTrace);
    if (index != kNoTrace) TraceEndCsv(index);
}

std::string KelmTask::getSummary() const {
    const auto time = [this](KelmTaskStatus status) { return m_times[status].load(); };
    // A task that found a waiting worker never was in a queue, and waited for 0 ms.
    const bool wasQueued = time(TASK_STATUS_QUEUED) != TimePoint();
    const TimePoint pushed = time(wasQueued ? TASK_STATUS_QUEUED : TASK_STATUS_LOADING);
    return StringHelper::format(
        "taskId=%lu PushPhase=%ldms WaitPhase=%ldms LoadPhase=%ldms ExecPhase=%ldms", m_id,
        wholeMillis(pushed - time(TASK_STATUS_CREATED)),
        wholeMillis(time(TASK_STATUS_LOADING) - pushed),
        wholeMillis(time(TASK_STATUS_LOADED) - time(TASK_STATUS_LOADING)),
        wholeMillis(time(TASK_STATUS_DONE) - time(TASK_STATUS_LOADED)));
}

std::string KelmTask::getDescription() const {
    const auto time = [this](KelmTaskStatus status) {
        return formatTimeMilli(m_times[status].load());
    };
    return StringHelper::format(
               "TaskId: %lu, Client: %-10s, ClientId: %08lu, Status: %-2d, GraphName: %-10s, "
               "GraphPtr: %p",
               m_id, escapeControls(getClientName().substr(0, kDescribedNameLength)), m_clientId,
               getStatus(), escapeControls(m_graph->getName().substr(0, kDescribedNameLength)),
               m_graph) +
           ", TimeToKelmHal: " + time(TASK_STATUS_CREATED) +
           ", TimeToTaskQueue: " + time(TASK_STATUS_QUEUED) +
           ", TimeToTevoHal: " + time(TASK_STATUS_LOADING) +
           ", TimeTevoLoaded: " + time(TASK_STATUS_LOADED) +
           ", TimeGotResult: " + time(TASK_STATUS_DONE);
}

}  // namespace kelm

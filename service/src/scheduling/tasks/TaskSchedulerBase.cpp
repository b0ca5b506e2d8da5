#include "scheduling/tasks/TaskSchedulerBase.h"

#include <stdexcept>
#include <utility>

#include "utils/SerialPool.h"

namespace kelm {

namespace {

// A full task pool holds up the manager that brings new tasks, which is the back-pressure on
// clients.
constexpr uint64_t kTaskQueueLimit = 3000;
// By design; nothing waits here, since what ends earlier work must always get through.
constexpr uint64_t kWorkerQueueLimit = 1000;

}  // namespace

// One thread each: the order of events is the order in which they were queued.
TaskSchedulerBase::TaskSchedulerBase(std::string name)
    : m_name(std::move(name)),
      m_taskPool(std::make_unique<SerialPool>("TS.TaskSche", kTaskQueueLimit, SerialPool::LIGHT)),
      m_workerPool(
          std::make_unique<SerialPool>("TS.WorkSche", kWorkerQueueLimit, SerialPool::LIGHT)) {}

TaskSchedulerBase::~TaskSchedulerBase() = default;

void TaskSchedulerBase::stopPools() {
    m_taskPool.reset();
    m_workerPool.reset();
}

// The service stops while callers may still report: they meet the same exception as from a pool
// that is being stopped.
SerialPool& TaskSchedulerBase::running(const std::unique_ptr<SerialPool>& pool) {
    if (!pool) throw std::runtime_error("failed to enqueue, threadPool is stopped");
    return *pool;
}

// The only one that may wait: it brings new work. The notices below complete or cancel earlier
// work, and a wait there could close a circle of full queues.
void TaskSchedulerBase::enqueueScheduleTask(KelmTask* task) {
    running(m_taskPool).post([this, task] { scheduleTask(task); });
}

void TaskSchedulerBase::enqueueRescheduleTask(KelmTask* task) {
    running(m_taskPool).postNotice([this, task] { rescheduleTask(task); });
}

void TaskSchedulerBase::enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) {
    running(m_workerPool).postNotice([this, worker, graph] { scheduleWorker(worker, graph); });
}

void TaskSchedulerBase::enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) {
    running(m_workerPool).postNotice([this, worker, graph] { descheduleWorker(worker, graph); });
}

void TaskSchedulerBase::enqueueDescheduleTask(KelmTask* task) {
    running(m_workerPool).postNotice([this, task] { descheduleTask(task); });
}

void TaskSchedulerBase::enqueueDescheduleGraph(KelmGraph* graph) {
    running(m_workerPool).postNotice([this, graph] { descheduleGraph(graph); });
}

}  // namespace kelm

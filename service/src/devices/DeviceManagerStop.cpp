#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "devices/DeviceManager.h"
#include "execution/WorkThread.h"
#include "scheduling/devices/DeviceSchedulerBase.h"
#include "utils/Log.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

using Clock = std::chrono::steady_clock;

// Threads still run in a manager that was left behind, so it stays for the rest of the process.
void keepForEver(DeviceManager* manager) {
    static Mutex mutex;
    static auto* const kept = new std::vector<DeviceManager*>;
    MutexLock lock(mutex);
    kept->push_back(manager);
}

}  // namespace

void DeviceManager::Deleter::operator()(DeviceManager* manager) const {
    if (manager->stop()) {
        delete manager;
    } else {
        keepForEver(manager);
    }
}

bool DeviceManager::stop() {
    {
        MutexLock lock(m_mutex);
        if (m_stopState != RUNNING) return m_stopState == STOPPED;
        m_stopping = true;
        m_changed.notifyAll();
    }
    stopPrinting();
    LOG_PROC(m_debugProcess, "to destruct device manager");
    const Deadline deadline = Clock::now() + m_limits.stop;
    // All of them are told to stop, also if one does not.
    bool quiet = waitThreads(deadline);
    LOG_PROC(m_debugProcess, "destroy device scheduler");
    quiet &= stopSchedulers(deadline);
    quiet = quiet && m_threadPool.waitIdleFor(timeUntil(deadline));
    LOG_PROC(m_debugProcess, "destroy all work threads");
    if (!quiet || !destroyWorkers(Clock::now() + m_limits.stop)) return finishStop(LEFT_BEHIND);
    LOG_PROC(m_debugProcess, "device manager destructed");
    return finishStop(STOPPED);
}

bool DeviceManager::finishStop(StopState state) {
    if (state == LEFT_BEHIND) {
        LOG_ERROR("Error: device manager(%s) waits for a device without end, left behind",
                  getName());
    }
    MutexLock lock(m_mutex);
    m_stopState = state;
    return state == STOPPED;
}

// First the schedulers, so that no new work reaches the workers.
bool DeviceManager::stopSchedulers(Deadline deadline) {
    bool stopped = true;
    for (SchedulerSlot& slot : m_schedulers) {
        if (slot.scheduler) stopped &= slot.scheduler->stop(timeUntil(deadline));
    }
    return stopped;
}

// At once, each on a thread of its own: a worker that drains takes its time.
bool DeviceManager::destroyWorkers(Deadline deadline) {
    std::map<WorkThread*, std::unique_ptr<WorkThread>> workers;
    {
        MutexLock lock(m_mutex);
        workers.swap(m_workThreads);
        workers.merge(m_removingWorkers);
        m_nameToWorker.clear();
    }
    for (auto& [key, worker] : workers) {
        // A thread that cannot be had: the worker goes here and now, with the closure.
        (void)startThread([worker = std::move(worker)]() mutable { worker.reset(); });
    }
    return waitThreads(deadline);
}

bool DeviceManager::startThread(InlineTask body) {
    {
        MutexLock lock(m_mutex);
        ++m_threadCount;
    }
    try {
        std::thread([this, body = std::move(body)]() mutable {
            body();
            body.reset();
            endThread();
        }).detach();
        return true;
    } catch (const std::system_error& error) {
        LOG_ERROR("Error: device manager(%s) has no thread: %s", getName(), error.what());
        endThread();
        return false;
    }
}

// The last that a thread does here: the manager may be gone right after.
void DeviceManager::endThread() {
    MutexLock lock(m_mutex);
    --m_threadCount;
    m_changed.notifyAll();
}

bool DeviceManager::waitThreads(Deadline deadline) {
    MutexLock lock(m_mutex);
    bool timely = true;
    while (m_threadCount > 0 && timely) timely = m_changed.waitUntil(m_mutex, deadline);
    return m_threadCount == 0;
}

}  // namespace kelm

#include <exception>

#include "devices/DeviceManager.h"
#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "scheduling/devices/DeviceSchedulerBase.h"
#include "utils/Log.h"
#include "utils/ThreadUtils.h"

namespace kelm {

void DeviceManager::createWorkThread(const std::string& name, int subclass) {
    if (!beginCreation(name)) return;
    LOG_PROC(m_debugProcess, "to create worker on device(%s)", name);
    ThreadUtils::setName(name + "BOOT");
    std::unique_ptr<WorkThread> worker = openWorker(name, subclass);
    if (!worker || !worker->isReady()) {
        LOG_ERROR("failed to create worker on device(%s)", name);
        worker.reset();
        return endCreation(name);
    }
    const std::string workerName = worker->getName();
    worker = adoptWorker(std::move(worker), name);
    if (worker) return;
    LOG_INFO("worker(%s) created on device(%s), type(%d)", workerName, name, subclass);
}

// Clears out an old worker of the name, as after a removal that was never seen. The device opens
// anew only once the old worker has let go of it.
bool DeviceManager::beginCreation(const std::string& name) {
    MutexLock lock(m_mutex);
    if (m_stopping || !m_creatingDevices.insert(name).second) return false;
    (void)destroyWorkThread(name);
    waitOldWorkerGone(name);
    // The wait also ends for a stop, with the old worker perhaps still on the device.
    if (m_stopping) m_creatingDevices.erase(name);
    return !m_stopping;
}

void DeviceManager::waitOldWorkerGone(const std::string& name) {
    const auto deadline = std::chrono::steady_clock::now() + m_limits.oldWorker;
    bool timely = true;
    while (m_leavingDevices.contains(name) && !m_stopping && timely) {
        timely = m_changed.waitUntil(m_mutex, deadline);
    }
    if (!timely) LOG_WARN("Warn: the old worker of device(%s) is still there", name);
}

void DeviceManager::endCreation(const std::string& name) {
    MutexLock lock(m_mutex);
    m_creatingDevices.erase(name);
}

std::unique_ptr<WorkThread> DeviceManager::openWorker(const std::string& name, int subclass) {
    try {
        return std::make_unique<WorkThread>(name, subclass, m_maxGraphNumPerDevice,
                                            m_maxCachedGraphNum);
    } catch (const std::exception& error) {  // no threads left: one device less
        LOG_ERROR("Error: worker on device(%s): %s", name, error.what());
        return nullptr;
    }
}

std::unique_ptr<WorkThread> DeviceManager::adoptWorker(std::unique_ptr<WorkThread> worker,
                                                       const std::string& name) {
    MutexLock lock(m_mutex);
    m_creatingDevices.erase(name);
    if (m_stopping) return worker;
    WorkThread* const adopted = worker.get();
    m_workThreads[adopted] = std::move(worker);
    m_nameToWorker[name] = adopted;
    assignScheduler(adopted);
    return nullptr;
}

// The first devices fill the reserved quotas. Deliberate: nothing is remembered of a device's role,
// so one that returns takes whichever quota is short at that moment.
void DeviceManager::assignScheduler(WorkThread* worker) {
    for (SchedulerSlot& slot : m_schedulers) {
        if (!slot.scheduler || slot.deviceNum <= slot.workerCount) continue;
        slot.workerCount.fetch_add(1);
        slot.scheduler->addWorker(worker);
        worker->setDeviceScheduler(slot.scheduler.get());
        return;
    }
}

bool DeviceManager::destroyWorkThread(const std::string& name) {
    const auto named = m_nameToWorker.find(name);
    if (named == m_nameToWorker.end()) return false;
    WorkThread* const worker = named->second;
    m_nameToWorker.erase(named);
    m_removingWorkers.insert(m_workThreads.extract(worker));
    m_leavingDevices.insert(name);
    const bool hasPlace = m_failedWorkers.erase(worker) == 0;
    if (SchedulerSlot* const slot = findSlot(worker)) {
        slot->scheduler->removeWorker(worker);
        if (hasPlace) slot->workerCount.fetch_sub(1);
    }
    return true;
}

DeviceManager::SchedulerSlot* DeviceManager::findSlot(WorkThread* worker) {
    for (SchedulerSlot& slot : m_schedulers) {
        if (slot.scheduler && slot.scheduler.get() == worker->getDeviceScheduler()) return &slot;
    }
    return nullptr;
}

// A failed device need not leave the bus, so the next one that comes may take its place. The
// ordinary graphs have no quota: their devices count until they go, so that a create in between
// waits for one that returns from its reset.
void DeviceManager::enqueueWorkerFailed(WorkThread* worker) {
    MutexLock lock(m_mutex);
    if (!m_workThreads.contains(worker)) return;  // on its way out already
    SchedulerSlot* const slot = findSlot(worker);
    if (slot == nullptr) return;
    const bool isReserved = slot != &m_schedulers[SQUEEZE];
    if (isReserved && m_failedWorkers.insert(worker).second) slot->workerCount.fetch_sub(1);
    slot->scheduler->wake();
}

void DeviceManager::removeResetWorker(const std::string& name) {
    MutexLock lock(m_mutex);
    if (destroyWorkThread(name)) ++m_resetTimes[name];
}

// Deleting a worker joins its threads, so it is never done on a scheduler's thread.
void DeviceManager::enqueueRemoveWorkerDone(WorkThread* worker) {
    m_threadPool.postNotice([this, worker] { removeWorkerDone(worker); });
}

void DeviceManager::removeWorkerDone(WorkThread* worker) {
    std::unique_ptr<WorkThread> removed = takeRemovedWorker(worker);
    if (!removed) return;
    LOG_INFO("Old worker(%s) is removed", removed->getName());
    const std::string device = removed->getDevice()->getName();
    // On a thread of its own: a device that never answers must not hold up the end of the others.
    WorkThread* const owned = removed.release();
    const auto end = [this, device, owned] {
        deleteWorker(std::unique_ptr<WorkThread>(owned), device);
    };
    if (!startThread(end)) end();  // without one it is done here
}

void DeviceManager::deleteWorker(std::unique_ptr<WorkThread> worker, const std::string& device) {
    {
        MutexLock lock(m_mutex);
        while (m_thermalWorker == worker.get()) m_changed.wait(m_mutex);
    }
    worker.reset();
    endLeaving(device);
}

void DeviceManager::endLeaving(const std::string& device) {
    MutexLock lock(m_mutex);
    m_leavingDevices.erase(m_leavingDevices.find(device));
    m_changed.notifyAll();
}

std::unique_ptr<WorkThread> DeviceManager::takeRemovedWorker(WorkThread* worker) {
    MutexLock lock(m_mutex);
    const auto found = m_removingWorkers.find(worker);
    if (found == m_removingWorkers.end()) return nullptr;
    std::unique_ptr<WorkThread> taken = std::move(found->second);
    m_removingWorkers.erase(found);
    return taken;
}

}  // namespace kelm

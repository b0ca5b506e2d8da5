#include "devices/WorkerRegistry.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceFigures.h"
#include "devices/DeviceSchedulers.h"
#include "devices/DeviceSettings.h"
#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "reporting/EventListener.h"
#include "reporting/PopulationListener.h"
#include "reporting/ServiceEvent.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

void tellPlug(EventAction action, const std::string& device) {
    ServiceEvent event;
    event.action = action;
    event.device = makeEventName(device);
    Port<EventListener>::notify<&EventListener::record>(event);
}

}  // namespace

struct WorkerRegistry::Entry {
    std::string device;
    Phase phase = Phase::Creating;
    std::unique_ptr<WorkThread> worker = nullptr;  // null while Creating
    bool isPinned = false;  // by the one reader of temperatures: not to be destroyed

    bool counts() const { return phase == Phase::Active || phase == Phase::Failed; }
};

WorkerRegistry::WorkerRegistry(const DeviceSettings& settings, DeviceSchedulers& schedulers,
                               BoundedThreads& threads, std::chrono::milliseconds patience)
    : m_settings(settings),
      m_schedulers(schedulers),
      m_threads(threads),
      m_patience(patience),
      m_trace(ServiceConfigParser::instance().isDeviceManagerDebugProcessEnabled()) {}

WorkerRegistry::~WorkerRegistry() = default;

template <class Predicate>
WorkerRegistry::Entries::iterator WorkerRegistry::findIfUnsafe(Predicate fits) {
    return std::find_if(m_entries.begin(), m_entries.end(), fits);
}

// The device is opened without the mutex, behind an entry that keeps others from opening it.
void WorkerRegistry::createWorkThread(const std::string& device) {
    if (!beginCreation(device)) return;
    LOG_STEP("to create worker on device(%s)", device);
    ThreadUtils::setName(device + "BOOT");
    std::unique_ptr<WorkThread> worker = openWorker(device);
    if (!worker || !worker->isReady()) {
        LOG_ERROR("failed to create worker on device(%s)", device);
        worker.reset();  // closes the device, before another creation may open it
        return endCreation(device);
    }
    const std::string workerName = worker->getName();
    worker = adoptWorker(std::move(worker), device);
    if (worker) return;  // closed meanwhile: the worker is destroyed here
    LOG_INFO("worker(%s) created on device(%s), type(%d)", workerName, device, m_settings.subclass);
    tellPlug(EventAction::PluggedIn, device);
}

// An old worker of the device may still be there, after a removal that was never seen. It is
// removed first, since two workers would open one device.
bool WorkerRegistry::beginCreation(const std::string& device) {
    MutexLock lock(m_mutex);
    if (m_closed || findCreatingUnsafe(device) != m_entries.end()) return false;
    m_entries.push_back({device});
    (void)destroyWorkThread(device);
    waitOldWorkerDestroyed(device);
    // The wait also ends for close(), with the old worker perhaps still on the device.
    if (m_closed) m_entries.erase(findCreatingUnsafe(device));
    return !m_closed;
}

// Bounded: a device that has come back is worth more than one that hangs at its first worker.
void WorkerRegistry::waitOldWorkerDestroyed(const std::string& device) {
    const auto deadline = std::chrono::steady_clock::now() + m_patience;
    bool timely = true;
    while (hasOldWorkerUnsafe(device) && !m_closed && timely) {
        timely = m_changed.waitUntil(m_mutex, deadline);
    }
    if (!timely) LOG_WARN("Warn: the old worker of device(%s) is still there", device);
}

bool WorkerRegistry::hasOldWorkerUnsafe(const std::string& device) {
    const auto isOld = [&](const Entry& entry) {
        return entry.device == device &&
               (entry.phase == Phase::Removing || entry.phase == Phase::Destroying);
    };
    return std::any_of(m_entries.begin(), m_entries.end(), isOld);
}

std::unique_ptr<WorkThread> WorkerRegistry::openWorker(const std::string& device) {
    try {
        return std::make_unique<WorkThread>(device, m_settings.subclass,
                                            m_settings.maxGraphNumPerDevice,
                                            m_settings.maxCachedGraphNum);
    } catch (const std::exception& error) {  // no threads left: one device less
        LOG_ERROR("Error: worker on device(%s): %s", device, error.what());
        return nullptr;
    }
}

void WorkerRegistry::endCreation(const std::string& device) {
    MutexLock lock(m_mutex);
    m_entries.erase(findCreatingUnsafe(device));
}

std::unique_ptr<WorkThread> WorkerRegistry::adoptWorker(std::unique_ptr<WorkThread> worker,
                                                        const std::string& device) {
    MutexLock lock(m_mutex);
    const auto entry = findCreatingUnsafe(device);
    // close() came while the device was being opened.
    if (m_closed) {
        m_entries.erase(entry);
        return worker;
    }
    entry->worker = std::move(worker);
    entry->phase = Phase::Active;
    m_schedulers.addWorker(entry->worker.get());
    Port<PopulationListener>::notify<&PopulationListener::addDevices>(1);
    return nullptr;
}

// Only begins the way to the destruction: the scheduler may still use the worker, so the object
// stays until removeWorkerDone().
bool WorkerRegistry::destroyWorkThread(const std::string& device) {
    const auto entry =
        findIfUnsafe([&](const Entry& each) { return each.device == device && each.counts(); });
    if (entry == m_entries.end()) return false;
    const bool hasPlace = entry->phase == Phase::Active;
    entry->phase = Phase::Removing;
    m_schedulers.removeWorker(entry->worker.get(), hasPlace);
    Port<PopulationListener>::notify<&PopulationListener::addDevices>(-1);
    return true;
}

// A reset takes the device off the bus too, so what is counted here is shown as resets.
void WorkerRegistry::removeResetWorker(const std::string& device) {
    {
        MutexLock lock(m_mutex);
        if (!destroyWorkThread(device)) return;
        ++m_resetTimes[device];
    }
    tellPlug(EventAction::PluggedOut, device);
}

void WorkerRegistry::handleFailure(WorkThread* worker) {
    MutexLock lock(m_mutex);
    const auto entry = findUnsafe(worker);
    // What has given up its place, by an earlier failure or its removal, has none to give up.
    if (entry == m_entries.end() || entry->phase != Phase::Active) return;
    if (m_schedulers.handleFailure(worker)) entry->phase = Phase::Failed;
}

void WorkerRegistry::removeWorkerDone(WorkThread* worker) {
    if (!beginDestruction(worker)) return;
    LOG_INFO("Old worker(%s) is removed", worker->getName());
    // A device that never answers must not hold up the removal of the others.
    const auto destroy = [this, worker] { destroyWorker(worker); };
    if (!m_threads.start(destroy)) destroy();  // without a thread it is done here
}

bool WorkerRegistry::beginDestruction(WorkThread* worker) {
    MutexLock lock(m_mutex);
    const auto entry = findUnsafe(worker);
    if (entry == m_entries.end() || entry->phase != Phase::Removing) return false;
    entry->phase = Phase::Destroying;
    return true;
}

void WorkerRegistry::destroyWorker(WorkThread* worker) {
    MutexLock lock(m_mutex);
    const auto entry = findUnsafe(worker);  // stays valid: only this thread erases it
    while (entry->isPinned) m_changed.wait(m_mutex);
    std::unique_ptr<WorkThread> owned = std::move(entry->worker);
    lock.unlock();
    owned.reset();  // as long as the device takes: the entry keeps new workers from it meanwhile
    lock.lock();
    m_entries.erase(entry);
    m_changed.notifyAll();
}

WorkThread* WorkerRegistry::findWorker(uint32_t deviceId) {
    MutexLock lock(m_mutex);
    const auto entry = findIfUnsafe([&](const Entry& each) {
        return each.counts() && each.worker->getDevice()->getDeviceId() == deviceId;
    });
    return entry != m_entries.end() ? entry->worker.get() : nullptr;
}

WorkerRegistry::Entries::iterator WorkerRegistry::findUnsafe(const WorkThread* worker) {
    return findIfUnsafe([&](const Entry& entry) { return entry.worker.get() == worker; });
}

WorkerRegistry::Entries::iterator WorkerRegistry::findCreatingUnsafe(const std::string& device) {
    return findIfUnsafe([&](const Entry& entry) {
        return entry.device == device && entry.phase == Phase::Creating;
    });
}

// Sorted, since reports list the devices in this order.
std::set<WorkThread*> WorkerRegistry::getWorkersUnsafe() {
    std::set<WorkThread*> workers;
    for (const Entry& entry : m_entries) {
        if (entry.counts()) workers.insert(entry.worker.get());
    }
    return workers;
}

std::set<WorkThread*> WorkerRegistry::getWorkers() {
    MutexLock lock(m_mutex);
    return getWorkersUnsafe();
}

uint64_t WorkerRegistry::getWorkerNum() { return getWorkers().size(); }

// After close() nothing may be pinned: the end would wait for a device that is being read.
WorkerRegistry::PinnedWorker WorkerRegistry::pin(WorkThread* worker) {
    MutexLock lock(m_mutex);
    const auto entry = findUnsafe(worker);
    const bool isPinned = !m_closed && entry != m_entries.end() && entry->counts();
    if (isPinned) entry->isPinned = true;
    return {isPinned ? worker : nullptr, Unpin{this}};
}

void WorkerRegistry::unpin(WorkThread* worker) {
    MutexLock lock(m_mutex);
    findUnsafe(worker)->isPinned = false;  // still there: its destruction waits for this
    m_changed.notifyAll();
}

std::vector<DeviceFigures> WorkerRegistry::readDevices() {
    std::vector<DeviceFigures> devices;
    MutexLock lock(m_mutex);
    if (m_closed) return devices;
    // Under the mutex, which keeps the workers; what is read takes short locks only.
    for (WorkThread* worker : getWorkersUnsafe()) {
        DeviceFigures& device = devices.emplace_back(DeviceFigures::read(*worker));
        m_schedulers.describe(*worker, device);
        const auto resets = m_resetTimes.find(device.name);
        if (resets != m_resetTimes.end()) device.resetTimes = resets->second;
    }
    return devices;
}

void WorkerRegistry::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
    m_changed.notifyAll();
}

// All at once, each on a thread of its own: a worker that drains takes its time. Those that are
// Destroying have a thread already, which is waited for too.
bool WorkerRegistry::destroyWorkers(BoundedThreads::Deadline deadline) {
    std::vector<std::unique_ptr<WorkThread>> workers;
    {
        MutexLock lock(m_mutex);
        const auto isLeft = [](const Entry& entry) { return entry.phase != Phase::Destroying; };
        for (Entry& entry : m_entries) {
            if (isLeft(entry)) workers.push_back(std::move(entry.worker));
        }
        std::erase_if(m_entries, isLeft);
    }
    for (std::unique_ptr<WorkThread>& worker : workers) {
        // Without a thread the worker is destroyed here, with the closure.
        (void)m_threads.start([worker = std::move(worker)]() mutable { worker.reset(); });
    }
    return m_threads.waitEnd(deadline);
}

}  // namespace kelm

#include <utility>
#include <vector>

#include "devices/DeviceManager.h"
#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "utils/Log.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Results per second below which a device counts as idle. A busy one is read with its results.
constexpr float kIdleFps = 0.1f;

}  // namespace

bool DeviceManager::enqueuePluginDevice(int subclass, const std::string& name) {
    return enqueuePlugEvent(subclass, name, PLUG_IN);
}

bool DeviceManager::enqueuePlugoutDevice(int subclass, const std::string& name) {
    return enqueuePlugEvent(subclass, name, PLUG_OUT);
}

// The place in the device's queue is taken here, on the monitor's thread, so that a late removal
// cannot take the worker that the following event built. An event that repeats the last one is
// dropped: that one is being done, and would be done twice.
bool DeviceManager::enqueuePlugEvent(int subclass, const std::string& name, PlugEvent event) {
    if (subclass != m_subclass) return false;
    {
        MutexLock lock(m_mutex);
        const bool idle = !m_plugEvents.contains(name);
        if (m_stopping || (idle && event == PLUG_IN && m_creatingDevices.contains(name))) {
            return true;
        }
        std::deque<PlugEvent>& events = m_plugEvents[name];
        if (!idle && events.back() == event) return true;
        events.push_back(event);
        if (!idle) return true;
    }
    if (startThread([this, name] { handlePlugEvents(name); })) return true;
    MutexLock lock(m_mutex);
    m_plugEvents.erase(name);
    return true;
}

void DeviceManager::handlePlugEvents(const std::string& name) {
    MutexLock lock(m_mutex);
    std::deque<PlugEvent>& events = m_plugEvents[name];
    while (!events.empty() && !m_stopping) {
        const PlugEvent event = events.front();
        lock.unlock();
        handlePlugEvent(name, event);
        lock.lock();
        events.pop_front();  // only now: a repetition is dropped while the event is being done
    }
    m_plugEvents.erase(name);
}

void DeviceManager::handlePlugEvent(const std::string& name, PlugEvent event) {
    if (event == PLUG_IN) {
        createWorkThread(name, m_subclass);
    } else {
        removeResetWorker(name);
    }
}

void DeviceManager::deviceThermalUpdateRoutine() {
    ThreadUtils::setName(getName() + "TH");
    const std::chrono::milliseconds interval{m_updateThermalInterval};
    MutexLock lock(m_mutex);
    while (!m_stopping) {
        lock.unlock();
        updateThermals();
        lock.lock();
        const auto next = std::chrono::steady_clock::now() + interval;
        while (!m_stopping && m_changed.waitUntil(m_mutex, next)) {
        }
    }
}

// The mutex is free while a device is read: one that never answers must not take the manager along.
void DeviceManager::updateThermals() {
    std::vector<WorkThread*> workers;
    {
        MutexLock lock(m_mutex);
        for (const auto& [worker, owner] : m_workThreads) workers.push_back(worker);
    }
    for (WorkThread* worker : workers) {
        if (!pinForThermal(worker)) continue;
        if (worker->getTotalFps() < kIdleFps) (void)worker->getDevice()->updateThermal();
        worker->checkDevice();  // a reading may meet the end of the device
        unpinForThermal();
    }
}

bool DeviceManager::pinForThermal(WorkThread* worker) {
    MutexLock lock(m_mutex);
    if (m_stopping || !m_workThreads.contains(worker)) return false;
    m_thermalWorker = worker;
    return true;
}

void DeviceManager::unpinForThermal() {
    MutexLock lock(m_mutex);
    m_thermalWorker = nullptr;
    m_changed.notifyAll();
}

}  // namespace kelm

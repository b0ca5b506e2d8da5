#include "devices/PlugQueue.h"

#include "devices/BoundedThreads.h"
#include "devices/WorkerRegistry.h"

namespace kelm {

// The place in the queue is taken here, on the monitor's thread, which alone knows the order.
void PlugQueue::enqueue(const std::string& device, Event event) {
    MutexLock lock(m_mutex);
    if (m_closed) return;
    const auto queued = m_events.find(device);
    if (queued != m_events.end()) {
        if (queued->second.back() != event) queued->second.push_back(event);
        return;
    }
    m_events[device].push_back(event);
    // Without a thread the events of the device are lost, and it can be plugged in again.
    if (!m_threads.start([this, device] { handleEvents(device); })) m_events.erase(device);
}

// The reference stays good while the mutex is free: a map moves no entry, and only this thread
// erases the one of its device.
void PlugQueue::handleEvents(const std::string& device) {
    MutexLock lock(m_mutex);
    std::deque<Event>& events = m_events[device];
    while (!events.empty() && !m_closed) {
        const Event event = events.front();
        lock.unlock();
        handleEvent(device, event);
        lock.lock();
        events.pop_front();  // only now: a repetition is dropped while the event is being handled
    }
    m_events.erase(device);
}

void PlugQueue::handleEvent(const std::string& device, Event event) {
    if (event == PLUG_IN) {
        m_workers.createWorkThread(device);
    } else {
        m_workers.removeResetWorker(device);
    }
}

void PlugQueue::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
}

}  // namespace kelm

#include "devices/ThermalReader.h"

#include "devices/BoundedThreads.h"
#include "devices/WorkerRegistry.h"
#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Results per second below which a device counts as idle. Others are read with their results, see
// KelmZorvanDevice::updateThermalIfDue().
constexpr float kIdleFps = 0.1f;

}  // namespace

void ThermalReader::start(const std::string& threadName, std::chrono::milliseconds interval) {
    // Without a thread there are no readings, which no graph needs.
    (void)m_threads.start([this, threadName, interval] {
        ThreadUtils::setName(threadName);
        deviceThermalUpdateRoutine(interval);
    });
}

void ThermalReader::deviceThermalUpdateRoutine(std::chrono::milliseconds interval) {
    MutexLock lock(m_mutex);
    while (!m_closed) {
        lock.unlock();
        updateThermals();
        lock.lock();
        // From the end of the pass: readings that take long do not follow one another without a
        // pause.
        const auto next = std::chrono::steady_clock::now() + interval;
        while (!m_closed && m_closing.waitUntil(m_mutex, next)) {
        }
    }
}

// A worker is pinned only while its own device is read: one that never answers must not keep the
// workers of others from being destroyed.
void ThermalReader::updateThermals() {
    for (WorkThread* const candidate : m_workers.getWorkers()) {
        const WorkerRegistry::PinnedWorker worker = m_workers.pin(candidate);
        if (!worker) continue;
        if (worker->getTotalFps() < kIdleFps) (void)worker->getDevice()->updateThermal();
        worker->checkDevice();  // the reading may have been what met the end of the device
    }
}

void ThermalReader::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
    m_closing.notifyAll();
}

}  // namespace kelm

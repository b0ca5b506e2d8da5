#include "devices/DeviceManager.h"

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "execution/ResultSink.h"
#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "records/Request.h"
#include "reporting/EventListener.h"
#include "reporting/InfoCollector.h"
#include "reporting/KelmStatus.h"
#include "reporting/ServiceEvent.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/Mutex.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

using std::chrono::steady_clock;

constexpr uint64_t kPoolLimit = 100;

// Threads still run in a manager that was left behind, so it stays for the rest of the process,
// where leak checkers see it.
void keepForEver(DeviceManager* manager) {
    static Mutex mutex;
    static auto* const kept = new std::vector<DeviceManager*>;
    MutexLock lock(mutex);
    kept->push_back(manager);
}

}  // namespace

DeviceManager::DeviceManager(const std::string& name, DeviceManagerLimits limits)
    : m_limits(limits),
      m_trace(ServiceConfigParser::instance().isDeviceManagerDebugProcessEnabled()),
      m_threads(name),
      m_workers(m_settings, m_schedulers, m_threads, limits.oldWorker),
      m_plugQueue(m_workers, m_threads),
      m_thermalReader(m_workers, m_threads),
      m_report(m_settings, m_workers),
      m_threadPool(name, kPoolLimit) {}

// Only the deleter destroys, after stop() has succeeded.
DeviceManager::~DeviceManager() {
    CR_ASSERT(m_stopState == STOPPED, "device manager destroyed in use");
}

std::shared_ptr<DeviceManager> DeviceManager::create(const std::string& name,
                                                     DeviceManagerLimits limits) {
    return std::shared_ptr<DeviceManager>(new DeviceManager(name, limits), Deleter());
}

void DeviceManager::setDeviceList(int subclass, const std::vector<std::string>& names) {
    m_settings = DeviceSettings::load(subclass);
    if (m_report.isPrinting()) {
        // From here on the printer may call, so the settings are complete.
        Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
    }
    // Before the workers, each of which is given to a scheduler as soon as its device is open.
    m_schedulers.create(m_settings);
    for (const std::string& name : names) m_workers.createWorkThread(name);
    LOG_INFO("DEVICE FOUND : %lu", names.size());
    LOG_INFO("DEVICE OPENED : %lu", getWorkerNum());
    if (m_settings.updateThermalInterval.count() < 1) return;
    m_thermalReader.start(getName() + "TH", m_settings.updateThermalInterval);
}

bool DeviceManager::enqueuePluginDevice(int subclass, const std::string& name) {
    if (subclass != m_settings.subclass) return false;
    m_plugQueue.enqueue(name, PlugQueue::PLUG_IN);
    return true;
}

bool DeviceManager::enqueuePlugoutDevice(int subclass, const std::string& name) {
    if (subclass != m_settings.subclass) return false;
    m_plugQueue.enqueue(name, PlugQueue::PLUG_OUT);
    return true;
}

// A notice: the scheduling thread that brings it must not wait for this pool.
void DeviceManager::enqueueRemoveWorkerDone(WorkThread* worker) {
    m_threadPool.postNotice([this, worker] { m_workers.removeWorkerDone(worker); });
}

// The pool only passes resets on, so the requester waits for no device, even when the pool is full.
void DeviceManager::enqueueResetDevice(Request request) {
    m_threadPool.post(
        [this, request = std::move(request)]() mutable { resetDevice(std::move(request)); });
}

// On the pool, as the begin of a removed worker's destruction is: the worker that is found stays
// for the call.
void DeviceManager::resetDevice(Request request) {
    const uint32_t deviceId = request.as<KelmMsgReqResetDevice>().deviceId;
    if (WorkThread* const worker = m_workers.findWorker(deviceId)) {
        ServiceEvent event;
        event.action = EventAction::Reset;
        event.device = makeEventName(worker->getDevice()->getName());
        event.clientId = request.getClientId();
        Port<EventListener>::notify<&EventListener::record>(event);
        return worker->enqueueResetDevice(std::move(request));
    }
    LOG_ERROR("Error: cannot find worker with deviceId(%d)", deviceId);
    Port<ResultSink>::notify<&ResultSink::enqueueSendResetDeviceResponse>(KELM_ERROR_INVALID_DEVICE,
                                                                          std::move(request));
}

void DeviceManager::queryDeviceScheduler(KelmStatus& status) const {
    status.deviceSchedulerName = m_schedulers.getSqueezeName();
}

// What brings new work is closed first. No wait for a device is without a limit: it may never
// answer, and the service is to end all the same.
bool DeviceManager::stop() {
    if (m_stopState != RUNNING) return m_stopState == STOPPED;
    m_plugQueue.close();
    m_workers.close();
    m_thermalReader.close();
    if (m_report.isPrinting()) {
        // Without a lock: it waits for a call of the printer that is under way.
        Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    }
    LOG_STEP("to destruct device manager");
    const bool quiet = stopThreads();
    LOG_STEP("destroy all work threads");
    // Only once nothing uses the workers any more.
    if (quiet && m_workers.destroyWorkers(steady_clock::now() + m_limits.stop)) {
        LOG_STEP("device manager destructed");
        m_stopState = STOPPED;
        return true;
    }
    LOG_ERROR("Error: device manager(%s) waits for a device without end, left behind", getName());
    m_stopState = LEFT_BEHIND;
    return false;
}

// The schedulers are told to stop also if another thread has not: no new work reaches a worker that
// is left behind. The pool comes last, since the schedulers post their removed workers to it.
bool DeviceManager::stopThreads() {
    const auto deadline = steady_clock::now() + m_limits.stop;
    bool quiet = m_threads.waitEnd(deadline);
    LOG_STEP("destroy device scheduler");
    quiet &= m_schedulers.stop(deadline);
    return quiet && m_threadPool.waitIdleFor(timeUntil(deadline));
}

void DeviceManager::Deleter::operator()(DeviceManager* manager) const {
    if (manager->stop()) {
        delete manager;
    } else {
        keepForEver(manager);
    }
}

}  // namespace kelm

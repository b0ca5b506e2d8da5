#include "devices/DeviceManager.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "execution/ResultSink.h"
#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "records/Request.h"
#include "scheduling/devices/DeviceSchedulerBase.h"
#include "scheduling/devices/DeviceSchedulerFactory.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

constexpr uint64_t kPoolLimit = 100;

void notifyLoadFailed(KelmGraph* graph, KelmError error) {
    using Listener = GraphPlacementListener;
    Port<Listener>::notify<&Listener::enqueueNotifyLoadGraphDone>(graph, error);
}

}  // namespace

DeviceManager::DeviceManager(const std::string& name, Limits limits)
    : m_limits(limits), m_threadPool(name, 1, kPoolLimit) {}

DeviceManager::~DeviceManager() {
    MutexLock lock(m_mutex);
    CR_ASSERT(m_stopState == STOPPED, "device manager destroyed in use");
}

std::shared_ptr<DeviceManager> DeviceManager::create(const std::string& name) {
    return create(name, Limits());
}

std::shared_ptr<DeviceManager> DeviceManager::create(const std::string& name, Limits limits) {
    return std::shared_ptr<DeviceManager>(new DeviceManager(name, limits), Deleter());
}

void DeviceManager::setDeviceList(int subclass, const std::vector<std::string>& names) {
    m_subclass = subclass;
    loadServiceSettings();
    createDeviceScheduler();
    for (const std::string& name : names) createWorkThread(name, subclass);
    LOG_INFO("DEVICE FOUND : %lu", names.size());
    LOG_INFO("DEVICE OPENED : %lu", getWorkerNum());
    if (m_updateThermalInterval < 1) return;
    (void)startThread([this] { deviceThermalUpdateRoutine(); });  // without it: no readings
}

void DeviceManager::loadServiceSettings() {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    if (!config.getGraphTagMap(m_subclass, m_graphTagMap)) {
        throw std::invalid_argument(
            "Please check \"graph_tag_map\" configuration in kelm_service.config");
    }
    const int streamDevices = config.getStreamDeviceNumber(m_subclass);
    m_schedulers[STREAM].deviceNum = static_cast<uint64_t>(std::max(streamDevices, 0));
    m_maxGraphNumPerDevice = std::clamp(config.getMaxGraphNumPerDevice(m_subclass), 1, 2);
    m_maxPendingTaskNum = config.getMaxPendingTaskNum(m_subclass);
    m_maxPendingCycle = config.getMaxPendingCycle(m_subclass);
    // A device can always cache what it runs.
    m_maxCachedGraphNum = std::max(config.getMaxCachedGraphNumber(), m_maxGraphNumPerDevice);
    for (const auto& [tag, devices] : m_graphTagMap) m_schedulers[TAG].deviceNum += devices;
    m_schedulers[SQUEEZE].deviceNum = std::numeric_limits<uint64_t>::max();  // all that is left
    m_debugProcess = config.isDeviceManagerDebugProcessEnabled();
    m_updateThermalInterval = config.getUpdateThermalInterval();
    loadPrintSettings();
    startPrinting();  // last: from here on the printer may call
}

void DeviceManager::createDeviceScheduler() {
    SchedulerSlot& tag = m_schedulers[TAG];
    if (tag.deviceNum != 0) {
        tag.scheduler = DeviceSchedulerFactory::createScheduler("tag");
        tag.scheduler->setTagMap(m_graphTagMap);
        LOG_INFO("## TagScheduler created, which requires %lu workers ##", tag.deviceNum);
        tag.scheduler->start();
    }
    SchedulerSlot& stream = m_schedulers[STREAM];
    if (stream.deviceNum != 0) {
        stream.scheduler = DeviceSchedulerFactory::createScheduler("stream");
        stream.scheduler->setStreamDeviceNum(stream.deviceNum);
        LOG_INFO("## StreamScheduler created, which requires %lu workers ##", stream.deviceNum);
        stream.scheduler->start();
    }
    createSqueezeScheduler();
}

void DeviceManager::createSqueezeScheduler() {
    auto scheduler = DeviceSchedulerFactory::createScheduler("squeeze2");
    if (!scheduler) {
        LOG_ERROR("Error: failed to create SqueezeScheduler");
        return;
    }
    LOG_INFO("## SqueezeScheduler created ##");
    scheduler->setMaxGraphNumPerDevice(m_maxGraphNumPerDevice);
    scheduler->setMaxPendingTaskNum(m_maxPendingTaskNum);
    scheduler->setMaxPendingCycle(m_maxPendingCycle);
    scheduler->start();
    m_schedulers[SQUEEZE].scheduler = std::move(scheduler);
}

void DeviceManager::enqueueLoadGraph(KelmGraph* graph) {
    graph->setMaxGraphNumPerDevice(m_maxGraphNumPerDevice);
    if (!graph->getTag().empty()) {
        if (m_schedulers[TAG].scheduler) return m_schedulers[TAG].scheduler->loadGraph(graph);
        LOG_ERROR("Error: No device is set for tag scheduler, subclass = %u, required tag = %s",
                  m_subclass, escapeControls(graph->getTag()));
        return notifyLoadFailed(graph, KELM_ERROR_INVALID_PARAM);
    }
    if (!graph->getStreamId().empty()) {
        const SchedulerSlot& stream = m_schedulers[STREAM];
        if (stream.scheduler) return stream.scheduler->loadGraph(graph);
        LOG_ERROR(
            "Error: No device is set for stream scheduler, subclass = %u, required streamId = %s",
            m_subclass, escapeControls(graph->getStreamId()));
        return notifyLoadFailed(graph, KELM_ERROR_INVALID_PARAM);
    }
    const SchedulerSlot& squeeze = m_schedulers[SQUEEZE];
    if (squeeze.workerCount != 0) return squeeze.scheduler->loadGraph(graph);
    LOG_ERROR("Error: No device available in SqueezeScheduler(%p), SqueezeDeviceNumber=0",
              squeeze.scheduler.get());
    notifyLoadFailed(graph, KELM_ERROR_NO_DEVICE_AVAILABLE);
}

// Deliberate: falls through to the next kind of scheduler and at last to an answer at once, so that
// a destroy never hangs, whatever became of the load.
void DeviceManager::enqueueUnloadGraph(KelmGraph* graph) {
    const bool asked[SCHEDULER_KINDS] = {!graph->getTag().empty(), !graph->getStreamId().empty(),
                                         true};
    for (int kind = TAG; kind < SCHEDULER_KINDS; ++kind) {
        const SchedulerSlot& slot = m_schedulers[static_cast<size_t>(kind)];
        if (asked[kind] && slot.scheduler) return slot.scheduler->unloadGraph(graph);
    }
    using Listener = GraphPlacementListener;
    Port<Listener>::notify<&Listener::enqueueNotifyUnloadGraphDone>(graph);
}

bool DeviceManager::hasDevice(uint32_t deviceId) { return findWorker(deviceId) != nullptr; }

WorkThread* DeviceManager::findWorker(uint32_t deviceId) {
    MutexLock lock(m_mutex);
    for (const auto& [worker, owner] : m_workThreads) {
        if (worker->getDevice()->getDeviceId() == deviceId) return worker;
    }
    return nullptr;
}

uint64_t DeviceManager::getWorkerNum() {
    MutexLock lock(m_mutex);
    return m_workThreads.size();
}

int DeviceManager::getResetTimes(const std::string& name) {
    MutexLock lock(m_mutex);
    const auto found = m_resetTimes.find(name);
    return found != m_resetTimes.end() ? found->second : 0;
}

// The pool only passes them on, so whoever asks waits for no device, even when it is full.
void DeviceManager::enqueueResetDevice(Request request) {
    m_threadPool.post(
        [this, request = std::move(request)]() mutable { resetDevice(std::move(request)); });
}

// On the pool, as the taking of removed workers is: the worker that is found stays for the call.
void DeviceManager::resetDevice(Request request) {
    const uint32_t deviceId = request.as<KelmMsgReqResetDevice>().deviceId;
    if (WorkThread* const worker = findWorker(deviceId)) {
        return worker->enqueueResetDevice(std::move(request));
    }
    LOG_ERROR("Error: cannot find worker with deviceId(%d)", deviceId);
    Port<ResultSink>::notify<&ResultSink::enqueueSendResetDeviceResponse>(KELM_ERROR_INVALID_DEVICE,
                                                                          std::move(request));
}

}  // namespace kelm

#include "execution/KelmDeviceBase.h"

#include <utility>

#include "config/ServiceConfigParser.h"
#include "execution/KelmFakeDevice.h"
#include "execution/KelmZorvanDevice.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "reporting/EventListener.h"
#include "reporting/ServiceEvent.h"
#include "utils/OwedPools.h"
#include "utils/Port.h"
#include "utils/Tracer.h"

namespace kelm {

namespace {

// What depends on the kind of device that the configuration asks for.
struct DeviceKind {
    void (*initPlatform)();
    int (*resetAllDevices)();
    std::unique_ptr<KelmDeviceBase> (*create)(const std::string& name);
    int (*getGraphInfo)(const char* data, size_t size, KelmGraphInfo what, size_t& result);
};

constexpr DeviceKind kSimulated = {[] {}, []() -> int { return KELM_OK; },
                                   [](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
                                       return std::make_unique<KelmFakeDevice>(name);
                                   },
                                   &KelmFakeDevice::getGraphInfo};

constexpr DeviceKind kAccelerator = {
    &KelmZorvanDevice::initPlatform, &KelmZorvanDevice::resetAllDevices,
    [](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
        return std::make_unique<KelmZorvanDevice>(name);
    },
    &KelmZorvanDevice::getGraphInfo};

const DeviceKind& configuredKind() {
    return ServiceConfigParser::instance().isFakeDeviceEnabled() ? kSimulated : kAccelerator;
}

struct InstalledFactory {
    Mutex mutex;
    KelmDeviceBase::Factory factory GUARDED_BY(mutex);
};

InstalledFactory& installedFactory() {
    static InstalledFactory installed;
    return installed;
}

}  // namespace

std::atomic<uint32_t> KelmDeviceBase::m_deviceIdCounter{0};

KelmDeviceBase::KelmDeviceBase(KelmDeviceBase* parent, const std::string& name, uint32_t deviceId)
    : m_deviceId(deviceId),
      m_parent(parent),
      m_name(name),
      m_fpsCounter("KelmDevice", name, "Fps"),
      m_utilizationCounter("KelmDevice", name, "Utilization") {
    m_fpsCounter.m_bufferTimeMs = ServiceConfigParser::instance().getFpsBufferTimeLength();
}

KelmDeviceBase::KelmDeviceBase(const std::string& name)
    : KelmDeviceBase(nullptr, name, m_deviceIdCounter.fetch_add(1)) {}

// A clone is made of an open root, and is open from the start.
KelmDeviceBase::KelmDeviceBase(KelmDeviceBase* parent)
    : KelmDeviceBase(parent, parent->getName(), parent->getDeviceId()) {
    m_memorySize = parent->getMemorySize();
    MutexLock lock(parent->m_deviceMutex);
    m_opened = parent->m_opened;
}

KelmDeviceBase::~KelmDeviceBase() = default;

// For devices without hardware, queues or a cache: nothing to lose, to set or to forget.
bool KelmDeviceBase::isHardwareError(int) { return false; }

void KelmDeviceBase::setFifoCapacity(unsigned int) {}

void KelmDeviceBase::setMaxCacheGraphNumber(int) {}

int KelmDeviceBase::updateThermal() { return KELM_OK; }

int KelmDeviceBase::hardwareResetDeviceCore() { return KELM_OK; }

void KelmDeviceBase::forgetGraphImpl(KelmGraph*) {}

void KelmDeviceBase::abandonResult(KelmTask*) {}

void KelmDeviceBase::forgetGraphs() {}

int KelmDeviceBase::openDevice() {
    OwedPools::assertSettled();
    MutexLock lock(m_deviceMutex);
    if (m_opened) return KELM_ERROR_DEVICE_ALREADY_OPEN;
    return openDevice(m_name.c_str());
}

void KelmDeviceBase::closeDevice() {
    MutexLock lock(m_deviceMutex);
    if (!m_opened) return;
    (void)closeDeviceImpl();  // after a failure, too, there is no use for the device
}

void KelmDeviceBase::setThermalThrottlingLevel(int32_t level) {
    const bool wasThrottled = m_thermalThrottlingLevel.exchange(level) > 0;
    if (wasThrottled == (level > 0)) return;
    ServiceEvent event;
    event.action = level > 0 ? EventAction::ThrottlingOn : EventAction::ThrottlingOff;
    event.device = makeEventName(m_name);
    Port<EventListener>::notify<&EventListener::record>(event);
}

int KelmDeviceBase::resetDevice() {
    OwedPools::assertSettled();
    MutexLock lock(m_deviceMutex);
    if (!m_opened) return KELM_ERROR_INVALID_DEVICE;
    return hardwareResetDeviceCore();
}

int KelmDeviceBase::allocateGraph(KelmGraph* graph) {
    OwedPools::assertSettled();
    // Before the mutex, which a load that never returns may hold: a failed device answers at once.
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    MutexLock lock(m_deviceMutex);
    if (!m_opened) return KELM_ERROR_DEVICE_NOT_OPEN;
    if (!verifyGraph(graph)) return KELM_ERROR_GRAPH_VERIFY_FAILED;
    // By content: two records of the same blob share what is on the device.
    if (compareGraph(getCurrentGraph(), graph)) return KELM_OK;
    // Before the load and not behind it: a load takes long, and the display must not show the graph
    // that has left as running all that time.
    resetGraphInfo();
    const uint64_t trace = traceBegin("load_graph_", graph->getId(), "_device_", m_deviceId.load());
    const int rc = allocateGraphImpl(graph);
    TraceEndCsv(trace);
    if (rc != KELM_OK) {
        graph->increaseLoadFailCount();  // schedulers give up a graph that fails too often
        resetGraphInfo();
        return rc;
    }
    setCurrentGraph(graph);
    return KELM_OK;
}

int KelmDeviceBase::deallocateGraph(KelmGraph* graph, bool keepCached) {
    OwedPools::assertSettled();
    if (graph == nullptr) return KELM_ERROR_INVALID_PARAM;
    MutexLock lock(m_deviceMutex);
    const uint64_t trace =
        traceBegin("unload_graph_", graph->getId(), "_device_", m_deviceId.load());
    const int rc = deallocateGraphImpl(graph, keepCached);
    TraceEndCsv(trace);
    if (getCurrentGraph() == graph) resetGraphInfo();
    // What a device cannot release stays in its memory for good, so no graph may be loaded on it
    // any more. The flag is not tested above, so that graphs can still be taken off it.
    if (rc != KELM_OK) m_deviceFailed = true;
    return rc;
}

// The record of the graph is deleted after this, so no pointer to it may stay behind.
void KelmDeviceBase::forgetGraph(KelmGraph* graph) {
    MutexLock lock(m_deviceMutex);
    forgetGraphImpl(graph);
    if (getCurrentGraph() == graph) resetGraphInfo();
}

// Without m_deviceMutex, so that inputs and results overlap. The graph cannot leave meanwhile: a
// slave worker takes it off only when none of its tasks is on the device.
int KelmDeviceBase::loadTensor(KelmTask* task) {
    OwedPools::assertSettled();
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    if (getCurrentGraph() == nullptr) return KELM_ERROR_GRAPH_NOT_ALLOCATED;
    if (isTracerOn()) {
        task->finishExecutionTrace();  // of an earlier attempt, which gave no result
        task->setExecutionTraceIndex(traceBegin("task_", task->getId(), "_inference"));
    }
    // Before the tensor is fed, since the result thread may count the task out at once.
    if (m_parent != nullptr) m_parent->increaseCacheTaskNum();
    const int rc = loadTensorImpl(task);
    if (rc != KELM_OK && m_parent != nullptr) m_parent->decreaseCacheTaskNum();
    return rc;
}

int KelmDeviceBase::getResult(KelmTask* task) {
    OwedPools::assertSettled();
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    if (getCurrentGraph() == nullptr) return KELM_ERROR_GRAPH_NOT_ALLOCATED;
    const int rc = getResultImpl(task);
    task->finishExecutionTrace();
    // Deliberate: a failed result counts as a result, since the device has answered.
    countResult();
    if (m_parent != nullptr) m_parent->decreaseCacheTaskNum();
    return rc;
}

bool KelmDeviceBase::verifyGraph(const KelmGraph* graph) {
    return graph != nullptr && graph->getData() != nullptr;
}

bool KelmDeviceBase::compareGraph(const KelmGraph* a, const KelmGraph* b) {
    return a != nullptr && b != nullptr && a->getHash() == b->getHash();
}

void KelmDeviceBase::setCurrentGraph(KelmGraph* graph) {
    // A copy: the name is still shown when the graph's record has been deleted.
    const std::string name = graph->getName();
    MutexLock lock(m_graphInfoMutex);
    m_currentGraph = graph;
    m_currentGraphName = name;
    // By the wall clock: the time is for displays.
    m_currentGraphLoadTime = std::chrono::system_clock::now();
    m_currentInferenceCount = 0;
}

void KelmDeviceBase::resetGraphInfo() {
    MutexLock lock(m_graphInfoMutex);
    if (m_currentGraph == nullptr) return;  // or a failed load would wipe out the previous slots
    m_currentGraph = nullptr;
    m_fpsCounter.reset();
    m_utilizationCounter.reset();
    m_previousGraphName = m_currentGraphName;
    m_previousGraphLoadTime = m_currentGraphLoadTime;
    m_previousInferenceCount = m_currentInferenceCount;
    m_previousGraphUnloadTime = std::chrono::system_clock::now();
}

// The graph is followed under the mutex: it is alive for as long as it is the current one.
void KelmDeviceBase::countResult() {
    MutexLock lock(m_graphInfoMutex);
    m_fpsCounter.update();
    ++m_currentInferenceCount;
    if (KelmGraph* const graph = m_currentGraph.load()) graph->increaseInferenceTimes();
}

// The device is busy from the first task in flight to the last, of whichever clone.
void KelmDeviceBase::increaseCacheTaskNum() {
    MutexLock lock(m_graphInfoMutex);
    if (m_cacheTaskNum == 0) m_utilizationCounter.start();
    ++m_cacheTaskNum;
}

void KelmDeviceBase::decreaseCacheTaskNum() {
    MutexLock lock(m_graphInfoMutex);
    if (m_cacheTaskNum == 1) m_utilizationCounter.stop();
    --m_cacheTaskNum;
}

// A device without a cache of its own holds what it runs.
std::vector<KelmGraph*> KelmDeviceBase::getCachedGraphList() {
    KelmGraph* const graph = getCurrentGraph();
    if (graph == nullptr) return {};
    return {graph};
}

std::vector<std::string> KelmDeviceBase::getCachedGraphNames() {
    MutexLock lock(m_graphInfoMutex);
    if (m_currentGraph == nullptr) return {};
    return {m_currentGraphName};
}

// The getters below have a lock each: what two of them tell may be of two graphs, which does no
// harm on a display.
std::string KelmDeviceBase::getCurrentGraphName() {
    MutexLock lock(m_graphInfoMutex);
    return m_currentGraph != nullptr ? m_currentGraphName : std::string();
}

std::string KelmDeviceBase::getPreviousGraphName() {
    MutexLock lock(m_graphInfoMutex);
    return m_previousGraphName;
}

uint32_t KelmDeviceBase::getCurrentInferenceCount() {
    MutexLock lock(m_graphInfoMutex);
    return m_currentGraph != nullptr ? m_currentInferenceCount : 0;
}

uint32_t KelmDeviceBase::getPreviousInferenceCount() {
    MutexLock lock(m_graphInfoMutex);
    return m_previousGraphName.empty() ? 0 : m_previousInferenceCount;
}

bool KelmDeviceBase::getCurrentGraphLoadTime(TimePoint& time) {
    MutexLock lock(m_graphInfoMutex);
    if (m_currentGraph == nullptr) return false;
    time = m_currentGraphLoadTime;
    return true;
}

bool KelmDeviceBase::getPreviousGraphLoadTime(TimePoint& time) {
    MutexLock lock(m_graphInfoMutex);
    if (m_previousGraphName.empty()) return false;
    time = m_previousGraphLoadTime;
    return true;
}

bool KelmDeviceBase::getPreviousGraphUnloadTime(TimePoint& time) {
    MutexLock lock(m_graphInfoMutex);
    if (m_previousGraphName.empty()) return false;
    time = m_previousGraphUnloadTime;
    return true;
}

// A failed device may still have results in the window, and gives no more.
float KelmDeviceBase::getFps() {
    if (m_deviceFailed) return 0.0f;
    MutexLock lock(m_graphInfoMutex);
    return m_fpsCounter.getFps();
}

float KelmDeviceBase::getDeviceUtilization() {
    if (m_deviceFailed) return 0.0f;
    return m_utilizationCounter.getUtilization();
}

void KelmDeviceBase::initPlatform() { configuredKind().initPlatform(); }

int KelmDeviceBase::resetAllDevices() { return configuredKind().resetAllDevices(); }

std::unique_ptr<KelmDeviceBase> KelmDeviceBase::create(const std::string& name) {
    Factory factory;  // a copy, since it is called without the lock
    {
        MutexLock lock(installedFactory().mutex);
        factory = installedFactory().factory;
    }
    return factory ? factory(name) : configuredKind().create(name);
}

int KelmDeviceBase::getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                 size_t& result) {
    return configuredKind().getGraphInfo(data, size, what, result);
}

// The number of devices to simulate has a meaning only in that mode; else `count` stays as it is.
bool KelmDeviceBase::isFakeDeviceModeEnabled(int* count) {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    if (!config.isFakeDeviceEnabled()) return false;
    if (count != nullptr) *count = config.getFakeDeviceNum();
    return true;
}

void KelmDeviceBase::setFactory(Factory factory) {
    MutexLock lock(installedFactory().mutex);
    installedFactory().factory = std::move(factory);
}

}  // namespace kelm

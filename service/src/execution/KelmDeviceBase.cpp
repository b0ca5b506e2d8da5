#include "execution/KelmDeviceBase.h"

#include "config/ServiceConfigParser.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "utils/Tracer.h"

namespace kelm {

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

KelmDeviceBase::KelmDeviceBase(KelmDeviceBase* parent)
    : KelmDeviceBase(parent, parent->getName(), parent->getDeviceId()) {
    m_memorySize = parent->getMemorySize();
    MutexLock lock(parent->m_deviceMutex);
    m_opened = parent->m_opened;
}

KelmDeviceBase::~KelmDeviceBase() = default;

bool KelmDeviceBase::isHardwareError(int) { return false; }

void KelmDeviceBase::setFifoCapacity(unsigned int) {}

void KelmDeviceBase::setMaxCacheGraphNumber(int) {}

int KelmDeviceBase::updateThermal() { return KELM_OK; }

int KelmDeviceBase::hardwareResetDeviceCore() { return KELM_OK; }

void KelmDeviceBase::forgetGraphImpl(KelmGraph*) {}

void KelmDeviceBase::abandonResult(KelmTask*) {}

void KelmDeviceBase::forgetGraphs() {}

int KelmDeviceBase::openDevice() {
    MutexLock lock(m_deviceMutex);
    if (m_opened) return KELM_ERROR_DEVICE_ALREADY_OPEN;
    return openDevice(m_name.c_str());
}

void KelmDeviceBase::closeDevice() {
    MutexLock lock(m_deviceMutex);
    if (!m_opened) return;
    (void)closeDeviceImpl();  // the device is given up either way
}

int KelmDeviceBase::resetDevice() {
    MutexLock lock(m_deviceMutex);
    if (!m_opened) return KELM_ERROR_INVALID_DEVICE;
    return hardwareResetDeviceCore();
}

int KelmDeviceBase::allocateGraph(KelmGraph* graph) {
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    MutexLock lock(m_deviceMutex);
    if (!m_opened) return KELM_ERROR_DEVICE_NOT_OPEN;
    if (!verifyGraph(graph)) return KELM_ERROR_GRAPH_VERIFY_FAILED;
    if (compareGraph(getCurrentGraph(), graph)) return KELM_OK;
    // The leaving graph's statistics move on before the new graph starts.
    resetGraphInfo();
    const uint64_t trace = traceBegin("load_graph_", graph->getId(), "_device_", m_deviceId.load());
    const int rc = allocateGraphImpl(graph);
    TraceEndCsv(trace);
    if (rc != KELM_OK) {
        graph->increaseLoadFailCount();
        resetGraphInfo();
        return rc;
    }
    setCurrentGraph(graph);
    return KELM_OK;
}

int KelmDeviceBase::deallocateGraph(KelmGraph* graph, bool keepCached) {
    if (graph == nullptr) return KELM_ERROR_INVALID_PARAM;
    MutexLock lock(m_deviceMutex);
    const uint64_t trace =
        traceBegin("unload_graph_", graph->getId(), "_device_", m_deviceId.load());
    const int rc = deallocateGraphImpl(graph, keepCached);
    TraceEndCsv(trace);
    if (getCurrentGraph() == graph) resetGraphInfo();
    // A device that cannot release a graph is done for. The flag is not tested above, so that
    // graphs can still be taken off a failed device.
    if (rc != KELM_OK) m_deviceFailed = true;
    return rc;
}

void KelmDeviceBase::forgetGraph(KelmGraph* graph) {
    MutexLock lock(m_deviceMutex);
    forgetGraphImpl(graph);
    if (getCurrentGraph() == graph) resetGraphInfo();
}

int KelmDeviceBase::loadTensor(KelmTask* task) {
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    if (getCurrentGraph() == nullptr) return KELM_ERROR_GRAPH_NOT_ALLOCATED;
    if (isTracerOn()) {
        task->finishExecutionTrace();  // of an earlier attempt, which gave no result
        task->setExecutionTraceIndex(traceBegin("task_", task->getId(), "_inference"));
    }
    if (m_parent != nullptr) m_parent->increaseCacheTaskNum();
    const int rc = loadTensorImpl(task);
    if (rc != KELM_OK && m_parent != nullptr) m_parent->decreaseCacheTaskNum();
    return rc;
}

int KelmDeviceBase::getResult(KelmTask* task) {
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

}  // namespace kelm

#include "execution/KelmZorvanDevice.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "config/ServiceConfigParser.h"
#include "execution/KelmZorvanClone.h"
#include "records/KelmGraph.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// In the order of KelmGraphInfo.
struct GraphInfoRow {
    int type;
    const char* name;
};
constexpr GraphInfoRow kGraphInfoRows[] = {{QX_NINTPUT_SIZE, "QX_NINTPUT_SIZE"},
                                           {QX_NOUTPUT_SIZE, "QX_NOUTPUT_SIZE"},
                                           {QX_TIMETAKEN_SIZE, "QX_TIMETAKEN_SIZE"},
                                           {QX_DEBUG_INFO_SIZE, "QX_DEBUG_INFO_SIZE"},
                                           {QX_THERMAL_SIZE, "QX_THERMAL_SIZE"}};

// The device lays out more than the blob: without a margin graphs of an estimated size would be
// refused instead of an older one being evicted.
constexpr double kMemoryMargin = 1.25;

// Cut at the largest number: a conversion of more than that is undefined.
unsigned int withMargin(uint32_t megabytes) {
    const double wanted = megabytes * kMemoryMargin;
    constexpr double kMost = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(wanted, kMost));
}

void setGlobalOption(const TevoFunctions& tevo, int option, int value) {
    (void)tevo.qxGlobalSetOption(option, &value, sizeof(value));  // the default will do
}

}  // namespace

KelmZorvanDevice::KelmZorvanDevice(const std::string& name)
    : KelmDeviceBase(name),
      m_device(name, [this] { (void)hardwareResetDeviceCore(); }),  // the first failure is told
      m_trace(m_device.trace),
      m_useSystemTensor(ServiceConfigParser::instance().getTensorContainer() == "system"),
      m_updateThermalInterval(ServiceConfigParser::instance().getUpdateThermalInterval()),
      m_loader(m_device),
      m_cache(name),
      m_lastThermalUpdate(std::chrono::steady_clock::now()) {
    if (m_useSystemTensor) LOG_INFO("[dev:%s] Use system tensor container", name);
}

// The graphs before the device that they are on. The call names the class, since a destructor must
// not reach what a derived class would override.
KelmZorvanDevice::~KelmZorvanDevice() {
    for (TevoHandles& handles : m_cache.takeAll()) m_loader.deallocateGraph(handles);
    (void)KelmZorvanDevice::closeDeviceImpl();  // has logged what failed
}

std::unique_ptr<KelmDeviceBase> KelmZorvanDevice::clone() {
    return std::make_unique<KelmZorvanClone>(*this);
}

void KelmZorvanDevice::initPlatform() {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    const TevoFunctions& tevo = TevoLibrary::functions();
    setGlobalOption(tevo, QX_GLOBAL_LOG_LEVEL, config.getTevoLogLevel());
    setGlobalOption(tevo, QX_GLOBAL_COMMON_TIMEOUT, config.getCommonTimeout());
    setGlobalOption(tevo, QX_GLOBAL_ALLOC_GRAPH_TIMEOUT, config.getAllocGraphTimeout());
    (void)tevo.qxPlatformInit(0);  // a platform that is not ready fails each device's open
}

int KelmZorvanDevice::resetAllDevices() { return TevoLibrary::functions().qxDeviceResetAll(); }

int KelmZorvanDevice::getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                   size_t& result) {
    const auto index = static_cast<size_t>(what);
    const bool known = index < std::size(kGraphInfoRows);
    int rc = KELM_ERROR_INVALID_PARAM;
    uint64_t value = 0;  // of a width that is not documented
    if (known) {
        unsigned int length = sizeof(uint32_t);
        rc = TevoLibrary::functions().qxGraphGetInfoSize(
            data, clampLength(size), kGraphInfoRows[index].type, &value, &length);
    }
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxGraphGetInfoSize(%s) failed, retCode=%d",
                  known ? kGraphInfoRows[index].name : "", rc);
        return rc;
    }
    result = value;
    return KELM_OK;
}

void KelmZorvanDevice::setMaxCacheGraphNumber(int number) {
    if (number > 0) m_maxCachedGraphNum = number;
}

int KelmZorvanDevice::openDevice(const char* name) {
    const int rc = m_device.traced("qxDeviceOpenBooted", [&] {
        return m_device.tevo.qxDeviceOpenBooted(&m_device.handle, name);
    });
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxDeviceOpenBooted() failed, device=%s rc=%d", name, rc);
        m_device.handle = nullptr;
        return rc;
    }
    // From here on the id is the library's, which clients see and name in reset requests.
    unsigned int id = 0;
    const int idStatus = m_device.traced(
        "qxDeviceGetId", [&] { return m_device.tevo.qxDeviceGetId(m_device.handle, &id); });
    if (idStatus != KELM_OK) {
        LOG_ERROR("Error: qxDeviceGetId(%p) failed, device=%s rc=%d", m_device.handle, name,
                  idStatus);
        // The handle stays: the destructor closes it.
        m_device.hardwareResetDevice(idStatus);
        return idStatus;
    }
    m_deviceId = id;
    unsigned int size = 0;
    const int sizeStatus = m_device.checked(
        m_device.getDeviceWord(QX_RO_DEVICE_MEMORY_SIZE, &size),
        "Error: qxDeviceGetOption(QX_RO_DEVICE_MEMORY_SIZE) failed, device=%s rc=%d");
    if (sizeStatus != KELM_OK) return sizeStatus;
    m_opened = true;
    m_memorySize = size >> kMegabyteShift;
    LOG_STEP("Zorvan device %s opened success", name);
    return KELM_OK;
}

// Destroyed also after a close that failed: there is no other use for the handle. The status is
// that of the last call.
int KelmZorvanDevice::closeDeviceImpl() {
    if (m_device.handle == nullptr) return KELM_OK;
    int rc = m_device.traced("qxDeviceClose",
                             [&] { return m_device.tevo.qxDeviceClose(m_device.handle); });
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxDeviceClose() failed, device=%s rc=%d", getName(), rc);
    }
    rc = m_device.traced("qxDeviceDestroy",
                         [&] { return m_device.tevo.qxDeviceDestroy(&m_device.handle); });
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxDeviceDestroy() failed, device=%s rc=%d", getName(), rc);
    }
    m_device.handle = nullptr;
    m_opened = false;
    return rc;
}

// Deliberate: decided once. Of the threads that fail together one resets; the others report their
// own failure without waiting for it.
int KelmZorvanDevice::hardwareResetDeviceCore() {
    if (m_resetDone.exchange(true)) return KELM_OK;
    const int rc = m_device.traced("qxDeviceHWReset",
                                   [&] { return m_device.tevo.qxDeviceHWReset(m_device.handle); });
    LOG_INFO("hardware reset device(%s) finished, deviceId=%u rc=%d", getName(), getDeviceId(), rc);
    m_deviceFailed = true;
    // The reset has cleared the device's memory. The handles stay until the destruction: other
    // threads may be inside of the library with them.
    m_cache.close();
    return rc;
}

int KelmZorvanDevice::allocateGraphImpl(KelmGraph* graph) { return loadGraph(graph); }

int KelmZorvanDevice::deallocateGraphImpl(KelmGraph* graph, bool keepCached) {
    return unloadGraph(graph, keepCached);
}

void KelmZorvanDevice::forgetGraphImpl(KelmGraph* graph) { dropGraph(graph); }

// A root has no queues: tasks reach the device through the clones of its slave workers.
int KelmZorvanDevice::loadTensorImpl(KelmTask*) { return KELM_ERROR_INVALID_PARAM; }

int KelmZorvanDevice::getResultImpl(KelmTask*) { return KELM_ERROR_INVALID_PARAM; }

// m_graphMutex is taken for all clones together: an eviction must not meet a load in between.
int KelmZorvanDevice::loadGraph(KelmGraph* graph) {
    MutexLock lock(m_graphMutex);
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    if (m_cache.activate(graph)) return KELM_OK;  // still on the device: no call is needed
    deallocOldestInactiveGraphIfFull(withMargin(graph->getMemReq()));
    TevoQueues queues;
    const int rc = m_loader.allocateGraph(graph, queues);
    if (rc != KELM_OK) return rc;
    if (!m_cache.insert(graph, queues)) {  // lost to another thread's failure in the meantime
        m_loader.deallocateGraph(queues.handles);
        return KELM_ERROR_DEVICE_FAILED;
    }
    LOG_STEP("allocate new graph(%s) done, numCachedGraphs=%lu", escapeControls(graph->getName()),
             m_cache.getSize());
    return KELM_OK;
}

// For a graph whose queues may be full of results of which it is not known whether they can be
// read: a read of what is not there would never return. After a failure the next task tries again.
int KelmZorvanDevice::renewGraph(KelmGraph* graph) {
    MutexLock lock(m_graphMutex);
    LOG_WARN("Warn: too many results were not read, graph(%s) is loaded again: device=%s",
             escapeControls(graph->getName()), getName());
    // The graph stays in the cache meanwhile, without handles: no other thread evicts it, and what
    // fails below is no unload that its slave worker has not asked for.
    std::optional<TevoHandles> old = m_cache.takeHandles(graph);
    if (!old) return getMissingGraphError();
    m_loader.deallocateGraph(*old);
    TevoQueues queues;
    if (const int rc = m_loader.allocateGraph(graph, queues)) return rc;
    if (m_cache.renew(graph, queues)) return KELM_OK;
    m_loader.deallocateGraph(queues.handles);
    return getMissingGraphError();
}

// A device that was lost since the task came has no graphs any more.
int KelmZorvanDevice::getMissingGraphError() const {
    return isFailed() ? KELM_ERROR_DEVICE_FAILED : KELM_ERROR_INVALID_PARAM;
}

int KelmZorvanDevice::unloadGraph(KelmGraph* graph, bool keepCached) {
    MutexLock lock(m_graphMutex);
    if (keepCached) {
        m_cache.deactivate(graph);
        return KELM_OK;
    }
    std::optional<TevoHandles> handles = m_cache.take(graph);
    // A graph that was evicted after its unload was planned is as good as unloaded; an error would
    // mark the device as failed.
    if (!handles) return KELM_OK;
    m_loader.deallocateGraph(*handles);
    LOG_STEP("dealloc graph(%s) done, numCachedGraphs=%lu", escapeControls(graph->getName()),
             m_cache.getSize());
    return KELM_OK;
}

// Deliberate: at most one, so that the limit is soft. Where active graphs fill the cache it grows,
// and where one eviction frees too little the device refuses the allocation.
void KelmZorvanDevice::deallocOldestInactiveGraphIfFull(unsigned int required) {
    unsigned int used = 0;
    // Without a reading nothing is evicted: the allocation that follows tells if there is room.
    if (m_loader.getCurrentMemeoryUsed(&used) != KELM_OK) return;
    const uint64_t wanted = uint64_t{used >> kMegabyteShift} + required;
    if (wanted < getMemorySize() && static_cast<size_t>(m_maxCachedGraphNum) > m_cache.getSize()) {
        return;
    }
    std::string name;
    std::optional<TevoHandles> handles = m_cache.takeOldestInactive(name);
    if (!handles) return;
    m_loader.deallocateGraph(*handles);
    LOG_STEP("dealloc oldest cached graph(%s) done, numCachedGraphs=%lu", escapeControls(name),
             m_cache.getSize());
}

// The mutex makes threads that meet the interval's end together read once and not twice.
int KelmZorvanDevice::updateThermalIfDue() {
    if (m_updateThermalInterval < 1) return KELM_OK;  // readings are switched off
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    MutexLock lock(m_thermalMutex);
    const SteadyTime now = std::chrono::steady_clock::now();
    const std::chrono::duration<float, std::milli> passed = now - m_lastThermalUpdate;
    if (passed.count() < static_cast<float>(m_updateThermalInterval)) return KELM_OK;
    const int rc = updateThermal();
    // After a failure, too: a device that cannot be read is not asked again with each result.
    m_lastThermalUpdate = now;
    return rc;
}

int KelmZorvanDevice::updateThermal() {
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    char stats[kThermalStatsSize] = {};
    unsigned int length = sizeof(stats);
    LOG_TASK("to call qxDeviceGetOption(), devHandle=%p option=QX_RO_DEVICE_THERMAL_STATS",
             m_device.handle);
    int rc = m_device.tevo.qxDeviceGetOption(m_device.handle, QX_RO_DEVICE_THERMAL_STATS, stats,
                                             &length);
    LOG_TASK("called qxDeviceGetOption(), devHandle=%p thermalStats=%p thermalStatsLen=%u",
             m_device.handle, static_cast<const void*>(stats), length);
    if (rc != KELM_OK) {
        return m_device.checked(
            rc, "Error: qxDeviceGetOption(QX_RO_DEVICE_THERMAL_STATS) failed, device=%s rc=%d");
    }
    // The statistics begin with the present temperature; the rest is for clients that ask for it.
    float thermal = 0.0f;
    std::memcpy(&thermal, stats, sizeof(thermal));
    m_thermal = thermal;
    int level = 0;
    length = sizeof(level);
    LOG_TASK(
        "to call qxDeviceGetOption(), devHandle=%p "
        "option=QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL",
        m_device.handle);
    rc = m_device.tevo.qxDeviceGetOption(m_device.handle, QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL,
                                         &level, &length);
    LOG_TASK("called qxDeviceGetOption(), devHandle=%p throttling=%d throttlingLen=%u",
             m_device.handle, level, length);
    if (rc != KELM_OK) {
        return m_device.checked(
            rc,
            "Error: qxDeviceGetOption(QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL) failed, "
            "device=%s rc=%d");
    }
    setThermalThrottlingLevel(level);
    return KELM_OK;
}

}  // namespace kelm

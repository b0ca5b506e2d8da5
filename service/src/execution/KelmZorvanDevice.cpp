#include "execution/KelmZorvanDevice.h"

#include <algorithm>
#include <iterator>

#include "config/ServiceConfigParser.h"
#include "execution/TevoLengths.h"

namespace kelm {

namespace {

// Results to wait before inference times are read: the first ones after a change are slow.
constexpr int32_t kWarmupResults = 5;

// Statuses of the library that mean a lost device, and the service's own mark of one.
constexpr int kHardwareErrors[] = {-2, -6, -8, -13, KELM_ERROR_DEVICE_FAILED};

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

void setGlobalOption(const TevoFunctions& tevo, int option, int value) {
    (void)tevo.qxGlobalSetOption(option, &value, sizeof(value));  // the default will do
}

}  // namespace

KelmZorvanDevice::KelmZorvanDevice(const std::string& name)
    : KelmDeviceBase(name),
      m_tevo(TevoLibrary::functions()),
      m_root(this),
      m_logName("dev:" + name),
      m_debugProcess(ServiceConfigParser::instance().isDeviceDebugProcessEnabled()),
      m_useSystemTensor(ServiceConfigParser::instance().getTensorContainer() == "system"),
      m_updateThermalInterval(ServiceConfigParser::instance().getUpdateThermalInterval()),
      m_updateInferTimeInterval(ServiceConfigParser::instance().getUpdateInferTimeInterval()),
      m_cache(name),
      m_lastThermalUpdate(std::chrono::steady_clock::now()),
      m_inferTimeWarmup(kWarmupResults),
      m_lastInferTimeUpdate(m_lastThermalUpdate) {
    if (m_useSystemTensor) LOG_INFO("[dev:%s] Use system tensor container", name);
}

KelmZorvanDevice::KelmZorvanDevice(KelmZorvanDevice* parent)
    : KelmDeviceBase(parent),
      m_tevo(parent->m_tevo),
      m_root(parent->m_root),
      m_fifoCapacity(parent->m_fifoCapacity),
      m_maxCachedGraphNum(parent->m_maxCachedGraphNum),
      m_logName(parent->m_logName),
      m_debugProcess(parent->m_debugProcess),
      m_useSystemTensor(parent->m_useSystemTensor),
      m_updateThermalInterval(parent->m_updateThermalInterval),
      m_updateInferTimeInterval(parent->m_updateInferTimeInterval),
      m_deviceHandle(parent->m_deviceHandle),
      m_cache(parent->getName()),
      m_lastThermalUpdate(std::chrono::steady_clock::now()),
      m_inferTimeWarmup(kWarmupResults),
      m_lastInferTimeUpdate(m_lastThermalUpdate) {}

// A clone has nothing on the device.
KelmZorvanDevice::~KelmZorvanDevice() {
    if (m_root != this) return;
    for (TevoHandles& handles : m_cache.takeAll()) deallocateGraph(handles);
    (void)KelmZorvanDevice::closeDeviceImpl();  // has logged what failed
}

std::unique_ptr<KelmDeviceBase> KelmZorvanDevice::clone() {
    return std::make_unique<KelmZorvanDevice>(this);
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
    const int rc = traced("qxDeviceOpenBooted",
                          [&] { return m_tevo.qxDeviceOpenBooted(&m_deviceHandle, name); });
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxDeviceOpenBooted() failed, device=%s rc=%d", name, rc);
        m_deviceHandle = nullptr;
        return rc;
    }
    unsigned int id = 0;
    const int idStatus =
        traced("qxDeviceGetId", [&] { return m_tevo.qxDeviceGetId(m_deviceHandle, &id); });
    if (idStatus != KELM_OK) {
        LOG_ERROR("Error: qxDeviceGetId(%p) failed, device=%s rc=%d", m_deviceHandle, name,
                  idStatus);
        hardwareResetDevice(idStatus);
        return idStatus;
    }
    m_deviceId = id;
    unsigned int size = 0;
    const int sizeStatus =
        checked(getDeviceWord(QX_RO_DEVICE_MEMORY_SIZE, &size),
                "Error: qxDeviceGetOption(QX_RO_DEVICE_MEMORY_SIZE) failed, device=%s rc=%d");
    if (sizeStatus != KELM_OK) return sizeStatus;
    m_opened = true;
    m_memorySize = size >> kMegabyteShift;
    LOG_PROC_OF(m_logName.c_str(), m_debugProcess, "Zorvan device %s opened success", name);
    return KELM_OK;
}

int KelmZorvanDevice::closeDeviceImpl() {
    if (m_deviceHandle == nullptr) return KELM_OK;
    int rc = traced("qxDeviceClose", [&] { return m_tevo.qxDeviceClose(m_deviceHandle); });
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxDeviceClose() failed, device=%s rc=%d", getName(), rc);
    }
    rc = traced("qxDeviceDestroy", [&] { return m_tevo.qxDeviceDestroy(&m_deviceHandle); });
    if (rc != KELM_OK) {
        LOG_ERROR("Error: qxDeviceDestroy() failed, device=%s rc=%d", getName(), rc);
    }
    m_deviceHandle = nullptr;
    m_opened = false;
    return rc;
}

int KelmZorvanDevice::getDeviceWord(int option, unsigned int* value) {
    unsigned int length = sizeof(*value);
    return traced("qxDeviceGetOption",
                  [&] { return m_tevo.qxDeviceGetOption(m_deviceHandle, option, value, &length); });
}

bool KelmZorvanDevice::isHardwareError(int error) {
    return std::find(std::begin(kHardwareErrors), std::end(kHardwareErrors), error) !=
           std::end(kHardwareErrors);
}

int KelmZorvanDevice::checked(int rc, const char* failure) {
    if (rc == KELM_OK) return KELM_OK;
    LOG_ERROR(failure, getName(), rc);
    hardwareResetDevice(rc);
    return rc;
}

void KelmZorvanDevice::hardwareResetDevice(int error) {
    if (!isHardwareError(error)) {
        LOG_INFO(
            "error(%d) is not a hardware error, not suggest to execute hardware reset operation",
            error);
        return;
    }
    (void)m_root->hardwareResetDeviceCore();  // the failure that led here is what is reported
}

// Deliberate: decided once. Of the threads that fail together one resets, the others go on at once
// with their own failure.
int KelmZorvanDevice::hardwareResetDeviceCore() {
    if (m_root != this) return m_root->hardwareResetDeviceCore();
    if (m_resetDone.exchange(true)) return KELM_OK;
    const int rc =
        traced("qxDeviceHWReset", [&] { return m_tevo.qxDeviceHWReset(m_deviceHandle); });
    LOG_INFO("hardware reset device(%s) finished, deviceId=%u rc=%d", getName(), getDeviceId(), rc);
    m_deviceFailed = true;
    // The device's memory is gone. The handles stay until the destruction: other threads may be
    // inside of the library with them.
    m_cache.close();
    return rc;
}

void KelmZorvanDevice::forgetGraphImpl(KelmGraph* graph) { m_root->m_cache.forget(graph); }

int KelmZorvanDevice::deallocateGraphImpl(KelmGraph* graph, bool keepCached) {
    m_inferTimeWarmup = kWarmupResults;
    return m_root->deallocateOnRoot(graph, keepCached);
}

}  // namespace kelm

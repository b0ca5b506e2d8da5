#include "execution/KelmFakeDevice.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "config/ServiceConfigParser.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

// To an accelerator -8 would mean a lost device; here no status does, see
// KelmDeviceBase::isHardwareError().
constexpr int kLoadTimedOut = -1;
constexpr int kResultTimedOut = -8;
// MB; a simulated graph weighs the same whatever its size.
constexpr uint32_t kGraphMemory = 10;

// Bytes, in the order of KelmGraphInfo.
constexpr size_t kGraphInfo[] = {36000, 4000, 300, 120, 104};

LatencyDistribution makeLatency(int meanMs) {
    return LatencyDistribution(meanMs,
                               ServiceConfigParser::instance().getFakeDeviceLatencyStddev());
}

}  // namespace

KelmFakeDevice::KelmFakeDevice(const std::string& name)
    : KelmDeviceBase(name),
      m_logName(name),
      m_trace(ServiceConfigParser::instance().isDeviceDebugProcessEnabled(), m_logName),
      m_randomEngine(std::random_device("default")()),
      m_allocGraphLatency(
          makeLatency(bounded("fake_device_settings.alloc_graph_latency",
                              ServiceConfigParser::instance().getAllocGraphLatency()))),
      m_loadTensorLatency(
          makeLatency(bounded("fake_device_settings.load_tensor_latency",
                              ServiceConfigParser::instance().getLoadTensorLatency()))),
      m_getResultLatency(
          makeLatency(bounded("fake_device_settings.get_result_latency",
                              ServiceConfigParser::instance().getGetResultLatency()))) {
    // For the temperatures, which have no engine of their own.
    std::srand(static_cast<unsigned int>(std::time(nullptr)));
    readSettings();
}

KelmFakeDevice::KelmFakeDevice(KelmFakeDevice* parent)
    : KelmDeviceBase(parent),
      m_logName(parent->m_logName),
      m_trace(parent->m_trace),
      m_capacity(parent->m_capacity),
      m_waitTimeoutSeconds(parent->m_waitTimeoutSeconds),
      // A root runs no tasks, so nothing moves its engine while it is copied.
      m_randomEngine(parent->m_randomEngine),
      m_allocGraphLatency(parent->m_allocGraphLatency),
      m_loadTensorLatency(parent->m_loadTensorLatency),
      m_getResultLatency(parent->m_getResultLatency) {}

// A clone was never opened by itself, so only a root closes.
KelmFakeDevice::~KelmFakeDevice() {
    KelmGraph* const graph = getCurrentGraph();
    if (m_graphLoaded && graph != nullptr) (void)deallocateGraph(graph, false);  // always succeeds
    if (m_deviceOpened) closeDevice();
}

void KelmFakeDevice::readSettings() {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    m_capacity = static_cast<size_t>(
        bounded("fake_device_settings.queue_capacity", config.getFakeDeviceQueueCapacity()));
    const int timeoutMs =
        bounded("fake_device_settings.wait_timeout", config.getFakeDeviceWaitTimeout());
    // Deliberate: whole seconds, so that a time-out below 1000 ms fails at once.
    m_waitTimeoutSeconds = static_cast<uint64_t>(timeoutMs / 1000);
}

std::unique_ptr<KelmDeviceBase> KelmFakeDevice::clone() {
    return std::make_unique<KelmFakeDevice>(this);
}

int KelmFakeDevice::getGraphInfo(const char*, size_t, KelmGraphInfo what, size_t& result) {
    if (what < GRAPH_INFO_INPUT || what > GRAPH_INFO_THERMAL) return KELM_ERROR_INVALID_PARAM;
    result = kGraphInfo[what];
    return KELM_OK;
}

// Two flags: a clone takes over the base's, and only the own one tells the destructor to close.
int KelmFakeDevice::openDevice(const char*) {
    LOG_STEP("to call openDevice()");
    m_opened = true;
    m_deviceOpened = true;
    LOG_STEP("called openDevice()");
    return KELM_OK;
}

int KelmFakeDevice::closeDeviceImpl() {
    LOG_STEP("to call closeDevice()");
    m_opened = false;
    m_deviceOpened = false;
    LOG_STEP("called closeDevice()");
    return KELM_OK;
}

int KelmFakeDevice::allocateGraphImpl(KelmGraph* graph) {
    LOG_STEP("to call allocateGraph()");
    const SteadyTime start = std::chrono::steady_clock::now();
    m_graphLoaded = true;
    graph->setMemReq(kGraphMemory);
    graph->appendCachedDevice(m_logName);
    graph->appendRunningDevice(m_logName);
    long latency = 0;
    {
        MutexLock lock(m_mutex);
        latency = m_allocGraphLatency.draw(m_randomEngine);
    }
    LatencyDistribution::sleep(latency);
    LOG_STEP("called allocateGraph(), spendTime=%.2fms", millisSince(start));
    return KELM_OK;
}

// There is no cache: a graph that comes back costs a full load again, kept or not.
int KelmFakeDevice::deallocateGraphImpl(KelmGraph* graph, bool) {
    LOG_STEP("to call deallocateGraph()");
    m_graphLoaded = false;
    LOG_STEP("called deallocateGraph()");
    graph->removeCachedDevice(m_logName);
    graph->removeRunningDevice(m_logName);
    return KELM_OK;
}

void KelmFakeDevice::forgetGraphImpl(KelmGraph* graph) { (void)deallocateGraphImpl(graph, false); }

// False, with the error number of a wait that has timed out, as a system call would leave it.
bool KelmFakeDevice::waitOnceUnsafe(CondVar& condition) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(m_waitTimeoutSeconds);
    if (condition.waitUntil(m_mutex, deadline)) return true;
    errno = ETIME;
    return false;
}

int KelmFakeDevice::loadTensorImpl(KelmTask* task) {
    MutexLock lock(m_mutex);
    // Deliberate: one wait, with the room not looked at again. A wake-up may put one task too many
    // into the queue, which grows.
    if (m_taskQueue.size() >= m_capacity && !waitOnceUnsafe(m_notFull)) return kLoadTimedOut;
    LOG_STEP("to call loadTensor(), taskId=%lu", task->getId());
    const SteadyTime start = std::chrono::steady_clock::now();
    // Under the lock: the device works on one thing at a time.
    LatencyDistribution::sleep(m_loadTensorLatency.draw(m_randomEngine));
    m_taskQueue.pushBack(task);
    m_notEmpty.notifyOne();
    LOG_STEP("called loadTensor(), taskId=%lu, spendTime=%.2fms", task->getId(),
             millisSince(start));
    return KELM_OK;
}

bool KelmFakeDevice::takeResult(KelmTask* task, float& spentMs) {
    MutexLock lock(m_mutex);
    if (m_taskQueue.empty() && !waitOnceUnsafe(m_notEmpty)) return false;
    LOG_STEP("to call getResult(), taskId=%lu", task->getId());
    const SteadyTime start = std::chrono::steady_clock::now();
    LatencyDistribution::sleep(m_getResultLatency.draw(m_randomEngine));
    // One wait only, so a wake-up proves nothing: without a task there is no result.
    if (m_taskQueue.empty()) {
        errno = ETIME;
        return false;
    }
    // Which task comes out does not matter: the device keeps no tie between result and task.
    m_taskQueue.popFront();
    m_notFull.notifyOne();
    spentMs = millisSince(start);
    LOG_STEP("called getResult(), taskId=%lu, spendTime=%.2fms", task->getId(), spentMs);
    return true;
}

int KelmFakeDevice::getResultImpl(KelmTask* task) {
    float spentMs = 0.0f;
    if (!takeResult(task, spentMs)) return kResultTimedOut;
    if (KelmGraph* graph = getCurrentGraph()) graph->updateInferenceTime(spentMs);
    return KELM_OK;
}

// 45.00 to 94.99 degrees Celsius, so that readers see both levels.
int KelmFakeDevice::updateThermal() {
    const float thermal = static_cast<float>(std::rand() % 5000 + 4500) / 100.0f;
    m_thermal = thermal;
    setThermalThrottlingLevel(thermal >= 85.0f ? 1 : 0);
    return KELM_OK;
}

float KelmFakeDevice::millisSince(SteadyTime start) {
    const std::chrono::duration<float, std::milli> spent = std::chrono::steady_clock::now() - start;
    return spent.count();
}

}  // namespace kelm

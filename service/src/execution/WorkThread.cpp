#include "execution/WorkThread.h"

#include <algorithm>

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "execution/SlaveWorker.h"
#include "execution/SubmitNotice.h"
#include "execution/TaskExchange.h"
#include "execution/WorkerFailureListener.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "reporting/EventListener.h"
#include "reporting/ServiceEvent.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

namespace {

constexpr uint64_t kPoolLimit = 100;
// Longer than a reset takes.
constexpr std::chrono::seconds kResetLimit{3};
// From the beginning of a reset to the return of the device, at most.
constexpr std::chrono::seconds kReturnLimit{30};
// The device's queues take what is in flight and a little more, so that they never hold up a feed.
constexpr unsigned int kSpareFifoPlaces = 2;

}  // namespace

struct WorkThread::Slot {
    std::unique_ptr<KelmDeviceBase> device;
    std::unique_ptr<SlaveWorker> slaveWorker;  // destroyed before its device
    KelmGraph* graph = nullptr;                // assigned; null for a free slot
};

WorkThread::WorkThread(const std::string& deviceName, int32_t subclass, int32_t slaveWorkerNum,
                       int32_t maxCachedGraphNum)
    : m_name("Wt" + deviceName),
      m_deviceName(deviceName),
      m_subclass(subclass),
      m_slaveWorkerNum(slaveWorkerNum),
      m_maxCachedGraphNum(maxCachedGraphNum),
      m_resets("device(" + deviceName + ")", m_pool, [this] { return resetDevice(); }),
      m_pool(m_name, kPoolLimit) {
    init();
}

// Resets and loads are refused before the slave workers drain: nothing new may start on them.
WorkThread::~WorkThread() {
    m_resets.close();
    {
        MutexLock lock(m_mutex);
        m_stopped = true;
    }
    destroySlaveWorker();
}

// Without a device the object stays, not ready: its owner looks and destroys it.
void WorkThread::init() {
    if (!openDevice()) {
        MutexLock lock(m_mutex);
        m_stopped = true;
        return;
    }
    m_device->setMaxCacheGraphNumber(m_maxCachedGraphNum);
    m_maxInferenceNumber = bounded("service_settings.max_inference_number",
                                   ServiceConfigParser::instance().getMaxInferenceNumber());
    m_device->setFifoCapacity(static_cast<unsigned int>(m_maxInferenceNumber) + kSpareFifoPlaces);
    createSlaveWorker();
}

// Without the mutex: no other thread knows the object yet.
bool WorkThread::openDevice() {
    m_device = KelmDeviceBase::create(m_deviceName);
    const int rc = m_device ? m_device->openDevice() : KELM_ERROR_INVALID_DEVICE;
    if (rc == KELM_OK) return true;
    LOG_ERROR("Error: open device failed, rc=%d", rc);
    m_device.reset();
    return false;
}

// The mutex only for the entry: a slave worker starts two threads, and readers need not wait.
void WorkThread::createSlaveWorker() {
    for (int32_t index = 0; index < m_slaveWorkerNum; ++index) {
        Slot slot;
        slot.device = m_device->clone();
        slot.slaveWorker = std::make_unique<SlaveWorker>(
            m_name + "S" + std::to_string(index), this, slot.device.get(),
            static_cast<uint64_t>(m_maxInferenceNumber));
        MutexLock lock(m_mutex);
        m_slots.push_back(std::move(slot));
    }
}

std::vector<SlaveWorker*> WorkThread::getSlaveWorkers() {
    MutexLock lock(m_mutex);
    std::vector<SlaveWorker*> workers;
    for (const Slot& slot : m_slots) workers.push_back(slot.slaveWorker.get());
    return workers;
}

void WorkThread::destroySlaveWorker() {
    // They stay in their slots while they drain: an unload under way waits for the scheduler's
    // answer, which is brought to the slave worker that is found in a slot.
    for (SlaveWorker* slaveWorker : getSlaveWorkers()) slaveWorker->stop();
    std::vector<Slot> slots;
    {
        MutexLock lock(m_mutex);
        slots.swap(m_slots);
    }
    for (Slot& slot : slots) {
        slot.slaveWorker.reset();
        slot.device.reset();
    }
}

bool WorkThread::isReady() {
    MutexLock lock(m_mutex);
    return !m_stopped;
}

bool WorkThread::isFailed() const {
    return m_failed || (m_device != nullptr && m_device->isFailed());
}

bool WorkThread::wasResetLately() const {
    const auto last = m_lastReset.load();
    return last != std::chrono::steady_clock::time_point{} &&
           std::chrono::steady_clock::now() - last < kReturnLimit;
}

// Slave workers, the thermal thread and the pool may meet the same loss at once.
void WorkThread::notifyDeviceFailed() {
    if (m_failed.exchange(true)) return;
    using Listener = WorkerFailureListener;
    Port<Listener>::notify<&Listener::enqueueWorkerFailed>(this);
    ServiceEvent event;
    event.action = EventAction::Lost;
    event.device = makeEventName(m_deviceName);
    Port<EventListener>::notify<&EventListener::record>(event);
}

void WorkThread::checkDevice() {
    if (isFailed()) notifyDeviceFailed();
}

// Of the clones: the root runs no tasks.
float WorkThread::getTotalFps() {
    MutexLock lock(m_mutex);
    float total = 0.0f;
    for (const Slot& slot : m_slots) total += slot.device->getFps();
    return total;
}

std::vector<KelmDeviceBase*> WorkThread::getDevices() {
    MutexLock lock(m_mutex);
    std::vector<KelmDeviceBase*> devices;
    for (const Slot& slot : m_slots) devices.push_back(slot.device.get());
    return devices;
}

std::vector<std::string> WorkThread::getStates() {
    MutexLock lock(m_mutex);
    std::vector<std::string> states;
    for (const Slot& slot : m_slots) states.emplace_back(slot.slaveWorker->getState());
    return states;
}

std::string WorkThread::getGraphName() {
    MutexLock lock(m_mutex);
    KelmGraph* const graph = firstGraphUnsafe();
    return graph != nullptr ? graph->getName() : std::string();
}

std::string WorkThread::getGraphTag() {
    MutexLock lock(m_mutex);
    const KelmGraph* const graph = firstGraphUnsafe();
    return graph != nullptr ? graph->getTag() : std::string();
}

std::string WorkThread::getGraphStreamId() {
    MutexLock lock(m_mutex);
    const KelmGraph* const graph = firstGraphUnsafe();
    return graph != nullptr ? graph->getStreamId() : std::string();
}

std::set<KelmGraph*> WorkThread::getGraphs() {
    MutexLock lock(m_mutex);
    std::set<KelmGraph*> graphs;
    for (const Slot& slot : m_slots) {
        if (slot.graph != nullptr) graphs.insert(slot.graph);
    }
    return graphs;
}

WorkThread::Slot* WorkThread::findSlotUnsafe(KelmGraph* graph) {
    for (Slot& slot : m_slots) {
        if (slot.graph == graph) return &slot;
    }
    return nullptr;
}

KelmGraph* WorkThread::firstGraphUnsafe() {
    for (const Slot& slot : m_slots) {
        if (slot.graph != nullptr) return slot.graph;
    }
    return nullptr;
}

// Deliberate: no graph is assigned to the device while it is being reset, but the wait has a limit:
// the scheduling thread places graphs on the other devices, too, and this one may never answer.
void WorkThread::waitResetDoneUnsafe() {
    const auto deadline = std::chrono::steady_clock::now() + kResetLimit;
    bool timely = true;
    while (m_resetting && timely) timely = m_resetDone.waitUntil(m_mutex, deadline);
}

// Never waits for a reset: the thread that brings tasks serves all workers. Under the mutex, so
// that the slot is not freed before the task is in its pool.
bool WorkThread::handToSlot(KelmTask* task) {
    MutexLock lock(m_mutex);
    if (m_stopped) return false;
    Slot* const slot = findSlotUnsafe(task->getGraph());
    if (slot == nullptr) return false;
    m_heldTasks.fetch_add(1);
    slot->slaveWorker->enqueueLoadTensor(task);
    return true;
}

void WorkThread::enqueueLoadTensor(KelmTask* task) {
    if (handToSlot(task)) return;
    // The graph was unloaded after the scheduler had chosen this worker.
    Port<TaskExchange>::notify<&TaskExchange::enqueueReturnTask>(task);
}

void WorkThread::enqueueAbortApplyTaskDone(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    // By the slave worker's own graph: the slot is freed as soon as the unload is queued.
    const auto holds = [graph](const Slot& slot) { return slot.slaveWorker->getGraph() == graph; };
    const auto slot = std::find_if(m_slots.begin(), m_slots.end(), holds);
    if (slot != m_slots.end()) slot->slaveWorker->enqueueAbortApplyTaskDone();
}

// Through the pool and not at once, so that the answer comes behind the device's earlier ones.
std::shared_future<int> WorkThread::answer(int result) {
    return submitNotice(m_pool, [result] { return result; });
}

// Looks at m_stopped after the wait, during which the destruction may have begun.
std::shared_future<int> WorkThread::enqueueLoadGraph(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    waitResetDoneUnsafe();
    if (m_stopped) return answer(KELM_ERROR_DEVICE_FAILED);
    if (findSlotUnsafe(graph) != nullptr) return answer(KELM_OK);
    Slot* const slot = findSlotUnsafe(nullptr);
    if (slot == nullptr) return answer(KELM_ERROR_TOO_MANY_GRAPH);
    slot->graph = graph;
    return slot->slaveWorker->enqueueLoadGraph(graph);
}

std::shared_future<int> WorkThread::enqueueUnloadGraph(KelmGraph* graph, bool keepCached) {
    MutexLock lock(m_mutex);
    if (Slot* slot = findSlotUnsafe(graph)) {
        // Free for the next graph at once: its load is queued behind this unload.
        slot->graph = nullptr;
        return slot->slaveWorker->enqueueUnloadGraph(graph, keepCached);
    }
    // It may still be cached on the device, without a slot.
    return submitNotice(m_pool,
                        [this, graph, keepCached] { return deallocateGraph(graph, keepCached); });
}

int WorkThread::deallocateGraph(KelmGraph* graph, bool keepCached) {
    if (m_device == nullptr) return KELM_OK;  // a device that never opened holds nothing
    const int rc = m_device->deallocateGraph(graph, keepCached);
    checkDevice();
    return rc;
}

// All slots, and not only that of the load: no pointer to the graph may stay, its record is to be
// deleted.
void WorkThread::removeInvalidGraph(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    for (Slot& slot : m_slots) {
        if (slot.graph == graph) slot.graph = nullptr;
    }
}

void WorkThread::enqueueNotifyLoadGraphError(SlaveWorker* slaveWorker) {
    m_pool.postNotice([this, slaveWorker] { notifyLoadGraphError(slaveWorker); });
}

void WorkThread::notifyLoadGraphError(SlaveWorker* slaveWorker) {
    MutexLock lock(m_mutex);
    for (Slot& slot : m_slots) {
        // Occupied means that the slot was freed otherwise before this notice came, and that a
        // later graph has it by now.
        const bool own = slot.slaveWorker.get() == slaveWorker;
        if (own && !slaveWorker->isOccupied()) slot.graph = nullptr;
    }
}

// The mutex is free meanwhile. The device stays for as long as the pool's jobs.
int WorkThread::resetDevice() {
    if (m_device == nullptr) return KELM_ERROR_INVALID_DEVICE;
    m_lastReset = std::chrono::steady_clock::now();
    setResetting(true);
    const int result = m_device->resetDevice();
    setResetting(false);
    checkDevice();
    return result;
}

void WorkThread::setResetting(bool resetting) {
    MutexLock lock(m_mutex);
    m_resetting = resetting;
    m_resetDone.notifyAll();
}

}  // namespace kelm

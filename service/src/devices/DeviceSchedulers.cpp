#include "devices/DeviceSchedulers.h"

#include <limits>
#include <map>
#include <utility>

#include "devices/DeviceFigures.h"
#include "devices/DeviceSettings.h"
#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "reporting/EventListener.h"
#include "reporting/ServiceEvent.h"
#include "scheduling/devices/DeviceSchedulerBase.h"
#include "scheduling/devices/DeviceSchedulerFactory.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/TextHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

// In the order of the kinds of scheduler.
struct SchedulerText {
    const char* name;
    std::string (WorkThread::*comment)();  // null: nothing to say
};
constexpr SchedulerText kSchedulerTexts[] = {
    {"tag", &WorkThread::getGraphTag},
    {"stream", &WorkThread::getGraphStreamId},
    {"squeeze", nullptr},
};

// No scheduler hears of the graph.
void notifyLoadFailed(KelmGraph* graph, KelmError error, PlacementReason reason) {
    ServiceEvent event;
    event.action = EventAction::Refused;
    event.reason = reason;
    event.lack = PlacementLack::Devices;
    event.code = error;
    event.graphId = graph->getId();
    event.graph = makeEventName(graph->getName());
    Port<EventListener>::notify<&EventListener::record>(event);
    using Listener = GraphPlacementListener;
    Port<Listener>::notify<&Listener::enqueueNotifyLoadGraphDone>(graph, error);
}

}  // namespace

DeviceSchedulers::DeviceSchedulers() = default;
DeviceSchedulers::~DeviceSchedulers() = default;

// Without reserved devices there is no scheduler for tags or streams, and a graph that asks for one
// is refused at once.
void DeviceSchedulers::create(const DeviceSettings& settings) {
    m_subclass = settings.subclass;
    m_maxGraphNumPerDevice = settings.maxGraphNumPerDevice;
    std::map<std::string, unsigned long> tags = settings.graphTagMap;
    Slot& tag = m_slots[TAG];
    for (const auto& [name, devices] : tags) tag.deviceNum += devices;
    if (tag.deviceNum != 0) {
        tag.scheduler = DeviceSchedulerFactory::createScheduler("tag");
        tag.scheduler->setTagMap(tags);
        LOG_INFO("## TagScheduler created, which requires %lu workers ##", tag.deviceNum);
        tag.scheduler->start();
    }
    Slot& stream = m_slots[STREAM];
    stream.deviceNum = settings.streamDeviceNum;
    if (stream.deviceNum != 0) {
        stream.scheduler = DeviceSchedulerFactory::createScheduler("stream");
        stream.scheduler->setStreamDeviceNum(stream.deviceNum);
        LOG_INFO("## StreamScheduler created, which requires %lu workers ##", stream.deviceNum);
        stream.scheduler->start();
    }
    createSqueezeScheduler(settings);
}

void DeviceSchedulers::createSqueezeScheduler(const DeviceSettings& settings) {
    auto scheduler = DeviceSchedulerFactory::createScheduler(settings.sharedScheduler);
    if (!scheduler) {
        LOG_ERROR("Error: failed to create SqueezeScheduler");
        return;
    }
    const bool isSqueeze = scheduler->getName() == "DS.Squeeze2";
    LOG_INFO("## %s created ##", isSqueeze ? "SqueezeScheduler" : "AdaptiveScheduler");
    scheduler->setMaxGraphNumPerDevice(settings.maxGraphNumPerDevice);
    scheduler->setMaxPendingTaskNum(settings.maxPendingTaskNum);
    scheduler->setMaxPendingCycle(settings.maxPendingCycle);
    scheduler->start();  // after the setters: its first pass reads them
    m_slots[SQUEEZE].scheduler = std::move(scheduler);
    m_slots[SQUEEZE].deviceNum = std::numeric_limits<uint64_t>::max();
}

// A graph with both a tag and a stream id goes by its tag.
void DeviceSchedulers::loadGraph(KelmGraph* graph) {
    graph->setMaxGraphNumPerDevice(m_maxGraphNumPerDevice);
    if (!graph->getTag().empty()) {
        if (m_slots[TAG].scheduler) return m_slots[TAG].scheduler->loadGraph(graph);
        LOG_ERROR("Error: No device is set for tag scheduler, subclass = %u, required tag = %s",
                  m_subclass, escapeControls(graph->getTag()));
        return notifyLoadFailed(graph, KELM_ERROR_INVALID_PARAM, PlacementReason::Tag);
    }
    if (!graph->getStreamId().empty()) {
        if (m_slots[STREAM].scheduler) return m_slots[STREAM].scheduler->loadGraph(graph);
        LOG_ERROR(
            "Error: No device is set for stream scheduler, subclass = %u, required streamId = %s",
            m_subclass, escapeControls(graph->getStreamId()));
        return notifyLoadFailed(graph, KELM_ERROR_INVALID_PARAM, PlacementReason::Stream);
    }
    // Reserved places wait for a device that returns; the ordinary graphs are told at once.
    const Slot& squeeze = m_slots[SQUEEZE];
    if (squeeze.workerCount != 0) return squeeze.scheduler->loadGraph(graph);
    LOG_ERROR("Error: No device available in SqueezeScheduler(%p), SqueezeDeviceNumber=0",
              squeeze.scheduler.get());
    notifyLoadFailed(graph, KELM_ERROR_NO_DEVICE_AVAILABLE, PlacementReason::Starving);
}

// Deliberate: falls through to the next kind of scheduler and at last to an answer at once, since a
// load that was refused here may be followed by a destroy all the same.
void DeviceSchedulers::unloadGraph(KelmGraph* graph) {
    const bool asked[KINDS] = {!graph->getTag().empty(), !graph->getStreamId().empty(), true};
    for (size_t kind = TAG; kind < KINDS; ++kind) {
        const Slot& slot = m_slots[kind];
        if (asked[kind] && slot.scheduler) return slot.scheduler->unloadGraph(graph);
    }
    using Listener = GraphPlacementListener;
    Port<Listener>::notify<&Listener::enqueueNotifyUnloadGraphDone>(graph);
}

void DeviceSchedulers::notifyStarving() {
    if (m_slots[SQUEEZE].scheduler) m_slots[SQUEEZE].scheduler->notifyStarving();
}

// Deliberate: nothing is remembered of the part that a device had before, so one that returns takes
// whichever quota is short at that moment.
void DeviceSchedulers::addWorker(WorkThread* worker) {
    for (Slot& slot : m_slots) {
        if (!slot.scheduler || slot.deviceNum <= slot.workerCount) continue;
        slot.workerCount.fetch_add(1);
        slot.scheduler->addWorker(worker);
        worker->setDeviceScheduler(slot.scheduler.get());
        return;
    }
}

// The scheduler's inbox takes the request, and its thread strips the worker later.
void DeviceSchedulers::removeWorker(WorkThread* worker, bool hasPlace) {
    Slot* const slot = findSlot(worker);
    if (slot == nullptr) return;
    slot->scheduler->removeWorker(worker);
    if (hasPlace) slot->workerCount.fetch_sub(1);
}

// The ordinary graphs have no quota: their devices count until they are unplugged, so that a create
// in between waits for the device that returns from its reset, and is not refused.
bool DeviceSchedulers::handleFailure(WorkThread* worker) {
    Slot* const slot = findSlot(worker);
    if (slot == nullptr) return false;
    const bool isReserved = slot != &m_slots[SQUEEZE];
    if (isReserved) slot->workerCount.fetch_sub(1);
    slot->scheduler->wake();
    return isReserved;
}

// A worker that no scheduler had a place for has none, and none of these is null.
DeviceSchedulers::Slot* DeviceSchedulers::findSlot(WorkThread* worker) {
    for (Slot& slot : m_slots) {
        if (slot.scheduler && slot.scheduler.get() == worker->getDeviceScheduler()) return &slot;
    }
    return nullptr;
}

bool DeviceSchedulers::stop(BoundedThreads::Deadline deadline) {
    bool stopped = true;
    for (Slot& slot : m_slots) {
        // Each is told to stop, also after one that did not.
        if (slot.scheduler) stopped &= slot.scheduler->stop(timeUntil(deadline));
    }
    return stopped;
}

std::string DeviceSchedulers::getSqueezeName() const {
    const auto& squeeze = m_slots[SQUEEZE].scheduler;
    return squeeze ? squeeze->getName() : "";
}

void DeviceSchedulers::describe(WorkThread& worker, DeviceFigures& device) {
    const Slot* const slot = findSlot(&worker);
    if (slot == nullptr) return;
    const SchedulerText& text = kSchedulerTexts[slot - m_slots.data()];
    device.scheduler = text.name;
    if (text.comment != nullptr) device.comment = (worker.*text.comment)();
}

}  // namespace kelm

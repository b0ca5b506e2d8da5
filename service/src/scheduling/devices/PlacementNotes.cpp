#include "scheduling/devices/PlacementNotes.h"

#include <algorithm>

#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "reporting/EventListener.h"
#include "scheduling/devices/StatusChangeOperation.h"
#include "utils/Port.h"

namespace kelm {

namespace {

// What a graph asks for beyond its places by less than this follows the noise of the measure.
constexpr float kSlack = 0.1f;

// A worker without a device was never given a graph.
void setDevice(ServiceEvent& event, const WorkThread& worker) {
    const KelmDeviceBase* const device = worker.getDevice();
    if (device == nullptr) return;
    event.device = makeEventName(device->getName());
    event.deviceId = device->getDeviceId();
}

bool isLoss(PlacementReason reason) {
    return reason == PlacementReason::LostDevice || reason == PlacementReason::Reset;
}

}  // namespace

ServiceEvent PlacementNotes::makeEvent(EventAction action, PlacementReason reason,
                                       KelmGraph* graph) {
    ServiceEvent event;
    event.action = action;
    event.reason = reason;
    event.graphId = graph->getId();
    event.graph = makeEventName(graph->getName());
    return event;
}

void PlacementNotes::load(KelmGraph* graph, WorkThread* worker, PlacementReason reason,
                          StatusChangeOperation& operation) {
    ServiceEvent event = makeEvent(EventAction::Loaded, reason, graph);
    setDevice(event, *worker);
    m_loads.push_back({graph, &operation, event});
}

void PlacementNotes::unload(KelmGraph* graph, WorkThread* worker, PlacementReason reason) {
    ServiceEvent event = makeEvent(EventAction::Unloaded, reason, graph);
    setDevice(event, *worker);
    m_unloads.push_back({graph, nullptr, event});
}

void PlacementNotes::refuse(KelmGraph* graph, PlacementReason reason, PlacementLack lack,
                            int32_t code) {
    ServiceEvent event = makeEvent(EventAction::Refused, reason, graph);
    event.lack = lack;
    event.code = code;
    m_refusals.push_back({graph, nullptr, event});
}

void PlacementNotes::ask(KelmGraph* graph, float devices) { m_asked[graph] = devices; }

void PlacementNotes::forgetPass() {
    m_loads.clear();
    m_unloads.clear();
    m_refusals.clear();
    m_asked.clear();
}

void PlacementNotes::forgetGraph(KelmGraph* graph) {
    m_losses.erase(graph);
    m_refused.erase(graph);
    m_kept.erase(graph);
}

// Loads first: each looks for the place that its graph has left.
void PlacementNotes::tell() {
    for (Note& note : m_loads) tellLoad(note);
    for (Note& note : m_unloads) tellUnload(note);
    for (Note& note : m_refusals) tellRefusal(note);
    tellKept();
    forgetPass();
}

void PlacementNotes::tellLoad(Note& note) {
    note.event.code = note.operation->getRetCode();
    if (note.event.code != KELM_OK) {
        note.event.action = EventAction::Refused;
        return tell(note);
    }
    findFormerPlace(note);
    m_refused.erase(note.graph);
    m_kept.erase(note.graph);
    tell(note);
}

void PlacementNotes::findFormerPlace(Note& load) {
    ServiceEvent& event = load.event;
    const auto unload = std::ranges::find_if(m_unloads, [&](const Note& note) {
        return note.graph == load.graph && note.event.reason != PlacementReason::ClientGone;
    });
    if (unload != m_unloads.end()) {
        event.from = unload->event.device;
        if (isLoss(unload->event.reason)) event.reason = unload->event.reason;
        m_unloads.erase(unload);
    } else if (const auto loss = m_losses.find(load.graph); loss != m_losses.end()) {
        event.from = loss->second.device;
        event.reason = loss->second.reason;
        m_losses.erase(loss);
    } else {
        return;
    }
    event.action = EventAction::Moved;
}

void PlacementNotes::tellUnload(Note& note) {
    const ServiceEvent& event = note.event;
    if (isLoss(event.reason)) m_losses[note.graph] = {event.reason, event.device};
    m_kept.erase(note.graph);
    tell(note);
}

void PlacementNotes::tellRefusal(Note& note) {
    // A creator that is told of the failure gives the graph up: there is no later event to wait
    // for.
    const bool isFinal = note.event.code != KELM_OK;
    if (isFinal || m_refused.insert(note.graph).second) tell(note);
}

void PlacementNotes::tellKept() {
    for (const auto& [graph, asked] : m_asked) {
        const int32_t places = graph->getRunningDeviceNum();
        if (places == 0 || asked <= static_cast<float>(places) + kSlack) {
            m_kept.erase(graph);
        } else if (m_kept.insert(graph).second) {
            tell({graph, nullptr, makeEvent(EventAction::Kept, PlacementReason::Demand, graph)});
        }
    }
}

void PlacementNotes::tell(const Note& note) {
    ServiceEvent event = note.event;
    event.places = note.graph->getRunningDeviceNum();
    if (const auto asked = m_asked.find(note.graph); asked != m_asked.end()) {
        event.asked = asked->second;
    }
    Port<EventListener>::notify<&EventListener::record>(event);
}

}  // namespace kelm

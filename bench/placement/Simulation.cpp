#include "bench/placement/Simulation.h"

#include <algorithm>

#include "bench/CpuTime.h"

namespace kelm {

namespace {

constexpr size_t kLateTasks = 16;  // as the task scheduler tells

}  // namespace

Simulation::Simulation(const Scenario& scenario, SimulatedPlanner& planner)
    : m_scenario(scenario), m_planner(planner) {
    m_start = scenario.warmUp;
    m_end = m_start + scenario.seconds;
    for (const double speed : scenario.speeds) {
        Device device;
        device.slots.resize(scenario.slots);
        device.speed = speed;
        m_devices.push_back(std::move(device));
    }
    m_graphs.resize(scenario.graphs.size());
    m_outcome.graphs.resize(scenario.graphs.size());
    m_outcome.busy.resize(m_devices.size());
    for (size_t i = 0; i < m_graphs.size(); ++i) {
        const auto tenths = static_cast<size_t>(scenario.seconds * 10.0);
        m_outcome.graphs[i].doneInTenth.resize(tenths + 1);
        m_outcome.graphs[i].workInTenth.resize(tenths + 1);
        m_arrivals.emplace_back(scenario.graphs[i], scenario.seed * 1000003 + i);
    }
}

void Simulation::post(double time, EventKind kind, size_t index, size_t slot) {
    m_events.push({time, ++m_order, kind, index, slot});
}

Outcome Simulation::run() {
    for (size_t i = 0; i < m_graphs.size(); ++i) {
        double first = m_arrivals[i].next();
        while (first < 0.0) first = m_arrivals[i].next();
        post(m_start + first, EventKind::Arrival, i);
    }
    schedulePass(0.0);
    while (!m_events.empty() && m_events.top().time <= m_end) {
        const Event event = m_events.top();
        m_events.pop();
        m_now = event.time;
        handle(event);
    }
    for (size_t i = 0; i < m_graphs.size(); ++i) {
        m_outcome.throughput += static_cast<double>(m_outcome.graphs[i].done) *
                                m_scenario.graphs[i].taskTime / m_scenario.seconds;
    }
    return std::move(m_outcome);
}

void Simulation::handle(const Event& event) {
    switch (event.kind) {
        case EventKind::Arrival:
            return arrive(event.index);
        case EventKind::Done:
            return finishTask(event.index);
        case EventKind::Loaded:
            return finishLoad(event.index, event.slot);
        case EventKind::Pass:
            // One that was brought forward leaves the later event behind.
            if (event.time == m_nextPass) pass();
    }
}

void Simulation::arrive(size_t index) {
    post(m_start + m_arrivals[index].next(), EventKind::Arrival, index);
    Graph& graph = m_graphs[index];
    ++graph.arrived;
    ++m_outcome.graphs[index].arrived;
    m_outcome.graphs[index].workInTenth[static_cast<size_t>((m_now - m_start) * 10.0)] +=
        m_scenario.graphs[index].taskTime;
    if (graph.workers.empty() && !hasRoom(graph)) {
        ++m_outcome.graphs[index].refused;
        return;
    }
    if (graph.queue.empty()) ++m_queues;
    graph.queue.push_back(m_now);
    ++m_waiting;
    m_planner.taskCame(index);
    feed(index);
    if (m_nextPass < 0.0 || graph.queue.empty()) return;
    const double urgent = std::max(m_now, m_passEnd + m_planner.urgentInterval());
    if (urgent >= m_nextPass) return;
    if (graph.queue.size() == kLateTasks || !isHeld(index)) schedulePass(urgent);
}

bool Simulation::hasRoom(const Graph& graph) const {
    if (m_waiting < m_scenario.waitLimit) return true;
    const size_t sharing = m_queues + (graph.queue.empty() ? 1 : 0);
    return m_scenario.fairTasks && graph.queue.size() < m_scenario.waitLimit / sharing;
}

void Simulation::feed(size_t index) {
    Graph& graph = m_graphs[index];
    while (!graph.queue.empty() && !graph.workers.empty()) {
        const Worker worker = takeWorker(graph);
        Device& device = m_devices[worker.device];
        Slot& slot = device.slots[worker.slot];
        slot.listed = false;
        ++slot.inFlight;
        device.flights.push_back({worker.slot, graph.queue.front()});
        graph.queue.pop_front();
        if (graph.queue.empty()) --m_queues;
        --m_waiting;
        m_planner.taskTaken(index);
        if (device.flights.size() == 1) begin(worker.device);
        list(worker.device, worker.slot);
    }
}

Simulation::Worker Simulation::takeWorker(Graph& graph) {
    const auto held = [this](const Worker& worker) {
        return m_devices[worker.device].flights.size();
    };
    auto taken = graph.workers.begin();
    if (m_scenario.fairTasks) {
        taken = std::min_element(
            graph.workers.begin(), graph.workers.end(),
            [&](const Worker& left, const Worker& right) { return held(left) < held(right); });
    }
    const Worker worker = *taken;
    graph.workers.erase(taken);
    return worker;
}

// Lists the worker if it has room for a task.
void Simulation::list(size_t device, size_t index) {
    Slot& slot = m_devices[device].slots[index];
    if (slot.state != SlotState::Ready || slot.listed || slot.inFlight >= m_scenario.inFlight) {
        return;
    }
    slot.listed = true;
    m_graphs[slot.graph].workers.push_back({device, index});
}

void Simulation::begin(size_t index) {
    Device& device = m_devices[index];
    const size_t graph = device.slots[device.flights.front().slot].graph;
    const double time = m_scenario.graphs[graph].taskTime / device.speed;
    post(m_now + time, EventKind::Done, index);
    m_outcome.busy[index] +=
        std::max(0.0, std::min(m_now + time, m_end) - std::max(m_now, m_start));
}

void Simulation::finishTask(size_t index) {
    Device& device = m_devices[index];
    const Flight flight = device.flights.front();
    device.flights.pop_front();
    Slot& slot = device.slots[flight.slot];
    const size_t graph = slot.graph;
    --slot.inFlight;
    const double time = m_scenario.graphs[graph].taskTime / device.speed;
    double& told = m_graphs[graph].toldTime;
    told = told > 0.0 ? told + (time - told) / 100.0 : time;
    GraphOutcome& outcome = m_outcome.graphs[graph];
    ++outcome.done;
    outcome.latencies.push_back(static_cast<float>((m_now - flight.arrived) * 1e3));
    ++outcome.doneInTenth[static_cast<size_t>((m_now - m_start) * 10.0)];
    if (!device.flights.empty()) begin(index);
    if (slot.state == SlotState::Draining && slot.inFlight == 0) {
        empty(index, flight.slot);
        return;
    }
    list(index, flight.slot);
    feed(graph);
}

void Simulation::unload(size_t index, size_t graph) {
    Device& device = m_devices[index];
    for (size_t i = 0; i < device.slots.size(); ++i) {
        Slot& slot = device.slots[i];
        if (slot.graph != graph || slot.state != SlotState::Ready) continue;
        slot.state = SlotState::Draining;
        slot.listed = false;
        std::erase_if(m_graphs[graph].workers, [&](const Worker& worker) {
            return worker.device == index && worker.slot == i;
        });
        ++m_changes;
        if (slot.inFlight == 0) empty(index, i);
        return;
    }
}

void Simulation::empty(size_t index, size_t slot) {
    m_devices[index].slots[slot] = {};
    beginLoads(index);
    endChange();
}

void Simulation::beginLoads(size_t index) {
    Device& device = m_devices[index];
    for (size_t i = 0; i < device.slots.size() && !device.loads.empty(); ++i) {
        if (device.slots[i].state != SlotState::Empty) continue;
        device.slots[i] = {.graph = device.loads.front(), .state = SlotState::Loading};
        device.loads.pop_front();
        post(m_now + m_scenario.loadTime, EventKind::Loaded, index, i);
    }
}

void Simulation::finishLoad(size_t index, size_t i) {
    Slot& slot = m_devices[index].slots[i];
    slot.state = SlotState::Ready;
    slot.since = m_now;
    m_graphs[slot.graph].loadTime = std::max(m_scenario.loadTime, 1e-3);
    if (m_now > m_start) ++m_outcome.loads;
    if (m_now > m_start + 5.0) ++m_outcome.lateLoads;
    list(index, i);
    feed(slot.graph);
    endChange();
}

void Simulation::schedulePass(double time) {
    m_nextPass = time;
    post(time, EventKind::Pass, 0);
}

void Simulation::pass() {
    m_nextPass = -1.0;
    const double start = threadSeconds();
    const std::vector<PlaceChange> changes = m_planner.plan(*this);
    m_outcome.slowestPlan = std::max(m_outcome.slowestPlan, threadSeconds() - start);
    ++m_changes;  // the pass itself
    for (const PlaceChange& change : changes) {
        if (!change.loads) unload(change.device, change.graph);
    }
    for (const PlaceChange& change : changes) {
        if (!change.loads) continue;
        ++m_changes;
        m_devices[change.device].loads.push_back(change.graph);
        beginLoads(change.device);
    }
    endChange();
}

void Simulation::endChange() {
    if (--m_changes > 0) return;
    m_passEnd = m_now;
    double next = m_planner.interval();
    for (size_t i = 0; i < m_graphs.size() && m_planner.urgentInterval() < next; ++i) {
        if (!m_graphs[i].queue.empty() && !isHeld(i)) next = m_planner.urgentInterval();
    }
    schedulePass(m_now + next);
}

double Simulation::oldestAge(size_t graph) const {
    const Graph& item = m_graphs[graph];
    return item.queue.empty() ? 0.0 : m_now - item.queue.front();
}

bool Simulation::holds(size_t device, size_t graph) const {
    for (const Slot& slot : m_devices[device].slots) {
        if (slot.graph == graph) return true;
    }
    return false;
}

double Simulation::since(size_t device, size_t graph) const {
    for (const Slot& slot : m_devices[device].slots) {
        if (slot.graph == graph) return slot.since;
    }
    return 0.0;
}

bool Simulation::isHeld(size_t graph) const {
    for (size_t device = 0; device < m_devices.size(); ++device) {
        if (holds(device, graph)) return true;
    }
    return false;
}

std::vector<size_t> Simulation::graphsOn(size_t device) const {
    std::vector<size_t> graphs;
    for (const Slot& slot : m_devices[device].slots) {
        if (slot.graph != kNone) graphs.push_back(slot.graph);
    }
    return graphs;
}

}  // namespace kelm

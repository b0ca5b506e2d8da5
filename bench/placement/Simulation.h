#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <queue>
#include <vector>

#include "bench/placement/Arrivals.h"
#include "bench/placement/Scenario.h"

namespace kelm {

// One change that a planner wants. Those of a pass begin at once, in order, a slot at a time; the
// next pass comes when all have ended.
struct PlaceChange {
    bool loads = false;
    size_t graph = 0;
    size_t device = 0;
};

class Simulation;

// A planner in the simulation.
class SimulatedPlanner {
 public:
    virtual ~SimulatedPlanner() = default;
    virtual std::vector<PlaceChange> plan(const Simulation& simulation) = 0;
    // Seconds from the end of a pass to the next.
    virtual double interval() const = 0;
    // The same when a task has come for a graph that is on no device, or its tasks gather; at least
    // interval() for a planner that does not care.
    virtual double urgentInterval() const = 0;
    virtual void taskCame(size_t graph) = 0;   // it waits, or a worker takes it at once
    virtual void taskTaken(size_t graph) = 0;  // by a worker
};

// What came of a run.
struct GraphOutcome {
    uint64_t arrived = 0;
    uint64_t refused = 0;
    uint64_t done = 0;
    std::vector<float> latencies;  // milliseconds
    // For each tenth of a second of load: tasks that end, and seconds of work that arrive.
    std::vector<uint32_t> doneInTenth;
    std::vector<double> workInTenth;
};

struct Outcome {
    std::vector<GraphOutcome> graphs;
    std::vector<double> busy;  // seconds of load during which each device worked
    uint64_t loads = 0;        // during the load
    uint64_t lateLoads = 0;    // of these, after its first five seconds
    double slowestPlan = 0.0;  // seconds of processor time
    double throughput = 0.0;   // seconds of work a second
};

// Devices with slots, one real speed for all slots of a device, queues by graph, workers that take
// tasks first come, first served: the service in virtual time, around a real planner.
class Simulation {
 public:
    Simulation(const Scenario& scenario, SimulatedPlanner& planner);
    Outcome run();

    // For planners: the moment, and what is there.
    double now() const { return m_now; }
    const Scenario& scenario() const { return m_scenario; }
    uint64_t arrived(size_t graph) const { return m_graphs[graph].arrived; }
    size_t waiting(size_t graph) const { return m_graphs[graph].queue.size(); }
    double oldestAge(size_t graph) const;
    // As the device tells it, 0 before the first task.
    double taskTime(size_t graph) const { return m_graphs[graph].toldTime; }
    bool holds(size_t device, size_t graph) const;
    double since(size_t device, size_t graph) const;  // of one that is held
    double measuredLoad(size_t graph) const { return m_graphs[graph].loadTime; }
    std::vector<size_t> graphsOn(size_t device) const;

 private:
    enum class SlotState { Empty, Loading, Ready, Draining };
    static constexpr size_t kNone = static_cast<size_t>(-1);

    struct Worker {
        size_t device = 0;
        size_t slot = 0;
    };
    struct Slot {
        size_t graph = kNone;
        SlotState state = SlotState::Empty;
        size_t inFlight = 0;
        bool listed = false;
        double since = 0.0;
    };
    struct Flight {
        size_t slot = 0;
        double arrived = 0.0;
    };
    struct Device {
        std::vector<Slot> slots;
        std::deque<Flight> flights;
        std::deque<size_t> loads;  // graphs that wait for a free slot
        double speed = 1.0;
    };
    struct Graph {
        std::deque<double> queue;
        std::deque<Worker> workers;
        uint64_t arrived = 0;
        double toldTime = 0.0;
        double loadTime = 0.0;
    };
    enum class EventKind { Arrival, Done, Loaded, Pass };
    struct Event {
        double time = 0.0;
        uint64_t order = 0;
        EventKind kind = EventKind::Arrival;
        size_t index = 0;
        size_t slot = 0;
        bool operator<(const Event& other) const {
            return time != other.time ? time > other.time : order > other.order;
        }
    };

    void post(double time, EventKind kind, size_t index, size_t slot = 0);
    void handle(const Event& event);
    void arrive(size_t graph);
    bool isHeld(size_t graph) const;
    bool hasRoom(const Graph& graph) const;
    void feed(size_t graph);
    Worker takeWorker(Graph& graph);
    void begin(size_t device);
    void finishTask(size_t device);
    void list(size_t device, size_t slot);
    void unload(size_t device, size_t graph);
    void empty(size_t device, size_t slot);
    void beginLoads(size_t device);
    void finishLoad(size_t device, size_t slot);
    void pass();
    void endChange();
    void schedulePass(double time);
    bool isMeasured() const { return m_now >= m_start && m_now <= m_end; }

    const Scenario m_scenario;
    SimulatedPlanner& m_planner;
    std::vector<Device> m_devices;
    std::vector<Graph> m_graphs;
    std::vector<Arrivals> m_arrivals;
    std::priority_queue<Event> m_events;
    uint64_t m_order = 0;
    double m_now = 0.0;
    double m_start = 0.0;
    double m_end = 0.0;
    size_t m_waiting = 0;
    size_t m_queues = 0;   // that are not empty
    size_t m_changes = 0;  // under way
    double m_passEnd = 0.0;
    double m_nextPass = -1.0;  // below 0: a pass is under way
    Outcome m_outcome;
};

}  // namespace kelm

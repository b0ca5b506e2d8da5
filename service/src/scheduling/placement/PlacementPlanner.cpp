#include "scheduling/placement/PlacementPlanner.h"

#include <algorithm>

#include "scheduling/placement/MoveCost.h"

namespace kelm {

namespace {

constexpr double kUsualWake = 1.0;  // seconds
constexpr double kQuickWake = 0.1;
// The demand of a graph whose tasks have not been measured, in devices.
constexpr double kGuessedDemand = 0.3;
// A backlog is to be gone after this time, and counts for no more than that part of the demand.
constexpr double kDrainTime = 1.5;
constexpr double kBacklogPart = 0.5;
constexpr double kUsualBacklog = 0.1;  // seconds of work that come and go with random arrivals
constexpr double kRefused = 100.0;  // of a device that failed to load the graph, which comes last
constexpr double kLateWork = 0.15;  // seconds of work; a placed graph with more is late

}  // namespace

PlacementPlan PlacementPlanner::plan(const PlacementPicture& picture) {
    m_picture = &picture;
    m_starving = false;
    m_longestWait = 0.0;
    readDemands();
    layOutBoard();
    placeHomeless();
    shareTime();
    PlacementPlan plan;
    describe(plan);
    plan.wakeAfter = m_starving || hasLateGraph() ? kQuickWake : kUsualWake;
    plan.longestWait = m_longestWait;
    return plan;
}

void PlacementPlanner::readDemands() {
    const size_t number = m_picture->graphs.size();
    m_states.assign(number, {});
    m_demands.resize(number);
    for (size_t i = 0; i < number; ++i) {
        const PlacementGraph& graph = m_picture->graphs[i];
        DemandEstimator& estimator = m_estimators[graph.id];
        estimator.observe(m_picture->now, graph.arrivals);
        m_demands[i] = &estimator;
        TurnState& state = m_states[i];
        state.backlog = graph.waiting * graph.taskTime;
        const double extra = std::max(0.0, state.backlog - kUsualBacklog) / kDrainTime;
        const double steady = estimator.rate() * graph.taskTime;
        state.demand = steady + std::min(extra, kBacklogPart * (steady + 0.1));
        if (graph.taskTime <= 0.0 && (graph.waiting > 0 || estimator.rate() > 0.0)) {
            state.demand = kGuessedDemand;
        }
        state.habit = estimator.habit() * graph.taskTime;
        state.age = graph.oldestAge;
        state.asks = graph.waiting > 0 || graph.requested;
        state.loadTime = graph.loadTime > 0.0 ? graph.loadTime : MoveCost::kGuess;
    }
    if (m_estimators.size() <= 2 * number + 16) return;
    std::unordered_map<uint64_t, DemandEstimator> present;
    for (size_t i = 0; i < number; ++i) present[m_picture->graphs[i].id] = *m_demands[i];
    m_estimators = std::move(present);
    for (size_t i = 0; i < number; ++i) m_demands[i] = &m_estimators[m_picture->graphs[i].id];
}

// What is there now.
void PlacementPlanner::layOutBoard() {
    m_board.clear();
    m_deviceIndex.clear();
    for (const PlacementDevice& device : m_picture->devices) {
        m_deviceIndex[device.id] = m_deviceIndex.size();
        m_board.addDevice(device.speed, device.slots, device.memory);
    }
    m_homeless.clear();
    m_reasons.assign(m_picture->graphs.size(), PlacementReason::Demand);
    for (size_t i = 0; i < m_picture->graphs.size(); ++i) {
        const PlacementGraph& graph = m_picture->graphs[i];
        m_board.addGraph(m_states[i].demand, graph.memory);
        for (const PresentPlace& place : graph.places) {
            const auto found = m_deviceIndex.find(place.device);
            if (found != m_deviceIndex.end()) m_board.put(i, found->second);
        }
        if (!m_board.graphs()[i].places.empty()) continue;
        m_homeless.push_back(i);
        m_reasons[i] =
            graph.places.empty() ? PlacementReason::Starving : PlacementReason::LostDevice;
    }
    m_board.spreadAll();
}

// Those that wait longest first, then those that asked first.
void PlacementPlanner::placeHomeless() {
    std::stable_sort(m_homeless.begin(), m_homeless.end(), [this](size_t left, size_t right) {
        if (m_states[left].asks != m_states[right].asks) return m_states[left].asks;
        if (m_states[left].age != m_states[right].age) {
            return m_states[left].age > m_states[right].age;
        }
        return m_states[left].demand > m_states[right].demand;
    });
    std::erase_if(m_homeless, [this](size_t graph) {
        size_t device = 0;
        if (!findPlace(graph, device)) return false;
        m_board.put(graph, device);
        return true;
    });
}

// The device that is least busy with it; of those that are at their ease the one with the fewest
// graphs, or that holds the graph already.
bool PlacementPlanner::findPlace(size_t graph, size_t& device) const {
    bool found = false;
    double least = 0.0;
    const double demand = std::max(m_states[graph].demand, m_states[graph].habit);
    for (size_t i = 0; i < m_board.devices().size(); ++i) {
        if (!m_board.fits(i, graph)) continue;
        const PlacementBoard::Device& place = m_board.devices()[i];
        const double busy = (place.load + demand) / place.speed;
        const double rank = busy + 0.25 * static_cast<double>(place.graphs.size()) +
                            0.5 * std::min(1.0, loadTime(graph, i)) +
                            (loadTime(graph, i) >= MoveCost::kNever ? kRefused : 0.0);
        if (found && rank >= least) continue;
        found = true;
        least = rank;
        device = i;
    }
    return found;
}

// Those without a place first, then the balance, and at last copies in turns, which it cannot give.
void PlacementPlanner::shareTime() {
    TimeSharing sharing(m_board, *m_picture, m_states);
    if (!m_homeless.empty()) m_longestWait = sharing.longestWait();
    std::erase_if(m_homeless, [&](size_t graph) {
        if (!m_states[graph].asks) return false;
        m_starving = true;
        TimeSharing::Turn turn;
        if (!sharing.findTurn(graph, turn)) return false;
        take(sharing, turn);
        return true;
    });
    LoadBalancer balancer(m_board, *this);
    balancer.run();
    shareCopies(sharing);
}

bool PlacementPlanner::hasLateGraph() const {
    for (const TurnState& state : m_states) {
        if (state.backlog > kLateWork) return true;
    }
    return false;
}

// Those with most work first.
void PlacementPlanner::shareCopies(TimeSharing& sharing) {
    std::vector<size_t> late;
    for (size_t i = 0; i < m_states.size(); ++i) {
        const TurnState& state = m_states[i];
        if (m_board.graphs()[i].places.empty()) continue;
        if (state.backlog > std::max(kLateWork, 1.5 * state.loadTime)) late.push_back(i);
    }
    std::stable_sort(late.begin(), late.end(), [this](size_t left, size_t right) {
        return m_states[left].backlog > m_states[right].backlog;
    });
    for (const size_t graph : late) {
        TimeSharing::Turn turn;
        size_t device = 0;
        if (findPlace(graph, device)) continue;  // the balancer's matter
        const bool isShort = !m_homeless.empty() && sharing.isShortOfCopies(graph);
        if (isShort ? sharing.findTurn(graph, turn) : sharing.findCopy(graph, turn)) {
            take(sharing, turn);
        }
    }
}

void PlacementPlanner::take(TimeSharing& sharing, const TimeSharing::Turn& turn) {
    m_board.take(turn.victim, turn.device);
    m_board.put(turn.graph, turn.device);
    m_reasons[turn.victim] = PlacementReason::Starving;
    sharing.start(turn);
}

double PlacementPlanner::loadTime(size_t graph, size_t device) const {
    return MoveCost::loadTime(m_picture->graphs[graph], m_picture->devices[device]);
}

double PlacementPlanner::expectedStay(size_t graph) const {
    return MoveCost::expectedStay(m_demands[graph]->age());
}

void PlacementPlanner::describe(PlacementPlan& plan) const {
    for (size_t graph = 0; graph < m_picture->graphs.size(); ++graph) describeGraph(graph, plan);
    for (const size_t graph : m_homeless) {
        if (!m_states[graph].asks) continue;
        plan.moves.push_back({PlacementAction::Refused, PlacementReason::Starving,
                              m_picture->graphs[graph].id, 0, 0});
    }
}

// The difference between what is there and the board. A place that the graph leaves and one that it
// gets are one move.
void PlacementPlanner::describeGraph(size_t index, PlacementPlan& plan) const {
    const PlacementGraph& graph = m_picture->graphs[index];
    const size_t before = plan.moves.size();
    std::vector<uint64_t> left;
    for (const PresentPlace& place : graph.places) {
        const auto found = m_deviceIndex.find(place.device);
        const bool stays = found != m_deviceIndex.end() && m_board.holds(found->second, index);
        if (!stays) left.push_back(place.device);
    }
    for (const PlacementBoard::Share& share : m_board.graphs()[index].places) {
        const PlacementDevice& device = m_picture->devices[share.device];
        const auto isHere = [&](const PresentPlace& place) { return place.device == device.id; };
        if (std::any_of(graph.places.begin(), graph.places.end(), isHere)) continue;
        PlacementMove move{PlacementAction::Loaded, m_reasons[index], graph.id, 0, device.id};
        const auto& cached = device.cached;
        const bool isCached = std::find(cached.begin(), cached.end(), graph.id) != cached.end();
        if (isCached && move.reason == PlacementReason::Demand) {
            move.reason = PlacementReason::Cache;
        }
        if (!left.empty()) {
            move.action = PlacementAction::Moved;
            move.from = left.back();
            left.pop_back();
        }
        plan.moves.push_back(move);
    }
    for (const uint64_t device : left) {
        plan.moves.push_back({PlacementAction::Unloaded, m_reasons[index], graph.id, device, 0});
    }
    const bool isLate = !graph.places.empty() && m_states[index].backlog > kLateWork;
    if (isLate && plan.moves.size() == before) {
        plan.moves.push_back({PlacementAction::Kept, PlacementReason::Demand, graph.id, 0, 0});
    }
}

}  // namespace kelm

#include "scheduling/placement/TimeSharing.h"

#include <algorithm>

#include "scheduling/placement/MoveCost.h"

namespace kelm {

namespace {

constexpr double kShortestTurn = 0.1;  // seconds
constexpr double kLeastPeriod = 0.2;   // for each graph that shares a place
// The part of the devices' time that loads may take when there is none to spare.
constexpr double kLoadPart = 0.04;
constexpr double kSpareKept = 0.1;
constexpr double kDrained = 0.03;  // seconds of work that hardly matter
constexpr double kLongestPeriod = 15.0;
// When places are short a graph gathers so much work, in seconds, before it asks for a turn, unless
// it has waited for so long.
constexpr double kWorthATurn = 0.12;
constexpr double kPatience = 0.4;
constexpr double kStretch = 1.15;
constexpr double kWorthACopy = 0.1;  // devices
// A further place by turns: for a graph with so much more to do than the one that has the place.
constexpr double kCopyGain = 1.1;
constexpr double kCopyHarm = 0.25;  // of a copy's load, which its graph's other devices take over

}  // namespace

TimeSharing::TimeSharing(const PlacementBoard& board, const PlacementPicture& picture,
                         const std::vector<TurnState>& states)
    : m_board(board), m_picture(picture), m_states(states) {
    m_started.assign(states.size(), false);
    double demand = 0.0;
    double loads = 0.0;
    double sharing = 0.0;
    for (const TurnState& state : states) {
        if (state.habit <= 0.0 && !state.asks) continue;
        demand += state.demand;
        loads += state.loadTime;
        sharing += 1.0;
    }
    double speed = 0.0;
    double slots = 0.0;
    for (const PlacementBoard::Device& device : board.devices()) {
        speed += device.speed;
        slots += device.slots;
    }
    m_copies.assign(states.size(), 1);
    if (slots <= 0.0 || sharing <= 0.0) return;
    giveCopies(slots);
    const double spare = std::max(kLoadPart, 1.0 - kSpareKept - demand / speed);
    m_period = std::max(sharing / slots * kLeastPeriod, loads / slots / spare);
    m_period = std::min(m_period, kLongestPeriod);
    m_longestWait = 2.0 * (m_period + loads / slots) + 2.0 * kShortestTurn;
}

// The largest need for a further place first. A slot is lent to a graph that takes turns for as
// long as its work takes, which is longer where others work on the device meanwhile.
void TimeSharing::giveCopies(double slots) {
    const auto devices = static_cast<double>(m_board.devices().size());
    double demand = 0.0;
    double speed = 0.0;
    for (const TurnState& state : m_states) demand += state.demand;
    for (const PlacementBoard::Device& device : m_board.devices()) speed += device.speed;
    const double stretch =
        kStretch * (1.0 + (slots / devices - 1.0) * std::min(1.0, demand / speed));
    const double unit = speed / devices;
    double left = slots;
    double wish = 0.0;  // for further places
    for (const TurnState& state : m_states) {
        left -= std::min(1.0, stretch * state.demand / unit);
        wish += std::max(0.0, state.demand / unit - 1.0);
    }
    m_isScarce = left - wish < kSpareKept * slots;
    while (left >= 1.0) {
        size_t neediest = 0;
        double most = 0.0;
        for (size_t i = 0; i < m_states.size(); ++i) {
            const double need = m_states[i].demand / unit - static_cast<double>(m_copies[i]);
            if (need > most) {
                most = need;
                neediest = i;
            }
        }
        if (most < kWorthACopy) return;
        ++m_copies[neediest];
        left -= 1.0;
    }
}

double TimeSharing::sinceOf(size_t graph, size_t device) const {
    const uint64_t id = m_picture.devices[device].id;
    for (const PresentPlace& place : m_picture.graphs[graph].places) {
        if (place.device == id) return place.since;
    }
    return m_picture.now;
}

bool TimeSharing::mayLeave(size_t victim, double since, bool overdue) const {
    const TurnState& state = m_states[victim];
    const double turn = m_picture.now - since;
    if (m_started[victim]) return false;
    const size_t places = m_board.graphs()[victim].places.size();
    if (places > 1 && places <= m_copies[victim] && !overdue) return false;
    if (!state.asks && state.demand <= 0.0) return true;
    if (turn < kShortestTurn) return false;
    if (state.backlog <= kDrained || overdue) return true;
    return turn >= std::max(kShortestTurn, m_period * std::min(1.0, state.demand));
}

// What is lost when the victim leaves and the graph comes: the work that the victim is expected to
// have, its load when it comes back, and the company that the graph finds.
double TimeSharing::harm(size_t graph, size_t device, size_t victim) const {
    const PlacementBoard::Device& place = m_board.devices()[device];
    const double load = m_board.loadOf(victim, device);
    const double company = (place.load - load + m_states[graph].demand) / place.speed;
    const bool isCopy = m_board.graphs()[victim].places.size() > 1;
    const TurnState& state = m_states[victim];
    const double missed =
        isCopy ? kCopyHarm * load : state.habit * (1.0 + state.loadTime) + state.backlog;
    return missed + std::max(0.0, company - 0.7) +
           0.01 * MoveCost::loadTime(m_picture.graphs[graph], m_picture.devices[device]);
}

bool TimeSharing::findTurn(size_t graph, Turn& turn) const {
    const TurnState& claimant = m_states[graph];
    if (m_isScarce && claimant.backlog < kWorthATurn && claimant.age < kPatience) return false;
    const bool overdue = m_states[graph].age * 2.0 > m_longestWait;
    bool found = false;
    double least = 0.0;
    for (size_t device = 0; device < m_board.devices().size(); ++device) {
        for (const size_t victim : m_board.devices()[device].graphs) {
            if (!m_board.fitsInPlaceOf(device, graph, victim)) continue;
            if (!mayLeave(victim, sinceOf(victim, device), overdue)) continue;
            const double missed = harm(graph, device, victim);
            if (found && missed >= least) continue;
            found = true;
            least = missed;
            turn = {graph, device, victim};
        }
    }
    return found;
}

bool TimeSharing::findCopy(size_t graph, Turn& turn) const {
    bool found = false;
    double least = 0.0;
    const double more = m_states[graph].demand - 0.95 * servedOf(graph);
    for (size_t device = 0; device < m_board.devices().size(); ++device) {
        const PlacementBoard::Device& place = m_board.devices()[device];
        for (const size_t victim : place.graphs) {
            const TurnState& state = m_states[victim];
            if (m_board.graphs()[victim].places.size() > 1) continue;
            if (state.backlog > kDrained || m_started[victim]) continue;
            if (!m_board.fitsInPlaceOf(device, graph, victim)) continue;
            const double turnTime = m_picture.now - sinceOf(victim, device);
            if (turnTime < kShortestTurn + state.loadTime) continue;
            const double room = place.speed - (place.load - m_board.loadOf(victim, device));
            if (std::min(more, room) < kCopyGain * state.habit + kWorthACopy) continue;
            const double missed = harm(graph, device, victim);
            if (found && missed >= least) continue;
            found = true;
            least = missed;
            turn = {graph, device, victim};
        }
    }
    return found;
}

// Seconds of work a second that its devices can do for it.
double TimeSharing::servedOf(size_t graph) const {
    double served = 0.0;
    for (const PlacementBoard::Share& share : m_board.graphs()[graph].places) {
        const PlacementBoard::Device& place = m_board.devices()[share.device];
        served += std::max(0.0, place.speed - (place.load - share.load));
    }
    return served;
}

void TimeSharing::start(const Turn& turn) { m_started[turn.graph] = true; }

}  // namespace kelm

#include "scheduling/placement/LoadBalancer.h"

#include <algorithm>

#include "scheduling/placement/MoveCost.h"

namespace kelm {

namespace {

// Looks at places, over all tries of a plan, after which the rest waits for the next plan.
constexpr size_t kMostEffort = 30'000;
// Devices that are tried for a graph, the least busy first.
constexpr size_t kTargets = 12;
// A graph of more than a device, whose devices have so much more to do than they can.
constexpr double kLarge = 1.0;
constexpr double kFarTooBusy = 1.3;
constexpr double kEasyTarget = 0.6;
constexpr double kFull = 0.95;
constexpr double kLeastRoom = 0.2;
// Devices from which on a graph is only given more of them: one that moves changes little.
constexpr size_t kMany = 8;
constexpr double kLessBusy = 0.03;

}  // namespace

void LoadBalancer::run() {
    m_stuck.assign(m_board.devices().size(), false);
    spreadLargeGraphs();
    while (m_effort < kMostEffort) {
        const size_t device = findBusiest();
        if (device == kNone) return;
        listTargets();
        if (!relieve(device)) giveUp(device);
    }
}

// In one step what would otherwise take a try for each device.
void LoadBalancer::spreadLargeGraphs() {
    const auto& devices = m_board.devices();
    std::vector<size_t> free;
    for (size_t graph = 0; graph < m_board.graphs().size(); ++graph) {
        const auto& item = m_board.graphs()[graph];
        if (item.places.empty() || item.demand < kLarge) continue;
        if (devices[item.places.front().device].busy() < kFarTooBusy) continue;
        if (free.empty()) {
            for (size_t i = 0; i < devices.size(); ++i) {
                if (devices[i].hasFreeSlot() && devices[i].busy() < kEasyTarget) free.push_back(i);
            }
            std::stable_sort(free.begin(), free.end(), [&](size_t left, size_t right) {
                return devices[left].busy() < devices[right].busy();
            });
        }
        spreadLargeGraph(graph, free);
    }
}

void LoadBalancer::spreadLargeGraph(size_t graph, const std::vector<size_t>& free) {
    const auto& devices = m_board.devices();
    double need = 0.0;
    for (const auto& share : m_board.graphs()[graph].places) {
        need += devices[share.device].load - kFull * devices[share.device].speed;
    }
    std::vector<size_t> targets;
    for (const size_t device : free) {
        const double room = kFull * devices[device].speed - devices[device].load;
        if (need < room / 2.0) break;
        if (room < kLeastRoom || !m_board.fits(device, graph)) continue;
        targets.push_back(device);
        need -= room;
    }
    if (!targets.empty()) m_board.putAll(graph, targets);
}

size_t LoadBalancer::findBusiest() const {
    size_t busiest = kNone;
    const auto& devices = m_board.devices();
    for (size_t device = 0; device < devices.size(); ++device) {
        if (m_stuck[device] || m_board.costOf(device) <= 0.0) continue;
        if (busiest == kNone || devices[device].busy() > devices[busiest].busy()) busiest = device;
    }
    return busiest;
}

// The devices of a graph that has many are equally busy: what does not help one helps none.
void LoadBalancer::giveUp(size_t device) {
    m_stuck[device] = true;
    const auto& devices = m_board.devices();
    for (const size_t graph : devices[device].graphs) {
        if (!hasMany(graph)) continue;
        for (const auto& share : m_board.graphs()[graph].places) {
            if (devices[share.device].busy() > devices[device].busy() - kLessBusy) {
                m_stuck[share.device] = true;
            }
        }
    }
}

bool LoadBalancer::hasMany(size_t graph) const {
    return m_board.graphs()[graph].places.size() > kMany;
}

// Some with a free slot and some without, so that neither kind hides the other.
void LoadBalancer::listTargets() {
    const auto& devices = m_board.devices();
    m_targets.clear();
    std::vector<size_t> order;
    for (const bool free : {true, false}) {
        order.clear();
        for (size_t i = 0; i < devices.size(); ++i) {
            if (devices[i].hasFreeSlot() == free) order.push_back(i);
        }
        const size_t number = std::min(order.size(), kTargets);
        std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(number),
                          order.end(), [&](size_t left, size_t right) {
                              const double a = devices[left].busy();
                              const double b = devices[right].busy();
                              return a != b ? a < b : left < right;
                          });
        m_targets.insert(m_targets.end(), order.begin(),
                         order.begin() + static_cast<std::ptrdiff_t>(number));
    }
}

bool LoadBalancer::relieve(size_t device) {
    m_best = {};
    const std::vector<size_t> graphs = m_board.devices()[device].graphs;
    const double busy = m_board.devices()[device].busy();
    for (const size_t graph : graphs) {
        for (const size_t to : m_targets) {
            if (to == device || m_board.devices()[to].busy() + kLessBusy > busy) continue;
            tryTarget(graph, device, to);
        }
    }
    if (m_best.net <= 0.0) return false;
    apply(m_best);
    return true;
}

void LoadBalancer::tryTarget(size_t graph, size_t device, size_t to) {
    if (m_board.holds(to, graph) || m_costs.loadTime(graph, to) >= MoveCost::kNever) return;
    if (m_board.fits(to, graph)) {
        tryChange({graph, kNone, to, kNone});
        if (!hasMany(graph)) tryChange({graph, device, to, kNone});
        return;
    }
    const std::vector<size_t> others = m_board.devices()[to].graphs;
    for (const size_t other : others) {
        if (!m_board.fitsInPlaceOf(to, graph, other)) continue;
        if (m_board.graphs()[other].places.size() > 1) tryChange({graph, kNone, to, other});
        if (!hasMany(graph) && !hasMany(other) && m_board.fitsInPlaceOf(device, other, graph)) {
            tryChange({graph, device, to, other, true});
        }
    }
}

// Made and undone on the board.
void LoadBalancer::tryChange(Change change) {
    const double lost = lostWork(change);
    m_around.clear();
    for (const size_t graph : {change.graph, change.other}) {
        if (graph == kNone) continue;
        for (const auto& share : m_board.graphs()[graph].places) m_around.push_back(share.device);
    }
    m_around.push_back(change.to);
    std::sort(m_around.begin(), m_around.end());
    m_around.erase(std::unique(m_around.begin(), m_around.end()), m_around.end());
    m_effort += m_around.size() * 4;
    const auto cost = [this] {
        double sum = 0.0;
        for (const size_t device : m_around) sum += m_board.costOf(device);
        return sum;
    };
    const double before = cost();
    apply(change);
    const double gain = before - cost();
    // Back to what it was.
    if (change.other != kNone) {
        if (change.returns) m_board.take(change.other, change.from);
        m_board.take(change.graph, change.to);
        m_board.put(change.other, change.to);
    } else {
        m_board.take(change.graph, change.to);
    }
    if (change.from != kNone) m_board.put(change.graph, change.from);
    const double stay = m_costs.expectedStay(change.graph);
    if (!MoveCost::pays(gain, lost, stay)) return;
    change.net = gain * stay - lost;
    if (change.net > m_best.net + 1e-9) m_best = change;
}

void LoadBalancer::apply(const Change& change) {
    if (change.from != kNone) m_board.take(change.graph, change.from);
    if (change.other != kNone) m_board.take(change.other, change.to);
    m_board.put(change.graph, change.to);
    if (change.returns) m_board.put(change.other, change.from);
}

// A further copy costs nobody anything while it loads; what is moved does no work meanwhile.
double LoadBalancer::lostWork(const Change& change) const {
    double lost = 0.0;
    if (change.from != kNone) {
        lost +=
            m_costs.loadTime(change.graph, change.to) * m_board.loadOf(change.graph, change.from);
    }
    if (change.other != kNone) {
        const size_t next = change.returns ? change.from : change.to;
        lost += m_costs.loadTime(change.returns ? change.other : change.graph, next) *
                m_board.loadOf(change.other, change.to);
    }
    return lost;
}

}  // namespace kelm

#include "scheduling/placement/PlacementBoard.h"

#include <algorithm>
#include <cmath>

namespace kelm {

namespace {

// Above this busy share tasks start to wait noticeably.
constexpr double kEasy = 0.8;
constexpr int kSpreadRounds = 6;
constexpr double kSpreadSlack = 1e-3;

}  // namespace

void PlacementBoard::clear() {
    m_devices.clear();
    m_graphs.clear();
}

void PlacementBoard::addDevice(double speed, uint32_t slots, uint32_t memory) {
    m_devices.push_back({.speed = speed, .slots = slots, .memoryLeft = memory, .graphs = {}});
}

void PlacementBoard::addGraph(double demand, uint32_t memory) {
    m_graphs.push_back({.demand = demand, .memory = memory, .places = {}});
}

bool PlacementBoard::holds(size_t device, size_t graph) const {
    const std::vector<size_t>& graphs = m_devices[device].graphs;
    return std::find(graphs.begin(), graphs.end(), graph) != graphs.end();
}

bool PlacementBoard::fits(size_t device, size_t graph) const {
    const Device& place = m_devices[device];
    return place.hasFreeSlot() && place.memoryLeft >= m_graphs[graph].memory &&
           !holds(device, graph);
}

bool PlacementBoard::fitsInPlaceOf(size_t device, size_t graph, size_t leaving) const {
    return m_devices[device].memoryLeft + m_graphs[leaving].memory >= m_graphs[graph].memory &&
           !holds(device, graph);
}

double PlacementBoard::loadOf(size_t graph, size_t device) const {
    for (const Share& share : m_graphs[graph].places) {
        if (share.device == device) return share.load;
    }
    return 0.0;
}

void PlacementBoard::put(size_t graph, size_t device) {
    enter(graph, device);
    spread(graph);
}

void PlacementBoard::putAll(size_t graph, const std::vector<size_t>& devices) {
    for (const size_t device : devices) enter(graph, device);
    spread(graph);
}

void PlacementBoard::enter(size_t graph, size_t device) {
    m_graphs[graph].places.push_back({device, 0.0});
    m_devices[device].graphs.push_back(graph);
    m_devices[device].memoryLeft -= m_graphs[graph].memory;
}

void PlacementBoard::take(size_t graph, size_t device) {
    Device& place = m_devices[device];
    place.load -= loadOf(graph, device);
    std::erase(place.graphs, graph);
    place.memoryLeft += m_graphs[graph].memory;
    std::erase_if(m_graphs[graph].places,
                  [&](const Share& share) { return share.device == device; });
    spread(graph);
}

// Fills the devices like communicating vessels: up to one level, those first that are least busy.
void PlacementBoard::spread(size_t graph) {
    Graph& item = m_graphs[graph];
    if (item.places.empty()) return;
    if (item.places.size() == 1) {
        Share& only = item.places.front();
        m_devices[only.device].load += item.demand - only.load;
        only.load = item.demand;
        return;
    }
    for (const Share& share : item.places) m_devices[share.device].load -= share.load;
    m_scratch.clear();
    for (const Share& share : item.places) {
        m_scratch.push_back({share.device, m_devices[share.device].busy()});
    }
    std::sort(m_scratch.begin(), m_scratch.end(), [](const Share& left, const Share& right) {
        return left.load != right.load ? left.load < right.load : left.device < right.device;
    });
    double level = 0.0;
    double speed = 0.0;
    double sum = item.demand;
    for (size_t i = 0; i < m_scratch.size(); ++i) {
        if (i > 0 && level <= m_scratch[i].load) break;
        const Device& place = m_devices[m_scratch[i].device];
        sum += place.load;
        speed += place.speed;
        level = sum / speed;
    }
    for (Share& share : item.places) {
        Device& place = m_devices[share.device];
        share.load = std::max(0.0, level * place.speed - place.load);
        place.load += share.load;
    }
}

void PlacementBoard::spreadAll() {
    for (size_t graph = 0; graph < m_graphs.size(); ++graph) {
        if (m_graphs[graph].places.size() == 1) spread(graph);
    }
    for (int round = 0; round < kSpreadRounds; ++round) {
        double change = 0.0;
        for (size_t graph = 0; graph < m_graphs.size(); ++graph) {
            const Graph& item = m_graphs[graph];
            if (item.places.size() < 2) continue;
            const double before = item.places.front().load;
            spread(graph);
            change = std::max(change, std::abs(item.places.front().load - before));
        }
        if (change < kSpreadSlack) break;
    }
}

double PlacementBoard::costOf(size_t device) const {
    const Device& place = m_devices[device];
    const double busy = place.busy();
    if (busy <= kEasy) return 0.0;
    constexpr double kRoom = 1.0 - kEasy;
    const double tight = std::min(busy, 1.0) - kEasy;
    return place.speed * (0.5 * tight * tight / kRoom + std::max(busy - 1.0, 0.0));
}

}  // namespace kelm

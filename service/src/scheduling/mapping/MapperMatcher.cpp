#include "scheduling/mapping/MapperMatcher.h"

#include <unordered_map>
#include <utility>

#include "scheduling/mapping/MapperModel.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

// The scores, by what a device would keep. Of two graphs one is kept in each but the last: least is
// won where the other one is exchanged, for then the device both unloads and loads.
constexpr int kExchanges = 1;
constexpr int kOnlyLoads = 2;
constexpr int kOnlyUnloads = 3;
constexpr int kSameGraphs = 4;

// The shadows by the graphs on them, so that a real device is compared only with those that can
// score. All shadows that hold one graph alone score alike, so the first of them stands for all;
// one that holds it beside another must be compared in any case, since that may swap its places.
class ShadowIndex {
 public:
    explicit ShadowIndex(const DeviceItemSet& shadows) {
        for (DeviceItem* shadow : shadows) {
            const bool alone = shadow->graphs.size() == 1;
            for (const GraphItem* item : shadow->graphs) {
                Holders& holders = m_holders[item];
                (alone ? holders.alone : holders.paired).push_back(shadow);
            }
        }
    }

    // The shadow most like a real device, the first among equals, and its score; null for 0.
    std::pair<DeviceItem*, int> findMostAlike(const DeviceItem* real) {
        std::pair<DeviceItem*, int> best{nullptr, 0};
        const auto found = m_holders.find(real->graphs.find(0));
        if (found == m_holders.end()) return best;
        const auto offer = [&best, real](DeviceItem* shadow) {
            const int score = MapperMatcher::deviceMapperCompare(real, shadow);
            if (score > best.second) best = {shadow, score};
        };
        // Alone before paired is not the walk order, and need not be: a shadow that holds the graph
        // alone never scores the same as one that holds it beside another. What is matched already
        // is skipped.
        if (DeviceItem* shadow = found->second.firstAlone()) offer(shadow);
        for (DeviceItem* shadow : found->second.paired) {
            if (!shadow->isMatched) offer(shadow);
        }
        return best;
    }

 private:
    struct Holders {
        DeviceItem* firstAlone() {
            while (next < alone.size() && alone[next]->isMatched) ++next;
            return next < alone.size() ? alone[next] : nullptr;
        }

        DeviceItemSet alone;
        DeviceItemSet paired;
        size_t next = 0;
    };

    std::unordered_map<const GraphItem*, Holders> m_holders;
};

}  // namespace

void MapperMatcher::mapGraphPost(MapperModel& model) {
    const uint32_t matched = matchAlikeDevices(model);
    LOG_STEP("mapGraphPost: matched deviceNum = %u", matched);
    // The rate is over all mappings since the start, not over this one.
    m_totalDeviceCount += static_cast<uint32_t>(model.devices().size());
    const double rate = m_totalDeviceCount != 0
                            ? static_cast<double>(m_stableDeviceCount) / m_totalDeviceCount
                            : 0.0;
    LOG_STEP("mapGraphPost: device stable rate - %d/%d=%f", m_stableDeviceCount, m_totalDeviceCount,
             rate);
    const uint32_t left = fillLeftDevices(model);
    LOG_STEP("mapGraphPost: left deviceNum = %u", left);
    updateDeviceState(model.devices());
}

// In walk order, each real device for itself: an earlier one may take the shadow that a later one
// resembles more.
uint32_t MapperMatcher::matchAlikeDevices(const MapperModel& model) {
    ShadowIndex shadows(model.shadows());
    uint32_t matched = 0;
    for (DeviceItem* real : model.devices()) {
        if (real->graphs.empty()) continue;  // nothing to keep: served by what is left
        const auto [shadow, score] = shadows.findMostAlike(real);
        if (shadow == nullptr) continue;
        deviceMapperCopy(real, shadow);
        real->devStatus = MAPPER_GRAPH_RUN;
        ++matched;
        LOG_STEP("mapGraphPost: matched device Score = %d", score);
        if (score == kSameGraphs) ++m_stableDeviceCount;
    }
    return matched;
}

// What is left of the plan is given to what is left of the devices, both in order.
uint32_t MapperMatcher::fillLeftDevices(const MapperModel& model) {
    uint32_t filled = 0;
    const DeviceItemSet& shadows = model.shadows();
    auto next = shadows.begin();
    for (DeviceItem* real : model.devices()) {
        if (real->isMatched) continue;
        real->devStatus = MAPPER_GRAPH_NONE;
        while (next != shadows.end() && ((*next)->isMatched || (*next)->graphs.empty())) {
            ++next;
        }
        if (next == shadows.end()) continue;
        GraphSlots& graphs = (*next)->graphs;
        // The heavier graph first: the next mapping looks for devices alike by their first graph.
        if (graphs.size() == 2 && graphs.find(1)->devReq > graphs.find(0)->devReq) {
            graphs.swapPlaces();
        }
        deviceMapperCopy(real, *next);
        real->devStatus = MAPPER_GRAPH_RUN;
        ++filled;
    }
    return filled;
}

// By the first graph of the real device only: a shadow that shares just the second one scores 0.
int MapperMatcher::deviceMapperCompare(const DeviceItem* real, DeviceItem* shadow) {
    if (real->devStatus == MAPPER_GRAPH_NONE || shadow->devStatus == MAPPER_GRAPH_NONE) return 0;
    const GraphItem* first = real->graphs.find(0);
    if (shadow->graphs.empty() || first == nullptr) return 0;
    if (shadow->graphs.find(0) != first && shadow->graphs.find(1) != first) return 0;
    // Deliberate: the swap stays, also when this shadow is not chosen; later comparisons see it.
    if (shadow->graphs.find(1) == first) shadow->graphs.swapPlaces();
    const bool single = real->graphs.size() == 1;
    if (real->graphs.size() != shadow->graphs.size()) {
        return single ? kOnlyLoads : kOnlyUnloads;
    }
    return single || real->graphs.find(1) == shadow->graphs.find(1) ? kSameGraphs : kExchanges;
}

// The first graph of the device stays the first, since later comparisons look for it.
void MapperMatcher::deviceMapperCopy(DeviceItem* real, DeviceItem* shadow) {
    if (shadow->graphs.size() == 2 && shadow->graphs.find(1) == real->graphs.find(0)) {
        shadow->graphs.swapPlaces();
    }
    real->graphs = shadow->graphs;
    real->util = shadow->util;
    real->mem = shadow->mem;
    real->isMatched = true;
    shadow->isMatched = true;
}

}  // namespace kelm

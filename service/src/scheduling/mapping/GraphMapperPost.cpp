#include <unordered_map>

#include "scheduling/mapping/GraphMapper.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr int kSameGraphs = 4;  // the highest score

}  // namespace

// The shadows by the graphs on them, so that a real device is compared only with those that can
// score. All shadows that hold one graph alone score alike, so the first of them stands for all;
// one that holds it beside another must be compared in any case, since that may swap its places.
class GraphMapper::ShadowIndex {
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
            const int score = deviceMapperCompare(real, shadow);
            if (score > best.second) best = {shadow, score};
        };
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

bool GraphMapper::mapGraphPost() {
    const uint32_t matched = matchAlikeDevices();
    LOG_PROC(m_debugProcess, "mapGraphPost: matched deviceNum = %u", matched);
    m_totalDeviceCount += static_cast<uint32_t>(m_deviceSet.size());
    const double rate = m_totalDeviceCount != 0
                            ? static_cast<double>(m_stableDeviceCount) / m_totalDeviceCount
                            : 0.0;
    LOG_PROC(m_debugProcess, "mapGraphPost: device stable rate - %d/%d=%f", m_stableDeviceCount,
             m_totalDeviceCount, rate);
    const uint32_t left = fillLeftDevices();
    LOG_PROC(m_debugProcess, "mapGraphPost: left deviceNum = %u", left);
    updateDeviceState(m_deviceSet);
    return true;
}

uint32_t GraphMapper::matchAlikeDevices() {
    ShadowIndex shadows(m_newDeviceSet);
    uint32_t matched = 0;
    for (DeviceItem* real : m_deviceSet) {
        if (real->graphs.empty()) continue;
        const auto [shadow, score] = shadows.findMostAlike(real);
        if (shadow == nullptr) continue;
        deviceMapperCopy(real, shadow);
        real->devStatus = MAPPER_GRAPH_RUN;
        ++matched;
        LOG_PROC(m_debugProcess, "mapGraphPost: matched device Score = %d", score);
        if (score == kSameGraphs) ++m_stableDeviceCount;
    }
    return matched;
}

// What is left of the plan goes to what is left of the devices, both in order.
uint32_t GraphMapper::fillLeftDevices() {
    uint32_t filled = 0;
    auto next = m_newDeviceSet.begin();
    for (DeviceItem* real : m_deviceSet) {
        if (real->isMatched) continue;
        real->devStatus = MAPPER_GRAPH_NONE;
        while (next != m_newDeviceSet.end() && ((*next)->isMatched || (*next)->graphs.empty())) {
            ++next;
        }
        if (next == m_newDeviceSet.end()) continue;
        GraphSlots& graphs = (*next)->graphs;
        if (graphs.size() == 2 && graphs.find(1)->devReq > graphs.find(0)->devReq) {
            graphs.swapPlaces();
        }
        deviceMapperCopy(real, *next);
        real->devStatus = MAPPER_GRAPH_RUN;
        ++filled;
    }
    return filled;
}

int GraphMapper::deviceMapperCompare(const DeviceItem* real, DeviceItem* shadow) {
    if (real->devStatus == MAPPER_GRAPH_NONE || shadow->devStatus == MAPPER_GRAPH_NONE) return 0;
    const GraphItem* first = real->graphs.find(0);
    if (shadow->graphs.empty() || first == nullptr) return 0;
    if (shadow->graphs.find(0) != first && shadow->graphs.find(1) != first) return 0;
    // Deliberate: the swap stays, also when this shadow is not chosen; later comparisons see it.
    if (shadow->graphs.find(1) == first) shadow->graphs.swapPlaces();
    const bool single = real->graphs.size() == 1;
    if (real->graphs.size() != shadow->graphs.size()) return single ? 2 : 3;
    return single || real->graphs.find(1) == shadow->graphs.find(1) ? kSameGraphs : 1;
}

void GraphMapper::deviceMapperCopy(DeviceItem* real, DeviceItem* shadow) {
    if (shadow->graphs.size() == 2 && shadow->graphs.find(1) == real->graphs.find(0)) {
        shadow->graphs.swapPlaces();
    }
    real->graphs = shadow->graphs;
    real->util = shadow->util;
    real->mem = shadow->mem;
    real->isMatched = true;
    shadow->isMatched = true;
}

void GraphMapper::updateDeviceState(const DeviceItemSet& devices) {
    for (DeviceItem* device : devices) {
        const GraphItem* first = device->graphs.find(0);
        if (device->devStatus == MAPPER_GRAPH_NONE || first == nullptr) {
            device->graphs.clear();
            continue;
        }
        const float firstReq = first->devReq;
        const float ratio = firstReq / first->devReqScaled;
        const uint32_t firstNum = first->dedicatedDevNum;
        device->mem = first->memReq;
        const GraphItem* second = device->graphs.find(1);
        if (second == nullptr) {
            const bool dedicated = firstNum >= 1 && first->sharedDevNum == 0;
            device->util = dedicated ? firstReq / static_cast<float>(firstNum) : ratio;
            continue;
        }
        const float secondReq = second->devReq;
        const uint32_t secondNum = second->dedicatedDevNum;
        device->mem += second->memReq;
        if (firstNum != 0 && secondNum != 0) {
            device->util = firstReq - static_cast<float>(firstNum) * ratio + secondReq -
                           static_cast<float>(secondNum) * ratio;
        } else if (firstNum == 0 && secondNum == 0) {
            device->util = firstReq + secondReq;
        } else {
            const uint32_t num = 1.0f > firstReq ? secondNum : firstNum;
            device->util = firstReq + secondReq - static_cast<float>(num) * ratio;
        }
    }
}

}  // namespace kelm

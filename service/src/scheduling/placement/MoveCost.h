#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "scheduling/placement/PlacementPicture.h"

namespace kelm {

// Whether a change repays what it costs.
struct MoveCost {
    static constexpr double kGuess = 0.1;       // seconds of a load before the first was measured
    static constexpr double kLeastGain = 0.02;  // seconds of work a second; less is noise
    static constexpr double kTrouble = 0.05;    // seconds of work, of a change beside its load
    static constexpr double kShortestStay = 1.0;
    static constexpr double kLongestStay = 20.0;

    static constexpr double kNever = 1e6;  // seconds, of a load that a device has refused

    static double loadTime(const PlacementGraph& graph, const PlacementDevice& device) {
        const auto has = [](const std::vector<uint64_t>& list, uint64_t id) {
            return std::find(list.begin(), list.end(), id) != list.end();
        };
        if (has(graph.refusedBy, device.id)) return kNever;
        const bool isCached = has(device.cached, graph.id);
        if (isCached && graph.cachedTime > 0.0) return graph.cachedTime;
        return graph.loadTime > 0.0 ? graph.loadTime : kGuess;
    }
    // A demand that has been steady for some time is expected to stay as long again.
    static double expectedStay(double age) { return std::clamp(age, kShortestStay, kLongestStay); }
    // `gain` in seconds of work a second; `lost` is the work that the place does not do meanwhile.
    static bool pays(double gain, double lost, double stay) {
        return gain > kLeastGain && gain * stay > lost + kTrouble;
    }
};

}  // namespace kelm

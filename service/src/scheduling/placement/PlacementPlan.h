#pragma once

#include <cstdint>
#include <vector>

#include "reporting/PlacementReason.h"

namespace kelm {

// One decision. A device that it does not name is 0.
struct PlacementMove {
    PlacementAction action = PlacementAction::Loaded;
    PlacementReason reason = PlacementReason::Demand;
    uint64_t graph = 0;
    uint64_t from = 0;
    uint64_t device = 0;
};

struct PlacementPlan {
    std::vector<PlacementMove> moves;
    double wakeAfter = 1.0;  // seconds; the next plan is not needed earlier without an event
    // No graph without a device waits longer than this while others take turns, loads included.
    double longestWait = 0.0;
};

}  // namespace kelm

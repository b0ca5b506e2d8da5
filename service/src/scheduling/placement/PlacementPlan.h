#pragma once

#include <cstdint>
#include <vector>

#include "reporting/PlacementReason.h"

namespace kelm {

enum class PlacementAction {
    Loaded,    // onto `device`
    Unloaded,  // from `from`
    Moved,     // from one to the other
    Kept,      // asks for more, and no change would repay its cost
    Refused,   // asks for a place, and there is none for it now
};

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

#pragma once

#include <vector>

#include "scheduling/placement/PlacementPicture.h"
#include "scheduling/placement/PlacementPlan.h"

namespace kelm {

// What a plan makes of a picture when each of its moves succeeds at once. Graphs are numbered in
// the order of the picture, from 1.
inline void applyPlan(PlacementPicture& picture, const PlacementPlan& plan) {
    for (const PlacementMove& move : plan.moves) {
        PlacementGraph& graph = picture.graphs[move.graph - 1];
        std::erase_if(graph.places, [&](auto& place) { return place.device == move.from; });
        if (move.device == 0) continue;
        graph.places.push_back({move.device, picture.now});
        graph.requested = false;
    }
}

}  // namespace kelm

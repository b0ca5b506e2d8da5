#pragma once

#include <vector>

#include "bench/placement/Simulation.h"
#include "scheduling/placement/PlacementPlanner.h"

namespace kelm {

// The adaptive scheduler's planner in the simulation.
class AdaptivePlanner : public SimulatedPlanner {
 public:
    std::vector<PlaceChange> plan(const Simulation& simulation) override;
    double interval() const override { return m_interval; }
    double urgentInterval() const override { return 0.1; }
    void taskCame(size_t) override {}
    void taskTaken(size_t) override {}

 private:
    PlacementPlanner m_planner;
    PlacementPicture m_picture;
    double m_interval = 1.0;
};

}  // namespace kelm

#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "scheduling/placement/DemandEstimator.h"
#include "scheduling/placement/LoadBalancer.h"
#include "scheduling/placement/PlacementBoard.h"
#include "scheduling/placement/PlacementPicture.h"
#include "scheduling/placement/PlacementPlan.h"
#include "scheduling/placement/TimeSharing.h"

namespace kelm {

// Which graph should be on which device: a picture in, a plan out. Starts from what is there, so
// that nothing moves unless it gains. Graphs without a device come first, then those that time
// sharing owes a turn, then the busiest devices are relieved. docs/placement.md has the policy.
//
// Keeps nothing between plans but how the demand of each graph develops. Pure: no clock, no
// threads, no locks; the same pictures give the same plans. One thread.
class PlacementPlanner final : private BalanceCosts {
 public:
    PlacementPlan plan(const PlacementPicture& picture);

 private:
    void readDemands();
    void layOutBoard();
    void placeHomeless();
    bool findPlace(size_t graph, size_t& device) const;
    void shareTime();
    bool hasLateGraph() const;
    void shareCopies(TimeSharing& sharing);
    void take(TimeSharing& sharing, const TimeSharing::Turn& turn);
    void describe(PlacementPlan& plan) const;
    void describeGraph(size_t index, PlacementPlan& plan) const;

    double loadTime(size_t graph, size_t device) const override;
    double expectedStay(size_t graph) const override;

    const PlacementPicture* m_picture = nullptr;  // of the plan that is being made
    std::unordered_map<uint64_t, DemandEstimator> m_estimators;
    std::vector<const DemandEstimator*> m_demands;
    std::unordered_map<uint64_t, size_t> m_deviceIndex;
    PlacementBoard m_board;
    std::vector<TurnState> m_states;
    std::vector<PlacementReason> m_reasons;  // why each graph moves
    std::vector<size_t> m_homeless;
    double m_longestWait = 0.0;
    bool m_starving = false;
};

}  // namespace kelm

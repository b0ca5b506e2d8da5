#pragma once

#include <cstddef>
#include <vector>

#include "scheduling/placement/PlacementBoard.h"

namespace kelm {

// What a change costs beside the board's figures.
class BalanceCosts {
 public:
    virtual double loadTime(size_t graph, size_t device) const = 0;
    virtual double expectedStay(size_t graph) const = 0;

 protected:
    ~BalanceCosts() = default;
};

// Gives large graphs the devices that they need, then relieves the busiest devices: with further
// copies of their graphs, by moving one to another device, or by exchanging two. Takes the change
// that gains most, as long as it repays its cost.
class LoadBalancer {
 public:
    LoadBalancer(PlacementBoard& board, const BalanceCosts& costs)
        : m_board(board), m_costs(costs) {}

    void run();

 private:
    // Graph `graph` comes to `to`; from `from` it leaves, unless that is kNone. `other` leaves
    // `to`, and goes to `from` if `returns`.
    struct Change {
        size_t graph = 0;
        size_t from = 0;
        size_t to = 0;
        size_t other = 0;
        bool returns = false;
        double net = 0.0;
    };
    static constexpr size_t kNone = static_cast<size_t>(-1);

    void spreadLargeGraphs();
    void spreadLargeGraph(size_t graph, const std::vector<size_t>& free);
    size_t findBusiest() const;
    void giveUp(size_t device);
    bool hasMany(size_t graph) const;
    void listTargets();
    bool relieve(size_t device);
    void tryTarget(size_t graph, size_t device, size_t to);
    void tryChange(Change change);
    void apply(const Change& change);
    double lostWork(const Change& change) const;

    PlacementBoard& m_board;
    const BalanceCosts& m_costs;
    std::vector<bool> m_stuck;
    std::vector<size_t> m_targets;
    std::vector<size_t> m_around;
    Change m_best;
    size_t m_effort = 0;
};

}  // namespace kelm

#pragma once

#include <memory>
#include <set>
#include <vector>

#include "bench/placement/Simulation.h"
#include "scheduling/mapping/GraphMapper.h"
#include "utils/FpsCounter.h"

namespace kelm {

// The mapper, asked as its scheduler asks it: every five seconds, with the demand that the graphs'
// own counters measure. One at a time: the counters take their time from it.
class SqueezePlanner : public SimulatedPlanner {
 public:
    explicit SqueezePlanner(const Scenario& scenario);

    std::vector<PlaceChange> plan(const Simulation& simulation) override;
    double interval() const override { return 5.0; }
    double urgentInterval() const override { return interval(); }
    void taskCame(size_t graph) override;
    void taskTaken(size_t graph) override;

 private:
    struct Counters {
        Counters();
        FpsCounter in;
        FpsCounter out;
    };
    float measure(const Simulation& simulation, size_t graph);

    GraphMapper m_mapper;
    std::vector<std::unique_ptr<Counters>> m_counters;
    std::set<size_t> m_known;   // to the mapper
    std::set<size_t> m_loaded;  // have been on a device once
    const Simulation* m_simulation = nullptr;
};

}  // namespace kelm

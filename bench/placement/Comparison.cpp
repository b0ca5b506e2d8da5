#include "bench/placement/Comparison.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <numeric>

#include "bench/placement/AdaptivePlanner.h"
#include "bench/placement/SqueezePlanner.h"

namespace kelm {

namespace {

constexpr size_t kSettleWindow = 5;  // tenths of a second
constexpr double kSettled = 0.9;

double percentile(std::vector<float>& values, double part) {
    if (values.empty()) return 0.0;
    const auto index =
        std::min(values.size() - 1, static_cast<size_t>(part * static_cast<double>(values.size())));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index),
                     values.end());
    return static_cast<double>(values[index]);
}

// To the end of the first half second in which nine tenths of what comes by now are done.
double settleTime(const Scenario& scenario, const Outcome& outcome) {
    if (scenario.graphs.front().kind != ArrivalKind::Swap) return 0.0;
    const auto swap = static_cast<size_t>(scenario.graphs.front().period * 10.0);
    double comes = 0.0;
    for (const GraphTraffic& graph : scenario.graphs) comes += graph.otherRate / 10.0;
    const size_t end = outcome.graphs.front().doneInTenth.size() - 1;
    for (size_t first = swap; first + kSettleWindow <= end; ++first) {
        double done = 0.0;
        for (size_t i = 0; i < scenario.graphs.size(); ++i) {
            double ofGraph = 0.0;
            for (size_t tenth = first; tenth < first + kSettleWindow; ++tenth) {
                ofGraph += outcome.graphs[i].doneInTenth[tenth];
            }
            // What a graph had gathered before does not stand in for another's.
            done += std::min(ofGraph, scenario.graphs[i].otherRate * kSettleWindow / 10.0);
        }
        if (done >= kSettled * comes * kSettleWindow) {
            return static_cast<double>(first + kSettleWindow - swap) / 10.0;
        }
    }
    return std::numeric_limits<double>::infinity();
}

std::vector<std::vector<double>> arrivingWork(const Outcome& outcome) {
    std::vector<std::vector<double>> work;
    for (const GraphOutcome& graph : outcome.graphs) work.push_back(graph.workInTenth);
    return work;
}

}  // namespace

Outcome simulate(Scenario scenario, Contender contender) {
    scenario.fairTasks = contender == ADAPTIVE_FAIR;
    std::unique_ptr<SimulatedPlanner> planner;
    if (contender == SQUEEZE) {
        planner = std::make_unique<SqueezePlanner>(scenario);
    } else {
        planner = std::make_unique<AdaptivePlanner>();
    }
    return Simulation(scenario, *planner).run();
}

Hindsight findBest(const Scenario& scenario, const Outcome& outcome) {
    const std::vector<std::vector<double>> work = arrivingWork(outcome);
    Hindsight best = findBestFixed(scenario, work);
    best.throughput = std::min(best.throughput, commonQueueBound(scenario, work));
    return best;
}

Figures sumUp(const Scenario& scenario, const Outcome& outcome, const Hindsight& best) {
    Figures figures;
    figures.throughput = outcome.throughput;
    figures.ratio = outcome.throughput / best.throughput;
    figures.busy = std::accumulate(outcome.busy.begin(), outcome.busy.end(), 0.0) /
                   scenario.seconds / static_cast<double>(outcome.busy.size());
    figures.loads = static_cast<double>(outcome.loads);
    figures.lateLoads = static_cast<double>(outcome.lateLoads);
    figures.settled = settleTime(scenario, outcome);
    figures.planMillis = outcome.slowestPlan * 1e3;
    double leastRate = scenario.graphs.front().rate;
    for (const GraphTraffic& graph : scenario.graphs) leastRate = std::min(leastRate, graph.rate);
    std::vector<float> small;
    for (size_t i = 0; i < outcome.graphs.size(); ++i) {
        figures.refused += static_cast<double>(outcome.graphs[i].refused);
        std::vector<float> latencies = outcome.graphs[i].latencies;
        figures.worstP99 = std::max(figures.worstP99, percentile(latencies, 0.99));
        if (scenario.graphs[i].rate > leastRate) continue;
        small.insert(small.end(), latencies.begin(), latencies.end());
    }
    figures.smallP90 = percentile(small, 0.9);
    figures.smallP99 = percentile(small, 0.99);
    return figures;
}

Figures takeMedians(std::vector<Figures> runs) {
    Figures medians;
    for (const auto field :
         {&Figures::throughput, &Figures::ratio, &Figures::busy, &Figures::refused, &Figures::loads,
          &Figures::lateLoads, &Figures::smallP90, &Figures::smallP99, &Figures::worstP99,
          &Figures::settled, &Figures::planMillis}) {
        std::sort(runs.begin(), runs.end(), [field](const Figures& left, const Figures& right) {
            return left.*field < right.*field;
        });
        medians.*field = runs[runs.size() / 2].*field;
    }
    return medians;
}

}  // namespace kelm

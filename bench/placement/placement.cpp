// How good are the places that the planners give to graphs? In virtual time, beside the best
// placement in hindsight. Tables in Markdown, as docs/placement.md has them.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <future>
#include <string>

#include "bench/placement/Comparison.h"
#include "bench/placement/LiveRun.h"
#include "bench/placement/Mixes.h"
#include "bench/placement/PlanCost.h"
#include "bench/placement/RatioChart.h"
#include "bench/placement/Rows.h"

namespace {

using namespace kelm;

void printHead() {
    fmt::print(
        "| Set-up, demand a second | load, ms | | of the best | busy | refused | loads | "
        "after 5 s | small p90 | small p99 | worst p99 | 90% after |\n"
        "|---|---|---|---|---|---|---|---|---|---|---|---|\n");
}

void printRow(const Scenario& scenario, size_t contender, std::vector<Figures> runs) {
    const Figures median = takeMedians(std::move(runs));
    fmt::print(
        "| {} | {:.0f} | {} | {:.3f} | {:.3f} | {:.0f} | {:.0f} | {:.0f} | {:.0f} | {:.0f} | "
        "{:.0f} | {} |\n",
        scenario.name, scenario.loadTime * 1e3, kContenderNames[contender], median.ratio,
        median.busy, median.refused, median.loads, median.lateLoads, median.smallP90,
        median.smallP99, median.worstP99,
        median.settled > 0.0 ? fmt::format("{:.1f} s", median.settled) : "");
    std::fflush(stdout);
}

Figures runOnce(const Scenario& scenario, Contender contender, bool live) {
    const Outcome outcome = live ? runLive(scenario, contender) : simulate(scenario, contender);
    return sumUp(scenario, outcome,
                 live ? findBestLive(scenario, outcome) : findBest(scenario, outcome));
}

// Live, the seeds of a row and its contenders run side by side.
void printRows(int seeds, bool live, double seconds, const std::string& only) {
    printHead();
    for (const double loadTime : {0.0, 0.3}) {
        const size_t rows = makeRows(loadTime, 1, seconds).size();
        for (size_t row = 0; row < rows; ++row) {
            const Scenario first = makeRows(loadTime, 1, seconds)[row];
            if (first.name.find(only) == std::string::npos) continue;
            std::array<std::vector<std::future<Figures>>, CONTENDERS> runs;
            const auto policy = live ? std::launch::async : std::launch::deferred;
            for (size_t contender = 0; contender < CONTENDERS; ++contender) {
                for (int seed = 1; seed <= seeds; ++seed) {
                    const Scenario scenario =
                        makeRows(loadTime, static_cast<uint64_t>(seed), seconds)[row];
                    runs[contender].push_back(
                        std::async(policy, runOnce, scenario, Contender{contender}, live));
                }
            }
            for (size_t contender = 0; contender < CONTENDERS; ++contender) {
                std::vector<Figures> figures;
                for (std::future<Figures>& run : runs[contender]) figures.push_back(run.get());
                printRow(first, contender, std::move(figures));
            }
        }
    }
}

// Those that lie below `tell` get a line each.
void printMixes(uint64_t number, double tell, const std::string& svgFile) {
    std::array<std::vector<double>, CONTENDERS> ratios;
    for (uint64_t mix = 1; mix <= number; ++mix) {
        const Scenario scenario = makeMix(mix);
        Hindsight best;
        for (size_t contender = 0; contender < CONTENDERS; ++contender) {
            const Outcome outcome = simulate(scenario, Contender{contender});
            if (contender == 0) best = findBest(scenario, outcome);
            const double ratio = sumUp(scenario, outcome, best).ratio;
            ratios[contender].push_back(ratio);
            if (contender == SQUEEZE || ratio >= tell) continue;
            fmt::print("{}: {} x {}, {} graphs, load {:.2f} s: {} at {:.3f} of {}{:.2f}\n",
                       scenario.name, scenario.speeds.size(), scenario.slots,
                       scenario.graphs.size(), scenario.loadTime, kContenderNames[contender], ratio,
                       best.isExact ? "" : "at most ", best.throughput);
        }
    }
    fmt::print("| {} mixes | median | 5% | 1% | worst | below 0.90 |\n|---|---|---|---|---|---|\n",
               number);
    for (size_t contender = 0; contender < CONTENDERS; ++contender) {
        std::vector<double>& sorted = ratios[contender];
        std::sort(sorted.begin(), sorted.end());
        fmt::print("| {} | {:.3f} | {:.3f} | {:.3f} | {:.3f} | {} |\n", kContenderNames[contender],
                   sorted[sorted.size() / 2], sorted[sorted.size() / 20],
                   sorted[sorted.size() / 100], sorted.front(),
                   std::lower_bound(sorted.begin(), sorted.end(), 0.9) - sorted.begin());
    }
    if (!svgFile.empty()) std::ofstream(svgFile) << drawRatios(ratios);
}

void printFleets(const std::vector<size_t>& sizes) {
    fmt::print(
        "| Devices | | of the best | refused | loads after 5 s | worst p99, ms | "
        "slowest plan, ms |\n|---|---|---|---|---|---|---|\n");
    for (const size_t devices : sizes) {
        const Scenario scenario = makeFleet(devices, 1);
        for (const Contender contender : {SQUEEZE, ADAPTIVE}) {
            const Outcome outcome = simulate(scenario, contender);
            const Figures figures = sumUp(scenario, outcome, findBest(scenario, outcome));
            fmt::print("| {} | {} | {:.3f} | {:.0f} | {:.0f} | {:.0f} | {:.2f} |\n", devices,
                       kContenderNames[contender], figures.ratio, figures.refused,
                       figures.lateLoads, figures.worstP99, figures.planMillis);
        }
    }
}

void printPlanCosts(int plans) {
    fmt::print("| Devices x 2, graphs | plan, median ms | slowest |\n|---|---|---|\n");
    for (const size_t devices : {32, 128, 512, 2048}) {
        const PlanCost cost = measurePlans(devices, devices * 2, plans);
        fmt::print("| {}, {} | {:.2f} | {:.2f} |\n", devices, devices * 2, cost.median, cost.worst);
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Placement of graphs on devices, simulated"};
    int seeds = 3;
    double seconds = 60.0;
    uint64_t mixes = 500;
    double tell = 0.9;
    std::string svgFile;
    std::string only;
    std::vector<size_t> sizes{64, 512};
    int plans = 100;
    CLI::App* const rows = app.add_subcommand("rows", "The set-ups that are known by name");
    CLI::App* const live =
        app.add_subcommand("live", "The same at the service, on simulated devices, in real time");
    for (CLI::App* const command : {rows, live}) {
        command->add_option("--seeds", seeds, "Runs, of which the medians are told");
        command->add_option("--seconds", seconds, "Load of a run");
        command->add_option("--only", only, "Set-ups whose names have this text");
    }
    CLI::App* const random = app.add_subcommand("mixes", "Random set-ups");
    random->add_option("--number", mixes, "How many");
    random->add_option("--tell", tell, "Tells of each that comes out below this ratio");
    random->add_option("--svg", svgFile, "Also draws the ratios");
    CLI::App* const fleets = app.add_subcommand("fleets", "Many devices");
    fleets->add_option("devices", sizes, "How many each");
    CLI::App* const cost = app.add_subcommand("plans", "What a plan costs");
    cost->add_option("--plans", plans, "How many are measured");
    app.require_subcommand(1);
    CLI11_PARSE(app, argc, argv);
    if (*rows || *live) printRows(seeds, static_cast<bool>(*live), seconds, only);
    if (*random) printMixes(mixes, tell, svgFile);
    if (*fleets) printFleets(sizes);
    if (*cost) printPlanCosts(plans);
}

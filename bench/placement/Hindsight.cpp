#include "bench/placement/Hindsight.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <span>

#ifdef KELM_HAS_GLPK
#include <glpk.h>
#endif

namespace kelm {

namespace {

constexpr size_t kMostGraphs = 8;  // for the search: its flows look at all sets of graphs
constexpr double kMostPlacements = 200'000.0;

bool isUniform(const Scenario& scenario) {
    return std::all_of(scenario.speeds.begin(), scenario.speeds.end(),
                       [&](double speed) { return speed == scenario.speeds.front(); });
}

bool isRoomy(const Scenario& scenario) {
    std::vector<uint32_t> sizes;
    for (const GraphLoadSpec& graph : scenario.graphs) sizes.push_back(graph.memory);
    std::sort(sizes.rbegin(), sizes.rend());
    sizes.resize(std::min<size_t>(sizes.size(), scenario.slots));
    return std::accumulate(sizes.begin(), sizes.end(), 0u) <= scenario.deviceMemory;
}

// With a slot each, the devices go one by one to the graph that has most use for a further one.
double giveDevicesOut(const Scenario& scenario, std::vector<double> demands) {
    double throughput = 0.0;
    const double speed = scenario.speeds.front();
    for (size_t i = 0; i < scenario.speeds.size(); ++i) {
        const auto most = std::max_element(demands.begin(), demands.end());
        const double part = std::min(*most, speed);
        throughput += part;
        *most -= part;
    }
    return throughput;
}

// Tries the sets of graphs for device after device; alike devices in one order only.
class PlacementSearch {
 public:
    PlacementSearch(const Scenario& scenario, const std::vector<double>& demands)
        : m_scenario(scenario), m_demands(demands) {
        const uint32_t all = (1u << demands.size()) - 1;
        for (uint32_t set = 1; set <= all; ++set) {
            if (isUseful(set, all)) m_options.push_back(set);
        }
        m_chosen.resize(scenario.speeds.size());
    }

    // Roughly.
    double placements() const {
        double number = 1.0;
        const double options = static_cast<double>(m_options.size());
        for (size_t i = 0; i < m_chosen.size(); ++i) {
            number *= (options + static_cast<double>(i)) / static_cast<double>(i + 1);
        }
        return number;
    }
    double run() {
        place(0, 0);
        return m_best;
    }

 private:
    // Full devices only, but where the memory or the number of graphs does not allow it.
    bool isUseful(uint32_t set, uint32_t all) const {
        const auto memory = [this](uint32_t graphs) {
            uint32_t sum = 0;
            for (size_t i = 0; i < m_demands.size(); ++i) {
                if ((graphs >> i & 1) != 0) sum += m_scenario.graphs[i].memory;
            }
            return sum;
        };
        const auto isAllowed = [&](uint32_t graphs) {
            return static_cast<uint32_t>(__builtin_popcount(graphs)) <= m_scenario.slots &&
                   memory(graphs) <= m_scenario.deviceMemory;
        };
        if (!isAllowed(set)) return false;
        for (uint32_t bit = 1; bit <= all; bit <<= 1) {
            if ((set & bit) == 0 && isAllowed(set | bit)) return false;
        }
        return true;
    }

    void place(size_t device, size_t first) {
        if (device == m_chosen.size()) {
            m_best = std::max(m_best, flow());
            return;
        }
        for (size_t option = first; option < m_options.size(); ++option) {
            m_chosen[device] = m_options[option];
            place(device + 1, option);
        }
    }

    // By the least cut: some graphs, and the devices on which the others are.
    double flow() const {
        double least = std::accumulate(m_demands.begin(), m_demands.end(), 0.0);
        for (uint32_t set = 1; set < 1u << m_demands.size(); ++set) {
            double cut = 0.0;
            for (size_t i = 0; i < m_demands.size(); ++i) {
                if ((set >> i & 1) == 0) cut += m_demands[i];
            }
            for (const uint32_t graphs : m_chosen) {
                if ((graphs & set) != 0) cut += m_scenario.speeds.front();
            }
            least = std::min(least, cut);
        }
        return least;
    }

    const Scenario& m_scenario;
    const std::vector<double>& m_demands;
    std::vector<uint32_t> m_options;
    std::vector<uint32_t> m_chosen;
    double m_best = 0.0;
};

#ifdef KELM_HAS_GLPK
// Places in parts: a graph on x of the devices of a kind has no more than x of what one of them can
// do for it. Alike devices are one row, as parts make no difference between them.
class PartialPlacement {
 public:
    PartialPlacement(const Scenario& scenario, const std::vector<double>& demands)
        : m_program(glp_create_prob()) {
        glp_term_out(GLP_OFF);
        glp_set_obj_dir(m_program, GLP_MAX);
        std::vector<double> kinds = scenario.speeds;
        std::sort(kinds.begin(), kinds.end());
        kinds.erase(std::unique(kinds.begin(), kinds.end()), kinds.end());
        std::vector<int> graphRows;
        for (const double demand : demands) graphRows.push_back(addRow(demand));
        for (const double speed : kinds) {
            const auto number = static_cast<double>(
                std::count(scenario.speeds.begin(), scenario.speeds.end(), speed));
            const int work = addRow(number * speed);
            const int slots = addRow(number * scenario.slots);
            const int memory = addRow(number * scenario.deviceMemory);
            for (size_t i = 0; i < demands.size(); ++i) {
                const int done = addColumn(1.0);
                const int places = addColumn(0.0);
                glp_set_col_bnds(m_program, places, GLP_DB, 0.0, number);
                const int limit = addRow(0.0);
                enter(graphRows[i], done, 1.0);
                enter(work, done, 1.0);
                enter(limit, done, 1.0);
                enter(limit, places, -std::min(demands[i], speed));
                enter(slots, places, 1.0);
                enter(memory, places, scenario.graphs[i].memory);
            }
        }
    }
    PartialPlacement(const PartialPlacement&) = delete;
    PartialPlacement& operator=(const PartialPlacement&) = delete;
    ~PartialPlacement() { glp_delete_prob(m_program); }

    double solve() {
        glp_load_matrix(m_program, static_cast<int>(m_values.size()) - 1, m_rows.data(),
                        m_columns.data(), m_values.data());
        (void)glp_simplex(m_program, nullptr);
        return glp_get_obj_val(m_program);
    }

 private:
    int addRow(double most) {
        const int row = glp_add_rows(m_program, 1);
        glp_set_row_bnds(m_program, row, GLP_UP, 0.0, most);
        return row;
    }
    int addColumn(double worth) {
        const int column = glp_add_cols(m_program, 1);
        glp_set_col_bnds(m_program, column, GLP_LO, 0.0, 0.0);
        glp_set_obj_coef(m_program, column, worth);
        return column;
    }
    void enter(int row, int column, double value) {
        m_rows.push_back(row);
        m_columns.push_back(column);
        m_values.push_back(value);
    }

    glp_prob* const m_program;
    // The solver counts from 1.
    std::vector<int> m_rows{0};
    std::vector<int> m_columns{0};
    std::vector<double> m_values{0.0};
};
#endif

}  // namespace

Hindsight findBestFixed(const Scenario& scenario, const std::vector<double>& demands) {
    if (isUniform(scenario)) {
        if (scenario.slots == 1 && isRoomy(scenario)) {
            return {giveDevicesOut(scenario, demands), true};
        }
        if (demands.size() <= kMostGraphs) {
            PlacementSearch search(scenario, demands);
            if (search.placements() <= kMostPlacements) return {search.run(), true};
        }
    }
#ifdef KELM_HAS_GLPK
    return {PartialPlacement(scenario, demands).solve(), false};
#else
    // Without the solver: all that comes, or all that the devices can do.
    return {std::min(std::accumulate(demands.begin(), demands.end(), 0.0),
                     std::accumulate(scenario.speeds.begin(), scenario.speeds.end(), 0.0)),
            false};
#endif
}

double commonQueueBound(const Scenario& scenario, const std::vector<double>& work) {
    const double speed = std::accumulate(scenario.speeds.begin(), scenario.speeds.end(), 0.0) / 10.0;
    double longest = 0.0;
    for (const GraphLoadSpec& graph : scenario.graphs) longest = std::max(longest, graph.taskTime);
    const double room =
        longest * static_cast<double>(scenario.waitLimit +
                                      scenario.speeds.size() * scenario.slots * scenario.inFlight);
    double done = 0.0;
    double backlog = 0.0;
    for (const double part : work) {
        const double served = std::min(speed, backlog + part);
        done += served;
        backlog = std::min(room, backlog + part - served);
    }
    return done / scenario.seconds;
}

}  // namespace kelm

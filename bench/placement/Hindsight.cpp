#include "bench/placement/Hindsight.h"

#include <algorithm>
#include <limits>
#include <numeric>

#ifdef KELM_HAS_GLPK
#include <glpk.h>
#endif

namespace kelm {

namespace {

constexpr size_t kMostGraphs = 8;  // for the search: its flows look at all sets of graphs
constexpr double kMostPlacements = 200'000.0;
constexpr size_t kWindow = 10;  // tenths of a second, for demands that change

bool isUniform(const Scenario& scenario) {
    return std::all_of(scenario.speeds.begin(), scenario.speeds.end(),
                       [&](double speed) { return speed == scenario.speeds.front(); });
}

bool isRoomy(const Scenario& scenario) {
    std::vector<uint32_t> sizes;
    for (const GraphTraffic& graph : scenario.graphs) sizes.push_back(graph.memory);
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
// The flows of all graphs over all kinds of devices and all windows of time, for one placement.
// Alike devices are one row, which makes the result an upper bound; so does a number of places that
// is no integer, where there are too many for the solver.
class PlacementProgram {
 public:
    // `work`: seconds of work by graph and window.
    PlacementProgram(const Scenario& scenario, const std::vector<std::vector<double>>& work)
        : m_scenario(scenario),
          m_work(work),
          m_window(scenario.seconds / static_cast<double>(work.front().size())),
          m_program(glp_create_prob()) {
        glp_term_out(GLP_OFF);
        glp_set_obj_dir(m_program, GLP_MAX);
        for (const std::vector<double>& each : work) {
            for (const double part : each) m_arrivalRows.push_back(addRow(part));
        }
        addBacklogs();
        std::vector<double> kinds = scenario.speeds;
        std::sort(kinds.begin(), kinds.end());
        kinds.erase(std::unique(kinds.begin(), kinds.end()), kinds.end());
        for (const double speed : kinds) addKind(speed);
        m_integer = static_cast<double>(work.size() * kinds.size()) <= kMostIntegers;
    }
    PlacementProgram(const PlacementProgram&) = delete;
    PlacementProgram& operator=(const PlacementProgram&) = delete;
    ~PlacementProgram() { glp_delete_prob(m_program); }

    // Seconds of work a second.
    double solve() {
        glp_load_matrix(m_program, static_cast<int>(m_values.size()) - 1, m_rows.data(),
                        m_columns.data(), m_values.data());
        glp_smcp simplex;
        glp_init_smcp(&simplex);
        simplex.presolve = GLP_ON;
        if (glp_simplex(m_program, &simplex) != 0 || glp_get_status(m_program) != GLP_OPT) {
            return std::numeric_limits<double>::infinity();
        }
        const double relaxed = glp_get_obj_val(m_program) / m_scenario.seconds;
        if (!m_integer) return relaxed;
        simplex.presolve = GLP_OFF;
        if (glp_simplex(m_program, &simplex) != 0) return relaxed;
        for (const int places : m_placeColumns) glp_set_col_kind(m_program, places, GLP_IV);
        glp_iocp limits;
        glp_init_iocp(&limits);
        int steps = 0;
        limits.cb_info = &steps;
        limits.cb_func = [](glp_tree* tree, void* taken) {
            if (++*static_cast<int*>(taken) > kMostSteps) glp_ios_terminate(tree);
        };
        const bool solved = glp_intopt(m_program, &limits) == 0;
        if (!solved || glp_mip_status(m_program) != GLP_OPT) return relaxed;
        return glp_mip_obj_val(m_program) / m_scenario.seconds;
    }

 private:
    static constexpr double kMostIntegers = 14.0;
    static constexpr int kMostSteps = 2000;  // not a time: the same bound in each run

    int arrivalRow(size_t graph, size_t window) const {
        return m_arrivalRows[graph * m_work.front().size() + window];
    }
    // What waits at the end of a window is there in the next.
    void addBacklogs() {
        const auto room =
            static_cast<double>(m_scenario.waitLimit +
                                m_scenario.speeds.size() * m_scenario.slots * m_scenario.inFlight);
        for (size_t window = 0; window + 1 < m_work.front().size(); ++window) {
            const int tasks = addRow(room);
            for (size_t i = 0; i < m_work.size(); ++i) {
                const int backlog = addColumn(0.0);
                enter(arrivalRow(i, window), backlog, 1.0);
                enter(arrivalRow(i, window + 1), backlog, -1.0);
                enter(tasks, backlog, 1.0 / m_scenario.graphs[i].taskTime);
            }
        }
    }
    void addKind(double speed) {
        const auto number = static_cast<double>(
            std::count(m_scenario.speeds.begin(), m_scenario.speeds.end(), speed));
        const int slots = addRow(number * m_scenario.slots);
        const int memory = addRow(number * m_scenario.deviceMemory);
        std::vector<int> workRows;
        for (size_t window = 0; window < m_work.front().size(); ++window) {
            workRows.push_back(addRow(number * speed * m_window));
        }
        for (size_t i = 0; i < m_work.size(); ++i) {
            const int places = addColumn(0.0);
            m_placeColumns.push_back(places);
            glp_set_col_bnds(m_program, places, GLP_DB, 0.0, number);
            enter(slots, places, 1.0);
            enter(memory, places, m_scenario.graphs[i].memory);
            const double all = std::accumulate(m_work[i].begin(), m_work[i].end(), 0.0);
            const int most = addRow(0.0);
            enter(most, places, -std::min(all, speed * m_scenario.seconds));
            for (size_t window = 0; window < m_work[i].size(); ++window) {
                const int done = addColumn(1.0);
                enter(arrivalRow(i, window), done, 1.0);
                enter(workRows[window], done, 1.0);
                enter(most, done, 1.0);
                if (m_work[i].size() == 1) continue;
                const int limit = addRow(0.0);
                enter(limit, done, 1.0);
                enter(limit, places, -speed * m_window);
            }
        }
    }

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

    const Scenario& m_scenario;
    const std::vector<std::vector<double>>& m_work;
    const double m_window;
    glp_prob* const m_program;
    bool m_integer = false;
    std::vector<int> m_arrivalRows;  // by graph, then window
    std::vector<int> m_placeColumns;
    // The solver counts from 1.
    std::vector<int> m_rows{0};
    std::vector<int> m_columns{0};
    std::vector<double> m_values{0.0};
};
#endif

// Sums over `length` tenths of a second each; 0: one sum.
std::vector<std::vector<double>> sumWindows(const std::vector<std::vector<double>>& work,
                                            size_t length) {
    std::vector<std::vector<double>> sums;
    for (const std::vector<double>& each : work) {
        const size_t windows = length == 0 ? 1 : (each.size() + length - 1) / length;
        std::vector<double> parts(windows);
        for (size_t i = 0; i < each.size(); ++i) parts[length == 0 ? 0 : i / length] += each[i];
        sums.push_back(std::move(parts));
    }
    return sums;
}

}  // namespace

Hindsight findBestFixed(const Scenario& scenario, const std::vector<std::vector<double>>& work) {
    const bool isSteady =
        std::all_of(scenario.graphs.begin(), scenario.graphs.end(), [](const GraphTraffic& graph) {
            return graph.kind == ArrivalKind::Constant || graph.kind == ArrivalKind::Poisson;
        });
    std::vector<double> demands;
    for (const std::vector<double>& each : sumWindows(work, 0)) {
        demands.push_back(each.front() / scenario.seconds);
    }
    if (isSteady && isUniform(scenario)) {
        if (scenario.slots == 1 && isRoomy(scenario)) {
            return {giveDevicesOut(scenario, demands), true};
        }
        if (demands.size() <= kMostGraphs) {
            PlacementSearch search(scenario, demands);
            if (search.placements() <= kMostPlacements) return {search.run(), true};
        }
    }
#ifdef KELM_HAS_GLPK
    const auto windows = sumWindows(work, isSteady ? 0 : kWindow);
    return {PlacementProgram(scenario, windows).solve(), false};
#else
    // Without the solver: all that comes, or all that the devices can do.
    return {std::min(std::accumulate(demands.begin(), demands.end(), 0.0),
                     std::accumulate(scenario.speeds.begin(), scenario.speeds.end(), 0.0)),
            false};
#endif
}

double commonQueueBound(const Scenario& scenario, const std::vector<std::vector<double>>& work) {
    const double speed =
        std::accumulate(scenario.speeds.begin(), scenario.speeds.end(), 0.0) / 10.0;
    double longest = 0.0;
    for (const GraphTraffic& graph : scenario.graphs) longest = std::max(longest, graph.taskTime);
    const double room =
        longest * static_cast<double>(scenario.waitLimit +
                                      scenario.speeds.size() * scenario.slots * scenario.inFlight);
    double done = 0.0;
    double backlog = 0.0;
    for (size_t tenth = 0; tenth < work.front().size(); ++tenth) {
        double offered = backlog;
        for (const std::vector<double>& each : work) offered += each[tenth];
        const double served = std::min(speed, offered);
        done += served;
        backlog = std::min(room, offered - served);
    }
    return done / scenario.seconds;
}

}  // namespace kelm

#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelm::bench {

// What one round found, by the names of the table kMeasures. What could not be measured is absent.
using Figures = std::map<std::string, double>;

// A row of the printed tables.
struct Measure {
    const char* key;
    const char* label;
    int decimals;
};
inline constexpr Measure kMeasures[] = {
    {"requests_per_second", "requests/s", 0},
    {"bare_requests_per_second", "  bare exchange", 0},
    {"requests_to_bare", "  to the bare exchange", 3},
    {"p50_us", "median round trip, us", 1},
    {"bare_p50_us", "  bare exchange", 1},
    {"p50_to_bare", "  to the bare exchange", 2},
    {"service_switches", "service: context switches", 2},
    {"service_cpu_us", "service: CPU time, us", 2},
    {"service_mutex_locks", "service: mutex locks", 1},
    {"service_allocations", "service: allocations", 2},
    {"service_system_calls", "service: system calls", 2},
    {"client_switches", "clients: context switches", 2},
    {"client_cpu_us", "clients: CPU time, us", 2},
    {"client_mutex_locks", "clients: mutex locks", 1},
    {"client_allocations", "clients: allocations", 2},
    {"client_system_calls", "clients: system calls", 2},
};

// Figures of several rounds.
class Rounds {
 public:
    void add(const Figures& figures);
    // Each measure's median over the rounds that have it; of an even number the lower of the two.
    Figures medians() const;
    const std::map<std::string, std::vector<double>>& all() const { return m_values; }

 private:
    std::map<std::string, std::vector<double>> m_values;
};

}  // namespace kelm::bench

#pragma once

#include <string>

#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/BenchRegion.h"

namespace kelm::ctl {

// Jain's index over the clients' results: 1 when all got the same, 1/n when one got everything.
double jainIndex(const std::vector<double>& shares);

// The outcome of a benchmark as tables for people and as JSON for programs.
class BenchReport {
 public:
    // Reads the region once all clients have ended; borrowed for the report's life.
    BenchReport(const BenchOptions& options, const BenchRegion& region);

    std::string table() const;
    std::string json() const;

 private:
    struct Row;  // the sums of some cells

    Row sumOfClient(size_t client) const;
    Row sumOfGraph(size_t graph) const;
    std::string graphName(size_t graph) const;
    double seconds(size_t client) const;
    double longestSeconds() const;
    double fairness() const;

    const BenchOptions& m_options;
    const BenchRegion& m_region;
};

}  // namespace kelm::ctl

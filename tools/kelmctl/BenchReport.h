#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/BenchRow.h"
#include "tools/kelmctl/BenchRun.h"

namespace kelm::ctl {

// Jain's index over the clients' results: 1 when all got the same, 1/n when one got everything.
double jainIndex(const std::vector<double>& shares);

// The outcome of a benchmark as tables for people and as JSON for programs.
//
// Threads: one. Borrowed: all that it is made with.
class BenchReport {
 public:
    // Reads the region once all clients have ended.
    BenchReport(const BenchSetup& setup, const BenchRegion& region, const BenchRun& run);

    // The sums over all clients and graphs of the last round.
    const BenchRow& all() const { return m_all; }
    bool isEmpty() const;  // no results, and so no table
    std::string table() const;
    std::string json() const;
    // Why it is, if no client has failed.
    std::string whyEmpty() const;

 private:
    BenchRow sumOfClient(size_t client) const;
    BenchRow sumOfGraph(size_t graph) const;
    std::string graphName(size_t graph) const;
    double seconds(size_t client) const;
    double fairness() const;
    bool isOpen() const { return m_setup.rate > 0.0; }
    std::string roundTable() const;
    std::string stabilityTable() const;
    std::string searchTable() const;
    void addRound(nlohmann::json& json) const;
    void addStability(nlohmann::json& json) const;
    void addSearch(nlohmann::json& json) const;

    const BenchSetup& m_setup;
    const BenchRegion& m_region;
    const BenchRun& m_run;
    const BenchRow m_all;
};

}  // namespace kelm::ctl

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/Histogram.h"

namespace kelm::ctl {

// The sums of some cells, as two lines of a table and as JSON.
//
// Threads: one.
class BenchRow {
 public:
    // What the cells hold took so many seconds.
    BenchRow(std::string name, double seconds);
    // Of all clients and graphs; reads the region while the clients may write.
    static BenchRow sumOfAll(const BenchSetup& setup, const BenchRegion& region);

    void add(const BenchCell& cell);

    // The heads of the lines.
    static std::string head();
    // A line with the latency of the accept answer, and one with that of the result.
    std::string lines() const;
    nlohmann::json json() const;

    double seconds() const { return m_seconds; }
    uint64_t requests() const { return m_requests; }
    uint64_t refusals() const { return m_refusals; }
    uint64_t late() const { return m_late; }
    uint64_t givenUp() const { return m_givenUp; }
    const std::map<std::string, uint64_t>& errors() const { return m_errors; }  // by code
    uint64_t errorCount() const;
    // Results without an error.
    uint64_t good() const { return m_result->count() - m_givenUp; }
    double rate() const;  // of these, a second
    const Histogram& result() const { return *m_result; }

 private:
    std::string line(const char* kind, const Histogram& histogram) const;

    std::string m_name;
    double m_seconds;
    // On the heap: each has some four thousand counters.
    std::unique_ptr<Histogram> m_accept = std::make_unique<Histogram>();
    std::unique_ptr<Histogram> m_result = std::make_unique<Histogram>();
    uint64_t m_requests = 0;
    uint64_t m_refusals = 0;
    uint64_t m_late = 0;
    uint64_t m_givenUp = 0;
    std::map<std::string, uint64_t> m_errors;
};

// A figure in a column of the tables, and a time as these tell it.
std::string benchNumber(double value, int decimals);
double toMillis(uint64_t nanos);

}  // namespace kelm::ctl

#include "tools/kelmctl/BenchRow.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/TextHelper.h"

namespace kelm::ctl {

namespace {

constexpr double kNanosPerMilli = 1e6;
constexpr double kNanosPerSecond = 1e9;
constexpr size_t kNameWidth = 18;
// A name, the kind of latency, and numbers to the right.
constexpr const char* kHeadFormat = "{:<19}{:<7}";
constexpr const char* kCellFormat = "{:>9}";
constexpr const char* kNumberFormat = "{:>9.{}f}";

// Columns of the table and fields of the JSON, in this order.
struct Quantile {
    const char* name;
    double value;
};
constexpr Quantile kQuantiles[] = {{"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p99.9", 0.999}};

std::string latencyCells(const Histogram& histogram) {
    std::string text = benchNumber(histogram.mean() / kNanosPerMilli, 3);
    for (const Quantile& quantile : kQuantiles) {
        text += benchNumber(toMillis(histogram.percentile(quantile.value)), 3);
    }
    return text + benchNumber(toMillis(histogram.max()), 3);
}

nlohmann::json latencyJson(const Histogram& histogram) {
    nlohmann::json json{{"count", histogram.count()},
                        {"mean_ms", histogram.mean() / kNanosPerMilli},
                        {"max_ms", toMillis(histogram.max())},
                        {"histogram_ns", histogram.buckets()}};
    for (const Quantile& quantile : kQuantiles) {
        json[std::string(quantile.name) + "_ms"] = toMillis(histogram.percentile(quantile.value));
    }
    return json;
}

}  // namespace

std::string benchNumber(double value, int decimals) {
    return fmt::format(kNumberFormat, value, decimals);
}

double toMillis(uint64_t nanos) { return static_cast<double>(nanos) / kNanosPerMilli; }

BenchRow::BenchRow(std::string name, double seconds)
    : m_name(std::move(name)), m_seconds(seconds) {}

// The clients serve together, so the rate is over the time of the one that ran longest.
BenchRow BenchRow::sumOfAll(const BenchSetup& setup, const BenchRegion& region) {
    BenchRow row("all", 0.0);
    for (size_t i = 0; i < setup.clients; ++i) {
        const BenchLane& lane = region.lanes[i];
        const double seconds = static_cast<double>(lane.runNanos) / kNanosPerSecond;
        row.m_seconds = std::max(row.m_seconds, seconds);
        for (size_t graph = 0; graph < setup.graphs.size(); ++graph) row.add(lane.cells[graph]);
    }
    return row;
}

void BenchRow::add(const BenchCell& cell) {
    m_accept->addAll(cell.accept);
    m_result->addAll(cell.result);
    m_requests += cell.requests;
    m_refusals += cell.refusals;
    m_late += cell.late;
    m_givenUp += cell.givenUp;
    for (const ErrorCount& error : cell.errors) {
        if (error.count > 0) m_errors[error.name.data()] += error.count;
    }
}

uint64_t BenchRow::errorCount() const {
    uint64_t sum = 0;
    for (const auto& [code, count] : m_errors) sum += count;
    return sum;
}

// Good results only: errors come fast and would count as speed.
double BenchRow::rate() const {
    return m_seconds > 0.0 ? static_cast<double>(good()) / m_seconds : 0.0;
}

std::string BenchRow::head() {
    std::string text = fmt::format(kHeadFormat, "", "");
    for (const char* head : {"requests", "errors", "refused", "req/s", "mean ms"}) {
        text += fmt::format(kCellFormat, head);
    }
    for (const Quantile& quantile : kQuantiles) text += fmt::format(kCellFormat, quantile.name);
    return text + fmt::format(kCellFormat, "max") + "\n";
}

std::string BenchRow::line(const char* kind, const Histogram& histogram) const {
    std::string text = fmt::format(kHeadFormat, shortenText(m_name, kNameWidth), kind);
    for (const uint64_t count : {m_requests, errorCount(), m_refusals}) {
        text += fmt::format(kCellFormat, count);
    }
    return text + benchNumber(rate(), 1) + latencyCells(histogram) + "\n";
}

std::string BenchRow::lines() const {
    return line("accept", *m_accept) + line("result", *m_result);
}

nlohmann::json BenchRow::json() const {
    return {{"name", m_name},
            {"requests", m_requests},
            {"errors", m_errors},
            {"refused", m_refusals},
            {"late", m_late},
            {"given_up", m_givenUp},
            {"seconds", m_seconds},
            {"results_per_second", rate()},
            {"accept", latencyJson(*m_accept)},
            {"result", latencyJson(*m_result)}};
}

}  // namespace kelm::ctl

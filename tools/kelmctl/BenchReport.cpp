#include "tools/kelmctl/BenchReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/kelmctl/JsonText.h"
#include "utils/FileHelper.h"
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

double toMillis(uint64_t nanos) { return static_cast<double>(nanos) / kNanosPerMilli; }

std::string number(double value, int decimals) {
    return fmt::format(kNumberFormat, value, decimals);
}

std::string latencyCells(const Histogram& histogram) {
    std::string text = number(histogram.mean() / kNanosPerMilli, 3);
    for (const Quantile& quantile : kQuantiles) {
        text += number(toMillis(histogram.percentile(quantile.value)), 3);
    }
    return text + number(toMillis(histogram.max()), 3);
}

nlohmann::json latencyJson(const Histogram& histogram) {
    nlohmann::json json{{"count", histogram.count()},
                        {"mean_ms", histogram.mean() / kNanosPerMilli},
                        {"max_ms", toMillis(histogram.max())}};
    for (const Quantile& quantile : kQuantiles) {
        json[std::string(quantile.name) + "_ms"] = toMillis(histogram.percentile(quantile.value));
    }
    return json;
}

}  // namespace

// Histograms are on the heap: each has some two thousand counters.
struct BenchReport::Row {
    std::string name;
    std::unique_ptr<Histogram> accept = std::make_unique<Histogram>();
    std::unique_ptr<Histogram> result = std::make_unique<Histogram>();
    uint64_t requests = 0;
    std::map<std::string, uint64_t> errors;
    double seconds = 0.0;

    void add(const BenchCell& cell) {
        accept->addAll(cell.accept);
        result->addAll(cell.result);
        requests += cell.requests;
        for (const ErrorCount& error : cell.errors) {
            if (error.count > 0) errors[error.name.data()] += error.count;
        }
    }

    // Good results only: errors come fast and would count as speed.
    double rate() const {
        return seconds > 0.0 ? static_cast<double>(result->count()) / seconds : 0.0;
    }

    uint64_t errorCount() const {
        uint64_t sum = 0;
        for (const auto& [code, count] : errors) sum += count;
        return sum;
    }

    std::string line(const char* kind, const Histogram& histogram) const {
        return fmt::format(kHeadFormat, shortenText(name, kNameWidth), kind) +
               number(static_cast<double>(requests), 0) +
               number(static_cast<double>(errorCount()), 0) + number(rate(), 1) +
               latencyCells(histogram) + "\n";
    }

    nlohmann::json json() const {
        return {{"name", name},
                {"requests", requests},
                {"errors", errors},
                {"results_per_second", rate()},
                {"accept", latencyJson(*accept)},
                {"result", latencyJson(*result)}};
    }
};

double jainIndex(const std::vector<double>& shares) {
    double sum = 0.0;
    double squares = 0.0;
    for (const double share : shares) {
        sum += share;
        squares += share * share;
    }
    if (squares <= 0.0) return 1.0;  // no client got anything, which is fair
    return sum * sum / (static_cast<double>(shares.size()) * squares);
}

BenchReport::BenchReport(const BenchOptions& options, const BenchRegion& region)
    : m_options(options), m_region(region) {}

std::string BenchReport::graphName(size_t graph) const {
    return FileHelper::getFileName(m_options.graphs[graph]);
}

double BenchReport::seconds(size_t client) const {
    return static_cast<double>(m_region.lanes[client].runNanos) / kNanosPerSecond;
}

// A graph is served by all clients, so its rate is over the time of the one that ran longest.
double BenchReport::longestSeconds() const {
    double longest = 0.0;
    for (size_t i = 0; i < static_cast<size_t>(m_options.clients); ++i) {
        longest = std::max(longest, seconds(i));
    }
    return longest;
}

BenchReport::Row BenchReport::sumOfClient(size_t client) const {
    Row row;
    row.name = "client " + std::to_string(client);
    row.seconds = seconds(client);
    for (size_t i = 0; i < m_options.graphs.size(); ++i) {
        row.add(m_region.lanes[client].cells[i]);
    }
    return row;
}

BenchReport::Row BenchReport::sumOfGraph(size_t graph) const {
    Row row;
    row.name = graphName(graph);
    row.seconds = longestSeconds();
    for (size_t i = 0; i < static_cast<size_t>(m_options.clients); ++i) {
        row.add(m_region.lanes[i].cells[graph]);
    }
    return row;
}

double BenchReport::fairness() const {
    std::vector<double> shares;
    for (size_t i = 0; i < static_cast<size_t>(m_options.clients); ++i) {
        shares.push_back(static_cast<double>(sumOfClient(i).result->count()));
    }
    return jainIndex(shares);
}

// Two lines for each row: the latency of the accept answer, and that of the result.
std::string BenchReport::table() const {
    std::string text = fmt::format(kHeadFormat, "", "");
    for (const char* head : {"requests", "errors", "req/s", "mean ms"}) {
        text += fmt::format(kCellFormat, head);
    }
    for (const Quantile& quantile : kQuantiles) text += fmt::format(kCellFormat, quantile.name);
    text += fmt::format(kCellFormat, "max") + "\n";
    Row all;
    all.name = "all";
    all.seconds = longestSeconds();
    std::vector<Row> rows;
    for (size_t i = 0; i < static_cast<size_t>(m_options.clients); ++i) {
        rows.push_back(sumOfClient(i));
    }
    for (size_t i = 0; i < m_options.graphs.size(); ++i) rows.push_back(sumOfGraph(i));
    for (size_t client = 0; client < static_cast<size_t>(m_options.clients); ++client) {
        for (size_t graph = 0; graph < m_options.graphs.size(); ++graph) {
            all.add(m_region.lanes[client].cells[graph]);
        }
    }
    rows.push_back(std::move(all));
    for (const Row& row : rows) {
        text += row.line("accept", *row.accept) + row.line("result", *row.result);
    }
    for (const auto& [code, count] : rows.back().errors) {
        text += fmt::format("error {}: {}\n", code, count);
    }
    text += fmt::format("fairness over clients (Jain): {:.4f}\n", fairness());
    for (size_t i = 0; i < static_cast<size_t>(m_options.clients); ++i) {
        text += fmt::format("client {}: first result after {:.1f} ms\n", i,
                            toMillis(m_region.lanes[i].firstResultNanos));
    }
    return text;
}

std::string BenchReport::json() const {
    nlohmann::json json{{"clients", nlohmann::json::array()},
                        {"graphs", nlohmann::json::array()},
                        {"depth", m_options.depth},
                        {"seconds", longestSeconds()},
                        {"fairness", fairness()}};
    // Of all clients together, each over its own time.
    double rate = 0.0;
    for (size_t i = 0; i < static_cast<size_t>(m_options.clients); ++i) {
        const Row row = sumOfClient(i);
        rate += row.rate();
        nlohmann::json client = row.json();
        client["first_result_ms"] = toMillis(m_region.lanes[i].firstResultNanos);
        for (size_t graph = 0; graph < m_options.graphs.size(); ++graph) {
            Row cell;
            cell.name = graphName(graph);
            cell.seconds = seconds(i);
            cell.add(m_region.lanes[i].cells[graph]);
            client["graphs"].push_back(cell.json());
        }
        json["clients"].push_back(std::move(client));
    }
    for (size_t i = 0; i < m_options.graphs.size(); ++i) {
        json["graphs"].push_back(sumOfGraph(i).json());
    }
    json["results_per_second"] = rate;
    return toJsonText(json, 2) + "\n";
}

}  // namespace kelm::ctl

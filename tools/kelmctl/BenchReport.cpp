#include "tools/kelmctl/BenchReport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/kelmctl/JsonText.h"
#include "utils/FileHelper.h"

namespace kelm::ctl {

namespace {

// To be raised when a field changes its meaning or goes away.
constexpr int kReportSchema = 1;

std::string errorList(const BenchRow& row) {
    std::vector<std::string> parts;
    for (const auto& [code, count] : row.errors())
        parts.push_back(fmt::format("{} {}", count, code));
    return fmt::format("{}", fmt::join(parts, ", "));
}

nlohmann::json numberOrNull(const std::optional<double>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
}

}  // namespace

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

BenchReport::BenchReport(const BenchSetup& setup, const BenchRegion& region, const BenchRun& run)
    : m_setup(setup), m_region(region), m_run(run), m_all(BenchRow::sumOfAll(setup, region)) {}

std::string BenchReport::graphName(size_t graph) const {
    return FileHelper::getFileName(m_setup.graphs[graph]);
}

double BenchReport::seconds(size_t client) const {
    return static_cast<double>(m_region.lanes[client].runNanos) / 1e9;
}

BenchRow BenchReport::sumOfClient(size_t client) const {
    BenchRow row(fmt::format("client {}", client), seconds(client));
    for (size_t i = 0; i < m_setup.graphs.size(); ++i) row.add(m_region.lanes[client].cells[i]);
    return row;
}

BenchRow BenchReport::sumOfGraph(size_t graph) const {
    BenchRow row(graphName(graph), m_all.seconds());
    for (size_t i = 0; i < m_setup.clients; ++i) row.add(m_region.lanes[i].cells[graph]);
    return row;
}

double BenchReport::fairness() const {
    std::vector<double> shares;
    for (size_t i = 0; i < m_setup.clients; ++i) {
        shares.push_back(static_cast<double>(sumOfClient(i).good()));
    }
    return jainIndex(shares);
}

bool BenchReport::isEmpty() const { return m_run.steps().empty() && m_all.good() == 0; }

std::string BenchReport::whyEmpty() const {
    if (m_run.signal() != 0) return "it was interrupted before the first result";
    if (m_all.errorCount() > 0) return "every request failed: " + errorList(m_all);
    if (m_all.refusals() > 0) {
        return "the service refused every request, since too many tasks wait; lower --clients, "
               "--depth or the load of other programs";
    }
    return "no result came in the measured time; give it more with --seconds";
}

std::string BenchReport::table() const {
    if (m_setup.kind == BenchSetup::Kind::kFindRate) return searchTable();
    return roundTable() + (m_setup.kind == BenchSetup::Kind::kUntilStable ? stabilityTable() : "");
}

std::string BenchReport::roundTable() const {
    std::string text = BenchRow::head();
    for (size_t i = 0; i < m_setup.clients; ++i) text += sumOfClient(i).lines();
    for (size_t i = 0; i < m_setup.graphs.size(); ++i) text += sumOfGraph(i).lines();
    text += m_all.lines();
    for (const auto& [code, count] : m_all.errors()) {
        text += fmt::format("error {}: {}\n", code, count);
    }
    if (m_all.refusals() > 0) {
        text += fmt::format("refused {} times, as too many tasks waited, and sent again later\n",
                            m_all.refusals());
    }
    if (isOpen()) {
        text += fmt::format(
            "open loop{}: {:.1f} requests/s wanted, {:.1f} reached; latency counts from the due "
            "time, {} sent over 1 ms late\n",
            m_setup.poisson ? " (Poisson)" : "", m_setup.rate, m_all.rate(), m_all.late());
    }
    if (m_all.givenUp() > 0) {
        text += fmt::format(
            "{} were due and not taken by the service until the end; what they had waited by then "
            "is in the latencies\n",
            m_all.givenUp());
    }
    text += fmt::format("fairness over clients (Jain): {:.4f}\n", fairness());
    for (size_t i = 0; i < m_setup.clients; ++i) {
        text += fmt::format("client {}: first result after {:.1f} ms\n", i,
                            toMillis(m_region.lanes[i].firstResultNanos));
    }
    return text;
}

std::string BenchReport::stabilityTable() const {
    std::string text = "  window    req/s   p99 ms\n";
    const auto& windows = m_run.stability().windows();
    for (size_t i = 0; i < windows.size(); ++i) {
        const bool hasResults = windows[i].rate > 0.0;
        text += fmt::format("{:>8}", i + 1) + benchNumber(windows[i].rate, 1) +
                (hasResults ? benchNumber(windows[i].p99Millis, 3) : "        -") + "\n";
    }
    return text + (m_run.stability().isStable()
                       ? "stable: the last three windows are within 10% of each other\n"
                       : fmt::format("never became stable within {:g} s: no three windows in a row "
                                     "were within 10% of each other\n",
                                     m_setup.seconds));
}

std::string BenchReport::searchTable() const {
    std::string text =
        "   wanted  reached  results   errors  refused given up   p50 ms   p99 ms  held\n";
    for (const BenchStep& step : m_run.steps()) {
        text += step.rate > 0.0 ? benchNumber(step.rate, 1) : fmt::format("{:>9}", "closed");
        text += benchNumber(step.row.rate(), 1);
        for (const uint64_t count :
             {step.row.good(), step.row.errorCount(), step.row.refusals(), step.row.givenUp()}) {
            text += fmt::format("{:>9}", count);
        }
        for (const double quantile : {0.5, 0.99}) {
            text += benchNumber(toMillis(step.row.result().percentile(quantile)), 3);
        }
        text += step.rate <= 0.0 ? "  -\n" : step.held ? "  yes\n" : "  no\n";
    }
    const std::string bound = fmt::format("a p99 of at most {:g} ms", m_setup.p99Millis);
    if (!m_run.isSearchComplete()) text += "the search was ended before it was done; so far: ";
    const auto found = m_run.foundRate();
    return text + (found ? fmt::format("highest rate with {}: {:.1f} requests/s\n", bound, *found)
                         : fmt::format("no rate that was tried had {}\n", bound));
}

void BenchReport::addRound(nlohmann::json& json) const {
    // Of all clients together, each over its own time.
    double rate = 0.0;
    for (size_t i = 0; i < m_setup.clients; ++i) {
        const BenchRow row = sumOfClient(i);
        rate += row.rate();
        nlohmann::json client = row.json();
        client["first_result_ms"] = toMillis(m_region.lanes[i].firstResultNanos);
        for (size_t graph = 0; graph < m_setup.graphs.size(); ++graph) {
            BenchRow cell(graphName(graph), seconds(i));
            cell.add(m_region.lanes[i].cells[graph]);
            client["graphs"].push_back(cell.json());
        }
        json["clients"].push_back(std::move(client));
    }
    for (size_t i = 0; i < m_setup.graphs.size(); ++i) {
        json["graphs"].push_back(sumOfGraph(i).json());
    }
    json["all"] = m_all.json();
    json["seconds"] = m_all.seconds();
    json["fairness"] = fairness();
    json["results_per_second"] = rate;
}

void BenchReport::addStability(nlohmann::json& json) const {
    nlohmann::json windows = nlohmann::json::array();
    for (const Stability::Window& window : m_run.stability().windows()) {
        windows.push_back({{"results_per_second", window.rate}, {"p99_ms", window.p99Millis}});
    }
    json["stability"] = {{"stable", m_run.stability().isStable()},
                         {"window_seconds", m_setup.window},
                         {"windows", std::move(windows)}};
}

void BenchReport::addSearch(nlohmann::json& json) const {
    nlohmann::json steps = nlohmann::json::array();
    for (const BenchStep& step : m_run.steps()) {
        nlohmann::json row = step.row.json();
        row["wanted_per_second"] = step.rate > 0.0 ? nlohmann::json(step.rate) : nlohmann::json();
        row["held"] = step.held;
        steps.push_back(std::move(row));
    }
    json["find_rate"] = {{"p99_bound_ms", m_setup.p99Millis},
                         {"complete", m_run.isSearchComplete()},
                         {"found_per_second", numberOrNull(m_run.foundRate())},
                         {"steps", std::move(steps)}};
}

std::string BenchReport::json() const {
    nlohmann::json json{{"schema", kReportSchema},
                        {"depth", m_setup.depths.size() == 1 ? nlohmann::json(m_setup.depths[0])
                                                             : nlohmann::json(m_setup.depths)},
                        {"warmup_seconds", m_setup.warmup},
                        {"open_loop", nlohmann::json()}};
    if (isOpen()) {
        json["open_loop"] = {{"wanted_per_second", m_setup.rate}, {"poisson", m_setup.poisson}};
    }
    if (m_setup.kind == BenchSetup::Kind::kFindRate) {
        addSearch(json);
    } else {
        addRound(json);
    }
    if (m_setup.kind == BenchSetup::Kind::kUntilStable) addStability(json);
    return toJsonText(json) + "\n";
}

}  // namespace kelm::ctl

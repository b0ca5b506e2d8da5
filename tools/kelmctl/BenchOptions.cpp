#include "tools/kelmctl/BenchOptions.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <numeric>
#include <sstream>

#include "tools/kelmctl/Stability.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

constexpr int kMostWeight = 1000;
constexpr int kMostDepth = 65536;
constexpr double kMostSeconds = 1e6;
constexpr double kMostRate = 1e6;
constexpr double kDefaultSeconds = 10.0;
constexpr double kDefaultWindow = 1.0;
// A step of a search: short, since there are some ten of them.
constexpr double kDefaultStep = 3.0;
constexpr double kDefaultStepWarmup = 1.0;

// "8,2" as numbers. The whole of each part must be one.
std::vector<int> parseList(const std::string& text, const char* what, int least, int most) {
    std::vector<int> values;
    std::istringstream parts(text + ",");
    for (std::string part; std::getline(parts, part, ',');) {
        int value = 0;
        const char* end = part.data() + part.size();
        const auto [rest, error] = std::from_chars(part.data(), end, value);
        if (error != std::errc() || rest != end || value < least || value > most) {
            throw UsageError(
                fmt::format("a {} is a number from {} to {}, not '{}'", what, least, most, part));
        }
        values.push_back(value);
    }
    return values;
}

std::vector<int> parseWeights(const BenchOptions& options, size_t client) {
    const size_t graphs = options.graphs.size();
    std::vector<int> weights(graphs, options.assign ? 0 : 1);
    if (options.assign) weights[client % graphs] = 1;
    if (options.weights.empty()) return weights;
    const std::string& text = options.weights[std::min(client, options.weights.size() - 1)];
    weights = parseList(text, "weight", 0, kMostWeight);
    if (weights.size() != graphs) {
        throw UsageError("--weights needs one number for each graph, not '" + text + "'");
    }
    // A client without any graph would have nothing to submit.
    if (std::accumulate(weights.begin(), weights.end(), 0) == 0) {
        throw UsageError("at least one number of --weights must be above 0");
    }
    return weights;
}

// Not a number fails each comparison, so the bounds are asked for and not their opposites.
double checkRange(const char* option, const std::optional<double>& given, double least, double most,
                  double absent) {
    const double value = given.value_or(absent);
    if (given && !(value >= least && value <= most)) {
        throw UsageError(fmt::format("{} takes a number from {} to {}", option, least, most));
    }
    return value;
}

// Two things that exclude each other, or the second of which needs the first.
struct Rule {
    bool broken;
    const char* text;
};

void checkRules(const BenchOptions& options) {
    if (options.clients < 1 || options.clients > kMaxBenchClients) {
        throw UsageError(fmt::format("the number of clients is 1 to {}", kMaxBenchClients));
    }
    if (options.graphs.empty() || options.graphs.size() > kMaxBenchGraphs) {
        throw UsageError(fmt::format("name 1 to {} graph files with --graph", kMaxBenchGraphs));
    }
    const bool open = options.rate || options.findRate;
    const bool ownDepths = options.depth.find(',') != std::string::npos;
    const Rule rules[] = {
        {options.count && options.seconds, "give --count or --seconds, not both"},
        {options.count && options.untilStable, "give --count or --until-stable, not both"},
        {options.seconds && options.untilStable,
         "give --seconds or --until-stable, which has its own limit of time, not both"},
        {options.count.value_or(1) < 1, "--count is at least 1"},
        {options.maxErrors < 0, "--max-errors is at least 0"},
        {options.window && !options.untilStable, "--window is for --until-stable only"},
        {options.findRate && !options.p99,
         "--find-rate needs --p99 with the bound in milliseconds"},
        {options.p99 && !options.findRate, "--p99 is for --find-rate only"},
        {options.findRate && options.rate, "--find-rate looks for the rate: leave --rate away"},
        {options.findRate && (options.count || options.untilStable),
         "--find-rate measures steps of --seconds: leave --count and --until-stable away"},
        {options.findRate && options.maxErrors > 0,
         "--find-rate takes no rate at which calls fail: leave --max-errors away"},
        {options.poisson && !open, "--poisson needs --rate or --find-rate"},
        {options.assign && !options.weights.empty(), "give --assign or --weights, not both"},
        {options.assign && static_cast<size_t>(options.clients) < options.graphs.size(),
         "--assign needs a client for each graph: raise --clients"},
        {options.weights.size() > static_cast<size_t>(options.clients),
         "--weights is given for more clients than there are"},
        {ownDepths && !options.weights.empty() && !open,
         "with a depth for each graph, --weights needs --rate: each graph fills its own window"},
    };
    for (const Rule& rule : rules) {
        if (rule.broken) throw UsageError(rule.text);
    }
}

BenchSetup::Kind kindOf(const BenchOptions& options) {
    if (options.findRate) return BenchSetup::Kind::kFindRate;
    if (options.untilStable) return BenchSetup::Kind::kUntilStable;
    return options.count ? BenchSetup::Kind::kCount : BenchSetup::Kind::kTime;
}

}  // namespace

BenchSetup::BenchSetup(const BenchOptions& options)
    : kind(kindOf(options)), graphs(options.graphs), poisson(options.poisson) {
    checkRules(options);
    clients = static_cast<size_t>(options.clients);
    count = static_cast<uint64_t>(options.count.value_or(0));
    maxErrors = static_cast<uint64_t>(options.maxErrors);
    depths = parseList(options.depth, "depth", 1, kMostDepth);
    if (depths.size() != 1 && depths.size() != graphs.size()) {
        throw UsageError("--depth is one number, or one for each graph as in 8,2");
    }
    for (size_t i = 0; i < clients; ++i) weights.push_back(parseWeights(options, i));
    const bool searches = kind == Kind::kFindRate;
    const char* timeOption = options.untilStable ? "--until-stable" : "--seconds";
    seconds = checkRange(timeOption, options.untilStable ? options.untilStable : options.seconds,
                         0.001, kMostSeconds, searches ? kDefaultStep : kDefaultSeconds);
    warmup = checkRange("--warmup", options.warmup, 0.0, kMostSeconds,
                        searches ? kDefaultStepWarmup : 0.0);
    window = checkRange("--window", options.window, 0.01, kMostSeconds, kDefaultWindow);
    rate = checkRange("--rate", options.rate, 1e-3, kMostRate, 0.0);
    p99Millis = checkRange("--p99", options.p99, 1e-3, kMostSeconds, 0.0);
    if (kind == Kind::kUntilStable && seconds < Stability::kWindows * window) {
        throw UsageError(
            "--until-stable needs the time of at least three windows: raise it or "
            "lower --window");
    }
    if (rate > 0.0 && kind != Kind::kCount && rate * seconds < 1.0) {
        throw UsageError("at this --rate no request is due in the measured time: raise either");
    }
}

}  // namespace kelm::ctl

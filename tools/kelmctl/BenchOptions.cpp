#include "tools/kelmctl/BenchOptions.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <stdexcept>

#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

// std::stoi() alone would take "3x" for 3.
int parseWeight(const std::string& text) {
    size_t used = 0;
    int value = -1;
    try {
        value = std::stoi(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value < 0 || value > 1000) {
        throw UsageError("a weight is a number from 0 to 1000, not '" + text + "'");
    }
    return value;
}

}  // namespace

std::vector<int> parseWeights(const BenchOptions& options, int client) {
    std::vector<int> weights(options.graphs.size(), 1);
    if (options.weights.empty()) return weights;
    const size_t index = std::min(static_cast<size_t>(client), options.weights.size() - 1);
    std::istringstream list(options.weights[index]);
    std::vector<int> given;
    for (std::string part; std::getline(list, part, ',');) given.push_back(parseWeight(part));
    if (given.size() != weights.size()) {
        throw UsageError("weights need one number for each graph: '" + options.weights[index] +
                         "'");
    }
    // A client without any graph would have nothing to submit.
    if (std::accumulate(given.begin(), given.end(), 0) == 0) {
        throw UsageError("at least one weight must be above 0");
    }
    return given;
}

}  // namespace kelm::ctl

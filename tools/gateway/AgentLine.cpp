#include "tools/gateway/AgentLine.h"

#include <algorithm>
#include <cmath>

namespace kelm::gateway {

namespace {

// HAProxy reads a line of ASCII and keeps a few words of it.
std::string plain(std::string text) {
    constexpr size_t kMost = 100;
    text.resize(std::min(text.size(), kMost));
    std::ranges::replace_if(
        text, [](char each) { return each < ' ' || each > '~'; }, '?');
    return text;
}

// By the root of the load, so that the answer to it dies away: when weights move requests, and
// requests move weights, the load itself would swing from one gateway to the other.
unsigned weightOf(const AgentState& state) {
    constexpr double kPerDevice = 10.0;
    constexpr double kMost = 25600.0;  // of HAProxy
    const double window = std::max(1.0, static_cast<double>(state.window));
    const double load = (window + static_cast<double>(state.waiting)) / window;
    const double weight = kPerDevice * state.devices / std::sqrt(load);
    return static_cast<unsigned>(std::lround(std::clamp(weight, 1.0, kMost)));
}

}  // namespace

std::string agentLine(const AgentState& state) {
    if (state.isDraining) return "drain\n";
    if (!state.whyNot.empty()) return "down #" + plain(state.whyNot) + "\n";
    // HAProxy remembers its states beyond the end of a gateway; both are undone.
    return "up ready " + std::to_string(weightOf(state)) + "%\n";
}

}  // namespace kelm::gateway

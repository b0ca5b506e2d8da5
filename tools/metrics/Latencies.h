#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace kelm {

// How often something took how long, as Prometheus counts it. Threads: one.
struct Latencies {
    // Upper bounds of what is counted together, in seconds; what is above the last is counted too.
    static constexpr std::array<double, 13> kBounds{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                                    0.25,  0.5,    1.0,   2.5,  5.0,   10.0};

    void add(double seconds) {
        const auto* const bound = std::ranges::lower_bound(kBounds, seconds);
        ++counts[static_cast<size_t>(bound - kBounds.begin())];
        sumSeconds += seconds;
    }

    std::array<uint64_t, kBounds.size() + 1> counts{};
    double sumSeconds = 0.0;
};

}  // namespace kelm

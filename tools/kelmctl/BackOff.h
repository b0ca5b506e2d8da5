#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>

namespace kelm::ctl {

// How long a refused request waits before it is sent again: twice as long each time, from a
// millisecond to a tenth of a second, less up to a half by chance, so that clients that were
// refused together do not come back together.
//
// Threads: one.
class BackOff {
 public:
    explicit BackOff(uint64_t seed) : m_random(seed) {}

    // `refusals` of this request so far, at least 1.
    std::chrono::nanoseconds next(int refusals) {
        const auto longest = std::min<std::chrono::nanoseconds>(
            std::chrono::milliseconds(1) * (1 << std::min(refusals - 1, 7)),
            std::chrono::milliseconds(100));
        return std::chrono::nanoseconds(
            std::uniform_int_distribution<int64_t>(longest.count() / 2, longest.count())(m_random));
    }

 private:
    std::mt19937_64 m_random;
};

}  // namespace kelm::ctl

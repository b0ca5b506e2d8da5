#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

namespace kelm {

constexpr unsigned kMegabyteShift = 20;

// A size as one of the library's lengths.
constexpr unsigned int clampLength(uint64_t size) {
    constexpr uint64_t kLongest = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(size, kLongest));
}

}  // namespace kelm

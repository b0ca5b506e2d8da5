#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "utils/CommonHelper.h"  // kMegabyteShift

namespace kelm {

// A size as one of the library's lengths.
constexpr unsigned int clampLength(uint64_t size) {
    constexpr uint64_t kLongest = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(size, kLongest));
}

}  // namespace kelm

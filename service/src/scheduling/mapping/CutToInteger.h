#pragma once

#include <cstdint>
#include <limits>

namespace kelm {

// The integer part as an unsigned number; the nearest number where that has no place, 0 for NaN.
// A plain conversion of such values is undefined.
inline uint32_t cutToUnsigned(double value) {
    constexpr uint32_t kLargest = std::numeric_limits<uint32_t>::max();
    if (!(value >= 1.0)) return 0;
    return value >= static_cast<double>(kLargest) ? kLargest : static_cast<uint32_t>(value);
}

}  // namespace kelm

#pragma once

#include <array>
#include <string>
#include <vector>

#include "bench/placement/Comparison.h"

namespace kelm {

// An SVG: for each contender which part of the mixes lies below a ratio, from 0.5 to 1.05. Each
// list is sorted.
std::string drawRatios(const std::array<std::vector<double>, CONTENDERS>& ratios);

}  // namespace kelm

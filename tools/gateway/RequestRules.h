#pragma once

#include <cstddef>
#include <cstdint>

namespace kelm::gateway {

// What a request of either protocol may say.
constexpr size_t kMostTensors = 256;
constexpr size_t kMostDimensions = 16;
constexpr size_t kLongestText = 1024;               // bytes of an id, a name or a datatype
constexpr uint64_t kMostBytes = uint64_t{1} << 48;  // of a tensor
constexpr uint64_t kLongestTimeout = uint64_t{86'400'000'000};  // us, a day
constexpr uint64_t kHighestPriority = 15;

}  // namespace kelm::gateway

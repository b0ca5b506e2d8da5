#pragma once

#include <chrono>

namespace kelm {

// Of the servers of this folder. A peer that is turned away may come again at once, and a fault may
// stay: neither must take a core.
constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr std::chrono::milliseconds kErrorPause{10};

}  // namespace kelm

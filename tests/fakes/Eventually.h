#pragma once

#include <chrono>
#include <thread>

namespace kelm {

// Polls until the predicate holds; false when the deadline passes first.
template <class Predicate>
bool eventually(Predicate predicate,
                std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

}  // namespace kelm

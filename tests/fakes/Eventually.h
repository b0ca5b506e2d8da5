#pragma once

#include <chrono>
#include <future>
#include <thread>
#include <utility>

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

// Calls on a thread of its own, which is right before the call when this returns.
template <class Call>
auto startCalling(Call call) {
    std::promise<void> isCalling;
    const auto begun = isCalling.get_future();
    auto ended = std::async(std::launch::async, [isCalling = std::move(isCalling), call]() mutable {
        isCalling.set_value();
        return call();
    });
    begun.wait();
    return ended;
}

}  // namespace kelm

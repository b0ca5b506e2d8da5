#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace kelm::ctl {

// When the requests of an open loop are due: evenly spaced, or with the independent distances of a
// Poisson process, which come in bursts as from many users.
//
// Threads: one.
class Arrivals {
 public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // `rate` in requests a second, above 0. `phase`, 0 to 1, is the share of a distance by which
    // the first one comes after `start`, so that several of these do not send at once.
    static Arrivals evenly(TimePoint start, double rate, double phase);
    // The same `seed` gives the same times.
    static Arrivals poisson(TimePoint start, double rate, uint64_t seed);

    TimePoint due() const;
    // Goes on to the next one.
    void pop();

 private:
    Arrivals(TimePoint start, double rate) : m_start(start), m_rate(rate) {}

    TimePoint m_start;
    double m_rate;
    std::optional<std::mt19937_64> m_random;  // of a Poisson process
    // In distances and not in nanoseconds: a sum of rounded ones would drift.
    double m_position = 0.0;
};

}  // namespace kelm::ctl

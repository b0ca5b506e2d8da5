#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelm {

// The rate at which tasks of one graph arrive. As long as the arrivals agree with the rate so far
// it is their mean since the last change, so that noise moves nothing; arrivals that do not agree
// start anew, so that a change is followed within a second.
//
// A value; no clock of its own.
class DemandEstimator {
 public:
    // `arrivals` only grows. Calls within a tenth of a second of each other count as one.
    void observe(double now, uint64_t arrivals);

    double rate() const { return m_rate; }  // tasks per second
    // The highest rate of late, forgotten over minutes: what an idle graph may come back with.
    double habit() const { return m_habit; }
    // Seconds since the rate last changed.
    double age() const { return m_last.time - m_base.time; }

 private:
    struct Sample {
        double time = 0.0;
        double arrivals = 0.0;
    };
    static constexpr size_t kSamples = 16;

    const Sample& sample(size_t age) const;
    bool disagrees(const Sample& start) const;

    std::array<Sample, kSamples> m_samples{};  // a ring, the newest before m_next
    size_t m_next = 0;
    size_t m_size = 0;
    Sample m_base;  // where the present rate began; moves on, so that old arrivals are forgotten
    Sample m_last;
    double m_rate = 0.0;
    double m_habit = 0.0;
};

}  // namespace kelm

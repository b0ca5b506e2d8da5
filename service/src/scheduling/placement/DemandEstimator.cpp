#include "scheduling/placement/DemandEstimator.h"

#include <algorithm>
#include <cmath>

namespace kelm {

namespace {

constexpr double kSpacing = 0.095;  // seconds between two samples, a little less than a plan's
constexpr double kWindow = 1.05;    // that may show a change
constexpr double kMemory = 30.0;    // over which a steady rate is a mean
constexpr double kHabit = 120.0;    // after which an idle graph's habit has fallen to a third
// Standard deviations of random arrivals that count as a change, and tasks on top for low rates.
constexpr double kDoubt = 4.0;
constexpr double kDoubtTasks = 1.5;

}  // namespace

const DemandEstimator::Sample& DemandEstimator::sample(size_t age) const {
    return m_samples[(m_next + kSamples - 1 - age) % kSamples];
}

// Whether the arrivals since `start` differ from what the time before it leads to expect.
bool DemandEstimator::disagrees(const Sample& start) const {
    const double before = start.time - m_base.time;
    if (before < 2.0 * kSpacing) return false;
    const double expected =
        (start.arrivals - m_base.arrivals) / before * (m_last.time - start.time);
    const double seen = m_last.arrivals - start.arrivals;
    // The expectation itself comes from few arrivals at first.
    const double spread =
        std::sqrt(std::max(expected, 1.0) * (1.0 + (m_last.time - start.time) / before));
    return std::abs(seen - expected) > kDoubt * spread + kDoubtTasks;
}

void DemandEstimator::observe(double now, uint64_t arrivals) {
    const Sample next{now, static_cast<double>(arrivals)};
    if (m_size == 0) m_base = next;
    if (m_size > 0 && now - sample(0).time < kSpacing) return;
    const double passed = m_size > 0 ? now - m_last.time : 0.0;
    m_last = next;
    m_samples[m_next] = next;
    m_next = (m_next + 1) % kSamples;
    m_size = std::min(m_size + 1, kSamples);
    for (size_t age = 1; age < m_size && now - sample(age).time < kWindow; ++age) {
        if (sample(age).time <= m_base.time || !disagrees(sample(age))) continue;
        m_base = sample(age);
        break;
    }
    const double span = now - m_base.time;
    if (span > 0.0) m_rate = (m_last.arrivals - m_base.arrivals) / span;
    if (span > kMemory) m_base = {now - kMemory, m_last.arrivals - m_rate * kMemory};
    m_habit = std::max(m_rate, m_habit * std::exp(-passed / kHabit));
}

}  // namespace kelm

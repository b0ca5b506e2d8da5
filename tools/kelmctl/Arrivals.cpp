#include "tools/kelmctl/Arrivals.h"

namespace kelm::ctl {

Arrivals Arrivals::evenly(TimePoint start, double rate, double phase) {
    Arrivals arrivals(start, rate);
    arrivals.m_position = phase;
    return arrivals;
}

Arrivals Arrivals::poisson(TimePoint start, double rate, uint64_t seed) {
    Arrivals arrivals(start, rate);
    arrivals.m_random.emplace(seed);
    arrivals.pop();
    return arrivals;
}

Arrivals::TimePoint Arrivals::due() const {
    return m_start + std::chrono::nanoseconds(static_cast<int64_t>(m_position * 1e9 / m_rate));
}

void Arrivals::pop() {
    m_position += m_random ? std::exponential_distribution<double>()(*m_random) : 1.0;
}

}  // namespace kelm::ctl

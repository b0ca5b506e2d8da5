#include "bench/placement/Arrivals.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace kelm {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr double kBurstPart = 0.25;  // of the period; the whole mean arrives in it
constexpr double kDaySwing = 0.8;

}  // namespace

double rateAt(const GraphTraffic& traffic, double time) {
    const double turn = time / traffic.period + traffic.phase;
    switch (traffic.kind) {
        case ArrivalKind::Bursts:
            return turn - std::floor(turn) < kBurstPart ? traffic.rate / kBurstPart : 0.0;
        case ArrivalKind::Day:
            return traffic.rate * (1.0 + kDaySwing * std::sin(2.0 * std::numbers::pi * turn));
        case ArrivalKind::Swap:
            return time < traffic.period ? traffic.rate : traffic.otherRate;
        default:
            return traffic.rate;
    }
}

double peakRate(const GraphTraffic& traffic) {
    switch (traffic.kind) {
        case ArrivalKind::Bursts:
            return traffic.rate / kBurstPart;
        case ArrivalKind::Day:
            return traffic.rate * (1.0 + kDaySwing);
        case ArrivalKind::Swap:
            return std::max(traffic.rate, traffic.otherRate);
        default:
            return traffic.rate;
    }
}

Arrivals::Arrivals(const GraphTraffic& traffic, uint64_t seed)
    : m_traffic(traffic), m_random(seed) {
    // Spaced tasks of several graphs do not come in step.
    if (peakRate(traffic) > 0.0) {
        m_time = -std::uniform_real_distribution<double>(0.0, 1.0)(m_random) / peakRate(traffic);
    }
}

double Arrivals::next() {
    if (peakRate(m_traffic) <= 0.0) return kNever;
    const bool isSpaced =
        m_traffic.kind == ArrivalKind::Constant || m_traffic.kind == ArrivalKind::Swap;
    return isSpaced ? nextSpaced() : nextRandom();
}

double Arrivals::nextSpaced() {
    double rate = rateAt(m_traffic, m_time);
    if (rate <= 0.0) {  // before a swap
        if (m_time >= m_traffic.period) return kNever;
        m_time = m_traffic.period;
        rate = rateAt(m_traffic, m_time);
        if (rate <= 0.0) return kNever;
    }
    m_time += 1.0 / rate;
    return m_time;
}

// Candidates at the highest rate, of which as many are dropped as the rate is lower.
double Arrivals::nextRandom() {
    std::exponential_distribution<double> gap(peakRate(m_traffic));
    std::uniform_real_distribution<double> part(0.0, peakRate(m_traffic));
    do {
        m_time += gap(m_random);
    } while (part(m_random) >= rateAt(m_traffic, std::max(0.0, m_time)));
    return m_time;
}

}  // namespace kelm

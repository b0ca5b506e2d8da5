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

double rateAt(const GraphLoadSpec& spec, double time) {
    const double turn = time / spec.period + spec.phase;
    switch (spec.kind) {
        case ArrivalKind::Bursts:
            return turn - std::floor(turn) < kBurstPart ? spec.rate / kBurstPart : 0.0;
        case ArrivalKind::Day:
            return spec.rate * (1.0 + kDaySwing * std::sin(2.0 * std::numbers::pi * turn));
        case ArrivalKind::Swap:
            return time < spec.period ? spec.rate : spec.otherRate;
        default:
            return spec.rate;
    }
}

double peakRate(const GraphLoadSpec& spec) {
    switch (spec.kind) {
        case ArrivalKind::Bursts:
            return spec.rate / kBurstPart;
        case ArrivalKind::Day:
            return spec.rate * (1.0 + kDaySwing);
        case ArrivalKind::Swap:
            return std::max(spec.rate, spec.otherRate);
        default:
            return spec.rate;
    }
}

Arrivals::Arrivals(const GraphLoadSpec& spec, uint64_t seed) : m_spec(spec), m_random(seed) {
    // Spaced tasks of several graphs do not come in step.
    if (peakRate(spec) > 0.0) {
        m_time = -std::uniform_real_distribution<double>(0.0, 1.0)(m_random) / peakRate(spec);
    }
}

double Arrivals::next() {
    if (peakRate(m_spec) <= 0.0) return kNever;
    const bool isSpaced = m_spec.kind == ArrivalKind::Constant || m_spec.kind == ArrivalKind::Swap;
    return isSpaced ? nextSpaced() : nextRandom();
}

double Arrivals::nextSpaced() {
    double rate = rateAt(m_spec, m_time);
    if (rate <= 0.0) {  // before a swap
        if (m_time >= m_spec.period) return kNever;
        m_time = m_spec.period;
        rate = rateAt(m_spec, m_time);
        if (rate <= 0.0) return kNever;
    }
    m_time += 1.0 / rate;
    return m_time;
}

// Candidates at the highest rate, of which as many are dropped as the rate is lower.
double Arrivals::nextRandom() {
    std::exponential_distribution<double> gap(peakRate(m_spec));
    std::uniform_real_distribution<double> part(0.0, peakRate(m_spec));
    do {
        m_time += gap(m_random);
    } while (part(m_random) >= rateAt(m_spec, std::max(0.0, m_time)));
    return m_time;
}

}  // namespace kelm

#include "tools/kelmctl/RateSearch.h"

#include <algorithm>
#include <cmath>

namespace kelm::ctl {

namespace {

constexpr double kFactor = 2.0;
constexpr double kNearEnough = 1.05;
constexpr int kMostSteps = 30;

}  // namespace

RateSearch::RateSearch(double first, double least)
    : m_least(least), m_next(std::max(first, least)) {}

std::optional<double> RateSearch::next() const {
    const bool leastFails = m_failed > 0.0 && m_failed <= m_least;
    if (m_steps == kMostSteps || leastFails) return std::nullopt;
    const bool isBracketed = m_held > 0.0 && m_failed > 0.0;
    if (isBracketed && m_failed <= kNearEnough * m_held) return std::nullopt;
    return m_next;
}

void RateSearch::tell(bool held) {
    ++m_steps;
    (held ? m_held : m_failed) = m_next;
    if (m_held > 0.0 && m_failed > 0.0) {
        m_next = std::sqrt(m_held * m_failed);  // halves the ratio of the two
    } else {
        m_next = held ? m_next * kFactor : std::max(m_next / kFactor, m_least);
    }
}

std::optional<double> RateSearch::found() const {
    return m_held > 0.0 ? std::optional(m_held) : std::nullopt;
}

}  // namespace kelm::ctl

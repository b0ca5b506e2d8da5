#include "execution/LatencyDistribution.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

namespace kelm {

namespace {

// Bounds what a wild spread can draw, so that the conversion to a number of milliseconds holds.
constexpr double kLongestMs = 86'400'000.0;

bool isUsableSpread(double stddev) { return stddev > 0.0 && std::isfinite(stddev); }

}  // namespace

LatencyDistribution::LatencyDistribution(double meanMs, double stddevMs)
    : m_mean(meanMs),
      m_isConstant(!isUsableSpread(stddevMs)),
      // The library's distribution is undefined for a spread of 0: it then gets one that is unused.
      m_normal(meanMs, m_isConstant ? 1.0 : stddevMs) {}

long LatencyDistribution::draw(std::mt19937& engine) {
    const double latency = m_isConstant ? m_mean : m_normal(engine);
    // The lower end of a normal distribution reaches below 0; such a draw takes no time.
    if (!(latency > 0.0)) return 0;
    return std::lround(std::min(latency, kLongestMs));
}

// Sleeps the rest after a signal, which must not shorten a simulated inference.
void LatencyDistribution::sleep(long milliseconds) {
    if (milliseconds <= 0) return;
    timespec left{milliseconds / 1000, (milliseconds % 1000) * 1'000'000};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace kelm

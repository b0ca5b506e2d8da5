#pragma once

#include <random>

namespace kelm {

// A simulated latency in whole milliseconds around a mean. With a spread that is not above 0, or
// not finite, it is constant.
//
// Threads: none of its own; the owner guards it together with the engine.
class LatencyDistribution {
 public:
    LatencyDistribution(double meanMs, double stddevMs);

    // The next latency; 0 or less means none.
    long draw(std::mt19937& engine);

    // Sleeps that long, whatever signals arrive.
    static void sleep(long milliseconds);

 private:
    double m_mean;
    bool m_isConstant;
    std::normal_distribution<double> m_normal;
};

}  // namespace kelm

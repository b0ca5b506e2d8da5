#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "bench/ProcessCounts.h"
#include "utils/NonCopyable.h"

namespace kelm::bench {

struct ExchangeResult {
    double requestsPerSecond = 0.0;
    double medianMicros = 0.0;  // round trip to the last answer
};

// What one client process of an exchange saw.
struct Lane {
    static constexpr size_t kSamples = 1 << 16;

    void add(std::chrono::nanoseconds roundTrip);
    double medianMicros() const;

    uint64_t requests;
    ProcessCounts counts;                  // of the process for its requests, if it tells them
    std::array<uint32_t, kSamples> nanos;  // the last round trips
};

// A lane for each client, in memory that forked processes share. The parent reads once they ended.
class Lanes : public NonCopyable {
 public:
    explicit Lanes(int clients);
    ~Lanes();

    Lane& operator[](int client) { return m_lanes[client]; }
    uint64_t requests() const;
    ProcessCounts counts() const;
    // The rate of all, and the median of the first.
    ExchangeResult over(std::chrono::milliseconds time) const;

 private:
    const int m_clients;
    Lane* m_lanes;
};

}  // namespace kelm::bench

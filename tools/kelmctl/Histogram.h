#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

namespace kelm::ctl {

// Latencies in nanoseconds in a fixed piece of memory, each bucket within 1/64 of its values.
// A plain block without pointers, so that it may lie in memory shared between processes: one
// writer, any number of readers.
class Histogram {
 public:
    void add(uint64_t nanos);
    void addAll(const Histogram& other);
    // Takes away what was in an earlier copy of this one. The greatest value is then known to its
    // bucket only.
    void removeAll(const Histogram& earlier);
    void clear();

    uint64_t count() const { return m_count.load(std::memory_order_relaxed); }
    double mean() const;
    uint64_t max() const { return m_max.load(std::memory_order_relaxed); }
    // The value that the share `quantile` (0 to 1) of the entries does not exceed; 0 when empty.
    uint64_t percentile(double quantile) const;
    // The buckets that have entries, from the smallest: the greatest value that falls into each,
    // and how many have.
    std::vector<std::pair<uint64_t, uint64_t>> buckets() const;

 private:
    static constexpr int kSubBits = 6;
    static constexpr int kSubBuckets = 1 << kSubBits;
    static constexpr int kBuckets = (65 - kSubBits) * kSubBuckets;

    static int bucketOf(uint64_t nanos);
    static uint64_t upperBound(int bucket);

    // Atomics: the parent reads them for its progress line while the client counts.
    std::array<std::atomic<uint64_t>, kBuckets> m_buckets{};
    std::atomic<uint64_t> m_count{0};
    std::atomic<uint64_t> m_sum{0};
    std::atomic<uint64_t> m_max{0};
};

}  // namespace kelm::ctl

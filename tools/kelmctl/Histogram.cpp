#include "tools/kelmctl/Histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace kelm::ctl {

namespace {

// One writer: a plain read and write, without the cost of a locked instruction.
void increase(std::atomic<uint64_t>& value, uint64_t by) {
    value.store(value.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

}  // namespace

// Small values have a bucket each. Above, the bits below the leading kSubBits + 1 are dropped: each
// power of two has kSubBuckets buckets.
int Histogram::bucketOf(uint64_t nanos) {
    if (nanos < kSubBuckets) return static_cast<int>(nanos);
    const int shift = std::bit_width(nanos) - 1 - kSubBits;
    return (shift << kSubBits) + static_cast<int>(nanos >> shift);
}

// Undoes bucketOf(): the largest value of the bucket, so that a percentile is never told too small.
uint64_t Histogram::upperBound(int bucket) {
    if (bucket < 2 * kSubBuckets) return static_cast<uint64_t>(bucket);
    const int shift = (bucket >> kSubBits) - 1;
    const uint64_t sub = static_cast<uint64_t>(bucket - (shift << kSubBits));
    return ((sub + 1) << shift) - 1;
}

void Histogram::add(uint64_t nanos) {
    increase(m_buckets[static_cast<size_t>(bucketOf(nanos))], 1);
    increase(m_count, 1);
    increase(m_sum, nanos);
    if (nanos > max()) m_max.store(nanos, std::memory_order_relaxed);
}

void Histogram::addAll(const Histogram& other) {
    for (size_t i = 0; i < m_buckets.size(); ++i) {
        increase(m_buckets[i], other.m_buckets[i].load(std::memory_order_relaxed));
    }
    increase(m_count, other.count());
    increase(m_sum, other.m_sum.load(std::memory_order_relaxed));
    m_max.store(std::max(max(), other.max()), std::memory_order_relaxed);
}

// Counted anew: while another process adds, its sums and its buckets need not agree.
void Histogram::removeAll(const Histogram& earlier) {
    uint64_t left = 0;
    uint64_t highest = 0;
    for (int bucket = 0; bucket < kBuckets; ++bucket) {
        auto& entries = m_buckets[static_cast<size_t>(bucket)];
        entries -= earlier.m_buckets[static_cast<size_t>(bucket)].load();
        left += entries;
        if (entries > 0) highest = upperBound(bucket);
    }
    m_count = left;
    m_sum -= earlier.m_sum.load();
    m_max = std::min(highest, max());
}

void Histogram::clear() {
    for (auto& bucket : m_buckets) bucket.store(0, std::memory_order_relaxed);
    m_count = 0;
    m_sum = 0;
    m_max = 0;
}

double Histogram::mean() const {
    const uint64_t entries = count();
    if (entries == 0) return 0.0;
    return static_cast<double>(m_sum.load(std::memory_order_relaxed)) /
           static_cast<double>(entries);
}

// Never above the largest entry, which its bucket's bound may exceed.
uint64_t Histogram::percentile(double quantile) const {
    const uint64_t entries = count();
    if (entries == 0) return 0;
    const auto wanted = static_cast<uint64_t>(std::ceil(quantile * static_cast<double>(entries)));
    uint64_t seen = 0;
    for (int bucket = 0; bucket < kBuckets; ++bucket) {
        seen += m_buckets[static_cast<size_t>(bucket)].load(std::memory_order_relaxed);
        if (seen >= std::max<uint64_t>(wanted, 1)) return std::min(upperBound(bucket), max());
    }
    return max();
}

std::vector<std::pair<uint64_t, uint64_t>> Histogram::buckets() const {
    std::vector<std::pair<uint64_t, uint64_t>> filled;
    for (int bucket = 0; bucket < kBuckets; ++bucket) {
        const uint64_t entries = m_buckets[static_cast<size_t>(bucket)].load();
        if (entries > 0) filled.emplace_back(upperBound(bucket), entries);
    }
    return filled;
}

}  // namespace kelm::ctl

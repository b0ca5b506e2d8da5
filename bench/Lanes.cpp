#include "bench/Lanes.h"

#include <sys/mman.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace kelm::bench {

void Lane::add(std::chrono::nanoseconds roundTrip) {
    nanos[requests++ % kSamples] = static_cast<uint32_t>(roundTrip.count());
}

double Lane::medianMicros() const {
    const auto count = static_cast<std::ptrdiff_t>(std::min<uint64_t>(requests, kSamples));
    if (count == 0) return 0.0;
    std::vector<uint32_t> sorted(nanos.begin(), nanos.begin() + count);
    std::nth_element(sorted.begin(), sorted.begin() + count / 2, sorted.end());
    return sorted[static_cast<size_t>(count / 2)] / 1000.0;
}

// Zeroed pages are the initial state of every lane.
Lanes::Lanes(int clients) : m_clients(clients) {
    void* memory = ::mmap(nullptr, sizeof(Lane) * static_cast<size_t>(clients),
                          PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no memory for the lanes");
    m_lanes = static_cast<Lane*>(memory);
}

Lanes::~Lanes() { ::munmap(m_lanes, sizeof(Lane) * static_cast<size_t>(m_clients)); }

uint64_t Lanes::requests() const {
    uint64_t sum = 0;
    for (int i = 0; i < m_clients; ++i) sum += m_lanes[i].requests;
    return sum;
}

ProcessCounts Lanes::counts() const {
    ProcessCounts sum;
    for (int i = 0; i < m_clients; ++i) sum += m_lanes[i].counts;
    return sum;
}

ExchangeResult Lanes::over(std::chrono::milliseconds time) const {
    return {static_cast<double>(requests()) / std::chrono::duration<double>(time).count(),
            m_lanes[0].medianMicros()};
}

}  // namespace kelm::bench

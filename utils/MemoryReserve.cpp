#include "utils/MemoryReserve.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>
#include <utility>

#include "utils/Log.h"

namespace kelm {

namespace {

using Clock = std::chrono::steady_clock;

// Atomics: the handler runs on any thread, which may hold any lock.
std::atomic<void*> g_block{nullptr};
std::atomic<Clock::rep> g_nextAttempt{0};

constexpr std::chrono::milliseconds kRetryPause{10};

struct Wait {
    std::chrono::milliseconds limit = MemoryReserve::kUsualWait;
    Clock::time_point begin;
    Clock::time_point lastPause;
};
thread_local Wait t_wait;

// `new` tries again after it has returned.
void giveUp() {
    if (void* const block = g_block.exchange(nullptr)) return std::free(block);
    // The calls of one `new` follow each other closely.
    const auto now = Clock::now();
    if (now - t_wait.lastPause > 10 * kRetryPause) t_wait.begin = now;
    if (now - t_wait.begin >= t_wait.limit) throw std::bad_alloc();
    std::this_thread::sleep_for(kRetryPause);
    t_wait.lastPause = Clock::now();
}

// Never touched: it takes part of what the process may have, and no memory.
bool fill() {
    void* const block = std::malloc(MemoryReserve::kBytes);
    void* expected = nullptr;
    if (block != nullptr && g_block.compare_exchange_strong(expected, block)) return true;
    std::free(block);
    return expected != nullptr;
}

}  // namespace

void MemoryReserve::install() {
    (void)fill();
    std::set_new_handler(giveUp);
}

void MemoryReserve::renew() {
    if (g_block.load(std::memory_order_relaxed) != nullptr) return;
    const auto now = Clock::now().time_since_epoch().count();
    Clock::rep next = g_nextAttempt.load();
    constexpr Clock::rep kPause = std::chrono::nanoseconds(std::chrono::seconds(1)).count();
    if (now < next || !g_nextAttempt.compare_exchange_strong(next, now + kPause)) return;
    if (fill()) {
        LOG_WARN("memory is there again");
    } else {
        LOG_ERROR(
            "Error: there is no memory left; destroy graphs, or raise the limit of the unit or "
            "container");
    }
}

MemoryReserve::Patience::Patience(std::chrono::milliseconds limit)
    : m_before(std::exchange(t_wait.limit, limit)) {}
MemoryReserve::Patience::~Patience() { t_wait.limit = m_before; }

}  // namespace kelm

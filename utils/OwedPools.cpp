#include "utils/OwedPools.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <vector>

#include "utils/Mutex.h"
#include "utils/SerialPool.h"

namespace kelm {

namespace {

// How long one settling may keep the thread from its own work.
constexpr std::chrono::microseconds kSettleTime{50};
constexpr size_t kFirstRoom = 16;

struct Owed {
    std::vector<SerialPool*> pools;  // in the order in which they were filled; null: no longer owed
    bool settling = false;
};
thread_local Owed t_owed;

}  // namespace

OwedPools::Scope::Scope() { t_beforeWait = &OwedPools::handOver; }

OwedPools::Scope::~Scope() {
    handOver();
    t_beforeWait = nullptr;
}

void OwedPools::settle() {
    Owed& owed = t_owed;
    if (owed.pools.empty() || owed.settling) return;
    owed.settling = true;
    const auto deadline = std::chrono::steady_clock::now() + kSettleTime;
    // Helped pools fill others, which join the list's end.
    for (size_t next = 0; next < owed.pools.size(); ++next) {
        SerialPool* const pool = std::exchange(owed.pools[next], nullptr);
        if (pool == nullptr) continue;
        if (pool->canBeHelped()) {
            pool->help(deadline);
        } else {
            pool->handBack();
        }
    }
    owed.pools.clear();
    owed.settling = false;
}

// Also inside of a help: a task that has to wait after all must find its work under way.
void OwedPools::handOver() {
    for (SerialPool*& owed : t_owed.pools) {
        if (SerialPool* const pool = std::exchange(owed, nullptr)) pool->handBack();
    }
    if (!t_owed.settling) t_owed.pools.clear();
}

bool OwedPools::areSettled() {
    return t_owed.settling || std::ranges::all_of(t_owed.pools, std::logical_not<>());
}

// Room is made here: add() comes when the pool's turn is taken already, and must not fail.
bool OwedPools::canOwe() {
    if (t_beforeWait == nullptr) return false;  // without a Scope
    std::vector<SerialPool*>& pools = t_owed.pools;
    if (pools.size() < pools.capacity()) return true;
    try {
        pools.reserve(std::max(kFirstRoom, 2 * pools.size()));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void OwedPools::add(SerialPool& pool) { t_owed.pools.push_back(&pool); }

bool OwedPools::owes(const SerialPool& pool) {
    return std::ranges::find(t_owed.pools, &pool) != t_owed.pools.end();
}

bool OwedPools::remove(SerialPool& pool) {
    const auto entry = std::ranges::find(t_owed.pools, &pool);
    if (entry == t_owed.pools.end()) return false;
    *entry = nullptr;
    return true;
}

}  // namespace kelm

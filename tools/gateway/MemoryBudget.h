#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

#include "utils/NonCopyable.h"

namespace kelm::gateway {

// Memory that the texts of all requests share.
//
// Threads: any.
class MemoryBudget : public NonCopyable {
 public:
    explicit MemoryBudget(size_t bytes) : m_limit(bytes) {}

    // What one request holds of it, given back at its end. Threads: one. Borrows the budget.
    class Hold : public NonCopyable {
     public:
        explicit Hold(MemoryBudget& budget) : m_budget(budget) {}
        ~Hold() { clear(); }
        // False, and nothing is taken, if there are not so many bytes left.
        bool grow(size_t bytes) {
            if (bytes > m_budget.m_limit ||
                m_budget.m_held.fetch_add(bytes) > m_budget.m_limit - bytes) {
                m_budget.m_held -= bytes;
                return false;
            }
            m_bytes += bytes;
            return true;
        }
        void clear() { m_budget.m_held -= std::exchange(m_bytes, 0); }

     private:
        MemoryBudget& m_budget;
        size_t m_bytes = 0;
    };

    size_t held() const { return m_held; }

 private:
    const size_t m_limit;
    std::atomic<size_t> m_held{0};  // atomic: a sum, which guards nothing else
};

}  // namespace kelm::gateway

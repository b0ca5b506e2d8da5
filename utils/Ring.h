#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace kelm {

// A queue in one block that grows by doubling and keeps its slots, so that the steady state
// allocates nothing. Not thread-safe.
template <class T>
class Ring {
 public:
    bool empty() const { return m_count == 0; }
    size_t size() const { return m_count; }
    T& front() { return m_slots[m_head]; }
    const T& front() const { return m_slots[m_head]; }
    T& back() { return at(m_count - 1); }
    // The element at a distance from the front.
    T& at(size_t index) { return m_slots[(m_head + index) & mask()]; }
    const T& at(size_t index) const { return m_slots[(m_head + index) & mask()]; }

    void pushBack(T value) {
        growIfFull();
        m_slots[(m_head + m_count) & mask()] = std::move(value);
        ++m_count;
    }

    void pushFront(T value) {
        growIfFull();
        m_head = (m_head - 1) & mask();
        m_slots[m_head] = std::move(value);
        ++m_count;
    }

    T popFront() {
        T value = std::move(m_slots[m_head]);
        m_head = (m_head + 1) & mask();
        --m_count;
        return value;
    }

    // Gives back the memory of a burst: an empty ring of more than `slots` starts anew.
    void shrinkIfEmpty(size_t slots) {
        if (m_count != 0 || m_slots.size() <= slots) return;
        m_slots = std::vector<T>();
        m_head = 0;
    }

    void clear() { *this = Ring(); }
    void swap(Ring& other) noexcept {
        m_slots.swap(other.m_slots);
        std::swap(m_head, other.m_head);
        std::swap(m_count, other.m_count);
    }

 private:
    static constexpr size_t kFirstSlots = 16;

    size_t mask() const { return m_slots.size() - 1; }

    void growIfFull() {
        if (m_count < m_slots.size()) return;
        std::vector<T> slots(m_slots.empty() ? kFirstSlots : 2 * m_slots.size());
        for (size_t i = 0; i < m_count; ++i) slots[i] = std::move(m_slots[(m_head + i) & mask()]);
        m_slots.swap(slots);
        m_head = 0;
    }

    std::vector<T> m_slots;  // the size is 0 or a power of two
    size_t m_head = 0;
    size_t m_count = 0;
};

}  // namespace kelm

#pragma once

#include <array>
#include <cstddef>
#include <utility>

#include "scheduling/mapping/GraphItem.h"

namespace kelm {

// The places of one device: at most two graphs, and the second place is never taken without the
// first. Items are borrowed until they are erased.
class GraphSlots {
 public:
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    // Null for a place that is not taken.
    GraphItem* find(size_t slot) const { return slot < m_size ? m_items[slot] : nullptr; }
    GraphItem* const* begin() const { return m_items.data(); }
    GraphItem* const* end() const { return m_items.data() + m_size; }

    void clear() { m_size = 0; }
    void assign(GraphItem* first) {
        m_items[0] = first;
        m_size = 1;
    }
    void assign(GraphItem* first, GraphItem* second) {
        m_items = {first, second};
        m_size = 2;
    }
    // Puts a graph beside the one that is there.
    void setSecond(GraphItem* second) { assign(m_items[0], second); }
    void eraseSecond() {
        if (m_size == 2) m_size = 1;
    }
    void swapPlaces() { std::swap(m_items[0], m_items[1]); }
    // The graph of the second place moves up. Without effect on a graph that is not here.
    void erase(const GraphItem* item) {
        if (find(0) == item && m_size == 2) swapPlaces();
        if (m_size > 0 && m_items[m_size - 1] == item) --m_size;
    }

 private:
    std::array<GraphItem*, 2> m_items{};
    size_t m_size = 0;
};

}  // namespace kelm

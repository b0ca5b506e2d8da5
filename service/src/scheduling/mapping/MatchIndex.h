#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "scheduling/mapping/GraphItem.h"

namespace kelm {

// Graphs sorted by the fraction of a device that they still ask for, to find a partner without
// looking at all of them. A graph whose `devReqScaled` has been set to 0 counts as gone; no other
// change of it is allowed while the index lives. Graphs are borrowed for that time.
class MatchIndex {
 public:
    // In walk order; each asks for more than 0.
    explicit MatchIndex(const GraphItemSet& graphs);

    // The graph of the smallest fraction, the first in the walk among equals, or null.
    GraphItem* smallest();
    // The graph that together with `graph` comes nearest to one whole device, the first in the walk
    // among equals; null if none comes nearer than `graph` alone. Both must fit into `memSize`.
    GraphItem* nearest(const GraphItem& graph, uint32_t memSize);

 private:
    struct Entry {
        float fraction;
        uint32_t rank;  // place in the walk
        size_t groupBegin;
        size_t groupEnd;  // entries of the same fraction
        GraphItem* graph;
    };
    class Search;

    bool isGone(size_t index) const { return !(m_entries[index].graph->devReqScaled > 0.0f); }
    // The next entry that is not gone: at `index` or after it, else the size.
    size_t atOrAfter(size_t index);
    // The last entry that is not gone before `index`, plus one, or 0.
    size_t endBefore(size_t index);

    std::vector<Entry> m_entries;
    // Where to look next from an entry that is gone; shortened at each look.
    std::vector<size_t> m_after;
    std::vector<size_t> m_before;
};

}  // namespace kelm

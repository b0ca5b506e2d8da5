#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "scheduling/mapping/GraphItem.h"

namespace kelm {

// Graphs sorted by the fraction of a device that they still ask for, to find a partner without
// looking at all of them, and with a tree of the least memory above, so that partners that do not
// fit cost nothing either. A graph whose `devReqScaled` has been set to 0 is used up; no other
// change of a graph is allowed while the index lives. Graphs are borrowed for that time.
class MatchIndex {
 public:
    // In walk order; each asks for more than 0.
    explicit MatchIndex(const GraphItemSet& graphs);

    // The graph of the smallest fraction, the first in the walk among equals, or null.
    GraphItem* smallest();
    // The graph that together with `graph` comes nearest to one whole device, the first in the walk
    // among equals; null if none comes nearer than `graph` alone. Both must fit into `memSize`.
    // `graph` itself is no longer a partner for others from then on.
    GraphItem* nearest(const GraphItem& graph, uint32_t memSize);

 private:
    struct Entry {
        float fraction;
        uint32_t rank;  // place in the walk
        uint32_t groupBegin;
        uint32_t groupEnd;  // entries of the same fraction
        GraphItem* graph;
    };

    struct Query {
        uint64_t memory;          // that a graph may ask for at most
        const GraphItem* except;  // not a partner
    };

    void markGroups();
    void buildTree();
    // The first entry from `begin` on, and the last one before `end`, that answers the query;
    // kNone if there is none.
    size_t firstFitting(size_t begin, const Query& query);
    size_t lastFitting(size_t end, const Query& query);
    size_t search(size_t index, uint64_t memory, size_t side) const;
    // Erases an entry whose graph is used up; false if it is not.
    bool eraseIfUsedUp(size_t index, const GraphItem* except);

    std::vector<Entry> m_entries;
    size_t m_leaves = 1;            // a power of two
    std::vector<uint64_t> m_least;  // least memory below each node; node 1 is the root
};

}  // namespace kelm

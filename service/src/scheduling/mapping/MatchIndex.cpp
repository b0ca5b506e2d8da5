#include "scheduling/mapping/MatchIndex.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace kelm {

MatchIndex::MatchIndex(const GraphItemSet& graphs) {
    m_entries.reserve(graphs.size());
    for (GraphItem* graph : graphs) {
        m_entries.push_back(
            {graph->devReqScaled, static_cast<uint32_t>(m_entries.size()), 0, 0, graph});
    }
    std::sort(m_entries.begin(), m_entries.end(), [](const Entry& left, const Entry& right) {
        return left.fraction != right.fraction ? left.fraction < right.fraction
                                               : left.rank < right.rank;
    });
    for (size_t begin = 0, end = 0; begin < m_entries.size(); begin = end) {
        while (end < m_entries.size() && m_entries[end].fraction == m_entries[begin].fraction)
            ++end;
        for (size_t i = begin; i < end; ++i) {
            m_entries[i].groupBegin = begin;
            m_entries[i].groupEnd = end;
        }
    }
    m_after.resize(m_entries.size() + 1);
    std::iota(m_after.begin(), m_after.end(), size_t{0});
    m_before = m_after;
}

size_t MatchIndex::atOrAfter(size_t index) {
    while (index < m_entries.size()) {
        if (m_after[index] == index) {
            if (!isGone(index)) return index;
            m_after[index] = index + 1;
        }
        m_after[index] = m_after[m_after[index]];
        index = m_after[index];
    }
    return m_entries.size();
}

size_t MatchIndex::endBefore(size_t index) {
    while (index > 0) {
        if (m_before[index] == index) {
            if (!isGone(index - 1)) return index;
            m_before[index] = index - 1;
        }
        m_before[index] = m_before[m_before[index]];
        index = m_before[index];
    }
    return 0;
}

GraphItem* MatchIndex::smallest() {
    const size_t first = atOrAfter(0);
    return first < m_entries.size() ? m_entries[first].graph : nullptr;
}

// One search for a partner: the best seen so far, and what a candidate must do to beat it.
class MatchIndex::Search {
 public:
    Search(MatchIndex& index, const GraphItem& graph, uint32_t memSize)
        : m_index(index),
          m_graph(graph),
          m_memSize(memSize),
          m_best(std::fabs(1.0f - graph.devReqScaled)) {}

    // Looks at the graphs of one fraction. False: too far off already, and so are all beyond it.
    bool visitGroup(const Entry& group) {
        const float distance = std::fabs(m_graph.devReqScaled + group.fraction - 1.0f);
        if (distance > m_best || (m_chosen == nullptr && distance == m_best)) return false;
        const Entry* candidate = firstFitting(group);
        if (candidate == nullptr) return true;
        // Sums of different fractions may round to the same distance: then the walk decides.
        if (m_chosen == nullptr || distance < m_best || candidate->rank < m_chosen->rank) {
            m_chosen = candidate;
            m_best = distance;
        }
        return true;
    }

    GraphItem* chosen() const { return m_chosen != nullptr ? m_chosen->graph : nullptr; }

 private:
    const Entry* firstFitting(const Entry& group) {
        for (size_t i = m_index.atOrAfter(group.groupBegin); i < group.groupEnd;
             i = m_index.atOrAfter(i + 1)) {
            const Entry& entry = m_index.m_entries[i];
            if (entry.graph == &m_graph) continue;
            if (uint64_t{entry.graph->memReq} + m_graph.memReq <= m_memSize) return &entry;
        }
        return nullptr;
    }

    MatchIndex& m_index;
    const GraphItem& m_graph;
    const uint32_t m_memSize;
    float m_best;
    const Entry* m_chosen = nullptr;
};

GraphItem* MatchIndex::nearest(const GraphItem& graph, uint32_t memSize) {
    // The sum grows with the fraction, so the distance from one device only grows to either side
    // of the place where the sum passes it.
    const auto middle = std::partition_point(
        m_entries.begin(), m_entries.end(),
        [&](const Entry& entry) { return graph.devReqScaled + entry.fraction <= 1.0f; });
    const size_t split = static_cast<size_t>(middle - m_entries.begin());
    Search search(*this, graph, memSize);
    for (size_t end = endBefore(split); end > 0; end = endBefore(m_entries[end - 1].groupBegin)) {
        if (!search.visitGroup(m_entries[end - 1])) break;
    }
    for (size_t i = atOrAfter(split); i < m_entries.size(); i = atOrAfter(m_entries[i].groupEnd)) {
        if (!search.visitGroup(m_entries[i])) break;
    }
    return search.chosen();
}

}  // namespace kelm

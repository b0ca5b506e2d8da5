#include "scheduling/mapping/MatchIndex.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace kelm {

namespace {

constexpr size_t kNone = std::numeric_limits<size_t>::max();
constexpr uint64_t kNothingHere = std::numeric_limits<uint64_t>::max();
constexpr uint64_t kAnyMemory = std::numeric_limits<uint32_t>::max();

}  // namespace

// By fraction, then by place in the walk: the first entry of a group is the one that wins among
// equals.
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
    markGroups();
    buildTree();
}

// Entries of one fraction are equally near to any graph: a search looks at the first of them that
// fits, and then skips the group.
void MatchIndex::markGroups() {
    const size_t size = m_entries.size();
    for (size_t begin = 0, end = 0; begin < size; begin = end) {
        while (end < size && m_entries[end].fraction == m_entries[begin].fraction) ++end;
        for (size_t i = begin; i < end; ++i) {
            m_entries[i].groupBegin = static_cast<uint32_t>(begin);
            m_entries[i].groupEnd = static_cast<uint32_t>(end);
        }
    }
}

// A segment tree: leaf i is entry i, a node holds the least memory below it, so a search skips
// whole ranges in which no graph fits. Leaves beyond the entries fit nothing.
void MatchIndex::buildTree() {
    m_leaves = std::bit_ceil(std::max<size_t>(m_entries.size(), 1));
    m_least.assign(2 * m_leaves, kNothingHere);
    for (size_t i = 0; i < m_entries.size(); ++i) {
        m_least[m_leaves + i] = m_entries[i].graph->memReq;
    }
    for (size_t node = m_leaves - 1; node > 0; --node) {
        m_least[node] = std::min(m_least[2 * node], m_least[2 * node + 1]);
    }
}

// Lazily, when a search meets the entry: the planner does not tell the index what it uses up. Each
// entry is erased once, so that all erasing together costs no more than building the tree.
bool MatchIndex::eraseIfUsedUp(size_t index, const GraphItem* except) {
    const GraphItem* graph = m_entries[index].graph;
    if (graph != except && graph->devReqScaled > 0.0f) return false;
    size_t node = m_leaves + index;
    m_least[node] = kNothingHere;
    for (node /= 2; node > 0; node /= 2) {
        m_least[node] = std::min(m_least[2 * node], m_least[2 * node + 1]);
    }
    return true;
}

// Searches again after each erased entry. The search itself changes nothing.
size_t MatchIndex::firstFitting(size_t begin, const Query& query) {
    if (begin >= m_entries.size()) return kNone;
    size_t index = search(begin, query.memory, 1);
    while (index != kNone && eraseIfUsedUp(index, query.except)) {
        index = search(index, query.memory, 1);
    }
    return index;
}

size_t MatchIndex::lastFitting(size_t end, const Query& query) {
    if (end == 0) return kNone;
    size_t index = search(end - 1, query.memory, 0);
    while (index != kNone && eraseIfUsedUp(index, query.except)) {
        index = search(index, query.memory, 0);
    }
    return index;
}

// The nearest entry to the right (side 1) or to the left (side 0), the one at `index` included.
size_t MatchIndex::search(size_t index, uint64_t memory, size_t side) const {
    size_t node = m_leaves + index;
    while (m_least[node] > memory) {
        // Up, until there is a sibling further on, then over to that: nothing below this node fits.
        while (node % 2 == side) node /= 2;
        if (node <= 1) return kNone;
        node = side == 1 ? node + 1 : node - 1;
    }
    // Down again to the nearest leaf that fits; there is one, or the loop above had not ended.
    while (node < m_leaves) {
        const size_t nearer = 2 * node + 1 - side;
        node = m_least[nearer] <= memory ? nearer : 2 * node + side;
    }
    return node - m_leaves;
}

// Whatever its memory: it is the first graph of its device.
GraphItem* MatchIndex::smallest() {
    const size_t index = firstFitting(0, {kAnyMemory, nullptr});
    return index != kNone ? m_entries[index].graph : nullptr;
}

GraphItem* MatchIndex::nearest(const GraphItem& graph, uint32_t memSize) {
    if (graph.memReq > memSize) return nullptr;  // or the subtraction would wrap around
    const Query query{uint64_t{memSize} - graph.memReq, &graph};
    const Entry* chosen = nullptr;
    float best = std::fabs(1.0f - graph.devReqScaled);
    // Looks at the graphs of one fraction. False: too far off already, and so are all beyond it.
    const auto offerGroup = [&](const Entry& group) {
        const float distance = std::fabs(graph.devReqScaled + group.fraction - 1.0f);
        if (distance > best || (chosen == nullptr && distance == best)) return false;
        // There is one: the search has just met an entry of this group that fits.
        const Entry& first = m_entries[firstFitting(group.groupBegin, query)];
        // Sums of different fractions may round to the same distance: then the walk decides.
        if (chosen == nullptr || distance < best || first.rank < chosen->rank) chosen = &first;
        best = distance;
        return true;
    };
    // The sum grows with the fraction, so the distance from one device only grows to either side
    // of the place where the sum passes it.
    const auto middle = std::partition_point(
        m_entries.begin(), m_entries.end(),
        [&](const Entry& entry) { return graph.devReqScaled + entry.fraction <= 1.0f; });
    const size_t split = static_cast<size_t>(middle - m_entries.begin());
    for (size_t i = lastFitting(split, query); i != kNone;
         i = lastFitting(m_entries[i].groupBegin, query)) {
        if (!offerGroup(m_entries[i])) break;
    }
    for (size_t i = firstFitting(split, query); i != kNone;
         i = firstFitting(m_entries[i].groupEnd, query)) {
        if (!offerGroup(m_entries[i])) break;
    }
    return chosen != nullptr ? chosen->graph : nullptr;
}

}  // namespace kelm

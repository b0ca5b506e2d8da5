#include "scheduling/devices/CacheAdjustment.h"

#include <map>
#include <utility>

namespace kelm {

// A worker whose cache is of no use waits at the end and takes what is left. Before `next` stand
// the workers that have their graphs, behind `tail` those whose cache was of no use.
bool CacheAdjustment::exchangeGraphs(std::vector<WorkerState>& states) {
    bool changed = false;
    size_t tail = states.size() - 1;
    size_t next = 0;
    while (next < states.size()) {
        KelmGraph* const chosen = chooseScarcest(states, next);
        if (chosen != nullptr) {
            changed |= takeGraphs(states, next, chosen);
            ++next;
            continue;
        }
        if (tail <= next) break;
        std::swap(states[next], states[tail]);
        --tail;
    }
    return changed;
}

// Of the graphs that the first of the open workers has cached and that are to be placed, the one
// that the fewest open workers have cached. It has the fewest chances to land where it is cached,
// so it is served first.
KelmGraph* CacheAdjustment::chooseScarcest(const std::vector<WorkerState>& states, size_t first) {
    std::map<KelmGraph*, size_t> count;
    for (size_t open = first; open < states.size(); ++open) {
        for (KelmGraph* graph : states[open].graphs) count[graph] = 0;
    }
    for (size_t open = first; open < states.size(); ++open) {
        for (KelmGraph* graph : states[open].cachedGraphs) {
            if (const auto entry = count.find(graph); entry != count.end()) ++entry->second;
        }
    }
    auto scarcest = count.end();
    for (KelmGraph* graph : states[first].cachedGraphs) {
        const auto entry = count.find(graph);
        if (entry == count.end()) continue;
        if (scarcest == count.end() || entry->second < scarcest->second) scarcest = entry;
    }
    return scarcest != count.end() ? scarcest->first : nullptr;
}

// Exchanges the sets of the taker and of the first open worker that has the graph.
bool CacheAdjustment::takeGraphs(std::vector<WorkerState>& states, size_t taker, KelmGraph* graph) {
    for (size_t holder = taker; holder < states.size(); ++holder) {
        if (!states[holder].graphs.contains(graph)) continue;
        if (holder == taker) return false;
        std::swap(states[taker].graphs, states[holder].graphs);
        return true;
    }
    return false;
}

}  // namespace kelm

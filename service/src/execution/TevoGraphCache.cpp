#include "execution/TevoGraphCache.h"

#include <utility>

#include "records/KelmGraph.h"

namespace kelm {

using Clock = std::chrono::steady_clock;

bool TevoGraphCache::activate(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return false;
    entry->second.active = true;
    entry->second.lastActivateTime = Clock::now();
    graph->appendRunningDevice(m_device);
    return true;
}

// The record is told under the lock, or a thread that loses the device could take the name off it
// before it was entered.
bool TevoGraphCache::insert(KelmGraph* graph, const TevoQueues& queues) {
    MutexLock lock(m_mutex);
    if (m_closed) return false;
    TevoGraphInfo& info = m_cachedGraphs[graph];
    info.queues = queues;
    info.lastActivateTime = Clock::now();
    graph->appendCachedDevice(m_device);
    graph->appendRunningDevice(m_device);
    return true;
}

// A copy, whose ledger outlives the entry: a thread may still wait in it when the graph is taken.
std::optional<TevoQueues> TevoGraphCache::find(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return std::nullopt;
    return entry->second.queues;
}

// The ledger stays: it is replaced together with the handles by renew().
std::optional<TevoHandles> TevoGraphCache::takeHandles(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return std::nullopt;
    return std::exchange(entry->second.queues.handles, {});
}

bool TevoGraphCache::renew(KelmGraph* graph, const TevoQueues& queues) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return false;
    entry->second.queues = queues;
    return true;
}

// The device goes on counting as one that has the graph: its memory is still taken.
void TevoGraphCache::deactivate(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return;
    entry->second.active = false;
    graph->removeRunningDevice(m_device);
}

// Closing the ledger frees an input thread that waits for room in the queues that end here.
TevoHandles TevoGraphCache::takeUnsafe(Entry entry) {
    KelmGraph* const graph = entry->first;
    graph->removeCachedDevice(m_device);
    graph->removeRunningDevice(m_device);
    entry->second.queues.ledger->close();
    const TevoHandles handles = entry->second.queues.handles;
    m_cachedGraphs.erase(entry);
    return handles;
}

std::optional<TevoHandles> TevoGraphCache::take(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return std::nullopt;
    return takeUnsafe(entry);
}

// By the time of activation and not of the unload: the squeeze scheduler shifts graphs to and fro,
// and an unload says little of how long ago a graph was wanted.
std::optional<TevoHandles> TevoGraphCache::takeOldestInactive(std::string& name) {
    MutexLock lock(m_mutex);
    Entry oldest = m_cachedGraphs.end();
    for (Entry entry = m_cachedGraphs.begin(); entry != m_cachedGraphs.end(); ++entry) {
        if (entry->second.active) continue;
        const bool isOlder = oldest == m_cachedGraphs.end() ||
                             entry->second.lastActivateTime < oldest->second.lastActivateTime;
        if (isOlder) oldest = entry;
    }
    if (oldest == m_cachedGraphs.end()) return std::nullopt;
    name = oldest->first->getName();
    return takeUnsafe(oldest);
}

void TevoGraphCache::forget(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry != m_cachedGraphs.end()) m_forgotten.push_back(takeUnsafe(entry));
}

// takeUnsafe() erases the entry, so the first one is another each time.
void TevoGraphCache::forgetAllUnsafe() {
    while (!m_cachedGraphs.empty()) m_forgotten.push_back(takeUnsafe(m_cachedGraphs.begin()));
}

void TevoGraphCache::forgetAll() {
    MutexLock lock(m_mutex);
    forgetAllUnsafe();
}

// For good: a load that is still inside of the library must not enter its graph afterwards.
void TevoGraphCache::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
    forgetAllUnsafe();
}

// Forgotten ones first. By now no record is followed: the keys may be dangling.
std::vector<TevoHandles> TevoGraphCache::takeAll() {
    MutexLock lock(m_mutex);
    std::vector<TevoHandles> all = std::exchange(m_forgotten, {});
    for (const auto& [graph, info] : m_cachedGraphs) all.push_back(info.queues.handles);
    m_cachedGraphs.clear();
    return all;
}

std::vector<KelmGraph*> TevoGraphCache::getGraphs() {
    MutexLock lock(m_mutex);
    std::vector<KelmGraph*> graphs;
    for (const auto& [graph, info] : m_cachedGraphs) graphs.push_back(graph);
    return graphs;
}

std::vector<std::string> TevoGraphCache::getNames() {
    MutexLock lock(m_mutex);
    std::vector<std::string> names;
    for (const auto& [graph, info] : m_cachedGraphs) names.push_back(graph->getName());
    return names;
}

size_t TevoGraphCache::getSize() {
    MutexLock lock(m_mutex);
    return m_cachedGraphs.size();
}

}  // namespace kelm

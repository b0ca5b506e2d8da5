#include "execution/TevoGraphCache.h"

#include <algorithm>
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

bool TevoGraphCache::insert(KelmGraph* graph, const TevoHandles& handles) {
    MutexLock lock(m_mutex);
    if (m_closed) return false;
    TevoGraphInfo& info = m_cachedGraphs[graph];
    info.handles = handles;
    info.lastActivateTime = Clock::now();
    graph->appendCachedDevice(m_device);
    graph->appendRunningDevice(m_device);
    return true;
}

std::optional<TevoHandles> TevoGraphCache::find(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return std::nullopt;
    return entry->second.handles;
}

void TevoGraphCache::deactivate(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return;
    entry->second.active = false;
    graph->removeRunningDevice(m_device);
}

TevoHandles TevoGraphCache::takeUnsafe(Entry entry) {
    KelmGraph* const graph = entry->first;
    graph->removeCachedDevice(m_device);
    graph->removeRunningDevice(m_device);
    const TevoHandles handles = entry->second.handles;
    m_cachedGraphs.erase(entry);
    return handles;
}

std::optional<TevoHandles> TevoGraphCache::take(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return std::nullopt;
    return takeUnsafe(entry);
}

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

void TevoGraphCache::forgetAllUnsafe() {
    while (!m_cachedGraphs.empty()) m_forgotten.push_back(takeUnsafe(m_cachedGraphs.begin()));
}

void TevoGraphCache::forgetAll() {
    MutexLock lock(m_mutex);
    forgetAllUnsafe();
}

void TevoGraphCache::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
    forgetAllUnsafe();
}

std::vector<TevoHandles> TevoGraphCache::takeAll() {
    MutexLock lock(m_mutex);
    std::vector<TevoHandles> all = std::exchange(m_forgotten, {});
    for (const auto& [graph, info] : m_cachedGraphs) all.push_back(info.handles);
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

void TevoGraphCache::addOrphan(KelmGraph* graph, unsigned long taskId) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry != m_cachedGraphs.end()) entry->second.orphans.push_back(taskId);
}

// The task may have been offered again since, with its id twice in the queue. The one that came
// first is the orphan's, since the queue keeps the order.
bool TevoGraphCache::takeOrphan(KelmGraph* graph, unsigned long taskId) {
    MutexLock lock(m_mutex);
    const Entry entry = m_cachedGraphs.find(graph);
    if (entry == m_cachedGraphs.end()) return false;
    std::vector<unsigned long>& orphans = entry->second.orphans;
    const auto orphan = std::find(orphans.begin(), orphans.end(), taskId);
    if (orphan == orphans.end()) return false;
    orphans.erase(orphan);
    return true;
}

}  // namespace kelm

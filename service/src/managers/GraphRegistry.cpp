#include "managers/GraphRegistry.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "records/KelmGraph.h"

namespace kelm {

GraphRegistry::GraphRegistry(uint64_t limit, bool byName) : m_limit(limit), m_byName(byName) {}
GraphRegistry::~GraphRegistry() { close(); }

KelmGraph* GraphRegistry::find(uint64_t id) const {
    const auto graph = m_named.find(id);
    return graph != m_named.end() ? graph->second : nullptr;
}

KelmGraph* GraphRegistry::findTwin(Phase phase, const KelmMsgReqCreateGraph& wanted,
                                   const std::string& hash) const {
    for (const auto& [graph, entry] : m_entries) {
        if (entry.phase == phase && isTwin(*graph, wanted, hash)) return graph;
    }
    return nullptr;
}

bool GraphRegistry::isTwin(KelmGraph& graph, const KelmMsgReqCreateGraph& wanted,
                           const std::string& hash) const {
    return graph.getHash() == hash && graph.getTag() == wanted.graphTag &&
           graph.getStreamId() == wanted.streamId &&
           graph.getInterfaceSubclass() == wanted.subclass &&
           (!m_byName || graph.getName() == wanted.graphName);
}

std::vector<KelmGraph*> GraphRegistry::getAll(Phase phase) const {
    std::vector<KelmGraph*> graphs;
    for (const auto& [graph, entry] : m_entries) {
        if (entry.phase == phase) graphs.push_back(graph);
    }
    return graphs;
}

std::vector<KelmGraph*> GraphRegistry::getNamed() const {
    std::vector<KelmGraph*> graphs;
    for (const auto& [id, graph] : m_named) graphs.push_back(graph);
    return graphs;
}

KelmGraph* GraphRegistry::enter(std::unique_ptr<KelmGraph> record) {
    KelmGraph* const graph = record.get();
    const auto entry = m_entries.emplace(graph, Entry{std::move(record)}).first;
    try {
        m_named.emplace(graph->getId(), graph);
    } catch (...) {
        m_entries.erase(entry);
        throw;
    }
    ++m_count;
    return graph;
}

bool GraphRegistry::isLoading(KelmGraph* graph) const {
    const auto entry = m_entries.find(graph);
    return entry != m_entries.end() && entry->second.phase == LOADING;
}

bool GraphRegistry::mayWait(KelmGraph* graph, int socket) const {
    const Requests& waiting = m_entries.at(graph).waiting;
    return std::ranges::count(waiting, socket, &Request::getSocket) < kMostWaiting;
}

void GraphRegistry::addWaiting(KelmGraph* graph, Request request) {
    m_entries.at(graph).waiting.push_back(std::move(request));
}

GraphRegistry::Requests GraphRegistry::takeWaiting(
    const std::function<bool(const Request&)>& isOver) {
    Requests taken;
    for (auto& [graph, entry] : m_entries) {
        Requests& waiting = entry.waiting;
        const auto over =
            std::stable_partition(waiting.begin(), waiting.end(), std::not_fn(isOver));
        taken.insert(taken.end(), std::move_iterator(over), std::move_iterator(waiting.end()));
        waiting.erase(over, waiting.end());
    }
    return taken;
}

// No client has been told the id of one that failed, but one can guess it: a task may refer to the
// record, which therefore stays.
GraphRegistry::Requests GraphRegistry::endLoad(KelmGraph* graph, bool failed) {
    Entry& entry = m_entries.at(graph);
    entry.phase = failed ? FAILED : LOADED;
    if (failed) {
        m_named.erase(graph->getId());
        --m_count;
    }
    return std::exchange(entry.waiting, {});
}

GraphRegistry::Requests GraphRegistry::depart(KelmGraph* graph) {
    Entry& entry = m_entries.at(graph);
    entry.phase = DEPARTING;
    m_named.erase(graph->getId());
    return std::exchange(entry.waiting, {});
}

std::unique_ptr<KelmGraph> GraphRegistry::confirm(KelmGraph* graph, Confirmation confirmation) {
    const auto entry = m_entries.find(graph);
    if (entry == m_entries.end() || entry->second.phase != DEPARTING) return nullptr;
    entry->second.confirmations |= confirmation;
    if (entry->second.confirmations != (UNLOADED | ALL_TASKS_DONE)) return nullptr;
    --m_count;
    return remove(graph);
}

std::unique_ptr<KelmGraph> GraphRegistry::takeFailed(KelmGraph* graph) {
    const auto entry = m_entries.find(graph);
    if (entry == m_entries.end() || entry->second.phase != FAILED) return nullptr;
    return remove(graph);
}

std::unique_ptr<KelmGraph> GraphRegistry::remove(KelmGraph* graph) {
    return std::move(m_entries.extract(graph).mapped().record);
}

void GraphRegistry::close() {
    for (auto& [graph, entry] : m_entries) {
        if (entry.phase != LOADED) (void)entry.record.release();
    }
    m_entries.clear();
    m_named.clear();
}

}  // namespace kelm

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "records/Request.h"
#include "utils/NonCopyable.h"

namespace kelm {

class KelmGraph;

// The records of all graphs, each in one phase:
//
//   LOADING -> LOADED                its first load has succeeded
//   LOADING -> FAILED                its first load has failed
//   LOADING or LOADED -> DEPARTING   no client uses it any more, or the service stops
//   FAILED -> deleted                no task refers to it
//   DEPARTING -> deleted             no device holds it and no task refers to it, confirmed in
//                                    either order
//
// Clients can name a graph while it is loading or loaded.
//
// Threads: guarded by the mutex of its owner.
// Owns: the records, and the create requests that wait for the outcome of a load.
class GraphRegistry : public NonCopyable {
 public:
    enum Phase { LOADING, LOADED, FAILED, DEPARTING };
    enum Confirmation { UNLOADED = 1, ALL_TASKS_DONE = 2 };
    using Requests = std::vector<Request>;
    static constexpr int kMostWaiting = 64;  // of one connection, for one graph

    // At most so many graphs that have not failed. `byName`: twins have the same name, too.
    GraphRegistry(uint64_t limit, bool byName);
    ~GraphRegistry();

    bool isFull() const { return m_count == m_limit; }
    bool isEmpty() const { return m_entries.empty(); }
    size_t size() const { return m_entries.size(); }  // with those that have failed or depart
    // Null for a graph that clients cannot name.
    KelmGraph* find(uint64_t id) const;
    // A graph in that phase that does as well as the one asked for, or null.
    KelmGraph* findTwin(Phase phase, const KelmMsgReqCreateGraph& wanted,
                        const std::string& hash) const;
    std::vector<KelmGraph*> getAll(Phase phase) const;
    // All that clients can name, in the order of their ids.
    std::vector<KelmGraph*> getNamed() const;

    // The record begins to load.
    KelmGraph* enter(std::unique_ptr<KelmGraph> record);
    bool isLoading(KelmGraph* graph) const;
    // Whether one more request of the connection may wait for the graph.
    bool mayWait(KelmGraph* graph, int socket) const;
    void addWaiting(KelmGraph* graph, Request request);
    // The waiting requests that are not to be answered any more.
    Requests takeWaiting(const std::function<bool(const Request&)>& isOver);
    // The load of a graph that is loading has ended. Returns the requests that wait for that.
    Requests endLoad(KelmGraph* graph, bool failed);
    // The same requests, if it was loading.
    Requests depart(KelmGraph* graph);
    // The record, when the confirmation was the last that it has waited for.
    std::unique_ptr<KelmGraph> confirm(KelmGraph* graph, Confirmation confirmation);
    // The record, if its load has failed: no task refers to it any more.
    std::unique_ptr<KelmGraph> takeFailed(KelmGraph* graph);

    // Deletes the loaded graphs and leaves the others behind: a device may still read them.
    void close();

 private:
    struct Entry {
        std::unique_ptr<KelmGraph> record;
        Phase phase = LOADING;
        Requests waiting{};
        int confirmations = 0;
    };

    bool isTwin(KelmGraph& graph, const KelmMsgReqCreateGraph& wanted,
                const std::string& hash) const;
    std::unique_ptr<KelmGraph> remove(KelmGraph* graph);

    const uint64_t m_limit;
    const bool m_byName;
    uint64_t m_count = 0;  // of records that have not failed
    std::map<KelmGraph*, Entry> m_entries;
    std::map<uint64_t, KelmGraph*> m_named;
};

}  // namespace kelm

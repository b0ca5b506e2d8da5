#pragma once

#include <cstdint>
#include <map>

namespace kelm {

class KelmGraph;

// Which departing clients and graphs wait for the end of their last task, and how many tasks each
// still has. A count is made when the departure is announced and lowered with the end of each task;
// it never rises, since a departing client creates no task and a departing graph is found by none.
//
// Not thread-safe: the registry of tasks guards it with its mutex.
class TaskDepartures {
 public:
    // Whether a count of the client's tasks is under way.
    bool hasClient(uint64_t clientId) const { return m_clientCounts.contains(clientId); }
    // The same for a client that stays but has given up a graph that it shared: its tasks of before
    // are canceled, and a second notice of that kind must not cancel those of after.
    bool hasGivenUp(uint64_t clientId) const { return m_givenUpCounts.contains(clientId); }
    // Starts a count, of which 0 is none.
    void addClient(uint64_t clientId, int32_t tasks);
    void addGivenUp(uint64_t clientId, int32_t tasks);
    // False for a graph that departs already.
    bool addGraph(KelmGraph* graph, int32_t tasks);

    // One task less. Each true when it was the last that a departure waited for; that of a graph
    // also waits for the task scheduler.
    struct Done {
        bool client = false;
        bool graph = false;
    };
    Done removeTask(uint64_t clientId, bool givenUp, KelmGraph* graph);
    // The task scheduler holds nothing of the graph any more. True if no task is left either.
    bool confirmDescheduled(KelmGraph* graph);

 private:
    struct GraphCount {
        bool descheduled = false;
        int32_t tasks = 0;
    };

    std::map<uint64_t, int32_t> m_clientCounts;
    std::map<uint64_t, int32_t> m_givenUpCounts;
    std::map<KelmGraph*, GraphCount> m_graphCounts;
};

}  // namespace kelm

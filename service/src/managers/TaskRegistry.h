#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "managers/TaskDepartures.h"
#include "protocol/src/KelmError.h"
#include "protocol/src/MessagePtr.h"
#include "records/Request.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/RecycledMap.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmGraph;
class KelmTask;

// Every task of the service from its creation to its deletion, with the requests that wait for what
// the task scheduler says of it.
//
// A task is live, then ended (no client can name it any more), then dying (in no list but the one
// of those that still count), then deleted. One that is pinned stays ended until the last pin is
// taken off: a pin stands for an answer of the task scheduler that will name the task, whose
// address, from a free list, could otherwise be that of another one by then.
//
// Threads: any. Owns: the tasks until end() or unpin() gives them out, and the waiting requests.
// Locks: m_mutex, then a task's.
class TaskRegistry : public NonCopyable {
 public:
    // A task out of all lists, for its last owner to delete; counts for its client and its graph
    // until removed().
    struct DyingTask {
        KelmTask* task;
        uint64_t id;
        uint64_t clientId;
        KelmGraph* graph;
        bool givenUp;         // its client has given up a graph and stays
        std::string summary;  // empty unless the log wants it
    };

    // `trace` is the manager's.
    explicit TaskRegistry(StepTrace trace) : m_trace(std::move(trace)) {}
    ~TaskRegistry();

    // Enters a task with a pin, and the request that wants to know whether it was accepted.
    void enter(KelmTask* task, Request request) EXCLUDES(m_mutex);
    // -1: no such task; -2: its request is not waiting; 0 with the request.
    int takeScheduleRequest(KelmTask* task, Request& request) EXCLUDES(m_mutex);

    // Pins the task that the request names, if it is the client's, and keeps the request until the
    // scheduler has answered; else null with the error, and the request stays the caller's.
    KelmTask* pinForCancel(uint64_t clientId, Request& request, KelmError& error) EXCLUDES(m_mutex);
    // The oldest one of the task; false if there is none.
    bool takeCancelRequest(KelmTask* task, Request& request) EXCLUDES(m_mutex);

    // -1 with the error for a task that is not the client's.
    int32_t getStatus(uint64_t clientId, uint64_t taskId, KelmError& error) EXCLUDES(m_mutex);
    // Whether the task is in here. A pointer that is not may be that of a deleted task.
    bool verify(KelmTask* task) EXCLUDES(m_mutex);
    // The create response of the task is out: what its done message has waited for, if it was held.
    MessagePtr takeHeldMessage(uint64_t taskId, KelmTask*& task) EXCLUDES(m_mutex);

    // The task has ended. Nothing if it is unknown, or stays for its pins.
    std::optional<DyingTask> end(KelmTask* task) EXCLUDES(m_mutex);
    // An answer of the scheduler has come. Nothing unless the task only waited for that.
    std::optional<DyingTask> unpin(KelmTask* task) EXCLUDES(m_mutex);
    // The task is deleted: tells whether it was the last one of its client and of its graph.
    TaskDepartures::Done removed(const DyingTask& dying) EXCLUDES(m_mutex);

    // Cancels all tasks of a client that departs, or that stays and has given up a graph. Returns
    // how many a departing one still has, or -1 if they are being counted already; `finished` gets
    // those that have run and that only their done message kept, which will not be sent.
    int cancelTasksOf(uint64_t clientId, bool departing, std::vector<KelmTask*>& finished)
        EXCLUDES(m_mutex);
    // The same for a graph that departs; false if it does so already.
    bool cancelTasksOf(KelmGraph* graph) EXCLUDES(m_mutex);
    // The scheduler holds nothing of the graph any more. True if no task of it is left either.
    bool confirmDescheduled(KelmGraph* graph) EXCLUDES(m_mutex);

 private:
    struct TaskState {
        int32_t pins = 0;
        bool ended = false;
        bool givenUp = false;
    };
    // What of a dying task still counts.
    struct Remains {
        uint64_t id;
        uint64_t clientId;
        KelmGraph* graph;
    };

    KelmTask* findTaskOfClientUnsafe(uint64_t clientId, uint64_t taskId, KelmError& error)
        REQUIRES(m_mutex);
    std::optional<DyingTask> unlinkUnsafe(KelmTask* task) REQUIRES(m_mutex);

    const StepTrace m_trace;
    Mutex m_mutex;
    RecycledMap<KelmTask*, TaskState> m_tasks GUARDED_BY(m_mutex);
    RecycledMap<uint64_t, KelmTask*> m_taskIdMap GUARDED_BY(m_mutex);  // those not ended
    RecycledMap<KelmTask*, Request> m_scheduleRequests GUARDED_BY(m_mutex);
    // For each task in order of arrival, which is the order of the scheduler's answers.
    std::multimap<KelmTask*, Request> m_cancelRequests GUARDED_BY(m_mutex);
    std::vector<Remains> m_dyingTasks GUARDED_BY(m_mutex);  // one per destroying thread
    TaskDepartures m_departures GUARDED_BY(m_mutex);
};

}  // namespace kelm

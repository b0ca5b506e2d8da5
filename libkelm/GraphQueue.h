#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "client/Client.h"
#include "libkelm/Task.h"
#include "utils/Mutex.h"
#include "utils/RecycledMap.h"

namespace kelm::lib {

class Session;

// The tasks of one graph: a window of them is at the service, the others wait here, by priority and
// then by age. Each that was taken ends exactly once, at its deadline at the latest.
//
// A task that waits ends with KELM_EXPIRED at its deadline and never reaches the service. When the
// service refuses one for too many tasks, it takes its place again, and nothing is sent for a time
// that doubles with each refusal in a row, or until another task of the graph ends.
//
// Threads: any. Owns: its tasks. Locks: m_mutex, a leaf; not held while sending or in a callback.
class GraphQueue : public std::enable_shared_from_this<GraphQueue> {
 public:
    using Clock = Task::Clock;

    struct Limits {
        size_t window;
        size_t maxWaiting;
    };

    // Of a graph that is loaded on connection number `connection`.
    GraphQueue(std::shared_ptr<Session> session, Limits limits, uint64_t connection,
               uint64_t graphId);

    // Starts or queues the task and names it in `ticket`. After an error the task was not taken.
    client::Error submit(std::unique_ptr<Task> task, uint64_t& ticket) EXCLUDES(m_mutex);
    // Whether the task was taken back. Asks the service if it has the task, unless `mayWait` is
    // false.
    client::Result<bool> cancel(uint64_t ticket, bool mayWait) EXCLUDES(m_mutex);

    // Sends nothing until resume(): the connection is lost.
    void suspend() EXCLUDES(m_mutex);
    // The graph is loaded on connection number `connection`, from now on; to be followed by
    // sendWaiting().
    void resume(uint64_t connection, uint64_t graphId) EXCLUDES(m_mutex);
    void sendWaiting() EXCLUDES(m_mutex);
    // Ends what waits with this error, and takes no task any more.
    void close(const client::Error& error) EXCLUDES(m_mutex);
    // Whether tasks are at the service.
    bool hasSent() const EXCLUDES(m_mutex);
    // The service drops the tasks that it has, also those that run: sends them again, each when its
    // memory is free. False if it does not answer.
    bool resendDropped(client::Client& client, uint64_t connection) EXCLUDES(m_mutex);
    // Waits until the last task has ended and its callback has returned; false at the deadline.
    bool waitUntilEmpty(Clock::time_point deadline) EXCLUDES(m_mutex);

    // Ends what is overdue and sends what may go. Returns the next time that this is of use.
    Clock::time_point tick(Clock::time_point now) EXCLUDES(m_mutex);

    uint64_t graphId() const EXCLUDES(m_mutex);
    // The connection that the graph was loaded on last.
    uint64_t connection() const EXCLUDES(m_mutex);
    size_t window() const { return m_limits.window; }

 private:
    // Tasks that wait, the next one to be sent first.
    using Place = std::pair<uint32_t, uint64_t>;  // kHighestPriority - priority, ticket
    static Place placeOf(const Task& task) {
        return {kHighestPriority - task.priority, task.ticket};
    }

    // A request on its way to a connection.
    struct Sending {
        client::PreparedInfer infer;
        uint64_t ticket = 0;
        uint64_t connection = 0;  // 0: none
        Clock::time_point deadline;
    };

    bool maySendUnsafe(Clock::time_point now) const REQUIRES(m_mutex);
    void enqueueUnsafe(std::unique_ptr<Task> task) REQUIRES(m_mutex);
    std::unique_ptr<Task> dequeueUnsafe(Place place) REQUIRES(m_mutex);
    // Null if it does not wait.
    std::unique_ptr<Task> dequeueTicketUnsafe(uint64_t ticket) REQUIRES(m_mutex);
    // The request of a task that is counted as sent from now on.
    Sending startUnsafe(std::unique_ptr<Task> task, Clock::time_point now) REQUIRES(m_mutex);
    std::vector<std::unique_ptr<Task>> takeOverdueUnsafe(Clock::time_point now) REQUIRES(m_mutex);
    Clock::time_point nextTickUnsafe() const REQUIRES(m_mutex);
    // Whether the task is to wait again: it did not reach the service, which refused or dropped it.
    static bool isUnsent(const Task& task, const client::Error& error);
    // Takes the task to wait again, unless it has ended: with the error that comes back.
    client::Error keepUnsentUnsafe(std::unique_ptr<Task>& task, const client::Error& error,
                                   Clock::time_point now) REQUIRES(m_mutex);

    void send(Sending& sending, bool waited) EXCLUDES(m_mutex);
    void accepted(uint64_t ticket, uint64_t taskId) EXCLUDES(m_mutex);
    void ended(uint64_t ticket, const client::InferResult& result) EXCLUDES(m_mutex);
    void finish(std::unique_ptr<Task> task, const client::InferResult& result) EXCLUDES(m_mutex);
    void tellEnd(Task& task, const client::InferResult& result);
    // Tasks that waited when they ended.
    void finishUnsent(std::vector<std::unique_ptr<Task>> tasks, const client::Error& error)
        EXCLUDES(m_mutex);

    const std::shared_ptr<Session> m_session;
    const Limits m_limits;

    mutable Mutex m_mutex;
    CondVar m_change;                             // a task was accepted or has ended
    size_t m_unfinished GUARDED_BY(m_mutex) = 0;  // tasks whose callbacks have not returned yet
    bool m_closed GUARDED_BY(m_mutex) = false;
    client::Error m_closedWith GUARDED_BY(m_mutex);
    bool m_connected GUARDED_BY(m_mutex) = true;
    uint64_t m_connection GUARDED_BY(m_mutex);
    uint64_t m_graphId GUARDED_BY(m_mutex);
    uint64_t m_lastTicket GUARDED_BY(m_mutex) = 0;
    std::map<Place, std::unique_ptr<Task>> m_waiting GUARDED_BY(m_mutex);
    std::set<std::pair<Clock::time_point, Place>> m_deadlines GUARDED_BY(m_mutex);  // of m_waiting
    RecycledMap<uint64_t, std::unique_ptr<Task>> m_sent GUARDED_BY(m_mutex);
    // Ended in a call of the program; to be told on the timer's thread.
    std::vector<std::pair<std::unique_ptr<Task>, client::InferResult>> m_untold GUARDED_BY(m_mutex);
    Clock::time_point m_pausedUntil GUARDED_BY(m_mutex) = Clock::time_point::min();
    std::chrono::microseconds m_pause GUARDED_BY(m_mutex){0};  // the latest one
    std::minstd_rand m_random GUARDED_BY(m_mutex);
};

}  // namespace kelm::lib

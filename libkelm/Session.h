#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/Client.h"
#include "libkelm/Callbacks.h"
#include "libkelm/GraphQueue.h"
#include "libkelm/GraphSource.h"
#include "libkelm/Timer.h"
#include "utils/Mutex.h"

namespace kelm::lib {

struct SessionOptions {
    std::string socketPath;
    std::string name;
    client::Deadline deadline = client::kDefaultDeadline;
    bool reconnects = false;
    bool dispatches = false;
    void (*onWarning)(const char* text, void* user) = nullptr;
    void (*onConnection)(int up, void* user) = nullptr;
    void* user = nullptr;
};

// What a program's graphs and calls go through: a registered connection, which is replaced with its
// graphs when it is lost if the options say so.
//
// Threads: any, but close() last, by the owner. Owns: the connection, a thread "KelmReconnect" if
// it reconnects, one "KelmUnload" once a load has been answered late, the timer and the callbacks.
// Graphs share it and may outlive close(). Locks: m_mutex, then that of a queue; not held in calls,
// nor in callbacks.
class Session : public std::enable_shared_from_this<Session> {
 public:
    using Clock = std::chrono::steady_clock;

    static client::Result<std::shared_ptr<Session>> connect(const SessionOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Unregisters, ends everything. Callbacks that are due run on this thread.
    void close() EXCLUDES(m_mutex);

    // The connection of now, perhaps a lost one; null while there is none. Not to be kept: its
    // replacement waits until nobody uses it.
    std::shared_ptr<client::Client> client() const EXCLUDES(m_mutex);
    // The same if it is the one of this number.
    std::shared_ptr<client::Client> client(uint64_t connection) const EXCLUDES(m_mutex);
    bool isConnected() const EXCLUDES(m_mutex);
    uint64_t clientId() const EXCLUDES(m_mutex);

    struct LoadedGraph {
        client::Graph graph;
        std::shared_ptr<GraphQueue> queue;
    };
    // `limits.window` 0 chooses one by the number of devices. The first one raises
    // std::system_error if no thread is left for the timer.
    client::Result<LoadedGraph> load(const GraphSource& source, GraphQueue::Limits limits,
                                     client::Deadline deadline) EXCLUDES(m_mutex);
    // Ends the graph's tasks and tells the service.
    client::Error unload(const std::shared_ptr<GraphQueue>& queue) EXCLUDES(m_mutex);

    Callbacks& callbacks() { return m_callbacks; }
    // Queues are looked after at this time at the latest.
    void wakeAt(Clock::time_point time) { m_timer.wakeAt(time); }

 private:
    struct Entry {
        GraphSource source;
        std::shared_ptr<GraphQueue> queue;
    };

    // A request to destroy a graph, also before it is sent: it ends the graph for every handle
    // whose load was under way before the answer.
    struct Destroy {
        uint64_t connection;
        uint64_t graphId;
        Clock::time_point answered;  // max(): not yet
    };
    class LoadUnderWay;
    class DestroyUnderWay;

    explicit Session(const SessionOptions& options);

    // A registered connection.
    client::Result<std::unique_ptr<client::Client>> open(client::Deadline deadline);
    // Makes it the connection of now.
    void install(std::unique_ptr<client::Client> client) EXCLUDES(m_mutex);
    // Destroys the connection of now, once nobody uses it.
    void retire() EXCLUDES(m_mutex);
    void lost() EXCLUDES(m_mutex);
    // A load that had ended at its deadline was answered.
    void gotLateGraph(uint64_t graphId) EXCLUDES(m_mutex);
    void unloadRoutine() EXCLUDES(m_mutex);
    void tellProgram(bool up);
    // In order: without an error in the service's log.
    void leave(client::Client& client) EXCLUDES(m_mutex);

    void reconnectRoutine() EXCLUDES(m_mutex);
    bool waitForLoss() EXCLUDES(m_mutex);
    // Until it is there or close() is called.
    void reconnect() EXCLUDES(m_mutex);
    // False if the connection was lost again.
    bool reloadGraphs() EXCLUDES(m_mutex);
    // False if the service refuses it.
    bool reloadGraph(client::Client& client, uint64_t connection, const Entry& entry)
        EXCLUDES(m_mutex);
    // close() ends what the client waits for.
    void setDialing(client::Client* client) EXCLUDES(m_mutex);
    std::vector<std::shared_ptr<GraphQueue>> queues() const EXCLUDES(m_mutex);
    Clock::time_point tick(Clock::time_point now) EXCLUDES(m_mutex);
    // False if close() was called meanwhile.
    bool pause(std::chrono::milliseconds time) EXCLUDES(m_mutex);
    // Deals with the tasks that the service has dropped with the graph.
    void endDropped(client::Client& client, uint64_t connection, uint64_t graphId)
        EXCLUDES(m_mutex);
    // Whether the graph of this number, from a load that began then, is one that the program has
    // freed since. Waits for the answer to that until `end`, so that a repeated load comes after
    // it.
    bool wasDestroyedUnsafe(uint64_t connection, uint64_t graphId, Clock::time_point begun,
                            Clock::time_point end) REQUIRES(m_mutex);
    // The connection to destroy the graph on, which destroy() is to follow; null if there is
    // nothing to destroy: it has ended with its connection, or a handle has it.
    std::shared_ptr<client::Client> beginDestroyUnsafe(uint64_t connection, uint64_t graphId)
        REQUIRES(m_mutex);
    client::Error destroy(client::Client& client, uint64_t connection, uint64_t graphId)
        EXCLUDES(m_mutex);
    void endDestroy(uint64_t connection, uint64_t graphId) EXCLUDES(m_mutex);
    void forgetDestroysUnsafe() REQUIRES(m_mutex);
    // At least a millisecond: a call without any time is none.
    static client::Deadline timeUntil(Clock::time_point end);
    static uint32_t countDevices(client::Client& client, client::Deadline deadline);

    const SessionOptions m_options;
    Callbacks m_callbacks;
    Timer m_timer;

    mutable Mutex m_mutex;
    CondVar m_change;
    bool m_closing GUARDED_BY(m_mutex) = false;
    bool m_lost GUARDED_BY(m_mutex) = false;
    bool m_released GUARDED_BY(m_mutex) = true;  // nobody uses m_owned
    std::unique_ptr<client::Client> m_owned GUARDED_BY(m_mutex);
    std::shared_ptr<client::Client> m_client GUARDED_BY(m_mutex);  // of m_owned, counts its users
    uint64_t m_connection GUARDED_BY(m_mutex) = 0;                 // its number
    client::Client* m_dialing GUARDED_BY(m_mutex) = nullptr;  // KelmReconnect waits for its answers
    std::vector<std::shared_ptr<const Entry>> m_graphs GUARDED_BY(m_mutex);
    size_t m_loads GUARDED_BY(m_mutex) = 0;                  // under way
    std::vector<Destroy> m_destroys GUARDED_BY(m_mutex);     // kept while loads are under way
    std::vector<uint64_t> m_lateGraphs GUARDED_BY(m_mutex);  // on the connection of now
    std::thread m_unload GUARDED_BY(m_mutex);
    std::thread m_reconnect;
};

}  // namespace kelm::lib

#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/completion_queue.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/gateway/grpc/GrpcCall.h"
#include "tools/gateway/grpc/GrpcLimits.h"
#include "tools/gateway/grpc/WatcherCount.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// A thread that runs what gRPC tells of the calls of its own.
//
// Threads: its own does everything but to make it, to join() and what says so.
// Owns: the thread, the queue and the calls. Locks: m_mutex, a leaf but for what gRPC locks to wake
// the thread.
class GrpcLoop : public NonCopyable {
 public:
    GrpcLoop(std::unique_ptr<grpc::ServerCompletionQueue> queue, const GrpcLimits& limits)
        : m_limits(limits), m_queue(std::move(queue)) {}
    ~GrpcLoop() { join(); }

    // Once the server runs: begins with `first`, which adds calls.
    void start(std::function<void()> first);
    // After the server was shut down; waits for calls that peers have begun.
    void join();

    // Has it happen on the thread. Any thread; the call is there until it has.
    void post(GrpcCall::Tag& tag) EXCLUDES(m_mutex);
    const GrpcLimits& limits() const { return m_limits; }
    // How many calls peers have begun that are not over. Any thread.
    size_t callsUnderWay() const { return m_arrived; }
    // Of these those that do not watch, and so will end by themselves.
    size_t answering() const { return m_arrived - m_watchers.all(); }
    WatcherCount& watchers() { return m_watchers; }
    grpc::ServerCompletionQueue& queue() { return *m_queue; }
    // Keeps the call and has it ask.
    void add(std::unique_ptr<GrpcCall> call);
    // A peer has begun it.
    void arrived(GrpcCall& call);
    // Destroys it.
    void drop(GrpcCall& call);

 private:
    struct Kept {
        std::unique_ptr<GrpcCall> call;
        bool hasArrived = false;
    };
    void run();
    void happen(void* what, bool ok);
    void runPosted() EXCLUDES(m_mutex);
    void lookAtAll();
    void awaitLook();

    const GrpcLimits m_limits;
    const std::unique_ptr<grpc::ServerCompletionQueue> m_queue;
    grpc::Alarm m_look;
    grpc::Alarm m_end;
    Mutex m_mutex;
    grpc::Alarm m_wake GUARDED_BY(m_mutex);
    std::vector<GrpcCall::Tag*> m_posted GUARDED_BY(m_mutex);  // not empty: the thread is woken

    WatcherCount m_watchers;  // outlives the calls
    std::unordered_map<GrpcCall*, Kept> m_calls;
    std::atomic<size_t> m_arrived{0};  // atomic: a count, which guards nothing
    bool m_isEnding = false;
    std::thread m_thread;
};

}  // namespace kelm::gateway

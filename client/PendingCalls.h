#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "client/Client.h"
#include "client/SlotClaim.h"
#include "protocol/src/KelmMessage.h"
#include "protocol/src/MessagePtr.h"
#include "utils/Mutex.h"
#include "utils/RecycledMap.h"

namespace kelm::client {

// What waits for an answer, by the sequence number of its request. Each call ends exactly once:
// with its answer, at its deadline, or when the connection is lost. An inference that has ended at
// its deadline leaves its slots here until the service tells the end of the task.
//
// Threads: any; callbacks run on the thread that ends the call, outside the lock.
// Owns: the entries and the thread "KelmDeadline".
class PendingCalls {
 public:
    using Clock = std::chrono::steady_clock;
    // The answer, or null with the error that stands in its place.
    using Reply = std::function<void(MessagePtr answer, const Error& error)>;

    // `onOverdue` runs on the deadline thread whenever a deadline has passed, and again at the time
    // that it returns, if that is not max().
    explicit PendingCalls(std::function<Clock::time_point()> onOverdue);
    ~PendingCalls();  // ends what is left with kConnectionLost

    // False after closeAll(): the entry was not taken and nothing will be called.
    bool addCall(uint64_t sequence, const char* what, Clock::time_point deadline, Reply reply);
    // The same for an inference, with its claim on its slots, which is kept until its end is known.
    // `waited`: the callbacks are this library's own, and a thread waits for the end.
    bool addInfer(Clock::time_point deadline, const KelmMsgReqInferTask& message,
                  std::shared_ptr<SlotClaim> claim, InferCallback done, AcceptCallback accepted,
                  bool waited);

    // A response has come; one for which nothing waits is dropped, and one of another kind than
    // what waits ends that with kSystem. False if nothing has waited.
    bool finishCall(uint64_t sequence, MessagePtr answer);
    void acceptInfer(uint64_t sequence, int32_t status, uint64_t taskId);
    // True if a thread has waited for it.
    bool finishInfer(uint64_t sequence, int32_t status, uint64_t taskId);
    // The service has the task no more, and sends no result.
    void endInfer(uint64_t taskId, const Error& error);
    // The tasks on the graph, and with `everyLate` those on others whose calls have ended at their
    // deadlines; 0 for one whose number has not been told.
    std::vector<uint64_t> tasks(uint64_t graphId, bool everyLate) const EXCLUDES(m_mutex);
    // The service has no such task: the request was not sent as a whole, or refused.
    void fail(uint64_t sequence, const Error& error);
    bool empty() const EXCLUDES(m_mutex);
    // Whether its end is still to be told; not so of one that only keeps its slots.
    bool has(uint64_t sequence) const EXCLUDES(m_mutex);
    // Whether a thread waits for it; also for one that is not there any more.
    bool isWaited(uint64_t sequence) const EXCLUDES(m_mutex);
    // Ends everything, now and for ever.
    void closeAll(const Error& error);

 private:
    struct Entry {
        Clock::time_point deadline;
        Clock::time_point start;
        const char* what = "";
        bool waited = true;  // its callbacks may run on any thread
        Reply reply;         // set for calls
        InferCallback done;  // set for inferences
        AcceptCallback accepted;
        uint64_t graphId = 0;
        InferResult result;
        std::shared_ptr<SlotClaim> claim;
    };
    using Entries = RecycledMap<uint64_t, Entry>;

    bool add(uint64_t sequence, Entry entry) EXCLUDES(m_mutex);
    std::optional<Entry> take(uint64_t sequence) EXCLUDES(m_mutex);
    static void end(Entry& entry, const Error& error);
    static void endUnanswered(Entry& entry);
    void deadlineRoutine() EXCLUDES(m_mutex);
    std::vector<Entry> takeOverdueUnsafe(Clock::time_point now) REQUIRES(m_mutex);

    const std::function<Clock::time_point()> m_onOverdue;
    mutable Mutex m_mutex;
    CondVar m_wake;
    bool m_closed GUARDED_BY(m_mutex) = false;
    bool m_stop GUARDED_BY(m_mutex) = false;
    Entries m_entries GUARDED_BY(m_mutex);
    Clock::time_point m_nextCheck GUARDED_BY(m_mutex) = Clock::time_point::max();
    std::thread m_thread;
};

// The service answers something else than what it was asked.
Error unexpectedAnswer();
// The calling thread ends what is overdue. It never waits for a write from now on, since nobody
// would end one of its own that is stuck: a request for which there is no room ends with kBusy.
void watchDeadlines();
bool watchesDeadlines();

}  // namespace kelm::client

#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// What is on its way through the two queues of one graph on one device, from the writing of an
// input until its result has been read: in which order, and whether a task waits for it.
//
// The device keeps the order, so a result is known by its task's id and by its place. No task waits
// for the result of an inference that was refused and made up for later, nor for one whose reading
// has failed. After a failed reading it is not known whether the result is still there; it is in
// doubt until a later one comes out. A write or an inference that fails leaves nothing behind.
//
// No more is ever on its way than one of the queues holds: neither is full for good when an input
// is written, however many results stay without a task.
//
// Threads: inputs come from one thread and turns from another, at once; any thread closes.
// Locks: m_mutex is a leaf, never held across a library call.
class QueueLedger : public NonCopyable {
 public:
    // What to do before the next input may be written.
    enum class NextStep {
        kWrite,
        kQueueInference,  // for the last input, whose own was refused
        kDrain,           // read a result that will come and that has no task
        kRenew,           // all that is left is in doubt: only new queues help
        kGiveUp,          // closed
    };
    enum class Outcome {
        kOwn,      // the result of the task whose turn it is
        kDropped,  // it has no task; the reader's own is still to come
        kForeign,  // came in the place of the reader's own, for no known reason
    };
    class Turn;

    // Places of each queue.
    explicit QueueLedger(size_t capacity) : m_capacity(capacity) { m_entries.reserve(capacity); }

    // The input thread's. Waits while all places are taken and tasks have turns to come.
    NextStep getNextStep() EXCLUDES(m_mutex);
    void addInput(unsigned long taskId) EXCLUDES(m_mutex);
    // The last input has its inference, and its task waits for the result.
    void addInference() EXCLUDES(m_mutex);
    // It has one at last; its task does not wait any more.
    void makeUpInference() EXCLUDES(m_mutex);
    // A step kDrain has read the result of that task.
    void addDrained(unsigned long taskId) EXCLUDES(m_mutex);

    // A reading has failed: the result may still be there or not.
    void addFailedReading() EXCLUDES(m_mutex);
    // The task will have no turn.
    void abandon(unsigned long taskId) EXCLUDES(m_mutex);
    // The queues are being destroyed: no thread waits in here any more.
    void close() EXCLUDES(m_mutex);

 private:
    enum class State {
        kAwaited,   // its task's turn comes
        kUnread,    // no task waits for it, and it will come
        kDoubtful,  // no task waits for it, and it may be out already
    };
    struct Entry {
        unsigned long taskId;
        State state;
    };
    using Entries = std::vector<Entry>;

    bool beginTurn(unsigned long taskId) EXCLUDES(m_mutex);
    void endTurn(unsigned long taskId) EXCLUDES(m_mutex);
    bool isNext(unsigned long taskId) EXCLUDES(m_mutex);
    Outcome addResult(unsigned long ownId, unsigned long taskId) EXCLUDES(m_mutex);

    bool isAwaited() const REQUIRES(m_mutex);
    Entries::iterator findAwaited(unsigned long taskId) REQUIRES(m_mutex);
    // Takes out the entry and what was before it. Whether a task waited for that result.
    bool settle(Entries::iterator entry, Entries::iterator end) REQUIRES(m_mutex);
    void abandonUnsafe(unsigned long taskId) REQUIRES(m_mutex);

    const size_t m_capacity;
    Mutex m_mutex;
    CondVar m_changed;
    Entries m_entries GUARDED_BY(m_mutex);              // in the order of their inputs
    bool m_lacksInference GUARDED_BY(m_mutex) = false;  // the last entry does
    bool m_hasTurn GUARDED_BY(m_mutex) = false;
    bool m_closed GUARDED_BY(m_mutex) = false;
};

// A task's turn to read results until its own has come. If it ends without that, the task does
// not wait for its result any more. One at a time, in the order of the inputs.
class QueueLedger::Turn : public NonCopyable {
 public:
    Turn(std::shared_ptr<QueueLedger> ledger, unsigned long taskId)
        : m_ledger(std::move(ledger)), m_taskId(taskId), m_valid(m_ledger->beginTurn(taskId)) {}
    ~Turn() { m_ledger->endTurn(m_taskId); }

    // False if there is no result to wait for: a reading would stand still.
    explicit operator bool() const { return m_valid; }
    // Whether no other result can come out before the task's own.
    bool isNext() const { return m_ledger->isNext(m_taskId); }
    // A reading has given the result of that task.
    Outcome addResult(unsigned long taskId) { return m_ledger->addResult(m_taskId, taskId); }
    void addFailedReading() { m_ledger->addFailedReading(); }

 private:
    const std::shared_ptr<QueueLedger> m_ledger;
    const unsigned long m_taskId;
    const bool m_valid;
};

}  // namespace kelm

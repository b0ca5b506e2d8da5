#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "utils/InlineTask.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/OwedPools.h"
#include "utils/Ring.h"

namespace kelm {

// A bounded queue of tasks with one thread: tasks never overlap and run in the order of submission.
//
// Waking a sleeping thread costs more than most tasks. So the thread that fills a light pool which
// is idle owes it a turn (see OwedPools) and runs the tasks itself where it would wait otherwise,
// unless the pool's own thread is at work. The turn is in one of four states:
//
//   IDLE -> OWED          a thread that owes has filled the queue: the pool is on its list only
//   IDLE -> OWN           any other thread has, or waits for the task's result
//   OWED -> HELPED, OWN   that thread settles: it runs the tasks, or wakes the pool's thread
//   HELPED -> IDLE, OWN   the queue is empty; or the bound of a help, or a task for the own thread
//   OWN -> IDLE           the queue is empty
//
// Only the holder of the turn runs tasks, and only the thread that ends IDLE begins a turn, so
// tasks run one at a time whatever the thread. What a helper must not do:
//  1. It helps only where it holds no lock (OwedPools::settle), and never inside of a help.
//  2. It does not wait. Into a full queue goes one task too many; see deferWait().
//  3. A thread that waits owes nothing: a CondVar hands over, other waits come after a settle.
//  4. It runs 256 tasks or 50 us at the most.
//  5. It joins no thread: tasks that do are for the pool's own thread (postOwn), as are all tasks
//     of a heavy pool, which call devices, write until a peer has read, or unmap memory.
//
// A full queue blocks its producer and never drops work. Two kinds of task are not held back, since
// pools that wait on each other would close a circle: notices that complete earlier work
// (postNotice), and whatever the pool's own tasks submit.
//
// Threads: any may submit. Owns: its thread and what is queued.
// Locks: m_mutex, a leaf, held for queue manipulation only.
// Lifecycle: running from construction until the destructor, which waits for the turn and runs what
// is queued on the pool's thread. Submitting after that throws std::runtime_error "failed to
// enqueue, threadPool is stopped".
class SerialPool : public NonCopyable {
 public:
    enum Weight { LIGHT, HEAVY };

    // Starts the thread, named `name` + "T0".
    SerialPool(std::string name, uint64_t maxQueueSize, Weight weight = HEAVY);
    ~SerialPool();

    // Runs `f` and returns a future of its result; what `f` throws lands there. Held by the limit.
    // The caller may wait for it: all that it owes is handed over.
    template <class F>
    std::future<std::invoke_result_t<std::decay_t<F>&>> enqueue(F&& f) {
        std::packaged_task<std::invoke_result_t<std::decay_t<F>&>()> task(std::forward<F>(f));
        auto result = task.get_future();
        insert({[task = std::move(task)]() mutable { task(); }},
               {.limited = true, .awaited = true});
        OwedPools::handOver();
        return result;
    }

    // Fire and forget: what the task throws is logged. Held by the limit. `front` puts it ahead of
    // all queued tasks, though not of the running one.
    void enqueueTask(InlineTask task, bool front) {
        insert({std::move(task)}, {.limited = true, .front = front});
    }
    void post(InlineTask task) { insert({std::move(task)}, {.limited = true}); }

    // Fire and forget for a notice that completes earlier work: never waits for room.
    void postNotice(InlineTask task) { insert({std::move(task)}, {}); }
    // The same for a task that may wait: only the pool's own thread runs it.
    void postOwn(InlineTask task) { insert({std::move(task), true}, {}); }

    // For a task that is about to wait. False: the caller is on a thread that may. True: it is
    // being helped, and `wait` runs on the pool's own thread before the pool's next task instead.
    static bool deferWait(InlineTask wait);
    // Whether the calling thread runs a task in the place of a pool's own thread.
    static bool isHelping();

    // True when nothing is queued and nothing runs within the time.
    bool waitIdleFor(std::chrono::milliseconds time) EXCLUDES(m_mutex);

    const std::string& getName() const { return m_name; }

 private:
    friend class OwedPools;
    class Turn;

    enum State : uint32_t { IDLE, OWED, HELPED, OWN };
    struct Slot {
        InlineTask task;
        bool own = false;
    };
    struct Rule {
        bool limited = false;
        bool front = false;
        bool awaited = false;
    };

    static State stateOf(uint32_t turn) { return static_cast<State>(turn & kStates); }
    static uint32_t queuedOf(uint32_t turn) { return turn / kOneQueued; }
    void setState(State state);
    // Whether the calling thread owes the pool, or runs a task of it.
    bool hasTurn() const;

    void insert(Slot slot, Rule rule) EXCLUDES(m_mutex);
    // Without the mutex, for the holder of the turn and for a thread that begins one: false, and
    // the slot is as it was, if something is queued before it or there is no room.
    bool insertInTurn(Slot& slot, bool limited);
    void insertQueued(Slot slot, Rule rule) EXCLUDES(m_mutex);
    uint64_t waitingUnsafe() const REQUIRES(m_mutex);
    void throwIfStopped() const;
    // Until there is room, or the pool is stopped.
    void waitForRoomUnsafe() REQUIRES(m_mutex);
    void waitForRoom() EXCLUDES(m_mutex);
    // Something has been queued: begins a turn if there is none. True if the own thread is to be
    // woken for it.
    bool noteQueuedUnsafe(bool awaited) REQUIRES(m_mutex);

    void threadRoutine();
    // False when the pool is stopped and nothing is left to do.
    bool waitForTurn() EXCLUDES(m_mutex);
    void runOwnTurn() EXCLUDES(m_mutex);
    // The owing thread's part: runs tasks or wakes the own thread.
    void help(std::chrono::steady_clock::time_point deadline) EXCLUDES(m_mutex);
    bool canBeHelped() const;
    // From HELPED or OWED to OWN.
    void handBack();

    // For the holder of the turn. False, and the turn has ended, when nothing is queued: the pool
    // may be destroyed by then.
    bool refill() EXCLUDES(m_mutex);
    bool endTurn() EXCLUDES(m_mutex);
    bool isNextForOwnThread() const;
    InlineTask takeNext() EXCLUDES(m_mutex);
    void noteRoom() EXCLUDES(m_mutex);

    const std::string m_name;
    const uint64_t m_maxQueueSize;
    const Weight m_weight;

    // Atomic: the state of the turn, the two marks and the number of tasks in m_queue and m_urgent
    // (counted in kOneQueued), in one word: a turn ends only if nothing is queued and nobody waits
    // for its end, and then the word is the last thing of the pool that its holder touches. A
    // hand-off between a thread and the pool that it fills takes no lock. The own thread sleeps on
    // the word until the turn is its own, or the pool has stopped.
    std::atomic<uint32_t> m_turn{IDLE};
    static constexpr uint32_t kStates = 3;
    static constexpr uint32_t kStopped = 4;
    static constexpr uint32_t kIdleWaited = 8;
    static constexpr uint32_t kOneQueued = 16;

    Mutex m_mutex;
    CondVar m_idleCond;
    CondVar m_roomCond;
    Ring<Slot> m_queue GUARDED_BY(m_mutex);
    Ring<InlineTask> m_urgent GUARDED_BY(m_mutex);  // head insertions
    uint64_t m_idleWaiters GUARDED_BY(m_mutex) = 0;

    // The turn's: what its holder has filled in or taken out of m_queue under one lock, and the
    // waits of its tasks.
    Ring<Slot> m_batch;
    Ring<InlineTask> m_deferred;
    // Atomics: read outside the lock, so that a hand-off costs one lock at most. A task in the
    // batch counts against the limit until it starts.
    std::atomic<uint64_t> m_batchSize{0};
    std::atomic<uint64_t> m_urgentSize{0};
    std::atomic<uint64_t> m_roomWaiters{0};
    // Atomic: written once by the own thread; 0 until that has started, before which none helps.
    std::atomic<int> m_threadId{0};

    std::thread m_thread;  // last: it uses all of the above
};

}  // namespace kelm

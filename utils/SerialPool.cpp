#include "utils/SerialPool.h"

#include <stdexcept>

#include "utils/Chaos.h"
#include "utils/Futex.h"
#include "utils/MemoryReserve.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// The pool whose task the calling thread runs, and whether it does so in the place of its thread.
struct Current {
    SerialPool* pool = nullptr;
    bool isHelp = false;
};
thread_local Current t_current;

constexpr int kMostHelpedTasks = 256;
constexpr int kTasksBetweenLooks = 8;  // at the clock
// Light tasks of the own thread between two settlings: fewer would cost more wake-ups.
constexpr int kOwnTasksInARow = 32;
// Slots that an empty queue keeps; a burst beyond gives its memory back.
constexpr size_t kSlotsToKeep = 1024;

}  // namespace

// A help: the thread passes for the pool's own, also in the log, to what asserts its thread, and
// where memory is missing.
class SerialPool::Turn : public NonCopyable {
 public:
    explicit Turn(SerialPool& pool) : m_identity(pool.m_threadId.load()) {
        t_current = {&pool, true};
    }
    ~Turn() { t_current = m_before; }

 private:
    const Current m_before = t_current;
    const ThreadUtils::BorrowedId m_identity;
    const MemoryReserve::Patience m_patience{MemoryReserve::kUsualWait};
};

SerialPool::SerialPool(std::string name, uint64_t maxQueueSize, Weight weight)
    : m_name(std::move(name)), m_maxQueueSize(maxQueueSize), m_weight(weight) {
    m_thread = std::thread([this] { threadRoutine(); });
}

// The own thread ends only once the turn has ended. A thread that owes it settles soon, since it
// never waits before that; from then on its list holds no pointer to this object.
SerialPool::~SerialPool() {
    OwedPools::handOver();  // without the mutex, as the list of this thread has other pools, too
    {
        MutexLock lock(m_mutex);
        m_turn.fetch_or(kStopped);
        m_roomCond.notifyAll();
    }
    futex::wakeOne(m_turn);
    m_thread.join();
}

bool SerialPool::isHelping() { return t_current.isHelp; }

bool SerialPool::deferWait(InlineTask wait) {
    if (!t_current.isHelp) return false;
    t_current.pool->m_deferred.pushBack(std::move(wait));
    return true;
}

// Others change the count and the marks meanwhile, only the holder of the turn its state.
void SerialPool::setState(State state) {
    mayBeHeldUp();
    uint32_t turn = m_turn.load();
    while (!m_turn.compare_exchange_weak(turn, (turn & ~kStates) | state)) {
    }
}

bool SerialPool::hasTurn() const {
    return t_current.pool == this || (stateOf(m_turn.load()) == OWED && OwedPools::owes(*this));
}

// What the holder of the turn has taken out still counts, though it is no longer in the queue:
// otherwise the queue could hold twice its size.
uint64_t SerialPool::waitingUnsafe() const {
    return m_queue.size() + m_urgent.size() + m_batchSize.load();
}

void SerialPool::throwIfStopped() const {
    if ((m_turn.load() & kStopped) == 0) return;
    throw std::runtime_error("failed to enqueue, threadPool is stopped");
}

void SerialPool::waitForRoomUnsafe() {
    // Raised before the size is read: a task that is taken in between then sees a waiter and
    // notifies. The other order would lose the notice.
    m_roomWaiters.fetch_add(1);
    while ((m_turn.load() & kStopped) == 0 && waitingUnsafe() >= m_maxQueueSize) {
        m_roomCond.wait(m_mutex);
    }
    m_roomWaiters.fetch_sub(1);
}

void SerialPool::waitForRoom() {
    OwedPools::handOver();
    MutexLock lock(m_mutex);
    waitForRoomUnsafe();
}

void SerialPool::insert(Slot slot, Rule rule) {
    mayBeHeldUp();
    const bool plain = !rule.front && !rule.awaited;
    if (!plain || !insertInTurn(slot, rule.limited)) insertQueued(std::move(slot), rule);
}

bool SerialPool::insertInTurn(Slot& slot, bool limited) {
    uint32_t turn = m_turn.load();
    // In the order of submission: what other threads have queued before stays ahead.
    if (queuedOf(turn) != 0 || (turn & kStopped) != 0) return false;
    if (stateOf(turn) == IDLE) {
        if (!OwedPools::canOwe() || !m_turn.compare_exchange_strong(turn, turn | OWED))
            return false;
        OwedPools::add(*this);
    } else {
        const bool isHeld = limited && t_current.pool != this;
        if (!hasTurn() || (isHeld && m_batchSize.load() >= m_maxQueueSize)) return false;
    }
    m_batch.pushBack(std::move(slot));
    m_batchSize.fetch_add(1);
    return true;
}

void SerialPool::insertQueued(Slot slot, Rule rule) {
    bool wake = false;
    bool oneTooMany = false;
    {
        MutexLock lock(m_mutex);
        throwIfStopped();
        // A producer that runs a task of this very pool would wait for itself.
        if (rule.limited && waitingUnsafe() >= m_maxQueueSize && t_current.pool != this) {
            oneTooMany = t_current.isHelp;
            if (!oneTooMany) {
                lock.unlock();
                OwedPools::handOver();  // before the mutex: it may owe this pool, and takes others'
                lock.lock();
                waitForRoomUnsafe();
                throwIfStopped();
            }
        }
        if (rule.front) {
            m_urgent.pushFront(std::move(slot.task));
            m_urgentSize.store(m_urgent.size());
        } else {
            m_queue.pushBack(std::move(slot));
        }
        wake = noteQueuedUnsafe(rule.awaited);
    }
    if (wake) futex::wakeOne(m_turn);
    if (oneTooMany) (void)deferWait([this] { waitForRoom(); });
}

bool SerialPool::noteQueuedUnsafe(bool awaited) {
    const State next = awaited || !OwedPools::canOwe() ? OWN : OWED;
    uint32_t turn = m_turn.load();
    uint32_t counted = 0;
    do {
        counted = turn + kOneQueued;
        if (stateOf(turn) == IDLE) counted |= next;
    } while (!m_turn.compare_exchange_weak(turn, counted));
    if (stateOf(turn) == IDLE) {
        if (next == OWED) OwedPools::add(*this);
        return next == OWN;
    }
    // The caller waits for the task: it must not owe it.
    if (!awaited || stateOf(turn) != OWED || !OwedPools::remove(*this)) return false;
    setState(OWN);
    return true;
}

bool SerialPool::waitIdleFor(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    OwedPools::handOver();
    MutexLock lock(m_mutex);
    ++m_idleWaiters;
    m_turn.fetch_or(kIdleWaited);
    bool timely = true;
    while (stateOf(m_turn.load()) != IDLE && timely) {
        timely = m_idleCond.waitUntil(m_mutex, deadline);
    }
    if (--m_idleWaiters == 0) m_turn.fetch_and(~kIdleWaited);
    return stateOf(m_turn.load()) == IDLE;
}

void SerialPool::threadRoutine() {
    const std::string threadName = m_name + "T0";
    ThreadUtils::setName(threadName);
    ThreadUtils::saveThreadInfo(threadName);
    m_threadId.store(ThreadUtils::getThreadId());
    t_current = {this, false};
    const OwedPools::Scope owing;
    while (waitForTurn()) runOwnTurn();
}

bool SerialPool::waitForTurn() {
    for (;;) {
        const uint32_t turn = m_turn.load();
        if (stateOf(turn) == OWN) return true;
        if (stateOf(turn) == IDLE && (turn & kStopped) != 0) break;
        futex::wait(m_turn, turn);
    }
    MutexLock lock(m_mutex);  // the thread that has ended the last turn has left the pool then
    return false;
}

void SerialPool::runOwnTurn() {
    do {
        for (int count = 1; !m_batch.empty() || !m_deferred.empty() || m_urgentSize.load() != 0;
             ++count) {
            // Before each task that may take long, and after a few light ones: no other thread may
            // run what this one owes.
            const bool isTime = count % kOwnTasksInARow == 0;
            if (m_weight == HEAVY || isTime || isNextForOwnThread()) OwedPools::settle();
            InlineTask task = takeNext();
            task.runLogged(m_name);
            task.reset();  // what it captured must not live until the next task comes
        }
        OwedPools::settle();
    } while (refill());
}

bool SerialPool::canBeHelped() const { return m_weight == LIGHT && m_threadId.load() != 0; }

void SerialPool::help(std::chrono::steady_clock::time_point deadline) {
    setState(HELPED);
    const Turn turn(*this);
    for (int count = 0; refill(); ++count) {
        const bool isLong = count % kTasksBetweenLooks == kTasksBetweenLooks - 1 &&
                            std::chrono::steady_clock::now() > deadline;
        if (count == kMostHelpedTasks || isLong || isNextForOwnThread()) return handBack();
        InlineTask task = takeNext();
        task.runLogged(m_name);
    }
}

// From the change of the state on the pool may be destroyed.
void SerialPool::handBack() {
    setState(OWN);
    futex::wakeOne(m_turn);
}

bool SerialPool::refill() {
    if (!m_batch.empty() || !m_deferred.empty() || m_urgentSize.load() != 0) return true;
    m_batch.shrinkIfEmpty(kSlotsToKeep);
    uint32_t turn = m_turn.load();
    const uint32_t watched = kStopped | kIdleWaited;
    while (queuedOf(turn) == 0 && (turn & watched) == 0) {
        if (m_turn.compare_exchange_weak(turn, IDLE)) return false;
    }
    if (queuedOf(turn) == 0 && endTurn()) return false;
    MutexLock lock(m_mutex);
    m_batch.swap(m_queue);
    m_batchSize.store(m_batch.size());
    m_turn.fetch_sub(m_batch.size() * kOneQueued);
    return true;
}

// With those who wait for it. False if something has been queued meanwhile.
bool SerialPool::endTurn() {
    MutexLock lock(m_mutex);
    if (queuedOf(m_turn.load()) != 0) return false;  // under the mutex, so that it stays 0
    m_idleCond.notifyAll();
    setState(IDLE);
    futex::wakeOne(m_turn);
    return true;
}

bool SerialPool::isNextForOwnThread() const {
    if (!m_deferred.empty()) return true;
    return m_urgentSize.load() == 0 && m_batch.front().own;
}

InlineTask SerialPool::takeNext() {
    if (!m_deferred.empty()) return m_deferred.popFront();
    InlineTask task;
    if (m_urgentSize.load() != 0) {
        MutexLock lock(m_mutex);
        task = m_urgent.popFront();
        m_urgentSize.store(m_urgent.size());
        m_turn.fetch_sub(kOneQueued);
    } else {
        task = std::move(m_batch.popFront().task);
        m_batchSize.fetch_sub(1);
    }
    if (m_roomWaiters.load() > 0) noteRoom();
    return task;
}

// Under the mutex, or the notice could fall between a producer's test and its wait.
void SerialPool::noteRoom() {
    MutexLock lock(m_mutex);
    m_roomCond.notifyOne();
}

}  // namespace kelm

#include "utils/SerialPool.h"

#include <exception>
#include <stdexcept>

#include "utils/Log.h"
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
// Slots that an empty queue keeps; a burst beyond gives its memory back.
constexpr size_t kSlotsToKeep = 1024;

}  // namespace

// A help: the thread passes for the pool's own, also in the log and to what asserts its thread.
class SerialPool::Turn : public NonCopyable {
 public:
    explicit Turn(SerialPool& pool) : m_identity(pool.m_threadId.load()) {
        t_current = {&pool, true};
    }
    ~Turn() { t_current = m_before; }

 private:
    const Current m_before = t_current;
    const ThreadUtils::BorrowedId m_identity;
};

SerialPool::SerialPool(std::string name, uint64_t maxQueueSize, Weight weight)
    : m_name(std::move(name)), m_maxQueueSize(maxQueueSize), m_weight(weight) {
    m_thread = std::thread([this] { threadRoutine(); });
}

// A thread that owes the pool settles soon, since it never waits before that; only then does its
// list hold no pointer to this object.
SerialPool::~SerialPool() {
    OwedPools::handOver();  // without the mutex, as the list of this thread has other pools, too
    {
        MutexLock lock(m_mutex);
        m_stop = true;
        while (m_state == OWED) m_settledCond.wait(m_mutex);
        m_turnCond.notifyAll();
        m_roomCond.notifyAll();
    }
    m_thread.join();
}

bool SerialPool::isHelping() { return t_current.isHelp; }

bool SerialPool::deferWait(InlineTask wait) {
    if (!t_current.isHelp) return false;
    t_current.pool->m_deferred.pushBack(std::move(wait));
    return true;
}

// What the holder of the turn has taken out still counts, though it is no longer in the queue:
// otherwise the queue could hold twice its size.
uint64_t SerialPool::queuedUnsafe() const {
    return m_queue.size() + m_urgent.size() + m_batchSize.load();
}

void SerialPool::throwIfStoppedUnsafe() const {
    if (m_stop) throw std::runtime_error("failed to enqueue, threadPool is stopped");
}

void SerialPool::waitForRoomUnsafe() {
    // Raised before the size is read: a task that is taken in between then sees a waiter and
    // notifies. The other order would lose the notice.
    m_roomWaiters.fetch_add(1);
    while (!m_stop && queuedUnsafe() >= m_maxQueueSize) m_roomCond.wait(m_mutex);
    m_roomWaiters.fetch_sub(1);
}

void SerialPool::waitForRoom() {
    OwedPools::handOver();
    MutexLock lock(m_mutex);
    waitForRoomUnsafe();
}

void SerialPool::insert(Slot slot, Rule rule) {
    bool wake = false;
    bool oneTooMany = false;
    {
        MutexLock lock(m_mutex);
        throwIfStoppedUnsafe();
        // A producer that runs a task of this very pool would wait for itself.
        if (rule.limited && queuedUnsafe() >= m_maxQueueSize && t_current.pool != this) {
            oneTooMany = t_current.isHelp;
            if (!oneTooMany) {
                lock.unlock();
                OwedPools::handOver();  // before the mutex: it may owe this pool, and takes others'
                lock.lock();
                waitForRoomUnsafe();
                throwIfStoppedUnsafe();
            }
        }
        if (rule.front) {
            m_urgent.pushFront(std::move(slot.task));
            m_urgentSize.store(m_urgent.size());
        } else {
            m_queue.pushBack(std::move(slot));
        }
        wake = beginTurnUnsafe(rule.awaited);
    }
    if (wake) m_turnCond.notifyOne();
    if (oneTooMany) (void)deferWait([this] { waitForRoom(); });
}

bool SerialPool::beginTurnUnsafe(bool awaited) {
    const bool wasIdle = m_state == IDLE;
    if (wasIdle && !awaited && OwedPools::add(*this)) {
        m_state = OWED;
        return false;
    }
    // The caller waits for the task: it must not owe it.
    const bool owesAwaited = awaited && m_state == OWED && OwedPools::remove(*this);
    if (!wasIdle && !owesAwaited) return false;
    m_state = OWN;
    return true;
}

bool SerialPool::waitIdleFor(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    OwedPools::handOver();
    MutexLock lock(m_mutex);
    ++m_idleWaiters;
    bool timely = true;
    while (m_state != IDLE && timely) timely = m_idleCond.waitUntil(m_mutex, deadline);
    --m_idleWaiters;
    return m_state == IDLE;
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
    MutexLock lock(m_mutex);
    while (m_state != OWN && !(m_stop && m_state == IDLE)) m_turnCond.wait(m_mutex);
    return m_state == OWN;
}

void SerialPool::runOwnTurn() {
    do {
        while (!m_batch.empty() || !m_deferred.empty() || m_urgentSize.load() != 0) {
            InlineTask task = takeNext();
            run(task);
            task.reset();  // what it captured must not live until the next task comes
            // The next heavy task may take long; light ones come in batches, whose work is shared.
            if (m_weight == HEAVY) OwedPools::settle();
        }
        OwedPools::settle();
    } while (refill());
}

bool SerialPool::canBeHelped() const { return m_weight == LIGHT && m_threadId.load() != 0; }

void SerialPool::help(std::chrono::steady_clock::time_point deadline) {
    {
        MutexLock lock(m_mutex);
        m_state = HELPED;
        // The destructor waits for the list of this thread, which the pool is on no more.
        if (m_stop) m_settledCond.notifyAll();
        refillUnsafe();
    }
    const Turn turn(*this);
    for (int count = 0; refill(); ++count) {
        const bool isLong = count % kTasksBetweenLooks == kTasksBetweenLooks - 1 &&
                            std::chrono::steady_clock::now() > deadline;
        if (count == kMostHelpedTasks || isLong || isNextForOwnThread()) return handBack();
        InlineTask task = takeNext();
        run(task);
    }
}

// Notified under the mutex: once that is free, the destructor may pass.
void SerialPool::handBack() {
    MutexLock lock(m_mutex);
    m_state = OWN;
    m_turnCond.notifyOne();
    if (m_stop) m_settledCond.notifyAll();
}

bool SerialPool::refill() {
    if (!m_batch.empty() || !m_deferred.empty() || m_urgentSize.load() != 0) return true;
    MutexLock lock(m_mutex);
    if (m_queue.empty() && m_urgent.empty()) {
        m_state = IDLE;
        if (m_idleWaiters > 0) m_idleCond.notifyAll();
        if (m_stop) m_turnCond.notifyAll();
        return false;
    }
    refillUnsafe();
    return true;
}

void SerialPool::refillUnsafe() {
    if (!m_batch.empty()) return;  // left by a help
    m_batch.shrinkIfEmpty(kSlotsToKeep);
    m_batch.swap(m_queue);
    m_batchSize.store(m_batch.size());
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

void SerialPool::run(InlineTask& task) const {
    try {
        task();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a task of pool %s ended with an exception: %s", m_name, error.what());
    } catch (...) {
        LOG_ERROR("Error: a task of pool %s ended with an unknown exception", m_name);
    }
}

}  // namespace kelm

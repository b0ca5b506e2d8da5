#include "execution/QueueLedger.h"

#include <algorithm>

namespace kelm {

// The wait ends by the result thread, which frees places, or by an end of the queues. It is not
// begun where no task waits for a result: then no reading is to come that would end it.
QueueLedger::NextStep QueueLedger::getNextStep() {
    MutexLock lock(m_mutex);
    if (m_lacksInference) return NextStep::kQueueInference;
    while (!m_closed && m_entries.size() >= m_capacity && (m_hasTurn || isAwaited())) {
        m_changed.wait(m_mutex);
    }
    if (m_closed) return NextStep::kGiveUp;
    if (m_entries.size() < m_capacity) return NextStep::kWrite;
    const bool isDrainable =
        std::ranges::find(m_entries, State::kUnread, &Entry::state) != m_entries.end();
    return isDrainable ? NextStep::kDrain : NextStep::kRenew;
}

// In all searches here the list is short: it has no more entries than a queue has places.
bool QueueLedger::isAwaited() const {
    return std::ranges::find(m_entries, State::kAwaited, &Entry::state) != m_entries.end();
}

// By state too: an earlier attempt of the same task may be in the list, unread or in doubt.
QueueLedger::Entries::iterator QueueLedger::findAwaited(unsigned long taskId) {
    return std::ranges::find_if(m_entries, [taskId](const Entry& entry) {
        return entry.taskId == taskId && entry.state == State::kAwaited;
    });
}

void QueueLedger::addInput(unsigned long taskId) {
    MutexLock lock(m_mutex);
    // Not awaited yet: should the inference be refused, the task is given back.
    m_entries.push_back({taskId, State::kUnread});
    m_lacksInference = true;
}

void QueueLedger::addInference() {
    MutexLock lock(m_mutex);
    m_entries.back().state = State::kAwaited;
    m_lacksInference = false;
}

void QueueLedger::makeUpInference() {
    MutexLock lock(m_mutex);
    m_lacksInference = false;
}

// The result will still come, so its place stays taken until it is read and dropped.
void QueueLedger::abandonUnsafe(unsigned long taskId) {
    const Entries::iterator entry = findAwaited(taskId);
    if (entry != m_entries.end()) entry->state = State::kUnread;
    m_changed.notifyAll();
}

void QueueLedger::abandon(unsigned long taskId) {
    MutexLock lock(m_mutex);
    abandonUnsafe(taskId);
}

void QueueLedger::close() {
    MutexLock lock(m_mutex);
    m_closed = true;
    m_changed.notifyAll();
}

bool QueueLedger::beginTurn(unsigned long taskId) {
    MutexLock lock(m_mutex);
    m_hasTurn = findAwaited(taskId) != m_entries.end();
    return m_hasTurn;
}

// Wakes the input thread: the places that the turn has freed are told here and not one by one.
void QueueLedger::endTurn(unsigned long taskId) {
    MutexLock lock(m_mutex);
    m_hasTurn = false;
    abandonUnsafe(taskId);
}

// Unread and doubtful entries ahead of it mean that another result may come out first.
bool QueueLedger::isNext(unsigned long taskId) {
    MutexLock lock(m_mutex);
    return std::all_of(m_entries.begin(), findAwaited(taskId),
                       [](const Entry& entry) { return entry.state == State::kAwaited; });
}

// Only entries up to the reader's own can come out before it; a task id further back is a later
// attempt of the same task.
QueueLedger::Outcome QueueLedger::addResult(unsigned long ownId, unsigned long taskId) {
    MutexLock lock(m_mutex);
    const Entries::iterator own = findAwaited(ownId);
    const Entries::iterator end = own == m_entries.end() ? own : own + 1;
    const Entries::iterator entry =
        std::find_if(m_entries.begin(), end,
                     [taskId](const Entry& candidate) { return candidate.taskId == taskId; });
    const bool isAnothers = entry != own && entry != end && entry->state == State::kAwaited;
    if (entry == end || isAnothers) {
        if (own != m_entries.end()) m_entries.erase(own);
        return Outcome::kForeign;
    }
    return settle(entry, end) ? Outcome::kOwn : Outcome::kDropped;
}

// An id that is not in here was never written by this service: it counts for the oldest certain
// one, so that the number of places stays right.
void QueueLedger::addDrained(unsigned long taskId) {
    MutexLock lock(m_mutex);
    Entries::iterator entry = std::ranges::find(m_entries, taskId, &Entry::taskId);
    if (entry == m_entries.end()) {
        entry = std::ranges::find(m_entries, State::kUnread, &Entry::state);
    }
    if (entry != m_entries.end()) (void)settle(entry, m_entries.end());
}

// A task that was offered again has its id in here more than once. A result with that id may be of
// an attempt in doubt or of the next one, and which it was makes no difference: the input was the
// same. But from then on it is the next one of which it is not known whether it is out.
bool QueueLedger::settle(Entries::iterator entry, Entries::iterator end) {
    bool wasAwaited = entry->state == State::kAwaited;
    if (entry->state == State::kDoubtful) {
        const Entries::iterator certain =
            std::find_if(entry, end, [](const Entry& e) { return e.state != State::kDoubtful; });
        if (certain != end && certain->taskId == entry->taskId) {
            wasAwaited = certain->state == State::kAwaited;
            certain->state = State::kDoubtful;
        }
    }
    entry->state = State::kDoubtful;
    const auto isGone = [](const Entry& e) { return e.state != State::kAwaited; };
    m_entries.erase(std::remove_if(m_entries.begin(), entry + 1, isGone), entry + 1);
    return wasAwaited;
}

// The read has met the oldest result that is certain to come, and may have taken it out.
void QueueLedger::addFailedReading() {
    MutexLock lock(m_mutex);
    const Entries::iterator certain = std::ranges::find_if(
        m_entries, [](const Entry& entry) { return entry.state != State::kDoubtful; });
    if (certain != m_entries.end()) certain->state = State::kDoubtful;
    m_changed.notifyAll();
}

}  // namespace kelm

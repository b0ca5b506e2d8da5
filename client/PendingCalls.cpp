#include "client/PendingCalls.h"

#include <algorithm>
#include <utility>

#include "utils/ThreadUtils.h"

namespace kelm::client {

namespace {

thread_local bool t_watchesDeadlines = false;

}  // namespace

void watchDeadlines() { t_watchesDeadlines = true; }
bool watchesDeadlines() { return t_watchesDeadlines; }

Error unexpectedAnswer() {
    return {ErrorKind::kSystem, 0, "the service gave an answer of another kind; check its version"};
}

PendingCalls::PendingCalls(std::function<Clock::time_point()> onOverdue)
    : m_onOverdue(std::move(onOverdue)), m_thread([this] { deadlineRoutine(); }) {}

PendingCalls::~PendingCalls() {
    closeAll(Error::connectionLost());
    {
        MutexLock lock(m_mutex);
        m_stop = true;
    }
    m_wake.notifyAll();
    m_thread.join();
}

bool PendingCalls::addCall(uint64_t sequence, const char* what, Clock::time_point deadline,
                           Reply reply) {
    Entry entry;
    entry.deadline = deadline;
    entry.what = what;
    entry.reply = std::move(reply);
    return add(sequence, std::move(entry));
}

bool PendingCalls::addInfer(Clock::time_point deadline, const KelmMsgReqInferTask& message,
                            std::shared_ptr<SlotClaim> claim, InferCallback done,
                            AcceptCallback accepted, bool waited) {
    Entry entry;
    entry.waited = waited;
    entry.claim = std::move(claim);
    entry.deadline = deadline;
    // Both latencies begin here, before the request is sent.
    entry.start = Clock::now();
    entry.what = "the inference";
    entry.done = std::move(done);
    entry.accepted = std::move(accepted);
    entry.graphId = message.graphId;
    entry.result.cookie0 = message.taskCookie0;
    entry.result.cookie1 = message.taskCookie1;
    return add(message.head.reqSeqNo, std::move(entry));
}

bool PendingCalls::add(uint64_t sequence, Entry entry) {
    bool wake = false;
    {
        MutexLock lock(m_mutex);
        if (m_closed) return false;
        wake = entry.deadline < m_nextCheck;
        if (wake) m_nextCheck = entry.deadline;
        m_entries.insert(sequence, std::move(entry));
    }
    if (wake) m_wake.notifyOne();  // the thread sleeps until the deadline that was first so far
    return true;
}

std::optional<PendingCalls::Entry> PendingCalls::take(uint64_t sequence) {
    MutexLock lock(m_mutex);
    return m_entries.take(sequence);
}

// Never under the mutex: a callback may submit the next request.
void PendingCalls::end(Entry& entry, const Error& error) {
    if (entry.reply) entry.reply(nullptr, error);
    if (!entry.done) return;
    entry.result.error = error;
    entry.done(entry.result);
}

// The slots stay claimed: nobody knows what became of the task.
void PendingCalls::endUnanswered(Entry& entry) {
    if (entry.claim) entry.claim->abandon();
    end(entry, unexpectedAnswer());
}

// An answer that comes after its deadline finds no entry, and is dropped.
bool PendingCalls::finishCall(uint64_t sequence, MessagePtr answer) {
    std::optional<Entry> entry = take(sequence);
    if (!entry) return false;
    if (entry->reply) {
        entry->reply(std::move(answer), Error());
    } else {
        endUnanswered(*entry);
    }
    return true;
}

void PendingCalls::acceptInfer(uint64_t sequence, int32_t status, uint64_t taskId) {
    const Clock::time_point now = Clock::now();
    AcceptCallback accepted;
    bool isCall = false;
    {
        MutexLock lock(m_mutex);
        Entry* const entry = m_entries.find(sequence);
        if (entry == nullptr) return;
        isCall = static_cast<bool>(entry->reply);
        entry->result.acceptLatency = now - entry->start;
        entry->result.taskId = taskId;
        // Taken out and called without the lock; the entry stays until its result.
        if (status == 0) accepted.swap(entry->accepted);
    }
    if (isCall) {
        fail(sequence, unexpectedAnswer());
    } else if (status != 0) {
        fail(sequence, Error::fromStatus(status, CallKind::kInfer));
    } else if (accepted) {
        accepted(taskId);
    }
}

bool PendingCalls::finishInfer(uint64_t sequence, int32_t status, uint64_t taskId) {
    std::optional<Entry> entry = take(sequence);
    if (!entry) return false;
    if (entry->reply) {
        endUnanswered(*entry);
        return false;
    }
    entry->claim.reset();  // first: the callback may submit with the same slot
    if (!entry->done) return false;
    entry->result.taskId = taskId;
    entry->result.resultLatency = Clock::now() - entry->start;
    end(*entry, Error::fromStatus(status, CallKind::kInfer));
    return entry->waited;
}

bool PendingCalls::empty() const {
    MutexLock lock(m_mutex);
    return m_entries.size() == 0;
}

bool PendingCalls::has(uint64_t sequence) const {
    MutexLock lock(m_mutex);
    const Entry* const entry = m_entries.find(sequence);
    return entry != nullptr && (entry->reply || entry->done);
}

bool PendingCalls::isWaited(uint64_t sequence) const {
    MutexLock lock(m_mutex);
    const Entry* const entry = m_entries.find(sequence);
    return entry == nullptr || entry->waited;
}

// A search, since entries are kept by sequence number and cancels are rare.
void PendingCalls::endInfer(uint64_t taskId, const Error& error) {
    if (taskId == 0) return;  // entries that have not been told theirs
    uint64_t sequence = 0;
    {
        MutexLock lock(m_mutex);
        const auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& item) {
            return !item.second.reply && item.second.result.taskId == taskId;
        });
        if (found == m_entries.end()) return;
        sequence = found->first;
    }
    fail(sequence, error);
}

std::vector<uint64_t> PendingCalls::tasks(uint64_t graphId, bool everyLate) const {
    std::vector<uint64_t> tasks;
    MutexLock lock(m_mutex);
    for (const auto& [sequence, entry] : m_entries) {
        if (entry.reply) continue;
        const bool isLate = !entry.done;
        if (entry.graphId == graphId || (everyLate && isLate)) tasks.push_back(entry.result.taskId);
    }
    return tasks;
}

void PendingCalls::fail(uint64_t sequence, const Error& error) {
    std::optional<Entry> entry = take(sequence);
    if (!entry) return;
    entry->claim.reset();
    end(*entry, error);
}

// The callbacks run outside the lock, so that one may submit again: it is refused, and nothing
// waits for itself. Slots stay claimed: the tasks may run on for a moment.
void PendingCalls::closeAll(const Error& error) {
    Entries entries;
    {
        MutexLock lock(m_mutex);
        m_closed = true;
        std::swap(entries, m_entries);  // m_closed is set under the same lock: none comes after it
    }
    for (auto& [sequence, entry] : entries) {
        if (entry.claim) entry.claim->abandon();
        end(entry, error);
    }
}

// A walk over all: the time of the next check may be that of an entry that has ended since.
std::vector<PendingCalls::Entry> PendingCalls::takeOverdueUnsafe(Clock::time_point now) {
    std::vector<uint64_t> sequences;
    m_nextCheck = Clock::time_point::max();
    for (const auto& [sequence, entry] : m_entries) {
        if (entry.deadline <= now) {
            sequences.push_back(sequence);
        } else {
            m_nextCheck = std::min(m_nextCheck, entry.deadline);
        }
    }
    std::vector<Entry> overdue;
    overdue.reserve(sequences.size());
    for (const uint64_t sequence : sequences) {
        Entry& entry = overdue.emplace_back(*m_entries.take(sequence));
        if (!entry.claim) continue;
        // The task may still run and write its result.
        Entry late;
        late.deadline = Clock::time_point::max();
        late.graphId = entry.graphId;
        late.result.taskId = entry.result.taskId;
        late.claim = std::move(entry.claim);
        m_entries.insert(sequence, std::move(late));
    }
    return overdue;
}

void PendingCalls::deadlineRoutine() {
    ThreadUtils::setName("KelmDeadline");
    watchDeadlines();
    MutexLock lock(m_mutex);
    while (!m_stop) {
        if (m_nextCheck == Clock::time_point::max()) {
            m_wake.wait(m_mutex);
        } else {
            m_wake.waitUntil(m_mutex, m_nextCheck);
        }
        const Clock::time_point now = Clock::now();
        if (m_nextCheck > now) continue;  // woken early: an earlier deadline, or the end
        std::vector<Entry> overdue = takeOverdueUnsafe(now);
        lock.unlock();
        for (Entry& entry : overdue) end(entry, Error::timeout(entry.what));
        // After the callbacks: a write that is stuck is looked for last, as it ends the connection.
        const Clock::time_point again = m_onOverdue();
        lock.lock();
        m_nextCheck = std::min(m_nextCheck, again);
    }
}

}  // namespace kelm::client

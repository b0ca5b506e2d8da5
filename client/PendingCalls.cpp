#include "client/PendingCalls.h"

#include <algorithm>
#include <utility>

#include "utils/ThreadUtils.h"

namespace kelm::client {

namespace {
constexpr size_t kSpareNodes = 256;
}

PendingCalls::PendingCalls(std::function<void()> onOverdue)
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

bool PendingCalls::addInfer(uint64_t sequence, Clock::time_point deadline,
                            const InferRequest& request, InferCallback done,
                            AcceptCallback accepted) {
    Entry entry;
    entry.deadline = deadline;
    entry.start = Clock::now();
    entry.what = "the inference";
    entry.done = std::move(done);
    entry.accepted = std::move(accepted);
    entry.result.cookie0 = request.cookie0;
    entry.result.cookie1 = request.cookie1;
    return add(sequence, std::move(entry));
}

bool PendingCalls::add(uint64_t sequence, Entry entry) {
    bool wake = false;
    {
        MutexLock lock(m_mutex);
        if (m_closed) return false;
        wake = entry.deadline < m_nextCheck;
        if (wake) m_nextCheck = entry.deadline;
        if (m_spareNodes.empty()) {
            m_entries.emplace(sequence, std::move(entry));
        } else {
            Entries::node_type node = std::move(m_spareNodes.back());
            m_spareNodes.pop_back();
            node.key() = sequence;
            node.mapped() = std::move(entry);
            m_entries.insert(std::move(node));
        }
    }
    if (wake) m_wake.notifyOne();
    return true;
}

PendingCalls::Entry PendingCalls::take(uint64_t sequence, bool& found) {
    MutexLock lock(m_mutex);
    Entries::node_type node = m_entries.extract(sequence);
    found = !node.empty();
    if (!found) return {};
    Entry entry = std::move(node.mapped());
    if (m_spareNodes.size() < kSpareNodes) m_spareNodes.push_back(std::move(node));
    return entry;
}

void PendingCalls::end(Entry& entry, const Error& error) {
    if (entry.reply) entry.reply(nullptr, error);
    if (!entry.done) return;
    entry.result.error = error;
    entry.done(entry.result);
}

void PendingCalls::finishCall(uint64_t sequence, MessagePtr answer) {
    bool found = false;
    const Entry entry = take(sequence, found);
    if (found && entry.reply) entry.reply(std::move(answer), Error());
}

void PendingCalls::acceptInfer(uint64_t sequence, int32_t status, uint64_t taskId) {
    const Clock::time_point now = Clock::now();
    AcceptCallback accepted;
    {
        MutexLock lock(m_mutex);
        const auto found = m_entries.find(sequence);
        if (found == m_entries.end()) return;
        Entry& entry = found->second;
        entry.result.acceptLatency = now - entry.start;
        entry.result.taskId = taskId;
        if (status == 0) accepted.swap(entry.accepted);
    }
    if (status != 0) {
        fail(sequence, Error::fromStatus(status));
    } else if (accepted) {
        accepted(taskId);
    }
}

void PendingCalls::finishInfer(uint64_t sequence, int32_t status, uint64_t taskId) {
    bool found = false;
    Entry entry = take(sequence, found);
    if (!found || !entry.done) return;
    entry.result.taskId = taskId;
    entry.result.resultLatency = Clock::now() - entry.start;
    end(entry, Error::fromStatus(status));
}

void PendingCalls::cancelInfer(uint64_t taskId) {
    uint64_t sequence = 0;
    {
        MutexLock lock(m_mutex);
        const auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& item) {
            return item.second.done && item.second.result.taskId == taskId;
        });
        if (found == m_entries.end()) return;
        sequence = found->first;
    }
    fail(sequence, Error::canceled());
}

void PendingCalls::fail(uint64_t sequence, const Error& error) {
    bool found = false;
    Entry entry = take(sequence, found);
    if (found) end(entry, error);
}

void PendingCalls::closeAll(const Error& error) {
    Entries entries;
    {
        MutexLock lock(m_mutex);
        m_closed = true;
        entries.swap(m_entries);
    }
    for (auto& [sequence, entry] : entries) end(entry, error);
}

std::vector<PendingCalls::Entry> PendingCalls::takeOverdueUnsafe(Clock::time_point now) {
    std::vector<Entry> overdue;
    m_nextCheck = Clock::time_point::max();
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (it->second.deadline <= now) {
            overdue.push_back(std::move(it->second));
            it = m_entries.erase(it);
        } else {
            m_nextCheck = std::min(m_nextCheck, it->second.deadline);
            ++it;
        }
    }
    return overdue;
}

void PendingCalls::deadlineRoutine() {
    ThreadUtils::setName("KelmDeadline");
    MutexLock lock(m_mutex);
    while (!m_stop) {
        if (m_nextCheck == Clock::time_point::max()) {
            m_wake.wait(m_mutex);
        } else {
            m_wake.waitUntil(m_mutex, m_nextCheck);
        }
        const Clock::time_point now = Clock::now();
        if (m_nextCheck > now) continue;
        std::vector<Entry> overdue = takeOverdueUnsafe(now);
        lock.unlock();
        for (Entry& entry : overdue) end(entry, Error::timeout(entry.what));
        if (!overdue.empty()) m_onOverdue();
        lock.lock();
    }
}

}  // namespace kelm::client

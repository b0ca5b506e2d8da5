#include "libkelm/GraphQueue.h"

#include <algorithm>
#include <utility>

#include "libkelm/ErrorCodes.h"
#include "libkelm/Session.h"
#include "protocol/src/KelmError.h"

namespace kelm::lib {

namespace {

using client::Error;
using client::ErrorKind;
using client::InferResult;
using client::PreparedInfer;
using client::Result;

constexpr std::chrono::microseconds kFirstPause{1000};
constexpr std::chrono::microseconds kLongestPause{100000};
constexpr client::Deadline kCancelDeadline{10000};

// The program is in a call that starts or cancels a task, with locks of its own perhaps: its
// callbacks would wait for these.
thread_local bool t_isInCall = false;

Error expired() {
    return {ErrorKind::kExpired, 0,
            "the deadline of the task passed before it was sent; submit fewer tasks or give them "
            "more time"};
}

uint64_t nanosBetween(Task::Clock::time_point from, Task::Clock::time_point to) {
    return static_cast<uint64_t>(std::chrono::nanoseconds(to - from).count());
}

}  // namespace

GraphQueue::GraphQueue(std::shared_ptr<Session> session, Limits limits, uint64_t connection,
                       uint64_t graphId)
    : m_session(std::move(session)),
      m_limits(limits),
      m_connection(connection),
      m_graphId(graphId),
      m_random(std::random_device()()) {}

Error GraphQueue::submit(std::unique_ptr<Task> task, uint64_t& ticket) {
    const Clock::time_point deadline = task->deadline;
    const bool waited = task->endsInPlace;
    task->queue = shared_from_this();
    PreparedInfer infer;
    {
        MutexLock lock(m_mutex);
        if (m_closed) {
            return {ErrorKind::kNotConnected, 0,
                    "the graph or its connection was closed; connect and load the graph again"};
        }
        if (m_waiting.size() >= m_limits.maxWaiting) {
            return {ErrorKind::kBusy, 0,
                    "as many tasks wait in this process as its max_waiting allows; wait for "
                    "results before submitting more"};
        }
        task->submitted = Clock::now();
        task->ticket = ticket = ++m_lastTicket;
        if (m_waiting.empty() && maySendUnsafe(task->submitted)) {
            const Clock::time_point now = task->submitted;
            infer = startUnsafe(std::move(task), now);
        } else {
            enqueueUnsafe(std::move(task));
        }
    }
    if (infer.message.head.base.size == 0) {
        m_session->wakeAt(deadline);
        return {};
    }
    const bool outer = std::exchange(t_isInCall, true);
    send(infer, ticket, deadline, waited);
    t_isInCall = outer;
    return {};
}

bool GraphQueue::maySendUnsafe(Clock::time_point now) const {
    return m_connected && m_sent.size() < m_limits.window && now >= m_pausedUntil;
}

void GraphQueue::enqueueUnsafe(std::unique_ptr<Task> task) {
    const Place place = placeOf(*task);
    m_deadlines.emplace(task->deadline, place);
    m_waiting.emplace(place, std::move(task));
}

std::unique_ptr<Task> GraphQueue::dequeueUnsafe(Place place) {
    auto node = m_waiting.extract(place);
    m_deadlines.erase({node.mapped()->deadline, place});
    return std::move(node.mapped());
}

// A copy: the task may end, and its memory with it, before the sender is done with the request.
PreparedInfer GraphQueue::startUnsafe(std::unique_ptr<Task> task, Clock::time_point now) {
    task->sent = now;
    task->taskId = 0;
    task->connection = m_connection;
    task->infer.message.graphId = m_graphId;
    PreparedInfer infer = task->infer;
    const uint64_t ticket = task->ticket;
    m_sent.insert(ticket, std::move(task));
    return infer;
}

// The task itself keeps this object while a callback may come.
void GraphQueue::send(PreparedInfer& infer, uint64_t ticket, Clock::time_point deadline,
                      bool waited) {
    const std::shared_ptr<client::Client> client = m_session->client();
    if (!client || !client->isConnected()) {
        InferResult unsent;
        unsent.error = Error::notConnected();
        return ended(ticket, unsent);
    }
    const auto done = [this, ticket](const InferResult& result) { ended(ticket, result); };
    const auto taken = [this, ticket](uint64_t taskId) { accepted(ticket, taskId); };
    if (waited) {
        client->inferWaited(infer, done, taken, deadline);
    } else {
        client->inferAsync(infer, done, taken, deadline);
    }
}

// What is overdue is left to the timer: this may be the thread of a call, where no other task's
// callback may run.
void GraphQueue::sendWaiting() {
    const auto self = shared_from_this();
    while (true) {
        PreparedInfer infer;
        uint64_t ticket = 0;
        Clock::time_point deadline;
        {
            MutexLock lock(m_mutex);
            const Clock::time_point now = Clock::now();
            if (m_waiting.empty() || !maySendUnsafe(now)) return;
            deadline = m_waiting.begin()->second->deadline;
            if (deadline > now) {
                std::unique_ptr<Task> task = dequeueUnsafe(m_waiting.begin()->first);
                ticket = task->ticket;
                infer = startUnsafe(std::move(task), now);
            }
        }
        if (ticket == 0) return m_session->wakeAt(deadline);
        send(infer, ticket, deadline, false);
    }
}

void GraphQueue::accepted(uint64_t ticket, uint64_t taskId) {
    MutexLock lock(m_mutex);
    const std::unique_ptr<Task>* const task = m_sent.find(ticket);
    if (task == nullptr) return;
    (*task)->taskId = taskId;
    m_change.notifyAll();
}

// A loss that a task tells of may be that of the connection before this one.
void GraphQueue::ended(uint64_t ticket, const InferResult& result) {
    std::unique_ptr<Task> task;
    std::shared_ptr<GraphQueue> self;
    Clock::time_point wake = Clock::time_point::max();
    bool waiting = false;
    {
        MutexLock lock(m_mutex);
        std::optional<std::unique_ptr<Task>> found = m_sent.take(ticket);
        if (!found) return;
        task = std::move(*found);
        self = task->queue;
        const ErrorKind kind = result.error.kind();
        const bool lost = kind == ErrorKind::kConnectionLost || kind == ErrorKind::kNotConnected;
        if (lost && task->connection == m_connection) m_connected = false;
        if (keepUnsentUnsafe(task, result.error, Clock::now())) {
            wake = nextTickUnsafe();
        } else if (!lost) {
            m_pausedUntil = Clock::time_point::min();
            m_pause = {};
        }
        if (task) ++m_ending;
        waiting = !m_waiting.empty();
        m_change.notifyAll();
    }
    if (wake != Clock::time_point::max()) m_session->wakeAt(wake);
    if (waiting) sendWaiting();  // first: the devices wait for it
    if (!task) return;
    finish(std::move(task), result);
    MutexLock lock(m_mutex);
    --m_ending;
    m_change.notifyAll();
}

// Jitter: clients that are refused together should not come back together.
bool GraphQueue::keepUnsentUnsafe(std::unique_ptr<Task>& task, const Error& error,
                                  Clock::time_point now) {
    const bool refused =
        error.kind() == ErrorKind::kService && error.code() == KELM_ERROR_TOO_MANY_TASK;
    const bool unsent = error.kind() == ErrorKind::kNotConnected;
    if ((!refused && !unsent) || m_closed || task->deadline <= now) return false;
    if (refused) {
        m_pause = std::clamp(m_pause * 2, kFirstPause, kLongestPause);
        std::uniform_int_distribution<int64_t> jitter(m_pause.count() / 2, m_pause.count() * 3 / 2);
        m_pausedUntil = now + std::chrono::microseconds(jitter(m_random));
    }
    enqueueUnsafe(std::move(task));
    return true;
}

void GraphQueue::finish(std::unique_ptr<Task> task, const InferResult& result) {
    task->infer.claim.reset();  // first: the callback may submit with the same slot
    if (task->done == nullptr) return;
    TaskEnd end{};
    end.result.size = sizeof(end.result);
    end.result.error = codeOf(result.error);
    end.text = result.error.text();
    end.result.ticket = task->ticket;
    end.result.cookie = task->cookie;
    end.result.task_id = result.taskId;
    const Clock::time_point now = Clock::now();
    const bool wasSent = task->connection != 0;
    end.result.waited_ns = nanosBetween(task->submitted, wasSent ? task->sent : now);
    end.result.accepted_ns = static_cast<uint64_t>(result.acceptLatency.count());
    end.result.total_ns = nanosBetween(task->submitted, now);
    end.done = task->done;
    end.user = task->user;
    Callbacks::Callback callback(std::move(end));
    if (task->endsInPlace) return Callbacks::runNow(callback);
    if (t_isInCall) return m_session->tellLater(std::move(callback));
    m_session->callbacks().run(std::move(callback));
}

void GraphQueue::finishUnsent(std::vector<std::unique_ptr<Task>> tasks, const Error& error) {
    InferResult end;
    end.error = error;
    for (std::unique_ptr<Task>& task : tasks) finish(std::move(task), end);
}

Result<bool> GraphQueue::cancel(uint64_t ticket, bool mayWait) {
    const Clock::time_point end = Clock::now() + kCancelDeadline;
    std::vector<std::unique_ptr<Task>> here;
    uint64_t taskId = 0;
    {
        MutexLock lock(m_mutex);
        const auto found = std::find_if(m_waiting.begin(), m_waiting.end(), [&](const auto& item) {
            return item.first.second == ticket;
        });
        if (found != m_waiting.end()) {
            here.push_back(dequeueUnsafe(found->first));
        } else if (!mayWait) {
            return false;
        }
        // Sent, but the service has not told its number yet.
        while (here.empty()) {
            const std::unique_ptr<Task>* const task = m_sent.find(ticket);
            if (task == nullptr) return false;
            taskId = (*task)->taskId;
            if (taskId != 0) break;
            if (!m_change.waitUntil(m_mutex, end)) return Error::timeout("the cancel");
        }
    }
    if (!here.empty()) {
        const bool outer = std::exchange(t_isInCall, true);
        finishUnsent(std::move(here), Error::canceled());
        t_isInCall = outer;
        return true;
    }
    const std::shared_ptr<client::Client> client = m_session->client();
    if (!client) return Error::connectionLost();
    Result<bool> canceled = client->cancel(taskId, kCancelDeadline);
    // It has ended meanwhile.
    if (canceled.error().code() == KELM_ERROR_INVALID_TASK) return false;
    return canceled;
}

void GraphQueue::suspend() {
    MutexLock lock(m_mutex);
    m_connected = false;
}

void GraphQueue::resume(uint64_t connection, uint64_t graphId) {
    {
        MutexLock lock(m_mutex);
        m_connection = connection;
        m_graphId = graphId;
        m_connected = true;
        m_pausedUntil = Clock::time_point::min();
        m_pause = {};
    }
    sendWaiting();
}

void GraphQueue::close(const Error& error) {
    std::vector<std::unique_ptr<Task>> waiting;
    {
        MutexLock lock(m_mutex);
        m_closed = true;
        for (auto& [place, task] : m_waiting) waiting.push_back(std::move(task));
        m_waiting.clear();
        m_deadlines.clear();
    }
    finishUnsent(std::move(waiting), error);
}

bool GraphQueue::waitUntilEmpty(Clock::time_point deadline) {
    MutexLock lock(m_mutex);
    const auto isEmpty = [this]() REQUIRES(m_mutex) { return m_sent.size() == 0 && m_ending == 0; };
    while (!isEmpty()) {
        if (!m_change.waitUntil(m_mutex, deadline) && !isEmpty()) return false;
    }
    return true;
}

std::vector<std::unique_ptr<Task>> GraphQueue::takeOverdueUnsafe(Clock::time_point now) {
    std::vector<std::unique_ptr<Task>> overdue;
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now) {
        overdue.push_back(dequeueUnsafe(m_deadlines.begin()->second));
    }
    return overdue;
}

GraphQueue::Clock::time_point GraphQueue::nextTickUnsafe() const {
    if (m_deadlines.empty()) return Clock::time_point::max();
    const Clock::time_point deadline = m_deadlines.begin()->first;
    const bool paused = m_pausedUntil > Clock::now();
    return paused ? std::min(deadline, m_pausedUntil) : deadline;
}

GraphQueue::Clock::time_point GraphQueue::tick(Clock::time_point now) {
    std::vector<std::unique_ptr<Task>> overdue;
    {
        MutexLock lock(m_mutex);
        overdue = takeOverdueUnsafe(now);
    }
    sendWaiting();  // first: a callback may take its time
    finishUnsent(std::move(overdue), expired());
    MutexLock lock(m_mutex);
    return nextTickUnsafe();
}

uint64_t GraphQueue::graphId() const {
    MutexLock lock(m_mutex);
    return m_graphId;
}

uint64_t GraphQueue::connection() const {
    MutexLock lock(m_mutex);
    return m_connection;
}

}  // namespace kelm::lib

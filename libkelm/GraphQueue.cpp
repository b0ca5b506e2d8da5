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

// The service, or this library's own count of what is on its way, has too many tasks; or the
// service is about to end, which is done with its clients before it closes their connections.
bool isRefusal(const Error& error) {
    return error.kind() == ErrorKind::kBusy ||
           (error.kind() == ErrorKind::kService && (error.code() == KELM_ERROR_TOO_MANY_TASK ||
                                                    error.code() == KELM_ERROR_INVALID_CLIENT));
}

InferResult failed(const Error& error) {
    InferResult end;
    end.error = error;
    return end;
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
    Sending sending;
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
        ++m_unfinished;
        if (m_waiting.empty() && maySendUnsafe(task->submitted)) {
            const Clock::time_point now = task->submitted;
            sending = startUnsafe(std::move(task), now);
        } else {
            enqueueUnsafe(std::move(task));
        }
    }
    if (sending.connection == 0) {
        m_session->wakeAt(deadline);
        return {};
    }
    const bool outer = std::exchange(t_isInCall, true);
    send(sending, waited);
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

// By priority, since the caller does not know it: there are few.
std::unique_ptr<Task> GraphQueue::dequeueTicketUnsafe(uint64_t ticket) {
    for (uint32_t rank = 0; rank <= kHighestPriority; ++rank) {
        if (m_waiting.contains({rank, ticket})) return dequeueUnsafe({rank, ticket});
    }
    return nullptr;
}

// A copy: the task may end, and its memory with it, before the sender is done with the request.
GraphQueue::Sending GraphQueue::startUnsafe(std::unique_ptr<Task> task, Clock::time_point now) {
    task->sent = now;
    task->taskId = 0;
    task->isTakenBack = false;
    task->connection = m_connection;
    task->infer.message.graphId = m_graphId;
    Sending sending{task->infer, task->ticket, m_connection, task->deadline};
    m_sent.insert(sending.ticket, std::move(task));
    return sending;
}

// The task itself keeps this object until its end is told. That it was accepted may be told later,
// by a thread that was held up, and so keeps it too. Another connection than the one that the
// graph's number is of may have another graph by this number.
void GraphQueue::send(Sending& sending, bool waited) {
    const uint64_t ticket = sending.ticket;
    const std::shared_ptr<client::Client> client = m_session->client(sending.connection);
    if (!client || !client->isConnected()) {
        return ended(ticket, failed(Error::notConnected()));
    }
    const auto done = [this, ticket](const InferResult& result) { ended(ticket, result); };
    auto taken = [self = shared_from_this(), ticket](uint64_t taskId) {
        self->accepted(ticket, taskId);
    };
    if (waited) {
        client->inferWaited(sending.infer, done, std::move(taken), sending.deadline);
    } else {
        client->inferAsync(sending.infer, done, std::move(taken), sending.deadline);
    }
}

// What is overdue is left to the timer: this may be the thread of a call, where no other task's
// callback may run.
void GraphQueue::sendWaiting() {
    const auto self = shared_from_this();
    while (true) {
        Sending sending;
        Clock::time_point deadline;
        {
            MutexLock lock(m_mutex);
            const Clock::time_point now = Clock::now();
            if (m_waiting.empty() || !maySendUnsafe(now)) return;
            deadline = m_waiting.begin()->second->deadline;
            if (deadline > now) {
                sending = startUnsafe(dequeueUnsafe(m_waiting.begin()->first), now);
            }
        }
        if (sending.connection == 0) return m_session->wakeAt(deadline);
        send(sending, false);
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
    InferResult end = result;
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
        if (isUnsent(*task, result.error)) {
            end.error = keepUnsentUnsafe(task, result.error, Clock::now());
            wake = nextTickUnsafe();
        } else if (!lost) {
            m_pausedUntil = Clock::time_point::min();
            m_pause = {};
        }
        waiting = !m_waiting.empty();
        m_change.notifyAll();
    }
    if (wake != Clock::time_point::max()) m_session->wakeAt(wake);
    if (waiting) sendWaiting();  // first: the devices wait for it
    if (task) finish(std::move(task), end);
}

bool GraphQueue::isUnsent(const Task& task, const Error& error) {
    const bool dropped =
        error.kind() == ErrorKind::kService && error.code() == KELM_ERROR_INVALID_TASK;
    return isRefusal(error) || error.kind() == ErrorKind::kNotConnected || dropped ||
           (error.kind() == ErrorKind::kCanceled && task.isTakenBack);
}

// Jitter: clients that are refused together should not come back together.
Error GraphQueue::keepUnsentUnsafe(std::unique_ptr<Task>& task, const Error& error,
                                   Clock::time_point now) {
    if (m_closed) return m_closedWith;
    if (task->deadline <= now) return expired();
    if (isRefusal(error)) {
        m_pause = std::clamp(m_pause * 2, kFirstPause, kLongestPause);
        std::uniform_int_distribution<int64_t> jitter(m_pause.count() / 2, m_pause.count() * 3 / 2);
        m_pausedUntil = now + std::chrono::microseconds(jitter(m_random));
    }
    enqueueUnsafe(std::move(task));
    return {};
}

void GraphQueue::finish(std::unique_ptr<Task> task, const InferResult& result) {
    const std::shared_ptr<GraphQueue> self = task->queue;
    task->infer.claim.reset();  // first: the callback may submit with the same slot
    if (t_isInCall && !task->endsInPlace) {
        {
            MutexLock lock(m_mutex);
            m_untold.emplace_back(std::move(task), result);
        }
        return m_session->wakeAt(Clock::now());
    }
    if (task->done != nullptr) tellEnd(*task, result);
    MutexLock lock(m_mutex);
    if (--m_unfinished == 0) m_change.notifyAll();
}

void GraphQueue::tellEnd(Task& task, const InferResult& result) {
    TaskEnd end{};
    end.result.size = sizeof(end.result);
    end.result.error = codeOf(result.error);
    end.text = result.error.text();
    end.result.ticket = task.ticket;
    end.result.cookie = task.cookie;
    end.result.task_id = result.taskId;
    const Clock::time_point now = Clock::now();
    const bool wasSent = task.connection != 0;
    end.result.waited_ns = nanosBetween(task.submitted, wasSent ? task.sent : now);
    end.result.accepted_ns = static_cast<uint64_t>(result.acceptLatency.count());
    end.result.total_ns = nanosBetween(task.submitted, now);
    end.done = task.done;
    end.user = task.user;
    Callbacks::Callback callback(std::move(end));
    if (task.endsInPlace) return Callbacks::runNow(callback);
    m_session->callbacks().run(std::move(callback));
}

void GraphQueue::finishUnsent(std::vector<std::unique_ptr<Task>> tasks, const Error& error) {
    const InferResult end = failed(error);
    for (std::unique_ptr<Task>& task : tasks) finish(std::move(task), end);
}

Result<bool> GraphQueue::cancel(uint64_t ticket, bool mayWait) {
    const Clock::time_point end = Clock::now() + kCancelDeadline;
    std::unique_ptr<Task> here;
    uint64_t taskId = 0;
    uint64_t connection = 0;
    {
        MutexLock lock(m_mutex);
        // Sent, but the service has not told its number yet, or refuses the task: it waits again
        // then.
        while (taskId == 0) {
            const std::unique_ptr<Task>* const task = m_sent.find(ticket);
            if (task == nullptr) break;
            if (!mayWait) return false;
            (*task)->isTakenBack = false;
            taskId = (*task)->taskId;
            connection = (*task)->connection;
            if (taskId != 0) break;
            if (!m_change.waitUntil(m_mutex, end)) return Error::timeout("the cancel");
        }
        if (taskId == 0) here = dequeueTicketUnsafe(ticket);
    }
    if (here) {
        const bool outer = std::exchange(t_isInCall, true);
        finish(std::move(here), failed(Error::canceled()));
        t_isInCall = outer;
        return true;
    }
    if (taskId == 0) return false;
    const std::shared_ptr<client::Client> client = m_session->client(connection);
    if (!client) return Error::connectionLost();
    const auto left = std::chrono::ceil<client::Deadline>(end - Clock::now());
    Result<bool> canceled = client->cancel(taskId, std::max(left, client::Deadline(1)));
    // It has ended meanwhile.
    if (canceled.error().code() == KELM_ERROR_INVALID_TASK) return false;
    return canceled;
}

// The first question is for nothing but its place: when it is answered, so are all requests that
// the service had before. What still waits is taken back, what runs has no result to wait for.
bool GraphQueue::resendDropped(client::Client& client, uint64_t connection) {
    const auto isAnswer = [](const Error& error) {
        return !error || error.kind() == ErrorKind::kService;
    };
    if (!isAnswer(client.queryTask(0).error())) return false;
    std::vector<uint64_t> taskIds;
    {
        MutexLock lock(m_mutex);
        for (auto& [ticket, task] : m_sent) {
            if (task->connection != connection || task->taskId == 0) continue;
            task->isTakenBack = true;
            taskIds.push_back(task->taskId);
        }
    }
    bool answers = true;
    std::erase_if(taskIds, [&](uint64_t taskId) {
        if (!answers) return false;
        const Result<bool> canceled = client.cancel(taskId, kCancelDeadline);
        answers = isAnswer(canceled.error());
        return canceled && canceled.value();
    });
    return answers && client.endDropped(taskIds);
}

bool GraphQueue::hasSent() const {
    MutexLock lock(m_mutex);
    return m_sent.size() > 0;
}

void GraphQueue::suspend() {
    MutexLock lock(m_mutex);
    m_connected = false;
}

void GraphQueue::resume(uint64_t connection, uint64_t graphId) {
    MutexLock lock(m_mutex);
    m_connection = connection;
    m_graphId = graphId;
    m_connected = true;
    m_pausedUntil = Clock::time_point::min();
    m_pause = {};
}

void GraphQueue::close(const Error& error) {
    std::vector<std::unique_ptr<Task>> waiting;
    {
        MutexLock lock(m_mutex);
        m_closed = true;
        m_closedWith = error;
        for (auto& [place, task] : m_waiting) waiting.push_back(std::move(task));
        m_waiting.clear();
        m_deadlines.clear();
    }
    finishUnsent(std::move(waiting), error);
}

bool GraphQueue::waitUntilEmpty(Clock::time_point deadline) {
    MutexLock lock(m_mutex);
    while (m_unfinished > 0) {
        if (!m_change.waitUntil(m_mutex, deadline) && m_unfinished > 0) return false;
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
    decltype(m_untold) untold;
    {
        MutexLock lock(m_mutex);
        overdue = takeOverdueUnsafe(now);
        untold.swap(m_untold);
    }
    sendWaiting();  // first: a callback may take its time
    for (auto& [task, result] : untold) finish(std::move(task), result);
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

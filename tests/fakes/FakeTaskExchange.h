#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "execution/TaskExchange.h"
#include "execution/WorkThread.h"
#include "utils/Mutex.h"
#include "utils/ThreadPool.h"

namespace kelm {

// Records what the workers ask and answers a deschedule as a task scheduler does. Any thread.
class FakeTaskExchange final : public TaskExchange {
 public:
    enum class Answer { OnThread, AtOnce, Never };
    using Request = std::pair<WorkThread*, KelmGraph*>;

    explicit FakeTaskExchange(Answer answer = Answer::OnThread) : m_answer(answer) {}

    void enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) override {
        MutexLock lock(m_mutex);
        m_scheduled.emplace_back(worker, graph);
    }
    void enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) override {
        {
            MutexLock lock(m_mutex);
            m_descheduled.emplace_back(worker, graph);
        }
        if (m_answer == Answer::AtOnce) worker->enqueueAbortApplyTaskDone(graph);
        if (m_answer == Answer::OnThread) {
            m_answers.post([worker, graph] { worker->enqueueAbortApplyTaskDone(graph); });
        }
    }
    void enqueueReturnTask(KelmTask* task) override {
        {
            MutexLock lock(m_mutex);
            m_returned.push_back(task);
        }
        if (onNextReturn) std::exchange(onNextReturn, nullptr)();
    }
    void enqueueDestroyTask(KelmTask* task) override {
        MutexLock lock(m_mutex);
        m_destroyed.push_back(task);
    }

    std::function<void()> onNextReturn;  // runs once, on the thread that returns; set before tasks

    // What was asked so far, in order.
    std::vector<Request> scheduled() { return read(m_scheduled); }
    std::vector<Request> descheduled() { return read(m_descheduled); }
    std::vector<KelmTask*> returned() { return read(m_returned); }
    std::vector<KelmTask*> destroyed() { return read(m_destroyed); }

 private:
    template <class T>
    std::vector<T> read(const std::vector<T>& records) {
        MutexLock lock(m_mutex);
        return records;
    }

    const Answer m_answer;
    Mutex m_mutex;
    // Guarded by m_mutex; read() takes them by reference.
    std::vector<Request> m_scheduled;
    std::vector<Request> m_descheduled;
    std::vector<KelmTask*> m_returned;
    std::vector<KelmTask*> m_destroyed;
    ThreadPool m_answers{"FakeExchange", 1, 1000};
};

}  // namespace kelm

#pragma once

#include "execution/TaskExchange.h"
#include "execution/WorkThread.h"
#include "fakes/Recorded.h"
#include "utils/SerialPool.h"

namespace kelm {

// Records what the workers ask and answers a deschedule as a task scheduler does. Any thread.
class FakeTaskExchange final : public TaskExchange {
 public:
    enum class Answer { OnThread, Never };
    using Request = std::pair<WorkThread*, KelmGraph*>;

    explicit FakeTaskExchange(Answer answer = Answer::OnThread) : m_answer(answer) {}

    void enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) override {
        scheduled.add(worker, graph);
    }
    void enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) override {
        descheduled.add(worker, graph);
        if (m_answer == Answer::OnThread) {
            m_answers.post([worker, graph] { worker->enqueueAbortApplyTaskDone(graph); });
        }
    }
    void enqueueReturnTask(KelmTask* task) override {
        returned.add(task);
        if (onNextReturn) std::exchange(onNextReturn, nullptr)();
    }
    void enqueueDestroyTask(KelmTask* task) override { destroyed.add(task); }

    std::function<void()> onNextReturn;  // runs once, on the thread that returns; set before tasks

    Recorded<Request> scheduled;
    Recorded<Request> descheduled;
    Recorded<KelmTask*> returned;
    Recorded<KelmTask*> destroyed;

 private:
    const Answer m_answer;
    SerialPool m_answers{"FakeExchange", 1000};
};

}  // namespace kelm

#include "config/ServiceConfigParser.h"
#include "execution/WorkThread.h"
#include "fakes/Eventually.h"
#include "fakes/FakeClientDirectory.h"
#include "fakes/FakeInfoCollector.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/FakeTaskScheduleListener.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TempDir.h"
#include "fakes/TestRecords.h"
#include "reporting/PrintInfoListener.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "scheduling/tasks/TaskSchedulerFCFS.h"
#include "scheduling/tasks/TaskSchedulerFactory.h"
#include "scheduling/tasks/TaskSchedulerPolling.h"
#include "utils/Port.h"

namespace kelm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

void configure(const std::string& text) {
    const TempDir dir;
    ServiceConfigParser::instance().appendConfigFile(dir.write("test.config", text), false);
}

class TaskSchedulerTest : public testing::Test {
 protected:
    TaskSchedulerTest() {
        configure(R"({"service_settings": {"server_max_task_number": 0}})");
        for (uint64_t clientId = 1; clientId <= 3; ++clientId) {
            client[clientId] = clients.add(clientId, "client" + std::to_string(clientId));
        }
    }
    KelmTask* makeTask(uint64_t clientId = 1) {
        const KelmMsgReqInferTask request{};
        tasks.push_back(std::make_unique<KelmTask>(tasks.size() + 1, client[clientId], graph.get(),
                                                   nullptr, &request));
        (void)tasks.back()->setSendCreateResponseDone();  // or its end would be logged
        return tasks.back().get();
    }
    // The tasks that reached a worker, in order.
    std::vector<KelmTask*> delivered() { return exchange.returned(); }
    void scheduleWorkers(TaskSchedulerBase& scheduler, int count) {
        for (; count > 0; --count) scheduler.scheduleWorker(&worker, graph.get());
    }

    FakeTaskScheduleListener listener;
    ScopedPort<TaskScheduleListener> listenerPort{listener};
    FakeClientDirectory clients;
    ScopedPort<ClientDirectory> clientPort{clients};
    // A worker that has no slot for a graph gives a task back at once, on the thread that brings
    // it; so what is returned here was handed to a worker.
    FakeTaskExchange exchange{FakeTaskExchange::Answer::Never};
    ScopedPort<TaskExchange> exchangePort{exchange};
    ScriptedDevices devices;
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "content");
    std::map<uint64_t, KelmClient*> client;
    std::vector<std::unique_ptr<KelmTask>> tasks;
    WorkThread worker{"device", 1, /*slaveWorkerNum=*/0, 0};
};

TEST_F(TaskSchedulerTest, TaskAndWorkerMeetWhicheverWaits) {
    TaskSchedulerPolling scheduler("TS.Polling");
    KelmTask* const first = makeTask();
    scheduler.scheduleWorker(&worker, graph.get());
    scheduler.scheduleTask(first);
    EXPECT_THAT(delivered(), ElementsAre(first));
    KelmTask* const second = makeTask();
    scheduler.scheduleTask(second);
    EXPECT_EQ(scheduler.getNumWaitTasks(), 1u);
    EXPECT_EQ(client[1]->getWaitingInferenceNum(), 1u);
    scheduler.scheduleWorker(&worker, graph.get());
    EXPECT_THAT(delivered(), ElementsAre(first, second));
    EXPECT_EQ(scheduler.getNumWaitTasks(), 0u);
    EXPECT_EQ(client[1]->getWaitingInferenceNum(), 0u);
    EXPECT_EQ(graph->getNumWaitTasks(), 0u);
    EXPECT_THAT(listener.scheduled(), ElementsAre(Pair(first, true), Pair(second, true)));
}

TEST_F(TaskSchedulerTest, WorkerThatComesBetweenLookAndQueueGetsTheTask) {
    TaskSchedulerPolling scheduler("TS.Polling");
    for (const bool returned : {false, true}) {
        SCOPED_TRACE(returned);
        KelmTask* const task = makeTask();
        clients.onNextSearch([&] { scheduler.scheduleWorker(&worker, graph.get()); });
        returned ? scheduler.rescheduleTask(task) : scheduler.scheduleTask(task);
        ASSERT_FALSE(delivered().empty());
        EXPECT_EQ(delivered().back(), task);
        EXPECT_EQ(scheduler.getNumWaitTasks(), 0u);
        EXPECT_EQ(graph->getNumWaitTasks(), 0u);
    }
}

TEST_F(TaskSchedulerTest, ReturnedTaskIsServedFirst) {
    TaskSchedulerFCFS scheduler("TS.FCFS");
    KelmTask* const waiting = makeTask(1);
    KelmTask* const returned = makeTask(2);
    scheduler.scheduleTask(waiting);
    scheduler.rescheduleTask(returned);
    scheduleWorkers(scheduler, 2);
    EXPECT_THAT(delivered(), ElementsAre(returned, waiting));
    EXPECT_THAT(listener.rescheduled(), ElementsAre(Pair(returned, true)));
    returned->cancel();
    scheduler.rescheduleTask(returned);
    EXPECT_EQ(listener.rescheduled().back(), FakeTaskScheduleListener::Decision(returned, false));
}

TEST_F(TaskSchedulerTest, LimitCountsWaitingTasksOnly) {
    configure(R"({"service_settings": {"server_max_task_number": 2}})");
    TaskSchedulerPolling scheduler("TS.Polling");
    scheduleWorkers(scheduler, 1);
    for (int i = 0; i < 4; ++i) scheduler.scheduleTask(makeTask());
    // The first went to the worker, two wait, the fourth is too many.
    EXPECT_EQ(delivered().size(), 1u);
    EXPECT_FALSE(listener.scheduled().back().second);
    EXPECT_TRUE(listener.scheduled()[2].second);
    scheduler.rescheduleTask(makeTask());  // no limit for what comes back
    EXPECT_EQ(scheduler.getNumWaitTasks(), 3u);
}

TEST_F(TaskSchedulerTest, CanceledTaskReachesNoWorker) {
    TaskSchedulerFCFS scheduler("TS.FCFS");
    KelmTask* const atOnce = makeTask();
    atOnce->cancel();
    scheduler.scheduleTask(atOnce);
    EXPECT_THAT(listener.scheduled(), ElementsAre(Pair(atOnce, false)));

    KelmTask* const queued = makeTask();
    KelmTask* const next = makeTask();
    for (KelmTask* task : {queued, next}) scheduler.scheduleTask(task);
    queued->cancel();
    scheduleWorkers(scheduler, 1);
    EXPECT_THAT(delivered(), ElementsAre(next));
    EXPECT_THAT(listener.destroyed(), ElementsAre(queued));
    EXPECT_EQ(graph->getNumWaitTasks(), 0u);
    EXPECT_EQ(client[1]->getWaitingInferenceNum(), 0u);

    // With nothing but canceled tasks the worker has to wait, or the next task finds none.
    KelmTask* const last = makeTask();
    scheduler.scheduleTask(last);
    last->cancel();
    scheduleWorkers(scheduler, 1);
    scheduler.scheduleTask(makeTask());
    EXPECT_THAT(delivered(), ElementsAre(next, tasks.back().get()));
}

TEST_F(TaskSchedulerTest, CancelOfAQueuedTaskLeavesTheWaitingNumbers) {
    TaskSchedulerPolling scheduler("TS.Polling");
    KelmTask* const task = makeTask();
    scheduler.scheduleTask(task);
    scheduler.descheduleTask(task);
    scheduler.descheduleTask(task);
    EXPECT_THAT(listener.descheduled(), ElementsAre(Pair(task, true), Pair(task, false)));
    EXPECT_THAT(listener.destroyed(), ElementsAre(task));
    EXPECT_EQ(scheduler.getNumWaitTasks(), 0u);
    // Both are meant to stay one too high.
    EXPECT_EQ(graph->getNumWaitTasks(), 1u);
    EXPECT_EQ(client[1]->getWaitingInferenceNum(), 1u);
}

TEST_F(TaskSchedulerTest, TaskThatNothingCanServeIsDestroyedNotQueued) {
    TaskSchedulerPolling scheduler("TS.Polling");
    KelmTask* const ofDeparted = makeTask(3);
    clients.hide(3);
    scheduler.scheduleTask(ofDeparted);
    EXPECT_THAT(listener.scheduled(), ElementsAre(Pair(ofDeparted, true)));
    KelmTask* const crossing = makeTask();
    clients.onNextSearch([&] {
        crossing->cancel();
        scheduler.descheduleGraph(graph.get());
    });
    scheduler.scheduleTask(crossing);
    EXPECT_THAT(listener.destroyed(), ElementsAre(ofDeparted, crossing));
    EXPECT_EQ(scheduler.getNumWaitTasks(), 0u);
}

TEST_F(TaskSchedulerTest, GraphTakesItsTasksAndWorkersAlong) {
    TaskSchedulerPolling scheduler("TS.Polling");
    KelmTask* const task = makeTask();
    scheduler.scheduleTask(task);
    scheduler.descheduleGraph(graph.get());
    EXPECT_THAT(listener.destroyed(), ElementsAre(task));
    EXPECT_EQ(scheduler.getNumWaitTasks(), 0u);
    scheduleWorkers(scheduler, 2);
    scheduler.descheduleGraph(graph.get());
    scheduler.descheduleGraph(graph.get());  // with neither it only confirms
    EXPECT_THAT(listener.descheduledGraphs(), ElementsAre(graph.get(), graph.get(), graph.get()));
    scheduler.scheduleTask(makeTask());
    EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(TaskSchedulerTest, WorkersAreServedInTurnUntilTheyLeave) {
    TaskSchedulerPolling scheduler("TS.Polling");
    WorkThread one("one", 1, 1, 1);
    WorkThread two("two", 1, 1, 1);
    for (WorkThread* waiting : {&one, &two}) {
        ASSERT_EQ(waiting->enqueueLoadGraph(graph.get()).get(), 0);
        scheduler.scheduleWorker(waiting, graph.get());
    }
    scheduler.scheduleWorker(&worker, graph.get());
    scheduler.descheduleWorker(&worker, graph.get());
    for (int i = 0; i < 3; ++i) scheduler.scheduleTask(makeTask());
    for (const size_t i : {0, 1}) {
        DeviceScript& device = devices[i == 0 ? "one" : "two"];
        EXPECT_TRUE(eventually([&] { return device.count(DeviceCall::GetResult) == 1; }));
        EXPECT_THAT(device.loadedTasks(), ElementsAre(tasks[i].get()));
    }
    EXPECT_THAT(delivered(), IsEmpty());
    EXPECT_EQ(scheduler.getNumWaitTasks(), 1u);
}

// A confirmed worker may be destroyed, and its graph with it, while the task's thread uses both.
TEST_F(TaskSchedulerTest, WorkerIsConfirmedOnlyAfterTheHandOver) {
    TaskSchedulerPolling scheduler("TS.Polling");
    WorkThread leaving("leaving", 1, 1, 1);
    ASSERT_EQ(leaving.enqueueLoadGraph(graph.get()).get(), 0);
    scheduler.scheduleWorker(&leaving, graph.get());
    // From here on the slot is free, so that the task comes back on the hand-over's own thread.
    const std::shared_future<int> unloaded = leaving.enqueueUnloadGraph(graph.get(), false);
    ASSERT_TRUE(eventually([&] { return exchange.descheduled().size() == 1; }));
    bool early = true;
    exchange.onNextReturn = [&] {
        scheduler.descheduleWorker(&leaving, graph.get());
        early = unloaded.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
    };
    scheduler.scheduleTask(makeTask());
    EXPECT_FALSE(early);
    EXPECT_EQ(unloaded.get(), 0);
}

TEST_F(TaskSchedulerTest, SchedulerDestroysWhatIsQueued) {
    {
        TaskSchedulerPolling scheduler("TS.Polling");
        scheduler.enqueueScheduleWorker(&worker, graph.get());
        scheduler.enqueueScheduleTask(makeTask());
        ASSERT_TRUE(eventually([&] { return delivered().size() == 1; }));
        for (int i = 0; i < 50; ++i) scheduler.enqueueScheduleTask(makeTask());
    }
    EXPECT_EQ(listener.destroyed().size(), 50u);
}

TEST_F(TaskSchedulerTest, NameSelectsTheScheduler) {
    const auto fcfs = TaskSchedulerFactory::createScheduler("FCFS");
    EXPECT_NE(dynamic_cast<TaskSchedulerFCFS*>(fcfs.get()), nullptr);
    for (const char* name : {"Polling", "lottery", static_cast<const char*>(nullptr)}) {
        const auto polling = TaskSchedulerFactory::createScheduler(name);
        EXPECT_NE(dynamic_cast<TaskSchedulerPolling*>(polling.get()), nullptr);
    }
}

TEST_F(TaskSchedulerTest, SnapshotsAreMadeOnlyWhereTheyAreConfigured) {
    FakeInfoCollector collector;
    const ScopedPort<InfoCollector> port(collector);
    configure(R"({"debug_settings": {"info_printer": {"task_snapshot_mode": "base"}}})");
    {
        const TaskSchedulerPolling scheduler("TS.Polling");
        EXPECT_THAT(collector.listeners(), ElementsAre(&scheduler));
    }
    EXPECT_THAT(collector.listeners(), IsEmpty());
    configure(R"({"debug_settings": {"info_printer": {"task_snapshot_mode": "none"}}})");
    const TaskSchedulerFCFS quiet("TS.FCFS");
    EXPECT_THAT(collector.listeners(), IsEmpty());
}

}  // namespace
}  // namespace kelm

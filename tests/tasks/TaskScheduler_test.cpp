#include "fakes/FakeClientDirectory.h"
#include "fakes/FakeInfoCollector.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/FakeTaskScheduleListener.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestConfig.h"
#include "fakes/TestRecords.h"
#include "records/StarvingGraphListener.h"
#include "reporting/PrintInfoListener.h"
#include "scheduling/tasks/TaskQueueFIFO.h"
#include "scheduling/tasks/TaskQueuePolling.h"
#include "scheduling/tasks/TaskSchedulerBalanced.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "scheduling/tasks/TaskSchedulerFCFS.h"
#include "scheduling/tasks/TaskSchedulerFactory.h"
#include "scheduling/tasks/TaskSchedulerPolling.h"
#include "utils/Port.h"

namespace kelm {
namespace {

class TaskSchedulerTest : public testing::Test {
 protected:
    TaskSchedulerTest() {
        addTestConfig(R"({"service_settings": {"server_max_task_number": 0}})");
        for (uint64_t clientId = 1; clientId <= 7; ++clientId) {
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

struct FakeStarvingGraphListener final : StarvingGraphListener {
    void notifyGraphStarves(int32_t) override { ++calls; }
    int calls = 0;
};

TEST_F(TaskSchedulerTest, TasksThatNoDeviceServesAreToldAndSoIsABacklogOnce) {
    FakeStarvingGraphListener starving;
    ScopedPort<StarvingGraphListener> port{starving};
    TaskSchedulerPolling scheduler("TS.Polling");
    scheduler.scheduleTask(makeTask());
    scheduler.scheduleTask(makeTask());
    EXPECT_EQ(starving.calls, 2);
    graph->appendRunningDevice("device");
    for (int i = 0; i < 30; ++i) scheduler.scheduleTask(makeTask());
    EXPECT_EQ(starving.calls, 3);
    EXPECT_EQ(graph->getArrivals(), 32u);
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
    addTestConfig(R"({"service_settings": {"server_max_task_number": 2}})");
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

TEST_F(TaskSchedulerTest, BalancedServesTheWorkerThatHoldsTheFewest) {
    TaskSchedulerBalanced scheduler("TS.Balanced");
    devices["d"].block(DeviceCall::GetResult);
    std::deque<WorkThread> workers;
    for (const int held : {2, 1, 0, 1}) {
        WorkThread& added = workers.emplace_back("d", 1, 1, 1);
        ASSERT_EQ(added.enqueueLoadGraph(graph.get()).get(), 0);
        for (int i = 0; i < held; ++i) added.enqueueLoadTensor(makeTask());
        scheduler.scheduleWorker(&added, graph.get());
    }
    scheduler.scheduleTask(makeTask());  // to the third
    makeTask()->addLoadCount();
    scheduler.rescheduleTask(tasks.back().get());  // failed on a device: to the first
    scheduler.scheduleTask(makeTask());  // to the second, which waits longer than the fourth
    const auto holds = [](uint32_t n) { return testing::Property(&WorkThread::getHeldTasks, n); };
    EXPECT_THAT(workers, ElementsAre(holds(3), holds(2), holds(1), holds(1)));
    devices["d"].release(DeviceCall::GetResult);
    EXPECT_TRUE(eventually([&] { return testing::Matches(testing::Each(holds(0)))(workers); }));
}

// "+1": a task of client 1 is accepted, "!1": refused, "^1": comes back; "-": the newest is
// canceled; "w": a worker takes one; "g": the graph departs.
TEST_F(TaskSchedulerTest, BalancedRefusesAtTheLimitOnlyWhoHasItsShare) {
    addTestConfig(R"({"service_settings": {"server_max_task_number": 6}})");
    for (const std::string script :
         {"+1 +1 +1 +1 +1 +1 !1 +2 +2 +2 !2 +3 +3 !3",
          "+1 +1 +1 +1 +1 +1 +2 !1 w w +1 !1 +2 +2 +2 !2", "^2 ^2 ^2 +1 +1 +1 !2 !1",
          "+1 +1 +1 +1 +1 +1 +2 +2 +2 - +2 !2", "+1 +2 +3 g +1 +1 +1 +1 +1 +1 +2 +2 +2 !2",
          "^1 ^1 ^1 ^1 ^1 ^1 ^2 ^3 ^4 ^5 +6 !7 !6"}) {
        TaskSchedulerBalanced scheduler("TS.Balanced");
        std::istringstream steps(script);
        for (std::string step; steps >> step;) {
            if (step == "w") scheduleWorkers(scheduler, 1);
            if (step == "-") scheduler.descheduleTask(tasks.back().get());
            if (step == "g") scheduler.descheduleGraph(graph.get());
            if (step.size() == 1) continue;
            KelmTask* const task = makeTask(static_cast<uint64_t>(step[1] - '0'));
            step[0] == '^' ? scheduler.rescheduleTask(task) : scheduler.scheduleTask(task);
            const bool accepted = step[0] == '^' || listener.scheduled().back().second;
            EXPECT_EQ(accepted, step[0] != '!') << script << step;
        }
    }
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
        early = unloaded.wait_for(20ms) == std::future_status::ready;
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
    EXPECT_EQ(TaskSchedulerFactory::createScheduler("Balanced")->getName(), "TS.Balanced");
    for (const char* name : {"Polling", "lottery", static_cast<const char*>(nullptr)}) {
        const auto polling = TaskSchedulerFactory::createScheduler(name);
        EXPECT_NE(dynamic_cast<TaskSchedulerPolling*>(polling.get()), nullptr);
    }
}

TEST_F(TaskSchedulerTest, SnapshotsAreMadeOnlyWhereTheyAreConfigured) {
    FakeInfoCollector collector;
    const ScopedPort<InfoCollector> port(collector);
    addTestConfig(R"({"debug_settings": {"info_printer": {"task_snapshot_mode": "base"}}})");
    {
        const TaskSchedulerPolling scheduler("TS.Polling");
        EXPECT_THAT(collector.listeners(), ElementsAre(&scheduler));
    }
    EXPECT_THAT(collector.listeners(), IsEmpty());
    addTestConfig(R"({"debug_settings": {"info_printer": {"task_snapshot_mode": "none"}}})");
    const TaskSchedulerFCFS quiet("TS.FCFS");
    EXPECT_THAT(collector.listeners(), IsEmpty());
}

struct Row {
    const char* rule;
    const char* script;
    const char* destroyed;
};

// Tasks with one letter as their name, the task's id.
class TaskQueueTest : public testing::Test {
 protected:
    KelmTask* makeTask(uint64_t clientId, char name) {
        KelmClient* client = m_clients.getClientById(clientId);
        if (client == nullptr) client = m_clients.add(clientId, "client");
        const KelmMsgReqInferTask request{};
        m_tasks.push_back(std::make_unique<KelmTask>(static_cast<uint64_t>(name), client, &m_graph,
                                                     nullptr, &request));
        (void)m_tasks.back()->setSendCreateResponseDone();  // or its end would be logged
        return m_tasks.back().get();
    }
    // The last one of the name.
    KelmTask* find(char name) {
        for (auto task = m_tasks.rbegin(); task != m_tasks.rend(); ++task) {
            if (nameOf(task->get()) == name) return task->get();
        }
        return nullptr;
    }
    static char nameOf(const KelmTask* task) {
        return task != nullptr ? static_cast<char>(task->getId()) : '-';
    }
    std::string destroyed() {
        std::string names;
        for (const KelmTask* task : m_listener.destroyed()) names += nameOf(task);
        return names;
    }

    // "+1a": client 1 queues a. "^1a": at the head. "-a": a is removed. "x1": all of client 1 is.
    // "?a": a is served, "?-": nothing is. Returns the steps that did something else.
    std::string run(TaskQueueBase& queue, const std::string& script) {
        std::istringstream steps(script);
        std::string surprises;
        for (std::string step; steps >> step;) {
            const uint64_t clientId = static_cast<uint64_t>(step[1] - '0');
            if (step[0] == '+' || step[0] == '^') {
                queue.enqueue(makeTask(clientId, step[2]), step[0] == '^');
            } else if (step[0] == '?') {
                const char served = nameOf(queue.dequeue());
                if (served != step[1]) surprises += step + " was " + served + "; ";
            } else if (!(step[0] == '-' ? queue.removeTask(find(step[1]))
                                        : queue.removeTask(clientId))) {
                surprises += step + " was not there; ";
            }
        }
        return surprises;
    }

    // Each row in a queue of its own.
    template <class Queue>
    void runAll(std::span<const Row> rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.rule);
            const size_t before = destroyed().size();
            Queue queue;
            EXPECT_EQ(run(queue, row.script), "");
            EXPECT_EQ(destroyed().substr(before), row.destroyed);
        }
    }

    FakeTaskScheduleListener m_listener;
    ScopedPort<TaskScheduleListener> m_port{m_listener};
    FakeClientDirectory m_clients;
    KelmGraph m_graph{1, 1, "graph", 1};
    std::vector<std::unique_ptr<KelmTask>> m_tasks;
};

TEST_F(TaskQueueTest, PollingServesClientsInTurn) {
    const Row rows[] = {
        {"one task a client and turn", "+1a +1b +2c +3d +3e ?a ?c ?d ?b ?e ?-", ""},
        {"one client alone keeps its order", "+5a +5b ?a +5c ?b ?c ?-", ""},
        {"ids decide, not arrivals", "+7a +3b +5c ?a ?b ?c ?-", ""},
        {"the search wraps past an emptied turn", "+5a +9b ?a -b +2c ?c ?-", "b"},
        {"serving nothing keeps the turn", "+1a +2b ?a -b ?- +1c +2d ?d ?c", "b"},
        {"the head is ahead of its client's only", "+1a +2b ^1c ^2d ?c ?d ?a ?b", ""},
        {"the turn passes on from a removed client", "+1a +2b +3c ?a x2 +1d ?c ?d", "b"},
        {"and wraps from the last one", "+1a +2b ?a x2 +1c ?c ?-", "b"},
        {"a client behind the turn goes quietly", "+1a +2b +3c ?a +1d x1 ?b ?c ?-", "d"},
        {"an emptied map starts anew", "+4a x4 ?- +9b +3c ?b ?c ?-", "a"},
        {"a removed task is passed over", "+1a +1b +1c -b ?a ?c ?-", "b"},
    };
    runAll<TaskQueuePolling>(rows);
}

TEST_F(TaskQueueTest, FirstComeServesInOrder) {
    const Row rows[] = {
        {"arrival decides", "+2a +1b +2c ?a ?b ?c ?-", ""},
        {"a returned task goes first", "+1a +1b ^2c ?c ?a ?b ?-", ""},
        {"the rest keeps its order", "+1a +1b +1c +1d ?a -c ?b ?d ?-", "c"},
        {"all of a client go", "+1a +2b +1c +2d x1 ?b ?d ?-", "ac"},
        {"an unknown client is no failure", "+1a x7 ?a", ""},
    };
    runAll<TaskQueueFIFO>(rows);
}

TEST_F(TaskQueueTest, QueueDestroysItsTasksAtItsEnd) {
    {
        TaskQueuePolling polling;
        TaskQueueFIFO fifo;
        EXPECT_EQ(run(polling, "+1a +2b +1c"), "");
        EXPECT_EQ(run(fifo, "+1d +2e"), "");
        EXPECT_EQ(polling.size() + fifo.size(), 5u);
        EXPECT_FALSE(polling.removeTask(find('d')));
        EXPECT_FALSE(fifo.removeTask(find('a')));
        EXPECT_FALSE(polling.removeTask(9ul));
    }
    EXPECT_EQ(destroyed(), "deacb");
    EXPECT_EQ(find('a')->getStatus(), TASK_STATUS_QUEUED);
}

TEST_F(TaskQueueTest, EntriesOfDepartedClientsAreDropped) {
    TaskQueuePolling queue;
    for (uint64_t clientId = 1; clientId <= 64; ++clientId) {
        queue.enqueue(makeTask(clientId, 'a'), false);
        ASSERT_EQ(nameOf(queue.dequeue()), 'a');
    }
    EXPECT_THAT(queue.getDescription(), HasSubstr("numClients=64 "));
    EXPECT_EQ(run(queue, "+9b"), "");  // one that is known
    EXPECT_THAT(queue.getDescription(), HasSubstr("numClients=64 "));
    queue.enqueue(makeTask(65, 'c'), false);
    EXPECT_THAT(queue.getDescription(), HasSubstr("numClients=2 "));
    EXPECT_EQ(run(queue, "?b ?c ?-"), "");
}

}  // namespace
}  // namespace kelm

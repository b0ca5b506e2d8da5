#include "execution/WorkThread.h"
#include "fakes/FakeClientDirectory.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/FakeTaskScheduleListener.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestConfig.h"
#include "fakes/TestRecords.h"
#include "races/Interleavings.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "scheduling/tasks/TaskSchedulerFCFS.h"
#include "scheduling/tasks/TaskSchedulerFactory.h"
#include "utils/Port.h"

namespace kelm {
namespace {

class TaskSchedulerRacesTest : public testing::TestWithParam<const char*> {
 protected:
    // What one thread of the scheduler, or of a manager, does in a run. Steps: "0" to "2" schedule
    // the task, "r" returns the last one, "c" marks the first one as canceled and "C" takes it
    // back, "w" offers a worker and "v" another, "W" takes all offers of the first one back, "G"
    // lets the graph depart.
    void play(TaskSchedulerBase& scheduler, const std::string& script) {
        for (const char step : script) {
            if (step == 'c') tasks[0]->cancel();
            if (step == 'C') scheduler.descheduleTask(tasks[0].get());
            if (step == 'r') scheduler.rescheduleTask(tasks[2].get());
            if (step == 'w') scheduler.scheduleWorker(&worker, graph.get());
            if (step == 'v') scheduler.scheduleWorker(&other, graph.get());
            if (step == 'W') scheduler.descheduleWorker(&worker, graph.get());
            if (step == 'G') scheduler.descheduleGraph(graph.get());
            if (step >= '0' && step <= '2') scheduler.scheduleTask(tasks[step - '0'].get());
        }
    }
    KelmTask* addTask() {
        const KelmMsgReqInferTask request{};
        tasks.push_back(
            std::make_unique<KelmTask>(tasks.size() + 1, client, graph.get(), nullptr, &request));
        (void)tasks.back()->setSendCreateResponseDone();
        return tasks.back().get();
    }

    FakeClientDirectory clients;
    ScopedPort<ClientDirectory> clientPort{clients};
    KelmClient* const client = clients.add(1, "client");
    ScriptedDevices devices;
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "content");
    // Without a slot for the graph they give each task back at once.
    WorkThread worker{"device", 1, 0, 0};
    WorkThread other{"other", 1, 0, 0};
    std::vector<std::unique_ptr<KelmTask>> tasks;
};

TEST_P(TaskSchedulerRacesTest, EveryTaskEndsOnceAndNoOfferIsLostInAnyOrder) {
    const struct {
        std::vector<std::string> scripts;  // of a thread each: tasks, workers, a manager
        bool offersLeave = false;
    } rows[] = {
        {{"01", "wv"}},        {{"012", "wvw"}},
        {{"01r", "wvw"}},      {{"01", "wCv"}},
        {{"01", "wv", "c"}},   {{"01", "wWv"}, true},
        {{"01", "wGv"}, true}, {{"0r", "wCWv", "c"}, true},
    };
    addTestConfig(R"({"service_settings": {"server_max_task_number": 0}})");
    size_t runs = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.scripts));
        Interleavings orders(Interleavings::wantedPreemptions());
        for (bool more = true; more && !HasFailure();) {
            FakeTaskScheduleListener listener;
            const ScopedPort<TaskScheduleListener> listenerPort{listener};
            FakeTaskExchange exchange{FakeTaskExchange::Answer::Never};
            const ScopedPort<TaskExchange> exchangePort{exchange};
            tasks.clear();
            for (int i = 0; i < 3; ++i) addTask();
            const auto scheduler = TaskSchedulerFactory::createScheduler(GetParam());
            std::vector<std::function<void()>> bodies;
            for (const std::string& script : row.scripts) {
                bodies.emplace_back([&] { play(*scheduler, script); });
            }
            more = orders.runNext(bodies);
            if (!more) break;
            // Offers that are left get a task each, and tasks that are left a worker each.
            const std::string all = testing::PrintToString(row.scripts);
            const auto offers = static_cast<size_t>(std::ranges::count_if(
                row.scripts[1], [](char step) { return step == 'w' || step == 'v'; }));
            const size_t delivered = exchange.returned().size();
            const auto& numbers = dynamic_cast<const TaskSchedulerFCFS&>(*scheduler);
            if (!row.offersLeave) {
                const size_t idle = offers - std::min(offers, delivered);
                ASSERT_TRUE(idle == 0 || numbers.getNumWaitTasks() == 0) << "both wait";
                for (size_t i = 0; i < idle; ++i) scheduler->scheduleTask(addTask());
                ASSERT_EQ(exchange.returned().size(), delivered + idle) << "an offer is lost";
            }
            while (numbers.getNumWaitTasks() > 0) {
                const uint64_t before = numbers.getNumWaitTasks();
                scheduler->scheduleWorker(&other, graph.get());
                ASSERT_LT(numbers.getNumWaitTasks(), before) << "a task that no worker finds";
            }
            const auto returned = exchange.returned();
            const auto destroyed = listener.destroyed();
            for (size_t i = 0; i < tasks.size(); ++i) {
                KelmTask* const task = tasks[i].get();
                const bool isUsed = i > 2 || all.find(static_cast<char>('0' + i)) != all.npos ||
                                    (i == 2 && all.find('r') != all.npos);
                auto ends =
                    std::ranges::count(returned, task) + std::ranges::count(destroyed, task);
                ends += std::ranges::count(listener.scheduled(), std::pair(task, false));
                ends += std::ranges::count(listener.rescheduled(), std::pair(task, false));
                ASSERT_EQ(ends, isUsed ? 1 : 0) << "task " << i << ", run " << orders.countRuns();
            }
        }
        runs += orders.countRuns();
    }
    RecordProperty("runs", std::to_string(runs));
    std::cout << "orders: " << runs << "\n";
}

INSTANTIATE_TEST_SUITE_P(Schedulers, TaskSchedulerRacesTest,
                         testing::Values("polling", "fcfs", "balanced"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace
}  // namespace kelm

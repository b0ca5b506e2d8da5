#include "fakes/FakeClientDirectory.h"
#include "fakes/FakeResultSink.h"
#include "fakes/FakeTaskScheduleListener.h"
#include "fakes/TestConfig.h"
#include "races/Interleavings.h"
#include "reporting/EventListener.h"
#include "reporting/ServiceEvent.h"
#include "schedulers/SchedulerRig.h"
#include "scheduling/devices/DeviceSchedulerAdaptive.h"
#include "scheduling/devices/DeviceSchedulerSqueeze2.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "scheduling/tasks/TaskSchedulerFactory.h"
#include "utils/Log.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

// Makes its passes on the calling thread, by the loop of the service.
template <class Scheduler>
class Passing : public Scheduler {
 public:
    Passing() : Scheduler("DS.Test") {}
    void makePasses(int count) {
        this->m_onSchedulingThread.assertHeld();
        m_left = count;
        this->schedule();
    }

 protected:
    bool waitChangeRequestUntilTimeout() override { return m_left-- > 0; }

 private:
    int m_left = 0;
};

// One run: devices a and b of one slot each, graphs 1 and 2, and two tasks on graph 1, kept by a
// real task scheduler.
template <class Scheduler>
class Run final : public SchedulerFakes, public TaskExchange, public EventListener {
 public:
    explicit Run(KelmClient* client) {
        scheduler.setMaxGraphNumPerDevice(1);
        for (const char name : {'a', 'b'}) workers[name] = makeWorker(std::string(1, name), 1);
        for (int i = 0; i < 2; ++i) makeGraph();
        for (uint64_t id = 1; id <= 2; ++id) {
            tasks.push_back(
                std::make_unique<KelmTask>(id, client, graphs[0].get(), nullptr, &m_request));
            (void)tasks.back()->setSendCreateResponseDone();
        }
    }

    // Steps: "A" and "B" plug a device in, "a" and "b" out, "x" device a fails on the bus; "1" and
    // "2" load a graph, "u" and "v" give it up; "t" a task for graph 1 comes, and "T" another, "c"
    // cancels the first; "p" is a pass.
    void play(const std::string& script) {
        const auto isOf = [](const char* steps, char step) {
            return std::strchr(steps, step) != nullptr;
        };
        for (const char step : script) {
            if (step == 'p') pass(1);
            if (isOf("AB", step)) plug(lower(step));
            if (isOf("ab", step)) unplug(step);
            if (step == 'x') failA();
            if (isOf("12", step)) scheduler.loadGraph(graphs[step - '1'].get());
            if (isOf("uv", step)) giveUp(graphs[step - 'u'].get());
            if (isOf("tT", step)) taskScheduler->enqueueScheduleTask(tasks[step == 'T'].get());
            if (step == 'c') tasks[0]->cancel();
        }
    }
    void pass(int count) {
        if (m_passer == 0) m_passer = ThreadUtils::getThreadId();
        const ThreadUtils::BorrowedId identity(m_passer);
        scheduler.makePasses(count);
    }

    // What holds while the devices are there, then everything leaves.
    void check(const std::string& all) {
        const auto has = [&all](char step) { return all.find(step) != all.npos; };
        pass(4);  // of which three may be dropped
        for (const auto& graph : graphs) {
            size_t held = 0;
            for (const char name : m_plugged) held += workers[name]->getGraphs().count(graph.get());
            ASSERT_EQ(static_cast<size_t>(graph->getRunningDeviceNum()), held)
                << "on a device that is gone";
            ASSERT_TRUE(held == 0 || !m_givenUp.contains(graph.get())) << "given up and still here";
        }
        const bool hasPlace = !has('2') && !m_plugged.empty() && has('1') && !has('u');
        ASSERT_TRUE(!hasPlace || graphs[0]->getRunningDeviceNum() == 1) << "a device idles";
        ASSERT_TRUE(!hasPlace || eventually([&] { return ends().size() == countTasks(all); }));
        for (const auto& graph : graphs) {
            if (!m_givenUp.contains(graph.get())) giveUp(graph.get());
            taskScheduler->enqueueDescheduleGraph(graph.get());  // of tasks that came after its end
        }
        for (const char name : std::set(m_plugged)) unplug(name);
        pass(4);
        taskScheduler.reset();  // ends its pools
        const auto ended = ends();
        ASSERT_EQ(std::set(ended.begin(), ended.end()).size(), countTasks(all)) << "a task is lost";
        ASSERT_EQ(ended.size(), countTasks(all)) << "a task ends twice";
        const auto answered = placement.loads();
        for (const auto& graph : graphs) {
            EXPECT_LE(std::ranges::count(answered, graph.get(), &Answer::first), 1);
            EXPECT_EQ(std::ranges::count(placement.unloads(), graph.get()), 1) << "no notice";
            EXPECT_EQ(graph->getCachedDeviceNum(), 0) << "on a device that is gone";
        }
        EXPECT_FALSE(m_isTwice.load()) << "a device is given twice";
        for (const auto& [name, worker] : workers) {
            EXPECT_EQ(std::ranges::count(removal.removed(), worker), has(upper(name)) ? 1 : 0);
        }
    }

    void enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) override {
        taskScheduler->enqueueScheduleWorker(worker, graph);
    }
    void enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) override {
        taskScheduler->enqueueDescheduleWorker(worker, graph);
    }
    void enqueueReturnTask(KelmTask* task) override { taskScheduler->enqueueRescheduleTask(task); }
    void enqueueDestroyTask(KelmTask* task) override { m_destroyed.add(task); }
    // What a worker says to a graph for which it has no slot.
    void record(const ServiceEvent& event) override {
        if (event.code == KELM_ERROR_TOO_MANY_GRAPH) m_isTwice = true;
    }

    Passing<Scheduler> scheduler;
    std::map<char, WorkThread*> workers;
    std::vector<std::unique_ptr<KelmTask>> tasks;

 private:
    using Answer = FakeGraphPlacementListener::Load;

    static char lower(char step) { return static_cast<char>(step - 'A' + 'a'); }
    static char upper(char step) { return static_cast<char>(step - 'a' + 'A'); }
    void plug(char name) {
        m_plugged.insert(name);
        scheduler.addWorker(workers[name]);
    }
    void unplug(char name) {
        m_plugged.erase(name);
        scheduler.removeWorker(workers[name]);
    }
    void failA() {
        devices["a"].setHardwareError(KELM_ERROR_DEVICE_FAILED);
        for (const DeviceCall call : {DeviceCall::Allocate, DeviceCall::Deallocate,
                                      DeviceCall::LoadTensor, DeviceCall::GetResult}) {
            devices["a"].failAll(call, KELM_ERROR_DEVICE_FAILED);
        }
        workers['a']->notifyDeviceFailed();
        scheduler.wake();
    }
    void giveUp(KelmGraph* graph) {
        m_givenUp.insert(graph);
        scheduler.unloadGraph(graph);
        taskScheduler->enqueueDescheduleGraph(graph);
    }
    static size_t countTasks(const std::string& all) {
        return static_cast<size_t>(
            std::ranges::count_if(all, [](char step) { return step == 't' || step == 'T'; }));
    }
    std::vector<KelmTask*> ends() {
        std::vector<KelmTask*> ended = m_destroyed();
        for (KelmTask* task : listener.destroyed()) ended.push_back(task);
        for (const auto& [task, error] : sink.done()) ended.push_back(task);
        for (const auto* told : {&listener.scheduled, &listener.rescheduled}) {
            for (const auto& [task, accepted] : (*told)()) {
                if (!accepted) ended.push_back(task);
            }
        }
        return ended;
    }

    const KelmMsgReqInferTask m_request{};
    std::set<char> m_plugged;
    std::set<KelmGraph*> m_givenUp;
    int m_passer = 0;  // the thread whose the scheduler is
    FakeResultSink sink;
    ScopedPort<ResultSink> sinkPort{sink};
    FakeTaskScheduleListener listener;
    ScopedPort<TaskScheduleListener> listenerPort{listener};
    std::unique_ptr<TaskSchedulerBase> taskScheduler =
        TaskSchedulerFactory::createScheduler("polling");
    Recorded<KelmTask*> m_destroyed;
    std::atomic<bool> m_isTwice{false};
    ScopedPort<TaskExchange> m_tasksPort{*this};
    ScopedPort<EventListener> m_eventsPort{*this};
};

template <class Scheduler>
class DeviceSchedulerRacesTest : public testing::Test {};
using Schedulers = testing::Types<DeviceSchedulerSqueeze2, DeviceSchedulerAdaptive>;
TYPED_TEST_SUITE(DeviceSchedulerRacesTest, Schedulers);

TYPED_TEST(DeviceSchedulerRacesTest, EveryTaskAndLoadEndsOnceAndNoDeviceIsGivenTwiceInAnyOrder) {
    const std::vector<std::string> rows[] = {
        // Before; then a thread each: the scheduler's, the managers', the bus's.
        {"A", "pp", "1u"},           {"A", "pp", "12", "a"},     {"A1p", "pp", "tu", "aB"},
        {"", "pp", "1tc", "Aa"},     {"A1p", "pp", "tT", "xaB"}, {"A1p", "pp", "2u", "xB"},
        {"AB1p", "pp", "2tuv", "a"},
    };
    addTestConfig(R"({"service_settings": {"server_max_task_number": 0}})");
    Log::instance().setLogLevel(0);  // of each run many lines
    FakeClientDirectory clients;
    const ScopedPort<ClientDirectory> clientPort{clients};
    KelmClient* const client = clients.add(1, "client");
    size_t runs = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        Interleavings orders(Interleavings::wantedPreemptions());
        for (bool more = true; more && !this->HasFailure();) {
            Run<TypeParam> run(client);
            run.play(row[0]);
            orders.watchOnly(run.scheduler, *run.graphs[0], *run.graphs[1], *run.workers['a'],
                             *run.workers['b']);
            std::vector<std::function<void()>> bodies;
            for (size_t i = 1; i < row.size(); ++i) {
                bodies.emplace_back([&run, &row, i] { run.play(row[i]); });
            }
            more = orders.runNext(bodies);
            if (more) run.check(std::accumulate(row.begin(), row.end(), std::string()));
        }
        runs += orders.countRuns();
    }
    std::cout << "orders: " << runs << "\n";
}

}  // namespace
}  // namespace kelm

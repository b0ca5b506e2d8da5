#include "schedulers/SchedulerRig.h"
#include "scheduling/devices/DeviceSchedulerActive.h"
#include "scheduling/devices/DeviceSchedulerAdaptive.h"
#include "scheduling/devices/PlugoutWorkerOperation.h"

namespace kelm {
namespace {

// Does what the test says.
class ScriptedOperation : public StatusChangeOperation {
 public:
    using Step = std::function<void()>;
    ScriptedOperation(KelmGraph* graph, Step execute, Step wait)
        : m_graph(graph), m_execute(std::move(execute)), m_wait(std::move(wait)) {}

    void wait() override { m_wait(); }
    bool isOperation(KelmGraph* graph, StatusChangeRequestType type) override {
        return graph == m_graph && type == REQUEST_LOAD_GRAPH;
    }

 protected:
    void operation() override { m_execute(); }

 private:
    KelmGraph* const m_graph;
    const Step m_execute;
    const Step m_wait;
};

// Plans as the test says and writes down what it is asked to do.
class ScriptedActive : public DeviceSchedulerActive {
 public:
    // Gets the number of the plan, from 1, and the operations to fill.
    using Plan = std::function<bool(int, std::list<std::unique_ptr<StatusChangeOperation>>&)>;

    explicit ScriptedActive(Plan plan, std::chrono::nanoseconds interval = kInterval)
        : DeviceSchedulerActive("DS.Test", interval), m_plan(std::move(plan)) {}
    ~ScriptedActive() override { join(); }

    void handleLoadGraphFail(KelmGraph*) override {}
    bool hasEnded() const { return m_ended; }
    Recorded<std::string> protocol;

 protected:
    bool mapResource() override REQUIRES(m_onSchedulingThread) {
        protocol.add("P" + std::to_string(m_unloadGraphs.size()));
        return m_plan(++m_planNumber, m_operations);
    }
    void restoreScene() override REQUIRES(m_onSchedulingThread) {
        m_operations.clear();
        protocol.add("R");
    }
    void schedule() override REQUIRES(m_onSchedulingThread) {
        DeviceSchedulerActive::schedule();
        m_ended = true;
    }

 private:
    const Plan m_plan;
    int m_planNumber = 0;
    std::atomic<bool> m_ended{false};
};

const auto doesNothing = [] {};

// Unload requests are never followed, so any address will do.
KelmGraph* fakeGraph(uintptr_t number) { return reinterpret_cast<KelmGraph*>(number * 64); }

class DeviceSchedulerTest : public testing::Test, protected SchedulerFakes {};

TEST_F(DeviceSchedulerTest, BurstOfRequestsDropsAtMostThreePlansInARow) {
    std::unique_ptr<ScriptedActive> scheduler;
    scheduler = std::make_unique<ScriptedActive>([&](int plan, auto& operations) {
        operations.push_back(std::make_unique<ScriptedOperation>(
            nullptr, [&] { scheduler->protocol.add("C"); }, doesNothing));
        if (plan <= 4) scheduler->unloadGraph(fakeGraph(static_cast<uintptr_t>(plan) + 1));
        return true;
    });
    scheduler->unloadGraph(fakeGraph(1));
    scheduler->start();
    EXPECT_TRUE(eventually([&] { return placement.unloads().size() == 5; }));
    EXPECT_TRUE(scheduler->stop(10s));
    // The fourth plan is committed although one more request came; the fifth takes that.
    EXPECT_THAT(scheduler->protocol(),
                ElementsAre("P1", "R", "P2", "R", "P3", "R", "P4", "C", "P1", "C"));
}

TEST_F(DeviceSchedulerTest, FailedPlanComesBackByItselfWithTheSameWork) {
    ScriptedActive scheduler([](int plan, auto&) { return plan > 2; }, 1ms);
    scheduler.unloadGraph(fakeGraph(1));
    scheduler.start();
    EXPECT_TRUE(eventually([&] { return !placement.unloads().empty(); }));
    EXPECT_TRUE(scheduler.stop(10s));
    auto protocol = scheduler.protocol();
    protocol.resize(5);
    EXPECT_THAT(protocol, ElementsAre("P1", "R", "P1", "R", "P1"));
    EXPECT_THAT(placement.unloads(), ElementsAre(fakeGraph(1)));
}

TEST_F(DeviceSchedulerTest, ExceptionCountsAsThatOperationsFailureAndEndsNothing) {
    const auto throws = [] { throw std::runtime_error("pool is stopped"); };
    KelmGraph* const inExecute = makeGraph();
    KelmGraph* const inWait = makeGraph();
    bool otherRan = false;
    ScriptedActive scheduler([&](int plan, auto& operations) {
        if (plan > 1) return true;
        operations.push_back(std::make_unique<ScriptedOperation>(inExecute, throws, doesNothing));
        operations.push_back(std::make_unique<ScriptedOperation>(inWait, doesNothing, throws));
        operations.push_back(std::make_unique<ScriptedOperation>(
            nullptr, [&] { otherRan = true; }, doesNothing));
        return true;
    });
    scheduler.loadGraph(inExecute);
    scheduler.loadGraph(inWait);
    scheduler.start();
    EXPECT_TRUE(eventually([&] { return placement.loads().size() == 2; }));
    EXPECT_THAT(placement.loads(), UnorderedElementsAre(Pair(inExecute, KELM_ERROR_DEVICE_FAILED),
                                                        Pair(inWait, KELM_ERROR_DEVICE_FAILED)));
    EXPECT_TRUE(otherRan);
    scheduler.unloadGraph(inWait);
    EXPECT_TRUE(eventually([&] { return !placement.unloads().empty(); }));
}

TEST_F(DeviceSchedulerTest, OperationWithoutEndDoesNotHoldUpTheStop) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> waiting{false};
    KelmGraph* const graph = makeGraph();
    // Never destroyed, as its thread outlives the stop.
    static auto* const kept = new std::list<ScriptedActive>;
    ScriptedActive* const scheduler = &kept->emplace_back([&, released](int, auto& operations) {
        operations.push_back(std::make_unique<ScriptedOperation>(graph, doesNothing, [&, released] {
            waiting = true;
            released.wait();
        }));
        return true;
    });
    scheduler->loadGraph(graph);
    scheduler->start();
    ASSERT_TRUE(eventually([&] { return waiting.load(); }));
    EXPECT_FALSE(scheduler->stop(1ms));
    EXPECT_FALSE(scheduler->stop(1ms));
    deleteGraph(graph);  // the thread must not look at it when the device answers after all
    release.set_value();
    EXPECT_TRUE(eventually([&] { return scheduler->hasEnded(); }));
    EXPECT_THAT(placement.loads(), IsEmpty());
}

class CountingLazy : public DeviceSchedulerLazy {
 public:
    using DeviceSchedulerLazy::DeviceSchedulerLazy;
    ~CountingLazy() override { join(); }
    void handleLoadGraphFail(KelmGraph*) override {}
    std::atomic<int> passes{0};

 protected:
    bool mapResource() override REQUIRES(m_onSchedulingThread) { return ++passes > 0; }
};

TEST_F(DeviceSchedulerTest, WakeThatComesBeforeTheWaitIsNotLost) {
    CountingLazy lazy("DS.Lazy");
    ScriptedActive active([](int, auto&) { return true; }, 1h);
    lazy.wake();
    active.wake();
    lazy.start();
    active.start();
    EXPECT_TRUE(eventually([&] { return lazy.passes == 1 && active.protocol().size() == 1; }));
}

TEST_F(DeviceSchedulerTest, TaskForAGraphWithoutADeviceBringsItSoon) {
    DeviceSchedulerAdaptive scheduler("DS.Test");
    scheduler.setMaxGraphNumPerDevice(1);
    WorkThread* const worker = makeWorker("a", 1);
    KelmGraph* const first = makeGraph();
    KelmGraph* const second = makeGraph();
    scheduler.addWorker(worker);
    scheduler.loadGraph(first);
    scheduler.start();
    EXPECT_TRUE(eventually([&] { return worker->getGraphs().contains(first); }));
    scheduler.loadGraph(second);
    EXPECT_TRUE(eventually([&] { return worker->getGraphs().contains(second); }));
    first->increaseTaskCount();
    first->updateFpsIn();
    scheduler.notifyStarving();
    EXPECT_TRUE(eventually([&] { return worker->getGraphs().contains(first); }));
    EXPECT_TRUE(scheduler.stop(std::chrono::seconds(10)));
}

TEST_F(DeviceSchedulerTest, PluggedOutDeviceForgetsTheGraphsThatItOnlyCached) {
    WorkThread* const worker = makeWorker("a");
    KelmGraph* const graph = makeGraph();
    ASSERT_EQ(worker->enqueueLoadGraph(graph).get(), 0);
    ASSERT_EQ(worker->enqueueUnloadGraph(graph, true).get(), 0);
    ASSERT_EQ(graph->getCachedDeviceNum(), 1);
    const auto plugout = PlugoutWorkerOperation::create(worker);
    plugout->execute();
    plugout->wait();
    EXPECT_EQ(graph->getCachedDeviceNum(), 0);
}

}  // namespace
}  // namespace kelm

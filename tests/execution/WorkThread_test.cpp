#include "execution/WorkThread.h"

#include "execution/WorkerFailureListener.h"
#include "fakes/FakeResultSink.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestConfig.h"
#include "fakes/TestRecords.h"
#include "fakes/TestRequest.h"
#include "protocol/src/KelmError.h"
#include "utils/Port.h"

namespace kelm {
namespace {

constexpr int kHardwareError = -6;

struct FakeWorkerFailureListener final : WorkerFailureListener {
    void enqueueWorkerFailed(WorkThread* worker) override { failed.add(worker); }
    Recorded<WorkThread*> failed;
};

// A work thread over a scripted device; it is destroyed before what surrounds it.
class WorkThreadTest : public testing::Test {
 protected:
    explicit WorkThreadTest(FakeTaskExchange::Answer answer = FakeTaskExchange::Answer::OnThread)
        : exchange(answer) {
        script.setHardwareError(kHardwareError);
    }

    void start(int slots = 1, int inferences = 4) {
        addTestConfig(R"({"service_settings": {"max_inference_number": )" +
                      std::to_string(inferences) + "}}");
        worker = std::make_unique<WorkThread>("dev", 0, slots, 4);
    }
    void startLoaded(int slots = 1) {
        start(slots);
        ASSERT_EQ(load(graph.get()), 0);
    }
    int load(KelmGraph* one) { return worker->enqueueLoadGraph(one).get(); }
    int unload(KelmGraph* one) { return worker->enqueueUnloadGraph(one, false).get(); }
    KelmTask* addTask(KelmGraph* one) {
        tasks.push_back(makeTestTask(tasks.size() + 1, one));
        return tasks.back().get();
    }
    KelmTask* feed(KelmGraph* one) {
        worker->enqueueLoadTensor(addTask(one));
        return tasks.back().get();
    }
    bool calls(DeviceCall call) {
        return eventually([&] { return script.count(call) == 1; });
    }
    bool shows(const std::string& state) {
        return eventually([&] { return worker->getStates().at(0) == state; });
    }
    bool settles(size_t done, size_t returned) {
        return eventually(
            [&] { return sink.done().size() == done && exchange.returned().size() == returned; });
    }

    ScriptedDevices devices;
    DeviceScript& script = devices["dev"];
    FakeTaskExchange exchange;
    FakeResultSink sink;
    ScopedPort<TaskExchange> exchangePort{exchange};
    ScopedPort<ResultSink> sinkPort{sink};
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "one");
    std::unique_ptr<KelmGraph> other = makeTestGraph(2, "two");
    std::deque<std::unique_ptr<KelmTask>> tasks;
    std::unique_ptr<WorkThread> worker;
};

// No deschedule is answered.
class UnansweredUnloadTest : public WorkThreadTest {
 protected:
    UnansweredUnloadTest() : WorkThreadTest(FakeTaskExchange::Answer::Never) { startLoaded(); }

    std::shared_future<int> unloadUnanswered() {
        const size_t before = exchange.descheduled().size();
        auto unloaded = worker->enqueueUnloadGraph(graph.get(), false);
        EXPECT_TRUE(eventually([&] { return exchange.descheduled().size() > before; }));
        return unloaded;
    }
};

}  // namespace

TEST_F(WorkThreadTest, DeviceThatDoesNotOpenLeavesAShell) {
    script.failAll(DeviceCall::Open, -2);
    start();
    EXPECT_FALSE(worker->isReady());
    EXPECT_EQ(worker->getDevice(), nullptr);
    EXPECT_EQ(load(graph.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(unload(graph.get()), 0);
    KelmTask* const task = feed(graph.get());
    EXPECT_THAT(exchange.returned(), ElementsAre(task));
    worker->enqueueResetDevice(makeResetRequest());
    ASSERT_TRUE(eventually([&] { return sink.resets().size() == 1; }));
    EXPECT_EQ(sink.resets()[0].error, KELM_ERROR_INVALID_DEVICE);
}

TEST_F(WorkThreadTest, DeviceIsSetUpForTheTasksInFlight) {
    for (const auto& [inferences, fifo] : {std::pair(1, 3u), std::pair(4, 6u), std::pair(-7, 3u)}) {
        SCOPED_TRACE(inferences);
        start(1, inferences);
        EXPECT_EQ(script.fifoCapacity(), fifo);
        EXPECT_EQ(script.maxCacheGraphNumber(), 4);
    }
}

TEST_F(WorkThreadTest, SlotsAreFilledInOrderAndFreedByTheRequestToUnload) {
    start(2);
    const auto third = makeTestGraph(3, "three");
    EXPECT_EQ(load(graph.get()), 0);
    EXPECT_EQ(load(graph.get()), 0) << "already there";
    EXPECT_EQ(script.count(DeviceCall::Allocate), 1);
    EXPECT_EQ(load(other.get()), 0);
    EXPECT_EQ(load(third.get()), KELM_ERROR_TOO_MANY_GRAPH);
    KelmTask* const task = feed(third.get());
    EXPECT_THAT(exchange.returned(), ElementsAre(task));
    EXPECT_THAT(worker->getGraphs(), UnorderedElementsAre(graph.get(), other.get()));
    EXPECT_EQ(worker->getGraphName(), "graph1");

    script.block(DeviceCall::Deallocate);
    const auto unloaded = worker->enqueueUnloadGraph(graph.get(), true);
    const auto loaded = worker->enqueueLoadGraph(third.get());
    script.release(DeviceCall::Deallocate);
    EXPECT_EQ(unloaded.get(), 0);
    EXPECT_EQ(loaded.get(), 0);
    EXPECT_EQ(worker->getGraphName(), "graph3");
    // Without a slot it comes off the root.
    EXPECT_EQ(exchange.descheduled().size(), 1u);
    EXPECT_EQ(unload(graph.get()), 0);
    EXPECT_EQ(exchange.descheduled().size(), 1u) << "the second one has no request to drop";
    EXPECT_THAT(script.deallocated(),
                ElementsAre(Pair(graph.get(), true), Pair(graph.get(), false)));
    tasks.clear();
    worker.reset();  // before the graph that it holds
}

// The notice of the failed load is held up on the pool, and the slot has been given away since.
TEST_F(WorkThreadTest, NoticeOfAFailedLoadFreesItsSlotAndLeavesTheNextGraphAlone) {
    start();
    script.fail(DeviceCall::Allocate, 1, -3);
    EXPECT_EQ(load(other.get()), -3);
    EXPECT_TRUE(eventually([&] { return worker->getGraphs().empty(); }));
    script.fail(DeviceCall::Allocate, 1, -3);
    script.block(DeviceCall::Allocate);
    const auto failed = worker->enqueueLoadGraph(other.get());
    const auto unloaded = worker->enqueueUnloadGraph(other.get(), false);
    script.release(DeviceCall::Allocate);
    EXPECT_EQ(failed.get(), -3);
    EXPECT_EQ(unloaded.get(), 0);
    EXPECT_THAT(exchange.descheduled(), IsEmpty()) << "there was nothing to unload";
    EXPECT_THAT(script.deallocated(), IsEmpty());
    const auto elsewhere = makeTestGraph(9, "nine");
    for (const bool isUnderWay : {false, true}) {
        SCOPED_TRACE(isUnderWay);
        script.block(DeviceCall::Deallocate);
        const auto held = worker->enqueueUnloadGraph(elsewhere.get(), false);
        script.fail(DeviceCall::Allocate, 1, -3);
        EXPECT_EQ(load(graph.get()), -3);
        worker->removeInvalidGraph(graph.get());

        if (isUnderWay) script.block(DeviceCall::Allocate);
        const auto loaded = worker->enqueueLoadGraph(graph.get());
        EXPECT_EQ(isUnderWay ? 0 : loaded.get(), 0);
        script.release(DeviceCall::Deallocate);
        EXPECT_EQ(held.get(), 0);
        EXPECT_EQ(unload(elsewhere.get()), 0) << "a fence behind the notice";
        script.release(DeviceCall::Allocate);
        EXPECT_EQ(loaded.get(), 0);
        EXPECT_THAT(worker->getGraphs(), ElementsAre(graph.get()));
        EXPECT_EQ(unload(graph.get()), 0);
    }
}

TEST_F(WorkThreadTest, FailureIsToldOnceWhereverItIsMet) {
    constexpr int kRefused = -5;
    const struct {
        DeviceCall call;
        int nth;
        int error;
    } rows[] = {{DeviceCall::LoadTensor, 1, kHardwareError},
                {DeviceCall::GetResult, 1, kHardwareError},
                {DeviceCall::Allocate, 1, kHardwareError},
                {DeviceCall::Deallocate, 1, kRefused},
                {DeviceCall::Deallocate, 2, kRefused},  // of a graph without a slot
                {DeviceCall::Reset, 1, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        FakeWorkerFailureListener failures;
        const ScopedPort<WorkerFailureListener> port(failures);
        startLoaded(2);
        EXPECT_FALSE(worker->isFailed());
        script.fail(row.call, row.nth, row.error);
        for (int round = 0; round < 2; ++round) {
            feed(graph.get());
            (void)load(other.get());  // whatever a dead device answers
            (void)unload(graph.get());
            (void)unload(graph.get());
            if (row.call == DeviceCall::Reset) {
                script.loseOnReset();
                worker->enqueueResetDevice(makeResetRequest());
            }
            EXPECT_TRUE(eventually([&] { return !failures.failed().empty(); }));
            EXPECT_TRUE(worker->isFailed());
        }
        worker->checkDevice();
        EXPECT_THAT(failures.failed(), ElementsAre(worker.get()));
        worker.reset();
    }
}

TEST_F(WorkThreadTest, ResetHoldsUpNewGraphsAndNeitherTasksNorReaders) {
    startLoaded(2);
    script.block(DeviceCall::Reset);
    script.fail(DeviceCall::Reset, 1, -2);
    worker->enqueueResetDevice(makeResetRequest());
    ASSERT_TRUE(calls(DeviceCall::Reset));
    auto loaded = startCalling([&] { return load(other.get()); });
    feed(graph.get());
    EXPECT_TRUE(settles(1, 0));
    EXPECT_EQ(unload(graph.get()), 0) << "the task scheduler's word comes through, too";
    EXPECT_THAT(sink.resets(), IsEmpty());
    EXPECT_THAT(worker->getGraphs(), IsEmpty()) << "well before the wait has its own end";
    script.release(DeviceCall::Reset);
    EXPECT_EQ(loaded.get(), 0);
    EXPECT_EQ(worker->getGraphName(), "graph2");
    ASSERT_TRUE(eventually([&] { return sink.resets().size() == 1; }));
    EXPECT_EQ(sink.resets()[0].error, KelmError(-2));
}

TEST_F(WorkThreadTest, EachTaskFedAsksForOneMoreAndUnloadWaitsForThoseInFlight) {
    start();
    script.block(DeviceCall::Allocate);
    const auto loaded = worker->enqueueLoadGraph(graph.get());
    EXPECT_TRUE(shows("LOAD_GRAPH"));
    script.release(DeviceCall::Allocate);
    EXPECT_EQ(loaded.get(), 0);
    EXPECT_TRUE(shows("WAIT_TASK"));
    const FakeTaskExchange::Request request(worker.get(), graph.get());
    EXPECT_THAT(exchange.scheduled(), ElementsAre(request));

    script.block(DeviceCall::GetResult);
    KelmTask* const task = feed(graph.get());
    ASSERT_TRUE(calls(DeviceCall::GetResult));
    EXPECT_THAT(exchange.scheduled(), ElementsAre(request, request));
    script.block(DeviceCall::Deallocate);
    const auto unloaded = worker->enqueueUnloadGraph(graph.get(), true);
    KelmTask* const behind = feed(graph.get());
    ASSERT_TRUE(eventually([&] { return exchange.descheduled().size() == 1; }));
    EXPECT_EQ(script.count(DeviceCall::Deallocate), 0);
    script.release(DeviceCall::GetResult);
    EXPECT_TRUE(shows("UNLOAD_GRAPH"));
    script.release(DeviceCall::Deallocate);
    EXPECT_EQ(unloaded.get(), 0);
    EXPECT_TRUE(shows("WAIT_GRAPH"));
    EXPECT_THAT(script.deallocated(), ElementsAre(Pair(graph.get(), true)));
    ASSERT_TRUE(settles(1, 1));
    EXPECT_THAT(sink.done(), ElementsAre(Pair(task, KELM_OK)));
    EXPECT_EQ(task->getStatus(), TASK_STATUS_DONE);
    EXPECT_THAT(exchange.returned(), ElementsAre(behind));
}

TEST_F(WorkThreadTest, TasksInFlightAreBoundedAndACanceledOneNeverReachesTheDevice) {
    start(1, 2);
    ASSERT_EQ(load(graph.get()), 0);
    script.block(DeviceCall::GetResult);
    for (int i = 0; i < 4; ++i) feed(graph.get());
    // The third asks for the next one and waits, so the fourth does not get to ask.
    ASSERT_TRUE(eventually([&] { return exchange.scheduled().size() == 4; }));
    EXPECT_EQ(script.count(DeviceCall::LoadTensor), 2);
    tasks[3]->cancel();
    script.release(DeviceCall::GetResult);
    EXPECT_TRUE(settles(3, 0));
    EXPECT_TRUE(eventually([&] { return !exchange.destroyed().empty(); }));
    EXPECT_THAT(exchange.destroyed(), ElementsAre(tasks[3].get()));
    EXPECT_EQ(exchange.scheduled().size(), 5u) << "the canceled one asked for another too";
    EXPECT_EQ(script.count(DeviceCall::LoadTensor), 3);
}

TEST_F(WorkThreadTest, ClientSeesAnErrorOnlyAfterFourTries) {
    for (const DeviceCall call : {DeviceCall::LoadTensor, DeviceCall::GetResult}) {
        SCOPED_TRACE(static_cast<int>(call));
        startLoaded();
        script.failAll(call, -1);
        const size_t others = tasks.size();
        KelmTask* const task = addTask(graph.get());
        for (size_t tries = 1; tries <= 4; ++tries) {
            worker->enqueueLoadTensor(task);
            ASSERT_TRUE(settles(others + tries / 4, 3 * others + std::min<size_t>(tries, 3)));
        }
        EXPECT_THAT(sink.done().back(), Pair(task, KelmError(-1)));
        script.failAll(call, 0);
    }
}

TEST_F(WorkThreadTest, HardwareErrorReturnsTasksInFlight) {
    startLoaded();
    script.block(DeviceCall::GetResult);
    script.fail(DeviceCall::LoadTensor, 3, kHardwareError);
    KelmTask* const first = feed(graph.get());
    ASSERT_TRUE(calls(DeviceCall::GetResult));
    KelmTask* const second = feed(graph.get());
    KelmTask* const third = feed(graph.get());
    ASSERT_TRUE(shows("QX_ERROR"));
    KelmTask* const late = feed(graph.get());
    const size_t asked = exchange.scheduled().size();

    script.release(DeviceCall::GetResult);
    ASSERT_TRUE(settles(1, 3));
    EXPECT_THAT(sink.done(), ElementsAre(Pair(first, KELM_OK))) << "the device had answered it";
    EXPECT_THAT(exchange.returned(), ElementsAre(third, late, second));
    EXPECT_EQ(script.count(DeviceCall::GetResult), 1);
    EXPECT_TRUE(shows("WAIT_TASK")) << "shown only";
    EXPECT_EQ(exchange.scheduled().size(), asked) << "a dead device must not ask for tasks";
    EXPECT_EQ(unload(graph.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(graph->getRunningDeviceNum(), 0);
    tasks.clear();
    graph.reset();  // the device has forgotten it
    EXPECT_EQ(worker->getDevices().at(0)->getCurrentGraph(), nullptr);
    EXPECT_EQ(load(other.get()), KELM_ERROR_DEVICE_FAILED);
    worker.reset();
    EXPECT_THAT(script.deallocated(), IsEmpty());
}

TEST_F(UnansweredUnloadTest, StaleAnswerDoesNotPassForTheOneThatIsAskedFor) {
    worker->enqueueAbortApplyTaskDone(graph.get());
    worker->enqueueAbortApplyTaskDone(graph.get());
    const auto unloaded = unloadUnanswered();
    EXPECT_EQ(unloaded.wait_for(20ms), std::future_status::timeout);
    worker->enqueueAbortApplyTaskDone(graph.get());
    EXPECT_EQ(unloaded.get(), 0);
}

TEST_F(UnansweredUnloadTest, DestructionEndsAnUnloadThatNobodyAnswers) {
    const auto unloaded = unloadUnanswered();
    worker.reset();
    EXPECT_EQ(unloaded.get(), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(script.count(DeviceCall::Forget), 1);
    EXPECT_EQ(script.count(DeviceCall::Deallocate), 0);
}

TEST_F(UnansweredUnloadTest, AnswerStillArrivesWhileTheWorkerIsDestroyed) {
    // Without the answer each destruction takes a second and more from the release on; with it one
    // of a few is shorter even on a busy machine.
    bool isAnswerHeard = false;
    for (int round = 1; round <= 5 && !isAnswerHeard; ++round) {
        if (worker == nullptr) startLoaded();
        script.block(DeviceCall::GetResult);
        feed(graph.get());
        ASSERT_TRUE(eventually([&] { return script.count(DeviceCall::GetResult) == round; }));
        (void)unloadUnanswered();
        WorkThread* const dying = worker.get();
        auto destroyed = std::async(std::launch::async, [&] { worker.reset(); });
        ASSERT_TRUE(eventually([&] { return !dying->isReady(); }));
        dying->enqueueAbortApplyTaskDone(graph.get());
        const auto released = std::chrono::steady_clock::now();
        script.release(DeviceCall::GetResult);
        destroyed.get();
        isAnswerHeard = std::chrono::steady_clock::now() - released < 900ms;
    }
    EXPECT_TRUE(isAnswerHeard);
}

TEST_F(WorkThreadTest, DestructionReturnsWhatIsQueuedAndTakesTheGraphOff) {
    startLoaded();
    script.block(DeviceCall::LoadTensor);
    KelmTask* const running = feed(graph.get());
    ASSERT_TRUE(calls(DeviceCall::LoadTensor));
    KelmTask* const queued = feed(graph.get());
    WorkThread* const dying = worker.get();
    auto destroyed = std::async(std::launch::async, [&] { worker.reset(); });
    ASSERT_TRUE(eventually([&] { return !dying->isReady(); }));
    KelmTask* const late = addTask(graph.get());
    dying->enqueueLoadTensor(late);
    script.release(DeviceCall::LoadTensor);
    destroyed.get();
    EXPECT_THAT(exchange.returned(), UnorderedElementsAre(late, queued, running));
    EXPECT_THAT(script.deallocated(), ElementsAre(Pair(graph.get(), false)));
    EXPECT_THAT(sink.done(), IsEmpty());
}

}  // namespace kelm

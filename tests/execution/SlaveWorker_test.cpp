#include "WorkerFixture.h"

namespace kelm {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class SlaveWorkerTest : public WorkerFixture {
 protected:
    std::string state() { return worker->getStates().at(0); }
};

// No deschedule is answered.
class SlaveWorkerAloneTest : public WorkerFixture {
 protected:
    SlaveWorkerAloneTest() : WorkerFixture(FakeTaskExchange::Answer::Never) { startLoaded(); }

    std::shared_future<int> unloadUnanswered() {
        auto unloaded = worker->enqueueUnloadGraph(graph.get(), false);
        EXPECT_TRUE(eventually([&] { return exchange.descheduled().size() == 1; }));
        return unloaded;
    }
};

}  // namespace

TEST_F(SlaveWorkerTest, EachTaskFedAsksForOneMoreAndUnloadWaitsForThoseInFlight) {
    start();
    EXPECT_EQ(state(), "WAIT_GRAPH");
    script.block(DeviceCall::Allocate);
    const auto loaded = worker->enqueueLoadGraph(graph.get());
    EXPECT_TRUE(eventually([&] { return state() == "LOAD_GRAPH"; }));
    script.release(DeviceCall::Allocate);
    EXPECT_EQ(loaded.get(), 0);
    EXPECT_EQ(state(), "WAIT_TASK");
    const FakeTaskExchange::Request request(worker.get(), graph.get());
    EXPECT_THAT(exchange.scheduled(), ElementsAre(request));

    script.block(DeviceCall::GetResult);
    KelmTask* const task = feed(graph.get());
    ASSERT_TRUE(calls(DeviceCall::GetResult));
    EXPECT_EQ(state(), "RUNNING");
    EXPECT_THAT(exchange.scheduled(), ElementsAre(request, request));
    script.block(DeviceCall::Deallocate);
    const auto unloaded = worker->enqueueUnloadGraph(graph.get(), true);
    KelmTask* const behind = feed(graph.get());
    ASSERT_TRUE(eventually([&] { return exchange.descheduled().size() == 1; }));
    EXPECT_EQ(script.count(DeviceCall::Deallocate), 0);
    script.release(DeviceCall::GetResult);
    EXPECT_TRUE(eventually([&] { return state() == "UNLOAD_GRAPH"; }));
    script.release(DeviceCall::Deallocate);
    EXPECT_EQ(unloaded.get(), 0);
    EXPECT_EQ(state(), "WAIT_GRAPH");
    EXPECT_THAT(script.deallocated(), ElementsAre(Pair(graph.get(), true)));
    ASSERT_TRUE(settles(1, 1));
    EXPECT_THAT(sink.done(), ElementsAre(Pair(task, KELM_OK)));
    EXPECT_EQ(task->getStatus(), TASK_STATUS_DONE);
    EXPECT_THAT(exchange.returned(), ElementsAre(behind));
}

TEST_F(SlaveWorkerTest, TasksInFlightAreBounded) {
    start(1, 2);
    ASSERT_EQ(load(graph.get()), 0);
    script.block(DeviceCall::GetResult);
    for (int i = 0; i < 4; ++i) feed(graph.get());
    // The third asks for the next one and waits, so the fourth does not get to ask.
    ASSERT_TRUE(eventually([&] { return exchange.scheduled().size() == 4; }));
    EXPECT_EQ(script.count(DeviceCall::LoadTensor), 2);
    script.release(DeviceCall::GetResult);
    EXPECT_TRUE(settles(4, 0));
}

TEST_F(SlaveWorkerTest, CanceledTaskInTheInputPoolNeverReachesTheDevice) {
    startLoaded();
    script.block(DeviceCall::LoadTensor);
    KelmTask* const first = feed(graph.get());
    KelmTask* const second = feed(graph.get());
    second->cancel();
    script.release(DeviceCall::LoadTensor);
    ASSERT_TRUE(eventually([&] { return exchange.destroyed().size() == 1; }));
    EXPECT_THAT(exchange.destroyed(), ElementsAre(second));
    EXPECT_EQ(exchange.scheduled().size(), 3u) << "the canceled one asked for another too";
    ASSERT_TRUE(settles(1, 0));
    EXPECT_THAT(script.loadedTasks(), ElementsAre(first));
}

TEST_F(SlaveWorkerTest, ClientSeesAnErrorOnlyAfterFourTries) {
    for (const DeviceCall call : {DeviceCall::LoadTensor, DeviceCall::GetResult}) {
        SCOPED_TRACE(static_cast<int>(call));
        startLoaded();
        script.failAll(call, -1);
        KelmTask* const task = addTask(graph.get());
        const size_t doneBefore = sink.done().size();
        const size_t returnedBefore = exchange.returned().size();
        for (size_t tries = 1; tries <= 3; ++tries) {
            worker->enqueueLoadTensor(task);
            ASSERT_TRUE(settles(doneBefore, returnedBefore + tries));
        }
        worker->enqueueLoadTensor(task);
        ASSERT_TRUE(settles(doneBefore + 1, returnedBefore + 3));
        EXPECT_THAT(sink.done().back(), Pair(task, KelmError(-1)));
        script.failAll(call, 0);
    }
}

TEST_F(SlaveWorkerTest, HardwareErrorReturnsTasksInFlight) {
    startLoaded();
    script.block(DeviceCall::GetResult);
    script.fail(DeviceCall::LoadTensor, 3, kHardwareError);
    KelmTask* const first = feed(graph.get());
    ASSERT_TRUE(calls(DeviceCall::GetResult));
    KelmTask* const second = feed(graph.get());
    KelmTask* const third = feed(graph.get());
    ASSERT_TRUE(eventually([&] { return state() == "QX_ERROR"; }));
    KelmTask* const late = feed(graph.get());
    const size_t asked = exchange.scheduled().size();

    script.release(DeviceCall::GetResult);
    ASSERT_TRUE(settles(1, 3));
    EXPECT_THAT(sink.done(), ElementsAre(Pair(first, KELM_OK))) << "the device had answered it";
    EXPECT_THAT(exchange.returned(), ElementsAre(third, late, second));
    EXPECT_EQ(script.count(DeviceCall::GetResult), 1);
    EXPECT_TRUE(eventually([&] { return state() == "WAIT_TASK"; })) << "shown only";
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

TEST_F(SlaveWorkerTest, UnloadingNothingTouchesNeitherSchedulerNorDevice) {
    start();
    script.failAll(DeviceCall::Allocate, -3);
    script.block(DeviceCall::Allocate);
    const auto loaded = worker->enqueueLoadGraph(graph.get());
    const auto unloaded = worker->enqueueUnloadGraph(graph.get(), false);
    script.release(DeviceCall::Allocate);
    EXPECT_EQ(loaded.get(), -3);
    EXPECT_EQ(unloaded.get(), 0);
    EXPECT_THAT(exchange.descheduled(), IsEmpty());
    EXPECT_THAT(script.deallocated(), IsEmpty());
}

TEST_F(SlaveWorkerAloneTest, StaleAnswerDoesNotPassForTheOneThatIsAskedFor) {
    worker->enqueueAbortApplyTaskDone(graph.get());
    worker->enqueueAbortApplyTaskDone(graph.get());
    const auto unloaded = unloadUnanswered();
    EXPECT_EQ(unloaded.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    worker->enqueueAbortApplyTaskDone(graph.get());
    EXPECT_EQ(unloaded.get(), 0);
}

TEST_F(SlaveWorkerAloneTest, DestructionEndsAnUnloadThatNobodyAnswers) {
    const auto unloaded = unloadUnanswered();
    worker.reset();
    EXPECT_EQ(unloaded.get(), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(script.count(DeviceCall::Forget), 1);
    EXPECT_EQ(script.count(DeviceCall::Deallocate), 0);
}

TEST_F(SlaveWorkerAloneTest, AnswerStillArrivesWhileTheWorkerIsDestroyed) {
    (void)unloadUnanswered();
    WorkThread* const dying = worker.get();
    auto destroyed = std::async(std::launch::async, [&] { worker.reset(); });
    ASSERT_TRUE(eventually([&] { return !dying->isReady(); }));
    dying->enqueueAbortApplyTaskDone(graph.get());
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(800)), std::future_status::ready);
}

TEST_F(SlaveWorkerTest, DestructionReturnsWhatIsQueuedAndTakesTheGraphOff) {
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
    EXPECT_THAT(exchange.returned(), testing::UnorderedElementsAre(late, queued, running));
    EXPECT_THAT(script.deallocated(), ElementsAre(Pair(graph.get(), false)));
    EXPECT_THAT(sink.done(), IsEmpty());
}

}  // namespace kelm

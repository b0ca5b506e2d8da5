#include "WorkerFixture.h"
#include "fakes/FakeWorkerFailureListener.h"
#include "fakes/TestRequest.h"

namespace kelm {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class WorkThreadTest : public WorkerFixture {};

}  // namespace

TEST_F(WorkThreadTest, DeviceThatDoesNotOpenLeavesAShell) {
    for (const bool exists : {true, false}) {
        SCOPED_TRACE(exists);
        script.failAll(DeviceCall::Open, -2);
        if (!exists) KelmDeviceBase::setFactory([](const std::string&) { return nullptr; });
        start();
        EXPECT_FALSE(worker->isReady());
        EXPECT_EQ(worker->getDevice(), nullptr);
        EXPECT_EQ(load(graph.get()), KELM_ERROR_DEVICE_FAILED);
        EXPECT_EQ(unload(graph.get()), 0);
        KelmTask* const task = addTask(graph.get());
        worker->enqueueLoadTensor(task);
        EXPECT_EQ(exchange.returned().back(), task);
        worker->enqueueResetDevice(makeResetRequest());
        ASSERT_TRUE(eventually([&] { return sink.resets().size() == (exists ? 1u : 2u); }));
        EXPECT_EQ(sink.resets().back().error, KELM_ERROR_INVALID_DEVICE);
    }
}

TEST_F(WorkThreadTest, DeviceIsSetUpForTheTasksInFlight) {
    for (const auto& [inferences, fifo] : {std::pair(1, 3u), std::pair(4, 6u), std::pair(-7, 3u)}) {
        SCOPED_TRACE(inferences);
        start(1, inferences);
        EXPECT_EQ(script.fifoCapacity(), fifo);
        EXPECT_EQ(script.maxCacheGraphNumber(), 4);
    }
    start(0);
    EXPECT_TRUE(worker->isReady());
    EXPECT_EQ(load(graph.get()), KELM_ERROR_TOO_MANY_GRAPH);
    EXPECT_EQ(worker->getTotalFps(), 0.0f);
}

TEST_F(WorkThreadTest, SlotsAreFilledInOrderAndFreedByTheRequestToUnload) {
    start(2);
    const auto third = makeTestGraph(3, "three");
    EXPECT_EQ(load(graph.get()), 0);
    EXPECT_EQ(load(graph.get()), 0) << "already there";
    EXPECT_EQ(script.count(DeviceCall::Allocate), 1);
    EXPECT_EQ(load(other.get()), 0);
    EXPECT_EQ(load(third.get()), KELM_ERROR_TOO_MANY_GRAPH);
    KelmTask* const task = addTask(third.get());
    worker->enqueueLoadTensor(task);
    EXPECT_THAT(exchange.returned(), ElementsAre(task));
    EXPECT_THAT(worker->getGraphs(), testing::UnorderedElementsAre(graph.get(), other.get()));
    EXPECT_EQ(worker->getGraphName(), "graph1");

    script.block(DeviceCall::Deallocate);
    const auto unloaded = worker->enqueueUnloadGraph(graph.get(), false);
    const auto loaded = worker->enqueueLoadGraph(third.get());
    script.release(DeviceCall::Deallocate);
    EXPECT_EQ(unloaded.get(), 0);
    EXPECT_EQ(loaded.get(), 0);
    EXPECT_EQ(worker->getGraphName(), "graph3");
    tasks.clear();
    worker.reset();  // before the graph that it holds
}

TEST_F(WorkThreadTest, GraphWithoutSlotIsUnloadedFromTheRoot) {
    start();
    ASSERT_EQ(load(graph.get()), 0);
    ASSERT_EQ(worker->enqueueUnloadGraph(graph.get(), true).get(), 0);
    ASSERT_EQ(unload(graph.get()), 0);
    EXPECT_THAT(script.deallocated(),
                ElementsAre(Pair(graph.get(), true), Pair(graph.get(), false)));
    EXPECT_EQ(exchange.descheduled().size(), 1u) << "the second one has no request to drop";
    EXPECT_THAT(worker->getDevice()->getCachedGraphList(), IsEmpty());
}

// The notice of the failed load is held up on the pool, and the slot has been given away since.
TEST_F(WorkThreadTest, NoticeOfAFailedLoadFreesItsSlotAndLeavesTheNextGraphAlone) {
    start();
    script.fail(DeviceCall::Allocate, 1, -3);
    EXPECT_EQ(load(other.get()), -3);
    EXPECT_TRUE(eventually([&] { return worker->getGraphs().empty(); }));
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

TEST_F(WorkThreadTest, ResetIsAnsweredToItsClient) {
    start();
    script.fail(DeviceCall::Reset, 2, -2);
    worker->enqueueResetDevice(makeResetRequest());
    worker->enqueueResetDevice(makeResetRequest(0, 6));
    ASSERT_TRUE(eventually([&] { return sink.resets().size() == 2; }));
    EXPECT_EQ(sink.resets()[0].error, KELM_OK);
    EXPECT_EQ(sink.resets()[0].socket, 5);
    EXPECT_EQ(sink.resets()[1].error, KelmError(-2));
}

TEST_F(WorkThreadTest, FailureIsToldOnceWhereverItIsMet) {
    constexpr int kRefused = -5;
    const struct {
        const char* where;
        std::function<void()> meet;
    } rows[] = {
        {"input",
         [&] {
             script.fail(DeviceCall::LoadTensor, 1, kHardwareError);
             worker->enqueueLoadTensor(addTask(graph.get()));
         }},
        {"result",
         [&] {
             script.fail(DeviceCall::GetResult, 1, kHardwareError);
             worker->enqueueLoadTensor(addTask(graph.get()));
         }},
        {"load",
         [&] {
             script.fail(DeviceCall::Allocate, 1, kHardwareError);
             EXPECT_EQ(load(other.get()), kHardwareError);
         }},
        {"unload",
         [&] {
             script.fail(DeviceCall::Deallocate, 1, kRefused);
             EXPECT_EQ(unload(graph.get()), kRefused);
         }},
        {"unload of a cached graph",
         [&] {
             script.fail(DeviceCall::Deallocate, 1, kRefused);
             EXPECT_EQ(unload(other.get()), kRefused);
         }},
        {"reset by a client",
         [&] {
             script.loseOnReset();
             worker->enqueueResetDevice(makeResetRequest());
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.where);
        FakeWorkerFailureListener failures;
        const ScopedPort<WorkerFailureListener> port(failures);
        start(2);
        ASSERT_EQ(load(graph.get()), 0);
        EXPECT_FALSE(worker->isFailed());
        row.meet();
        EXPECT_TRUE(eventually([&] { return !failures.failed().empty(); }));
        EXPECT_TRUE(worker->isFailed());
        worker->enqueueLoadTensor(addTask(graph.get()));
        (void)unload(graph.get());  // whatever a dead device answers
        worker->checkDevice();
        EXPECT_THAT(failures.failed(), ElementsAre(worker.get()));
        worker.reset();
    }
}

TEST_F(WorkThreadTest, GraphsWaitForTheEndOfAResetAndReadersDoNot) {
    start();
    script.block(DeviceCall::Reset);
    worker->enqueueResetDevice(makeResetRequest());
    ASSERT_TRUE(eventually([&] { return script.count(DeviceCall::Reset) == 1; }));
    auto loaded = std::async(std::launch::async, [&] { return load(graph.get()); });
    for (int look = 0; look < 50; ++look) {  // well before the wait has its own end
        EXPECT_THAT(worker->getGraphs(), IsEmpty());
        std::this_thread::yield();
    }
    EXPECT_THAT(worker->getStates(), ElementsAre("WAIT_GRAPH"));
    script.release(DeviceCall::Reset);
    EXPECT_EQ(loaded.get(), 0);
    EXPECT_EQ(worker->getGraphName(), "graph1");
}

TEST_F(WorkThreadTest, ResetThatNeverAnswersLeavesTheThreadThatBringsTasksAlone) {
    start();
    ASSERT_EQ(load(graph.get()), 0);
    script.block(DeviceCall::Reset);
    worker->enqueueResetDevice(makeResetRequest());
    ASSERT_TRUE(eventually([&] { return script.count(DeviceCall::Reset) == 1; }));
    worker->enqueueLoadTensor(addTask(graph.get()));
    EXPECT_TRUE(settles(1, 0));
    EXPECT_EQ(unload(graph.get()), 0) << "the task scheduler's word comes through, too";
    script.release(DeviceCall::Reset);
}

// The whole of it on simulated devices: tasks of two graphs, loads and unloads crossing them.
TEST(WorkThreadFakeTest, EveryTaskComesBackExactlyOnceWhileGraphsComeAndGo) {
    useFakeDevices(R"("wait_timeout": 60000,)");
    FakeTaskExchange exchange;
    FakeResultSink sink;
    ScopedPort<TaskExchange> exchangePort(exchange);
    ScopedPort<ResultSink> sinkPort(sink);
    const auto first = makeTestGraph(1, "one");
    const auto second = makeTestGraph(2, "two");
    std::deque<std::unique_ptr<KelmTask>> tasks;
    {
        WorkThread worker("Fake0", 0, 2, 4);
        ASSERT_TRUE(worker.isReady());
        for (int round = 0; round < 50; ++round) {
            for (KelmGraph* graph : {first.get(), second.get()}) {
                ASSERT_EQ(worker.enqueueLoadGraph(graph).get(), 0);
                for (int i = 0; i < 5; ++i) {
                    tasks.push_back(makeTestTask(tasks.size(), graph));
                    worker.enqueueLoadTensor(tasks.back().get());
                }
            }
            const auto gone = worker.enqueueUnloadGraph(first.get(), round % 2 == 0);
            EXPECT_EQ(worker.enqueueUnloadGraph(second.get(), false).get(), 0);
            EXPECT_EQ(gone.get(), 0);
        }
        ASSERT_EQ(worker.enqueueLoadGraph(first.get()).get(), 0);
    }
    std::set<KelmTask*> seen;
    for (const auto& [task, error] : sink.done()) {
        EXPECT_EQ(error, KELM_OK);
        EXPECT_TRUE(seen.insert(task).second);
    }
    for (KelmTask* task : exchange.returned()) EXPECT_TRUE(seen.insert(task).second);
    EXPECT_EQ(seen.size(), tasks.size());
    EXPECT_EQ(first->getRunningDeviceNum(), 0);
    EXPECT_EQ(second->getCachedDeviceNum(), 0);
}

}  // namespace kelm

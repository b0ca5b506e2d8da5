#include "WorkerFixture.h"
#include "fakes/FakeWorkerFailureListener.h"
#include "fakes/TestRequest.h"

namespace kelm {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using WorkThreadTest = WorkerFixture;

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
        KelmTask* const task = feed(graph.get());
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
    KelmTask* const task = feed(third.get());
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
    startLoaded();
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

TEST_F(WorkThreadTest, FailureIsToldOnceWhereverItIsMet) {
    constexpr int kRefused = -5;
    const struct {
        const char* where;
        DeviceCall call;
        int nth;
        int error;
    } rows[] = {{"input", DeviceCall::LoadTensor, 1, kHardwareError},
                {"result", DeviceCall::GetResult, 1, kHardwareError},
                {"load", DeviceCall::Allocate, 1, kHardwareError},
                {"unload", DeviceCall::Deallocate, 1, kRefused},
                {"unload of a cached graph", DeviceCall::Deallocate, 2, kRefused},
                {"reset by a client", DeviceCall::Reset, 1, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.where);
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

TEST_F(WorkThreadTest, GraphsWaitForTheEndOfAResetAndReadersDoNot) {
    start();
    script.block(DeviceCall::Reset);
    worker->enqueueResetDevice(makeResetRequest());
    ASSERT_TRUE(calls(DeviceCall::Reset));
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
    startLoaded();
    script.block(DeviceCall::Reset);
    script.fail(DeviceCall::Reset, 1, -2);
    worker->enqueueResetDevice(makeResetRequest());
    ASSERT_TRUE(calls(DeviceCall::Reset));
    feed(graph.get());
    EXPECT_TRUE(settles(1, 0));
    EXPECT_EQ(unload(graph.get()), 0) << "the task scheduler's word comes through, too";
    EXPECT_THAT(sink.resets(), IsEmpty());
    script.release(DeviceCall::Reset);
    ASSERT_TRUE(eventually([&] { return sink.resets().size() == 1; }));
    EXPECT_EQ(sink.resets()[0].error, KelmError(-2));
}

}  // namespace kelm

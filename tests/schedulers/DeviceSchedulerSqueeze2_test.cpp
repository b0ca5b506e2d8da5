#include "scheduling/devices/DeviceSchedulerSqueeze2.h"

#include "schedulers/SchedulerRig.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr int kNoMemory = -130;

class DeviceSchedulerSqueeze2Test : public SchedulerRig {
 protected:
    SteppedSqueeze m_scheduler;
};

TEST_F(DeviceSchedulerSqueeze2Test, UnloadTakesBackPendingLoadAndIsStillConfirmed) {
    WorkThread* const worker = makeWorker("a");
    m_scheduler.addWorker(worker);
    m_scheduler.pass();
    KelmGraph* const graph = makeGraph();
    m_scheduler.loadGraph(graph);
    m_scheduler.unloadGraph(graph);
    m_scheduler.pass();
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Allocate), 0);
    EXPECT_THAT(m_devices["a"].deallocated(), IsEmpty());
    EXPECT_THAT(m_placement.loads(), IsEmpty());
    EXPECT_THAT(m_placement.unloads(), ElementsAre(graph));
}

TEST_F(DeviceSchedulerSqueeze2Test, SecondFailureIsAnsweredAndLeavesNoPointerBehind) {
    WorkThread* const worker = makeWorker("a");
    m_devices["a"].failAll(DeviceCall::Allocate, kNoMemory);
    m_placement.onFailedLoad([&](KelmGraph* graph) {
        EXPECT_THAT(worker->getGraphs(), IsEmpty());
        deleteGraph(graph);
    });
    m_scheduler.addWorker(worker);
    KelmGraph* const graph = makeGraph();
    m_scheduler.loadGraph(graph);
    m_scheduler.pass();
    EXPECT_THAT(m_placement.loads(), IsEmpty());
    m_scheduler.pass();
    EXPECT_THAT(m_placement.loads(), ElementsAre(Pair(graph, kNoMemory)));
    m_scheduler.pass();  // would follow what is left of the graph
    // A destroy that crossed the notice is answered without a look at the record.
    m_scheduler.unloadGraph(graph);
    m_scheduler.droppedPass();
    m_scheduler.pass();
    EXPECT_THAT(m_placement.unloads(), ElementsAre(graph));
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Allocate), 2);
}

TEST_F(DeviceSchedulerSqueeze2Test, UnloadDuringRetriesIsConfirmedWithoutAnotherLoad) {
    m_devices["a"].fail(DeviceCall::Allocate, 1, kNoMemory);
    m_scheduler.addWorker(makeWorker("a"));
    KelmGraph* const graph = makeGraph();
    m_scheduler.loadGraph(graph);
    m_scheduler.pass();
    m_scheduler.unloadGraph(graph);
    m_scheduler.pass();
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Allocate), 1);
    EXPECT_THAT(m_placement.loads(), IsEmpty());
    EXPECT_THAT(m_placement.unloads(), ElementsAre(graph));
}

TEST_F(DeviceSchedulerSqueeze2Test, LoadThatFailsOnOneOfTwoDevicesCountsAndFreesTheSlot) {
    WorkThread* const good = makeWorker("good");
    WorkThread* const bad = makeWorker("bad");
    m_devices["bad"].failAll(DeviceCall::Allocate, kNoMemory);
    m_scheduler.addWorker(good);
    m_scheduler.addWorker(bad);
    KelmGraph* const graph = makeGraph();
    m_scheduler.loadGraph(graph);
    m_scheduler.pass();
    EXPECT_EQ(m_devices["bad"].count(DeviceCall::Allocate), 1);
    EXPECT_THAT(m_placement.loads(), ElementsAre(Pair(graph, KELM_OK)));
    EXPECT_THAT(good->getGraphs(), ElementsAre(graph));
    EXPECT_THAT(bad->getGraphs(), IsEmpty());
}

TEST_F(DeviceSchedulerSqueeze2Test, GraphWithoutPlaceWaitsForADeviceWithoutAnswer) {
    SteppedSqueeze scheduler(1);
    KelmGraph* const graph = makeGraph();
    scheduler.loadGraph(graph);
    scheduler.pass();
    scheduler.pass();
    EXPECT_THAT(m_placement.loads(), IsEmpty());
    scheduler.addWorker(makeWorker("a", 1));
    scheduler.pass();
    EXPECT_THAT(m_placement.loads(), ElementsAre(Pair(graph, KELM_OK)));
}

TEST_F(DeviceSchedulerSqueeze2Test, SwitchedOutGraphStaysCachedUntilItGoesForGood) {
    SteppedSqueeze scheduler(1);
    WorkThread* const worker = makeWorker("a", 1);
    scheduler.addWorker(worker);
    KelmGraph* const first = makeGraph();
    scheduler.loadGraph(first);
    scheduler.pass();
    KelmGraph* const second = makeGraph();
    scheduler.loadGraph(second);
    scheduler.pass();
    EXPECT_THAT(m_devices["a"].deallocated(), ElementsAre(Pair(first, true)));
    EXPECT_THAT(worker->getGraphs(), ElementsAre(second));
    scheduler.unloadGraph(first);
    scheduler.pass();
    EXPECT_THAT(m_devices["a"].deallocated(), ElementsAre(Pair(first, true), Pair(first, false)));
    EXPECT_THAT(m_placement.unloads(), ElementsAre(first));
    EXPECT_THAT(worker->getGraphs(), ElementsAre(second));
}

TEST_F(DeviceSchedulerSqueeze2Test, StablePlanTouchesNoDevice) {
    WorkThread* const worker = makeWorker("a");
    m_scheduler.addWorker(worker);
    m_scheduler.loadGraph(makeGraph());
    m_scheduler.pass();
    m_scheduler.pass();
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Allocate), 1);
    EXPECT_THAT(m_devices["a"].deallocated(), IsEmpty());
}

TEST_F(DeviceSchedulerSqueeze2Test, WorkerThatCameAndWentInOnePassIsDeletedOnce) {
    WorkThread* const worker = makeWorker("a");
    m_scheduler.addWorker(worker);
    m_scheduler.removeWorker(worker);
    m_scheduler.droppedPass();
    EXPECT_THAT(m_removal.removed(), IsEmpty());
    m_scheduler.pass();
    EXPECT_THAT(m_removal.removed(), ElementsAre(worker));
    m_scheduler.loadGraph(makeGraph());
    m_scheduler.pass();  // would touch what is left of the worker
    EXPECT_THAT(m_removal.removed(), ElementsAre(worker));
}

TEST_F(DeviceSchedulerSqueeze2Test, GraphsOfAWorkerThatIsPluggedOutMoveInTheSamePass) {
    WorkThread* const leaving = makeWorker("a");
    m_scheduler.addWorker(leaving);
    KelmGraph* const graph = makeGraph();
    m_scheduler.loadGraph(graph);
    m_scheduler.pass();
    WorkThread* const staying = makeWorker("b");
    m_scheduler.addWorker(staying);
    m_scheduler.removeWorker(leaving);
    m_scheduler.pass();
    EXPECT_THAT(m_devices["a"].deallocated(), ElementsAre(Pair(graph, false)));
    EXPECT_THAT(m_removal.removed(), ElementsAre(leaving));
    EXPECT_THAT(staying->getGraphs(), ElementsAre(graph));
}

TEST_F(DeviceSchedulerSqueeze2Test, DeadDeviceGetsNoMoreLoadsAndGivesBackItsGraphs) {
    for (const int error : {-126, -128}) {
        SCOPED_TRACE(error);
        SteppedSqueeze scheduler;
        const std::string suffix = std::to_string(error);
        WorkThread* const dead = makeWorker("dead" + suffix);
        DeviceScript& script = m_devices["dead" + suffix];
        scheduler.addWorker(dead);
        KelmGraph* const early = makeGraph();
        scheduler.loadGraph(early);
        scheduler.pass();
        script.failAll(DeviceCall::Allocate, error);
        KelmGraph* const late = makeGraph();
        scheduler.loadGraph(late);
        scheduler.pass();
        WorkThread* const fresh = makeWorker("fresh" + suffix);
        scheduler.addWorker(fresh);
        scheduler.pass();
        EXPECT_THAT(fresh->getGraphs(), UnorderedElementsAre(early, late));
        EXPECT_THAT(dead->getGraphs(), IsEmpty());
        EXPECT_EQ(script.count(DeviceCall::Allocate), 2);
        // What the dead device still has cached goes with the graph, and the worker when it is
        // plugged out, also after a plan that was dropped.
        scheduler.unloadGraph(early);
        scheduler.pass();
        EXPECT_THAT(script.deallocated(), ElementsAre(Pair(early, true), Pair(early, false)));
        scheduler.removeWorker(dead);
        scheduler.droppedPass();
        scheduler.pass();
        EXPECT_EQ(m_removal.removed().back(), dead);
        EXPECT_EQ(script.count(DeviceCall::Allocate), 2);
    }
}

TEST_F(DeviceSchedulerSqueeze2Test, DroppedPlanGivesBackOnlyWhatItTookOut) {
    WorkThread* const worker = makeWorker("a");
    m_scheduler.addWorker(worker);
    KelmGraph* const kept = makeGraph();
    KelmGraph* const going = makeGraph();
    m_scheduler.loadGraph(kept);
    m_scheduler.loadGraph(going);
    m_scheduler.pass();
    m_scheduler.loadGraph(kept);  // known already: this plan does not add it
    m_scheduler.unloadGraph(going);
    m_scheduler.droppedPass();
    EXPECT_THAT(worker->getGraphs(), UnorderedElementsAre(kept, going));
    m_scheduler.pass();
    EXPECT_THAT(worker->getGraphs(), ElementsAre(kept));
    EXPECT_THAT(m_placement.unloads(), ElementsAre(going));
    m_scheduler.unloadGraph(kept);
    m_scheduler.pass();
    EXPECT_THAT(worker->getGraphs(), IsEmpty());
}

TEST_F(DeviceSchedulerSqueeze2Test, GraphIsNotGivenUpWhileAWorkerRefersToIt) {
    KelmDeviceBase::setFactory([](const std::string& name) {
        return std::make_unique<DyingDevice>(name, std::make_shared<DeviceScript>());
    });
    WorkThread* const worker = makeWorker("a");
    m_scheduler.addWorker(worker);
    KelmGraph* const graph = makeGraph();
    graph->increaseLoadFailCount();
    graph->increaseLoadFailCount();
    m_scheduler.loadGraph(graph);
    m_scheduler.pass();
    m_scheduler.pass();
    EXPECT_THAT(worker->getGraphs(), ElementsAre(graph));
    EXPECT_THAT(m_placement.loads(), IsEmpty());
    m_scheduler.removeWorker(worker);
    m_scheduler.pass();
    EXPECT_THAT(m_placement.loads(), ElementsAre(Pair(graph, KELM_ERROR_NO_DEVICE_AVAILABLE)));
}

TEST_F(DeviceSchedulerSqueeze2Test, GraphStaysOnADeviceThatFailedWithoutLeaving) {
    WorkThread* const dying = makeWorker("a");
    m_scheduler.addWorker(dying);
    KelmGraph* const graph = makeGraph();
    m_scheduler.loadGraph(graph);
    m_scheduler.pass();
    ASSERT_THAT(dying->getGraphs(), ElementsAre(graph));
    WorkThread* const spare = makeWorker("b");
    m_scheduler.addWorker(spare);
    // A device that cannot release a graph is done for.
    m_devices["a"].failAll(DeviceCall::Deallocate, KELM_ERROR_DEVICE_FAILED);
    EXPECT_NE(dying->getDevice()->deallocateGraph(graph, true), KELM_OK);
    m_scheduler.pass();
    EXPECT_THAT(spare->getGraphs(), ElementsAre(graph));
}

// Workers by rising address, as the map orders them, with their caches and targets as letters.
TEST_F(DeviceSchedulerSqueeze2Test, SetsMoveToTheWorkersThatHaveThemCached) {
    struct Case {
        std::vector<std::string> cached, target, adjusted;
    };
    const Case cases[] = {
        {{"g", ""}, {"h", "g"}, {"g", "h"}},
        {{"", "g"}, {"g", "h"}, {"h", "g"}},
        {{"gh", "g"}, {"g", "h"}, {"h", "g"}},                // the scarcer one first
        {{"x", "g", "h"}, {"g", "h", "k"}, {"k", "g", "h"}},  // a useless cache takes what is left
        {{"g", "h"}, {"gh", ""}, {"gh", ""}},                 // sets are never split
        {{"g", ""}, {"", ""}, {"", ""}},
    };
    int round = 0;
    for (const Case& testCase : cases) {
        SCOPED_TRACE(round);
        std::map<char, KelmGraph*> graphs;
        const auto toSet = [&](const std::string& letters) {
            std::set<KelmGraph*> set;
            for (const char letter : letters) {
                if (graphs[letter] == nullptr) graphs[letter] = makeGraph();
                set.insert(graphs[letter]);
            }
            return set;
        };
        std::vector<WorkThread*> workers;
        for (size_t index = 0; index < testCase.cached.size(); ++index) {
            workers.push_back(makeWorker(std::to_string(round) + "." + std::to_string(index)));
        }
        std::sort(workers.begin(), workers.end());
        SteppedSqueeze::MapResult target;
        SteppedSqueeze::MapResult expected;
        for (size_t index = 0; index < workers.size(); ++index) {
            for (KelmGraph* graph : toSet(testCase.cached[index])) {
                ASSERT_EQ(workers[index]->enqueueLoadGraph(graph).get(), KELM_OK);
            }
            target[workers[index]] = toSet(testCase.target[index]);
            expected[workers[index]] = toSet(testCase.adjusted[index]);
        }
        EXPECT_EQ(m_scheduler.adjusted(target), expected);
        ++round;
    }
}

}  // namespace
}  // namespace kelm

#include "scheduling/devices/DeviceSchedulerSqueeze2.h"

#include "schedulers/SchedulerRig.h"
#include "scheduling/devices/CacheAdjustment.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class SqueezeRig : public SchedulerRig<DeviceSchedulerSqueeze2> {
 public:
    explicit SqueezeRig(int graphsPerDevice = 2) {
        scheduler.setMaxGraphNumPerDevice(graphsPerDevice);
        scheduler.setMaxPendingTaskNum(20);
        scheduler.setMaxPendingCycle(3);
        slots = graphsPerDevice;
        tellsCalls = true;
    }
};

TEST(DeviceSchedulerSqueeze2, FollowsItsScripts) {
    const ScriptCase rows[] = {
        {"an unload takes back a load that waits, and is confirmed", "+a | L1 U1", "| gone1"},
        {"the second failure is answered and leaves no pointer behind", "+a !a L1 | | | U1 / |",
         "a+1 | fail1=-130 a+1 | | / gone1 |"},
        {"an unload between two tries is confirmed without another", "+a !a L1 | U1",
         "a+1 | gone1"},
        {"one good device of two is enough, the other's slot is freed", "+a +b !b L1 |",
         "1x1 ok1 a+1 b+1 | 1x1 b+1"},
        {"a stable plan touches no device", "+a L1 |", "1x1 ok1 a+1 | 1x1"},
        {"a worker that comes and leaves in one pass is deleted once", "+a -a / | L1 |",
         "/ lefta | |"},
        {"graphs of a worker that is plugged out move in the same pass", "+a L1 | +b -a",
         "1x1 ok1 a+1 | 1x1 a-1 b+1 lefta"},
        {"a device that refuses as lost gets no more loads and gives back", "+a L1 | ^a L2 | +b |",
         "1x1 ok1 a+1 | 1x1 a+1 | 1x1 2x1 ok2 a~1 b+2 | 1x1 2x1"},
        {"so does one that is closed", "+a L1 | oa L2 | +b |",
         "1x1 ok1 a+1 | 1x1 a+1 | 1x1 2x1 ok2 a~1 b+2 | 1x1 2x1"},
        {"what a lost device has cached leaves with the graph, the worker also after a dropped "
         "plan",
         "+a L1 | ^a L2 | +b | U1 | -a / |",
         "1x1 ok1 a+1 | 1x1 a+1 | 1x1 2x1 ok2 a~1 b+2 | 2x1 gone1 a-1 b-1 | 2x1 / 2x1 lefta | 2x1"},
        {"a dropped plan gives back only what it took out", "+a L1 L2 | l1 U2 / | U1",
         "1x1 2x1 ok1 ok2 a+2 | 1x1 2x1 / 1x1 ok1 gone2 a-2 | gone1 a-1"},
        {"the graph of a device that failed and stays moves", "+a L1 | +b *a |",
         "1x1 ok1 a+1 | 1x1 a~1 b+1 | 1x1"},
    };
    for (const ScriptCase& row : rows) {
        SCOPED_TRACE(row.rule);
        SqueezeRig rig;
        EXPECT_EQ(rig.play(row.script), row.outcome);
    }
}

TEST(DeviceSchedulerSqueeze2, WithOneGraphPerDeviceGraphsTakeTurns) {
    const ScriptCase rows[] = {
        {"a graph without a place waits for a device without an answer", "L1 | | +a",
         "| | 1x1 ok1 a+1"},
        {"a graph that is switched out stays cached until it is unloaded", "+a L1 | L2 | U1",
         "1x1 ok1 a+1 | 2x1 ok2 a+1 a~1 | 2x1 gone1 a-1"},
    };
    for (const ScriptCase& row : rows) {
        SCOPED_TRACE(row.rule);
        SqueezeRig rig(1);
        EXPECT_EQ(rig.play(row.script), row.outcome);
    }
}

TEST(DeviceSchedulerSqueeze2, GraphIsNotGivenUpWhileAWorkerRefersToIt) {
    SqueezeRig rig;
    rig.makeDying("a");
    rig.dress = [](KelmGraph& graph, char) {
        for (int i = 0; i < 2; ++i) graph.increaseLoadFailCount();
    };
    EXPECT_EQ(rig.play("+a L1 | | -a"), "1x1 | 1x1 | fail1=-122 lefta");
}

TEST(DeviceSchedulerSqueeze2, TargetsFollowTheCachesOfTheDevices) {
    SqueezeRig rig;
    WorkThread* const workers[] = {rig.makeWorker("a"), rig.makeWorker("b")};
    KelmGraph* const cached = rig.makeGraph();
    KelmGraph* const other = rig.makeGraph();
    ASSERT_EQ(workers[0]->enqueueLoadGraph(cached).get(), KELM_OK);
    const GraphMapper::MapResult target = {{workers[0], {other}}, {workers[1], {cached}}};
    const GraphMapper::MapResult expected = {{workers[0], {cached}}, {workers[1], {other}}};
    EXPECT_EQ(rig.scheduler.adjusted(target), expected);
    const GraphMapper::MapResult nothing = {{workers[0], {}}, {workers[1], {}}};
    EXPECT_EQ(rig.scheduler.adjusted(nothing), nothing);
}

// Workers in the map's order, with their caches and targets as letters.
TEST(CacheAdjustment, MovesTargetsToTheWorkersThatHaveThemCached) {
    struct Row {
        const char* what;
        std::vector<std::string> cached, target, adjusted;
    };
    const Row rows[] = {
        {"to the front", {"g", ""}, {"h", "g"}, {"g", "h"}},
        {"to the back", {"", "g"}, {"g", "h"}, {"h", "g"}},
        {"the scarcer one first", {"gh", "g"}, {"g", "h"}, {"h", "g"}},
        {"a useless cache takes what is left", {"x", "g", "h"}, {"g", "h", "k"}, {"k", "g", "h"}},
        {"sets are never split", {"g", "h"}, {"gh", ""}, {"gh", ""}},
        {"nothing cached", {"", ""}, {"g", "h"}, {"g", "h"}},
    };
    const auto key = [](char letter) { return reinterpret_cast<KelmGraph*>(letter * 64l); };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        std::vector<CacheAdjustment::WorkerState> states(row.cached.size());
        for (size_t i = 0; i < states.size(); ++i) {
            states[i].worker = reinterpret_cast<WorkThread*>((i + 1) * 64);
            for (const char letter : row.cached[i]) states[i].cachedGraphs.push_back(key(letter));
            for (const char letter : row.target[i]) states[i].graphs.insert(key(letter));
        }
        EXPECT_EQ(CacheAdjustment::exchangeGraphs(states), row.adjusted != row.target);
        for (const CacheAdjustment::WorkerState& state : states) {
            const size_t index = reinterpret_cast<uintptr_t>(state.worker) / 64 - 1;
            std::set<KelmGraph*> expected;
            for (const char letter : row.adjusted[index]) expected.insert(key(letter));
            EXPECT_EQ(state.graphs, expected);
        }
    }
}

}  // namespace
}  // namespace kelm

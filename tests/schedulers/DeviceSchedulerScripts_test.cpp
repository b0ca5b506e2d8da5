#include "schedulers/SchedulerRig.h"
#include "scheduling/devices/DeviceSchedulerAdaptive.h"
#include "scheduling/devices/DeviceSchedulerSqueeze2.h"
#include "scheduling/devices/DeviceSchedulerStream.h"
#include "scheduling/devices/DeviceSchedulerTag.h"

namespace kelm {
namespace {

struct Row {
    const char* rule;
    const char* script;
    const char* outcome;
};

template <class Rig, class... Args>
void playAll(std::span<const Row> rows, Args... args) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.rule);
        Rig rig(args...);
        EXPECT_EQ(rig.play(row.script), row.outcome);
    }
}

// Of either scheduler that shares devices.
const Row kSharedRows[] = {
    {"an unload takes back a load that waits, and is confirmed", "+a | L1 U1", "| gone1"},
    {"the second failure is answered and leaves no pointer behind", "+a !a L1 | | | U1 / |",
     "a+1 | fail1=-130 a+1 | | / gone1 |"},
    {"a worker that comes and leaves in one pass is deleted once", "+a -a / | L1 |", "/ lefta | |"},
    {"graphs of a worker that is plugged out move in the same pass", "+a L1 | +b -a",
     "1x1 ok1 a+1 | 1x1 a-1 b+1 lefta"},
    {"a device that refuses as lost gets no more loads and gives back", "+a L1 | ^a L2 | +b |",
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

const Row kSharedRowsOfOneGraph[] = {
    {"a graph without a place waits for a device without an answer", "L1 | | +a",
     "| | 1x1 ok1 a+1"},
};

class SqueezeRig : public SchedulerRig<DeviceSchedulerSqueeze2> {
 public:
    explicit SqueezeRig(int graphsPerDevice) {
        scheduler.setMaxGraphNumPerDevice(graphsPerDevice);
        scheduler.setMaxPendingTaskNum(20);
        scheduler.setMaxPendingCycle(3);
        slots = graphsPerDevice;
        tellsCalls = true;
    }
};

const Row kSqueezeRows[] = {
    {"an unload between two tries is confirmed without another", "+a !a L1 | U1", "a+1 | gone1"},
    {"one good device of two is enough, the other's slot is freed", "+a +b !b L1 |",
     "1x1 ok1 a+1 b+1 | 1x1 b+1"},
    {"a stable plan touches no device", "+a L1 |", "1x1 ok1 a+1 | 1x1"},
    {"so does one that is closed", "+a L1 | oa L2 | +b |",
     "1x1 ok1 a+1 | 1x1 a+1 | 1x1 2x1 ok2 a~1 b+2 | 1x1 2x1"},
    {"a graph is not given up while a worker refers to it", "+a +b +x !a !b L1 | | -x",
     "1x1 a+1 b+1 | 1x1 a+1 b+1 | fail1=-130 a+1 b+1 leftx"},
};

const Row kSqueezeRowsOfOneGraph[] = {
    {"a graph that is switched out stays cached until it is unloaded", "+a L1 | L2 | U1",
     "1x1 ok1 a+1 | 2x1 ok2 a+1 a~1 | 2x1 gone1 a-1"},
    {"graphs go where they are cached", "+a L1 | L2 | +b",
     "1x1 ok1 a+1 | 2x1 ok2 a+1 a~1 | 1x1 2x1 a+1 a~2 b+1"},
};

TEST(DeviceSchedulerScripts, SqueezeSharesDevicesAndKeepsCachesInUse) {
    playAll<SqueezeRig>(kSharedRows, 2);
    playAll<SqueezeRig>(kSqueezeRows, 2);
    playAll<SqueezeRig>(kSharedRowsOfOneGraph, 1);
    playAll<SqueezeRig>(kSqueezeRowsOfOneGraph, 1);
}

class AdaptiveRig : public SchedulerRig<DeviceSchedulerAdaptive> {
 public:
    explicit AdaptiveRig(int graphsPerDevice) {
        scheduler.setMaxGraphNumPerDevice(graphsPerDevice);
        slots = graphsPerDevice;
        tellsCalls = true;
    }
};

const Row kAdaptiveRows[] = {
    {"a graph that a device refused goes to another", "+a +b !a L1 | |", "a+1 | 1x1 ok1 b+1 | 1x1"},
    {"graphs have devices of their own while there are some", "+a +b L1 L2 L3 |",
     "1x1 2x1 3x1 ok1 ok2 ok3 a+2 b+1 | 1x1 2x1 3x1"},
};

const Row kAdaptiveRowsOfOneGraph[] = {
    {"a graph that waits takes the place of an idle one, which stays cached", "+a L1 | L2 | U1",
     "1x1 ok1 a+1 | 2x1 ok2 a+1 a~1 | 2x1 gone1 a-1"},
    {"a new device takes a graph that has no place", "+a L1 | L2 | +b",
     "1x1 ok1 a+1 | 2x1 ok2 a+1 a~1 | 1x1 2x1 b+1"},
};

TEST(DeviceSchedulerScripts, AdaptiveMovesNothingThatNeedNotMove) {
    playAll<AdaptiveRig>(kSharedRows, 2);
    playAll<AdaptiveRig>(kAdaptiveRows, 2);
    playAll<AdaptiveRig>(kSharedRowsOfOneGraph, 1);
    playAll<AdaptiveRig>(kAdaptiveRowsOfOneGraph, 1);
}

using StreamRig = SchedulerRig<DeviceSchedulerStream>;

const Row kStreamRows[] = {
    {"a graph takes one device", "+a +b L1 | +c | L2", "1x1 ok1 | 1x1 | 1x1 2x1 ok2"},
    {"a graph without a device is refused", "L1 | +a L2 | L3",
     "fail1=-122 | 2x1 ok2 | 2x1 fail3=-122"},
    {"a load uses what the same pass frees", "+a L1 | U1 L2", "1x1 ok1 | 2x1 ok2 gone1"},
    {"a graph moves when its device leaves", "+a L1 | +b | -a", "1x1 ok1 | 1x1 | 1x1"},
    {"a displaced graph comes before a new one", "+a L1 | -a | +b L2",
     "1x1 ok1 | | 1x1 fail2=-122"},
    {"a displaced graph that is unloaded is forgotten", "+a L1 | -a | U1 | +b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"a graph unloaded with its device is not displaced", "+a L1 | U1 -a | +b | L2",
     "1x1 ok1 | gone1 | | 2x1 ok2"},
    {"a failed move is tried again", "+a L1 | -a +b !b | ~b", "1x1 ok1 | | 1x1"},
    {"a failed move ends with an unload", "+a L1 | -a +b !b | U1 | ~b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"a failed load leaves its device free", "+a !a L1 | ~a L2", "fail1=-130 | 2x1 ok2"},
    {"a displaced graph does not go back to a dead device", "+a L1 | -a +b ^b | ~b | +c",
     "1x1 ok1 | | | 1x1"},
    {"a device that died under its graph gets no more", "+a L1 | ^a U1 | L2 | +b L3",
     "1x1 ok1 | gone1 | fail2=-122 | 3x1 ok3"},
    {"the graph of a failed device moves", "+a L1 | +b *a | L2", "1x1 ok1 | 1x1 | 1x1 fail2=-122"},
    {"one that is tried again is not displaced, too", "+x L1 | -x +b +c", "1x1 | 1x1 ok1"},
    {"a graph of a device that died right after its load gets a second", "+x L1 | +b | -x +c",
     "1x1 | 1x2 ok1 | 1x1"},
};

TEST(DeviceSchedulerScripts, StreamGivesEachGraphADevice) { playAll<StreamRig>(kStreamRows); }

// Graphs 1 to 5 are of the tag "camera", 6 and 7 of "door", further ones of a tag that is unknown.
class TagRig : public SchedulerRig<DeviceSchedulerTag> {
 public:
    TagRig() {
        std::map<std::string, unsigned long> tags{{"camera", 2}, {"door", 1}};
        scheduler.setTagMap(tags);
        dress = [](KelmGraph& graph, char name) {
            graph.setTag(name <= '5' ? "camera" : name <= '7' ? "door" : "window");
        };
    }
};

const Row kTagRows[] = {
    {"a later device fills the headcount", "+a L1 | +b", "1x1 ok1 | 1x2"},
    {"a graph takes no more than its headcount", "+a +b +c +d L1 | L6", "1x2 ok1 | 1x2 6x1 ok6"},
    {"a second graph of the tag is refused", "+a +b +c L1 | L2", "1x2 ok1 | 1x2 fail2=-122"},
    {"the first graph holds the tag", "+a L1 | +b L2 | U2 -b | +c",
     "1x1 ok1 | 1x1 2x1 ok2 | 1x1 gone2 | 1x2"},
    {"the holder stays when a second graph fails", "+a L1 | +b !b L2 | ~b",
     "1x1 ok1 | 1x1 fail2=-130 | 1x2"},
    {"a load uses what the same pass frees", "+a +b L1 | U1 L2", "1x2 ok1 | 2x2 ok2 gone1"},
    {"a graph moves when its device leaves", "+a L6 | +b | -a", "6x1 ok6 | 6x1 | 6x1"},
    {"a holder without a device waits for the next", "+a L6 | -a | +b", "6x1 ok6 | | 6x1"},
    {"an unloaded holder without a device is forgotten", "+a L1 | -a | U1 | +b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"a failed load gives its headcount back", "+a +b !a !b L1 | ~a ~b L2", "fail1=-130 | 2x2 ok2"},
    {"a load that one takes and dies of, and the other refuses, has failed", "+x +b !b L1 | *x",
     "1x1 | fail1=-130"},
    {"a load that fails on one of two is completed later", "+a +b !b L1 | ~b", "1x1 ok1 | 1x2"},
    {"a holder's failed load is tried again", "+a L1 | +b !b | ~b", "1x1 ok1 | 1x1 | 1x2"},
    {"a dead device gets no more loads", "+a ^a L6 | ~a L7 | +b", "fail6=-126 | fail7=-122 |"},
    {"a device that returns is used again", "+a ^a L6 | -a ~a | +a L7", "fail6=-126 | | 7x1 ok7"},
    {"a load that is taken back leaves the tag free", "+a L6 U6 | L7", "gone6 | 7x1 ok7"},
    {"of two devices only the failed one is replaced", "+a +b L1 | +c *a | L6",
     "1x2 ok1 | 1x2 | 1x2 fail6=-122"},
    {"failure and unload give back once", "+a L6 | *a U6 | +b +c L7", "6x1 ok6 | gone6 | 7x1 ok7"},
    {"a device that fails as it comes is not used", "+a *a L6 | +b L7", "fail6=-122 | 7x1 ok7"},
    // Deliberate: a refused tag is remembered, as one that has no devices.
    {"an unknown tag is refused", "+a L8 | L9", "fail8=-122 | fail9=-122"},
    {"a device that leaves as it comes is not used", "+a -a L6 | +b L7", "fail6=-122 | 7x1 ok7"},
};

TEST(DeviceSchedulerScripts, TagGivesItsFirstGraphAsManyDevicesAsItSays) {
    playAll<TagRig>(kTagRows);
}

// Workers in the map's order, with their caches and targets as letters.
TEST(DeviceSchedulerScripts, CacheAdjustmentMovesTargetsToTheWorkersThatHaveThemCached) {
    const struct {
        const char* what;
        std::vector<std::string> cached, target, adjusted;
    } rows[] = {
        {"to the front", {"g", ""}, {"h", "g"}, {"g", "h"}},
        {"to the back", {"", "g"}, {"g", "h"}, {"h", "g"}},
        {"the scarcer one first", {"gh", "g"}, {"g", "h"}, {"h", "g"}},
        {"a useless cache takes what is left", {"x", "g", "h"}, {"g", "h", "k"}, {"k", "g", "h"}},
        {"sets are never split", {"g", "h"}, {"gh", ""}, {"gh", ""}},
        {"nothing cached", {"", ""}, {"g", "h"}, {"g", "h"}},
    };
    const auto key = [](char letter) { return reinterpret_cast<KelmGraph*>(letter * 64l); };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::vector<DeviceSchedulerSqueeze2::WorkerState> states(row.cached.size());
        for (size_t i = 0; i < states.size(); ++i) {
            states[i].worker = reinterpret_cast<WorkThread*>((i + 1) * 64);
            for (const char letter : row.cached[i]) states[i].cachedGraphs.push_back(key(letter));
            for (const char letter : row.target[i]) states[i].graphs.insert(key(letter));
        }
        EXPECT_EQ(DeviceSchedulerSqueeze2::exchangeGraphs(states), row.adjusted != row.target);
        for (const DeviceSchedulerSqueeze2::WorkerState& state : states) {
            const size_t index = reinterpret_cast<uintptr_t>(state.worker) / 64 - 1;
            std::set<KelmGraph*> expected;
            for (const char letter : row.adjusted[index]) expected.insert(key(letter));
            EXPECT_EQ(state.graphs, expected);
        }
    }
}

}  // namespace
}  // namespace kelm

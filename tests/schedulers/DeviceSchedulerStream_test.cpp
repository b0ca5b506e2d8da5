#include "scheduling/devices/DeviceSchedulerStream.h"

#include "schedulers/SchedulerRig.h"

namespace kelm {
namespace {

using StreamRig = SchedulerRig<DeviceSchedulerStream>;

const ScriptCase kCases[] = {
    {"a graph takes one device", "+a +b L1 | +c | L2", "1x1 ok1 | 1x1 | 1x1 2x1 ok2"},
    {"a graph that is asked for twice is answered once", "L1 l1 | +a L2 l2",
     "fail1=-122 | 2x1 ok2"},
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
    {"a graph that was moved stays", "+a L1 | +b -a | +c | -b | L2",
     "1x1 ok1 | 1x1 | 1x1 | 1x1 | 1x1 fail2=-122"},
    {"a failed load leaves its device free", "+a !a L1 | ~a L2", "fail1=-130 | 2x1 ok2"},
    {"a displaced graph does not go back to a dead device", "+a L1 | -a +b ^b | ~b | +c",
     "1x1 ok1 | | | 1x1"},
    {"a device that died under its graph gets no more", "+a L1 | ^a U1 | L2 | +b L3",
     "1x1 ok1 | gone1 | fail2=-122 | 3x1 ok3"},
    {"a load that is taken back leaves the device free", "+a L1 U1 | L2", "gone1 | 2x1 ok2"},
    {"the graph of a failed device moves", "+a L1 | +b *a | L2", "1x1 ok1 | 1x1 | 1x1 fail2=-122"},
    {"a graph moves from each device that fails", "+a L1 | +b *a | +c *b | L2",
     "1x1 ok1 | 1x1 | 1x1 | 1x1 fail2=-122"},
    {"without another device the graph waits", "+a L1 | *a | +b", "1x1 ok1 | | 1x1"},
    {"a failed device that leaves moves nothing", "+a L1 | +b *a | +c -a | L2",
     "1x1 ok1 | 1x1 | 1x1 | 1x1 2x1 ok2"},
    {"a device that returns is used again", "+a L1 | *a | -a +a", "1x1 ok1 | | 1x1"},
    {"a graph unloaded with its failure is not displaced", "+a L1 | *a U1 | +b | L2",
     "1x1 ok1 | gone1 | | 2x1 ok2"},
    {"a device that failed idle is not used", "+a *a | L1 | +b L2", "| fail1=-122 | 2x1 ok2"},
};

TEST(DeviceSchedulerStream, FollowsItsScripts) {
    for (const ScriptCase& row : kCases) {
        SCOPED_TRACE(row.rule);
        StreamRig rig;
        EXPECT_EQ(rig.play(row.script), row.outcome);
    }
}

TEST(DeviceSchedulerStream, OneOfTwoDisplacedGraphsWaitsForTheNextDevice) {
    StreamRig rig;
    EXPECT_EQ(rig.play("+a +b L1 L2 | -a -b +c").size(),
              std::string("1x1 2x1 ok1 ok2 | 1x1").size());
    EXPECT_EQ(rig.play("+d"), "1x1 2x1");
}

// A load that ended well on a device that died right after it is tried again, beside the worker
// that still refers to the graph.
TEST(DeviceSchedulerStream, GraphOfADeviceThatDiedGetsTwoOthers) {
    StreamRig rig;
    rig.makeDying("a");
    EXPECT_EQ(rig.play("+a L1 | -a +b +c"), "1x1 | 1x1 ok1");
    EXPECT_EQ(rig.play("U1 | +a -b -c L2 | +b | -a +c"), "gone1 | 2x1 | 2x2 ok2 | 2x1");
}

}  // namespace
}  // namespace kelm

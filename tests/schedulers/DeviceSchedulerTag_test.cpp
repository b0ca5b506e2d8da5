#include "scheduling/devices/DeviceSchedulerTag.h"

#include "schedulers/SchedulerRig.h"

namespace kelm {
namespace {

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

const ScriptCase kCases[] = {
    {"a graph without a device is refused", "L1 | +a | L2", "fail1=-122 | | 2x1 ok2"},
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
    {"a failed graph is forgotten", "+a !a L6 | ~a", "fail6=-130 |"},
    {"an unloaded holder without a device is forgotten", "+a L1 | -a | U1 | +b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"unload and removal together give back once", "+a L6 | U6 -a | +b +c L7",
     "6x1 ok6 | gone6 | 7x1 ok7"},
    {"a failed load gives its headcount back", "+a +b !a !b L1 | ~a ~b L2", "fail1=-130 | 2x2 ok2"},
    {"a load that fails on one of two is completed later", "+a +b !b L1 | ~b", "1x1 ok1 | 1x2"},
    {"a holder's failed load is tried again", "+a L1 | +b !b | ~b", "1x1 ok1 | 1x1 | 1x2"},
    {"a dead device gets no more loads", "+a ^a L6 | ~a L7 | +b", "fail6=-126 | fail7=-122 |"},
    {"a device that returns is used again", "+a ^a L6 | -a ~a | +a L7", "fail6=-126 | | 7x1 ok7"},
    {"a load that is taken back leaves the tag free", "+a L6 U6 | L7", "gone6 | 7x1 ok7"},
    {"the graph of a failed device moves", "+a L6 | +b *a | L1", "6x1 ok6 | 6x1 | 6x1 fail1=-122"},
    {"of two devices only the failed one is replaced", "+a +b L1 | +c *a | L6",
     "1x2 ok1 | 1x2 | 1x2 fail6=-122"},
    {"failure and unload give back once", "+a L6 | *a U6 | +b +c L7", "6x1 ok6 | gone6 | 7x1 ok7"},
    {"a device that fails as it comes is not used", "+a *a L6 | +b L7", "fail6=-122 | 7x1 ok7"},
    // Deliberate: a refused tag is remembered, as one that has no devices.
    {"an unknown tag is refused", "+a L8 | L9", "fail8=-122 | fail9=-122"},
    {"a device that leaves as it comes is not used", "+a -a L6 | +b L7", "fail6=-122 | 7x1 ok7"},
};

TEST(DeviceSchedulerTag, FollowsItsScripts) {
    for (const ScriptCase& row : kCases) {
        SCOPED_TRACE(row.rule);
        TagRig rig;
        EXPECT_EQ(rig.play(row.script), row.outcome);
    }
}

}  // namespace
}  // namespace kelm

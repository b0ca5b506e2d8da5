#include "scheduling/devices/DeviceSchedulerStream.h"

#include "schedulers/LazyRig.h"

namespace kelm {
namespace {

class DeviceSchedulerStreamTest : public LazyRig<DeviceSchedulerStream> {};

class DeviceSchedulerStreamOrder : public DeviceSchedulerStreamTest,
                                   public ::testing::WithParamInterface<LazyCase> {};

TEST_P(DeviceSchedulerStreamOrder, Holds) {
    EXPECT_EQ(play(GetParam().script), GetParam().outcome);
}

const LazyCase kCases[] = {
    {"GraphTakesMoreThanOneDevice", "+a +b L1 | +c | L2", "1x1 ok1 | 1x1 | 1x1 2x1 ok2"},
    {"GraphWithoutDeviceIsNotRefused", "L1 | +a L2 | L3", "fail1=-122 | 2x1 ok2 | 2x1 fail3=-122"},
    {"LoadCannotUseWhatTheSamePassFrees", "+a L1 | U1 L2", "1x1 ok1 | 2x1 ok2 gone1"},
    {"GraphIsNotMovedToASpareDevice", "+a L1 | +b | -a", "1x1 ok1 | 1x1 | 1x1"},
    {"NewGraphGoesBeforeADisplacedOne", "+a L1 | -a | +b L2", "1x1 ok1 | | 1x1 fail2=-122"},
    {"DisplacedGraphIsLoadedAfterItsEnd", "+a L1 | -a | U1 | +b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"GraphUnloadedWithItsDeviceIsDisplaced", "+a L1 | U1 -a | +b | L2",
     "1x1 ok1 | gone1 | | 2x1 ok2"},
    {"FailedMoveLosesTheGraph", "+a L1 | -a +b !b | ~b", "1x1 ok1 | | 1x1"},
    {"FailedMoveIsRepeatedAfterItsEnd", "+a L1 | -a +b !b | U1 | ~b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"MovedGraphIsMovedAgain", "+a L1 | +b -a | +c | -b | L2",
     "1x1 ok1 | 1x1 | 1x1 | 1x1 | 1x1 fail2=-122"},
    {"FailedLoadLeavesItsDeviceTaken", "+a !a L1 | ~a L2", "fail1=-130 | 2x1 ok2"},
    {"DeadDeviceKeepsADisplacedGraph", "+a L1 | -a +b ?b | ~b | +c", "1x1 ok1 | | | 1x1"},
    {"DeviceThatDiesUnderItsGraphGetsTheNext", "+a L1 | ?a U1 | L2 | +b L3",
     "1x1 ok1 | gone1 | fail2=-122 | 3x1 ok3"},
    {"CanceledLoadTakesTheDevice", "+a L1 U1 | L2", "gone1 | 2x1 ok2"},
    {"FailedDeviceKeepsItsGraph", "+a L1 | +b *a | L2", "1x1 ok1 | 1x1 | 1x1 fail2=-122"},
    {"ResetDeviceKeepsItsGraph", "+a L1 | +b %a | L2", "1x1 ok1 | 1x1 | 1x1 fail2=-122"},
    {"GraphIsMovedFromTheFirstFailedDeviceOnly", "+a L1 | +b *a | +c *b | L2",
     "1x1 ok1 | 1x1 | 1x1 | 1x1 fail2=-122"},
    {"GraphOfAFailedDeviceDoesNotWait", "+a L1 | *a | +b", "1x1 ok1 | | 1x1"},
    {"GraphMovesOnceMoreAsItsFailedDeviceLeaves", "+a L1 | +b *a | +c -a | L2",
     "1x1 ok1 | 1x1 | 1x1 | 1x1 2x1 ok2"},
    {"DeviceThatReturnsCountsAsFailed", "+a L1 | *a | -a +a", "1x1 ok1 | | 1x1"},
    {"GraphUnloadedWithItsFailureIsDisplaced", "+a L1 | *a U1 | +b | L2",
     "1x1 ok1 | gone1 | | 2x1 ok2"},
    {"FailedIdleDeviceIsUsed", "+a %a | L1 | +b L2", "| fail1=-122 | 2x1 ok2"},
};
INSTANTIATE_TEST_SUITE_P(Catches, DeviceSchedulerStreamOrder, ::testing::ValuesIn(kCases), faultOf);

TEST_F(DeviceSchedulerStreamTest, OneOfTwoDisplacedGraphsWaitsForTheNextDevice) {
    EXPECT_EQ(play("+a +b L1 L2 | -a -b +c").size(), std::string("1x1 2x1 ok1 ok2 | 1x1").size());
    EXPECT_EQ(play("+d"), "1x1 2x1");
}

// A load that ended well on a device that died right after it is tried again, beside the worker
// that still refers to the graph.
TEST_F(DeviceSchedulerStreamTest, GraphOfADeviceThatDiedGetsTwoOthers) {
    KelmDeviceBase::setFactory([](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
        const auto script = std::make_shared<DeviceScript>();
        if (name == "a") return std::make_unique<DyingDevice>(name, script);
        return std::make_unique<ScriptedDevice>(name, script);
    });
    EXPECT_EQ(play("+a L1 | -a +b +c"), "1x1 | 1x1 ok1");
    EXPECT_EQ(play("U1 | +a -b -c L2 | +b | -a +c"), "gone1 | 2x1 | 2x2 ok2 | 2x1");
}

TEST_F(DeviceSchedulerStreamTest, GraphOfAFailedDeviceIsKnownToItsUnload) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(play("+a L1 | *a U1"), "1x1 ok1 | gone1");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::Not(::testing::HasSubstr("cannot find loaded graph")));
}

TEST_F(DeviceSchedulerStreamTest, CreateIsAnsweredWhenItsDeviceDiesBeforeTheJudgement) {
    KelmDeviceBase::setFactory([](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
        const auto script = std::make_shared<DeviceScript>();
        if (name == "b") return std::make_unique<ScriptedDevice>(name, script);
        return std::make_unique<LostDevice>(name, script);
    });
    EXPECT_EQ(play("+a L1 |"), "1x1 | fail1=-122");
    EXPECT_EQ(play("+c L2 | +b"), "2x1 | 2x1 ok2");
}

TEST_F(DeviceSchedulerStreamTest, UnloadOfAGraphThatIsNowhereIsToldAndConfirmed) {
    m_deletesRecords = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(play("+a L1 | -a | U1 | +b"), "1x1 ok1 | | gone1 |");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::HasSubstr("Error: cannot find loaded graph graph1"));
}

}  // namespace
}  // namespace kelm

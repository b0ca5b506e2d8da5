#include "scheduling/devices/DeviceSchedulerTag.h"

#include <random>

#include "schedulers/LazyRig.h"

namespace kelm {
namespace {

constexpr unsigned long kCameras = 2;

// Graphs 1 to 5 are of the tag "camera", 6 and 7 of "door", further ones of a tag that is unknown.
class DeviceSchedulerTagTest : public LazyRig<DeviceSchedulerTag> {
 protected:
    DeviceSchedulerTagTest() {
        std::map<std::string, unsigned long> tags{{"camera", kCameras}, {"door", 1}};
        m_scheduler.setTagMap(tags);
    }
    void dress(KelmGraph& graph, char name) override {
        graph.setTag(name <= '5' ? "camera" : name <= '7' ? "door" : "window");
    }
};

class DeviceSchedulerTagOrder : public DeviceSchedulerTagTest,
                                public ::testing::WithParamInterface<LazyCase> {};

TEST_P(DeviceSchedulerTagOrder, Holds) { EXPECT_EQ(play(GetParam().script), GetParam().outcome); }

const LazyCase kCases[] = {
    {"GraphWithoutDeviceIsNotRefused", "L1 | +a | L2", "fail1=-122 | | 2x1 ok2"},
    {"LaterDeviceDoesNotFillTheQuota", "+a L1 | +b", "1x1 ok1 | 1x2"},
    {"GraphTakesMoreThanItsHeadcount", "+a +b +c +d L1 | L6", "1x2 ok1 | 1x2 6x1 ok6"},
    {"SecondGraphTakesTheFirstOnesDevices", "+a +b +c L1 | L2", "1x2 ok1 | 1x2 fail2=-122"},
    {"SecondGraphTakesOverTheTag", "+a L1 | +b L2 | U2 -b | +c",
     "1x1 ok1 | 1x1 2x1 ok2 | 1x1 gone2 | 1x2"},
    {"FailureOfTheSecondGraphFreesTheTag", "+a L1 | +b !b L2 | ~b",
     "1x1 ok1 | 1x1 fail2=-130 | 1x2"},
    {"LoadCannotUseWhatTheSamePassFrees", "+a +b L1 | U1 L2", "1x2 ok1 | 2x2 ok2 gone1"},
    {"GraphIsNotMovedToASpareDevice", "+a L6 | +b | -a", "6x1 ok6 | 6x1 | 6x1"},
    {"GraphWithoutDeviceLosesItsTag", "+a L6 | -a | +b", "6x1 ok6 | | 6x1"},
    {"FailedGraphIsLoadedAfterItsEnd", "+a !a L6 | ~a", "fail6=-130 |"},
    {"HolderOnNoDeviceIsLoadedAfterItsEnd", "+a L1 | -a | U1 | +b | L2",
     "1x1 ok1 | | gone1 | | 2x1 ok2"},
    {"UnloadAndRemovalGiveBackTwice", "+a L6 | U6 -a | +b +c L7", "6x1 ok6 | gone6 | 7x1 ok7"},
    {"RemovalOfAnIdleDeviceGivesBack", "+a +b L6 | -b | +c +d", "6x1 ok6 | 6x1 | 6x1"},
    {"FailedLoadKeepsItsHeadcount", "+a +b !a !b L1 | ~a ~b L2", "fail1=-130 | 2x2 ok2"},
    {"PartlyFailedLoadKeepsItsHeadcount", "+a +b !b L1 | ~b", "1x1 ok1 | 1x2"},
    {"FailedLoadOfAHolderKeepsItsHeadcount", "+a L1 | +b !b | ~b", "1x1 ok1 | 1x1 | 1x2"},
    {"FailedMoveLosesTheTag", "+a L6 | -a +b !b | ~b", "6x1 ok6 | | 6x1"},
    {"DeadDeviceIsAskedAgain", "+a ?a L6 | ~a L7 | +b", "fail6=-126 | fail7=-122 |"},
    {"DeadDeviceGivesBackTwice", "+a ?a L6 | -a | +b +c ~a L7", "fail6=-126 | | 7x1 ok7"},
    {"DeviceThatReturnsCountsAsDead", "+a ?a L6 | -a ~a | +a L7", "fail6=-126 | | 7x1 ok7"},
    {"CanceledLoadTakesTheTag", "+a L6 U6 | L7", "gone6 | 7x1 ok7"},
    {"FailedDeviceKeepsItsHead", "+a L6 | +b *a | L1", "6x1 ok6 | 6x1 | 6x1 fail1=-122"},
    {"ResetDeviceKeepsItsHead", "+a L6 | +b %a | L1", "6x1 ok6 | 6x1 | 6x1 fail1=-122"},
    {"OneOfTwoFailedDevicesKeepsItsHead", "+a +b L1 | +c *a | L6",
     "1x2 ok1 | 1x2 | 1x2 fail6=-122"},
    {"HeadOfAFailedDeviceIsGivenBackTwice", "+a L6 | *a | -a +b +c | L7",
     "6x1 ok6 | | 6x1 | 6x1 fail7=-122"},
    {"HeadUnloadedWithItsFailureIsGivenBackTwice", "+a L6 | *a U6 | +b +c L7",
     "6x1 ok6 | gone6 | 7x1 ok7"},
    {"FailedDeviceThatComesIsUsed", "+a %a L6 | +b L7", "fail6=-122 | 7x1 ok7"},
    {"DeviceThatLeavesAtOnceIsUsed", "+a -a L6 | +b L7", "fail6=-122 | 7x1 ok7"},
};
INSTANTIATE_TEST_SUITE_P(Catches, DeviceSchedulerTagOrder, ::testing::ValuesIn(kCases), faultOf);

// Deliberate: a refused tag is remembered, as one that has no devices.
TEST_F(DeviceSchedulerTagTest, UnknownTagIsToldOnlyOnce) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(play("+a L8 | L9"), "fail8=-122 | fail9=-122");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::ContainsRegex("Error: invalid graph tag 'window'(.|\n)*"
                                         "Error: no headcount for graph tag 'window'"));
}

TEST_F(DeviceSchedulerTagTest, NoOrderOfEventsCreatesOrLosesHeadcount) {
    m_deletesRecords = true;
    for (unsigned int seed = 0; seed < 25; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto pick = [&](const std::string& from) { return from[random() % from.size()]; };
        for (int event = 0; event < 20; ++event) {
            const char verb = pick("++--!?~*%LLUU|||");
            const bool isGraph = verb == 'L' || verb == 'U';
            const char name = pick(isGraph ? "12367" : "abcd");
            const bool exists = isGraph ? m_live.contains(name) : m_workers.contains(name);
            if ((verb == '+' || verb == 'L') && exists) continue;
            if (std::string("-U*%").find(verb) != std::string::npos && !exists) continue;
            if (verb == '|') (void)pass();
            if (verb != '|') act(verb, name);
            size_t cameras = 0;
            for (const auto& [number, graph] : m_live) {
                if (number <= '5') cameras += countDevices(graph);
            }
            ASSERT_LE(cameras, kCameras);
        }
        for (const auto& [name, graph] : m_live) act('U', name);
        for (const auto& [name, worker] : std::map(m_workers)) act('-', name);
        for (const char name : std::string("abcd")) act('~', name);
        (void)pass();
        EXPECT_EQ(play("+a +b +c +d L1 | L6 | U1 -a -b -c -d | U6"),
                  "1x2 ok1 | 1x2 6x1 ok6 | gone1 | gone6");
        ASSERT_FALSE(HasFailure());
    }
}

}  // namespace
}  // namespace kelm

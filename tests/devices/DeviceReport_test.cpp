#include "devices/DeviceReport.h"

#include <ctime>

#include "devices/DeviceRows.h"
#include "devices/DeviceSnapshot.h"
#include "devices/DevicesRig.h"
#include "protocol/src/InfoPackage.h"
#include "utils/StringHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {
namespace {

const GraphFigures::TimePoint kLoaded{std::chrono::hours(24 * 365)};

DeviceFigures makeBusyDevice() {
    const GraphFigures previous = {"old", kLoaded - 101h, kLoaded - 1h, 9};
    const GraphFigures current = {"a_detector_of_faces", kLoaded, {}, 7};
    return {26,
            "bus-2-port-1-of-hub-3",
            0.255f,
            41.5f,
            1,
            "tag",
            "camera",
            2,
            12.5f,
            "",
            {"detector"},
            {{"RUNNING", 12.5f, current, previous}}};
}

std::string draw(const DeviceSnapshot::Style& style, const std::vector<DeviceFigures>& devices) {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    const auto now = kLoaded + 3723s;
    return "\n" + DeviceSnapshot(style, devices, now).format(4) + "\n";
}

TEST(DeviceSnapshotTest, TableAndListKeepTheirRowsAndWidths) {
    EXPECT_EQ(draw({false, true, 1, 2}, {makeBusyDevice()}), R"(
DeviceSnapshot(subclass=4):
| deviceId    | 26(0x1a)          |
| device      | bus-2-p...f-hub-3 |
| util%       | 25.50 %           |
| thermal     | 41.50(1)          |
| scheduler   | tag               |
| comment     | camera            |
| resetTimes  | 2                 |
| cacheNum    | 1                 |
| cacheGraph0 | detector          |
| cacheGraph1 |                   |
+-------------+-------------------+
| status      | RUNNING           |
| fps         | 12.50             |
| curGraph    | a_detec...f_faces |
| loadTime    | 19710101 00:00:00 |
| runTime     | 01:02:03          |
| inference   | 7                 |
| prevGraph   | old               |
| loadTime    | 19701227 19:00:00 |
| unloadTime  | 19701231 23:00:00 |
| runTime     | 100:00:00         |
| inference   | 9                 |
+-------------+-------------------+
)");
    // Two rows of one label, and the graph ahead of its rate: the list has its own habits.
    DeviceFigures idle;
    idle.slots = {{"WAIT_GRAPH", 0.0f, {}, {}}};
    const std::string list = draw({true, true, 1, 1}, {makeBusyDevice(), idle});
    EXPECT_EQ(list.substr(0, list.find("|    loadTime")), R"(
DeviceSnapshot(subclass=4):
|    deviceId: 26(0x1a)          |    deviceId: 0(00)             |
|      device: bus-2-p...f-hub-3 |      device:                   |
|       util%: 25.50 %           |       util%: 0.0 %             |
|     thermal: 41.50(1)          |     thermal: 0.00(0)           |
|   scheduler: tag               |   scheduler:                   |
|     comment: camera            |     comment:                   |
|  resetTimes: 2                 |  resetTimes: 0                 |
|  resetTimes: 1                 |  resetTimes: 0                 |
| cacheGraph0: detector          | cacheGraph0:                   |
+--------------------------------+--------------------------------+
|      status: RUNNING           |      status: WAIT_GRAPH        |
|    curGraph: a_detec...f_faces |    curGraph:                   |
|         fps: 12.50             |         fps:                   |
)");
}

TEST(DeviceRowsTest, MoreDevicesAndGraphsThanPlacesWriteNothingBeside) {
    auto package = std::make_unique<InfoPackage>();
    std::memset(package.get(), 0x5a, sizeof(InfoPackage));
    package->deviceCount = 0;
    DeviceFigures device = makeBusyDevice();
    device.slots.assign(3, device.slots[0]);
    device.slots[0].current.name = std::string(600, 'x');
    std::vector<DeviceFigures> devices(40, device);
    for (size_t i = 0; i < devices.size(); ++i) devices[i].deviceId = static_cast<uint32_t>(i);
    writeDeviceRows(devices, *package);

    EXPECT_EQ(package->deviceCount, 0);
    const InfoDeviceRow& last = package->devices[kPackageDevices - 1];
    EXPECT_EQ(last.deviceId, 31u);
    EXPECT_EQ(last.thermal, 41.5f);
    EXPECT_EQ(last.thermalThrottlingLevel, 1);
    EXPECT_THAT(last.utilization, Each(90.5f));
    EXPECT_EQ(last.currentGraphCount, 2);
    EXPECT_EQ(last.currentGraphName[0], std::string(511, 'x'));
    EXPECT_EQ(last.currentGraphLoadTime[1], putTime(kLoaded, "%T"));
    EXPECT_THAT(last.currentInferenceCount, Each(7u));
    EXPECT_THAT(last.currentFps, Each(12.5f));
    EXPECT_EQ(last.previousGraphCount, 2);
    EXPECT_STREQ(last.previousGraphName[1], "old");
    EXPECT_EQ(last.previousGraphUnloadTime[1], putTime(kLoaded - 1h, "%T"));
    EXPECT_THAT(last.previousInferenceCount, Each(9u));
    const std::string rest(reinterpret_cast<const char*>(&package->graphCount),
                           sizeof(InfoPackage) - offsetof(InfoPackage, graphCount));
    EXPECT_EQ(rest.find_first_not_of('\x5a'), std::string::npos);
}

using DeviceReportTest = DevicesRig;

// The mode is read in any case, the style as it stands; numbers of graphs are clamped.
TEST_F(DeviceReportTest, SettingsGiveTheTableItsForm) {
    const char* const kRows[] = {"curGraph", "prevGraph", "cacheGraph", "| device      |"};
    struct Case {
        const char *mode, *style;
        int perDevice, cached;
        std::array<int, 4> shown;  // how often each of the rows is
    };
    for (const Case& testCase :
         {Case{"FULL", "Table", 0, 3, {1, 1, 3, 0}}, Case{"full", "table", 5, 1, {2, 2, 2, 1}},
          Case{"Base", "table", 2, 4, {2, 0, 0, 1}}, Case{"fullest", "table", 2, 4, {}}}) {
        SCOPED_TRACE(testCase.mode);
        configurePrinting(testCase.mode, testCase.style);
        configure(StringHelper::format(
            R"({"service_settings": {"max_cached_graph_number": %d},
                "scheduler_config": [{"subclass": 0, "max_graph_per_device": %d}]})",
            testCase.cached, testCase.perDevice));
        startManager({"a"});
        const std::string text = print();
        std::array<int, 4> shown{};
        for (size_t row = 0; row < shown.size(); ++row) {
            for (size_t at = 0; (at = text.find(kRows[row], at)) != text.npos; ++at) ++shown[row];
        }
        EXPECT_EQ(shown, testCase.shown);
        KelmGraph* const graph = makeGraph();
        m_manager->enqueueLoadGraph(graph);
        EXPECT_EQ(graph->getMaxGraphNumPerDevice(), std::clamp(testCase.perDevice, 1, 2));
        EXPECT_TRUE(m_manager->stop());
    }
}

}  // namespace
}  // namespace kelm

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "devices/DeviceManager.h"
#include "devices/DeviceRows.h"
#include "devices/DeviceSnapshot.h"
#include "devices/DevicesRig.h"
#include "fakes/Eventually.h"
#include "fakes/FakeInfoCollector.h"
#include "protocol/src/InfoPackage.h"
#include "reporting/KelmStatus.h"
#include "utils/StringHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const GraphFigures::TimePoint kLoaded{std::chrono::hours(24 * 365)};

DeviceFigures makeBusyDevice() {
    DeviceFigures device;
    device.deviceId = 26;
    device.name = "bus-2-port-1-of-hub-3";
    device.utilization = 0.255f;
    device.thermal = 41.5f;
    device.thermalThrottlingLevel = 1;
    device.scheduler = "tag";
    device.comment = "camera";
    device.resetTimes = 2;
    device.cachedGraphs = {"detector"};
    SlotFigures slot{"RUNNING", 12.5f, {"a_detector_of_faces", kLoaded, {}, 7}, {}};
    slot.previous = {"old", kLoaded - std::chrono::hours(101), kLoaded - std::chrono::hours(1), 9};
    device.slots = {slot, {"WAIT_GRAPH", 0.0f, {}, {}}};
    return device;
}

DeviceFigures makeIdleDevice() {
    DeviceFigures device;
    device.name = "Fake0";
    device.slots = {{"WAIT_GRAPH", 0.0f, {}, {}}, {"WAIT_GRAPH", 0.0f, {}, {}}};
    return device;
}

std::string draw(const DeviceSnapshot::Style& style, const std::vector<DeviceFigures>& devices) {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    const auto now = kLoaded + std::chrono::seconds(3723);
    return "\n" + DeviceSnapshot(style, devices, now).format(4) + "\n";
}

TEST(DeviceSnapshotTest, TableKeepsItsRowsAndWidths) {
    EXPECT_EQ(draw({false, false, 1, 2}, {makeBusyDevice()}), R"(
DeviceSnapshot(subclass=4):
| deviceId    | 26(0x1a)          |
| device      | bus-2-p...f-hub-3 |
| util%       | 25.50 %           |
| thermal     | 41.50(1)          |
| scheduler   | tag               |
| comment     | camera            |
| resetTimes  | 2                 |
| cacheNum    | 1                 |
+-------------+-------------------+
| status      | RUNNING           |
| fps         | 12.50             |
| curGraph    | a_detec...f_faces |
+-------------+-------------------+
)");
    EXPECT_EQ(draw({false, true, 2, 2}, {makeBusyDevice(), makeIdleDevice()}), R"(
DeviceSnapshot(subclass=4):
| deviceId    | 26(0x1a)          | 0(00)             |
| device      | bus-2-p...f-hub-3 | Fake0             |
| util%       | 25.50 %           | 0.0 %             |
| thermal     | 41.50(1)          | 0.00(0)           |
| scheduler   | tag               |                   |
| comment     | camera            |                   |
| resetTimes  | 2                 | 0                 |
| cacheNum    | 1                 | 0                 |
| cacheGraph0 | detector          |                   |
| cacheGraph1 |                   |                   |
+-------------+-------------------+-------------------+
| status      | RUNNING           | WAIT_GRAPH        |
| fps         | 12.50             |                   |
| curGraph    | a_detec...f_faces |                   |
| loadTime    | 19710101 00:00:00 |                   |
| runTime     | 01:02:03          |                   |
| inference   | 7                 |                   |
| prevGraph   | old               |                   |
| loadTime    | 19701227 19:00:00 |                   |
| unloadTime  | 19701231 23:00:00 |                   |
| runTime     | 100:00:00         |                   |
| inference   | 9                 | 0                 |
+-------------+-------------------+-------------------+
| status      | WAIT_GRAPH        | WAIT_GRAPH        |
| fps         |                   |                   |
| curGraph    |                   |                   |
| loadTime    |                   |                   |
| runTime     |                   |                   |
| inference   |                   |                   |
| prevGraph   |                   |                   |
| loadTime    |                   |                   |
| unloadTime  |                   |                   |
| runTime     |                   |                   |
| inference   | 0                 | 0                 |
+-------------+-------------------+-------------------+
)");
}

// Two rows of one label, and the graph ahead of its rate: the list has its own habits.
TEST(DeviceSnapshotTest, ListKeepsItsRowsAndWidths) {
    EXPECT_EQ(draw({true, false, 1, 2}, {makeIdleDevice(), makeIdleDevice()}), R"(
DeviceSnapshot(subclass=4):
|    deviceId: 0(00)             |    deviceId: 0(00)             |
|      device: Fake0             |      device: Fake0             |
|       util%: 0.0 %             |       util%: 0.0 %             |
|     thermal: 0.00(0)           |     thermal: 0.00(0)           |
|   scheduler:                   |   scheduler:                   |
|     comment:                   |     comment:                   |
|  resetTimes: 0                 |  resetTimes: 0                 |
|  resetTimes: 0                 |  resetTimes: 0                 |
+--------------------------------+--------------------------------+
|      status: WAIT_GRAPH        |      status: WAIT_GRAPH        |
|    curGraph:                   |    curGraph:                   |
|         fps:                   |         fps:                   |
+--------------------------------+--------------------------------+
)");
    const std::string full = draw({true, true, 1, 1}, {makeBusyDevice()});
    EXPECT_EQ(full.substr(full.find("\n|  resetTimes")), R"(
|  resetTimes: 2                 |
|  resetTimes: 1                 |
| cacheGraph0: detector          |
+--------------------------------+
|      status: RUNNING           |
|    curGraph: a_detec...f_faces |
|         fps: 12.50             |
|    loadTime: 19710101 00:00:00 |
|     runTime: 01:02:03          |
|  inference#: 7                 |
|   prevGraph: old               |
|    loadTime: 19701227 19:00:00 |
|  unloadTime: 19701231 23:00:00 |
|     runTime: 100:00:00         |
|  inference#: 9                 |
+--------------------------------+
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
    EXPECT_EQ(last.currentGraphCount, 2);
    EXPECT_EQ(std::string(last.currentGraphName[0]), std::string(511, 'x'));
    EXPECT_EQ(std::string(last.currentGraphName[1]), "a_detector_of_faces");
    EXPECT_EQ(std::string(last.currentGraphLoadTime[1]), putTime(kLoaded, "%T"));
    EXPECT_THAT(last.currentInferenceCount, ElementsAre(7u, 7u));
    EXPECT_THAT(last.currentFps, ElementsAre(12.5f, 12.5f));
    EXPECT_THAT(last.utilization, ElementsAre(90.5f, 90.5f));
    EXPECT_EQ(last.previousGraphCount, 2);
    EXPECT_EQ(std::string(last.previousGraphName[1]), "old");
    EXPECT_EQ(std::string(last.previousGraphUnloadTime[1]),
              putTime(kLoaded - std::chrono::hours(1), "%T"));
    EXPECT_THAT(last.previousInferenceCount, ElementsAre(9u, 9u));
    const std::string rest(reinterpret_cast<const char*>(&package->graphCount),
                           sizeof(InfoPackage) - offsetof(InfoPackage, graphCount));
    EXPECT_EQ(rest.find_first_not_of('\x5a'), std::string::npos);
}

class DeviceReportTest : public DevicesRig {
 protected:
    void configurePrinting(const std::string& mode, const std::string& style,
                           const char* lines = "off") {
        configure(StringHelper::format(
            R"({"debug_settings": {"info_printer": {
                "device_fps": "%s", "device_utilization": "%s",
                "device_snapshot_mode": "%s", "device_snapshot_style": "%s"}}})",
            lines, lines, mode, style));
    }
    std::shared_ptr<DeviceManager> makeManager(
        const std::vector<std::string>& names,
        std::chrono::milliseconds stopLimit = std::chrono::seconds(30)) {
        const auto manager = DeviceManager::create("DM", {stopLimit, std::chrono::seconds(60)});
        manager->setDeviceList(0, names);
        return manager;
    }
    void load(DeviceManager& manager, KelmGraph* graph) {
        manager.enqueueLoadGraph(graph);
        EXPECT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));
        EXPECT_TRUE(eventually([&] { return !m_placement.loads().empty(); }));
    }
    static std::string print(PrintInfoListener& listener) {
        ::testing::internal::CaptureStdout();
        listener.onPrintInfo();
        std::cout.flush();
        return ::testing::internal::GetCapturedStdout();
    }
    static std::shared_ptr<KelmStatus> query(DeviceManager& manager) {
        const auto status = std::make_shared<KelmStatus>();
        manager.queryDeviceStatus(*status);
        return status;
    }

    FakeInfoCollector m_collector;
    ScopedPort<InfoCollector> m_collectorPort{m_collector};
};

TEST_F(DeviceReportTest, LinesNameTheGraphsOfEachDevice) {
    configurePrinting("base", "table", "on");
    const auto none = makeManager({});
    const std::string empty = print(*none);
    EXPECT_THAT(empty, HasSubstr("DeviceFps(count=0):\n"));
    EXPECT_THAT(empty, HasSubstr("DeviceUtilization(count=0):\n"));
    EXPECT_THAT(empty, Not(HasSubstr("DeviceSnapshot")));

    const auto manager = makeManager({"a"});
    std::string text = print(*manager);
    EXPECT_THAT(text, HasSubstr("DeviceFps(count=1):\n[a@NoGraph].Fps = 0.0\n"));
    EXPECT_THAT(text, HasSubstr("DeviceUtilization(count=1):\n[a@] = 0.00\n"));
    load(*manager, makeGraph());
    text = print(*manager);
    EXPECT_THAT(text, HasSubstr("DeviceFps(count=1):\n[a@graph1].Fps = 0.00\n"));
    EXPECT_THAT(text, HasSubstr("DeviceUtilization(count=1):\n[a@graph1] = 0.00\n"));
    EXPECT_THAT(text, HasSubstr("| scheduler   | squeeze           |\n"));
    EXPECT_THAT(text, HasSubstr("| curGraph    | graph1            |\n"));
}

TEST_F(DeviceReportTest, ModeIsReadInAnyCaseAndStyleInItsOwn) {
    struct Case {
        const char *mode, *style, *slots;
        bool isFull, isList;
    };
    for (const Case& testCase :
         {Case{"FULL", "Table", "1", true, true}, Case{"Base", "table", "2", false, false},
          Case{"fullest", "table", "2", false, false}}) {
        SCOPED_TRACE(testCase.mode);
        configurePrinting(testCase.mode, testCase.style);
        configure(StringHelper::format(
            R"({"service_settings": {"max_cached_graph_number": 4},
                "scheduler_config": [{"subclass": 0, "max_graph_per_device": %s}]})",
            testCase.slots));
        const auto manager = makeManager({"a"});
        const bool isOn = std::string(testCase.mode) != "fullest";
        EXPECT_EQ(m_collector.listeners().size(), isOn ? 1u : 0u);
        const std::string text = print(*manager);
        if (isOn) {
            EXPECT_EQ(text.find("inference") != std::string::npos, testCase.isFull);
            EXPECT_EQ(text.find("cacheGraph3") != std::string::npos, testCase.isFull);
            EXPECT_EQ(text.find("| device      |") == std::string::npos, testCase.isList);
            const size_t first = text.find("curGraph");
            EXPECT_EQ(text.find("curGraph", first + 1) != std::string::npos,
                      std::string(testCase.slots) == "2");
        } else {
            EXPECT_EQ(text, "");
        }
        EXPECT_TRUE(manager->stop());
        EXPECT_THAT(m_collector.listeners(), IsEmpty());
    }
}

TEST_F(DeviceReportTest, TableTellsForWhomADeviceIsKept) {
    configurePrinting("base", "table");
    struct Case {
        const char *config, *rows;
    };
    for (const Case& testCase :
         {Case{R"("graph_tag_map": {"camera": 1}, "stream_device_number": 0)",
               "| scheduler   | tag               |\n| comment     | camera            |\n"},
          Case{R"("graph_tag_map": {}, "stream_device_number": 1)",
               "| scheduler   | stream            |\n| comment     | gate              |\n"}}) {
        SCOPED_TRACE(testCase.config);
        configure(R"({"scheduler_config": [{"subclass": 0, )" + std::string(testCase.config) +
                  "}]}");
        KelmGraph* const graph = makeGraph();
        const bool isTag = std::strstr(testCase.rows, "camera") != nullptr;
        isTag ? graph->setTag("camera") : graph->setStreamId("gate");
        const auto manager = makeManager({"a"});
        load(*manager, graph);
        EXPECT_THAT(print(*manager), HasSubstr(testCase.rows));
    }
}

TEST_F(DeviceReportTest, DeviceThatIsBusyHoldsUpNoReport) {
    configurePrinting("full", "table", "on");
    const auto manager = makeManager({"a"});
    const uint32_t deviceId = query(*manager)->deviceIds.at(0);
    DeviceScript& device = m_devices["a"];
    device.block(DeviceCall::Allocate);
    device.block(DeviceCall::Reset);
    manager->enqueueLoadGraph(makeGraph());
    EXPECT_TRUE(eventually([&] { return device.count(DeviceCall::Allocate) == 1; }));
    manager->enqueueResetDevice(1, deviceId, 5, nullptr);
    EXPECT_TRUE(eventually([&] { return device.count(DeviceCall::Reset) == 1; }));
    EXPECT_THAT(print(*manager), HasSubstr("| status      | LOAD_GRAPH        |"));
    EXPECT_THAT(query(*manager)->deviceGraphNames, ElementsAre("graph1"));
    device.release(DeviceCall::Allocate);
    device.release(DeviceCall::Reset);
    EXPECT_TRUE(eventually([&] { return m_results.resets().size() == 1; }));
}

TEST_F(DeviceReportTest, ManagerThatIsLeftBehindTellsOfNoDevice) {
    configurePrinting("base", "table");
    // Kept, as the threads that are left behind may still use it.
    static auto* const kept = new std::vector<std::unique_ptr<KelmGraph>>;
    kept->push_back(makeTestGraph(1, "content"));
    KelmGraph* const graph = kept->back().get();
    const auto manager = makeManager({"a"}, std::chrono::milliseconds(10));
    m_devices["a"].block(DeviceCall::Allocate);
    manager->enqueueLoadGraph(graph);
    EXPECT_TRUE(eventually([&] { return m_devices["a"].count(DeviceCall::Allocate) == 1; }));
    EXPECT_FALSE(manager->stop());
    EXPECT_THAT(m_collector.listeners(), IsEmpty());
    EXPECT_EQ(print(*manager), "");
    EXPECT_THAT(query(*manager)->deviceNames, IsEmpty());
    m_devices["a"].release(DeviceCall::Allocate);
    EXPECT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));
}

}  // namespace
}  // namespace kelm

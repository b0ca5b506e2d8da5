#include "devices/DeviceManager.h"

#include "devices/DevicesRig.h"

namespace kelm {
namespace {

using ::testing::ContainsRegex;

using std::chrono::milliseconds;

using DeviceManagerTest = DevicesRig;

TEST_F(DeviceManagerTest, LoadsThatNoSchedulerTakesAreRefusedAtOnce) {
    KelmGraph* const tagged = makeGraph("camera");
    KelmGraph* const streamed = makeGraph("", "stream");
    KelmGraph* const plain = makeGraph();
    m_devices["dead"].failAll(DeviceCall::Open, KELM_ERROR_INVALID_DEVICE);
    startManager({"dead"});
    EXPECT_EQ(m_manager->getWorkerNum(), 0u);
    for (KelmGraph* graph : {tagged, streamed, plain}) m_manager->enqueueLoadGraph(graph);
    EXPECT_THAT(m_placement.loads(), ElementsAre(Pair(tagged, KELM_ERROR_INVALID_PARAM),
                                                 Pair(streamed, KELM_ERROR_INVALID_PARAM),
                                                 Pair(plain, KELM_ERROR_NO_DEVICE_AVAILABLE)));
    // A destroy that crosses the refusal is confirmed all the same.
    m_manager->enqueueUnloadGraph(tagged);
    EXPECT_TRUE(eventually([&] { return m_placement.unloads().size() == 1; }));
    // The name of the device that failed is free for the next event.
    m_devices["dead"].failAll(DeviceCall::Open, KELM_OK);
    plugIn("dead");
    EXPECT_TRUE(hasWorkers(1));
}

TEST_F(DeviceManagerTest, FirstDevicesFillTheQuotasAndALaterOneTakesWhatIsShort) {
    configure(R"({"scheduler_config": [{"subclass": 0, "stream_device_number": 1,
                                        "graph_tag_map": {"camera": 1, "door": 2}}]})");
    startManager({"a", "b", "c", "d", "e", "f"});
    KelmGraph* const streamed = makeGraph("", "stream");
    // The tag counts, and not the stream.
    KelmGraph* const graphs[] = {makeGraph("camera", "gate"), makeGraph("door"), streamed,
                                 makeGraph()};
    for (KelmGraph* graph : graphs) m_manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return m_placement.loads().size() == 4; }));
    EXPECT_THAT(m_placement.loads(),
                Each(Field(&std::pair<KelmGraph*, KelmError>::second, KELM_OK)));
    for (const char* name : {"a", "b", "c", "d"})
        EXPECT_TRUE(hasCalled(name, DeviceCall::Allocate, 1)) << name;
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(isOnDevices(graphs[i], i == 1 ? 2 : 1)) << i;

    // A quota is short now, and its graph gets the device that comes without being asked for.
    plugOut("b");
    plugOut("d");
    ASSERT_TRUE(hasWorkers(4));
    plugIn("g");
    EXPECT_TRUE(hasCalled("g", DeviceCall::Allocate, 1));
    plugIn("h");
    EXPECT_TRUE(hasCalled("h", DeviceCall::Allocate, 1));
    EXPECT_TRUE(isOnDevices(streamed, 1));

    // Two devices were left for the others, and no graph of theirs lives on reserved ones.
    plugOut("e");
    plugOut("f");
    ASSERT_TRUE(hasWorkers(4));
    KelmGraph* const late = makeGraph();
    m_manager->enqueueLoadGraph(late);
    EXPECT_EQ(m_placement.loads().back(), std::pair(late, KELM_ERROR_NO_DEVICE_AVAILABLE));
}

// The device of the graph fails and stays on the bus, and there is no other event.
TEST_F(DeviceManagerTest, FailedReservedDeviceGivesUpItsGraphAndItsPlace) {
    constexpr int kHardwareError = -6;
    configure(R"({"service_settings": {"update_thermal_interval": 1},
                  "scheduler_config": [{"subclass": 0, "stream_device_number": 2}]})");
    for (const char* name : {"a", "b"}) m_devices[name].setHardwareError(kHardwareError);
    startManager({"a", "b"});
    KelmGraph* const graph = makeGraph("", "stream");
    m_manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return !m_exchange.scheduled().empty(); }));
    std::string first = "a";
    std::string second = "b";
    if (m_devices[first].count(DeviceCall::Allocate) == 0) std::swap(first, second);
    WorkThread* const failed = m_exchange.scheduled().back().first;
    m_devices[first].failAll(DeviceCall::Thermal, kHardwareError);
    ASSERT_TRUE(hasCalled(second, DeviceCall::Allocate, 1));
    ASSERT_TRUE(isOnDevices(graph, 1));

    // The first one's place is free, and only once, though the failure is told again and it leaves.
    m_manager->enqueueWorkerFailed(failed);
    plugIn("c");
    ASSERT_TRUE(hasWorkers(3));
    plugOut(first);
    ASSERT_TRUE(hasWorkers(2));
    plugIn("d");
    ASSERT_TRUE(hasWorkers(3));
    m_manager->enqueueLoadGraph(makeGraph());
    EXPECT_TRUE(hasCalled("d", DeviceCall::Allocate, 1));
    EXPECT_EQ(m_devices["c"].count(DeviceCall::Allocate), 0);
    plugOut(second);
    EXPECT_TRUE(hasCalled("c", DeviceCall::Allocate, 1));
}

TEST_F(DeviceManagerTest, PlugEventsOfADeviceActInTheirOrder) {
    configurePrinting("base", "table");
    startManager({});
    m_devices["a"].block(DeviceCall::Open);
    plugIn("a");
    ASSERT_TRUE(hasCalled("a", DeviceCall::Open, 1));
    plugIn("a");  // is being opened: dropped
    plugOut("a");
    plugIn("a");
    EXPECT_FALSE(m_manager->enqueuePlugoutDevice(1, "a"));
    EXPECT_FALSE(m_manager->enqueuePluginDevice(1, "a"));
    m_devices["a"].release(DeviceCall::Open);
    EXPECT_TRUE(hasCalled("a", DeviceCall::Open, 2));
    ASSERT_TRUE(hasWorkers(1));
    EXPECT_THAT(print(), HasSubstr("| resetTimes  | 1 "));
    plugOut("b");  // has no worker: not counted
    plugIn("b");
    ASSERT_TRUE(hasWorkers(2));
    EXPECT_THAT(print(), ContainsRegex("resetTimes  [|] (1 +[|] 0|0 +[|] 1) "));
    EXPECT_TRUE(m_manager->stop());
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 2);
}

// The device is plugged in anew, its removal was never seen, and its old worker takes its time.
TEST_F(DeviceManagerTest, DeviceIsOpenedAnewOnceItsOldWorkerIsDestroyedOrThatTakesTooLong) {
    struct Case {
        const char* device;
        milliseconds stop, oldWorker;
        int openedMeanwhile, openedAtLast;
    };
    constexpr milliseconds kLong{30000};
    for (const Case& testCase : {Case{"a", kLong, kLong, 1, 2}, Case{"b", kLong, 1ms, 2, 2},
                                 Case{"stopped", 10ms, kLong, 1, 1}}) {
        SCOPED_TRACE(testCase.device);
        const bool isStopped = testCase.openedAtLast == 1;
        DeviceScript& device = m_devices[testCase.device];
        KelmGraph* const graph = makeLastingGraph();
        startManager({testCase.device}, testCase.stop, testCase.oldWorker);
        m_manager->enqueueLoadGraph(graph);
        ASSERT_TRUE(isOnDevices(graph, 1));
        device.block(DeviceCall::Deallocate);
        plugIn(testCase.device);
        ASSERT_TRUE(hasCalled(testCase.device, DeviceCall::Deallocate, 1));
        EXPECT_TRUE(!isStopped || !m_manager->stop());
        EXPECT_TRUE(hasCalled(testCase.device, DeviceCall::Open, testCase.openedMeanwhile));
        device.release(DeviceCall::Deallocate);
        EXPECT_TRUE(hasCalled(testCase.device, DeviceCall::Open, testCase.openedAtLast));
        // The scheduler's next pass brings the graph back, and the stop takes it off.
        EXPECT_TRUE(isOnDevices(graph, isStopped ? 0 : 1));
        for (int call = 0; call < 2; ++call) EXPECT_EQ(m_manager->stop(), !isStopped);
        EXPECT_TRUE(isOnDevices(graph, 0));
        EXPECT_EQ(m_manager->getWorkerNum(), 0u);
        plugIn(testCase.device);
        EXPECT_EQ(device.count(DeviceCall::Open), testCase.openedAtLast);
    }
}

TEST_F(DeviceManagerTest, StopEndsTheWaitForAnOldWorker) {
    Port<WorkerRemovalListener>::disconnect();  // the old worker stays
    startManager({"a"});
    plugIn("a");
    ASSERT_TRUE(hasWorkers(0));
    EXPECT_TRUE(m_manager->stop());
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 1);
}

TEST_F(DeviceManagerTest, DeviceThatNeverAnswersIsReportedUntilItsManagerIsLeftBehind) {
    configurePrinting("base", "table");
    KelmGraph* const graph = makeLastingGraph();
    startManager({"a"}, 10ms);
    m_devices["a"].block(DeviceCall::Allocate);
    m_manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(hasCalled("a", DeviceCall::Allocate, 1));
    EXPECT_THAT(print(), HasSubstr("| LOAD_GRAPH "));
    EXPECT_THAT(query().deviceGraphNames, ElementsAre(graph->getName()));
    for (int call = 0; call < 2; ++call) EXPECT_FALSE(m_manager->stop());
    EXPECT_EQ(m_manager->getWorkerNum(), 1u) << "its scheduler may still use the worker";
    EXPECT_THAT(m_collector.listeners(), IsEmpty());
    EXPECT_THAT(print(), EndsWith("DeviceUtilization(count=0):\n\n"));
    EXPECT_THAT(query().deviceNames, IsEmpty());
    m_manager.reset();
    m_devices["a"].release(DeviceCall::Allocate);
    EXPECT_TRUE(isOnDevices(graph, 1));
}

TEST_F(DeviceManagerTest, StopDoesNotWaitForADeviceThatIsBeingOpened) {
    startManager({"a"}, 10ms);
    m_devices["b"].block(DeviceCall::Open);
    plugIn("b");
    ASSERT_TRUE(hasCalled("b", DeviceCall::Open, 1));
    EXPECT_FALSE(m_manager->stop());
    EXPECT_EQ(m_manager->getWorkerNum(), 1u) << "the worker of the other device stays";
    m_devices["b"].release(DeviceCall::Open);
    // The thread that opens it was left behind, and still reads the configuration.
    EXPECT_TRUE(eventually([] {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::ranges::none_of(threads, [](const auto& thread) {
            std::string name;
            return std::getline(std::ifstream(thread.path() / "comm"), name) && name == "bBOOT";
        });
    }));
}

TEST_F(DeviceManagerTest, DeviceThatNeverAnswersLetsTheWorkersOfOthersBeDestroyed) {
    startManager({"a", "b"});
    uint32_t idOfA = 0;
    while (!m_manager->hasDevice(idOfA)) ++idOfA;
    m_devices["a"].block(DeviceCall::Reset);
    for (int i = 0; i < 300; ++i) m_manager->enqueueResetDevice(makeResetRequest(idOfA));
    ASSERT_TRUE(hasCalled("a", DeviceCall::Reset, 1));
    plugOut("a");
    plugOut("b");
    plugIn("b");
    EXPECT_TRUE(hasCalled("b", DeviceCall::Open, 2)) << "only once its old worker is destroyed";
    m_devices["a"].release(DeviceCall::Reset);
    EXPECT_TRUE(m_manager->stop());
}

TEST_F(DeviceManagerTest, ThermalReadingHoldsUpTheEndOfItsWorkerOnly) {
    configure(R"({"service_settings": {"update_thermal_interval": 3600000}})");
    m_devices["a"].block(DeviceCall::Thermal);
    startManager({"a"});
    ASSERT_TRUE(hasCalled("a", DeviceCall::Thermal, 1));
    plugOut("a");
    EXPECT_TRUE(hasWorkers(0));
    plugIn("a");
    EXPECT_FALSE(eventually([&] { return m_devices["a"].count(DeviceCall::Open) > 1; }, 100ms))
        << "the old worker is being read";
    m_devices["a"].release(DeviceCall::Thermal);
    EXPECT_TRUE(hasCalled("a", DeviceCall::Open, 2));
    EXPECT_TRUE(m_manager->stop());  // although the next reading is due in an hour
}

}  // namespace
}  // namespace kelm

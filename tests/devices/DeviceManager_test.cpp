#include "devices/DeviceManager.h"

#include "devices/DevicesRig.h"
#include "execution/WorkerFailureListener.h"
#include "fakes/Eventually.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "utils/StringHelper.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::Pair;

constexpr int kSubclass = 0;

// Hands the workers that are let go back to the manager, and those that fail.
class RemovalRelay final : public WorkerRemovalListener, public WorkerFailureListener {
 public:
    explicit RemovalRelay(DeviceManager& manager) : m_manager(manager) {}
    void enqueueRemoveWorkerDone(WorkThread* worker) override {
        m_manager.enqueueRemoveWorkerDone(worker);
    }
    void enqueueWorkerFailed(WorkThread* worker) override { m_manager.enqueueWorkerFailed(worker); }

 private:
    DeviceManager& m_manager;
};

class DeviceManagerTest : public DevicesRig {
 protected:
    // With a long wait for old workers, unless the case is about the limits.
    std::shared_ptr<DeviceManager> makeManager(const std::vector<std::string>& names) {
        const auto manager = DeviceManager::create(
            "DeviceManager0", {std::chrono::seconds(30), std::chrono::seconds(60)});
        manager->setDeviceList(kSubclass, names);
        return manager;
    }
    // Of the first device in the table.
    static std::string readResetTimes(DeviceManager& manager) {
        testing::internal::CaptureStdout();
        manager.onPrintInfo();
        const std::string text = testing::internal::GetCapturedStdout();
        const size_t cell = text.find("| resetTimes  | ");
        return cell == std::string::npos ? "none" : text.substr(cell + 16, 1);
    }
    std::vector<std::unique_ptr<KelmTask>> m_tasks;
    bool hasOpened(const std::string& name, int times) {
        return eventually([&] { return m_devices[name].count(DeviceCall::Open) == times; });
    }
};

TEST_F(DeviceManagerTest, NumbersOfGraphsAreClamped) {
    struct Case {
        int perDevice, cached, usedPerDevice, usedCached;
    };
    for (const Case& testCase : {Case{5, 1, 2, 2}, Case{0, 3, 1, 3}}) {
        SCOPED_TRACE(testCase.perDevice);
        configure(StringHelper::format(
            R"({"service_settings": {"max_cached_graph_number": %d},
                "scheduler_config": [{"subclass": 0, "max_graph_per_device": %d}]})",
            testCase.cached, testCase.perDevice));
        const auto manager = makeManager({"a"});
        KelmGraph* const graph = makeGraph();
        manager->enqueueLoadGraph(graph);
        EXPECT_EQ(graph->getMaxGraphNumPerDevice(), testCase.usedPerDevice);
        EXPECT_EQ(m_devices["a"].maxCacheGraphNumber(), testCase.usedCached);
        EXPECT_TRUE(manager->stop());
    }
}

TEST_F(DeviceManagerTest, LoadsThatNoSchedulerTakesAreRefusedAtOnce) {
    KelmGraph* const tagged = makeGraph();
    tagged->setTag("camera");
    KelmGraph* const streamed = makeGraph();
    streamed->setStreamId("stream");
    KelmGraph* const plain = makeGraph();
    m_devices["dead"].failAll(DeviceCall::Open, KELM_ERROR_INVALID_DEVICE);
    const auto manager = makeManager({"dead"});
    EXPECT_EQ(manager->getWorkerNum(), 0u);
    for (KelmGraph* graph : {tagged, streamed, plain}) manager->enqueueLoadGraph(graph);
    EXPECT_THAT(m_placement.loads(), ElementsAre(Pair(tagged, KELM_ERROR_INVALID_PARAM),
                                                 Pair(streamed, KELM_ERROR_INVALID_PARAM),
                                                 Pair(plain, KELM_ERROR_NO_DEVICE_AVAILABLE)));
    // A destroy that crosses the refusal is confirmed all the same.
    manager->enqueueUnloadGraph(tagged);
    EXPECT_TRUE(eventually([&] { return m_placement.unloads().size() == 1; }));
}

TEST_F(DeviceManagerTest, FirstDevicesFillTheQuotasAndALaterOneTakesWhatIsShort) {
    configure(R"({"scheduler_config": [{"subclass": 0, "stream_device_number": 1,
                                        "graph_tag_map": {"camera": 1, "door": 2}}]})");
    const auto manager = makeManager({"a", "b", "c", "d", "e", "f"});
    RemovalRelay relay(*manager);
    ScopedPort<WorkerRemovalListener> port(relay);
    KelmGraph* const graphs[] = {makeGraph(), makeGraph(), makeGraph(), makeGraph()};
    graphs[0]->setTag("camera");
    graphs[1]->setTag("door");
    graphs[2]->setStreamId("stream");
    for (KelmGraph* graph : graphs) manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return m_placement.loads().size() == 4; }));
    EXPECT_THAT(m_placement.loads(),
                ::testing::Each(Field(&std::pair<KelmGraph*, KelmError>::second, KELM_OK)));
    const auto loadsOf = [&](const std::string& names) {
        std::vector<int> loads;
        for (const char name : names) {
            loads.push_back(m_devices[{name}].count(DeviceCall::Allocate));
        }
        return loads;
    };
    EXPECT_THAT(loadsOf("abcd"), ElementsAre(1, 1, 1, 1));
    EXPECT_EQ(graphs[0]->getRunningDeviceNum(), 1);
    EXPECT_EQ(graphs[1]->getRunningDeviceNum(), 2);
    EXPECT_EQ(graphs[2]->getRunningDeviceNum(), 1);

    // A quota is short now, and its graph gets the device that comes without being asked for.
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "b"));
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "d"));
    ASSERT_TRUE(eventually([&] { return manager->getWorkerNum() == 4; }));
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "g"));
    EXPECT_TRUE(eventually([&] { return loadsOf("g") == std::vector{1}; }));
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "h"));
    EXPECT_TRUE(eventually([&] { return loadsOf("h") == std::vector{1}; }));
    EXPECT_TRUE(eventually([&] { return graphs[2]->getRunningDeviceNum() == 1; }));

    // Two devices were left for the others, and no graph of theirs lives on reserved ones.
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "e"));
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "f"));
    ASSERT_TRUE(eventually([&] { return manager->getWorkerNum() == 4; }));
    KelmGraph* const late = makeGraph();
    testing::internal::CaptureStdout();
    manager->enqueueLoadGraph(late);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::ContainsRegex("Error: No device available in "
                                         "SqueezeScheduler\\(.+\\), SqueezeDeviceNumber=0"));
    EXPECT_EQ(m_placement.loads().back(), std::pair(late, KELM_ERROR_NO_DEVICE_AVAILABLE));
}

// The device of the graph fails and stays on the bus, and there is no other event.
TEST_F(DeviceManagerTest, FailedReservedDeviceGivesUpItsGraphAndItsPlace) {
    constexpr int kHardwareError = -6;
    const std::vector<std::string> names{"a", "b", "c", "d"};
    for (const std::string& name : names) m_devices[name].setHardwareError(kHardwareError);
    const auto fail = [&](DeviceCall call, const std::string& device, KelmGraph* graph) {
        m_devices[device].failAll(call, kHardwareError);
        if (call == DeviceCall::Thermal) return;
        m_tasks.push_back(makeTestTask(m_tasks.size(), graph));
        m_exchange.scheduled().back().first->enqueueLoadTensor(m_tasks.back().get());
    };
    for (const DeviceCall call : {DeviceCall::GetResult, DeviceCall::Thermal}) {
        SCOPED_TRACE(static_cast<int>(call));
        configure(R"({"service_settings": {"update_thermal_interval": 1},
                      "scheduler_config": [{"subclass": 0, "stream_device_number": 2}]})");
        const auto manager = makeManager({"a", "b"});
        RemovalRelay relay(*manager);
        ScopedPort<WorkerRemovalListener> removals(relay);
        ScopedPort<WorkerFailureListener> failures(relay);
        KelmGraph* const graph = makeGraph();
        graph->setStreamId("stream");
        std::map<std::string, int> loads;
        for (const auto& name : names) loads[name] = m_devices[name].count(DeviceCall::Allocate);
        const auto hasLoaded = [&](const std::string& name) {
            return m_devices[name].count(DeviceCall::Allocate) > loads[name];
        };
        manager->enqueueLoadGraph(graph);
        ASSERT_TRUE(eventually([&] { return m_placement.loads().size() == m_graphs.size(); }));
        const std::string first = hasLoaded("a") ? "a" : "b";
        const std::string second = hasLoaded("a") ? "b" : "a";
        fail(call, first, graph);
        ASSERT_TRUE(eventually([&] { return hasLoaded(second); }));
        ASSERT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));

        // The first one's place is free, and only once, though it leaves and returns.
        EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "c"));
        ASSERT_TRUE(eventually([&] { return manager->getWorkerNum() == 3; }));
        EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, first));
        ASSERT_TRUE(eventually([&] { return manager->getWorkerNum() == 2; }));
        EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "d"));
        ASSERT_TRUE(eventually([&] { return manager->getWorkerNum() == 3; }));
        KelmGraph* const plain = makeGraph();
        manager->enqueueLoadGraph(plain);
        EXPECT_TRUE(eventually([&] { return hasLoaded("d"); }));
        EXPECT_FALSE(hasLoaded("c"));
        EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, second));
        EXPECT_TRUE(eventually([&] { return hasLoaded("c"); }));
        EXPECT_TRUE(manager->stop());
        for (const auto& name : names) m_devices[name].failAll(call, KELM_OK);
    }
}

TEST_F(DeviceManagerTest, BrokenTagMapEndsTheStart) {
    configure(R"({"scheduler_config": [{"subclass": 0, "graph_tag_map": {"camera": "many"}}]})");
    EXPECT_THROW(makeManager({"a"}), std::invalid_argument);
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 0);
}

TEST_F(DeviceManagerTest, PlugEventsOfADeviceActInTheirOrder) {
    configure(R"({"debug_settings": {"info_printer": {"device_snapshot_mode": "base",
                                                      "device_snapshot_style": "table"}}})");
    const auto manager = makeManager({});
    RemovalRelay relay(*manager);
    ScopedPort<WorkerRemovalListener> port(relay);
    m_devices["a"].block(DeviceCall::Open);
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "a"));
    ASSERT_TRUE(hasOpened("a", 1));
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "a"));  // is being made: dropped
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "a"));
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "a"));
    EXPECT_FALSE(manager->enqueuePlugoutDevice(kSubclass + 1, "a"));
    m_devices["a"].release(DeviceCall::Open);
    EXPECT_TRUE(hasOpened("a", 2));
    EXPECT_TRUE(eventually([&] { return manager->getWorkerNum() == 1; }));
    EXPECT_EQ(readResetTimes(*manager), "1");
    EXPECT_TRUE(manager->stop());
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 2);
}

TEST_F(DeviceManagerTest, RemovalOfAnUnknownDeviceIsNotCounted) {
    configure(R"({"debug_settings": {"info_printer": {"device_snapshot_mode": "base",
                                                      "device_snapshot_style": "table"}}})");
    const auto manager = makeManager({"a"});
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "b"));
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "b"));
    EXPECT_TRUE(eventually([&] { return manager->getWorkerNum() == 2; }));
    EXPECT_EQ(readResetTimes(*manager), "0");
    EXPECT_TRUE(manager->stop());
}

TEST_F(DeviceManagerTest, DeviceOpensAnewOnlyAfterItsOldWorkerIsGone) {
    const auto manager = makeManager({"a"});
    RemovalRelay relay(*manager);
    ScopedPort<WorkerRemovalListener> port(relay);
    KelmGraph* const graph = makeGraph();
    manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));
    m_devices["a"].block(DeviceCall::Deallocate);
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "a"));  // its removal was never seen
    ASSERT_TRUE(eventually([&] { return m_devices["a"].count(DeviceCall::Deallocate) == 1; }));
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 1);
    m_devices["a"].release(DeviceCall::Deallocate);
    EXPECT_TRUE(hasOpened("a", 2));
    // The graph comes back to the device with the scheduler's next pass.
    EXPECT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));
}

TEST_F(DeviceManagerTest, OldWorkerThatNeverGoesDelaysTheNewOneButDoesNotStopIt) {
    auto manager = DeviceManager::create("DeviceManager0",
                                         {std::chrono::seconds(30), std::chrono::milliseconds(1)});
    manager->setDeviceList(kSubclass, {"a"});
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "a"));  // nobody answers the removal
    EXPECT_TRUE(hasOpened("a", 2));
    EXPECT_TRUE(eventually([&] { return manager->getWorkerNum() == 1; }));
    EXPECT_TRUE(manager->stop());
}

TEST_F(DeviceManagerTest, StopDoesNotOpenADeviceThatItsOldWorkerStillHolds) {
    // Kept, as the threads that are left behind may still use it.
    static auto* const kept = new std::vector<std::unique_ptr<KelmGraph>>;
    kept->push_back(makeTestGraph(1, "content"));
    KelmGraph* const graph = kept->back().get();
    const auto manager = DeviceManager::create(
        "DeviceManager0", {std::chrono::milliseconds(10), std::chrono::seconds(60)});
    manager->setDeviceList(kSubclass, {"a"});
    manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));
    m_devices["a"].block(DeviceCall::Deallocate);
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "a"));  // its removal was never seen
    ASSERT_TRUE(eventually([&] { return m_devices["a"].count(DeviceCall::Deallocate) == 1; }));
    EXPECT_FALSE(manager->stop());
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 1);
    m_devices["a"].release(DeviceCall::Deallocate);
    EXPECT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 0; }));
}

TEST_F(DeviceManagerTest, StopTakesGraphsOffTheDevicesAndCanBeRepeated) {
    const auto manager = makeManager({"a"});
    KelmGraph* const graph = makeGraph();
    manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return m_placement.loads().size() == 1; }));
    EXPECT_TRUE(manager->stop());
    EXPECT_THAT(m_devices["a"].deallocated(), ElementsAre(Pair(graph, false)));
    EXPECT_TRUE(manager->stop());
    EXPECT_EQ(manager->getWorkerNum(), 0u);
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "b"));
    EXPECT_EQ(m_devices["b"].count(DeviceCall::Open), 0);
}

TEST_F(DeviceManagerTest, DeviceThatNeverAnswersIsLeftBehindAtTheStop) {
    // Kept, as the threads that are left behind may still use it.
    static auto* const kept = new std::vector<std::unique_ptr<KelmGraph>>;
    kept->push_back(makeTestGraph(1, "content"));
    KelmGraph* const graph = kept->back().get();
    auto manager = DeviceManager::create("DeviceManager0",
                                         {std::chrono::milliseconds(10), std::chrono::seconds(60)});
    manager->setDeviceList(kSubclass, {"a"});
    m_devices["a"].block(DeviceCall::Allocate);
    manager->enqueueLoadGraph(graph);
    ASSERT_TRUE(eventually([&] { return m_devices["a"].count(DeviceCall::Allocate) == 1; }));
    EXPECT_FALSE(manager->stop());
    manager.reset();
    m_devices["a"].release(DeviceCall::Allocate);
    EXPECT_TRUE(eventually([&] { return graph->getRunningDeviceNum() == 1; }));
}

TEST_F(DeviceManagerTest, FloodOfResetsOfABusyDeviceBlocksNobodyAndIsAnswered) {
    const auto manager = makeManager({"a"});
    uint32_t deviceId = 0;
    while (!manager->hasDevice(deviceId)) ++deviceId;
    m_devices["a"].block(DeviceCall::Reset);
    constexpr size_t kResets = 1000;
    for (size_t reset = 0; reset < kResets; ++reset) {
        manager->enqueueResetDevice(1, deviceId, 5, nullptr);
    }
    m_devices["a"].release(DeviceCall::Reset);
    EXPECT_TRUE(eventually([&] { return m_results.resets().size() == kResets; }));
}

TEST_F(DeviceManagerTest, DeviceThatNeverAnswersHoldsUpTheEndOfTheOthers) {
    const auto manager = makeManager({"a", "b"});
    RemovalRelay relay(*manager);
    ScopedPort<WorkerRemovalListener> port(relay);
    uint32_t idOfA = 0;
    while (!manager->hasDevice(idOfA)) ++idOfA;
    m_devices["a"].block(DeviceCall::Reset);
    for (int reset = 0; reset < 300; ++reset) {
        manager->enqueueResetDevice(1, idOfA, 5, nullptr);
    }
    ASSERT_TRUE(eventually([&] { return m_devices["a"].count(DeviceCall::Reset) == 1; }));
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "a"));
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "b"));
    EXPECT_TRUE(manager->enqueuePluginDevice(kSubclass, "b"));
    EXPECT_TRUE(hasOpened("b", 2)) << "only once its old worker is gone";
    m_devices["a"].release(DeviceCall::Reset);
    EXPECT_TRUE(manager->stop());
}

// A device whose temperature reading takes as long as the test wants.
class SlowThermalDevice : public ScriptedDevice {
 public:
    struct Control {
        std::atomic<int> begun{0};
        std::shared_future<void> go;
    };
    SlowThermalDevice(const std::string& name, Control& control)
        : ScriptedDevice(name, std::make_shared<DeviceScript>()), m_control(control) {}
    int updateThermal() override {
        ++m_control.begun;
        m_control.go.wait();
        return 0;
    }

 private:
    Control& m_control;
};

TEST_F(DeviceManagerTest, ThermalReadingBlocksNeitherTheManagerNorTheDeletion) {
    configure(R"({"service_settings": {"update_thermal_interval": 3600000}})");
    std::promise<void> go;
    SlowThermalDevice::Control control{0, go.get_future().share()};
    KelmDeviceBase::setFactory([&](const std::string& name) {
        return std::make_unique<SlowThermalDevice>(name, control);
    });
    const auto manager = makeManager({"a"});
    RemovalRelay relay(*manager);
    ScopedPort<WorkerRemovalListener> port(relay);
    ASSERT_TRUE(eventually([&] { return control.begun == 1; }));
    EXPECT_TRUE(manager->enqueuePlugoutDevice(kSubclass, "a"));
    EXPECT_TRUE(eventually([&] { return manager->getWorkerNum() == 0; }));
    go.set_value();
    EXPECT_TRUE(manager->stop());  // although the next reading is due in an hour
}

}  // namespace
}  // namespace kelm

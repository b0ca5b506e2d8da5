#include "devices/DeviceManagerCreator.h"

#include "devices/DevicesRig.h"
#include "execution/WorkThread.h"
#include "fakes/Eventually.h"
#include "fakes/FakeClientDirectory.h"
#include "fakes/FakeInfoCollector.h"
#include "fakes/SimulatedLibraries.h"
#include "protocol/src/InfoPackage.h"
#include "reporting/KelmStatus.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr uint64_t kClient = 7;

// Devices that the test plugs in and out.
class FakeMonitorImpl : public DeviceMonitorImpl {
 public:
    explicit FakeMonitorImpl(std::vector<DeviceDesc> devices) : m_devices(std::move(devices)) {}

    void addDeviceFilter(int, int) override {}
    bool launch() override { return true; }
    void stop() override {}
    std::vector<DeviceDesc> getDeviceList(int, int) override { return m_devices; }
    void plug(const DeviceDesc& desc, bool in) {
        in ? m_parent->notifyPluginDevice(desc) : m_parent->notifyPlugoutDevice(desc);
    }

 private:
    const std::vector<DeviceDesc> m_devices;
};

DeviceDesc describe(const std::string& name, int subclass) { return {name, 1, 1, subclass}; }

class DeviceManagerCreatorTest : public DevicesRig {
 protected:
    void SetUp() override {
        DevicesRig::SetUp();
        m_clients.add(kClient, "client");
    }
    void start(std::vector<DeviceDesc> devices) {
        auto monitor = std::make_unique<FakeMonitorImpl>(std::move(devices));
        m_monitor = monitor.get();
        m_creator = std::make_unique<DeviceManagerCreator>(std::move(monitor));
        Port<WorkerRemovalListener>::connect(
            [this]() -> WorkerRemovalListener& { return *m_creator; });
    }
    KelmGraph* makeGraphOf(int subclass) {
        KelmGraph* const graph = makeGraph();
        graph->setInterfaceSubclass(subclass);
        return graph;
    }
    // The errors answered so far.
    std::vector<KelmError> resetErrors() {
        std::vector<KelmError> errors;
        for (const auto& reset : m_results.resets()) errors.push_back(reset.error);
        return errors;
    }

    FakeClientDirectory m_clients;
    ScopedPort<ClientDirectory> m_clientsPort{m_clients};
    FakeMonitorImpl* m_monitor = nullptr;
    std::unique_ptr<DeviceManagerCreator> m_creator;
};

TEST_F(DeviceManagerCreatorTest, GraphsGoToTheDevicesOfTheirSubclass) {
    start({describe("a", 0), describe("c", 2), describe("b", 0)});
    KelmGraph* const graph = makeGraphOf(2);
    KelmGraph* const stray = makeGraphOf(7);
    EXPECT_TRUE(m_creator->enqueueLoadGraph(graph));
    EXPECT_FALSE(m_creator->enqueueLoadGraph(stray));
    EXPECT_TRUE(eventually([&] { return m_placement.loads().size() == 2; }));
    EXPECT_THAT(m_placement.loads(),
                UnorderedElementsAre(Pair(stray, KELM_ERROR_INVALID_PARAM), Pair(graph, KELM_OK)));
    EXPECT_EQ(m_devices["c"].count(DeviceCall::Allocate), 1);
    EXPECT_FALSE(m_creator->enqueueUnloadGraph(stray));
    EXPECT_TRUE(m_creator->enqueueUnloadGraph(graph));
    EXPECT_TRUE(eventually([&] { return m_placement.unloads().size() == 1; }));
    EXPECT_THAT(m_placement.unloads(), ElementsAre(graph));
}

TEST_F(DeviceManagerCreatorTest, ResetReachesTheDeviceOfARegisteredClientOnly) {
    start({describe("a", 0), describe("b", 2)});
    const WorkThread probe("probe", 0, 0, 1);  // has the id behind that of "b"
    const uint32_t last = probe.getDevice()->getDeviceId();
    m_creator->enqueueResetDevice(kClient + 1, last - 1, 0, 5, nullptr);
    EXPECT_THAT(resetErrors(), ElementsAre(KELM_ERROR_INVALID_CLIENT));
    m_creator->enqueueResetDevice(kClient, last + 1, 0, 5, nullptr);
    EXPECT_THAT(resetErrors(), ElementsAre(KELM_ERROR_INVALID_CLIENT, KELM_ERROR_INVALID_DEVICE));
    EXPECT_EQ(m_devices["b"].count(DeviceCall::Reset), 0);
    m_creator->enqueueResetDevice(kClient, last - 1, 0, 5, &m_clients);
    EXPECT_TRUE(eventually([&] { return m_results.resets().size() == 3; }));
    EXPECT_EQ(resetErrors().back(), KELM_OK);
    EXPECT_EQ(m_results.resets().back().userParam, &m_clients);
    EXPECT_EQ(m_devices["b"].count(DeviceCall::Reset), 1);
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Reset), 0);
}

TEST_F(DeviceManagerCreatorTest, PlugEventsMoveGraphsAndIgnoreUnknownSubclasses) {
    start({describe("a", 0)});
    KelmGraph* const graph = makeGraphOf(0);
    EXPECT_TRUE(m_creator->enqueueLoadGraph(graph));
    ASSERT_TRUE(eventually([&] { return m_devices["a"].count(DeviceCall::Allocate) == 1; }));
    m_monitor->plug(describe("x", 9), true);
    m_monitor->plug(describe("b", 0), true);
    ASSERT_TRUE(eventually([&] { return m_devices["b"].count(DeviceCall::Open) == 1; }));
    m_monitor->plug(describe("a", 0), false);
    EXPECT_TRUE(eventually([&] {
        return m_devices["b"].count(DeviceCall::Allocate) == 1 &&
               m_devices["a"].count(DeviceCall::Deallocate) == 1;
    }));
    EXPECT_EQ(m_devices["x"].count(DeviceCall::Open), 0);
    EXPECT_TRUE(m_creator->stop());
    EXPECT_TRUE(m_creator->stop());
}

TEST_F(DeviceManagerCreatorTest, InvalidIdsGiveThreeDevicesThatAreTried) {
    configure(R"({"device_settings": {"device_vid": "no number"}})");
    start({describe("a", 0)});
    for (const char* name : {"Fake0", "Fake1", "Fake2"}) {
        EXPECT_EQ(m_devices[name].count(DeviceCall::Open), 1) << name;
    }
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 0);
}

TEST_F(DeviceManagerCreatorTest, PipelinedResetsAreAllDone) {
    configure(R"({"fake_device_settings": {"enable_fake_device": true,
                                           "fake_device_number": 2}})");
    start({});
    EXPECT_EQ(m_devices["Fake1"].count(DeviceCall::Open), 1);
    EXPECT_EQ(m_devices["Fake2"].count(DeviceCall::Open), 0);
    const WorkThread probe("probe", 0, 0, 1);  // has the id behind that of "Fake1"
    const uint32_t device = probe.getDevice()->getDeviceId() - 1;
    constexpr size_t kResets = 3000;
    for (size_t i = 0; i < kResets; ++i) {
        m_creator->enqueueResetDevice(kClient, device, 0, 5, nullptr);
        m_creator->enqueueResetDevice(kClient, 0, 1, 5, nullptr);
    }
    EXPECT_TRUE(eventually([&] { return m_results.resets().size() == 2 * kResets; }));
    EXPECT_THAT(resetErrors(), ::testing::Each(KELM_OK));
    EXPECT_EQ(m_devices["Fake1"].count(DeviceCall::Reset), static_cast<int>(kResets));
}

TEST_F(DeviceManagerCreatorTest, ResetOfAllThatHangsHoldsUpWhoAsksOrTheEnd) {
    constexpr size_t kWaiting = 20;
    const char* const function = "qxDeviceResetAll";
    SimulatedLibraries tevo;
    start({describe("a", 0)});
    tevo.order("hang - qxDeviceResetAll");
    tevo.order("fail - qxDeviceResetAll -3");
    m_creator->enqueueResetDevice(kClient, 0, 1, 5, &tevo);
    ASSERT_TRUE(eventually([&] { return tevo.count(function) == 1; }));
    for (size_t i = 0; i < kWaiting; ++i) m_creator->enqueueResetDevice(kClient, 0, 1, 6, nullptr);
    KelmGraph* const graph = makeGraph();
    EXPECT_TRUE(m_creator->enqueueLoadGraph(graph));
    EXPECT_TRUE(eventually([&] { return m_placement.loads().size() == 1; }));
    EXPECT_FALSE(m_creator->stop());
    EXPECT_EQ(resetErrors(), std::vector(kWaiting, KELM_ERROR_INVALID_DEVICE));
    tevo.cancelOrders("hang");
    EXPECT_TRUE(eventually([&] { return m_results.resets().size() == kWaiting + 1; }));
    EXPECT_EQ(m_results.resets().back().error, -3);
    EXPECT_EQ(m_results.resets().back().userParam, &tevo);
    EXPECT_TRUE(m_creator->stop());
}

TEST_F(DeviceManagerCreatorTest, BrokenTagMapOfOneGroupLeavesNothingRunning) {
    configure(R"({"scheduler_config": [{"subclass": 2, "graph_tag_map": {"camera": "many"}}]})");
    EXPECT_THROW(start({describe("a", 0), describe("b", 2)}), std::invalid_argument);
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 1);
    EXPECT_THAT(m_placement.loads(), IsEmpty());
}

TEST_F(DeviceManagerCreatorTest, StatusListsAreParallelAndInOrderOfSubclasses) {
    FakeInfoCollector collector;
    const ScopedPort<InfoCollector> port(collector);
    start({describe("c", 2), describe("a", 0), describe("b", 0)});
    EXPECT_TRUE(m_creator->enqueueLoadGraph(makeGraphOf(2)));
    ASSERT_TRUE(eventually([&] { return m_placement.loads().size() == 1; }));
    const auto status = std::make_shared<KelmStatus>();
    m_creator->enqueueQueryDeviceStatus(status);
    ASSERT_TRUE(eventually([&] { return collector.statusSources().size() == 1; }));
    EXPECT_THAT(status->deviceNames, ::testing::Contains("a"));
    EXPECT_THAT(status->deviceGraphNames, ElementsAre("NoGraph", "NoGraph", "graph1"));
    EXPECT_EQ(status->deviceNames.back(), "c");
    EXPECT_THAT(status->deviceSubclasses, ElementsAre(0, 0, 2));
    EXPECT_THAT(status->deviceFps, ElementsAre(0.0f, 0.0f, 0.0f));
    EXPECT_EQ(status->deviceThermals.size(), 3u);
    m_creator->enqueueQueryDeviceScheduler(status);
    ASSERT_TRUE(eventually([&] { return collector.statusSources().size() == 2; }));
    EXPECT_EQ(status->deviceSchedulerName, "DS.Squeeze2");
    EXPECT_THAT(collector.statusSources(), ::testing::Each("DeviceManagerCreator"));

    // Each manager starts at the first row, and the count stays 0.
    auto package = std::make_unique<InfoPackage>();
    package->deviceCount = 7;
    m_creator->enqueueUpdateInfoPackage(package.get());
    ASSERT_TRUE(eventually([&] { return collector.packageSources().size() == 1; }));
    EXPECT_EQ(package->deviceCount, 0);
    EXPECT_EQ(package->devices[0].deviceId, status->deviceIds[2]);
    EXPECT_STREQ(package->devices[0].currentGraphName[0], "graph1");
    EXPECT_EQ(package->devices[1].deviceId, status->deviceIds[1]);
    EXPECT_EQ(package->devices[2].deviceId, 0u);
}

TEST_F(DeviceManagerCreatorTest, QuestionsAreCompletedWithoutAnyDevice) {
    FakeInfoCollector collector;
    const ScopedPort<InfoCollector> port(collector);
    start({});
    const auto status = std::make_shared<KelmStatus>();
    InfoPackage package{};
    m_creator->enqueueQueryDeviceStatus(status);
    m_creator->enqueueQueryDeviceScheduler(status);
    m_creator->enqueueUpdateInfoPackage(&package);
    EXPECT_TRUE(eventually([&] {
        return collector.statusSources().size() == 2 && collector.packageSources().size() == 1;
    }));
    EXPECT_EQ(status->deviceSchedulerName, "");
    EXPECT_TRUE(m_creator->stop());
}

// Whose notices of a status wait until the test lets them go.
class SlowCollector final : public InfoCollector {
 public:
    explicit SlowCollector(std::shared_future<void> go) : m_go(std::move(go)) {}
    bool registerListener(PrintInfoListener*) override { return true; }
    void unregisterListener(PrintInfoListener*) override {}
    void enqueueQueryStatusDone(const std::shared_ptr<KelmStatus>&, const std::string&) override {
        m_go.wait();
        ++m_statuses;
    }
    void enqueueUpdateInfoPackageDone(const std::string&) override { ++m_packages; }

    std::atomic<int> m_statuses{0};
    std::atomic<int> m_packages{0};

 private:
    const std::shared_future<void> m_go;
};

TEST_F(DeviceManagerCreatorTest, FullPoolHoldsUpNoPackage) {
    std::promise<void> go;
    SlowCollector collector(go.get_future().share());
    const ScopedPort<InfoCollector> port(collector);
    start({});
    constexpr int kRunningAndQueued = 23;
    const auto status = std::make_shared<KelmStatus>();
    for (int i = 0; i < kRunningAndQueued; ++i) m_creator->enqueueQueryDeviceStatus(status);
    InfoPackage package{};
    m_creator->enqueueUpdateInfoPackage(&package);
    go.set_value();
    EXPECT_TRUE(eventually(
        [&] { return collector.m_packages == 1 && collector.m_statuses == kRunningAndQueued; }));
}

}  // namespace
}  // namespace kelm

#include "devices/DeviceManagerCreator.h"

#include "devices/DevicesRig.h"
#include "fakes/FakeClientDirectory.h"
#include "fakes/SimulatedLibraries.h"
#include "protocol/src/InfoPackage.h"

namespace kelm {
namespace {

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
    void start(std::vector<DeviceDesc> devices) {
        m_creator.reset();
        auto monitor = std::make_unique<FakeMonitorImpl>(std::move(devices));
        m_monitor = monitor.get();
        m_creator = std::make_unique<DeviceManagerCreator>(std::move(monitor));
        Port<WorkerRemovalListener>::connect(
            [this]() -> WorkerRemovalListener& { return *m_creator; });
        m_clients.add(kClient, "client");
    }
    KelmGraph* makeGraphOf(int subclass) {
        KelmGraph* const graph = makeGraph();
        graph->setInterfaceSubclass(subclass);
        return graph;
    }
    void reset(uint64_t clientId, uint32_t deviceId, bool all = false) {
        m_creator->enqueueResetDevice(makeResetRequest(deviceId, 5, clientId, all));
    }
    bool hasAnswered(size_t resets) {
        return eventually([&] { return m_results.resets().size() == resets; });
    }
    // How often a reset was answered so.
    int countResets(KelmError error) {
        int count = 0;
        for (const auto& reset : m_results.resets()) count += reset.error == error;
        return count;
    }

    FakeClientDirectory m_clients;
    ScopedPort<ClientDirectory> m_clientsPort{m_clients};
    FakeMonitorImpl* m_monitor = nullptr;
    std::unique_ptr<DeviceManagerCreator> m_creator;
};

TEST_F(DeviceManagerCreatorTest, ResetsReachTheDeviceOfARegisteredClientAndBlockNoRequester) {
    start({describe("a", 0), describe("b", 2)});
    const WorkThread probe("probe", 0, 0, 1);  // has the id behind that of "b"
    const uint32_t last = probe.getDevice()->getDeviceId();
    reset(kClient + 1, last - 1);
    EXPECT_EQ(countResets(KELM_ERROR_INVALID_CLIENT), 1);
    reset(kClient, last + 1);
    EXPECT_EQ(countResets(KELM_ERROR_INVALID_DEVICE), 1);
    constexpr int kResets = 100;
    m_devices["b"].block(DeviceCall::Reset);
    for (int i = 0; i < kResets; ++i) reset(kClient, last - 1);
    m_devices["b"].release(DeviceCall::Reset);
    EXPECT_TRUE(hasAnswered(kResets + 2));
    EXPECT_EQ(countResets(KELM_OK), kResets);
    EXPECT_EQ(m_devices["b"].count(DeviceCall::Reset), kResets);
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Reset), 0);
}

TEST_F(DeviceManagerCreatorTest, ResetOfAllThatHangsBlocksNeitherRequestersNorTheEnd) {
    constexpr int kWaiting = 20;
    SimulatedLibraries tevo;
    start({describe("a", 0)});
    tevo.order("hang - qxDeviceResetAll");
    tevo.order("fail - qxDeviceResetAll -3");
    reset(kClient, 0, true);
    ASSERT_TRUE(eventually([&] { return tevo.count("qxDeviceResetAll") == 1; }));
    for (int i = 0; i < kWaiting; ++i) reset(kClient, 0, true);
    EXPECT_TRUE(m_creator->enqueueLoadGraph(makeGraph()));
    EXPECT_TRUE(eventually([&] { return m_placement.loads().size() == 1; }));
    EXPECT_FALSE(m_creator->stop());
    EXPECT_EQ(countResets(KELM_ERROR_INVALID_DEVICE), kWaiting);
    tevo.cancelOrders("hang");
    EXPECT_TRUE(hasAnswered(kWaiting + 1));
    EXPECT_EQ(m_results.resets().back().error, -3);
    EXPECT_TRUE(m_creator->stop());
}

TEST_F(DeviceManagerCreatorTest, PlugEventsMoveGraphsAndIgnoreUnknownSubclasses) {
    start({describe("a", 0)});
    EXPECT_TRUE(m_creator->enqueueLoadGraph(makeGraphOf(0)));
    ASSERT_TRUE(hasCalled("a", DeviceCall::Allocate, 1));
    m_monitor->plug(describe("x", 9), true);
    m_monitor->plug(describe("b", 0), true);
    ASSERT_TRUE(hasCalled("b", DeviceCall::Open, 1));
    m_monitor->plug(describe("a", 0), false);
    EXPECT_TRUE(hasCalled("b", DeviceCall::Allocate, 1));
    EXPECT_TRUE(hasCalled("a", DeviceCall::Deallocate, 1));
    m_monitor->plug(describe("a", 0), true);
    EXPECT_TRUE(hasCalled("a", DeviceCall::Open, 2)) << "its old worker is destroyed";
    EXPECT_EQ(m_devices["x"].count(DeviceCall::Open), 0);
    for (int call = 0; call < 2; ++call) EXPECT_TRUE(m_creator->stop());
}

TEST_F(DeviceManagerCreatorTest, SimulatedDevicesStandInForThoseOfInvalidIds) {
    configure(R"({"device_settings": {"device_vid": "no number"}})");
    start({describe("a", 0)});
    for (const auto& [name, opened] :
         {std::pair("a", 0), std::pair("Fake0", 1), std::pair("Fake2", 1), std::pair("Fake3", 0)}) {
        EXPECT_EQ(m_devices[name].count(DeviceCall::Open), opened) << name;
    }
}

TEST_F(DeviceManagerCreatorTest, GraphsAndQuestionsReachTheManagersOfTheSubclasses) {
    start({describe("c", 2), describe("a", 0), describe("b", 0)});
    KelmGraph* const graph = makeGraphOf(2);
    KelmGraph* const stray = makeGraphOf(7);
    EXPECT_TRUE(m_creator->enqueueLoadGraph(graph));
    EXPECT_FALSE(m_creator->enqueueLoadGraph(stray));
    EXPECT_FALSE(m_creator->enqueueUnloadGraph(stray));
    ASSERT_TRUE(eventually([&] { return m_placement.loads().size() == 2; }));
    EXPECT_THAT(m_placement.loads(),
                UnorderedElementsAre(std::pair(stray, KELM_ERROR_INVALID_PARAM),
                                     std::pair(graph, KELM_OK)));

    const auto status = std::make_shared<KelmStatus>();
    m_creator->enqueueQueryDeviceStatus(status);
    ASSERT_TRUE(eventually([&] { return m_collector.statusSources().size() == 1; }));
    EXPECT_THAT(status->deviceNames, ElementsAre(testing::_, testing::_, "c"));
    EXPECT_THAT(status->deviceGraphNames, ElementsAre("NoGraph", "NoGraph", "graph1"));
    EXPECT_THAT(status->deviceSubclasses, ElementsAre(0, 0, 2));
    m_creator->enqueueQueryDeviceScheduler(status);
    ASSERT_TRUE(eventually([&] { return m_collector.statusSources().size() == 2; }));
    EXPECT_EQ(status->deviceSchedulerName, "DS.Squeeze2");

    // Each manager starts at the first row, and the count stays 0.
    auto package = std::make_unique<InfoPackage>();
    package->deviceCount = 7;
    m_creator->enqueueUpdateInfoPackage(package.get());
    ASSERT_TRUE(eventually([&] { return m_collector.packageSources().size() == 1; }));
    EXPECT_EQ(package->deviceCount, 0);
    EXPECT_EQ(package->devices[0].deviceId, status->deviceIds[2]);
    EXPECT_EQ(package->devices[1].deviceId, status->deviceIds[1]);
    EXPECT_TRUE(m_creator->enqueueUnloadGraph(graph));
    EXPECT_TRUE(eventually([&] { return m_placement.unloads() == std::vector{graph}; }));
}

TEST_F(DeviceManagerCreatorTest, FullPoolHoldsUpNoPackageAndNoDeviceIsNoReasonForSilence) {
    std::promise<void> released;
    const std::shared_future<void> release = released.get_future().share();
    Port<InfoCollector>::connect([&, release]() -> InfoCollector& {
        release.wait();
        return m_collector;
    });
    start({});
    constexpr size_t kRunningAndQueued = 23;
    const auto status = std::make_shared<KelmStatus>();
    for (size_t i = 0; i < kRunningAndQueued; ++i) m_creator->enqueueQueryDeviceScheduler(status);
    InfoPackage package{};
    m_creator->enqueueUpdateInfoPackage(&package);
    released.set_value();
    EXPECT_TRUE(
        eventually([&] { return m_collector.statusSources().size() == kRunningAndQueued; }));
    EXPECT_TRUE(eventually([&] { return m_collector.packageSources().size() == 1; }));
    EXPECT_EQ(status->deviceSchedulerName, "");
}

}  // namespace
}  // namespace kelm

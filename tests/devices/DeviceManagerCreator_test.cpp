#include "devices/DeviceManagerCreator.h"

#include "devices/DevicesRig.h"
#include "execution/WorkThread.h"
#include "fakes/Eventually.h"
#include "fakes/FakeClientDirectory.h"

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

TEST_F(DeviceManagerCreatorTest, SimulatedServiceResetsAllAtOnce) {
    configure(R"({"fake_device_settings": {"enable_fake_device": true,
                                           "fake_device_number": 2}})");
    start({});
    EXPECT_EQ(m_devices["Fake1"].count(DeviceCall::Open), 1);
    EXPECT_EQ(m_devices["Fake2"].count(DeviceCall::Open), 0);
    m_creator->enqueueResetDevice(kClient, 0, 1, 5, nullptr);
    EXPECT_THAT(resetErrors(), ElementsAre(KELM_OK));
}

TEST_F(DeviceManagerCreatorTest, BrokenTagMapOfOneGroupLeavesNothingRunning) {
    configure(R"({"scheduler_config": [{"subclass": 2, "graph_tag_map": {"camera": "many"}}]})");
    EXPECT_THROW(start({describe("a", 0), describe("b", 2)}), std::invalid_argument);
    EXPECT_EQ(m_devices["a"].count(DeviceCall::Open), 1);
    EXPECT_THAT(m_placement.loads(), IsEmpty());
}

}  // namespace
}  // namespace kelm

#include "execution/KelmFakeDevice.h"

#include "TestConfig.h"
#include "fakes/Eventually.h"
#include "fakes/TestPch.h"
#include "fakes/TestRecords.h"
#include "protocol/src/KelmError.h"

namespace kelm {

namespace {

// A clone that is loaded and ready, as a slave worker has it.
struct LoadedFake {
    KelmFakeDevice root{"Fake0"};
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "one");
    std::unique_ptr<KelmTask> task = makeTestTask(1, graph.get());
    std::unique_ptr<KelmDeviceBase> device;

    LoadedFake() {
        EXPECT_EQ(root.openDevice(), 0);
        device = root.clone();
        EXPECT_EQ(device->allocateGraph(graph.get()), 0);
    }
};

}  // namespace

TEST(KelmFakeDeviceTest, FullQueueRefusesAndEmptyQueueHasNoResult) {
    // A time-out below a second is none at all.
    useFakeDevices(R"("queue_capacity": 2, "wait_timeout": 500,)");
    LoadedFake fake;
    EXPECT_EQ(fake.device->getResult(fake.task.get()), -8);
    EXPECT_EQ(fake.device->loadTensor(fake.task.get()), 0);
    EXPECT_EQ(fake.device->loadTensor(fake.task.get()), 0);
    errno = 0;
    EXPECT_EQ(fake.device->loadTensor(fake.task.get()), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(fake.device->getResult(fake.task.get()), 0);
    EXPECT_EQ(fake.device->loadTensor(fake.task.get()), 0) << "a result makes room";
    EXPECT_EQ(fake.graph->getInferenceTimes(), 2u);
}

TEST(KelmFakeDeviceTest, WaitingLoadGoesOnAsSoonAsAResultIsTaken) {
    useFakeDevices(R"("queue_capacity": 1, "wait_timeout": 60000,)");
    LoadedFake fake;
    ASSERT_EQ(fake.device->loadTensor(fake.task.get()), 0);
    std::future<int> second = std::async(
        std::launch::async, [&fake] { return fake.device->loadTensor(fake.task.get()); });
    EXPECT_EQ(fake.device->getResult(fake.task.get()), 0);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(fake.device->getResult(fake.task.get()), 0);
}

TEST(KelmFakeDeviceTest, ClonesDoNotShareTheirQueues) {
    useFakeDevices(R"("wait_timeout": 500,)");
    LoadedFake fake;
    const auto other = fake.root.clone();
    ASSERT_EQ(other->allocateGraph(fake.graph.get()), 0);
    ASSERT_EQ(fake.device->loadTensor(fake.task.get()), 0);
    EXPECT_EQ(other->getResult(fake.task.get()), -8);
}

TEST(KelmFakeDeviceTest, GraphCarriesTheDevicesNameWhileItIsLoaded) {
    useFakeDevices();
    LoadedFake fake;
    EXPECT_EQ(fake.graph->getRunningDeviceNum(), 1);
    EXPECT_EQ(fake.graph->getCachedDeviceNum(), 1);
    EXPECT_EQ(fake.graph->getMemReq(), 10u);
    EXPECT_EQ(fake.root.deallocateGraph(makeTestGraph(7, "seven").get(), false), 0)
        << "nothing of it is there, and nothing fails";
    fake.device.reset();
    EXPECT_EQ(fake.graph->getRunningDeviceNum(), 0) << "a clone that goes takes its graph along";
    EXPECT_EQ(fake.graph->getCachedDeviceNum(), 0);
}

TEST(KelmFakeDeviceTest, ForgottenGraphMayDieBeforeTheDevice) {
    useFakeDevices();
    LoadedFake fake;
    fake.device->forgetGraph(fake.graph.get());
    EXPECT_EQ(fake.device->getCurrentGraph(), nullptr);
    EXPECT_EQ(fake.graph->getRunningDeviceNum(), 0);
    fake.task.reset();
    fake.graph.reset();
    fake.device.reset();
}

TEST(KelmFakeDeviceTest, UnknownGraphInfoIsRefused) {
    size_t size = 77;
    EXPECT_EQ(KelmFakeDevice::getGraphInfo(nullptr, 0, KelmGraphInfo(5), size),
              KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(size, 77u);
    EXPECT_EQ(KelmFakeDevice::getGraphInfo(nullptr, 0, GRAPH_INFO_THERMAL, size), 0);
    EXPECT_EQ(size, 104u);
}

TEST(KelmFakeDeviceTest, ThrottlingFollowsTheTemperature) {
    useFakeDevices();
    KelmFakeDevice device("Fake0");
    std::set<int> levels;
    const auto readsBothLevels = [&] {
        EXPECT_EQ(device.updateThermal(), 0);
        EXPECT_GE(device.getThermal(), 45.0f);
        EXPECT_LT(device.getThermal(), 95.0f);
        EXPECT_EQ(device.getThermalThrottlingLevel(), device.getThermal() >= 85.0f ? 1 : 0);
        levels.insert(device.getThermalThrottlingLevel());
        return levels.size() == 2;
    };
    EXPECT_TRUE(eventually(readsBothLevels));
}

TEST(LatencyDistributionTest, SpreadWithoutMeaningIsNoSpread) {
    std::mt19937 engine(1);
    const double kNan = std::numeric_limits<double>::quiet_NaN();
    const double kInf = std::numeric_limits<double>::infinity();
    for (const double stddev : {0.0, -1.0, kNan, kInf}) {
        SCOPED_TRACE(stddev);
        LatencyDistribution latency(7.0, stddev);
        for (int i = 0; i < 100; ++i) EXPECT_EQ(latency.draw(engine), 7);
    }
}

TEST(LatencyDistributionTest, DrawsStayWithinWhatAClockCanHold) {
    std::mt19937 engine(1);
    LatencyDistribution wild(5.0, 1e300);
    LatencyDistribution usual(100.0, 10.0);
    double sum = 0.0;
    for (int i = 0; i < 1000; ++i) {
        const long drawn = wild.draw(engine);
        EXPECT_GE(drawn, 0);
        EXPECT_LE(drawn, 86'400'000);
        sum += static_cast<double>(usual.draw(engine));
    }
    EXPECT_NEAR(sum / 1000, 100.0, 2.0);
}

TEST(KelmFakeDeviceTest, NegativeLatencyFallsBackToItsDefault) {
    addTestConfig(R"({"fake_device_settings": {"enable_fake_device": true,
        "alloc_graph_latency": -1, "latency_distribution_stddev": 0.0}})");
    const auto graph = makeTestGraph(1, "one");
    KelmFakeDevice device("Fake0");
    ASSERT_EQ(device.openDevice(), 0);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(device.allocateGraph(graph.get()), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5));
}

}  // namespace kelm

#include "execution/KelmFakeDevice.h"

#include "fakes/TestConfig.h"
#include "fakes/TestRecords.h"
#include "protocol/src/KelmError.h"

namespace kelm {

// Two clones with a graph. A time-out below a second is none at all.
TEST(KelmFakeDeviceTest, EachCloneHasAQueueOfItsOwnThatRefusesWhenItIsFullOrEmpty) {
    useFakeDevices(R"("queue_capacity": 2, "wait_timeout": 500,)");
    KelmFakeDevice root("Fake0");
    ASSERT_EQ(root.openDevice(), 0);
    auto graph = makeTestGraph(1, "one");
    auto task = makeTestTask(1, graph.get());
    const auto device = root.clone();
    auto other = root.clone();
    ASSERT_EQ(device->allocateGraph(graph.get()), 0);
    ASSERT_EQ(other->allocateGraph(graph.get()), 0);
    EXPECT_EQ(graph->getMemReq(), 10u);
    EXPECT_EQ(device->loadTensor(task.get()), 0);
    EXPECT_EQ(device->loadTensor(task.get()), 0);
    errno = 0;
    EXPECT_EQ(device->loadTensor(task.get()), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(other->getResult(task.get()), -8);
    EXPECT_EQ(device->getResult(task.get()), 0);
    EXPECT_EQ(device->loadTensor(task.get()), 0) << "a result makes room";

    EXPECT_EQ(graph->getRunningDeviceNum(), 1);
    EXPECT_EQ(root.deallocateGraph(makeTestGraph(7, "seven").get(), false), 0) << "not there";
    other.reset();
    EXPECT_EQ(graph->getRunningDeviceNum(), 0) << "a clone takes its graph along";
    EXPECT_EQ(graph->getCachedDeviceNum(), 0);
    device->forgetGraph(graph.get());
    EXPECT_EQ(device->getCurrentGraph(), nullptr);
    task.reset();
    graph.reset();  // before the device

    std::set<int> levels;
    for (int reading = 0; reading < 1000; ++reading) {
        EXPECT_EQ(root.updateThermal(), 0);
        EXPECT_EQ(root.getThermalThrottlingLevel(), root.getThermal() >= 85.0f ? 1 : 0);
        levels.insert(root.getThermalThrottlingLevel());
    }
    EXPECT_EQ(levels.size(), 2u);
    size_t size = 77;
    EXPECT_EQ(root.getGraphInfo(nullptr, 0, KelmGraphInfo(5), size), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(size, 77u);
}

TEST(KelmFakeDeviceTest, WaitingLoadGoesOnAsSoonAsAResultIsTaken) {
    useFakeDevices(R"("queue_capacity": 1, "wait_timeout": 60000,)");
    addTestConfig(R"({"fake_device_settings": {"alloc_graph_latency": -1}})");
    const auto graph = makeTestGraph(1, "one");
    KelmFakeDevice device("Fake0");
    ASSERT_EQ(device.openDevice(), 0);
    const auto task = makeTestTask(1, graph.get());
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(device.allocateGraph(graph.get()), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 5ms)
        << "a negative latency is the usual one";
    ASSERT_EQ(device.loadTensor(task.get()), 0);
    auto second = std::async(std::launch::async, [&] { return device.loadTensor(task.get()); });
    EXPECT_EQ(device.getResult(task.get()), 0);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(device.getResult(task.get()), 0);
}

TEST(LatencyDistributionTest, WildSpreadsDrawWhatAClockCanHold) {
    std::mt19937 engine(1);
    for (const double stddev : {0.0, -1.0, double(NAN), double(INFINITY)}) {
        SCOPED_TRACE(stddev);
        LatencyDistribution latency(7.0, stddev);
        for (int i = 0; i < 100; ++i) EXPECT_EQ(latency.draw(engine), 7);
    }
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

}  // namespace kelm

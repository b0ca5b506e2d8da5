#include "execution/KelmDeviceBase.h"

#include "fakes/ScriptedDevice.h"
#include "fakes/TestConfig.h"
#include "fakes/TestRecords.h"
#include "protocol/src/KelmError.h"
#include "utils/Tracer.h"

namespace kelm {
namespace {

class KelmDeviceBaseTest : public testing::Test {
 protected:
    KelmDeviceBaseTest() { EXPECT_EQ(root.openDevice(), 0); }

    std::shared_ptr<DeviceScript> script = std::make_shared<DeviceScript>();
    ScriptedDevice root{"dev", script};
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "one");
    std::unique_ptr<KelmTask> task = makeTestTask(1, graph.get());
};

}  // namespace

TEST_F(KelmDeviceBaseTest, WorkIsRefusedInTheWrongState) {
    ScriptedDevice closed("closed", script);
    KelmGraph blank(9, 1, "blank", 1);
    EXPECT_EQ(root.openDevice(), KELM_ERROR_DEVICE_ALREADY_OPEN);
    EXPECT_EQ(closed.allocateGraph(graph.get()), KELM_ERROR_DEVICE_NOT_OPEN);
    EXPECT_EQ(closed.resetDevice(), KELM_ERROR_INVALID_DEVICE);
    EXPECT_EQ(root.allocateGraph(nullptr), KELM_ERROR_GRAPH_VERIFY_FAILED);
    EXPECT_EQ(root.allocateGraph(&blank), KELM_ERROR_GRAPH_VERIFY_FAILED);
    EXPECT_EQ(root.deallocateGraph(nullptr, false), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(root.loadTensor(task.get()), KELM_ERROR_GRAPH_NOT_ALLOCATED);
    EXPECT_EQ(root.getResult(task.get()), KELM_ERROR_GRAPH_NOT_ALLOCATED);
    EXPECT_EQ(script->count(DeviceCall::Allocate), 0);
    EXPECT_EQ(script->count(DeviceCall::LoadTensor), 0);
}

TEST_F(KelmDeviceBaseTest, GraphsAreToldByTheirContentAndTheOneThatLeavesIsThePreviousOne) {
    const auto twin = makeTestGraph(2, "one");
    const auto other = makeTestGraph(3, "two");
    KelmDeviceBase::TimePoint time;
    ASSERT_EQ(root.allocateGraph(graph.get()), 0);
    EXPECT_EQ(root.allocateGraph(twin.get()), 0);
    EXPECT_EQ(script->count(DeviceCall::Allocate), 1);
    EXPECT_TRUE(root.getCurrentGraphLoadTime(time));
    EXPECT_FALSE(root.getPreviousGraphLoadTime(time));
    ASSERT_EQ(root.loadTensor(task.get()), 0);
    script->failAll(DeviceCall::GetResult, -1);
    EXPECT_EQ(root.getResult(task.get()), -1);
    EXPECT_EQ(graph->getInferenceTimes(), 1u) << "a failed result counts";
    EXPECT_EQ(root.getCurrentInferenceCount(), 1u);
    ASSERT_EQ(root.allocateGraph(other.get()), 0);
    EXPECT_EQ(root.getCurrentInferenceCount(), 0u);
    EXPECT_EQ(root.getPreviousInferenceCount(), 1u);
    ASSERT_EQ(root.deallocateGraph(other.get(), false), 0);
    EXPECT_EQ(root.getPreviousGraphName(), "graph3");
    EXPECT_FALSE(root.getCurrentGraphLoadTime(time));
    EXPECT_TRUE(root.getPreviousGraphUnloadTime(time));
    script->fail(DeviceCall::Allocate, 1, -3);
    EXPECT_EQ(root.allocateGraph(graph.get()), -3);
    EXPECT_EQ(graph->getLoadFailCount(), 1u);
    EXPECT_EQ(root.getCurrentGraph(), nullptr);
    const auto unloaded = std::exchange(time, {});
    EXPECT_TRUE(root.getPreviousGraphUnloadTime(time));
    EXPECT_EQ(time, unloaded) << "a failed load leaves it as it is";
}

// A handle is given again only once its trace has ended.
TEST_F(KelmDeviceBaseTest, AttemptWithoutResultEndsItsTrace) {
    const TempDir directory;
    const ScopedEnv tmpDir("TMPDIR", directory.path());
    enableTracer();
    ASSERT_EQ(root.allocateGraph(graph.get()), 0);
    script->fail(DeviceCall::LoadTensor, 1, -1);
    EXPECT_EQ(root.loadTensor(task.get()), -1);
    const uint64_t trace = task->getExecutionTraceIndex();
    EXPECT_EQ(root.loadTensor(task.get()), 0);
    EXPECT_EQ(task->getExecutionTraceIndex(), trace);
    EXPECT_EQ(root.getResult(task.get()), 0);
    EXPECT_EQ(TraceBeginCsv("next"), trace);
    disableTracer();
}

TEST_F(KelmDeviceBaseTest, DeviceThatCannotReleaseAGraphHasFailed) {
    ASSERT_EQ(root.allocateGraph(graph.get()), 0);
    script->fail(DeviceCall::Deallocate, 1, -6);
    EXPECT_EQ(root.deallocateGraph(graph.get(), false), -6);
    EXPECT_TRUE(root.isFailed());
    EXPECT_EQ(root.getCurrentGraph(), nullptr) << "its record may be deleted now";
    EXPECT_EQ(root.allocateGraph(graph.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(root.loadTensor(task.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(root.getResult(task.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(root.deallocateGraph(graph.get(), false), 0) << "graphs still come off";
}

TEST_F(KelmDeviceBaseTest, RootIsBusyFromTheFirstTaskOfItsClonesToTheLast) {
    const auto first = root.clone();
    const auto second = root.clone();
    EXPECT_EQ(second->getDeviceId(), root.getDeviceId());
    EXPECT_EQ(ScriptedDevice("next", script).getDeviceId(), root.getDeviceId() + 1);
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    ASSERT_EQ(second->allocateGraph(graph.get()), 0);
    EXPECT_EQ(root.getDeviceUtilization(), 0.0f);

    // A count that is off by one would leave the device busy for ever.
    ASSERT_EQ(first->loadTensor(task.get()), 0);
    ASSERT_EQ(second->loadTensor(task.get()), 0);
    const float begun = root.getDeviceUtilization();
    EXPECT_TRUE(eventually([&] { return root.getDeviceUtilization() > begun + 0.001f; }));
    script->fail(DeviceCall::LoadTensor, 1, -1);
    EXPECT_EQ(first->loadTensor(task.get()), -1);
    EXPECT_EQ(first->getResult(task.get()), 0);
    script->fail(DeviceCall::GetResult, 1, -1);
    EXPECT_EQ(second->getResult(task.get()), -1);
    const float busy = root.getDeviceUtilization();
    EXPECT_FALSE(eventually([&] { return root.getDeviceUtilization() > busy + 0.004f; }, 50ms))
        << "still busy with nothing in flight";
}

TEST(KelmDeviceBaseFactoryTest, MissingLibraryIsNamedOnceAndEveryCallAnswers) {
    addTestConfig(R"({"fake_device_settings": {"enable_fake_device": false}})");
    size_t size = 77;
    int count = 77;
    testing::internal::CaptureStdout();
    KelmDeviceBase::initPlatform();
    EXPECT_EQ(KelmDeviceBase::create("1.2")->openDevice(), KELM_ERROR_INVALID_DEVICE);
    EXPECT_EQ(KelmDeviceBase::getGraphInfo("x", 1, GRAPH_INFO_INPUT, size),
              KELM_ERROR_INVALID_DEVICE);
    EXPECT_EQ(KelmDeviceBase::resetAllDevices(), KELM_ERROR_INVALID_DEVICE);
    const std::string log = testing::internal::GetCapturedStdout();
    const size_t named = log.find("Error: library libtevo-kelm.so.0 cannot be loaded");
    EXPECT_NE(named, log.npos) << log;
    EXPECT_EQ(log.find("cannot be loaded", named + 40), log.npos) << log;
    EXPECT_EQ(size, 77u);
    EXPECT_FALSE(KelmDeviceBase::isFakeDeviceModeEnabled(&count));
    EXPECT_EQ(count, 77);
    useFakeDevices(R"("fake_device_number": 5,)");  // asked for at each call
    EXPECT_TRUE(KelmDeviceBase::isFakeDeviceModeEnabled(&count));
    EXPECT_EQ(count, 5);
    EXPECT_EQ(KelmDeviceBase::resetAllDevices(), 0);
    EXPECT_EQ(KelmDeviceBase::create("Fake0")->openDevice(), 0);
}

}  // namespace kelm

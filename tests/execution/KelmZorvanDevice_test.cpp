// Life of an accelerator and the graphs on it.
#include "execution/KelmZorvanDevice.h"

#include <climits>
#include <future>

#include "ZorvanFixture.h"
#include "fakes/Eventually.h"

namespace kelm {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class KelmZorvanDeviceTest : public ZorvanFixture {
 protected:
    // The names of the library's calls that release something.
    std::string releases() {
        std::string names;
        for (const std::string& name : tevo.takeCalls()) {
            if (name == "qxFifoDestroy") names += "F";
            if (name == "qxGraphDestroy") names += "G";
        }
        return names;
    }
};

}  // namespace

TEST(KelmZorvanPlatformTest, PlatformIsReadiedWithoutItsSettings) {
    ScriptedTevo tevo;
    addTestConfig(R"({"service_settings":
        {"tevo_log_level": 3, "common_timeout": 7, "alloc_graph_timeout": 9}})");
    KelmZorvanDevice::initPlatform();
    EXPECT_THAT(tevo.options, ElementsAre("0=3", "2=7", "4=9"));
    EXPECT_EQ(tevo.takeCalls().back(), "qxPlatformInit");
}

TEST(KelmZorvanPlatformTest, SizeOfAGraphIsReadForAnotherPurpose) {
    ScriptedTevo tevo;
    const int types[] = {QX_NINTPUT_SIZE, QX_NOUTPUT_SIZE, QX_TIMETAKEN_SIZE, QX_DEBUG_INFO_SIZE,
                         QX_THERMAL_SIZE};
    size_t result = 0;
    for (int what = GRAPH_INFO_INPUT; what <= GRAPH_INFO_THERMAL; ++what) {
        EXPECT_EQ(KelmZorvanDevice::getGraphInfo("x", 1, KelmGraphInfo(what), result), 0);
        EXPECT_EQ(result, 1000u + static_cast<size_t>(types[what]));
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(KelmZorvanDevice::getGraphInfo("x", 1, KelmGraphInfo(7), result), -5);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("Error: qxGraphGetInfoSize() failed, retCode=-5"));
}

TEST(KelmZorvanPlatformTest, FailedOpenLeavesTheDeviceOpenOrUnreset) {
    const struct {
        const char* call;
        int resets;
        const char* words;
    } rows[] = {
        {"qxDeviceOpenBooted", 0, "Error: qxDeviceOpenBooted() failed, device=1.2 rc=-6"},
        {"qxDeviceGetId", 1, " failed, device=1.2 rc=-6"},
        {"qxDeviceGetOption(2004)", 1,
         "Error: qxDeviceGetOption(QX_RO_DEVICE_MEMORY_SIZE) failed, device=1.2 rc=-6"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        ScriptedTevo tevo;
        tevo.fail(row.call, kGone);
        testing::internal::CaptureStdout();
        auto device = std::make_unique<KelmZorvanDevice>("1.2");
        EXPECT_EQ(device->openDevice(), kGone);
        device.reset();
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(row.words));
        EXPECT_EQ(tevo.count("qxDeviceHWReset"), row.resets);
        EXPECT_EQ(tevo.live(), 0);
    }
}

TEST_F(KelmZorvanDeviceTest, LoadKeepsNoOrder) {
    EXPECT_EQ(root->getDeviceId(), 4711u);
    EXPECT_EQ(first->getMemorySize(), 512u);
    root->setFifoCapacity(6);
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    EXPECT_THAT(tevo.takeCalls(),
                ElementsAre("qxDeviceGetOption(2003)", "qxGraphCreate", "qxGraphSetOption(1110)",
                            "qxDeviceGetOption(2003)", "qxGraphAllocate", "qxDeviceGetOption(2003)",
                            "qxGraphGetOption(1002)", "qxGraphGetOption(1004)",
                            "qxGraphGetOption(1003)", "qxGraphGetOption(1005)", "fifoIn",
                            "qxFifoAllocate", "fifoOut", "qxFifoAllocate"));
    EXPECT_EQ(tevo.fifoCapacity, 6u);
    EXPECT_EQ(graph->getMemReq(), 8u) << "as measured";
    EXPECT_EQ(graph->getRunningDeviceNum(), 1);
    EXPECT_THAT(root->getCachedGraphList(), ElementsAre(graph.get()));
    EXPECT_THAT(root->getCachedGraphNames(), ElementsAre("graph1"));
    EXPECT_EQ(first->deallocateGraph(graph.get(), false), 0);
    EXPECT_THAT(tevo.takeCalls(), ElementsAre("qxFifoDestroy", "qxFifoDestroy", "qxGraphDestroy"));
    EXPECT_EQ(graph->getCachedDeviceNum(), 0);
    EXPECT_EQ(graph->getRunningDeviceNum(), 0);
}

// Each step fails once with a lost device and once without.
TEST_F(KelmZorvanDeviceTest, FailedStepLeavesHandlesOrTheDeviceAsItIs) {
    const struct {
        const char* call;
        int skip;
        const char* released;
        const char* words;
    } rows[] = {
        {"qxGraphCreate", 0, "", "qxGraphCreate()"},
        {"qxGraphSetOption(1110)", 0, "G", "qxGraphSetOption()"},
        {"qxDeviceGetOption(2003)", 1, "G", "qxDeviceGetOption(QX_RO_DEVICE_CURRENT_MEMORY_USED)"},
        {"qxGraphAllocate", 0, "G", "qxGraphAllocate()"},
        {"qxDeviceGetOption(2003)", 2, "G", "qxDeviceGetOption(QX_RO_DEVICE_CURRENT_MEMORY_USED)"},
        {"qxGraphGetOption(1002)", 0, "G", "qxGraphGetOption(QX_RO_GRAPH_INPUT_COUNT)"},
        {"qxGraphGetOption(1004)", 0, "G",
         "qxGraphGetOption(QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS)"},
        {"qxGraphGetOption(1003)", 0, "G", "qxGraphGetOption(QX_RO_GRAPH_OUTPUT_COUNT)"},
        {"qxGraphGetOption(1005)", 0, "G",
         "qxGraphGetOption(QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS)"},
        {"fifoIn", 0, "G", "qxFifoInit(QX_FIFO_HOST_WO)"},
        {"qxFifoAllocate", 0, "FG", "qxFifoCreate()"},
        {"fifoOut", 0, "FG", "qxFifoInit(QX_FIFO_HOST_RO)"},
        {"qxFifoAllocate", 1, "FFG", "qxFifoCreate()"},
    };
    for (const auto& row : rows) {
        for (const int status : {kNoMemory, kGone}) {
            SCOPED_TRACE(row.call + std::to_string(row.skip) + " " + std::to_string(status));
            const int resets = tevo.count("qxDeviceHWReset");
            open("", 0, 0);
            tevo.fail(row.call, status, row.skip);
            testing::internal::CaptureStdout();
            EXPECT_EQ(first->allocateGraph(graph.get()), status);
            EXPECT_THAT(testing::internal::GetCapturedStdout(),
                        HasSubstr(std::string("Error: ") + row.words +
                                  " failed, device=1.2 rc=" + std::to_string(status)));
            EXPECT_EQ(releases(), row.released);
            EXPECT_EQ(tevo.count("qxDeviceHWReset"), resets + (status == kGone ? 1 : 0));
            EXPECT_THAT(root->getCachedGraphList(), IsEmpty());
            EXPECT_EQ(second->allocateGraph(other.get()),
                      status == kGone ? KELM_ERROR_DEVICE_FAILED : 0);
        }
    }
    EXPECT_EQ(other->getLoadFailCount(), 0u) << "a dead device does not use up the tries";
}

TEST_F(KelmZorvanDeviceTest, AbsurdCountsAreUsed) {
    const struct {
        int inputs, outputs, expected;
    } rows[] = {{0, 1, -5}, {1, -1, -5}, {INT_MAX, 1, -3}, {1, INT_MAX, -3}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.inputs);
        tevo.inputCount = row.inputs;
        tevo.outputCount = row.outputs;
        EXPECT_EQ(first->allocateGraph(graph.get()), row.expected);
        EXPECT_EQ(releases(), "G");
    }
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 0);
}

TEST_F(KelmZorvanDeviceTest, CachedGraphIsSentAgain) {
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
    EXPECT_EQ(graph->getCachedDeviceNum(), 1);
    EXPECT_EQ(graph->getRunningDeviceNum(), 0);
    (void)tevo.takeCalls();
    ASSERT_EQ(second->allocateGraph(graph.get()), 0);
    EXPECT_THAT(tevo.takeCalls(), IsEmpty());
    EXPECT_EQ(graph->getRunningDeviceNum(), 1);
    EXPECT_EQ(second->getCurrentGraph(), graph.get());
}

TEST_F(KelmZorvanDeviceTest, WrongGraphIsEvicted) {
    std::deque<std::unique_ptr<KelmGraph>> graphs;
    const auto load = [&](KelmDeviceBase& clone) {
        graphs.push_back(makeTestGraph(10 + graphs.size(), std::to_string(graphs.size())));
        EXPECT_EQ(clone.allocateGraph(graphs.back().get()), 0);
    };
    const auto park = [&](size_t index) {
        EXPECT_EQ(root->deallocateGraph(graphs[index].get(), true), 0);
    };
    root->setMaxCacheGraphNumber(0);
    for (int i = 0; i < 5; ++i) load(*first);
    EXPECT_EQ(root->getCachedGraphList().size(), 5u) << "all active: the limit is soft";
    park(3);
    park(1);
    load(*first);
    EXPECT_EQ(graphs[1]->getCachedDeviceNum(), 0) << "activated before the other one";
    EXPECT_EQ(graphs[3]->getCachedDeviceNum(), 1);
    EXPECT_EQ(root->getCachedGraphList().size(), 5u);

    root->setMaxCacheGraphNumber(100);
    load(*first);
    EXPECT_EQ(graphs[3]->getCachedDeviceNum(), 1) << "there is room for all";
    tevo.memoryUsed = 511u << 20;
    other->setMemReq(1);
    EXPECT_EQ(first->allocateGraph(other.get()), 0);
    EXPECT_EQ(graphs[3]->getCachedDeviceNum(), 0) << "the memory is full";
    EXPECT_EQ(root->deallocateGraph(graphs[3].get(), false), 0)
        << "an unload that was planned before is no failure";
    EXPECT_FALSE(root->isFailed());
    park(0);
    tevo.fail("qxDeviceGetOption(2003)", kGone);
    load(*first);
    EXPECT_EQ(graphs[0]->getCachedDeviceNum(), 1) << "nothing is evicted for want of a reading";
    EXPECT_FALSE(root->isFailed());
}

// One failure resets, while the other one must not wait for it.
TEST_F(KelmZorvanDeviceTest, HardwareIsResetTwiceOrTheOtherWorkerWaits) {
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    tevo.failAll("qxGraphCreate", kGone);
    tevo.block("qxDeviceHWReset");
    const auto third = makeTestGraph(3, "three");
    KelmTask* const task = addTask(ion("abcd"), ion("...."));
    tevo.failAll("qxFifoWriteIonElem", kGone);
    auto failing =
        std::async(std::launch::async, [&] { return second->allocateGraph(other.get()); });
    ASSERT_TRUE(eventually([&] { return tevo.count("qxDeviceHWReset") == 1; }));
    EXPECT_EQ(first->loadTensor(task), kGone);
    EXPECT_THAT(root->getCachedGraphList(), ElementsAre(graph.get()));
    tevo.release("qxDeviceHWReset");
    EXPECT_EQ(failing.get(), kGone);
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 1);
    EXPECT_EQ(graph->getCachedDeviceNum(), 0);
    EXPECT_EQ(first->loadTensor(task), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(first->allocateGraph(third.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(root->resetDevice(), 0) << "a client's wish is met by the same reset";
    EXPECT_EQ(first->deallocateGraph(graph.get(), false), 0);
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 1);
}

// The records go while the device still has its handles; a touch of them shows under ASan.
TEST_F(KelmZorvanDeviceTest, RecordIsFollowedAfterItsEnd) {
    const auto reset = [&] { EXPECT_EQ(root->resetDevice(), 0); };
    const auto forgetOne = [&] { first->forgetGraph(graph.get()); };
    const auto forgetAll = [&] { root->forgetGraphs(); };
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"after a reset", reset}, {"one is forgotten", forgetOne}, {"all are", forgetAll}};
    for (const auto& [what, letGo] : rows) {
        SCOPED_TRACE(what);
        open("", 0, 0);
        graph = makeTestGraph(1, "one");
        ASSERT_EQ(first->allocateGraph(graph.get()), 0);
        ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
        letGo();
        EXPECT_EQ(graph->getCachedDeviceNum(), 0);
        graph.reset();
        EXPECT_THAT(root->getCachedGraphNames(), IsEmpty());
        EXPECT_GT(tevo.live(), 3) << "the handles stay until the device goes";
        tevo.failAll("qxFifoDestroy", kGone);
        close();
        tevo.failAll("qxFifoDestroy", 0);
    }
}

// A graph that is sent while another thread loses the device.
TEST_F(KelmZorvanDeviceTest, LostDeviceTakesAGraphIn) {
    tevo.block("fifoOut");
    auto loading =
        std::async(std::launch::async, [&] { return first->allocateGraph(graph.get()); });
    ASSERT_TRUE(eventually([&] { return tevo.count("fifoOut") == 1; }));
    EXPECT_EQ(root->resetDevice(), 0);
    tevo.release("fifoOut");
    EXPECT_EQ(loading.get(), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(graph->getCachedDeviceNum(), 0);
    EXPECT_THAT(root->getCachedGraphList(), IsEmpty());
}

TEST_F(KelmZorvanDeviceTest, GraphCallThatNeverReturnsStopsTasksAndReaders) {
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    KelmTask* const task = addTask(ion("abcd"), ion("...."));
    tevo.block("qxGraphAllocate");
    auto hanging =
        std::async(std::launch::async, [&] { return second->allocateGraph(other.get()); });
    ASSERT_TRUE(eventually([&] { return tevo.count("qxGraphAllocate") == 2; }));
    EXPECT_EQ(first->loadTensor(task), 0);
    EXPECT_EQ(first->getResult(task), 0);
    EXPECT_THAT(root->getCachedGraphNames(), ElementsAre("graph1"));
    root->forgetGraphs();
    EXPECT_EQ(root->resetDevice(), 0);
    tevo.release("qxGraphAllocate");
    EXPECT_EQ(hanging.get(), KELM_ERROR_DEVICE_FAILED);
}

}  // namespace kelm

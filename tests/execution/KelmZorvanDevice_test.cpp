// Life of an accelerator and the graphs on it.
#include "execution/KelmZorvanDevice.h"

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

TEST(KelmZorvanPlatformTest, PlatformIsReadiedBehindItsSettings) {
    SimulatedLibraries tevo;
    addTestConfig(R"({"service_settings":
        {"tevo_log_level": 3, "common_timeout": 7, "alloc_graph_timeout": 9}})");
    KelmZorvanDevice::initPlatform();
    EXPECT_THAT(tevo.takeCalls(),
                ElementsAre("0=3", "qxGlobalSetOption", "2=7", "qxGlobalSetOption", "4=9",
                            "qxGlobalSetOption", "qxPlatformInit"));
}

TEST(KelmZorvanPlatformTest, SizesAreReadOutOfABlob) {
    SimulatedLibraries tevo;
    const std::string blob = "KELMSIM input=16 output=40 times=3 debug=5\n";
    size_t result = 0;
    const size_t sizes[] = {16, 40, 12, 5, kThermalStatsSize};
    for (int what = GRAPH_INFO_INPUT; what <= GRAPH_INFO_THERMAL; ++what) {
        EXPECT_EQ(
            KelmZorvanDevice::getGraphInfo(blob.data(), blob.size(), KelmGraphInfo(what), result),
            0);
        EXPECT_EQ(result, sizes[what]);
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(KelmZorvanDevice::getGraphInfo("x", 1, KelmGraphInfo(7), result), -5);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("Error: qxGraphGetInfoSize() failed, retCode=-5"));
}

TEST(KelmZorvanPlatformTest, FailedOpenResetsWhatWasOpenedAndClosesIt) {
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
        SimulatedLibraries tevo;
        tevo.order(std::string("fail 1.2 ") + row.call + " -6");
        testing::internal::CaptureStdout();
        auto device = std::make_unique<KelmZorvanDevice>("1.2");
        EXPECT_EQ(device->openDevice(), kLost);
        device.reset();
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(row.words));
        EXPECT_EQ(tevo.count("qxDeviceHWReset"), row.resets);
        EXPECT_EQ(tevo.live(), 0);
    }
}

TEST_F(KelmZorvanDeviceTest, LoadKeepsTheOrderOfItsCalls) {
    open("", 0, 0);
    EXPECT_EQ(root->getDeviceId(), 0u) << "as the library says, and not counted";
    EXPECT_EQ(first->getMemorySize(), 512u);
    root->setFifoCapacity(6);
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    EXPECT_THAT(tevo.takeCalls(),
                ElementsAre("qxDeviceGetOption(2003)", "qxGraphCreate", "qxGraphSetOption(1110)",
                            "qxDeviceGetOption(2003)", "qxGraphAllocate", "qxDeviceGetOption(2003)",
                            "qxGraphGetOption(1002)", "qxGraphGetOption(1004)",
                            "qxGraphGetOption(1003)", "qxGraphGetOption(1005)", "qxFifoCreate",
                            "qxFifoAllocate(6)", "qxFifoCreate", "qxFifoAllocate(6)"));
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
TEST_F(KelmZorvanDeviceTest, FailedStepReleasesWhatWasMadeAndResetsALostDevice) {
    const struct {
        const char* call;
        int skip;
        const char* released;
        const char* words;
    } rows[] = {
        {"- qxGraphCreate", 0, "", "qxGraphCreate()"},
        {"- qxGraphSetOption(1110)", 0, "G", "qxGraphSetOption()"},
        {"1.2 qxDeviceGetOption(2003)", 1, "G",
         "qxDeviceGetOption(QX_RO_DEVICE_CURRENT_MEMORY_USED)"},
        {"1.2 qxGraphAllocate", 0, "G", "qxGraphAllocate()"},
        {"1.2 qxDeviceGetOption(2003)", 2, "G",
         "qxDeviceGetOption(QX_RO_DEVICE_CURRENT_MEMORY_USED)"},
        {"1.2 qxGraphGetOption(1002)", 0, "G", "qxGraphGetOption(QX_RO_GRAPH_INPUT_COUNT)"},
        {"1.2 qxGraphGetOption(1004)", 0, "G",
         "qxGraphGetOption(QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS)"},
        {"1.2 qxGraphGetOption(1003)", 0, "G", "qxGraphGetOption(QX_RO_GRAPH_OUTPUT_COUNT)"},
        {"1.2 qxGraphGetOption(1005)", 0, "G",
         "qxGraphGetOption(QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS)"},
        {"- qxFifoCreate", 0, "G", "qxFifoInit(QX_FIFO_HOST_WO)"},
        {"1.2 qxFifoAllocate", 0, "FG", "qxFifoCreate()"},
        {"- qxFifoCreate", 1, "FG", "qxFifoInit(QX_FIFO_HOST_RO)"},
        {"1.2 qxFifoAllocate", 1, "FFG", "qxFifoCreate()"},
    };
    for (const auto& row : rows) {
        for (const int status : {kNoMemory, kLost}) {
            SCOPED_TRACE(row.call + std::to_string(row.skip) + " " + std::to_string(status));
            const int resets = tevo.count("qxDeviceHWReset");
            open("", 0, 0);
            fail(row.call, status, row.skip);
            testing::internal::CaptureStdout();
            EXPECT_EQ(first->allocateGraph(graph.get()), status);
            EXPECT_THAT(testing::internal::GetCapturedStdout(),
                        HasSubstr(std::string("Error: ") + row.words +
                                  " failed, device=1.2 rc=" + std::to_string(status)));
            EXPECT_EQ(releases(), row.released);
            EXPECT_EQ(tevo.count("qxDeviceHWReset"), resets + (status == kLost ? 1 : 0));
            EXPECT_THAT(root->getCachedGraphList(), IsEmpty());
            EXPECT_EQ(second->allocateGraph(other.get()),
                      status == kLost ? KELM_ERROR_DEVICE_FAILED : 0);
        }
    }
    EXPECT_EQ(other->getLoadFailCount(), 0u) << "a dead device does not use up the tries";
}

TEST_F(KelmZorvanDeviceTest, GraphsThatCannotRunAreRefusedAndLeaveTheDeviceAsItIs) {
    const std::pair<const char*, int> rows[] = {
        {"inputs=0", -5},           {"outputs=4294967295", -5}, {"inputs=2147483647", -3},
        {"outputs=2147483647", -3}, {"memory=497", -3},         {"memory=many", -10}};
    for (const auto& [count, expected] : rows) {
        SCOPED_TRACE(count);
        EXPECT_EQ(first->allocateGraph(makeGraph(3, count).get()), expected);
        EXPECT_EQ(releases(), "G");
    }
    graph = makeGraph(3, "memory=496");
    EXPECT_EQ(first->allocateGraph(graph.get()), 0) << "fills it";
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 0);
    EXPECT_EQ(KelmZorvanDevice("1.2").openDevice(), -1) << "one at a time";
}

TEST_F(KelmZorvanDeviceTest, CachedGraphReturnsWithoutACall) {
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

TEST_F(KelmZorvanDeviceTest, OldestInactiveGraphIsEvictedForRoom) {
    std::deque<std::unique_ptr<KelmGraph>> graphs;
    const auto load = [&](uint32_t wantedMb = 1) {
        graphs.push_back(makeGraph(10 + graphs.size()));
        graphs.back()->setMemReq(wantedMb);
        EXPECT_EQ(first->allocateGraph(graphs.back().get()), 0);
    };
    const auto park = [&](size_t index) {
        EXPECT_EQ(root->deallocateGraph(graphs[index].get(), true), 0);
    };
    root->setMaxCacheGraphNumber(0);
    for (int i = 0; i < 5; ++i) load();
    EXPECT_EQ(root->getCachedGraphList().size(), 5u) << "all active: the limit is soft";
    park(3);
    park(1);
    load();
    EXPECT_EQ(graphs[1]->getCachedDeviceNum(), 0) << "activated before the other one";
    EXPECT_EQ(graphs[3]->getCachedDeviceNum(), 1);
    EXPECT_EQ(root->getCachedGraphList().size(), 5u);

    root->setMaxCacheGraphNumber(100);
    load(364);  // and a quarter: 455 of 512 MB, with 16 of the firmware and 5 times 8 in use
    EXPECT_EQ(graphs[3]->getCachedDeviceNum(), 1) << "there is room, to the last MB";
    load(359);  // 448, with 64 in use
    EXPECT_EQ(graphs[3]->getCachedDeviceNum(), 0) << "the memory is full";
    EXPECT_EQ(root->deallocateGraph(graphs[3].get(), false), 0)
        << "an unload that was planned before is no failure";
    EXPECT_FALSE(root->isFailed());
    park(0);
    fail("1.2 qxDeviceGetOption(2003)", kLost);
    load();
    EXPECT_EQ(graphs[0]->getCachedDeviceNum(), 1) << "nothing is evicted for want of a reading";
    EXPECT_FALSE(root->isFailed());
}

// One failure resets, while the other one must not wait for it.
TEST_F(KelmZorvanDeviceTest, OneOfTwoFailuresResetsAndTheOtherDoesNotWait) {
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    tevo.order("fail - qxGraphCreate -6");
    tevo.order("fail 1.2 qxFifoWriteIonElem -6");
    tevo.order("hang 1.2 qxDeviceHWReset");
    const auto third = makeGraph(3);
    KelmTask* const task = addTask(ion("abcd"), ion("...."));
    auto failing =
        std::async(std::launch::async, [&] { return second->allocateGraph(other.get()); });
    ASSERT_TRUE(eventually([&] { return tevo.count("qxDeviceHWReset") == 1; }));
    EXPECT_EQ(first->loadTensor(task), kLost);
    EXPECT_THAT(root->getCachedGraphList(), ElementsAre(graph.get()));
    tevo.cancelOrders("hang");
    EXPECT_EQ(failing.get(), kLost);
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 1);
    EXPECT_EQ(graph->getCachedDeviceNum(), 0);
    EXPECT_EQ(first->loadTensor(task), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(first->allocateGraph(third.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(root->resetDevice(), 0) << "a client's wish is met by the same reset";
    EXPECT_EQ(first->deallocateGraph(graph.get(), false), 0);
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 1);
}

// The records are deleted while the device still has its handles; a touch shows under ASan.
TEST_F(KelmZorvanDeviceTest, RecordIsNotFollowedAfterItsEnd) {
    const auto reset = [&] { EXPECT_EQ(root->resetDevice(), 0); };
    const auto forgetOne = [&] { first->forgetGraph(graph.get()); };
    const auto forgetAll = [&] { root->forgetGraphs(); };
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"after a reset", reset}, {"one is forgotten", forgetOne}, {"all are", forgetAll}};
    for (const auto& [what, letGo] : rows) {
        SCOPED_TRACE(what);
        open("", 0, 0);
        graph = makeGraph(1);
        ASSERT_EQ(first->allocateGraph(graph.get()), 0);
        ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
        letGo();
        EXPECT_EQ(graph->getCachedDeviceNum(), 0);
        graph.reset();
        EXPECT_THAT(root->getCachedGraphNames(), IsEmpty());
        EXPECT_GT(tevo.live(), 3) << "the handles stay until the device goes";
        tevo.order("fail 1.2 qxFifoDestroy -6");
        close();
        tevo.cancelOrders();
    }
}

// Nor does the device take the graph in that comes out of such a call after its loss.
TEST_F(KelmZorvanDeviceTest, GraphCallThatDoesNotReturnLeavesTasksAndReadersAlone) {
    ASSERT_EQ(first->allocateGraph(graph.get()), 0);
    KelmTask* const task = addTask(ion("abcd"), ion("...."));
    tevo.order("hang 1.2 qxGraphAllocate");
    tevo.order("fail 1.2 qxDeviceHWReset -1");  // the board itself stays alive
    auto hanging =
        std::async(std::launch::async, [&] { return second->allocateGraph(other.get()); });
    ASSERT_TRUE(eventually([&] { return tevo.count("qxGraphAllocate") == 2; }));
    EXPECT_EQ(first->loadTensor(task), 0);
    EXPECT_EQ(first->getResult(task), 0);
    EXPECT_THAT(root->getCachedGraphNames(), ElementsAre("graph1"));
    root->forgetGraphs();
    EXPECT_EQ(root->resetDevice(), -1);
    tevo.cancelOrders("hang");
    EXPECT_EQ(hanging.get(), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(other->getCachedDeviceNum(), 0);
    EXPECT_THAT(root->getCachedGraphList(), IsEmpty());
}

}  // namespace kelm

#include "execution/KelmZorvanDevice.h"

#include "ZorvanFixture.h"

namespace kelm {
namespace {

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

TEST(KelmZorvanPlatformTest, PlatformIsReadiedBehindItsSettingsAndReadsTheSizesOfABlob) {
    SimulatedLibraries tevo;
    addTestConfig(R"({"service_settings":
        {"tevo_log_level": 3, "common_timeout": 7, "alloc_graph_timeout": 9}})");
    KelmZorvanDevice::initPlatform();
    EXPECT_THAT(tevo.takeCalls(),
                ElementsAre("0=3", "qxGlobalSetOption", "2=7", "qxGlobalSetOption", "4=9",
                            "qxGlobalSetOption", "qxPlatformInit"));
    const std::string blob = "KELMSIM input=16 output=40 times=3 debug=5\n";
    size_t result = 0;
    const size_t sizes[] = {16, 40, 12, 5, kThermalStatsSize};
    for (int what = GRAPH_INFO_INPUT; what <= GRAPH_INFO_THERMAL; ++what) {
        const auto info = KelmGraphInfo(what);
        EXPECT_EQ(KelmZorvanDevice::getGraphInfo(blob.data(), blob.size(), info, result), 0);
        EXPECT_EQ(result, sizes[what]);
    }
    EXPECT_EQ(KelmZorvanDevice::getGraphInfo("x", 1, KelmGraphInfo(7), result), kRefused);
}

TEST(KelmZorvanPlatformTest, FailedOpenResetsWhatWasOpenedAndClosesIt) {
    const std::pair<const char*, int> rows[] = {
        {"qxDeviceOpenBooted", 0}, {"qxDeviceGetId", 1}, {"qxDeviceGetOption(2004)", 1}};
    for (const auto& [call, resets] : rows) {
        SCOPED_TRACE(call);
        SimulatedLibraries tevo;
        tevo.order(std::string("fail 1.2 ") + call + " -6");
        EXPECT_EQ(KelmZorvanDevice("1.2").openDevice(), kLost);
        EXPECT_EQ(tevo.count("qxDeviceHWReset"), resets);
        EXPECT_EQ(tevo.live(), 0);
    }
}

TEST_F(KelmZorvanDeviceTest, LoadKeepsTheOrderOfItsCalls) {
    open();
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

    ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
    EXPECT_EQ(graph->getCachedDeviceNum(), 1);
    EXPECT_EQ(graph->getRunningDeviceNum(), 0);
    ASSERT_EQ(second->allocateGraph(graph.get()), 0);
    EXPECT_EQ(graph->getRunningDeviceNum(), 1);
    EXPECT_THAT(tevo.takeCalls(), IsEmpty()) << "a cached graph returns without a call";
    EXPECT_EQ(second->deallocateGraph(graph.get(), false), 0);
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
    } rows[] = {
        {"- qxGraphCreate", 0, ""},
        {"- qxGraphSetOption(1110)", 0, "G"},
        {"1.2 qxDeviceGetOption(2003)", 1, "G"},
        {"1.2 qxGraphAllocate", 0, "G"},
        {"1.2 qxDeviceGetOption(2003)", 2, "G"},
        {"1.2 qxGraphGetOption(1002)", 0, "G"},
        {"1.2 qxGraphGetOption(1004)", 0, "G"},
        {"1.2 qxGraphGetOption(1003)", 0, "G"},
        {"1.2 qxGraphGetOption(1005)", 0, "G"},
        {"- qxFifoCreate", 0, "G"},
        {"1.2 qxFifoAllocate", 0, "FG"},
        {"- qxFifoCreate", 1, "FG"},
        {"1.2 qxFifoAllocate", 1, "FFG"},
    };
    for (const auto& row : rows) {
        for (const int status : {kNoMemory, kLost}) {
            SCOPED_TRACE(row.call + std::to_string(row.skip) + " " + std::to_string(status));
            const int resets = tevo.count("qxDeviceHWReset");
            open();
            fail(row.call, status, row.skip);
            EXPECT_EQ(first->allocateGraph(graph.get()), status);
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
    KelmTask* const task = ionTask();
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
    EXPECT_EQ(first->allocateGraph(other.get()), KELM_ERROR_DEVICE_FAILED);
    EXPECT_EQ(root->resetDevice(), 0) << "a client's wish is met by the same reset";
    EXPECT_EQ(first->deallocateGraph(graph.get(), false), 0);
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 1);
}

// The records are deleted while the device still has its handles; a touch shows under ASan.
TEST_F(KelmZorvanDeviceTest, RecordIsNotFollowedAfterItsEnd) {
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"after a reset", [&] { EXPECT_EQ(root->resetDevice(), 0); }},
        {"one is forgotten", [&] { first->forgetGraph(graph.get()); }},
        {"all are", [&] { root->forgetGraphs(); }}};
    for (const auto& [what, letGo] : rows) {
        SCOPED_TRACE(what);
        open();
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
    KelmTask* const task = ionTask();
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

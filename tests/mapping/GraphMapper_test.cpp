#include "scheduling/mapping/GraphMapper.h"

#include <limits>

#include "MapperPool.h"

namespace kelm {
namespace {

TEST(MapperModel, MarginOfMemoryIsAskedForOnlyWhenAGraphIsAdded) {
    MapperPool pool(0, 1);
    MapperModel& model = pool.model;
    model.addDevice(workerKey(0), 100, "worker");
    EXPECT_FALSE(model.addGraph(graphKey(0), 81, 0, "margin does not fit", 2));
    EXPECT_FALSE(model.addGraph(graphKey(0), 0xFFFFFFFF, 0, "margin beyond 32 bits", 2));
    EXPECT_TRUE(model.addGraph(graphKey(0), 80, 0, "fits", 2));
    EXPECT_EQ(pool.graph(0).memReq, 100u);
    EXPECT_EQ(pool.graph(0).devReq, 0.5f);
    EXPECT_FALSE(model.updateGraph(graphKey(0), 0.5f, 101, 0));
    EXPECT_TRUE(pool.graph(0).isNewGraph);
    EXPECT_TRUE(model.updateGraph(graphKey(0), 0.5f, 100, 0));
    EXPECT_FALSE(pool.graph(0).isNewGraph);
}

TEST(MapperModel, KnownAndUnknownKeysChangeNothing) {
    MapperPool pool(1, 1, {0.5f});
    MapperModel& model = pool.model;
    EXPECT_TRUE(model.addDevice(workerKey(0), 7, "again"));
    EXPECT_TRUE(model.addGraph(graphKey(0), 7, 7, "again", 1));
    EXPECT_EQ(model.devices().size(), 1u);
    EXPECT_EQ(model.getDeviceMemSize(), 512u);
    EXPECT_EQ(pool.graph(0).taskNum, 0);
    EXPECT_FALSE(model.removeDevice(workerKey(5)));
    EXPECT_FALSE(model.removeGraph(graphKey(5)));
    EXPECT_FALSE(model.updateGraph(graphKey(5), 1.0f, 1, 1));
    EXPECT_FALSE(model.setPendGraph(graphKey(5), true));
}

TEST(MapperModel, DemandIsSmoothedAndNeverLeavesTheRange) {
    struct Row {
        const char* what;
        bool slave;
        float measure;
        float expected;
    };
    using Limits = std::numeric_limits<float>;
    const Row rows[] = {
        {"two thirds fresh", true, 2.5f, (2.5f + 2.5f) / 3.0f + 1.0f / 3.0f},
        {"one third fresh", false, 2.5f, (1.0f + 1.0f) / 3.0f + 2.5f / 3.0f},
        {"negative is nothing", true, -3.0f, 1.0f / 3.0f},
        {"not a number is nothing", true, Limits::quiet_NaN(), 1.0f / 3.0f},
        {"infinite is all devices", true, Limits::infinity(), (4.0f + 4.0f) / 3.0f + 1.0f / 3.0f},
        {"beyond reason is cut", true, 3e38f, (1e30f + 1e30f) / 3.0f + 1.0f / 3.0f},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(4, 1, {1.0f});
        pool.graph(0).slaveGroup = row.slave;
        EXPECT_TRUE(pool.model.updateGraph(graphKey(0), row.measure, 1, 0));
        EXPECT_EQ(pool.graph(0).devReq, row.expected);
    }
}

TEST(MapperModel, OnlyRealMovesCallForAMapping) {
    struct Row {
        const char* what;
        float old, measure;
        unsigned int taskNum;
        bool changed;
    };
    const Row rows[] = {
        {"same", 1.0f, 1.0f, 100, false},          {"5 tasks more", 1.0f, 1.0f, 105, false},
        {"6 tasks more", 1.0f, 1.0f, 106, true},   {"5 tasks fewer", 1.0f, 1.0f, 95, false},
        {"6 tasks fewer", 1.0f, 1.0f, 94, true},   {"within a tenth", 1.0f, 1.3f, 100, false},
        {"beyond a tenth", 1.0f, 1.5f, 100, true}, {"nothing left", 0.0f, 0.0f, 100, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(1, 1, {row.old});
        pool.graph(0).taskNum = 100;
        pool.model.clearChanged();
        pool.model.updateGraph(graphKey(0), row.measure, 1, row.taskNum);
        EXPECT_EQ(pool.model.checkChanged(3), row.changed);
    }
}

TEST(MapperModel, RemovedGraphIsNowhereAndItsPartnerMovesUp) {
    MapperPool pool(1, 2, {0.5f, 0.5f, 0.6f});
    MapperModel& model = pool.model;
    ASSERT_TRUE(pool.remap());
    const GraphItem* first = pool.device(0).graphs.find(0);
    const GraphItem* second = pool.device(0).graphs.find(1);
    ASSERT_NE(second, nullptr);
    model.clearChanged();
    EXPECT_TRUE(model.removeGraph(first->graph));
    EXPECT_TRUE(model.checkChanged(3));
    for (const DeviceItem* item : {model.devices()[0], model.shadows()[0]}) {
        EXPECT_EQ(item->graphs.size(), 1u);
        EXPECT_EQ(item->graphs.find(0), second);
    }
    EXPECT_EQ(pool.device(0).mem, second->memReq);
    ASSERT_EQ(model.pendingGraphs().size(), 1u);
    EXPECT_TRUE(model.removeGraph(model.pendingGraphs()[0]->graph));
    EXPECT_TRUE(model.pendingGraphs().empty());
    EXPECT_TRUE(model.removeGraph(second->graph));
    EXPECT_EQ(pool.device(0).devStatus, MAPPER_GRAPH_NONE);
}

TEST(GraphMapper, ResultIsWhatTheDevicesHoldAndFollowsChanges) {
    Log::instance().setLogLevel(0);
    GraphMapper mapper;
    mapper.setMaxGraphNumPerDevice(2);
    mapper.setMaxGraphNumPerDevice(0);  // ignored
    mapper.setMaxPendingCycle(3);
    const auto expectMap = [&mapper](const GraphMapper::MapResult& expected) {
        ASSERT_TRUE(mapper.mapGraph());
        EXPECT_EQ(mapper.getGraphMapperResult(), expected);
    };
    for (size_t i = 0; i < 2; ++i) mapper.addDevice(workerKey(i), 512, "worker");
    expectMap({{workerKey(0), {}}, {workerKey(1), {}}});
    for (size_t i = 0; i < 3; ++i) mapper.addGraph(graphKey(i), 1, 0, "graph");
    expectMap({{workerKey(0), {graphKey(0), graphKey(2)}}, {workerKey(1), {graphKey(1)}}});
    for (const bool pends : {true, false, true}) {  // lasts until a mapping
        EXPECT_TRUE(mapper.setPendGraph(graphKey(0), pends));
        EXPECT_EQ(mapper.getGraphPendingState().at(graphKey(0)), pends);
    }
    expectMap({{workerKey(0), {graphKey(0), graphKey(2)}}, {workerKey(1), {graphKey(1)}}});
    mapper.addGraph(graphKey(3), 1, 0, "graph");
    ASSERT_TRUE(mapper.mapGraph());
    EXPECT_EQ(mapper.getGraphMapperResult().at(workerKey(1)),
              (std::set<KelmGraph*>{graphKey(2), graphKey(3)}));
    mapper.removeDevice(workerKey(1));
    ASSERT_TRUE(mapper.mapGraph());
    EXPECT_EQ(mapper.getGraphMapperResult().size(), 1u);
    mapper.removeDevice(workerKey(0));
    expectMap({});
}

}  // namespace
}  // namespace kelm

#include <gtest/gtest.h>

#include <limits>

#include "GraphMapperProbe.h"
#include "utils/Log.h"

namespace kelm {
namespace {

// Graphs by their keys' index, in the order of their places.
using Places = std::vector<std::vector<size_t>>;

size_t indexOf(const KelmGraph* graph) {
    size_t index = 0;
    while (graphKey(index) != graph) ++index;
    return index;
}

Places placesOf(const DeviceItemSet& devices) {
    Places places;
    for (const DeviceItem* device : devices) {
        std::vector<size_t>& here = places.emplace_back();
        for (const GraphItem* item : device->graphs) here.push_back(indexOf(item->graph));
    }
    return places;
}

// A mapper with devices of 512 MB and graphs of such demands, none of them new.
class Pool {
 public:
    Pool(size_t devices, int maxGraphs, const std::vector<float>& demands) {
        Log::instance().setLogLevel(0);
        m_mapper.setMaxGraphNumPerDevice(maxGraphs);
        m_mapper.setMaxPendingCycle(3);
        m_mapper.setMaxPendingTaskNum(20);
        for (size_t i = 0; i < devices; ++i) m_mapper.addDevice(workerKey(i), 512, "worker");
        for (const float demand : demands) addGraph(demand);
    }
    void addGraph(float demand) {
        const size_t index = m_probe.graphs().size();
        m_mapper.addGraph(graphKey(index), 1, 0, "graph");
        m_probe.graph(index).devReq = demand;
        m_probe.graph(index).isNewGraph = false;
    }
    bool remap() {
        m_probe.changed() = true;
        return m_mapper.mapGraph();
    }
    void enforce(size_t device, std::vector<size_t> graphs) {
        DeviceItem& item = m_probe.device(device);
        item.devStatus = MAPPER_GRAPH_RUN;
        item.graphs.assign(&m_probe.graph(graphs[0]));
        if (graphs.size() == 2) item.graphs.setSecond(&m_probe.graph(graphs[1]));
    }

    GraphMapper m_mapper;
    GraphMapperProbe m_probe{m_mapper};
};

TEST(GraphMapperMapping, PlanAndMatchOfThreeDevicesComeOutAsWorkedOut) {
    Pool pool(3, 2, {1.4f, 0.9f, 0.2f, 0.5f});
    GraphMapperProbe& probe = pool.m_probe;
    ASSERT_EQ(probe.buildPlan(3), 0);
    EXPECT_EQ(placesOf(probe.shadows()), (Places{{0}, {2, 1}, {3, 0}}));
    EXPECT_FLOAT_EQ(probe.shadows()[0]->util, 1.0f);
    EXPECT_FLOAT_EQ(probe.shadows()[1]->util, 1.1f);
    EXPECT_FLOAT_EQ(probe.shadows()[2]->util, 0.9f);

    pool.enforce(0, {0});
    pool.enforce(1, {1});
    pool.enforce(2, {2, 3});
    probe.post();
    // The swaps of the comparisons stay: the second shadow was first turned for device 1.
    EXPECT_EQ(placesOf(probe.devices()), (Places{{0}, {1, 2}, {0, 3}}));
    EXPECT_EQ(probe.stableDevices(), 1u);
}

TEST(GraphMapperMapping, ScoresTellHowMuchOfADeviceStays) {
    struct Row {
        std::vector<size_t> real;
        std::vector<int> scores;
    };
    const Row rows[] = {{{0}, {4, 0, 2}},    {{1}, {0, 2, 0}},    {{2, 3}, {0, 1, 0}},
                        {{0, 3}, {3, 0, 4}}, {{0, 1}, {3, 0, 1}}, {{3, 0}, {0, 0, 4}}};
    Pool pool(3, 2, {1.4f, 0.9f, 0.2f, 0.5f});
    ASSERT_EQ(pool.m_probe.buildPlan(3), 0);
    for (const Row& row : rows) {
        pool.enforce(0, row.real);
        for (size_t i = 0; i < row.scores.size(); ++i) {
            DeviceItem* shadow = pool.m_probe.shadows()[i];
            SCOPED_TRACE(shadow->dump());
            EXPECT_EQ(GraphMapperProbe::compare(&pool.m_probe.device(0), shadow), row.scores[i]);
            if (row.scores[i] == 0) continue;
            // Turned, and left so.
            EXPECT_EQ(shadow->graphs.find(0), pool.m_probe.device(0).graphs.find(0));
        }
    }
    pool.m_probe.device(0).devStatus = MAPPER_GRAPH_NONE;
    EXPECT_EQ(GraphMapperProbe::compare(&pool.m_probe.device(0), pool.m_probe.shadows()[2]), 0);
}

TEST(GraphMapperMapping, ResultIsWhatTheDevicesHold) {
    Pool pool(3, 2, {1.4f, 0.9f, 0.2f, 0.5f});
    pool.enforce(0, {0});
    pool.enforce(1, {1});
    pool.enforce(2, {2, 3});
    ASSERT_TRUE(pool.remap());
    const GraphMapper::MapResult expected = {{workerKey(0), {graphKey(0)}},
                                             {workerKey(1), {graphKey(1), graphKey(2)}},
                                             {workerKey(2), {graphKey(0), graphKey(3)}}};
    EXPECT_EQ(pool.m_mapper.getGraphMapperResult(), expected);
}

TEST(GraphMapperMapping, DemandsAtTheEdgesOfTheRulesGetTheirDevices) {
    struct Row {
        const char* what;
        uint32_t devices;
        int maxGraphs;
        std::vector<float> demands;
        int32_t result;
        Places plan;
    };
    const Row rows[] = {
        {"a rest below a tenth is dropped", 2, 2, {1.05f, 0.95f}, 0, {{0}, {1}}},
        {"a rest of a fifth is shared", 2, 2, {1.2f, 0.8f}, 0, {{0}, {1, 0}}},
        {"a rest of a big graph waits", 4, 2, {2.6f, 0.2f, 0.2f}, 0, {{0}, {0}, {0}, {1, 2}}},
        {"one graph is copied onto all", 3, 2, {0.4f}, 0, {{0}, {0}, {0}}},
        {"no demand, no device", 3, 2, {0.0f, 0.0f}, 0, {{}, {}, {}}},
        {"no demand of many, no device", 1, 2, {0.0f, 0.0f}, 0, {{}}},
        {"a demand near nothing is still one",
         2,
         2,
         {std::numeric_limits<float>::denorm_min()},
         0,
         {{0}, {0}}},
        {"fractions that find no place", 3, 1, {2.4f, 0.3f, 0.3f}, 1, {{0}, {0}, {1}}},
        {"more graphs than places", 1, 2, {1.0f, 1.0f, 1.0f}, 1, {{}}},
        {"a pair parts for a free device", 3, 2, {0.1f, 0.1f, 0.1f, 0.1f}, 0, {{0}, {2, 3}, {1}}},
        {"the last is forced beside the least",
         3,
         2,
         {0.9f, 0.85f, 0.9f, 0.95f},
         0,
         {{1, 3}, {0}, {2}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Pool pool(row.devices, row.maxGraphs, row.demands);
        EXPECT_EQ(pool.m_probe.buildPlan(row.devices), row.result);
        EXPECT_EQ(placesOf(pool.m_probe.shadows()), row.plan);
    }
}

TEST(GraphMapperMapping, GraphWithoutPlaceIsSwitchedOutAndItsDeviceFilledAnew) {
    Pool pool(2, 1, {1.0f, 0.9f});
    ASSERT_TRUE(pool.remap());
    ASSERT_EQ(placesOf(pool.m_probe.devices()), (Places{{0}, {1}}));
    pool.addGraph(1.0f);
    ASSERT_TRUE(pool.remap());
    EXPECT_EQ(placesOf(pool.m_probe.devices()), (Places{{0}, {2}}));
    EXPECT_EQ(pool.m_probe.graph(1).status, MAPPER_GRAPH_PENDING);
}

TEST(GraphMapperMapping, MasterLeavesADeviceToTheOthers) {
    struct Row {
        const char* what;
        size_t devices;
        float master;
        uint32_t ownBefore;
        int mode;
        uint32_t ownAfter;
    };
    const Row rows[] = {
        {"had no device of its own", 6, 3.05f, 0, 0, 4},
        {"a tenth more is no device more", 6, 3.05f, 1, 1, 3},
        {"two tenths more are", 6, 3.2f, 1, 1, 4},
        {"in proportion", 6, 6.0f, 1, 1, 5},
        {"would have all in proportion", 6, 60.0f, 1, 1, 5},
        {"nothing to leave", 1, 60.0f, 1, 0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Pool pool(row.devices, 2, {row.master, 0.2f, 0.2f, 0.2f, 0.2f});
        pool.m_probe.graph(0).dedicatedDevNum = row.ownBefore;
        ASSERT_TRUE(pool.remap());
        EXPECT_EQ(pool.m_probe.mode(), row.mode);
        EXPECT_EQ(pool.m_probe.graph(0).status, MAPPER_GRAPH_RUN);
        EXPECT_EQ(pool.m_probe.graph(0).dedicatedDevNum, row.ownAfter);
        EXPECT_EQ(pool.m_probe.graph(0).isMasterGraph, row.mode == 1);
        pool.m_mapper.removeGraph(graphKey(0));
        EXPECT_EQ(pool.m_probe.master(), nullptr);
    }
}

TEST(GraphMapperMapping, ReadyGraphsGetTheDevicesThatRunningOnesLeave) {
    struct Row {
        const char* what;
        size_t devices;
        std::string kinds;  // by graph: R ready, else running
        Places places;
    };
    const Row rows[] = {
        {"what does not divide goes to the first", 3, "RR", {{0}, {0}, {1}}},
        {"more graphs than devices", 2, "RRR", {{0, 2}, {1}}},
        {"the running take what they need", 4, "-R", {{0}, {1}, {1}, {1}}},
        {"one of the running is too many", 2, "---R", {{1, 2}, {3}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Pool pool(row.devices, 2, std::vector<float>(row.kinds.size(), 1.0f));
        for (size_t i = 0; i < row.kinds.size(); ++i) {
            if (row.kinds[i] == 'R') pool.m_probe.graph(i).status = MAPPER_GRAPH_RDY;
        }
        EXPECT_TRUE(pool.remap());
        EXPECT_EQ(placesOf(pool.m_probe.devices()), row.places);
    }
}

TEST(GraphMapperMapping, FailureKeepsTheResultAndWhoWasOut) {
    Pool pool(1, 2, {1.0f, 1.0f});
    ASSERT_TRUE(pool.remap());
    const GraphMapper::MapResult before = pool.m_mapper.getGraphMapperResult();
    for (size_t i = 0; i < 2; ++i) {
        pool.m_probe.graph(i).status = MAPPER_GRAPH_RDY;
        pool.m_probe.graph(i).memReq = 512;  // not beside another
    }
    pool.m_probe.graph(1).outCycleNum = 1;
    EXPECT_FALSE(pool.remap());
    EXPECT_EQ(pool.m_mapper.getGraphMapperResult(), before);
    EXPECT_EQ(pool.m_probe.graph(0).status, MAPPER_GRAPH_RDY);
    EXPECT_EQ(pool.m_probe.graph(1).status, MAPPER_GRAPH_PENDING);
}

}  // namespace
}  // namespace kelm

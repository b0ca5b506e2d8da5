#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "GraphMapperProbe.h"
#include "utils/Log.h"

namespace kelm {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

class GraphMapperTest : public testing::Test {
 protected:
    GraphMapperTest() {
        Log::instance().setLogLevel(0);
        m_mapper.setMaxPendingCycle(3);
        m_mapper.setMaxPendingTaskNum(20);
    }

    void addDevices(size_t number, unsigned int memSize = 512) {
        for (size_t i = 0; i < number; ++i) {
            EXPECT_TRUE(m_mapper.addDevice(workerKey(i), memSize, "worker"));
        }
    }
    void addGraphs(size_t number) {
        for (size_t i = 0; i < number; ++i) {
            EXPECT_TRUE(m_mapper.addGraph(graphKey(i), 1, 0, "graph"));
        }
    }
    std::vector<size_t> pendingGraphs() {
        std::vector<size_t> pending;
        for (size_t i = 0; i < m_probe.graphs().size(); ++i) {
            if (m_probe.graphs()[i]->status == MAPPER_GRAPH_PENDING) pending.push_back(i);
        }
        return pending;
    }

    GraphMapper m_mapper;
    GraphMapperProbe m_probe{m_mapper};
};

TEST_F(GraphMapperTest, MarginOfMemoryIsAskedForOnlyWhenAGraphIsAdded) {
    addDevices(1, 100);
    EXPECT_FALSE(m_mapper.addGraph(graphKey(0), 81, 0, "margin does not fit"));
    EXPECT_FALSE(m_mapper.addGraph(graphKey(0), 0xFFFFFFFF, 0, "margin beyond 32 bits"));
    EXPECT_TRUE(m_mapper.addGraph(graphKey(0), 80, 0, "fits"));
    EXPECT_EQ(m_probe.graph(0).memReq, 100u);
    EXPECT_FALSE(m_mapper.updateGraph(graphKey(0), 0.5f, 101, 0));
    EXPECT_TRUE(m_probe.graph(0).isNewGraph);
    EXPECT_TRUE(m_mapper.updateGraph(graphKey(0), 0.5f, 99, 0));
    EXPECT_EQ(m_probe.graph(0).memReq, 99u);
}

TEST_F(GraphMapperTest, KnownAndUnknownKeysChangeNothing) {
    addDevices(1, 100);
    addGraphs(1);
    EXPECT_TRUE(m_mapper.addDevice(workerKey(0), 7, "again"));
    EXPECT_TRUE(m_mapper.addGraph(graphKey(0), 7, 7, "again"));
    EXPECT_EQ(m_probe.devices().size(), 1u);
    EXPECT_EQ(m_probe.device(0).memSize, 100u);
    EXPECT_EQ(m_probe.graph(0).taskNum, 0);
    EXPECT_FALSE(m_mapper.addDevice(nullptr, 1, "null"));
    EXPECT_FALSE(m_mapper.addGraph(nullptr, 1, 1, "null"));
    EXPECT_FALSE(m_mapper.removeDevice(workerKey(5)));
    EXPECT_FALSE(m_mapper.removeGraph(graphKey(5)));
    EXPECT_FALSE(m_mapper.updateGraph(graphKey(5), 1.0f, 1, 1));
    EXPECT_FALSE(m_mapper.setPendGraph(graphKey(5), true));
}

TEST_F(GraphMapperTest, DemandIsSmoothedAndNeverLeavesTheRange) {
    struct Row {
        const char* what;
        bool slave;
        float measure;
        float expected;
    };
    const Row rows[] = {
        {"two thirds fresh", true, 2.5f, (2.5f + 2.5f) / 3.0f + 1.0f / 3.0f},
        {"one third fresh", false, 2.5f, (1.0f + 1.0f) / 3.0f + 2.5f / 3.0f},
        {"negative is nothing", true, -3.0f, 1.0f / 3.0f},
        {"not a number is nothing", true, kNan, 1.0f / 3.0f},
        {"infinite is all devices", true, kInfinity, (4.0f + 4.0f) / 3.0f + 1.0f / 3.0f},
        {"beyond reason is cut", true, 3e38f, (1e30f + 1e30f) / 3.0f + 1.0f / 3.0f},
    };
    addDevices(4);
    addGraphs(1);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        m_probe.graph(0).devReq = 1.0f;
        m_probe.graph(0).slaveGroup = row.slave;
        EXPECT_TRUE(m_mapper.updateGraph(graphKey(0), row.measure, 1, 0));
        EXPECT_EQ(m_probe.graph(0).devReq, row.expected);
    }
}

TEST_F(GraphMapperTest, InfiniteDemandDoesNotTakeAllDevicesForGood) {
    addDevices(2);
    m_mapper.setMaxGraphNumPerDevice(2);
    addGraphs(2);
    for (int pass = 0; pass < 50; ++pass) {
        m_mapper.updateGraph(graphKey(0), kInfinity, 1, 0);
        m_mapper.updateGraph(graphKey(1), 1.0f, 1, 0);
        ASSERT_TRUE(m_mapper.mapGraph());
    }
    for (size_t i = 0; i < 2; ++i) EXPECT_FALSE(m_probe.device(i).graphs.empty());
}

TEST_F(GraphMapperTest, OnlyRealMovesCallForAMapping) {
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
    addDevices(1);
    addGraphs(1);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        m_probe.graph(0).devReq = row.old;
        m_probe.graph(0).taskNum = 100;
        m_probe.clearChanged();
        m_mapper.updateGraph(graphKey(0), row.measure, 1, row.taskNum);
        EXPECT_EQ(m_probe.changed(), row.changed);
    }
}

TEST_F(GraphMapperTest, PendingGraphForcesAMappingAfterItsCycles) {
    addDevices(1);
    addGraphs(2);
    for (size_t i = 0; i < 2; ++i) m_mapper.updateGraph(graphKey(i), 1.0f, 1, 0);
    ASSERT_TRUE(m_mapper.mapGraph());
    ASSERT_THAT(pendingGraphs(), ElementsAre(0));
    m_probe.graph(1).devReq = 0.1f;  // would go first, but nobody was told
    for (int cycle = 1; cycle < 3; ++cycle) {
        ASSERT_TRUE(m_mapper.mapGraph());
        EXPECT_THAT(pendingGraphs(), ElementsAre(0));
        EXPECT_EQ(m_probe.graph(0).outCycleNum, cycle);
    }
    ASSERT_TRUE(m_mapper.mapGraph());
    EXPECT_THAT(pendingGraphs(), ElementsAre(1));
    EXPECT_EQ(m_probe.graph(0).outCycleNum, 0);
    EXPECT_TRUE(m_mapper.getGraphPendingState().at(graphKey(1)));
}

TEST_F(GraphMapperTest, SwitchOutSparesNewAndOverdueGraphs) {
    struct Row {
        float devReq;
        bool isNew;
        int taskNum, outCycles;
    };
    // Out in this order: 5 2 by demand, 0 6 1 overdue, 4 3 new.
    const Row rows[] = {{0.1f, false, 1, 4}, {0.1f, false, 21, 4}, {0.9f, false, 0, 9},
                        {0.1f, true, 9, 0},  {0.1f, true, 3, 0},   {0.2f, false, 30, 0},
                        {0.1f, false, 2, 4}};
    addDevices(1);
    addGraphs(std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i) {
        m_probe.graph(i).devReq = rows[i].devReq;
        m_probe.graph(i).isNewGraph = rows[i].isNew;
        m_probe.graph(i).taskNum = rows[i].taskNum;
        m_probe.graph(i).outCycleNum = rows[i].outCycles;
    }
    const std::vector<std::vector<size_t>> expected = {
        {5}, {2, 5}, {0, 2, 5}, {0, 2, 5, 6}, {0, 1, 2, 5, 6}, {0, 1, 2, 4, 5, 6}};
    for (size_t number = 1; number <= expected.size(); ++number) {
        EXPECT_TRUE(m_probe.filterGraphs(static_cast<int>(number)));
        EXPECT_EQ(pendingGraphs(), expected[number - 1]);
    }
    EXPECT_FALSE(m_probe.filterGraphs(0));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(m_probe.filterGraphs(8));
    const std::string dump = testing::internal::GetCapturedStdout();
    EXPECT_THAT(dump, HasSubstr("** Dump slaveGraphSet:\nGraphItem("));
    EXPECT_THAT(dump, HasSubstr("** ------------ END ------------\n"));
}

TEST_F(GraphMapperTest, GroupingKeepsAtMostTwoMasters) {
    const auto slaves = [this](std::vector<float> demands) {
        std::string text;
        for (size_t i = 0; i < demands.size(); ++i) m_probe.graph(i).devReq = demands[i];
        m_probe.groupGraphs();
        for (const GraphItem* item : m_probe.graphs()) text += item->slaveGroup ? 's' : 'M';
        return text;
    };
    addGraphs(5);
    EXPECT_EQ(slaves({0.1f, 5.0f, 0.2f, 0.1f, 4.5f}), "sMssM");
    EXPECT_EQ(slaves({0.1f, 5.0f, 0.2f, 4.0f, 4.5f}), "sssss");
}

TEST_F(GraphMapperTest, HandPendingLastsUntilTheNextMapping) {
    addDevices(1);
    addGraphs(1);
    EXPECT_TRUE(m_mapper.setPendGraph(graphKey(0), true));
    EXPECT_TRUE(m_mapper.getGraphPendingState().at(graphKey(0)));
    EXPECT_TRUE(m_mapper.setPendGraph(graphKey(0), false));
    EXPECT_EQ(m_probe.graph(0).status, MAPPER_GRAPH_RUN);
    m_mapper.setPendGraph(graphKey(0), true);
    ASSERT_TRUE(m_mapper.mapGraph());
    EXPECT_EQ(m_mapper.getGraphMapperResult().at(workerKey(0)).count(graphKey(0)), 1u);
}

TEST_F(GraphMapperTest, RemovedGraphIsNowhereAndItsPartnerMovesUp) {
    addDevices(1);
    m_mapper.setMaxGraphNumPerDevice(2);
    addGraphs(3);
    ASSERT_TRUE(m_mapper.mapGraph());
    const GraphItem* first = m_probe.device(0).graphs.find(0);
    const GraphItem* second = m_probe.device(0).graphs.find(1);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(m_mapper.removeGraph(first->graph));
    for (const DeviceItem* item : {m_probe.devices()[0], m_probe.shadows()[0]}) {
        EXPECT_EQ(item->graphs.size(), 1u);
        EXPECT_EQ(item->graphs.find(0), second);
    }
    EXPECT_EQ(m_probe.device(0).mem, second->memReq);
    ASSERT_EQ(m_probe.pending().size(), 1u);
    EXPECT_TRUE(m_mapper.removeGraph(m_probe.pending()[0]->graph));
    EXPECT_TRUE(m_probe.pending().empty());
    EXPECT_TRUE(m_mapper.removeGraph(second->graph));
    EXPECT_EQ(m_probe.device(0).devStatus, MAPPER_GRAPH_NONE);
    ASSERT_TRUE(m_mapper.mapGraph());
    EXPECT_TRUE(m_mapper.getGraphMapperResult().at(workerKey(0)).empty());
}

TEST_F(GraphMapperTest, WithoutDevicesTheMapIsEmptyAndGraphsComeBack) {
    addDevices(2);
    addGraphs(1);
    ASSERT_TRUE(m_mapper.mapGraph());
    for (size_t i = 0; i < 2; ++i) m_mapper.removeDevice(workerKey(i));
    ASSERT_TRUE(m_mapper.mapGraph());
    EXPECT_TRUE(m_mapper.getGraphMapperResult().empty());
    addDevices(1);
    ASSERT_TRUE(m_mapper.mapGraph());
    EXPECT_EQ(m_mapper.getGraphMapperResult().at(workerKey(0)).size(), 1u);
}

TEST_F(GraphMapperTest, IdsThatStartAgainInAnotherMapperDisturbNothing) {
    GraphMapper other;
    other.addDevice(workerKey(0), 1, "other");
    other.removeDevice(workerKey(0));  // device ids start from 0
    addDevices(3);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(other.addGraph(graphKey(0), 1, 0, "other"));
        if (i == 0) other.removeGraph(graphKey(0));
    }
    addGraphs(2);  // ids 1 and 2
    other.removeGraph(graphKey(0));
    m_mapper.addGraph(graphKey(2), 1, 0, "graph");
    m_mapper.addGraph(graphKey(3), 1, 0, "graph");
    EXPECT_EQ(m_probe.graph(2).id, 0u);
    EXPECT_EQ(m_probe.graph(3).id, m_probe.graph(0).id);
    EXPECT_EQ(m_probe.graphs().back(), &m_probe.graph(3));
    testing::internal::CaptureStdout();
    m_mapper.printGraphs();
    m_mapper.printDevices();
    const std::string dump = testing::internal::GetCapturedStdout();
    size_t from = 0;
    for (const char* item :
         {"m_graphSet:", "GraphItem(0)", "GraphItem(1)", "GraphItem(1)", "GraphItem(2)",
          "m_deviceSet:", "DeviceItem(0)", "DeviceItem(1)", "DeviceItem(2)"}) {
        from = dump.find(item, from);
        ASSERT_NE(from, std::string::npos) << item << " in\n" << dump;
        ++from;
    }
}

}  // namespace
}  // namespace kelm

#include <gmock/gmock.h>

#include "MapperPool.h"

namespace kelm {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

TEST(MappingCycle, PendingGraphForcesAMappingAfterItsCycles) {
    MapperPool pool(1, 1, {1.0f, 1.0f});
    ASSERT_TRUE(pool.remap());
    ASSERT_THAT(pool.pending(), ElementsAre(0));
    pool.graph(1).devReq = 0.1f;
    EXPECT_FALSE(pool.model.checkChanged(3));
    EXPECT_FALSE(pool.model.checkChanged(3));
    EXPECT_TRUE(pool.model.checkChanged(3));
    ASSERT_TRUE(pool.remap());
    EXPECT_THAT(pool.pending(), ElementsAre(1));
    EXPECT_EQ(pool.graph(0).outCycleNum, 0);
}

TEST(MappingCycle, SwitchOutSparesNewAndOverdueGraphs) {
    struct Row {
        float devReq;
        bool isNew;
        int taskNum, outCycles;
    };
    // Out in this order: 7 8 5 2 by demand, 0 6 1 overdue, 4 3 new.
    const Row rows[] = {{0.40f, false, 1, 4}, {0.40f, false, 21, 4}, {0.41f, false, 0, 9},
                        {0.40f, true, 9, 0},  {0.40f, true, 3, 0},   {0.39f, false, 30, 0},
                        {0.40f, false, 2, 4}, {0.38f, false, 1, 3},  {0.385f, false, 20, 1}};
    const size_t order[] = {7, 8, 5, 2, 0, 6, 1, 4};
    for (size_t number = 1; number <= std::size(order); ++number) {
        SCOPED_TRACE(number);
        MapperPool pool(std::size(rows) - number, 1, std::vector<float>(std::size(rows)));
        for (size_t i = 0; i < std::size(rows); ++i) {
            pool.graph(i).devReq = rows[i].devReq;
            pool.graph(i).isNewGraph = rows[i].isNew;
            pool.graph(i).taskNum = rows[i].taskNum;
            pool.graph(i).outCycleNum = rows[i].outCycles;
        }
        EXPECT_TRUE(pool.remap());
        EXPECT_THAT(pool.pending(), UnorderedElementsAreArray(order, number));
    }
}

TEST(MappingCycle, MasterLeavesADeviceToTheOthers) {
    const struct {
        const char* what;
        size_t devices;
        float demand;  // of the first graph
        bool isMaster;
        uint32_t own;
    } rows[] = {
        {"a tenth more is no device more", 6, 3.05f, true, 3},
        {"two tenths more are", 6, 3.2f, true, 4},
        {"would have all in proportion", 6, 60.0f, true, 5},
        {"nothing to leave", 1, 60.0f, false, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(row.devices, 2, {row.demand, 0.2f, 0.2f, 0.2f, 0.2f});
        pool.graph(0).dedicatedDevNum = 1;
        ASSERT_TRUE(pool.remap());
        EXPECT_EQ(pool.graph(0).status, MAPPER_GRAPH_RUN);
        EXPECT_EQ(pool.graph(0).dedicatedDevNum, row.own);
        EXPECT_EQ(pool.graph(0).isMasterGraph, row.isMaster);
    }
}

TEST(MappingCycle, ReadyGraphCountsAsAnAverageOneBesideAMaster) {
    MapperPool pool(6, 2, {3.05f, 0.1f, 0.2f, 0.3f, 0.0f});
    pool.graph(0).dedicatedDevNum = 1;
    pool.graph(4).status = MAPPER_GRAPH_RDY;
    ASSERT_TRUE(pool.remap());
    EXPECT_TRUE(pool.graph(0).isMasterGraph);
    EXPECT_EQ(pool.graph(1).devReq, 0.1f);
    EXPECT_FLOAT_EQ(pool.graph(4).devReq, 0.2f);
    EXPECT_EQ(pool.graph(4).status, MAPPER_GRAPH_RDY);
}

TEST(MappingCycle, ReadyGraphsGetTheDevicesThatRunningOnesLeave) {
    struct Row {
        const char* what;
        size_t devices;
        std::string kinds;  // by graph: R ready, else running
        float demand;
        Places places;
    };
    const Row rows[] = {
        {"what does not divide goes to the first", 3, "RR", 1.0f, {{0}, {0}, {1}}},
        {"more graphs than devices", 2, "RRR", 1.0f, {{0, 2}, {1}}},
        {"the running take what they need", 4, "-R", 1.0f, {{0}, {1}, {1}, {1}}},
        {"and a device for what is begun", 4, "-R", 1.4f, {{0}, {0}, {1}, {1}}},
        {"one of the running is too many", 2, "---R", 1.0f, {{1, 2}, {3}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(row.devices, 2, std::vector<float>(row.kinds.size(), row.demand));
        for (size_t i = 0; i < row.kinds.size(); ++i) {
            if (row.kinds[i] == 'R') pool.graph(i).status = MAPPER_GRAPH_RDY;
        }
        EXPECT_TRUE(pool.remap());
        EXPECT_EQ(placesOf(pool.model.devices()), row.places);
    }
}

TEST(MappingCycle, AfterAFailureGraphsThatWereOutStayOut) {
    MapperPool pool(1, 2, {1.0f, 1.0f});
    for (size_t i = 0; i < 2; ++i) {
        pool.graph(i).status = MAPPER_GRAPH_RDY;
        pool.graph(i).memReq = 512;  // not beside another
    }
    pool.graph(1).outCycleNum = 1;
    EXPECT_FALSE(pool.remap());
    EXPECT_EQ(pool.graph(0).status, MAPPER_GRAPH_RDY);
    EXPECT_EQ(pool.graph(1).status, MAPPER_GRAPH_PENDING);
    EXPECT_TRUE(pool.model.checkChanged(3));
}

}  // namespace
}  // namespace kelm

#include <gmock/gmock.h>

#include "MapperPool.h"

namespace kelm {
namespace {

using testing::ElementsAre;

TEST(MappingCycle, GraphWithoutPlaceIsSwitchedOutAndItsDeviceFilledAnew) {
    MapperPool pool(2, 1, {1.0f, 0.9f});
    ASSERT_TRUE(pool.remap());
    ASSERT_EQ(placesOf(pool.model.devices()), (Places{{0}, {1}}));
    pool.addGraph(1.0f);
    ASSERT_TRUE(pool.remap());
    EXPECT_EQ(placesOf(pool.model.devices()), (Places{{0}, {2}}));
    EXPECT_THAT(pool.pending(), ElementsAre(1));
}

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
    // Out in this order: 5 2 by demand, 0 6 1 overdue, 4 3 new.
    const Row rows[] = {{0.40f, false, 1, 4}, {0.40f, false, 21, 4}, {0.41f, false, 0, 9},
                        {0.40f, true, 9, 0},  {0.40f, true, 3, 0},   {0.39f, false, 30, 0},
                        {0.40f, false, 2, 4}, {0.40f, true, 99, 0}};
    const std::vector<std::vector<size_t>> expected = {
        {5}, {2, 5}, {0, 2, 5}, {0, 2, 5, 6}, {0, 1, 2, 5, 6}, {0, 1, 2, 4, 5, 6}};
    for (size_t number = 1; number <= expected.size(); ++number) {
        SCOPED_TRACE(number);
        MapperPool pool(std::size(rows) - number, 1, std::vector<float>(std::size(rows)));
        for (size_t i = 0; i < std::size(rows); ++i) {
            pool.graph(i).devReq = rows[i].devReq;
            pool.graph(i).isNewGraph = rows[i].isNew;
            pool.graph(i).taskNum = rows[i].taskNum;
            pool.graph(i).outCycleNum = rows[i].outCycles;
        }
        EXPECT_TRUE(pool.remap());
        EXPECT_EQ(pool.pending(), expected[number - 1]);
    }
}

TEST(MappingCycle, MasterLeavesADeviceToTheOthers) {
    struct Row {
        const char* what;
        size_t devices;
        std::vector<float> demands;
        uint32_t ownBefore;
        bool isMaster;
        uint32_t ownAfter;
    };
    const Row rows[] = {
        {"had no device of its own", 6, {3.05f, 0.2f, 0.2f, 0.2f, 0.2f}, 0, false, 4},
        {"a tenth more is no device more", 6, {3.05f, 0.2f, 0.2f, 0.2f, 0.2f}, 1, true, 3},
        {"two tenths more are", 6, {3.2f, 0.2f, 0.2f, 0.2f, 0.2f}, 1, true, 4},
        {"in proportion", 6, {6.0f, 0.2f, 0.2f, 0.2f, 0.2f}, 1, true, 5},
        {"would have all in proportion", 6, {60.0f, 0.2f, 0.2f, 0.2f, 0.2f}, 1, true, 5},
        {"fills all devices by itself", 3, {3.0f, 0.4f, 0.4f, 0.4f, 0.4f}, 1, true, 2},
        {"two devices", 2, {3.0f, 0.1f, 0.1f, 0.1f, 0.0f}, 1, true, 1},
        {"nothing to leave", 1, {60.0f, 0.2f}, 1, false, 0},
        {"the others weigh enough", 6, {1.2f, 0.2f, 0.2f, 0.2f, 0.2f}, 1, false, 4},
        {"fills no device", 6, {1.0f, 0.1f, 0.1f, 0.1f, 0.1f}, 1, false, 4},
        {"only four graphs", 6, {3.05f, 0.2f, 0.2f, 0.2f}, 1, false, 5},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(row.devices, 2, row.demands);
        pool.graph(0).dedicatedDevNum = row.ownBefore;
        ASSERT_TRUE(pool.remap());
        EXPECT_EQ(pool.graph(0).status, MAPPER_GRAPH_RUN);
        EXPECT_EQ(pool.graph(0).dedicatedDevNum, row.ownAfter);
        EXPECT_EQ(pool.graph(0).isMasterGraph, row.isMaster);
    }
}

TEST(MappingCycle, ReadyGraphsGetTheDevicesThatRunningOnesLeave) {
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
        MapperPool pool(row.devices, 2, std::vector<float>(row.kinds.size(), 1.0f));
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

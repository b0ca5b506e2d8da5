#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "MapperPool.h"
#include "NaiveMapper.h"

namespace kelm {
namespace {

// The life of a small pool: devices and graphs that come and leave, and before each mapping demands
// that are tied, nearly tied, heavy or anything, and memory that keeps pairs apart.
class RandomLife {
 public:
    RandomLife(uint32_t seed, int maxGraphs)
        : m_random(seed), m_kind(below(4)), m_pool(0, maxGraphs) {}

    void step() {
        MapperModel& model = m_pool.model;
        if (m_workers == 0 || below(3) == 0) {
            model.addDevice(workerKey(m_workers++), below(10) != 0 ? 100 : 60, "worker");
        }
        if (below(12) == 0) model.removeDevice(workerKey(below(m_workers)));
        for (uint32_t i = below(4); i > 0; --i) {
            model.addGraph(graphKey(m_graphs++), 1, below(40), "graph", 1);
        }
        if (below(3) == 0) model.removeGraph(graphKey(below(m_graphs + 1)));
        m_pool.remap();  // switches out what is too much
        for (GraphItem* item : model.graphs()) {
            item->devReq = demand();
            item->memReq = 10 + below(60);
        }
    }

    void mapAndCompare() {
        MapperModel& model = m_pool.model;
        const uint32_t deviceNum = static_cast<uint32_t>(model.devices().size());
        if (deviceNum == 0) return;
        NaiveMapper naive(model, m_pool.limits.maxGraphNumPerDevice);
        const uint32_t given = below(4) != 0 ? deviceNum : 1 + below(deviceNum);
        const int32_t result = m_pool.plan(given);
        ASSERT_EQ(result, naive.plan(given));
        compare(model.shadows(), naive.shadows);
        if (result != 0) return;
        m_pool.matcher.mapGraphPost(model);
        naive.match();
        compare(model.devices(), naive.real);
        for (size_t i = 0; i < naive.graphs.size(); ++i) {
            EXPECT_EQ(model.graphs()[i]->dedicatedDevNum, naive.graphs[i].own);
            EXPECT_EQ(model.graphs()[i]->sharedDevNum, naive.graphs[i].shared);
        }
    }

 private:
    uint32_t below(size_t limit) { return static_cast<uint32_t>(m_random() % limit); }

    float demand() {
        if (below(30) == 0) return 0.0f;
        if (m_kind == 0) return static_cast<float>(below(7)) * 0.25f;
        if (m_kind == 1) return static_cast<float>(below(12)) * 1e-8f + 0.25f * (1 + below(2));
        if (m_kind == 2 && below(6) == 0) return static_cast<float>(below(12));
        return static_cast<float>(below(100000)) * 1.7e-5f;
    }

    static void compare(const DeviceItemSet& devices,
                        const std::deque<NaiveMapper::Device>& expected) {
        for (size_t i = 0; i < expected.size(); ++i) {
            SCOPED_TRACE(devices[i]->dump());
            uint32_t memory = 0;
            std::vector<KelmGraph*> held, wanted;
            for (const GraphItem* item : devices[i]->graphs) held.push_back(item->graph);
            for (const NaiveMapper::Graph* graph : expected[i].graphs) {
                wanted.push_back(graph->key);
                memory += graph->memory;
            }
            ASSERT_EQ(held, wanted);
            EXPECT_EQ(devices[i]->devStatus != MAPPER_GRAPH_NONE, expected[i].taken);
            if (held.empty()) continue;
            const bool isReal = devices[i]->shadow != nullptr;
            EXPECT_TRUE(devices[i]->mem == memory || !isReal);
            EXPECT_TRUE(devices[i]->util == expected[i].load || std::isnan(expected[i].load));
        }
    }

    std::mt19937 m_random;
    const uint32_t m_kind;
    MapperPool m_pool;
    size_t m_workers = 0;
    size_t m_graphs = 0;
};

TEST(MapperPlanner, PlansAndMatchesAsWalksOverEverythingWould) {
    for (uint32_t seed = 0; seed < 400; ++seed) {
        SCOPED_TRACE(seed);
        RandomLife life(seed, seed % 4 == 0 ? 1 : 2);
        for (int i = 0; i < 10; ++i) {
            life.step();
            life.mapAndCompare();
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

// The example of docs/mapper.md.
TEST(MapperPlanner, PlanAndMatchOfThreeDevicesComeOutAsWorkedOut) {
    MapperPool pool(3, 2, {1.4f, 0.9f, 0.2f, 0.5f});
    ASSERT_EQ(pool.plan(3), 0);
    const DeviceItemSet& shadows = pool.model.shadows();
    EXPECT_EQ(placesOf(shadows), (Places{{0}, {2, 1}, {3, 0}}));
    EXPECT_FLOAT_EQ(shadows[0]->util, 1.0f);
    EXPECT_FLOAT_EQ(shadows[1]->util, 1.1f);
    EXPECT_FLOAT_EQ(shadows[2]->util, 0.9f);

    const Places inForce = {{0}, {1}, {2, 3}};
    for (size_t i = 0; i < inForce.size(); ++i) {
        pool.device(i).devStatus = MAPPER_GRAPH_RUN;
        pool.device(i).graphs.assign(&pool.graph(inForce[i][0]));
        if (inForce[i].size() == 2) pool.device(i).graphs.setSecond(&pool.graph(inForce[i][1]));
    }
    pool.matcher.mapGraphPost(pool.model);
    // The swaps of the comparisons stay: the second shadow was first turned for device 1.
    EXPECT_EQ(placesOf(pool.model.devices()), (Places{{0}, {1, 2}, {0, 3}}));
}

TEST(MapperPlanner, DemandsAtTheEdgesOfTheRulesGetTheirDevices) {
    constexpr float kNearNothing = std::numeric_limits<float>::denorm_min();
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
        {"a demand near nothing is still one", 2, 2, {kNearNothing}, 0, {{0}, {0}}},
        {"fractions that find no place", 3, 1, {2.4f, 0.3f, 0.3f}, 1, {{0}, {0}, {1}}},
        {"more graphs than places", 1, 2, {1.0f, 1.0f, 1.0f}, 1, {{}}},
        {"a pair parts for a free device", 3, 2, {0.1f, 0.1f, 0.1f, 0.1f}, 0, {{0}, {2, 3}, {1}}},
        {"of equal ones the first is copied",
         12,
         2,
         std::vector<float>(11, 1.0f),
         0,
         {{0}, {1}, {2}, {3}, {4}, {5}, {6}, {7}, {8}, {9}, {10}, {0}}},
        {"the last is forced beside the least",
         3,
         2,
         {0.9f, 0.85f, 0.9f, 0.95f},
         0,
         {{1, 3}, {0}, {2}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(row.devices, row.maxGraphs, row.demands);
        EXPECT_EQ(pool.plan(row.devices), row.result);
        EXPECT_EQ(placesOf(pool.model.shadows()), row.plan);
    }
}

}  // namespace
}  // namespace kelm

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <sstream>

#include "MapperPool.h"
#include "utils/Digest.h"

namespace kelm {
namespace {

// The life of a small pool: devices and graphs that come and leave, and before each mapping demands
// that are tied, nearly tied, heavy or anything, and memory that keeps pairs apart.
class RandomLife {
 public:
    enum Kind { TIED, NEARLY_TIED, HEAVY, ANY };

    RandomLife(Kind kind, uint32_t seed, int maxGraphs)
        : m_random(seed), m_kind(kind), m_pool(0, maxGraphs) {}

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

    void planAndMatch(std::ostream& out) {
        MapperModel& model = m_pool.model;
        const uint32_t deviceNum = static_cast<uint32_t>(model.devices().size());
        if (deviceNum == 0) return;
        const int32_t result = m_pool.plan(below(4) != 0 ? deviceNum : 1 + below(deviceNum));
        out << result << testing::PrintToString(placesOf(model.shadows()));
        if (result != 0) return;
        m_pool.matcher.mapGraphPost(model);
        out << testing::PrintToString(placesOf(model.devices()));
        for (const GraphItem* item : model.graphs()) {
            out << item->dedicatedDevNum << '+' << item->sharedDevNum << ' ';
        }
        for (const DeviceItem* device : model.devices()) {
            if (device->graphs.empty()) continue;
            out << device->mem << '*';
            // Nothing over nothing: the sign of such a load is the compiler's.
            std::isnan(device->util) ? out << "? " : out << std::lround(1000 * device->util) << ' ';
        }
    }

 private:
    uint32_t below(size_t limit) { return static_cast<uint32_t>(m_random() % limit); }

    float demand() {
        if (below(30) == 0) return 0.0f;
        if (m_kind == TIED) return static_cast<float>(below(7)) * 0.25f;
        if (m_kind == NEARLY_TIED) return static_cast<float>(below(24)) * 1e-8f + 0.25f;
        if (m_kind == HEAVY && below(6) == 0) return static_cast<float>(below(12));
        return static_cast<float>(below(100000)) * 1.7e-5f;
    }

    std::mt19937 m_random;
    const Kind m_kind;
    MapperPool m_pool;
    size_t m_workers = 0;
    size_t m_graphs = 0;
};

// Each choice goes through an index; these are the plans that plain walks over all graphs and
// devices make, too. Only a change of the policy may change them: then docs/mapper.md as well.
TEST(MapperPlanner, PlansAndMatchesStayAsTheyWereRecorded) {
    struct Row {
        RandomLife::Kind kind;
        const char* digest;
    };
    const Row rows[] = {
        {RandomLife::TIED, "23121bb844b97a55"},
        {RandomLife::NEARLY_TIED, "e289937e08db4fe2"},
        {RandomLife::HEAVY, "07ebc88cddbf928a"},
        {RandomLife::ANY, "103d3520dbfc6c0d"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.kind);
        std::ostringstream plans;
        for (uint32_t seed = 0; seed < 100; ++seed) {
            RandomLife life(row.kind, seed, seed % 4 == 0 ? 1 : 2);
            for (int i = 0; i < 10; ++i) {
                life.step();
                life.planAndMatch(plans);
            }
        }
        EXPECT_EQ(sha256ForString(plans.str()).substr(0, 16), row.digest);
    }
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
        {"no demand, no device", 3, 2, {0.0f, 0.0f}, 0, {{}, {}, {}}},
        {"no demand of many, no device", 1, 2, {0.0f, 0.0f}, 0, {{}}},
        {"a demand near nothing is still one", 2, 2, {kNearNothing}, 0, {{0}, {0}}},
        {"more graphs than places", 1, 2, {1.0f, 1.0f, 1.0f}, 1, {{}}},
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

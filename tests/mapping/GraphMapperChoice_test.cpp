#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "GraphMapperProbe.h"
#include "NaiveMapper.h"
#include "utils/Log.h"

namespace kelm {
namespace {

// The life of a small mapper: devices and graphs that come and go, and before each mapping demands
// that are tied, nearly tied, heavy or anything, and memory that keeps pairs apart.
class RandomLife {
 public:
    RandomLife(uint32_t seed, int maxGraphs)
        : m_random(seed), m_maxGraphs(maxGraphs), m_kind(below(4)) {
        Log::instance().setLogLevel(0);
        m_mapper.setMaxGraphNumPerDevice(maxGraphs);
        m_mapper.setMaxPendingCycle(3);
        m_mapper.setMaxPendingTaskNum(20);
    }

    void step() {
        if (m_workers == 0 || below(3) == 0) {
            m_mapper.addDevice(workerKey(m_workers++), below(10) != 0 ? 100 : 60, "worker");
        }
        if (below(12) == 0) m_mapper.removeDevice(workerKey(below(m_workers)));
        for (uint32_t i = below(4); i > 0; --i) {
            m_mapper.addGraph(graphKey(m_graphs++), 1, below(40), "graph");
        }
        if (below(3) == 0) m_mapper.removeGraph(graphKey(below(m_graphs + 1)));
        m_mapper.mapGraph();  // switches out what is too much
        for (GraphItem* item : m_probe.graphs()) {
            item->devReq = demand();
            item->memReq = 10 + below(60);
        }
    }

    void mapAndCompare() {
        const uint32_t deviceNum = static_cast<uint32_t>(m_probe.devices().size());
        if (deviceNum == 0) return;
        NaiveMapper naive(m_probe, m_maxGraphs);
        const uint32_t given = below(4) != 0 ? deviceNum : 1 + below(deviceNum);
        const int32_t result = m_probe.buildPlan(given);
        ASSERT_EQ(result, naive.buildPlan(given));
        compare(m_probe.shadows(), naive.shadows);
        if (result != 0) return;
        m_probe.post();
        naive.post();
        compare(m_probe.devices(), naive.real);
        for (size_t i = 0; i < naive.graphs.size(); ++i) {
            EXPECT_EQ(m_probe.graphs()[i]->dump(), naive.graphs[i].dump());
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

    static void compare(const DeviceItemSet& devices, const std::deque<DeviceItem>& expected) {
        for (size_t i = 0; i < expected.size(); ++i) {
            SCOPED_TRACE(devices[i]->dump());
            ASSERT_EQ(devices[i]->graphs.size(), expected[i].graphs.size());
            for (size_t slot = 0; slot < expected[i].graphs.size(); ++slot) {
                EXPECT_EQ(devices[i]->graphs.find(slot)->graph,
                          expected[i].graphs.find(slot)->graph);
            }
            EXPECT_EQ(devices[i]->devStatus, expected[i].devStatus);
            const bool undefined = std::isnan(expected[i].util) && std::isnan(devices[i]->util);
            if (!expected[i].graphs.empty() && !undefined) {
                EXPECT_EQ(devices[i]->util, expected[i].util);
            }
        }
    }

    std::mt19937 m_random;
    const int m_maxGraphs;
    const uint32_t m_kind;
    GraphMapper m_mapper;
    GraphMapperProbe m_probe{m_mapper};
    size_t m_workers = 0;
    size_t m_graphs = 0;
};

TEST(GraphMapperChoice, IndexedSearchesChooseAsWalksOverEverything) {
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

}  // namespace
}  // namespace kelm

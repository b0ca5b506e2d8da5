#include "scheduling/mapping/GraphMapper.h"

#include "scheduling/mapping/MapperMatcher.h"
#include "scheduling/mapping/MapperModel.h"
#include "scheduling/mapping/MapperPlanner.h"
#include "scheduling/mapping/MappingCycle.h"
#include "utils/Digest.h"
#include "utils/Log.h"

namespace kelm {
namespace {

KelmGraph* graphKey(size_t index) {
    return reinterpret_cast<KelmGraph*>(uintptr_t{0x10000} + index * 16);
}
WorkThread* workerKey(size_t index) {
    return reinterpret_cast<WorkThread*>(uintptr_t{0x90000} + index * 16);
}

// Graphs by their keys' index, device by device in the order of their places.
using Places = std::vector<std::vector<size_t>>;

Places placesOf(const DeviceItemSet& devices) {
    Places places;
    for (const DeviceItem* device : devices) {
        std::vector<size_t>& here = places.emplace_back();
        for (const GraphItem* item : device->graphs) {
            here.push_back((reinterpret_cast<uintptr_t>(item->graph) - 0x10000) / 16);
        }
    }
    return places;
}

// A model with devices of 512 MB and graphs of such demands, none of them new, and what works on
// it. Items are set directly where a case needs a picture that takes long to come about.
class MapperPool {
 public:
    MapperPool(size_t devices, int maxGraphs, const std::vector<float>& demands = {})
        : limits{.maxGraphNumPerDevice = maxGraphs, .maxPendingTaskNum = 20, .maxPendingCycle = 3} {
        Log::instance().setLogLevel(0);
        for (size_t i = 0; i < devices; ++i) model.addDevice(workerKey(i), 512, "worker");
        for (const float demand : demands) addGraph(demand);
    }
    void addGraph(float demand) {
        const size_t index = model.graphs().size();
        model.addGraph(graphKey(index), 1, 0, "graph", limits.maxGraphNumPerDevice);
        graph(index).devReq = demand;
        graph(index).isNewGraph = false;
    }
    GraphItem& graph(size_t index) { return *model.findGraph(graphKey(index)); }
    DeviceItem& device(size_t index) { return *model.findDevice(workerKey(index)); }
    int32_t plan(uint32_t deviceNum) {
        return MapperPlanner(model, limits.maxGraphNumPerDevice, false)
            .mapRunGraphBalance(deviceNum);
    }
    bool remap() { return MappingCycle(model, matcher, limits, false).run(); }
    std::vector<size_t> pending() {
        std::vector<size_t> pending;
        for (size_t i = 0; i < model.graphs().size(); ++i) {
            if (model.graphs()[i]->status == MAPPER_GRAPH_PENDING) pending.push_back(i);
        }
        return pending;
    }

    MapperModel model{false};
    MapperMatcher matcher{false};
    MapperLimits limits;
};

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

TEST(MapperModel, DemandIsSmoothedAndNeverLeavesTheRange) {
    using Limits = std::numeric_limits<float>;
    const struct {
        const char* what;
        bool slave;
        float measure;
        float expected;
    } rows[] = {
        {"two thirds fresh", true, 2.5f, (2.5f + 2.5f) / 3.0f + 1.0f / 3.0f},
        {"one third fresh", false, 2.5f, (1.0f + 1.0f) / 3.0f + 2.5f / 3.0f},
        {"negative is nothing", true, -3.0f, 1.0f / 3.0f},
        {"not a number is nothing", true, Limits::quiet_NaN(), 1.0f / 3.0f},
        {"infinite is all devices", true, Limits::infinity(), (4.0f + 4.0f) / 3.0f + 1.0f / 3.0f},
        {"beyond reason is cut", true, 3e38f, (1e30f + 1e30f) / 3.0f + 1.0f / 3.0f},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(4, 1, {1.0f});
        pool.graph(0).slaveGroup = row.slave;
        EXPECT_TRUE(pool.model.updateGraph(graphKey(0), row.measure, 1, 0));
        EXPECT_EQ(pool.graph(0).devReq, row.expected);
    }
}

TEST(MapperModel, OnlyRealMovesCallForAMapping) {
    const struct {
        const char* what;
        float old, measure;
        unsigned int taskNum;
        bool changed;
    } rows[] = {
        {"same", 1.0f, 1.0f, 100, false},          {"5 tasks more", 1.0f, 1.0f, 105, false},
        {"6 tasks more", 1.0f, 1.0f, 106, true},   {"5 tasks fewer", 1.0f, 1.0f, 95, false},
        {"6 tasks fewer", 1.0f, 1.0f, 94, true},   {"within a tenth", 1.0f, 1.3f, 100, false},
        {"beyond a tenth", 1.0f, 1.5f, 100, true}, {"nothing left", 0.0f, 0.0f, 100, true},
    };
    for (const auto& row : rows) {
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
    std::ostringstream plans;
    for (const auto kind :
         {RandomLife::TIED, RandomLife::NEARLY_TIED, RandomLife::HEAVY, RandomLife::ANY}) {
        for (uint32_t seed = 0; seed < 100; ++seed) {
            RandomLife life(kind, seed, seed % 4 == 0 ? 1 : 2);
            for (int i = 0; i < 10; ++i) {
                life.step();
                life.planAndMatch(plans);
            }
        }
    }
    EXPECT_EQ(sha256ForString(plans.str()).substr(0, 16), "73555f1b1df0ac5d");
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
    const struct {
        const char* what;
        uint32_t devices;
        int maxGraphs;
        std::vector<float> demands;
        int32_t result;
        Places plan;
    } rows[] = {
        {"no demand, no device", 3, 2, {0.0f, 0.0f}, 0, {{}, {}, {}}},
        {"no demand of many, no device", 1, 2, {0.0f, 0.0f}, 0, {{}}},
        {"a demand near nothing is still one", 2, 2, {kNearNothing}, 0, {{0}, {0}}},
        {"more graphs than places", 1, 2, {1.0f, 1.0f, 1.0f}, 1, {{}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        MapperPool pool(row.devices, row.maxGraphs, row.demands);
        EXPECT_EQ(pool.plan(row.devices), row.result);
        EXPECT_EQ(placesOf(pool.model.shadows()), row.plan);
    }
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
    // Out in this order: 7 8 5 2 by demand, 0 6 1 overdue, 4 3 new.
    const struct {
        float devReq;
        bool isNew;
        int taskNum, outCycles;
    } rows[] = {{0.40f, false, 1, 4}, {0.40f, false, 21, 4}, {0.41f, false, 0, 9},
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
    const struct {
        const char* what;
        size_t devices;
        std::string kinds;  // by graph: R ready, else running
        float demand;
        Places places;
    } rows[] = {
        {"what does not divide goes to the first", 3, "RR", 1.0f, {{0}, {0}, {1}}},
        {"more graphs than devices", 2, "RRR", 1.0f, {{0, 2}, {1}}},
        {"more of them behind a running one", 2, "-RR", 1.0f, {{0}, {1, 2}}},
        {"the running take what they need", 4, "-R", 1.0f, {{0}, {1}, {1}, {1}}},
        {"and a device for what is begun", 4, "-R", 1.4f, {{0}, {0}, {1}, {1}}},
        {"one of the running is too many", 2, "---R", 1.0f, {{1, 2}, {3}}},
    };
    for (const auto& row : rows) {
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

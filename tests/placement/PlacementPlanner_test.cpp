#include "scheduling/placement/PlacementPlanner.h"

#include "fakes/PlacementMoves.h"
#include "scheduling/placement/DemandEstimator.h"

namespace kelm {
namespace {

// Devices with one server and graphs with steady arrivals, a plan at a time; a plan takes effect at
// once. What waits is what the row says, not what would follow from the rates.
struct World {
    World(size_t devices, uint32_t slots, std::vector<double> rates) {
        for (size_t i = 0; i < devices; ++i) {
            picture.devices.push_back(
                {.id = 101 + i, .memory = 100, .slots = slots, .speed = 1.0, .cached = {}});
        }
        for (const double rate : rates) {
            PlacementGraph& graph = picture.graphs.emplace_back();
            graph.id = picture.graphs.size();
            graph.memory = 10;
            graph.taskTime = 0.01;
            graph.loadTime = 0.05;
            graph.requested = true;
            m_rates.push_back(rate);
            m_arrived.push_back(0.0);
        }
    }

    PlacementPlan pass(double seconds = 1.0) {
        picture.now += seconds;
        for (size_t i = 0; i < m_rates.size(); ++i) {
            m_arrived[i] += m_rates[i] * seconds;
            picture.graphs[i].arrivals = static_cast<uint64_t>(m_arrived[i]);
        }
        const PlacementPlan plan = planner.plan(picture);
        applyPlan(picture, plan);
        return plan;
    }
    // Number of devices by graph: "2 1 0".
    std::string places() const {
        std::string text;
        for (const PlacementGraph& graph : picture.graphs) {
            text += (text.empty() ? "" : " ") + std::to_string(graph.places.size());
        }
        return text;
    }
    void setRate(size_t graph, double rate) { m_rates[graph] = rate; }

    PlacementPicture picture;
    PlacementPlanner planner;

 private:
    std::vector<double> m_rates;
    std::vector<double> m_arrived;
};

TEST(PlacementPlanner, GivesEachGraphItsDevicesAndThenLeavesThemThere) {
    const struct {
        const char* rule;
        size_t devices;
        uint32_t slots;
        std::vector<double> rates;
        std::string places;
    } rows[] = {
        {"small graphs have own devices while there are some", 4, 2, {60, 2, 2, 2}, "1 1 1 1"},
        {"a large graph gets the devices that it needs", 4, 1, {260, 20}, "3 1"},
        {"and no more than leave the others theirs", 4, 1, {500, 20, 20}, "2 1 1"},
        {"it shares devices that have room for a part of it", 3, 2, {160, 40, 30}, "3 1 1"},
        {"an idle graph keeps a place that nobody needs", 2, 2, {20, 0, 0}, "1 1 1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rule);
        World world(row.devices, row.slots, row.rates);
        for (int i = 0; i < 5; ++i) (void)world.pass();
        EXPECT_EQ(world.places(), row.places);
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(world.pass().moves.empty());
    }
}

MATCHER_P4(IsMove, action, reason, graph, device, "") {
    return arg.action == action && arg.reason == reason && arg.graph == graph &&
           arg.device == device;
}
using enum PlacementAction;
using enum PlacementReason;

TEST(PlacementPlanner, GraphOfALostDeviceMovesAtOnce) {
    World world(2, 2, {30, 20});
    (void)world.pass();
    ASSERT_EQ(world.picture.graphs[0].places.front().device, 101u);
    world.picture.devices.erase(world.picture.devices.begin());
    EXPECT_THAT(world.pass(0.1).moves, ElementsAre(IsMove(Moved, LostDevice, 1u, 102u)));
}

TEST(PlacementPlanner, WaitingGraphTakesThePlaceThatIsMissedLeast) {
    World world(2, 1, {60, 0, 30});
    world.picture.graphs[2].requested = false;
    (void)world.pass();
    EXPECT_EQ(world.places(), "1 1 0");
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(world.pass().moves.empty());  // no task asks
    world.picture.graphs[2].waiting = 1;
    const PlacementPlan plan = world.pass();
    EXPECT_THAT(plan.moves, UnorderedElementsAre(IsMove(Unloaded, Starving, 2u, 0u),
                                                 IsMove(Loaded, Starving, 3u, 102u)));
    EXPECT_GT(plan.longestWait, 0.0);
}

TEST(PlacementPlanner, NobodyWaitsLongerThanToldWhileOthersHaveWork) {
    World world(1, 1, {90, 90, 90});
    std::vector<double> since(3, 0.0);
    double longest = 0.0;
    double told = 0.0;
    for (int i = 0; i < 600; ++i) {
        for (size_t graph = 0; graph < 3; ++graph) {
            PlacementGraph& item = world.picture.graphs[graph];
            item.waiting = 50;
            if (!item.places.empty()) since[graph] = world.picture.now;
            item.oldestAge = world.picture.now - since[graph];
            if (i > 100) longest = std::max(longest, item.oldestAge);
        }
        told = std::max(told, world.pass(0.1).longestWait);
    }
    EXPECT_GT(longest, 0.5);
    EXPECT_LE(longest, told);
}

TEST(PlacementPlanner, MemoryLimitsWhatADeviceHoldsAndRefusalsAreTold) {
    World world(2, 2, {10, 10, 10, 0});
    for (PlacementGraph& graph : world.picture.graphs) graph.memory = 60;
    world.picture.graphs[3].memory = 101;
    const PlacementPlan plan = world.pass();
    EXPECT_THAT(plan.moves, testing::Contains(IsMove(Refused, Starving, 4u, 0u)));
    EXPECT_EQ(world.places(), "1 1 0 0");
}

TEST(PlacementPlanner, LateGraphThatGetsNothingIsToldAsKept) {
    World world(1, 1, {90});
    (void)world.pass();
    world.picture.graphs[0].waiting = 40;
    EXPECT_THAT(world.pass().moves, ElementsAre(IsMove(Kept, Demand, 1u, 0u)));
}

TEST(PlacementPlanner, CacheDecidesBetweenDevicesThatAreEquallyGood) {
    World world(3, 1, {5});
    world.picture.graphs[0].cachedTime = 0.001;
    world.picture.devices[1].cached = {1};
    (void)world.pass();
    EXPECT_EQ(world.picture.graphs[0].places.front().device, 102u);
}

TEST(PlacementPlanner, SwappedDemandsSwapDevicesWithinASecond) {
    World world(4, 1, {280, 20});
    for (int i = 0; i < 10; ++i) (void)world.pass();
    ASSERT_EQ(world.places(), "3 1");
    world.setRate(0, 20);
    world.setRate(1, 280);
    world.picture.graphs[1].waiting = 40;
    (void)world.pass();
    EXPECT_EQ(world.places(), "1 3");
}

TEST(DemandEstimator, FollowsAChangeWithinASecondAndNoiseNotAtAll) {
    DemandEstimator estimator;
    double arrivals = 0.0;
    double now = 0.0;
    const auto run = [&](double rate, int tenths) {
        for (int i = 0; i < tenths; ++i) {
            now += 0.1;
            // Between half and one and a half times the rate, in turns.
            arrivals += rate * 0.1 * (i % 2 == 0 ? 0.5 : 1.5);
            estimator.observe(now, static_cast<uint64_t>(arrivals));
        }
    };
    run(40.0, 200);
    EXPECT_NEAR(estimator.rate(), 40.0, 2.0);
    EXPECT_GT(estimator.age(), 15.0);
    run(120.0, 10);
    EXPECT_NEAR(estimator.rate(), 120.0, 20.0);
    run(0.0, 10);
    EXPECT_LT(estimator.rate(), 20.0);
    EXPECT_GT(estimator.habit(), 100.0);
}

}  // namespace
}  // namespace kelm

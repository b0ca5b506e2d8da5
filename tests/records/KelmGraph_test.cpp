#include "records/KelmGraph.h"

#include <sys/resource.h>

#include "fakes/FakeClientDirectory.h"
#include "records/GraphDemand.h"
#include "utils/Digest.h"
#include "utils/Port.h"

namespace kelm {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::string hashOf(const std::string& path) {
    return KelmGraph(1, 1, path.c_str(), "graph", 1).getHash();
}

TEST(GraphDemandTest, RequestAndFactorFollowTheFigures) {
    const struct {
        const char* what;
        GraphLoad load;  // inference time, waiting, in, out
        float request;
        float factor;
    } rows[] = {
        {"backlog over the output rate", {10.0f, 20, 100.0f, 40.0f}, 0.75f, 1.0f},
        {"no output yet: the device's own rate", {10.0f, 20, 100.0f, 0.0f}, 0.55f, 1.0f},
        {"nothing arrives: the backlog alone", {10.0f, 20, 0.0f, 40.0f}, 0.5f, 1.0f},
        {"neither arrivals nor backlog", {10.0f, 0, 0.0f, 0.0f}, 0.0f, 1.0f},
        {"keeps up, barely above a whole number", {10.0f, 0, 610.0f, 610.0f}, 3.05f, 1.5f},
        {"keeps up, well above it", {10.0f, 0, 640.0f, 640.0f}, 3.2f, 1.0f},
        {"falls behind", {10.0f, 0, 610.0f, 500.0f}, 3.05f, 1.0f},
        {"has a backlog", {10.0f, 1, 600.0f, 600.0f}, 3.005f, 1.0f},
        {"output without arrivals is infinitely enough", {10.0f, 0, 0.0f, 5.0f}, 0.0f, 1.5f},
        {"two arrivals in a millisecond", {10.0f, 0, kInfinity, 5.0f}, kInfinity, 1.0f},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_FLOAT_EQ(computeDeviceRequest(row.load), row.request);
        EXPECT_EQ(computeDevReqFactor(row.request, row.load), row.factor);
    }
}

TEST(KelmGraphTest, DemandComesFromTheBacklogOnceAnInferenceWasMeasured) {
    KelmGraph graph(1, 1, "graph", 1);
    graph.updateFpsIn();
    graph.updateFpsIn();
    for (const float nonsense : {0.0f, -1.0f, kInfinity, -kInfinity, kNaN}) {
        graph.updateInferenceTime(nonsense);
    }
    EXPECT_EQ(graph.getAvgInferTime(), 0.0f);
    EXPECT_EQ(graph.getDevReqNum(), 0.5f);
    for (int i = 0; i < 100; ++i) graph.updateInferenceTime(1000.0f);
    for (int i = 0; i < 200; ++i) graph.updateInferenceTime(i < 100 ? 9.0f : 11.0f);
    EXPECT_FLOAT_EQ(graph.getAvgInferTime(), 10.0f);
    graph.updateFpsOut();
    EXPECT_EQ(graph.getNumWaitTasks(), 1u);
    KelmGraph single(2, 1, "single", 1);  // one arrival is no rate yet
    single.updateFpsIn();
    single.updateInferenceTime(10.0f);
    EXPECT_FLOAT_EQ(single.getDevReqNum(), 1.0f / 200.0f);
    for (int i = 0; i < 2; ++i) single.updateFpsOut();
    EXPECT_EQ(single.getNumWaitTasks(), 0u);
}

TEST(KelmGraphTest, PendingCyclesCountPassesWithoutADevice) {
    KelmGraph graph(1, 1, "graph", 1);
    for (const uint32_t cycles : {0u, 1u, 2u}) {
        graph.setPendingState(true);
        EXPECT_EQ(graph.getOutCycleNum(), cycles);
    }
    graph.setPendingState(false);
    EXPECT_EQ(graph.getOutCycleNum(), 0u);
    EXPECT_FALSE(graph.isPending());
}

TEST(KelmGraphTest, NamesAreThoseOfTheUsersInIdOrder) {
    FakeClientDirectory clients;
    const ScopedPort<ClientDirectory> port(clients);
    KelmGraph graph(1, 9, "nine", 1);
    graph.appendName(4, "four");
    graph.appendName(7, "seven");
    graph.appendName(4, "vier");
    clients.add(9, "client9");
    clients.add(4, "client4");
    EXPECT_THAT(graph.getClientNames(), ElementsAre("client4", "client9"));  // 7 is unknown
    graph.spliceGraphName();
    EXPECT_EQ(graph.getName(), "vier;seven;nine");
    EXPECT_FALSE(graph.removeUser(5));
    for (const uint64_t clientId : {4, 7, 9}) EXPECT_TRUE(graph.removeUser(clientId));
    EXPECT_FALSE(graph.isRunning());
    EXPECT_EQ(KelmGraph(2, 1, nullptr, 1).getName(), "unnamed");
}

TEST(KelmGraphTest, DumpIsWholeOrLeavesNoFile) {
    const TempDir dir;
    const std::string bytes(3 << 20, 'x');
    KelmGraph graph(1, 1, bytes.data(), bytes.size(), "graph", 1);
    EXPECT_EQ(graph.getMemReq(), 3U);
    const std::string path = dir.path() + "/new/folder/graph.dump";
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{50000, old.rlim_max};  // the rest does not fit
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_FALSE(graph.dumpToFile(path));
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    (void)::signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(graph.dumpToFile(path));
    EXPECT_EQ(hashOf(path), graph.getHash());
    EXPECT_FALSE(KelmGraph(2, 1, "empty", 1).dumpToFile(dir.path() + "/empty"));
}

TEST(KelmGraphTest, DumpFollowsNoPlantedLink) {
    const TempDir dir;
    const KelmGraph graph(1, 1, "content", 7, "graph", 1);
    const std::string victim = dir.write("victim", "precious");
    std::filesystem::create_symlink(victim, dir.path() + "/link");
    std::filesystem::create_hard_link(victim, dir.path() + "/name");
    for (const char* planted : {"/link", "/name"}) {
        EXPECT_FALSE(graph.dumpToFile(dir.path() + planted));
    }
    EXPECT_EQ(hashOf(victim), sha256ForString("precious"));
}

}  // namespace
}  // namespace kelm

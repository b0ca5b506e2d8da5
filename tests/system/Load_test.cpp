#include <regex>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tests/wire/LoadClient.h"

namespace kelm {
namespace {

class LoadTest : public SystemFixture {
 protected:
    // Half of them are told of ends as before version 2.
    void startClients(Load& load, int number, uint64_t tasks) const {
        for (int i = 0; i < number; ++i) {
            const auto version = static_cast<uint16_t>(1 + i % 2);
            load.start(path(), {.apiMajorVersion = version, .count = tasks, .depth = 8UL + i});
        }
    }

    // Clients with a graph and as many tasks as they can submit, each of which vanishes after so
    // many bytes, be it in the middle of a record; several at a time.
    void runDyingClients(int number) const {
        std::atomic<int> left{number};
        std::vector<std::future<void>> lanes;
        for (unsigned lane = 0; lane < 6; ++lane) {
            lanes.push_back(std::async(std::launch::async, [this, lane, &left] {
                std::minstd_rand random(lane + 1);  // fixed, so that a finding comes again
                while (left-- > 0) die(1 + random() % 60000, lane);
            }));
        }
    }
    void die(size_t bytes, unsigned kind) const {
        WireClient client(path());
        client.setManner({.piece = 2000, .life = bytes});
        try {
            (void)client.registerClient("doomed");
            const std::string blob(20000, static_cast<char>('a' + kind));
            const uint64_t graph = client.createGraph({blob}).graphId;
            for (int i = 1; client.send(client.makeInfer(graph)); ++i) {
                if (i % 3 == 0) (void)client.receive();  // reads little
            }
        } catch (const NoAnswer&) {
            // Its time has come before the answer.
        }
    }
};

TEST_F(LoadTest, EveryRequestIsAnsweredOnceAndTheResultOfAnAcceptedOneFollows) {
    constexpr int kClients = 8;
    const struct {
        int latencyMs;
        const char* settings;
        uint64_t tasks;  // of each client
        bool refuses;
    } rows[] = {{0, "", 5000, false}, {1, R"("server_max_task_number": 30)", 1000, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.settings);
        start(row.latencyMs, row.settings);
        Load load;
        startClients(load, kClients, row.tasks);
        EXPECT_EQ(load.wait(), "") << lastLines();
        EXPECT_EQ(load.done() + load.refused(), kClients * row.tasks);
        EXPECT_GT(load.done(), 0U);
        EXPECT_EQ(load.refused() > 0, row.refuses);
        endService();
    }
}

TEST_F(LoadTest, BalancedServiceRefusesNoneOfTheFew) {
    start(1, R"("server_max_task_number": 20, "task_scheduler": "balanced")");
    Load flood;
    flood.start(path(), {.name = "flood", .depth = 100});
    WireClient few(path(), "few");
    const uint64_t graph = few.createGraph({"of the few"}).graphId;
    ASSERT_TRUE(eventually([&] { return flood.refused() > 0; })) << lastLines();
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(few.infers(graph)) << i;
    EXPECT_EQ(flood.finish(), "") << lastLines();
}

// More graphs than devices, so that each has to be taken off a device to make room.
TEST_F(LoadTest, GraphsLeaveAndComeUnderLoad) {
    constexpr int kUnloads = 200;
    start(0);
    Load load;
    startClients(load, 2, 0);
    WireClient client(path(), "changing");
    for (int i = 0; i < kUnloads; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(client.sendCreateGraph({"changing " + std::to_string(i)}));
        // Answers to the tasks of the graph before may still come.
        const auto created = client.receiveType(KELM_MESSAGE_CREATE_GRAPH_RSP);
        ASSERT_TRUE(created) << lastLines();
        const uint64_t graph = created->as<KelmMsgRspCreateGraph>().graphId;
        for (int task = 0; task < 3; ++task) ASSERT_TRUE(client.send(client.makeInfer(graph)));
        ASSERT_TRUE(client.send(
            client.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph)));
        ASSERT_TRUE(client.receiveType(KELM_MESSAGE_DESTROY_GRAPH_RSP)) << lastLines();
    }
    EXPECT_EQ(load.finish(), "") << lastLines();
}

TEST_F(LoadTest, VanishingClientsTakeNothingFromOthersNorFromTheStop) {
    start(0);
    const size_t descriptorsBefore = descriptors();
    const size_t threadsBefore = threads();
    Load survivors;
    startClients(survivors, 2, 0);
    runDyingClients(300);
    EXPECT_EQ(survivors.finish(), "") << lastLines();
    EXPECT_GT(survivors.done(), 0U);
    EXPECT_TRUE(eventually([&] { return descriptors() <= descriptorsBefore; })) << descriptors();
    // A thread of the start may still have been there.
    EXPECT_TRUE(eventually([&] { return threads() <= threadsBefore; })) << threads();

    Load lost;
    startClients(lost, 8, 0);
    auto dying = std::async(std::launch::async, [this] { runDyingClients(500); });
    ASSERT_TRUE(eventually([&] { return lost.done() > 100; }));
    endService();
    dying.get();
    // A task that comes just as its client departs is refused before the connection ends.
    const std::regex anEnd(std::string(LoadClient::kLost) + "|refused, reqSeqNo [0-9]+");
    EXPECT_EQ(std::regex_replace(lost.wait(), anEnd, "."), "........");
}

}  // namespace
}  // namespace kelm

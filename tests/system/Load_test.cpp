#include <random>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tests/wire/LoadClient.h"

namespace kelm {
namespace {

class LoadTest : public SystemFixture {
 protected:
    static constexpr uint64_t kClients = 8;
    static constexpr uint64_t kTasks = 5000;

    // Half of them are told of ends as before version 2.
    void startClients(uint64_t tasks) {
        for (uint16_t i = 0; i < kClients; ++i) {
            LoadPlan plan;
            plan.name = "load-" + std::to_string(i);
            plan.apiMajorVersion = static_cast<uint16_t>(1 + i % 2);
            plan.count = tasks;
            plan.depth = 8 + i;
            m_load.start(path(), plan);
        }
    }
    void startSurvivors() {
        LoadPlan plan;
        plan.graphs.resize(1);
        for (int i = 0; i < 2; ++i) m_load.start(path(), plan);
    }
    std::string lostClients(int number) const {
        std::string all;
        for (int i = 0; i < number; ++i) all += LoadClient::kLost;
        return all;
    }

    // Clients with a graph and as many tasks as they can submit, each of which vanishes after so
    // many bytes, be it in the middle of a record; several at a time.
    void runDyingClients(int number) {
        constexpr int kAtOnce = 6;
        std::atomic<int> left{number};
        std::vector<std::future<void>> lanes;
        for (unsigned lane = 0; lane < kAtOnce; ++lane) {
            lanes.push_back(std::async(std::launch::async, [this, lane, &left] {
                std::minstd_rand random(lane + 1);  // fixed, so that a finding comes again
                while (left-- > 0) die(1 + random() % 60000, lane);
            }));
        }
        for (auto& lane : lanes) lane.get();
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

    Load m_load;
};

TEST_F(LoadTest, EveryTaskIsAnsweredOnceAndItsResultFollows) {
    start(0);
    startClients(kTasks);
    EXPECT_EQ(m_load.wait(), "") << lastLines();
    EXPECT_EQ(m_load.done(), kClients * kTasks);
    EXPECT_EQ(m_load.refused(), 0U);
}

TEST_F(LoadTest, RefusedTasksAreAnsweredOnceAndDoNotRun) {
    start(1, R"("server_max_task_number": 30)");
    startClients(kTasks / 5);
    EXPECT_EQ(m_load.wait(), "") << lastLines();
    EXPECT_EQ(m_load.done() + m_load.refused(), kClients * kTasks / 5);
    EXPECT_GT(m_load.done(), 0U);
    EXPECT_GT(m_load.refused(), 0U);
}

TEST_F(LoadTest, StopUnderLoadEndsTheServiceAndItsConnections) {
    start(1);
    startClients(0);
    ASSERT_TRUE(eventually([this] { return m_load.done() > 1000; }, std::chrono::seconds(30)));
    endService();
    EXPECT_EQ(m_load.wait(), lostClients(kClients));
}

TEST_F(LoadTest, VanishingClientsTakeNothingFromOthersAndLeaveNothingBehind) {
    start(0);
    const size_t descriptorsBefore = descriptors();
    const size_t threadsBefore = threads();
    startSurvivors();
    runDyingClients(300);
    EXPECT_EQ(m_load.finish(), "") << lastLines();
    EXPECT_GT(m_load.done(), 0U);
    EXPECT_TRUE(serves());
    EXPECT_TRUE(eventually([&] { return descriptors() <= descriptorsBefore; }))
        << descriptors() << " and not " << descriptorsBefore;
    // A thread of the start may still have been there.
    EXPECT_TRUE(eventually([&] { return threads() <= threadsBefore; }))
        << threads() << " and not " << threadsBefore;
}

TEST_F(LoadTest, StopAmongVanishingClientsEndsTheService) {
    start(0);
    startSurvivors();
    auto dying = std::async(std::launch::async, [this] { runDyingClients(500); });
    ASSERT_TRUE(eventually([this] { return m_load.done() > 100; }));
    endService();
    dying.get();
    EXPECT_EQ(m_load.wait(), lostClients(2));
}

}  // namespace
}  // namespace kelm

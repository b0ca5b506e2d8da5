#include "system/ChildProcess.h"
#include "system/LoadClient.h"
#include "system/SystemFixture.h"

namespace kelm {
namespace {

constexpr int kClients = 8;

class LoadTest : public SystemFixture {
 protected:
    static constexpr uint64_t kTasks = 5000;

    // Half of them are told of ends as before version 2.
    void startClients(uint64_t tasks) {
        for (int i = 0; i < kClients; ++i) {
            LoadPlan plan;
            plan.name = "load-" + std::to_string(i);
            plan.apiMajorVersion = static_cast<uint16_t>(1 + i % 2);
            plan.count = tasks;
            plan.depth = 8 + static_cast<uint64_t>(i);
            m_clients.emplace_back(
                [this, plan] { return LoadClient(path(), plan, *m_board).run(); });
        }
    }

    SharedMemory<LoadBoard> m_board;
    std::vector<ChildProcess> m_clients;
};

TEST_F(LoadTest, AnswerIsLostDoubledOrOvertakenByItsResult) {
    start(0);
    startClients(kTasks);
    for (ChildProcess& client : m_clients) EXPECT_EQ(client.wait(), "") << lastLines();
    EXPECT_EQ(m_board->done, kClients * kTasks);
    EXPECT_EQ(m_board->refused, 0U);
}

TEST_F(LoadTest, RefusedTaskIsAnsweredTwiceOrStillRuns) {
    start(1, R"("server_max_task_number": 30)");
    startClients(kTasks);
    for (ChildProcess& client : m_clients) EXPECT_EQ(client.wait(), "") << lastLines();
    EXPECT_EQ(m_board->done + m_board->refused, kClients * kTasks);
    EXPECT_GT(m_board->done, 0U);
    EXPECT_GT(m_board->refused, 0U);
}

TEST_F(LoadTest, StopUnderLoadHangsOrFails) {
    start(1);
    startClients(0);
    ASSERT_TRUE(eventually([this] { return m_board->done > 1000; }, std::chrono::minutes(1)));
    endService();
    for (ChildProcess& client : m_clients) EXPECT_EQ(client.wait(), LoadClient::kLost);
}

}  // namespace
}  // namespace kelm

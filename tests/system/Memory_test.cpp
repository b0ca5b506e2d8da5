#include "system/ChildProcess.h"
#include "system/LoadClient.h"
#include "system/SystemFixture.h"

// Without optimisation or under a sanitizer the figures say nothing.
#ifdef NDEBUG

namespace kelm {
namespace {

constexpr size_t kMegabyte = 1 << 20;

class MemoryTest : public SystemFixture {
 protected:
    // Two clients that do so many tasks together.
    void runTasks(uint64_t tasks) {
        SharedMemory<LoadBoard> board;
        std::vector<ChildProcess> clients;
        for (int i = 0; i < 2; ++i) {
            LoadPlan plan;
            plan.name = "memory";
            plan.count = tasks / 2;
            clients.emplace_back([&] { return LoadClient(path(), plan, *board).run(); });
        }
        for (ChildProcess& client : clients) ASSERT_EQ(client.wait(), "");
    }
};

TEST_F(MemoryTest, IdleServiceTakesTooMuch) {
    start(0);
    EXPECT_LT(resident(), 25 * kMegabyte);
}

TEST_F(MemoryTest, TasksLeaveMemoryBehind) {
    start(0);
    ASSERT_NO_FATAL_FAILURE(runTasks(10000));
    const size_t before = resident();
    ASSERT_NO_FATAL_FAILURE(runTasks(1000000));
    EXPECT_LE(resident(), before + 2 * kMegabyte);
}

TEST_F(MemoryTest, VanishingClientsLeaveMemoryOrDescriptorsBehind) {
    start(0);
    const size_t descriptorsBefore = descriptors();
    const auto live = [this](int index) {
        RawClient client(path());
        const uint64_t id = client.registerClient("short lived");
        const uint64_t graph =
            client.createGraph(id, "graph", "graph " + std::to_string(index % 3));
        return graph != 0 && client.send(RawClient::inferRequest(id, graph, 1));
    };
    ASSERT_TRUE(live(0));
    ASSERT_TRUE(serves());
    const size_t memoryBefore = resident();
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(live(i)) << i;
    EXPECT_TRUE(serves());
    EXPECT_TRUE(eventually([&] { return descriptors() == descriptorsBefore; })) << descriptors();
    EXPECT_LE(resident(), memoryBefore + 2 * kMegabyte);
}

// One client sends the same blob over and over and reads no answer until the end.
TEST_F(MemoryTest, BlobsAreGivenBackAsSoonAsTheirGraphIsKnown) {
    const struct {
        size_t megabytes;
        int requests;
    } rows[] = {{20, 60}, {1, 1000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.megabytes);
        start(0);
        ASSERT_TRUE(serves());
        const size_t before = resident();
        size_t most = 0;
        {
            RawClient client(path());
            auto request = RawClient::request<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
            request.clientId = client.registerClient("storm");
            const std::string blob(row.megabytes * kMegabyte, 'x');
            request.head.base.dataNum = 1;
            request.head.base.dataSize[0] = blob.size();
            for (int i = 0; i < row.requests; ++i) {
                ASSERT_TRUE(client.send(request, {}, blob));
                most = std::max(most, resident());
            }
            EXPECT_LT(most, before + 150 * kMegabyte);
            EXPECT_TRUE(eventually(
                [&] { return resident() < before + (2 * row.megabytes + 16) * kMegabyte; }));
            for (int i = 0; i < row.requests; ++i) ASSERT_TRUE(client.receive());
        }
        EXPECT_TRUE(eventually([&] { return resident() < before + 16 * kMegabyte; }))
            << resident() / kMegabyte;
        endService();
    }
}

TEST_F(MemoryTest, ClientsOfOneConnectionShareTheBoundOnUnreadAnswers) {
    start(0);
    ASSERT_TRUE(serves());
    const size_t before = resident();
    {
        RawClient client(path());
        std::vector<uint64_t> ids(8);
        for (uint64_t& id : ids) id = client.registerClient("mute");
        auto query = RawClient::request<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ);
        query.queryType = 1;
        pollfd state{client.fd(), POLLOUT, 0};
        for (int i = 0; i < 3000 && ::poll(&state, 1, 500) == 1; ++i) {
            query.clientId = ids[i % ids.size()];
            ASSERT_TRUE(client.send(query));
        }
        EXPECT_GT(resident(), before + 10 * kMegabyte);  // so there was something to bound
        EXPECT_LT(resident(), before + 60 * kMegabyte);
    }
    EXPECT_TRUE(eventually([&] { return resident() < before + 8 * kMegabyte; })) << resident();
    EXPECT_TRUE(serves());
}

}  // namespace
}  // namespace kelm

#endif

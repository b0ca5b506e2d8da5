#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tests/wire/LoadClient.h"

// Without optimisation or under a sanitizer the figures say nothing.
#ifdef NDEBUG

namespace kelm {
namespace {

constexpr size_t kMegabyte = 1 << 20;

class MemoryTest : public SystemFixture {
 protected:
    bool staysBelow(size_t bytes) const {
        return eventually([&] { return resident() < bytes; });
    }
};

TEST_F(MemoryTest, TasksAndVanishingClientsLeaveNothingBehind) {
    start(0);
    EXPECT_LT(resident(), 25 * kMegabyte);
    const auto runTasks = [this](uint64_t tasks) {
        Load load;
        LoadPlan plan;
        plan.count = tasks / 2;
        for (int i = 0; i < 2; ++i) load.start(path(), plan);
        EXPECT_EQ(load.wait(), "");
    };
    const size_t descriptorsBefore = descriptors();
    // Few at a time: what many take at once stays with the allocator.
    const auto vanish = [&] {
        for (int i = 0; i < 10; ++i) {
            WireClient client(path(), "short lived");
            const uint64_t graph = client.createGraph({"graph " + std::to_string(i % 3)}).graphId;
            ASSERT_TRUE(client.send(client.makeInfer(graph))) << i;
        }
        ASSERT_TRUE(eventually([&] { return descriptors() <= descriptorsBefore; }));
    };
    // What the allocator keeps for good is there before the measurement.
    runTasks(10000);
    for (int i = 0; i < 5; ++i) ASSERT_NO_FATAL_FAILURE(vanish());
    ASSERT_TRUE(serves());
    const size_t before = resident();
    runTasks(50000);
    EXPECT_LE(resident(), before + 3 * kMegabyte);
    for (int i = 0; i < 50; ++i) ASSERT_NO_FATAL_FAILURE(vanish());
    EXPECT_TRUE(serves());
    EXPECT_LE(resident(), before + 3 * kMegabyte);
}

// One client sends the same blob over and over and reads no answer until the end.
TEST_F(MemoryTest, BlobsAreGivenBackAsSoonAsTheirGraphIsKnown) {
    start(0);
    const struct {
        size_t megabytes;
        int requests;
    } rows[] = {{20, 30}, {1, 400}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.megabytes);
        ASSERT_TRUE(serves());
        const size_t before = resident();
        size_t most = 0;
        {
            WireClient client(path(), "storm");
            const GraphWish wish{std::string(row.megabytes * kMegabyte, 'x')};
            for (int i = 0; i < row.requests; ++i) {
                ASSERT_TRUE(client.sendCreateGraph(wish));
                most = std::max(most, resident());
            }
            EXPECT_LT(most, before + 150 * kMegabyte);
            EXPECT_TRUE(staysBelow(before + (2 * row.megabytes + 16) * kMegabyte));
            for (int i = 0; i < row.requests; ++i) ASSERT_TRUE(client.receive());
        }
        EXPECT_TRUE(staysBelow(before + 16 * kMegabyte)) << resident() / kMegabyte;
    }
}

TEST_F(MemoryTest, ClientsOfOneConnectionShareTheBoundOnUnreadAnswers) {
    start(0);
    ASSERT_TRUE(serves());
    const size_t before = resident();
    {
        WireClient client(path());
        std::vector<uint64_t> ids(8);
        for (uint64_t& id : ids) id = client.registerClient("mute");
        auto query = client.make<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, 1);
        for (size_t i = 0; i < 3000 && client.canSend(WireClient::Millis(500)); ++i) {
            query.clientId = ids[i % ids.size()];
            ASSERT_TRUE(client.send(query));
        }
        EXPECT_GT(resident(), before + 10 * kMegabyte);  // so there was something to bound
        EXPECT_LT(resident(), before + 60 * kMegabyte);
    }
    EXPECT_TRUE(staysBelow(before + 8 * kMegabyte)) << resident();
    EXPECT_TRUE(serves());
}

}  // namespace
}  // namespace kelm

#endif

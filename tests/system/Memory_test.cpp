#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tests/wire/LoadClient.h"

// Without optimisation or under a sanitizer the figures say nothing.
#ifdef NDEBUG

namespace kelm {
namespace {

constexpr size_t kMegabyte = 1 << 20;

using MemoryTest = SystemFixture;

TEST_F(MemoryTest, TasksAndVanishingClientsLeaveNothingBehind) {
    start(0);
    EXPECT_LT(resident(), 25 * kMegabyte);
    const size_t descriptorsBefore = descriptors();
    size_t before = 0;
    // What the allocator keeps for good is there after the first turn.
    for (const int clients : {50, 500}) {
        Load load;
        load.start(path(), {.count = static_cast<uint64_t>(clients) * 100});
        EXPECT_EQ(load.wait(), "");
        for (int i = 0; i < clients; ++i) {
            WireClient client(path(), "short lived");
            const uint64_t graph = client.createGraph({"graph " + std::to_string(i % 3)}).graphId;
            ASSERT_TRUE(client.send(client.makeInfer(graph))) << i;
            client.hangUp();
            // Few at a time: what many take at once stays with the allocator.
            ASSERT_TRUE(i % 10 < 9 ||
                        eventually([&] { return descriptors() <= descriptorsBefore; }));
        }
        if (before == 0) before = resident();
    }
    EXPECT_LE(resident(), before + 3 * kMegabyte);
}

// One client sends the same blob over and over and reads no answer until the end.
TEST_F(MemoryTest, BlobsAreGivenBackAsSoonAsTheirGraphIsKnown) {
    start(0);
    ASSERT_TRUE(serves());
    const size_t before = resident();
    for (const size_t megabytes : {20, 1}) {
        SCOPED_TRACE(megabytes);
        const size_t requests = 400 / megabytes;
        {
            WireClient client(path(), "storm");
            const GraphWish wish{std::string(megabytes * kMegabyte, 'x')};
            for (size_t i = 0; i < requests; ++i) {
                ASSERT_TRUE(client.sendCreateGraph(wish));
                EXPECT_LT(resident(), before + 150 * kMegabyte);
            }
            const size_t most = before + (2 * megabytes + 16) * kMegabyte;
            EXPECT_TRUE(eventually([&] { return resident() < most; }));
            for (size_t i = 0; i < requests; ++i) ASSERT_TRUE(client.receive());
        }
        EXPECT_TRUE(eventually([&] { return resident() < before + 16 * kMegabyte; }));
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
        for (size_t i = 0; i < 3000 && client.canSend(500ms); ++i) {
            query.clientId = ids[i % ids.size()];
            ASSERT_TRUE(client.send(query));
        }
        EXPECT_GT(resident(), before + 10 * kMegabyte);  // so there was something to bound
        EXPECT_LT(resident(), before + 60 * kMegabyte);
    }
    EXPECT_TRUE(eventually([&] { return resident() < before + 8 * kMegabyte; }));
}

}  // namespace
}  // namespace kelm

#endif

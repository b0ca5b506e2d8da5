#include "managers/ResultDispatcher.h"

#include "fakes/SocketChannel.h"
#include "fakes/TestRequest.h"
#include "managers/Backlog.h"
#include "managers/ClientSender.h"
#include "managers/ManagersFixture.h"
#include "protocol/src/MessagePtr.h"
#include "records/KelmClient.h"

namespace kelm {
namespace {

using ResultDispatcherTest = ManagersFixture;

TEST_F(ResultDispatcherTest, TaskWithoutResponseIsSilentAndHoldsUpNoDeparture) {
    constexpr int kSilent = 20;
    WireClient client = startAndConnect("terse");
    const uint64_t graph = client.createGraph({"a blob"}).graphId;
    auto infer = client.makeInfer(graph);
    infer.head.needResponse = 0;
    ASSERT_EQ(client.flood(infer, kSilent), kSilent);
    KelmClient* const record = ClientManager::instance().getClientById(client.id());
    EXPECT_TRUE(eventually([record] { return record->getInferenceTimes() == kSilent; }));
    ASSERT_TRUE(client.send(client.makeInfer(graph)));
    const auto told = client.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
    ASSERT_TRUE(told);
    // Each silent one took a number.
    EXPECT_EQ(told->as<KelmMsgEvtTaskDone>().head.evtSeqNo, uint64_t{kSilent});
    ASSERT_EQ(client.flood(infer, kSilent), kSilent);
    ASSERT_TRUE(client.send(client.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ)));
    EXPECT_EQ(client.receive<KelmMsgRsp>().base.type, KELM_MESSAGE_UNREGISTER_RSP);
    EXPECT_FALSE(client.receive());  // closed: the last task has ended
    EXPECT_TRUE(client.waitClosed());
}

TEST_F(ResultDispatcherTest, ResponseEchoesTheRequest) {
    WireClient client = startAndConnect();
    auto request = client.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ);
    request.head.reqSeqNo = 42;
    // What the client calls its prepared buffers comes back in its place, addresses untouched.
    request.head.base.recvNum = 2;
    request.head.base.recvData[1] = 0x1234;
    request.head.base.recvSize[1] = 99;
    request.head.base.recvType[1] = 7;
    const auto response = client.ask<KelmMsgRsp>(request);
    EXPECT_EQ(response.reqSeqNo, 42U);
    EXPECT_EQ(response.rspSeqNo, 42U);
    EXPECT_EQ(response.clientId, client.id());
    EXPECT_EQ(response.base.peerRecvNum, 2U);
    EXPECT_EQ(response.base.peerRecvData[1], 0x1234U);
    EXPECT_EQ(response.base.peerRecvSize[1], 99U);
    EXPECT_EQ(response.base.peerRecvType[1], 0U);
    request.head.base.recvNum = 0xffffffff;
    EXPECT_LE(client.ask<KelmMsgRsp>(request).base.peerRecvNum, kMaxMessageBlocks);
}

// No client had the id when the request was refused; one has it when the answer leaves.
TEST_F(ResultDispatcherTest, RefusedUnregisterTakesNoAnswersFromANewClient) {
    WireClient client = startAndConnect("new");
    KelmMsgReqUnregister unregister{};
    unregister.clientId = client.id();
    constexpr int kRounds = 20;
    ResultDispatcher& results = ResultDispatcher::instance();
    for (int i = 0; i < kRounds; ++i) {
        results.enqueueSendUnregisterResponse(
            KELM_ERROR_INVALID_CLIENT, makeRequest(KELM_MESSAGE_UNREGISTER_REQ, unregister, 1));
        results.enqueueSendDestroyGraphResponse(KELM_OK, makeDestroyRequest(client.id(), 1));
    }
    for (int i = 0; i < kRounds; ++i) {
        ASSERT_TRUE(client.receiveType(KELM_MESSAGE_DESTROY_GRAPH_RSP)) << i;
    }
}

TEST_F(ResultDispatcherTest, ResetIsAnsweredByTheRuleOfTheDevices) {
    WireClient client = startAndConnect();
    auto request = client.make<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ);
    for (const bool all : {true, false}) {
        request.deviceId = 99;
        request.resetAllDevices = all;
        const auto response = client.ask<KelmMsgRspResetDevice>(request);
        EXPECT_EQ(response.head.status, all ? KELM_OK : KELM_ERROR_INVALID_DEVICE);
        EXPECT_EQ(response.deviceId, 99U);
        EXPECT_EQ(response.resetAllDevices, all);
    }
}

TEST(ClientSenderTest, MessageBehindTheEndIsDroppedWhole) {
    SocketChannel channel;
    RawPeer peer{channel.path};
    const auto connection = channel.accept();
    const MessagePtr event(kelmAllocMessage(KELM_MESSAGE_TASK_DONE_EVT));
    {
        ClientSender sender(7, connection->getSimulateFD(), true);
        const auto post = [&] { sender.post(event->size, true, [&] { sender.write(*event); }); };
        post();
        sender.postNotice([&sender] { sender.end(); });
        post();
    }
    EXPECT_EQ(peer.pending(), static_cast<int>(event->size));
}

TEST(ClientSenderTest, FullListHoldsUpAPosterThatMayWait) {
    SocketChannel channel;
    RawPeer peer{channel.path};
    const auto connection = channel.accept();
    const MessagePtr report(kelmAllocMessage(KELM_MESSAGE_QUERY_STATUS_RSP));
    ClientSender sender(7, connection->getSimulateFD(), true);
    auto held = startCalling([&] {
        for (int i = 0; i < 2000; ++i) {
            sender.post(report->size, false, [&] { sender.write(*report); });
        }
    });
    EXPECT_EQ(held.wait_for(50ms), std::future_status::timeout);
    peer.hangUp();
    EXPECT_EQ(held.wait_for(10s), std::future_status::ready);
}

TEST(BacklogTest, HoldsUpOnlyWhatIsBothManyAndLarge) {
    constexpr uint64_t kReport = 54120;
    Backlog backlog(200);
    for (int i = 0; i < 199; ++i) backlog.add(2 * kReport);
    EXPECT_FALSE(backlog.isFull());  // some 20 MB, but few
    for (int i = 0; i < 199; ++i) backlog.remove(2 * kReport);
    for (int i = 0; i < 20000; ++i) backlog.add(560);
    EXPECT_FALSE(backlog.isFull());  // many, but some 11 MB
    for (; !backlog.isFull(); backlog.add(kReport)) continue;
    auto held = startCalling([&] { backlog.waitForRoom(); });
    EXPECT_EQ(held.wait_for(50ms), std::future_status::timeout);
    backlog.remove(kReport);
    EXPECT_EQ(held.wait_for(10s), std::future_status::ready);
}

}  // namespace
}  // namespace kelm

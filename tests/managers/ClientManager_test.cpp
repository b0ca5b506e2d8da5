#include "managers/ClientManager.h"

#include <pthread.h>

#include "fakes/TestRequest.h"
#include "managers/RunningService.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmClient.h"

namespace kelm {

namespace {

using namespace std::chrono_literals;

bool requestAnswered(RawClient& client, uint64_t clientId) {
    auto request = RawClient::request<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ);
    request.clientId = clientId;
    request.graphId = 999;
    return client.call<KelmMsgRsp>(request, KELM_MESSAGE_DESTROY_GRAPH_RSP).status ==
           KELM_ERROR_INVALID_GRAPH;
}

}  // namespace

TEST(ClientManagerTest, IdsAreNeverReusedAndTheSocketClosesAfterTheAnswer) {
    RunningService service;
    for (uint64_t expected = 1; expected <= 3; ++expected) {
        RawClient client(service.path());
        EXPECT_EQ(client.registerClient(""), expected);
        EXPECT_EQ(client.unregisterClient(expected), KELM_OK);
        EXPECT_TRUE(client.waitClosed());
    }
}

TEST(ClientManagerTest, RecordLeavesSocketToTheOtherOnIt) {
    RunningService service;
    ClientManager& clients = ClientManager::instance();
    RawClient shared(service.path());
    RawClient other(service.path());
    const uint64_t first = shared.registerClient("first");
    const uint64_t second = shared.registerClient("second");
    const uint64_t third = other.registerClient("third");
    const struct {
        uint64_t leaves;
        uint64_t stays;
    } rows[] = {{first, second}, {shared.registerClient("fourth"), second}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.leaves);
        // Asked for on another connection, since the one that asks is not read any more.
        RawClient messenger(service.path());
        auto request = RawClient::request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
        request.clientId = row.leaves;
        ASSERT_TRUE(messenger.send(request));
        EXPECT_TRUE(shared.receiveType(KELM_MESSAGE_UNREGISTER_RSP));
        EXPECT_TRUE(eventually([&] { return clients.getSocketByClientId(row.leaves) == -1; }));
        EXPECT_TRUE(requestAnswered(shared, row.stays));
    }
    shared.close();  // found through its number, which the later record had
    EXPECT_TRUE(eventually([&] { return clients.getSocketByClientId(second) == -1; }));
    EXPECT_TRUE(requestAnswered(other, third));
}

TEST(ClientManagerTest, ClientThatHangsUpAtOnceLeavesNothingBehind) {
    RunningService service;
    const auto request = RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    for (int i = 0; i < 100; ++i) {
        RawClient client(service.path());
        ASSERT_TRUE(client.send(request));
    }
    EXPECT_TRUE(eventually(
        [&] { return RunningService::noConnections() && !service.dispatcher().isWorking(); }));
}

TEST(ClientManagerTest, RegistrationWaitingBehindHangUpMakesNoRecord) {
    RunningService service;
    RawClient client(service.path());
    constexpr int kNumber = RunningService::kFirstClientNumber;
    ASSERT_NE(client.registerClient("probe"), 0u);  // accepted, and the first
    const auto connection = IPC::ConnectionBase::findConnection(kNumber);
    ASSERT_TRUE(connection);
    connection->shutdown();
    const KelmMsgReqRegister late{};
    for (const int socket : {kNumber, 0}) {
        ClientManager::instance().enqueueRegisterClient(
            makeRequest(KELM_MESSAGE_REGISTER_REQ, late, socket));
    }
    EXPECT_TRUE(eventually([] { return !RunningService::dispatcher().isWorking(); }));
    EXPECT_FALSE(ClientManager::instance().getClientName(2));
}

// The peer is there still: what was seen is the end of its requests.
TEST(ClientManagerTest, ConnectionWhoseHangUpWasSeenCarriesNothingMore) {
    RunningService service;
    RawClient mute(service.path());
    constexpr int kNumber = RunningService::kFirstClientNumber;
    ASSERT_EQ(mute.registerClient("mute"), 1u);
    const auto request = RawClient::inferRequest(1, 999, 1);
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(mute.send(request));  // its sender stands still
    ClientManager::instance().closeClient(kNumber);
    ClientManager::instance().enqueueRegisterClient(
        makeRequest(KELM_MESSAGE_REGISTER_REQ, KelmMsgReqRegister{}, kNumber));
    EXPECT_TRUE(eventually([] { return !ClientManager::instance().isActive(); }));
    EXPECT_TRUE(mute.waitClosed());
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }));
}

TEST(ClientManagerTest, ConnectionWithTooManyClientsIsClosedWithAllOfThem) {
    RunningService service;
    RawClient crowd(service.path());
    for (uint64_t id = 1; id <= 64; ++id) ASSERT_EQ(crowd.registerClient("one of many"), id);
    EXPECT_EQ(crowd.registerClient("one too many"), 0u);
    EXPECT_TRUE(crowd.waitClosed());
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }));
    EXPECT_FALSE(service.dispatcher().isWorking());
    EXPECT_TRUE(service.serves());
}

// No thread can be made whose stack is larger than the address space.
TEST(ClientManagerTest, ClientWithoutAThreadForItsAnswersIsClosed) {
    RunningService service;
    RawClient early(service.path());
    const uint64_t id = early.registerClient("early");
    pthread_attr_t attributes;
    ASSERT_EQ(::pthread_attr_init(&attributes), 0);
    size_t usual = 0;
    ASSERT_EQ(::pthread_getattr_default_np(&attributes), 0);
    ASSERT_EQ(::pthread_attr_getstacksize(&attributes, &usual), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, size_t{1} << 50), 0);
    ASSERT_EQ(::pthread_setattr_default_np(&attributes), 0);
    RawClient late(service.path());
    EXPECT_EQ(late.registerClient("late"), 0u);
    EXPECT_TRUE(late.waitClosed());
    EXPECT_TRUE(requestAnswered(early, id));
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, usual), 0);
    ASSERT_EQ(::pthread_setattr_default_np(&attributes), 0);
    EXPECT_EQ(early.unregisterClient(id), KELM_OK);
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }));
    EXPECT_FALSE(service.dispatcher().isWorking());
}

TEST(ClientManagerTest, LastDepartureWakesTheIdleWaiterOnce) {
    RunningService service;
    RawClient first(service.path());
    RawClient second(service.path());
    const uint64_t id = first.registerClient("first");
    ASSERT_NE(second.registerClient("second"), 0u);
    EXPECT_EQ(first.unregisterClient(id), KELM_OK);
    EXPECT_TRUE(service.dispatcher().isWorking());
    auto idle = std::async(std::launch::async, [&] { service.dispatcher().waitForIdleState(); });
    second.close();
    EXPECT_EQ(idle.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(service.dispatcher().isWorking());
    service.dispatcher().getNotifiedOfZeroClient();  // in case the line above has failed
}

TEST(ClientManagerTest, UnregisterWithoutResponseStillEndsTheClient) {
    RunningService service;
    RawClient client(service.path());
    auto request = RawClient::request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    request.clientId = client.registerClient("terse");
    request.head.needResponse = 0;
    ASSERT_TRUE(client.send(request));
    EXPECT_FALSE(client.receive());
    EXPECT_TRUE(client.waitClosed());
}

// Answered by threads that the departure does not pass, so many rounds lose one.
TEST(ClientManagerTest, RequestsSentAheadOfUnregisterAreAnswered) {
    RunningService service;
    auto status = RawClient::request<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ);
    auto size = RawClient::request<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ);
    auto leave = RawClient::request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    status.queryType = 1;
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE(round);
        RawClient client(service.path());
        status.clientId = size.clientId = leave.clientId = client.registerClient("hasty");
        ASSERT_TRUE(client.send(status) && client.send(size) && client.send(leave));
        std::set<uint32_t> answers;
        while (const auto message = client.receive()) answers.insert(message->type());
        EXPECT_EQ(answers.size(), 3u);
    }
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }));
}

TEST(ClientManagerTest, UnansweredRequestKeepsTheRecordWhileThePeerIsThere) {
    RunningService service;
    ClientManager& clients = ClientManager::instance();
    for (const bool hangsUp : {false, true}) {
        SCOPED_TRACE(hangsUp);
        RawClient client(service.path());
        KelmMsgReqQueryStatus status{};
        status.clientId = client.registerClient("patient");
        std::vector<Request> requests(2);
        for (Request& request : requests) {
            request = makeRequest(KELM_MESSAGE_QUERY_STATUS_REQ, status, 0);
            clients.keepUntilAnswered(request);
        }
        EXPECT_EQ(client.unregisterClient(status.clientId), KELM_OK);
        EXPECT_FALSE(client.waitClosed(100ms));
        EXPECT_TRUE(clients.isActive());
        hangsUp ? client.close() : requests.clear();
        EXPECT_TRUE(eventually([&] { return !clients.isActive(); }));
    }
}

TEST(ClientManagerTest, SnapshotTableKeepsItsShape) {
    RunningService service(
        R"({"debug_settings": {"info_printer": {"client_snapshot_mode": "base", "client_fps": "on"}}})");
    RawClient client(service.path());
    ASSERT_EQ(client.registerClient("camera"), 1u);
    testing::internal::CaptureStdout();
    ClientManager::instance().onPrintInfo();
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_THAT(text, testing::HasSubstr("ClientFps(count=1):\n [camera] = 0.00\n"));
    EXPECT_THAT(text, testing::HasSubstr("ClientSnapshot(RegularPrint):\n"
                                         "+--------------+-------------------+\n"
                                         "| clientId     | 1                 |\n"
                                         "+--------------+-------------------+\n"
                                         "| clientName   | camera            |\n"
                                         "| clientFps    | 0.00              |\n"
                                         "| inferTimes   | 0                 |\n"
                                         "| waitNum      | 0                 |\n"
                                         "+--------------+-------------------+\n"));
}

}  // namespace kelm

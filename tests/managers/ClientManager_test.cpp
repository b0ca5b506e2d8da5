#include "managers/ClientManager.h"

#include <pthread.h>

#include "fakes/TestRequest.h"
#include "managers/ManagersFixture.h"

namespace kelm {
namespace {

class ClientManagerTest : public ManagersFixture {
 protected:
    // Whether the client gets its answer on the connection, on which others may be registered too.
    static bool isAnswered(WireClient& connection, uint64_t clientId) {
        auto request = connection.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, 999);
        request.clientId = clientId;
        return connection.ask<KelmMsgRsp>(request).status == KELM_ERROR_INVALID_GRAPH;
    }
};

TEST_F(ClientManagerTest, IdsAreNeverReusedAndTheSocketClosesAtTheEndOfItsClient) {
    start();
    for (uint64_t expected = 1; expected <= 3; ++expected) {
        WireClient client = connect("");
        EXPECT_EQ(client.id(), expected);
        EXPECT_TRUE(client.unregister());
        EXPECT_TRUE(client.waitClosed());
    }
    WireClient silent = connect();
    auto request = silent.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    request.head.needResponse = 0;
    ASSERT_TRUE(silent.send(request));
    EXPECT_FALSE(silent.receive());
    EXPECT_TRUE(silent.waitClosed());
}

TEST_F(ClientManagerTest, RecordLeavesItsSocketToTheOthersOnIt) {
    start();
    ClientManager& clients = ClientManager::instance();
    WireClient shared = connect("first");
    WireClient other = connect("other");
    const uint64_t first = shared.id();
    const uint64_t second = shared.registerClient("second");
    for (const uint64_t leaves : {first, shared.registerClient("third")}) {
        SCOPED_TRACE(leaves);
        // Asked for on another connection, since the one that asks is not read any more.
        WireClient messenger(path());
        auto request = messenger.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
        request.clientId = leaves;
        ASSERT_TRUE(messenger.send(request));
        EXPECT_TRUE(shared.receiveType(KELM_MESSAGE_UNREGISTER_RSP));
        EXPECT_TRUE(eventually([&] { return clients.getSocketByClientId(leaves) == -1; }));
        EXPECT_TRUE(isAnswered(shared, second));
    }
    shared.hangUp();  // found through its number, which the third record had
    EXPECT_TRUE(eventually([&] { return clients.getSocketByClientId(second) == -1; }));
    EXPECT_TRUE(isAnswered(other, other.id()));
}

TEST_F(ClientManagerTest, RegistrationThatWaitsBehindAHangUpMakesNoRecord) {
    WireClient client = startAndConnect();
    constexpr int kNumber = ServiceInProcess::kFirstClientNumber;
    const auto connection = IPC::ConnectionBase::findConnection(kNumber);
    ASSERT_TRUE(connection);
    connection->shutdown();
    for (const int socket : {kNumber, 0}) {
        ClientManager::instance().enqueueRegisterClient(
            makeRequest(KELM_MESSAGE_REGISTER_REQ, KelmMsgReqRegister{}, socket));
    }
    EXPECT_TRUE(noClientIsLeft());
    EXPECT_FALSE(ClientManager::instance().getClientName(2));
}

// The peer is there still: what was seen is the end of its requests.
TEST_F(ClientManagerTest, ConnectionWhoseHangUpWasSeenCarriesNothingMore) {
    WireClient mute = startAndConnect("mute");
    constexpr int kNumber = ServiceInProcess::kFirstClientNumber;
    ASSERT_EQ(mute.flood(mute.makeInfer(999), 2000), 2000);  // its sender stands still
    ClientManager::instance().closeClient(kNumber);
    ClientManager::instance().enqueueRegisterClient(
        makeRequest(KELM_MESSAGE_REGISTER_REQ, KelmMsgReqRegister{}, kNumber));
    EXPECT_TRUE(mute.waitClosed());
    EXPECT_TRUE(noConnectionIsLeft());
}

TEST_F(ClientManagerTest, ConnectionWithTooManyClientsIsClosedWithAllOfThem) {
    start();
    WireClient crowd(path());
    for (uint64_t id = 1; id <= 64; ++id) ASSERT_EQ(crowd.registerClient("one of many"), id);
    EXPECT_EQ(crowd.registerClient("one too many"), 0U);
    EXPECT_TRUE(crowd.waitClosed());
    EXPECT_TRUE(noConnectionIsLeft());
    EXPECT_TRUE(serves());
}

// No thread can be made whose stack is larger than the address space.
TEST_F(ClientManagerTest, ClientWithoutAThreadForItsAnswersHearsSoAndIsClosed) {
    WireClient early = startAndConnect("early");
    pthread_attr_t usual;
    ASSERT_EQ(::pthread_getattr_default_np(&usual), 0);
    pthread_attr_t huge = usual;
    ASSERT_EQ(::pthread_attr_setstacksize(&huge, size_t{1} << 50), 0);
    ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
    WireClient late(path());
    ASSERT_TRUE(late.send(late.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ)));
    const auto refusal = late.receiveType(KELM_MESSAGE_REGISTER_RSP);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->as<KelmMsgRsp>().status, KELM_ERROR_OUT_OF_MEMORY);
    EXPECT_TRUE(late.waitClosed());
    EXPECT_TRUE(isAnswered(early, early.id()));
    ASSERT_EQ(::pthread_setattr_default_np(&usual), 0);
    EXPECT_TRUE(early.unregister());
    EXPECT_TRUE(noConnectionIsLeft());
}

TEST_F(ClientManagerTest, RequestsSentAheadOfUnregisterAreAnswered) {
    constexpr int kQueries = 90;  // most of which wait for the printer while the departure passes
    WireClient client = startAndConnect("hasty");
    const auto query = client.make<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, 31);
    EXPECT_EQ(client.flood(query, kQueries), kQueries);
    EXPECT_TRUE(client.send(client.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ)));
    int answers = 0;
    while (const auto message = client.receive()) {
        answers += message->type() == KELM_MESSAGE_QUERY_STATUS_RSP;
    }
    EXPECT_EQ(answers, kQueries);
    EXPECT_TRUE(noConnectionIsLeft());
}

TEST_F(ClientManagerTest, UnansweredRequestKeepsTheRecordWhileThePeerIsThere) {
    start();
    ClientManager& clients = ClientManager::instance();
    for (const bool hangsUp : {false, true}) {
        SCOPED_TRACE(hangsUp);
        WireClient client = connect("patient");
        const auto status = client.make<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ);
        std::vector<Request> requests(2);
        for (Request& request : requests) {
            request = makeRequest(KELM_MESSAGE_QUERY_STATUS_REQ, status, 0);
            clients.keepUntilAnswered(request);
        }
        EXPECT_TRUE(client.unregister());
        EXPECT_FALSE(client.waitClosed(100ms));
        EXPECT_TRUE(clients.isActive());
        hangsUp ? client.hangUp() : requests.clear();
        EXPECT_TRUE(noClientIsLeft());
    }
}

}  // namespace
}  // namespace kelm

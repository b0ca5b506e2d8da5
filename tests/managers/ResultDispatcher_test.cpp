#include "managers/ResultDispatcher.h"

#include <sys/ioctl.h>

#include <filesystem>

#include "fakes/TestRequest.h"
#include "managers/ClientManager.h"
#include "managers/RunningService.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmClient.h"
#include "reporting/KelmStatus.h"
#include "utils/Log.h"

namespace kelm {

namespace {

using namespace std::chrono_literals;

size_t countThreads() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(threads), end(threads)));
}

}  // namespace

TEST(ResultDispatcherTest, DoneMessageFollowsTheCreateAnswerInTheFormOfTheApiVersion) {
    RunningService service;
    const struct {
        uint16_t apiMajorVersion;
        KelmMsgType doneType;
    } rows[] = {{0, KELM_MESSAGE_TASK_DONE_MSG},
                {1, KELM_MESSAGE_TASK_DONE_MSG},
                {2, KELM_MESSAGE_TASK_DONE_EVT}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.apiMajorVersion);
        constexpr uint64_t kTasks = 100;
        RawClient client(service.path());
        const uint64_t id = client.registerClient("client", row.apiMajorVersion);
        const uint64_t graph = client.createGraph(id, "graph", "a blob");
        ASSERT_NE(graph, 0u);
        for (uint64_t sequence = 1; sequence <= kTasks; ++sequence) {
            ASSERT_TRUE(client.send(RawClient::inferRequest(id, graph, sequence)));
        }
        std::set<uint64_t> created;
        std::set<uint64_t> done;
        while (done.size() < kTasks) {
            const auto message = client.receive();
            ASSERT_TRUE(message);
            if (message->type() == KELM_MESSAGE_INFER_TASK_RSP) {
                const auto& response = message->as<KelmMsgRspInferTask>();
                EXPECT_EQ(response.head.status, KELM_OK);
                EXPECT_EQ(response.head.reqSeqNo, response.taskCookie0);
                created.insert(response.taskId);
                continue;
            }
            ASSERT_EQ(message->type(), row.doneType);
            const bool isEvent = row.doneType == KELM_MESSAGE_TASK_DONE_EVT;
            const uint64_t taskId = isEvent ? message->as<KelmMsgEvtTaskDone>().taskId
                                            : message->as<KelmMsgRspTaskDone>().taskId;
            EXPECT_EQ(isEvent ? message->as<KelmMsgEvtTaskDone>().reqSeqNo
                              : message->as<KelmMsgRspTaskDone>().head.rspSeqNo,
                      isEvent ? message->as<KelmMsgEvtTaskDone>().taskCookie0
                              : message->as<KelmMsgRspTaskDone>().taskCookie0);
            EXPECT_EQ(created.count(taskId), 1u) << "the done message came first";
            EXPECT_TRUE(done.insert(taskId).second) << "told twice";
        }
        EXPECT_EQ(client.unregisterClient(id), KELM_OK);
        EXPECT_TRUE(client.waitClosed());
    }
}

TEST(ResultDispatcherTest, TaskWithoutResponseIsSilentAndHoldsUpNoDeparture) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("terse");
    const uint64_t graph = client.createGraph(id, "graph", "a blob");
    auto infer = RawClient::inferRequest(id, graph, 1);
    infer.head.needResponse = 0;
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(client.send(infer));
    KelmClient* const record = ClientManager::instance().getClientById(id);
    EXPECT_TRUE(eventually([record] { return record->getInferenceTimes() == 20; }));
    ASSERT_TRUE(client.send(RawClient::inferRequest(id, graph, 2)));
    const auto told = client.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->as<KelmMsgEvtTaskDone>().head.evtSeqNo, 20u);  // each silent one took a number
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(client.send(infer));
    auto unregister = RawClient::request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    unregister.clientId = id;
    ASSERT_TRUE(client.send(unregister));
    const auto message = client.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->type(), KELM_MESSAGE_UNREGISTER_RSP);
    EXPECT_FALSE(client.receive());  // closed: the last task has ended
    EXPECT_TRUE(client.waitClosed());
}

TEST(ResultDispatcherTest, ResponseEchoesTheRequest) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("client");
    auto request = RawClient::request<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, 42);
    request.clientId = id;
    // What the client calls its prepared buffers comes back in its place, addresses untouched.
    request.head.base.recvNum = 2;
    request.head.base.recvData[1] = 0x1234;
    request.head.base.recvSize[1] = 99;
    request.head.base.recvType[1] = 7;
    const auto response = client.call<KelmMsgRsp>(request, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    EXPECT_EQ(response.reqSeqNo, 42u);
    EXPECT_EQ(response.rspSeqNo, 42u);
    EXPECT_EQ(response.clientId, id);
    EXPECT_EQ(response.base.peerRecvNum, 2u);
    EXPECT_EQ(response.base.peerRecvData[1], 0x1234u);
    EXPECT_EQ(response.base.peerRecvSize[1], 99u);
    EXPECT_EQ(response.base.peerRecvType[1], 0u);

    request.head.base.recvNum = 0xffffffff;
    const auto cut = client.call<KelmMsgRsp>(request, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    EXPECT_LE(cut.base.peerRecvNum, kMaxMessageBlocks);
}

TEST(ResultDispatcherTest, CanceledCancelAnswerKeepsItsOldWords) {
    RunningService service(R"({"debug_settings": {"debug_process": {"result_dispatcher": "on"}}})");
    Log::instance().setLogLevel(LOG_LEVEL_PROC);
    RawClient client(service.path());
    auto cancel = RawClient::request<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ);
    cancel.clientId = client.registerClient("client");
    cancel.head.needResponse = 0;
    auto query = RawClient::request<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ);
    query.clientId = cancel.clientId;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(client.send(cancel));
    const auto answer = client.call<KelmMsgRspQueryTaskStatus>(
        query, KELM_MESSAGE_QUERY_TASK_STATUS_RSP);  // queued behind it
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(answer.head.status, KELM_ERROR_INVALID_TASK);
    EXPECT_EQ(answer.taskStatus, -1);
    EXPECT_THAT(text, testing::HasSubstr("cancel sendQueryTaskStatusResponse: clientId=1"));
    EXPECT_THAT(text, testing::HasSubstr("sendQueryTaskStatusResponse(rspSeqNo=1): clientId=1"));
}

TEST(ResultDispatcherTest, AnswerForUnknownClientMakesNoThread) {
    RunningService service;
    RawClient client(service.path());
    constexpr uint64_t kStrangers = 300;
    // The first answer proves that the sender works; the threads are counted after it.
    auto request = RawClient::request<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ);
    request.clientId = 1000;
    client.call<KelmMsgRsp>(request, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    const size_t threads = countThreads();
    for (uint64_t i = 0; i < kStrangers; ++i) {
        request.clientId = 1001 + i;
        const auto response = client.call<KelmMsgRsp>(request, KELM_MESSAGE_DESTROY_GRAPH_RSP);
        ASSERT_EQ(response.status, KELM_ERROR_INVALID_CLIENT);
    }
    // With no connection known it is dropped, and its request freed.
    ResultDispatcher::instance().enqueueSendDestroyGraphResponse(KELM_OK,
                                                                 makeDestroyRequest(1001, -1));
    client.call<KelmMsgRsp>(request, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    EXPECT_EQ(countThreads(), threads);
}

// When the request was refused nobody had the id; a client has it when the answer goes out.
TEST(ResultDispatcherTest, RefusedUnregisterCostsANewClientItsAnswers) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("new");
    KelmMsgReqUnregister unregister{};
    unregister.clientId = id;
    constexpr int kRounds = 20;
    ResultDispatcher& results = ResultDispatcher::instance();
    for (int i = 0; i < kRounds; ++i) {
        results.enqueueSendUnregisterResponse(
            KELM_ERROR_INVALID_CLIENT, makeRequest(KELM_MESSAGE_UNREGISTER_REQ, unregister, 1));
        results.enqueueSendDestroyGraphResponse(KELM_OK, makeDestroyRequest(id, 1));
    }
    for (int i = 0; i < kRounds; ++i) {
        ASSERT_TRUE(client.receiveType(KELM_MESSAGE_DESTROY_GRAPH_RSP)) << i;
    }
}

TEST(ResultDispatcherTest, AnswerBehindTheEndOfItsClientIsAborted) {
    RunningService service(R"({"debug_settings": {"debug_process": {"result_dispatcher": "on"}}})");
    Log::instance().setLogLevel(LOG_LEVEL_PROC);
    ASSERT_TRUE(service.serves());
    testing::internal::CaptureStdout();
    ResultDispatcher::instance().enqueueSendDestroyGraphResponse(
        KELM_OK, makeDestroyRequest(1, RunningService::kFirstClientNumber));
    ASSERT_TRUE(service.serves());  // behind it in the queue
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr("abort sendMessage(rspSeqNo=0) for closed client(id:1)"));
}

// A stranger's reports fill the socket in the middle of one; then it registers twice, and three
// threads have something to write.
TEST(ResultDispatcherTest, RecordsOfAllWritersOnAConnectionStayWhole) {
    RunningService service;
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        RawClient client(service.path());
        // So many small ones that the socket is full in the middle of the fourth report.
        auto destroy = RawClient::request<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ);
        destroy.clientId = 4711;
        for (int i = 0; i < 20; ++i) ASSERT_TRUE(client.send(destroy));
        constexpr int kReports = 12;
        auto query = RawClient::request<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ);
        query.clientId = 4711;
        query.queryType = kQueryClients;
        for (int i = 0; i < kReports; ++i) ASSERT_TRUE(client.send(query));
        const auto socketIsFull = [&client] {
            int unread = 0;
            return ::ioctl(client.fd(), FIONREAD, &unread) == 0 &&
                   unread > 3 * static_cast<int>(sizeof(KelmMsgRspQueryStatus));
        };
        ASSERT_TRUE(eventually(socketIsFull));
        // Room for another writer, which the one that waits in its record sees a little later.
        ASSERT_TRUE(client.receiveType(KELM_MESSAGE_QUERY_STATUS_RSP));
        const auto request = RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
        for (int i = 0; i < 2; ++i) ASSERT_TRUE(client.send(request));
        ASSERT_TRUE(eventually([] { return ClientManager::instance().isActive(); }));
        int reports = 1;
        int registrations = 0;
        while (reports < kReports || registrations < 2) {
            const auto message = client.receive();
            ASSERT_TRUE(message);
            if (message->type() == KELM_MESSAGE_QUERY_STATUS_RSP) ++reports;
            if (message->type() == KELM_MESSAGE_REGISTER_RSP) ++registrations;
        }
        client.close();
        ASSERT_TRUE(eventually([] { return !ClientManager::instance().isActive(); }));
    }
}

TEST(ResultDispatcherTest, PoolOfDepartedClientEnds) {
    RunningService service;
    ASSERT_TRUE(service.serves());
    const size_t threads = countThreads();
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(service.serves());
    RawClient vanishes(service.path());
    ASSERT_NE(vanishes.registerClient("vanishes"), 0u);
    vanishes.close();
    EXPECT_TRUE(eventually([threads] { return countThreads() <= threads; }));
}

TEST(ResultDispatcherTest, ResetIsAnsweredByTheRuleOfTheDevices) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("client");
    const struct {
        uint64_t clientId;
        uint32_t deviceId;
        uint8_t resetAll;
        int32_t status;
    } rows[] = {{id, 5, 1, KELM_OK},
                {id, 99, 0, KELM_ERROR_INVALID_DEVICE},
                {id + 1, 0, 1, KELM_ERROR_INVALID_CLIENT}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        auto request = RawClient::request<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ);
        request.clientId = row.clientId;
        request.deviceId = row.deviceId;
        request.resetAllDevices = row.resetAll;
        const auto response =
            client.call<KelmMsgRspResetDevice>(request, KELM_MESSAGE_RESET_DEVICE_RSP);
        EXPECT_EQ(response.head.status, row.status);
        EXPECT_EQ(response.deviceId, row.deviceId);
        EXPECT_EQ(response.resetAllDevices, row.resetAll);
    }
}

}  // namespace kelm

#include "managers/MessageDispatcher.h"

#include <sys/resource.h>

#include "managers/ManagersFixture.h"
#include "utils/Log.h"

namespace kelm {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kNobody = 4711;  // an id without a client, a graph or a task

class MessageDispatcherTest : public ManagersFixture {
 protected:
    // What gathers in the client's own list, and what holds up every queue to the listen thread.
    static constexpr int kSomeRequests = 2000;
    static constexpr int kAllThatFits = 100000;

    // A client, or a peer that is none, that sends and reads no answer.
    WireClient floodWithoutReading(int requests, bool registered) const {
        WireClient mute(path());
        if (registered) (void)mute.registerClient("mute");
        auto request = mute.makeInfer(kNobody);
        if (!registered) request.clientId = kNobody;
        EXPECT_GT(mute.flood(request, requests), 0);
        EXPECT_TRUE(eventually([&] { return mute.unread() > 50000; }));
        return mute;
    }
};

TEST_F(MessageDispatcherTest, MessageThatIsNoRequestClosesItsSenderOnly) {
    start();
    WireClient honest = connect();
    const struct {
        const char* what;
        uint32_t type;
        uint64_t size;
    } rows[] = {
        {"a response", KELM_MESSAGE_REGISTER_RSP, 528},
        {"an event", KELM_MESSAGE_TASK_DONE_EVT, 560},
        {"no record, size 0", KELM_MESSAGE_REQ_END, 0},
        {"no record at the end, size 0", KELM_MESSAGE_EVT_END, 0},
        {"beyond the last type", KELM_MESSAGE_END, 0},
        {"far beyond", 0xffffffff, 488},
        {"a size that is not the type's", KELM_MESSAGE_REGISTER_REQ, 553},
        {"a descriptor test without a descriptor", KELM_MESSAGE_TEST_SEND_FD_REQ, 528},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        KelmMsgBase head = {};
        head.type = row.type;
        head.size = row.size;
        std::string bytes(std::max<size_t>(row.size, sizeof(head)), '\0');
        std::memcpy(bytes.data(), &head, sizeof(head));
        WireClient hostile(path());
        (void)hostile.sendBytes(bytes);
        EXPECT_TRUE(hostile.waitClosed());
    }
    EXPECT_TRUE(honest.unregister());
}

TEST_F(MessageDispatcherTest, DescriptorsOfRequestsThatComeToNothingAreClosed) {
    start();
    WireClient client(path());
    auto test = client.make<KelmMsgReqTestSendFd>(KELM_MESSAGE_TEST_SEND_FD_REQ);
    test.head.base.fdNum = 1;
    DescriptorProbe tested;
    ASSERT_TRUE(client.send(test, {tested.get()}));
    tested.sent();
    EXPECT_TRUE(tested.isClosed());

    // Of an unknown client; the third descriptor has a role that does not exist.
    auto infer = client.makeInfer(1);
    infer.clientId = 77;
    infer.head.base.fdNum = 3;
    infer.head.base.fdType[1] = KELM_FD_AUX;
    infer.head.base.fdType[2] = 9;
    infer.inputBuffer.type = infer.auxBuffer.type = KELM_BUFFER_ION;
    DescriptorProbe passed[3];
    const auto refused =
        client.ask<KelmMsgRspInferTask>(infer, {passed[0].get(), passed[1].get(), passed[2].get()});
    EXPECT_EQ(refused.head.status, KELM_ERROR_INVALID_CLIENT);
    for (DescriptorProbe& probe : passed) {
        probe.sent();
        EXPECT_TRUE(probe.isClosed());
    }
}

TEST_F(MessageDispatcherTest, TextWithoutEndIsCutAtItsField) {
    start();
    WireClient client(path());
    auto request = client.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    std::memset(request.clientName, 'x', sizeof(request.clientName));
    const auto registered = client.ask<KelmMsgRsp>(request);
    EXPECT_EQ(ClientManager::instance().getClientName(registered.clientId), std::string(31, 'x'));
    auto create = client.make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    create.clientId = registered.clientId;
    std::memset(
        create.graphName, '/',
        offsetof(KelmMsgReqCreateGraph, padding) - offsetof(KelmMsgReqCreateGraph, graphName));
    EXPECT_EQ(client.ask<KelmMsgRspCreateGraph>(create).head.status,
              KELM_ERROR_GRAPH_DIGEST_FAILED);
}

// What a client can name, announce and leave out, each on a connection of its own.
struct Attack {
    const char* what;
    bool (*run)(WireClient& self, uint64_t graph);
};

bool sendBuffersWithoutEnd(WireClient& self, uint64_t graph) {
    auto request = self.makeInfer(graph);
    KelmMsgBase& head = request.head.base;
    head.recvNum = head.peerRecvNum = head.innerBufferNum = 0xffffffff;
    for (uint64_t& address : head.innerBuffer) address = 0x1000;
    for (uint64_t& address : head.recvData) address = 0x1000;
    for (uint64_t& size : head.recvSize) size = 1 << 20;
    return self.ask<KelmMsgRspInferTask>(request).head.status == KELM_OK;
}

bool sendDescriptorsOfWrongRoles(WireClient& self, uint64_t graph) {
    auto request = self.makeInfer(graph);
    const uint32_t roles[] = {KELM_FD_INPUT, KELM_FD_OUTPUT, KELM_FD_OUTPUT, 3, 0xffffffff};
    request.head.base.fdNum = 12;  // more than there are places for
    std::copy(std::begin(roles), std::end(roles), request.head.base.fdType);
    request.inputBuffer.type = KELM_BUFFER_ION;
    request.inputBuffer.fd = 1;  // the service's own standard output
    const std::vector<int> descriptors(12, STDIN_FILENO);
    return self.ask<KelmMsgRspInferTask>(request, descriptors).head.status == KELM_OK;
}

bool nameWhatDoesNotExist(WireClient& self, uint64_t) {
    GraphWish wish{"", std::string(600, '/')};
    wish.subclass = -77;
    wish.path = std::string(1024, '/');
    return self.ask<KelmMsgRspInferTask>(self.makeInfer(kNobody)).head.status ==
               KELM_ERROR_INVALID_GRAPH &&
           self.destroyGraph(kNobody) == KELM_ERROR_INVALID_GRAPH &&
           self.queryBufferSize(kNobody).head.status == KELM_ERROR_INVALID_GRAPH &&
           self.cancelTask(~0ull).head.status == KELM_ERROR_INVALID_TASK &&
           self.queryTaskStatus(~0ull).head.status == KELM_ERROR_INVALID_TASK &&
           self.createGraph(wish).head.status == KELM_ERROR_GRAPH_DIGEST_FAILED;
}

bool askForEverythingAndWantNoAnswer(WireClient& self, uint64_t graph) {
    const auto send = [&self](auto request) {
        request.head.needResponse = 0;
        return self.send(request);
    };
    bool sent = send(self.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ));
    for (int i = 0; i < 50; ++i) {
        sent = sent && send(self.makeInfer(graph)) &&
               send(self.make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ)) &&
               send(self.make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ)) &&
               send(self.make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ)) &&
               send(self.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ)) &&
               send(self.make<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ));
    }
    sent = sent && send(self.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph));
    sent = sent && self.send(self.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ));
    return sent && self.receive<KelmMsgRsp>().base.type == KELM_MESSAGE_UNREGISTER_RSP;
}

bool floodAfterUnregister(WireClient& self, uint64_t graph) {
    return self.send(self.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ)) &&
           self.flood(self.makeInfer(graph), 10000) > 0 && self.waitClosed();
}

TEST_F(MessageDispatcherTest, HostileClientHarmsNeitherTheServiceNorAnotherClient) {
    const Attack attacks[] = {
        {"buffers without end", sendBuffersWithoutEnd},
        {"descriptors of wrong roles", sendDescriptorsOfWrongRoles},
        {"ids of nothing", nameWhatDoesNotExist},
        {"no answers wanted", askForEverythingAndWantNoAnswer},
        {"flood after unregister", floodAfterUnregister},
    };
    start();
    WireClient honest = connect("honest");
    const uint64_t graph = honest.createGraph({"graph of the honest"}).graphId;
    const size_t before = descriptors();
    for (const Attack& attack : attacks) {
        SCOPED_TRACE(attack.what);
        WireClient hostile = connect("hostile");
        EXPECT_TRUE(attack.run(hostile, hostile.createGraph({"graph of the hostile"}).graphId));
        EXPECT_TRUE(honest.infers(graph));
    }
    {  // tasks in the name of another
        WireClient victim = connect("victim");
        auto request = victim.makeInfer(graph);
        WireClient hostile(path());
        EXPECT_EQ(hostile.flood(request, 50), 50);
        hostile.hangUp();
        EXPECT_TRUE(victim.unregister() && victim.waitClosed());
    }
    EXPECT_TRUE(eventually([&] { return descriptors() <= before; }))
        << descriptors() << " and not " << before;
}

TEST_F(MessageDispatcherTest, ConnectionThatAskedToLeaveIsNotReadAndFreedWhenItCloses) {
    start();
    WireClient stranger(path());
    auto unregister = stranger.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    unregister.clientId = kNobody;
    EXPECT_EQ(stranger.ask<KelmMsgRsp>(unregister).status, KELM_ERROR_INVALID_CLIENT);
    ASSERT_TRUE(stranger.send(stranger.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ)));
    EXPECT_TRUE(serves());
    EXPECT_FALSE(stranger.receive(1ms));
    EXPECT_FALSE(service().dispatcher().isWorking());

    WireClient thief = connect("thief");  // names the id of another, then vanishes
    WireClient victim = connect("victim");
    unregister.clientId = victim.id();
    ASSERT_TRUE(thief.send(unregister));
    EXPECT_TRUE(victim.receiveType(KELM_MESSAGE_UNREGISTER_RSP));
    EXPECT_TRUE(victim.waitClosed());
    stranger.hangUp();
    thief.hangUp();
    EXPECT_TRUE(noConnectionIsLeft());
    EXPECT_FALSE(service().dispatcher().isWorking());
}

TEST_F(MessageDispatcherTest, RunningOutOfNumbersTurnsAwayNewClientsOnly) {
    start();
    WireClient working = connect();
    WireClient silent(path());
    WireClient half(path());
    ASSERT_TRUE(half.sendHalf());
    ASSERT_TRUE(serves());  // so the two have been accepted
    std::vector<std::shared_ptr<IPC::ConnectionUDS>> taken;
    while (auto connection = IPC::ConnectionUDS::tryMake(nullptr)) taken.push_back(connection);
    constexpr size_t kForTools = 16;
    taken.resize(taken.size() - kForTools);
    EXPECT_TRUE(WireClient(path()).waitClosed());
    // In time the two that send nothing make room, the one after the other, and no other does.
    std::vector<WireClient> later;
    for (WireClient* idle : {&silent, &half}) {
        EXPECT_TRUE(eventually([&] {
            later.emplace_back(path(), "later");
            return later.back().id() != 0 && idle->waitClosed(1ms);
        }));
    }
    EXPECT_TRUE(working.unregister());
}

#ifndef __SANITIZE_ADDRESS__  // that sanitizer opens descriptors for its own checks
TEST_F(MessageDispatcherTest, RunningOutOfDescriptorsDelaysNewClientsOnly) {
    start();
    WireClient early = connect();
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit none = limit;
    none.rlim_cur = 3;
    WireClient pending(path());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    ASSERT_TRUE(pending.send(pending.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ)));
    EXPECT_TRUE(early.unregister());  // served meanwhile
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(pending.receiveType(KELM_MESSAGE_REGISTER_RSP));
}
#endif

TEST_F(MessageDispatcherTest, AnswersOfMuteClientGatherAndComeWhenItReads) {
    start();
    WireClient mute = connect("mute");
    const uint64_t first = mute.makeInfer(kNobody).head.reqSeqNo + 1;
    constexpr uint64_t kRequests = 3000;
    for (uint64_t i = 0; i < kRequests; ++i) ASSERT_TRUE(mute.send(mute.makeInfer(kNobody)));
    EXPECT_TRUE(serves());  // behind all of them
    for (uint64_t i = 0; i < kRequests; ++i) {
        ASSERT_EQ(mute.receive<KelmMsgRspInferTask>().head.reqSeqNo, first + i);
    }
    EXPECT_TRUE(mute.unregister());
}

// Each has a second, and all have the same one.
TEST_F(MessageDispatcherTest, StrangersThatDoNotReadAreClosedTogether) {
    start();
    std::vector<WireClient> mute;
    for (int i = 0; i < 8; ++i) {
        mute.emplace_back(path());
        (void)mute.back().flood(mute.back().makeInfer(1), 1000);
    }
    EXPECT_TRUE(serves());
    EXPECT_TRUE(eventually([] { return ServiceInProcess::noConnections(); }, 6s));
    WireClient reading(path());
    EXPECT_EQ(reading.destroyGraph(1), KELM_ERROR_INVALID_CLIENT);
}

TEST_F(MessageDispatcherTest, StopTakesTheClientsAwayInTheirTurn) {
    start(R"("debug_settings": {"debug_process": {"client_manager": "on"}})");
    std::vector<WireClient> clients;
    for (int i = 0; i < 5; ++i) clients.push_back(connect());
    Log::instance().setLogLevel(LOG_LEVEL_PROC | LOG_LEVEL_INFO | LOG_LEVEL_ERROR);
    testing::internal::CaptureStdout();
    const bool stopped = service().stop(8s);
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(stopped);
    EXPECT_THAT(text, testing::HasSubstr("remove all 5 clients"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("failed")));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("close client")));
}

TEST_F(MessageDispatcherTest, DepartureOfMuteClientFreesTheService) {
    start();
    for (const auto& [requests, registered] :
         {std::pair{kSomeRequests, true}, {kAllThatFits, true}, {kAllThatFits, false}}) {
        SCOPED_TRACE(requests);
        floodWithoutReading(requests, registered).hangUp();
        EXPECT_TRUE(serves());
        EXPECT_TRUE(noConnectionIsLeft());
    }
}

TEST_F(MessageDispatcherTest, MuteAndHalfSpokenClientsDoNotHoldUpTheStop) {
    start();
    WireClient slow(path());
    WireClient idle(path());  // never registers
    ASSERT_TRUE(slow.sendHalf());
    EXPECT_TRUE(serves());
    // The last one holds up every queue to the listen thread.
    const WireClient some = floodWithoutReading(kSomeRequests, true);
    const WireClient all = floodWithoutReading(kAllThatFits, true);
    EXPECT_TRUE(service().stop(8s));
    EXPECT_TRUE(slow.waitClosed() && idle.waitClosed() && some.waitClosed() && all.waitClosed());
}

TEST_F(MessageDispatcherTest, MuteStrangerDoesNotHoldUpTheStop) {
    start();
    const WireClient mute = floodWithoutReading(kAllThatFits, false);
    EXPECT_TRUE(service().stop(8s));
    EXPECT_TRUE(mute.waitClosed());
}

TEST(ServiceStartTest, WithoutPlaceForTheSocketFailsAndEnds) {
    TempDir dir;
    const ScopedEnv runDir("KELM_RUN_DIR", dir.path() + "/missing");
    ServiceConfigParser::instance().appendConfigFile(dir.write("config", ServiceConfig::kBase),
                                                     true);
    connectPorts();
    EXPECT_FALSE(MessageDispatcher::instance().isReady());
}

}  // namespace
}  // namespace kelm

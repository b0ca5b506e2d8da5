#include "managers/MessageDispatcher.h"

#include <sys/resource.h>

#include "fakes/TestRequest.h"
#include "managers/ManagersFixture.h"
#include "records/KelmClient.h"

namespace kelm {
namespace {

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
    WireClient honest = startAndConnect();
    const auto sendNone = [&](auto message, KelmMsgType type) {
        WireClient hostile(path());
        (void)hostile.send(hostile.make<decltype(message)>(type));
        EXPECT_TRUE(hostile.waitClosed());
    };
    sendNone(KelmMsgRsp{}, KELM_MESSAGE_REGISTER_RSP);
    sendNone(KelmMsgEvtTaskDone{}, KELM_MESSAGE_TASK_DONE_EVT);
    EXPECT_TRUE(honest.unregister());
}

// Its client would wait for the answer for ever.
TEST_F(MessageDispatcherTest, RequestThatAnExceptionEndsTakesItsConnectionWithIt) {
    start();
    KelmMsgReqQueryStatus status{};
    status.head.needResponse = 1;
    for (const bool fails : {false, true}) {
        const WireClient client = connect("unlucky");
        const int socket = ClientManager::instance().getClientById(client.id())->getSocket();
        InlineTask job(
            [fails, request = makeRequest(KELM_MESSAGE_QUERY_STATUS_REQ, status, socket)] {
                if (fails) throw std::bad_alloc();
            });
        job.runLogged("any");
        job.reset();
        EXPECT_EQ(client.waitClosed(fails ? WireClient::kPatience : 10ms), fails);
    }
}

TEST_F(MessageDispatcherTest, TextWithoutEndIsCutAtItsField) {
    start();
    WireClient client(path());
    auto request = client.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    std::memset(request.clientName, 'x', sizeof(request.clientName));
    const auto registered = client.ask<KelmMsgRsp>(request);
    EXPECT_EQ(ClientManager::instance().getClientName(registered.clientId), std::string(31, 'x'));
}

TEST_F(MessageDispatcherTest, HostileClientHarmsNeitherTheServiceNorAnotherClient) {
    WireClient honest = startAndConnect("honest");
    const uint64_t graph = honest.createGraph({"graph of the honest"}).graphId;
    const size_t before = descriptors();
    {  // wants no answers
        WireClient self = connect("hostile");
        const uint64_t own = self.createGraph({"graph of the hostile"}).graphId;
        const auto send = [&self](auto request) {
            request.head.needResponse = 0;
            EXPECT_TRUE(self.send(request));
        };
        send(self.make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ));
        for (int i = 0; i < 50; ++i) {
            send(self.makeInfer(own));
            send(self.make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ));
            send(self.make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ));
            send(self.make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ));
            send(self.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ));
            send(self.make<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ));
        }
        send(self.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, own));
        EXPECT_TRUE(self.send(self.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ)));
        EXPECT_EQ(self.receive<KelmMsgRsp>().base.type, KELM_MESSAGE_UNREGISTER_RSP);
    }
    {  // tasks in the name of another
        WireClient victim = connect("victim");
        WireClient hostile(path());
        EXPECT_EQ(hostile.flood(victim.makeInfer(graph), 50), 50);
        hostile.hangUp();
        EXPECT_TRUE(victim.unregister() && victim.waitClosed());
    }
    EXPECT_TRUE(honest.infers(graph));
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
}

TEST_F(MessageDispatcherTest, RunningOutOfNumbersTurnsAwayNewClientsOnly) {
    WireClient working = startAndConnect();
    std::vector<std::shared_ptr<IPC::ConnectionUDS>> taken;
    const auto takeAll = [&taken] {
        while (auto connection = IPC::ConnectionUDS::tryMake(nullptr)) taken.push_back(connection);
        return taken.size();
    };
    const size_t all = takeAll();
    taken.clear();
    WireClient silent(path());
    WireClient half(path());
    ASSERT_TRUE(half.sendHalf());
    ASSERT_TRUE(serves());  // so the two have been accepted
    // The number of the one that was served comes free a moment after its end.
    ASSERT_TRUE(eventually([&] { return takeAll() == all - 2; }));
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
    WireClient early = startAndConnect();
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

TEST_F(MessageDispatcherTest, DepartureOfMuteClientFreesTheService) {
    start();
    for (const auto& [requests, registered] :
         {std::pair{kSomeRequests, true}, {kAllThatFits, true}, {kAllThatFits, false}}) {
        SCOPED_TRACE(requests);
        floodWithoutReading(requests, registered).hangUp();
        EXPECT_TRUE(serves());
        EXPECT_TRUE(noConnectionIsLeft());
    }
    // One whose hang-up only the sender meets, since nothing is read from it any more.
    WireClient leaving = floodWithoutReading(kSomeRequests, true);
    auto unregister = leaving.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    unregister.clientId = kNobody;
    ASSERT_TRUE(leaving.send(unregister));
    ASSERT_TRUE(eventually([&] { return leaving.unsent() == 0; }));
    leaving.hangUp();
    EXPECT_TRUE(noConnectionIsLeft());
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
    EXPECT_TRUE(service().stop(60s));  // what a client holds up would stand still for ever
    EXPECT_TRUE(slow.waitClosed() && idle.waitClosed() && some.waitClosed() && all.waitClosed());
}

}  // namespace
}  // namespace kelm

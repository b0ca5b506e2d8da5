#include "managers/MessageDispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include "managers/ClientManager.h"
#include "managers/RunningService.h"
#include "utils/Log.h"

namespace kelm {

namespace {

using namespace std::chrono_literals;

// A pipe whose far end tells when the last copy of the near end is gone.
class Witness {
 public:
    Witness() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        m_far.reset(ends[0]);
        m_near.reset(ends[1]);
    }
    int fd() const { return m_near.get(); }
    void letGo() { m_near.reset(); }
    bool isGone() const {
        pollfd state{m_far.get(), 0, 0};
        return ::poll(&state, 1, static_cast<int>(RawClient::kPatience.count())) == 1;
    }

 private:
    UniqueFd m_far;
    UniqueFd m_near;
};

KelmMsgBase head(uint32_t type, uint64_t size) {
    KelmMsgBase record = {};
    record.type = type;
    record.size = size;
    return record;
}

struct Flood {
    int requests;
    bool registered;
};

// Sends requests and reads no answer, until so many are out or the service takes no more.
// One that never registers is closed for it.
void floodWithoutReading(RawClient& client, const Flood& flood) {
    constexpr uint64_t kNobody = 4711;
    const uint64_t id = flood.registered ? client.registerClient("mute") : kNobody;
    const auto request = RawClient::inferRequest(id, 12345, 1);
    for (int i = 0; i < flood.requests; ++i) {
        pollfd state{client.fd(), POLLOUT, 0};
        if (::poll(&state, 1, 500) != 1) return;
        if (!client.send(request)) break;
    }
    const auto answersPileUp = [&client] {
        int unread = 0;
        return ::ioctl(client.fd(), FIONREAD, &unread) == 0 && unread > 50000;
    };
    ASSERT_TRUE(eventually(answersPileUp));
}

void sendHalfRequest(RawClient& client) {
    const auto request = RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    ASSERT_TRUE(client.sendBytes(&request, sizeof(request) / 2));
    const auto isRead = [&client] {
        int unread = -1;
        return ::ioctl(client.fd(), TIOCOUTQ, &unread) == 0 && unread == 0;
    };
    ASSERT_TRUE(eventually(isRead));
}

// What gathers in the client's own list, and what holds up every queue to the listen thread.
constexpr int kSomeRequests = 2000;
constexpr int kAllThatFits = 100000;

}  // namespace

TEST(MessageDispatcherTest, MessageThatNobodyHandlesClosesItsSenderOnly) {
    RunningService service;
    RawClient honest(service.path());
    const uint64_t id = honest.registerClient("honest");
    ASSERT_NE(id, 0u);
    const struct {
        const char* what;
        KelmMsgBase message;
    } rows[] = {
        {"a response", head(KELM_MESSAGE_REGISTER_RSP, 528)},
        {"an event", head(KELM_MESSAGE_TASK_DONE_EVT, 560)},
        {"no record, size 0", head(KELM_MESSAGE_REQ_END, 0)},
        {"no record at the end, size 0", head(KELM_MESSAGE_EVT_END, 0)},
        {"beyond the last type", head(KELM_MESSAGE_END, 0)},
        {"far beyond", head(0xffffffff, 488)},
        {"a size that is not the type's", head(KELM_MESSAGE_REGISTER_REQ, 553)},
        {"a descriptor test without a descriptor", head(KELM_MESSAGE_TEST_SEND_FD_REQ, 528)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        RawClient hostile(service.path());
        std::vector<std::byte> bytes(std::max<size_t>(row.message.size, sizeof(row.message)));
        std::memcpy(bytes.data(), &row.message, sizeof(row.message));
        hostile.sendBytes(bytes.data(), bytes.size());
        EXPECT_TRUE(hostile.waitClosed());
    }
    EXPECT_EQ(honest.unregisterClient(id), KELM_OK);
}

TEST(MessageDispatcherTest, DescriptorOfRequestThatComesToNothingIsClosed) {
    RunningService service;
    RawClient client(service.path());
    auto test = RawClient::request<KelmMsgReqTestSendFd>(KELM_MESSAGE_TEST_SEND_FD_REQ);
    test.head.base.fdNum = 1;
    Witness tested;
    ASSERT_TRUE(client.send(test, {tested.fd()}));
    tested.letGo();
    EXPECT_TRUE(tested.isGone());

    // Of an unknown client; the third descriptor has a role that does not exist.
    auto infer = RawClient::inferRequest(77, 1, 5);
    infer.head.base.fdNum = 3;
    infer.head.base.fdType[1] = KELM_FD_AUX;
    infer.head.base.fdType[2] = 9;
    infer.inputBuffer.type = KELM_BUFFER_ION;
    infer.auxBuffer.type = KELM_BUFFER_ION;
    Witness passed[3];
    const auto refused = client.call<KelmMsgRspInferTask>(
        infer, KELM_MESSAGE_INFER_TASK_RSP, {passed[0].fd(), passed[1].fd(), passed[2].fd()});
    EXPECT_EQ(refused.head.status, KELM_ERROR_INVALID_CLIENT);
    for (Witness& witness : passed) {
        witness.letGo();
        EXPECT_TRUE(witness.isGone());
    }
}

TEST(MessageDispatcherTest, TextWithoutEndIsCutAtItsField) {
    RunningService service;
    RawClient client(service.path());
    auto request = RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    std::memset(request.clientName, 'x', sizeof(request.clientName));
    const auto registered = client.call<KelmMsgRsp>(request, KELM_MESSAGE_REGISTER_RSP);
    EXPECT_EQ(ClientManager::instance().getClientName(registered.clientId), std::string(31, 'x'));

    auto create = RawClient::request<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    create.clientId = registered.clientId;
    std::memset(create.graphName, '/',
                sizeof(create.graphName) + sizeof(create.graphTag) + sizeof(create.streamId) +
                    sizeof(create.graphPath));
    const auto refused = client.call<KelmMsgRspCreateGraph>(create, KELM_MESSAGE_CREATE_GRAPH_RSP);
    EXPECT_EQ(refused.head.status, KELM_ERROR_GRAPH_DIGEST_FAILED);
}

TEST(MessageDispatcherTest, BlockedConnectionOfVanishedClientIsFreed) {
    RunningService service;
    RawClient stranger(service.path());
    EXPECT_EQ(stranger.unregisterClient(4711), KELM_ERROR_INVALID_CLIENT);
    // It asked to leave, so whatever it sends next is ignored.
    auto request = RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    ASSERT_TRUE(stranger.send(request));
    EXPECT_TRUE(service.serves());
    EXPECT_FALSE(stranger.receive(1ms));
    EXPECT_FALSE(service.dispatcher().isWorking());

    RawClient thief(service.path());  // names the id of another, then vanishes
    RawClient victim(service.path());
    ASSERT_NE(thief.registerClient("thief"), 0u);
    const uint64_t id = victim.registerClient("victim");
    auto unregister = RawClient::request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
    unregister.clientId = id;
    ASSERT_TRUE(thief.send(unregister));
    EXPECT_TRUE(victim.receiveType(KELM_MESSAGE_UNREGISTER_RSP));
    EXPECT_TRUE(victim.waitClosed());
    stranger.close();
    thief.close();
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }));
    EXPECT_FALSE(service.dispatcher().isWorking());
}

TEST(MessageDispatcherTest, RunningOutOfNumbersTurnsAwayNewClientsOnly) {
    RunningService service;
    RawClient working(service.path());
    const uint64_t id = working.registerClient("working");
    RawClient silent(service.path());
    RawClient half(service.path());
    sendHalfRequest(half);
    ASSERT_TRUE(service.serves());  // so the two have been accepted
    std::vector<std::shared_ptr<IPC::ConnectionUDS>> taken;
    while (auto connection = IPC::ConnectionUDS::tryMake(nullptr)) taken.push_back(connection);
    constexpr size_t kForTools = 16;
    taken.resize(taken.size() - kForTools);
    RawClient refused(service.path());
    EXPECT_TRUE(refused.waitClosed());
    // In time the two who send nothing make room, the one after the other, and nobody else does.
    std::vector<std::unique_ptr<RawClient>> later;
    for (RawClient* idle : {&silent, &half}) {
        EXPECT_TRUE(eventually([&] {
            later.push_back(std::make_unique<RawClient>(service.path()));
            return later.back()->registerClient("later") != 0 && idle->waitClosed(1ms);
        }));
    }
    EXPECT_EQ(working.unregisterClient(id), KELM_OK);
}

#ifndef __SANITIZE_ADDRESS__  // that sanitizer opens descriptors for its own checks
TEST(MessageDispatcherTest, RunningOutOfDescriptorsDelaysNewClientsOnly) {
    RunningService service;
    RawClient early(service.path());
    const uint64_t id = early.registerClient("early");
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit none = limit;
    none.rlim_cur = 3;
    RawClient pending(service.path());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    auto request = RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    ASSERT_TRUE(pending.send(request));
    EXPECT_EQ(early.unregisterClient(id), KELM_OK);  // served meanwhile
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(pending.receiveType(KELM_MESSAGE_REGISTER_RSP));
}
#endif

TEST(MessageDispatcherTest, AnswersOfMuteClientGatherAndComeWhenItReads) {
    RunningService service;
    RawClient mute(service.path());
    const uint64_t id = mute.registerClient("mute");
    constexpr uint64_t kRequests = 3000;
    for (uint64_t sequence = 1; sequence <= kRequests; ++sequence) {
        ASSERT_TRUE(mute.send(RawClient::inferRequest(id, 12345, sequence)));
    }
    // Behind all of them.
    EXPECT_TRUE(service.serves());
    for (uint64_t sequence = 1; sequence <= kRequests; ++sequence) {
        const auto answer = mute.receive();
        ASSERT_TRUE(answer);
        ASSERT_EQ(answer->as<KelmMsgRsp>().reqSeqNo, sequence);
    }
    EXPECT_EQ(mute.unregisterClient(id), KELM_OK);
}

// Each has a second, and all have the same one.
TEST(MessageDispatcherTest, StrangersThatDoNotReadAreClosedTogether) {
    RunningService service;
    constexpr int kStrangers = 8;
    std::vector<RawClient> mute;
    for (int i = 0; i < kStrangers; ++i) {
        mute.emplace_back(service.path());
        for (int request = 0; request < 1000; ++request) {
            if (!mute.back().send(RawClient::inferRequest(4711, 1, 1))) break;
        }
    }
    EXPECT_TRUE(service.serves());
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }, 6s));
    RawClient reading(service.path());
    EXPECT_EQ(reading.unregisterClient(4711), KELM_ERROR_INVALID_CLIENT);
}

TEST(MessageDispatcherTest, StopTakesTheClientsAwayInTheirTurn) {
    RunningService service(R"({"debug_settings": {"debug_process": {"client_manager": "on"}}})");
    std::vector<RawClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.emplace_back(service.path());
        ASSERT_NE(clients.back().registerClient("client"), 0u);
    }
    Log::instance().setLogLevel(LOG_LEVEL_PROC | LOG_LEVEL_INFO | LOG_LEVEL_ERROR);
    testing::internal::CaptureStdout();
    const bool stopped = service.stopWithin(8s);
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(stopped);
    EXPECT_THAT(text, testing::HasSubstr("remove all 5 clients"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("failed")));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("close client")));
}

class MuteClientTest : public testing::TestWithParam<Flood> {};

TEST_P(MuteClientTest, ItsDepartureFreesTheService) {
    RunningService service;
    RawClient mute(service.path());
    ASSERT_NO_FATAL_FAILURE(floodWithoutReading(mute, GetParam()));
    mute.close();
    EXPECT_TRUE(service.serves());
    EXPECT_TRUE(eventually([] { return RunningService::noConnections(); }));
}

TEST_P(MuteClientTest, ItDoesNotHoldUpTheStop) {
    RunningService service;
    RawClient mute(service.path());
    ASSERT_NO_FATAL_FAILURE(floodWithoutReading(mute, GetParam()));
    EXPECT_TRUE(service.stopWithin(8s));
    EXPECT_TRUE(mute.waitClosed());
}

INSTANTIATE_TEST_SUITE_P(Floods, MuteClientTest,
                         testing::Values(Flood{kSomeRequests, true}, Flood{kAllThatFits, true},
                                         Flood{kAllThatFits, false}));

TEST(MessageDispatcherTest, HalfMessageHoldsUpNeitherOthersNorTheStop) {
    RunningService service;
    RawClient slow(service.path());
    RawClient idle(service.path());  // never registers
    sendHalfRequest(slow);
    EXPECT_TRUE(service.serves());
    EXPECT_TRUE(service.stopWithin(8s));
    EXPECT_TRUE(slow.waitClosed());
    EXPECT_TRUE(idle.waitClosed());
}

TEST(MessageDispatcherTest, StartWithoutPlaceForTheSocketFailsAndEnds) {
    TempDir dir;
    const ScopedEnv runDir("KELM_RUN_DIR", dir.path() + "/missing");
    ServiceConfigParser::instance().appendConfigFile(
        dir.write("config", R"({"fake_device_settings": {"enable_fake_device": true}})"), true);
    connectPorts();
    EXPECT_FALSE(MessageDispatcher::instance().isReady());
}

}  // namespace kelm

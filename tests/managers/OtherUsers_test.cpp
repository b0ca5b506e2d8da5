#include "fakes/OtherUser.h"
#include "managers/ManagersFixture.h"
#include "records/KelmTask.h"
#include "records/KelmTaskParam.h"

namespace kelm {
namespace {

class OtherUsersTest : public ScriptedFixture {
 protected:
    void SetUp() override {
        if (!OtherUser::isPossible()) GTEST_SKIP() << "acting as another user needs root";
        start();
        OtherUser::letIn(path());
    }
    WireClient connectAsOther() const {
        std::optional<WireClient> client;
        OtherUser::run([&] { client.emplace(connect("other")); });
        return std::move(*client);
    }
    static int32_t create(WireClient& client, const std::string& file) {
        GraphWish wish{};
        wish.path = file;
        return client.createGraph(wish).head.status;
    }
};

// All requests say next to their heads whose they are, and then what they are about.
KelmMsgRsp ask(WireClient& client, KelmMsgType type, uint64_t clientId, uint64_t subject) {
    auto request = client.make<KelmMsgReqCancelTask>(type, subject);
    request.clientId = clientId;
    request.head.base.size = KelmMessageSize[type];
    std::string bytes(std::max(sizeof(request), KelmMessageSize[type]), '\0');
    std::memcpy(bytes.data(), &request, sizeof(request));
    if (type == KELM_MESSAGE_CREATE_GRAPH_REQ) {
        bytes.replace(offsetof(KelmMsgReqCreateGraph, graphPath), 11, "/etc/passwd");
    }
    client.sendBytes(bytes.substr(0, KelmMessageSize[type]));
    const auto answer = client.receive();
    return answer ? answer->as<KelmMsgRsp>() : KelmMsgRsp{};
}

TEST_F(OtherUsersTest, ClientsAreUnknownToOtherUsersInEveryRequest) {
    WireClient victim = connect("victim");
    const uint64_t graph = victim.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    const uint64_t task = infer(victim, graph, input).taskId;
    constexpr int32_t kUnknown = KELM_ERROR_INVALID_CLIENT;
    constexpr int32_t kRefused = KELM_ERROR_NO_RIGHTS;
    const struct {
        KelmMsgType type;
        int32_t expected;
        uint64_t subject;
    } rows[] = {
        {KELM_MESSAGE_CREATE_GRAPH_REQ, kUnknown, 0},
        {KELM_MESSAGE_DESTROY_GRAPH_REQ, kUnknown, graph},
        {KELM_MESSAGE_INFER_TASK_REQ, kUnknown, graph},
        {KELM_MESSAGE_CANCEL_TASK_REQ, kRefused, task},
        {KELM_MESSAGE_QUERY_TASK_STATUS_REQ, kRefused, task},
        {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, kUnknown, graph},
        {KELM_MESSAGE_QUERY_STATUS_REQ, KELM_OK, 1},
        {KELM_MESSAGE_RESET_DEVICE_REQ, kUnknown, 0},
        // Last: nothing more is read from the connection afterwards.
        {KELM_MESSAGE_UNREGISTER_REQ, kUnknown, 0},
    };
    for (const uint64_t named : {uint64_t{4711}, victim.id()}) {
        WireClient other = connectAsOther();
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << row.type << " of " << named);
            const KelmMsgRsp answer = ask(other, row.type, named, row.subject);
            EXPECT_EQ(answer.base.type, row.type + 1U);
            EXPECT_EQ(answer.status, row.expected);
            EXPECT_EQ(answer.clientId, named);
        }
    }
    // The client has got nothing of this, and another connection of its user may still name it.
    EXPECT_EQ(victim.queryTaskStatus(task).head.status, KELM_OK);
    WireClient sibling = connect("sibling");
    EXPECT_TRUE(
        sibling.send(victim.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph)));
    const auto destroyed = victim.receive<KelmMsgRsp>();
    EXPECT_EQ(destroyed.base.type, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    EXPECT_EQ(destroyed.status, KELM_OK);
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(victim.unregister());
}

// Named tensors are mapped as whoever a task says that it is of may use them.
TEST_F(OtherUsersTest, TaskIsOfTheUserWhoSentIt) {
    WireClient other = connectAsOther();
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    (void)infer(other, other.createGraph({"blob"}).graphId, input);
    ASSERT_TRUE(isReached(DeviceCall::LoadTensor));
    EXPECT_EQ(device().loadedTasks()[0]->getTaskParam()->getPeer().user, OtherUser::kId);
}

TEST_F(OtherUsersTest, GraphFilesAreReadForUsersThatTheirModeLetsIn) {
    const TempDir& files = service().files();
    const std::string secret = files.write("secret", "secret");
    const std::string own = files.write("own", "own");
    ASSERT_EQ(::chmod(secret.c_str(), 0600) | ::chmod(own.c_str(), 0600), 0);
    ASSERT_EQ(::chown(own.c_str(), OtherUser::kId, OtherUser::kId), 0);
    WireClient other = connectAsOther();
    EXPECT_EQ(create(other, secret), KELM_ERROR_GRAPH_DIGEST_FAILED);
    EXPECT_EQ(create(other, own), KELM_OK);
    WireClient reader = connect();
    EXPECT_EQ(create(reader, secret), KELM_OK);
    // A file that is loaded already is no less secret.
    EXPECT_EQ(create(other, secret), KELM_ERROR_GRAPH_DIGEST_FAILED);
}

}  // namespace
}  // namespace kelm

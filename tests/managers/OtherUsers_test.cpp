#include <sys/stat.h>

#include "fakes/OtherUser.h"
#include "managers/ManagersFixture.h"
#include "utils/StringHelper.h"

namespace kelm {
namespace {

constexpr uint64_t kNobody = 4711;  // an id without a client

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

// What a request in the name of another's client is answered; the task and the graph are his too.
struct Row {
    KelmMsgType type;
    int32_t expected;
    KelmMsgRsp (*ask)(WireClient& client, const Row& row, uint64_t clientId, uint64_t subject);
    bool namesTask = false;
};

template <class Request>
KelmMsgRsp ask(WireClient& client, const Row& row, uint64_t clientId, uint64_t subject) {
    auto request = client.make<Request>(row.type, subject);
    request.clientId = clientId;
    if constexpr (requires { request.queryType; }) request.queryType = 1;
    if constexpr (requires { request.graphPath; }) {
        StringHelper::copyStringSafe(request.graphPath, "/etc/passwd");
    }
    client.send(request);
    const auto answer = client.receive();
    return answer ? answer->as<KelmMsgRsp>() : KelmMsgRsp{};
}

constexpr int32_t kUnknown = KELM_ERROR_INVALID_CLIENT;
constexpr int32_t kRefused = KELM_ERROR_NO_RIGHTS;
constexpr Row kRows[] = {
    {KELM_MESSAGE_CREATE_GRAPH_REQ, kUnknown, &ask<KelmMsgReqCreateGraph>},
    {KELM_MESSAGE_DESTROY_GRAPH_REQ, kUnknown, &ask<KelmMsgReqDestroyGraph>},
    {KELM_MESSAGE_INFER_TASK_REQ, kUnknown, &ask<KelmMsgReqInferTask>},
    {KELM_MESSAGE_CANCEL_TASK_REQ, kRefused, &ask<KelmMsgReqCancelTask>, true},
    {KELM_MESSAGE_QUERY_TASK_STATUS_REQ, kRefused, &ask<KelmMsgReqQueryTaskStatus>, true},
    {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, kUnknown, &ask<KelmMsgReqQueryBufferSize>},
    {KELM_MESSAGE_QUERY_STATUS_REQ, KELM_OK, &ask<KelmMsgReqQueryStatus>},
    {KELM_MESSAGE_RESET_DEVICE_REQ, kUnknown, &ask<KelmMsgReqResetDevice>},
    // Last: nothing more is read from the connection afterwards.
    {KELM_MESSAGE_UNREGISTER_REQ, kUnknown, &ask<KelmMsgReqUnregister>},
};

TEST_F(OtherUsersTest, ClientsAreUnknownToOtherUsersInEveryRequest) {
    WireClient victim = connect("victim");
    const uint64_t graph = victim.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    const uint64_t task = infer(victim, graph, input).taskId;
    for (const uint64_t named : {kNobody, victim.id()}) {
        WireClient other = connectAsOther();
        for (const Row& row : kRows) {
            SCOPED_TRACE(testing::Message() << row.type << " of " << named);
            const KelmMsgRsp answer = row.ask(other, row, named, row.namesTask ? task : graph);
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

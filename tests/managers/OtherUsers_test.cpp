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
    std::string makeFile(const std::string& text, mode_t mode) const {
        std::string file = service().files().write(text, text);
        EXPECT_EQ(::chmod(file.c_str(), mode), 0);
        return file;
    }
    static int32_t create(WireClient& client, const std::string& file) {
        GraphWish wish{};
        wish.path = file;
        return client.createGraph(wish).head.status;
    }
};

// Sends the request; returns the head of the next message.
template <class Request>
KelmMsgRsp ask(WireClient& client, KelmMsgType type, uint64_t clientId, uint64_t subject) {
    auto request = client.make<Request>(type, subject);
    request.clientId = clientId;
    if constexpr (requires { request.queryType; }) request.queryType = 1;
    if constexpr (requires { request.graphPath; }) {
        StringHelper::copyStringSafe(request.graphPath, "/etc/passwd");
    }
    client.send(request);
    const auto answer = client.receive();
    return answer ? answer->as<KelmMsgRsp>() : KelmMsgRsp{};
}

struct Row {
    KelmMsgType request;
    KelmMsgRsp (*ask)(WireClient& client, KelmMsgType type, uint64_t clientId, uint64_t subject);
    bool namesTask;
    int32_t expected;
};
constexpr Row kRows[] = {
    {KELM_MESSAGE_CREATE_GRAPH_REQ, &ask<KelmMsgReqCreateGraph>, false, KELM_ERROR_INVALID_CLIENT},
    {KELM_MESSAGE_DESTROY_GRAPH_REQ, &ask<KelmMsgReqDestroyGraph>, false,
     KELM_ERROR_INVALID_CLIENT},
    {KELM_MESSAGE_INFER_TASK_REQ, &ask<KelmMsgReqInferTask>, false, KELM_ERROR_INVALID_CLIENT},
    {KELM_MESSAGE_CANCEL_TASK_REQ, &ask<KelmMsgReqCancelTask>, true, KELM_ERROR_NO_RIGHTS},
    {KELM_MESSAGE_QUERY_TASK_STATUS_REQ, &ask<KelmMsgReqQueryTaskStatus>, true,
     KELM_ERROR_NO_RIGHTS},
    {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, &ask<KelmMsgReqQueryBufferSize>, false,
     KELM_ERROR_INVALID_CLIENT},
    {KELM_MESSAGE_QUERY_STATUS_REQ, &ask<KelmMsgReqQueryStatus>, false, KELM_OK},
    {KELM_MESSAGE_RESET_DEVICE_REQ, &ask<KelmMsgReqResetDevice>, false, KELM_ERROR_INVALID_CLIENT},
    // Last: nothing more is read from the connection afterwards.
    {KELM_MESSAGE_UNREGISTER_REQ, &ask<KelmMsgReqUnregister>, false, KELM_ERROR_INVALID_CLIENT},
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
            SCOPED_TRACE(std::string(KelmMsgTypeStr[row.request]) + " of " + std::to_string(named));
            const KelmMsgRsp answer =
                row.ask(other, row.request, named, row.namesTask ? task : graph);
            EXPECT_EQ(answer.base.type, row.request + 1U);
            EXPECT_EQ(answer.status, row.expected);
            EXPECT_EQ(answer.clientId, named);
        }
    }
    // The client has got nothing of this, and another connection of its user may still name it.
    EXPECT_EQ(victim.queryTaskStatus(task).head.status, KELM_OK);
    WireClient sibling = connect("sibling");
    auto request = sibling.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph);
    request.clientId = victim.id();
    EXPECT_TRUE(sibling.send(request));
    const auto destroyed = victim.receive<KelmMsgRsp>();
    EXPECT_EQ(destroyed.base.type, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    EXPECT_EQ(destroyed.status, KELM_OK);
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(victim.unregister());
}

TEST_F(OtherUsersTest, GraphFilesAreReadForUsersThatTheirModeLetsIn) {
    const std::string open = makeFile("open", 0644);
    const std::string secret = makeFile("secret", 0600);
    const std::string own = makeFile("own", 0600);
    ASSERT_EQ(::chown(own.c_str(), OtherUser::kId, OtherUser::kId), 0);
    WireClient other = connectAsOther();
    EXPECT_EQ(create(other, secret), KELM_ERROR_GRAPH_DIGEST_FAILED);
    EXPECT_EQ(create(other, open), KELM_OK);
    EXPECT_EQ(create(other, own), KELM_OK);
    WireClient reader = connect();
    EXPECT_EQ(create(reader, secret), KELM_OK);
    // A file that is loaded already is no less secret.
    EXPECT_EQ(create(other, secret), KELM_ERROR_GRAPH_DIGEST_FAILED);
}

}  // namespace
}  // namespace kelm

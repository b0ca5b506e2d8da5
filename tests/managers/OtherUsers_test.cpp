#include <sys/stat.h>

#include "fakes/OtherUser.h"
#include "managers/GraphBlob.h"
#include "managers/ManagersFixture.h"
#include "utils/PeerCredentials.h"

namespace kelm {
namespace {

constexpr uint64_t kNobody = 4711;  // an id without a client

class OtherUsersTest : public ManagersFixture {
 protected:
    void SetUp() override {
        if (!OtherUser::isPossible()) GTEST_SKIP() << "acting as another user needs root";
        start();
        OtherUser::letIn(RunPaths::serviceSocket());
    }
    static std::unique_ptr<WireClient> connectAsOther() {
        std::unique_ptr<WireClient> client;
        OtherUser::run([&client] { client = std::make_unique<WireClient>("other"); });
        return client;
    }
    std::string makeFile(const std::string& text, mode_t mode) const {
        std::string path = dir().write(text, text);
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    }
};

// Of the next message, a response of any kind; zeroed if none comes.
KelmMsgRsp receiveHead(WireClient& client) {
    const auto message = client.raw().receive();
    return message ? message->as<KelmMsgRsp>() : KelmMsgRsp{};
}

// Sends the request; returns the head of its answer.
template <class Request>
KelmMsgRsp ask(WireClient& client, KelmMsgType type, uint64_t clientId, uint64_t id) {
    auto request = client.make<Request>(type, clientId);
    if constexpr (requires { request.graphId; }) request.graphId = id;
    if constexpr (requires { request.taskId; }) request.taskId = id;
    if constexpr (requires { request.queryType; }) request.queryType = 1;
    if constexpr (requires { request.graphPath; }) {
        StringHelper::copyStringSafe(request.graphPath, "/etc/passwd");
    }
    client.send(request);
    return receiveHead(client);
}

using Ask = KelmMsgRsp (*)(WireClient& client, KelmMsgType type, uint64_t clientId, uint64_t id);
struct Row {
    KelmMsgType request;
    Ask ask;
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
    WireClient victim("victim");
    const uint64_t graph = victim.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    const uint64_t task = victim.infer(graph, input).taskId;
    for (const uint64_t named : {kNobody, victim.id()}) {
        const auto other = connectAsOther();
        for (const Row& row : kRows) {
            SCOPED_TRACE(std::string(KelmMsgTypeStr[row.request]) + " of " + std::to_string(named));
            const KelmMsgRsp answer =
                row.ask(*other, row.request, named, row.namesTask ? task : graph);
            EXPECT_EQ(answer.base.type, row.request + 1U);
            EXPECT_EQ(answer.status, row.expected);
            EXPECT_EQ(answer.clientId, named);
        }
    }
    // The client has got nothing of this, and another connection of its user may still name it.
    EXPECT_EQ(victim.queryTaskStatus(task).head.status, KELM_OK);
    WireClient sibling("sibling");
    sibling.sendDestroyGraph(graph, victim.id());
    const KelmMsgRsp destroyed = receiveHead(victim);
    EXPECT_EQ(destroyed.base.type, KELM_MESSAGE_DESTROY_GRAPH_RSP);
    EXPECT_EQ(destroyed.status, KELM_OK);
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(victim.unregister());
}

TEST_F(OtherUsersTest, GraphFilesAreReadForThoseWhomTheirModeLetsIn) {
    const std::string open = makeFile("open", 0644);
    const std::string secret = makeFile("secret", 0600);
    const std::string own = makeFile("own", 0600);
    ASSERT_EQ(::chown(own.c_str(), OtherUser::kId, OtherUser::kId), 0);
    const auto other = connectAsOther();
    EXPECT_EQ(other->createGraphFromFile(secret).head.status, KELM_ERROR_GRAPH_DIGEST_FAILED);
    EXPECT_EQ(other->createGraphFromFile(open).head.status, KELM_OK);
    EXPECT_EQ(other->createGraphFromFile(own).head.status, KELM_OK);
    EXPECT_EQ(WireClient().createGraphFromFile(secret).head.status, KELM_OK);
    // A file that is loaded already is no less secret.
    EXPECT_EQ(other->createGraphFromFile(secret).head.status, KELM_ERROR_GRAPH_DIGEST_FAILED);
}

TEST(GraphBlobTest, FileIsReadForThoseWhomItsModeLetsIn) {
    const TempDir dir;
    const std::string path = dir.write("file", "text");
    const PeerCredentials other{1, ::geteuid() + 1, {}};
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    EXPECT_FALSE(GraphBlob::fromFile(path.c_str(), other).getIdentity());
    EXPECT_TRUE(GraphBlob::fromFile(path.c_str(), *PeerCredentials::ofThisProcess()).getIdentity());
    ASSERT_EQ(::chmod(path.c_str(), 0604), 0);
    EXPECT_TRUE(GraphBlob::fromFile(path.c_str(), other).getIdentity());
}

}  // namespace
}  // namespace kelm

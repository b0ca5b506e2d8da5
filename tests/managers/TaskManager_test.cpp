#include "managers/TaskManager.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "managers/GraphManager.h"
#include "managers/ManagersFixture.h"

namespace kelm {
namespace {

class TaskManagerTest : public ScriptedFixture {
 protected:
    // Returns when the manager has handled what was sent to it before, and has sent nothing else.
    void passFence(WireClient& client) {
        client.send(client.make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ));
        EXPECT_EQ(client.receive<KelmMsgRspQueryTaskStatus>().head.status, KELM_ERROR_INVALID_TASK);
    }
};

TEST_F(TaskManagerTest, RefusedRequestGivesItsDescriptorsBack) {
    start(R"("service_settings": {"client_max_task_number": 1})");
    WireClient client = connect();
    const uint64_t graph = client.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe running;
    EXPECT_EQ(infer(client, graph, running).head.status, KELM_OK);
    WireClient other = connect();
    const struct {
        WireClient& sender;
        uint64_t graphId;
        uint64_t clientId;
        int32_t error;
    } rows[] = {{client, graph, client.id(), KELM_ERROR_TOO_MANY_TASK},
                {client, graph + 1, client.id(), KELM_ERROR_TOO_MANY_TASK},
                {other, graph + 1, other.id(), KELM_ERROR_INVALID_GRAPH},
                {other, graph, 99, KELM_ERROR_INVALID_CLIENT}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        DescriptorProbe input;
        auto request = row.sender.makeInfer(row.graphId);
        request.clientId = row.clientId;
        sendInfer(row.sender, request, input);
        const auto answer = row.sender.receive<KelmMsgRspInferTask>();
        EXPECT_EQ(answer.head.status, row.error);
        EXPECT_EQ(answer.taskId, 0U);
        EXPECT_TRUE(input.isClosed());
    }
}

TEST_F(TaskManagerTest, CancelAndStatusAnswerByWhereTheTaskIs) {
    start();
    WireClient client = connect();
    WireClient other = connect();
    device().block(DeviceCall::Allocate);
    client.sendCreateGraph({"blob"});
    ASSERT_TRUE(isReached(DeviceCall::Allocate));
    DescriptorProbe queued;
    const uint64_t task = infer(client, 1, queued).taskId;  // waits, since no worker has the graph
    ASSERT_TRUE(eventually([&] { return client.queryTaskStatus(task).taskStatus == 1; }));
    EXPECT_EQ(other.cancelTask(task).head.status, KELM_ERROR_NO_RIGHTS);
    EXPECT_EQ(other.queryTaskStatus(task).head.status, KELM_ERROR_NO_RIGHTS);
    // Both requests go out at once: each is answered, in whatever order, and one succeeds.
    EXPECT_EQ(
        client.flood(client.make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ, task), 2), 2);
    const auto first = client.receive<KelmMsgRspCancelTask>();
    const auto second = client.receive<KelmMsgRspCancelTask>();
    EXPECT_EQ(first.canceled + second.canceled, 1);
    EXPECT_EQ((first.canceled ? first : second).head.status, KELM_OK);
    EXPECT_TRUE(queued.isClosed());
    EXPECT_EQ(client.cancelTask(task).head.status, KELM_ERROR_INVALID_TASK);
    const auto ended = client.queryTaskStatus(task);
    EXPECT_EQ(ended.head.status, KELM_ERROR_INVALID_TASK);
    EXPECT_EQ(ended.taskStatus, -1);
    device().release(DeviceCall::Allocate);
    EXPECT_EQ(client.receive<KelmMsgRspCreateGraph>().head.status, KELM_OK);
}

// Deliberate: a cancel only takes tasks out of queues.
TEST_F(TaskManagerTest, CancelLetsATaskOnADeviceRunToItsEnd) {
    start();
    WireClient client = connect();
    const uint64_t graph = client.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    const uint64_t task = infer(client, graph, input).taskId;
    ASSERT_TRUE(isReached(DeviceCall::LoadTensor));
    const auto canceled = client.cancelTask(task);
    EXPECT_EQ(canceled.head.status, KELM_OK);
    EXPECT_EQ(canceled.canceled, 0);
    device().release(DeviceCall::LoadTensor);
    EXPECT_EQ(client.receive<KelmMsgEvtTaskDone>().taskId, task);
    EXPECT_TRUE(input.isClosed());
}

TEST_F(TaskManagerTest, GivingUpASharedGraphCancelsOnlyThatClientsTasks) {
    start();
    WireClient leaver = connect();
    WireClient stayer = connect();
    const uint64_t graph = leaver.createGraph({"blob"}).graphId;
    ASSERT_EQ(stayer.createGraph({"blob"}).graphId, graph);
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe dropped;
    DescriptorProbe kept;
    EXPECT_EQ(infer(leaver, graph, dropped).head.status, KELM_OK);
    const uint64_t keptTask = infer(stayer, graph, kept).taskId;
    EXPECT_EQ(leaver.destroyGraph(graph), KELM_OK);
    passFence(leaver);
    device().release(DeviceCall::LoadTensor);
    EXPECT_EQ(stayer.receive<KelmMsgEvtTaskDone>().taskId, keptTask);
    EXPECT_TRUE(dropped.isClosed());

    // The client stays: tasks that it makes after that run and are waited for when it leaves.
    ASSERT_EQ(leaver.createGraph({"blob"}).graphId, graph);
    DescriptorProbe later;
    const uint64_t laterTask = infer(leaver, graph, later).taskId;
    EXPECT_EQ(leaver.receive<KelmMsgEvtTaskDone>().taskId, laterTask);
    EXPECT_TRUE(later.isClosed());

    // The first time is over, so the second cancels too.
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe again;
    EXPECT_EQ(infer(leaver, graph, again).head.status, KELM_OK);
    EXPECT_EQ(leaver.destroyGraph(graph), KELM_OK);
    passFence(leaver);
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(again.isClosed());
    passFence(leaver);  // nothing has come before its answer
}

TEST_F(TaskManagerTest, SecondShareGivenUpSparesTasksMadeSinceTheFirst) {
    start();
    WireClient stayer = connect();
    WireClient leaver = connect();
    uint64_t graphs[3];
    for (int i = 0; i < 3; ++i) {
        const std::string blob = "blob" + std::to_string(i);
        graphs[i] = leaver.createGraph({blob}).graphId;
        if (i == 2) continue;
        ASSERT_EQ(stayer.createGraph({blob}).graphId, graphs[i]);
    }
    device().block(DeviceCall::LoadTensor);
    device().block(DeviceCall::Allocate);
    device().block(DeviceCall::Deallocate);
    DescriptorProbe inputs[2];
    EXPECT_EQ(infer(leaver, graphs[0], inputs[0]).head.status, KELM_OK);
    EXPECT_EQ(leaver.destroyGraph(graphs[0]), KELM_OK);
    passFence(leaver);
    const uint64_t task = infer(leaver, graphs[2], inputs[1]).taskId;
    EXPECT_EQ(leaver.destroyGraph(graphs[1]), KELM_OK);
    passFence(leaver);
    releaseAll();
    EXPECT_EQ(leaver.receive<KelmMsgEvtTaskDone>().taskId, task);
}

// The client gives up a share, and makes and leaves a task before the canceled one has ended.
TEST_F(TaskManagerTest, DepartureWaitsForTasksMadeAfterASharedGraphWasGivenUp) {
    start();
    WireClient stayer = connect();
    const uint64_t graph = stayer.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    {
        WireClient leaver = connect();
        ASSERT_EQ(leaver.createGraph({"blob"}).graphId, graph);
        DescriptorProbe canceled;
        EXPECT_EQ(infer(leaver, graph, canceled).head.status, KELM_OK);
        EXPECT_EQ(leaver.destroyGraph(graph), KELM_OK);
        passFence(leaver);
        DescriptorProbe live;
        EXPECT_EQ(infer(leaver, graph, live).head.status, KELM_OK);
        EXPECT_TRUE(leaver.unregister());
        passFence(stayer);
        // The record lives while its tasks do, and takes no new ones.
        EXPECT_TRUE(isRegistered(leaver.id()));
        DescriptorProbe tooLate;
        auto request = stayer.makeInfer(graph);
        request.clientId = leaver.id();
        sendInfer(stayer, request, tooLate);  // its answer is written to the other one
        EXPECT_TRUE(tooLate.isClosed());
        device().release(DeviceCall::LoadTensor);
        EXPECT_TRUE(canceled.isClosed());
        EXPECT_TRUE(live.isClosed());
        EXPECT_TRUE(eventually([&] { return !isRegistered(leaver.id()); }));
    }
}

TEST_F(TaskManagerTest, AnswersBehindTheUnregisterAnswerLeaveBeforeTheRecordDoes) {
    start();
    WireClient client = connect();
    WireClient sibling = connect();
    const uint64_t graph = client.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    EXPECT_EQ(infer(client, graph, input).head.status, KELM_OK);
    EXPECT_TRUE(client.unregister());
    // Far more than the socket holds, so that most are queued when the task ends.
    constexpr int kAnswers = 2000;
    auto request = sibling.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph);
    request.clientId = client.id();
    EXPECT_EQ(sibling.flood(request, kAnswers), kAnswers);
    (void)sibling.queryBufferSize(graph);  // handled behind them
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(input.isClosed());
    for (int i = 0; i < kAnswers; ++i) {
        ASSERT_EQ(client.receive<KelmMsgRsp>().base.type, KELM_MESSAGE_DESTROY_GRAPH_RSP) << i;
    }
    EXPECT_TRUE(eventually([&] { return !isRegistered(client.id()); }));
}

TEST_F(TaskManagerTest, VanishedClientTakesItsTasksAlongWhereverTheyAre) {
    start();
    WireClient client = connect();
    const uint64_t graph = client.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    constexpr int kTasks = 40;  // on the device, in the workers and in the queue
    std::vector<DescriptorProbe> inputs(kTasks);
    for (DescriptorProbe& input : inputs) sendInfer(client, graph, input);
    for (int i = 0; i < kTasks; ++i) (void)client.receive<KelmMsgRspInferTask>();
    client.hangUp();
    ASSERT_TRUE(eventually([&] { return !ClientManager::instance().verifyClient(client.id()); }));
    // A second notice while the first still runs.
    TaskManager::instance().enqueueNotifyClientInDestroy(client.id());
    device().release(DeviceCall::LoadTensor);
    for (const DescriptorProbe& input : inputs) EXPECT_TRUE(input.isClosed());
    EXPECT_TRUE(noClientIsLeft());
    EXPECT_EQ(GraphManager::instance().getGraphById(graph), nullptr);
}

TEST_F(TaskManagerTest, DestroyedGraphTakesItsQueuedTasksAlong) {
    start(R"("service_settings": {"max_graph_number": 1})");
    WireClient client = connect();
    const uint64_t graph = client.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    std::vector<DescriptorProbe> inputs(20);
    for (DescriptorProbe& input : inputs) {
        EXPECT_EQ(infer(client, graph, input).head.status, KELM_OK);
    }
    EXPECT_EQ(client.destroyGraph(graph), KELM_OK);
    passFence(client);
    device().release(DeviceCall::LoadTensor);
    for (const DescriptorProbe& input : inputs) EXPECT_TRUE(input.isClosed());
    EXPECT_TRUE(placeIsGivenBack(client, "other"));
}

// Clients share two graphs, guess each other's task ids and leave in the middle of everything.
TEST_F(TaskManagerTest, ClientsThatComeAndVanishLeaveNothingBehind) {
    start(R"("service_settings": {"max_graph_number": 4})");
    std::vector<std::future<void>> lives;
    for (unsigned seed = 0; seed < 4; ++seed) {
        lives.push_back(std::async(std::launch::async, [this, seed] {
            std::minstd_rand random(seed + 1);
            for (int life = 0; life < 25; ++life) {
                WireClient client = connect();
                client.sendCreateGraph({random() % 2 == 0 ? "one" : "two"});
                const auto created = client.receiveType(KELM_MESSAGE_CREATE_GRAPH_RSP);
                const uint64_t graph = created ? created->as<KelmMsgRspCreateGraph>().graphId : 0;
                for (int number = 0; number < 20; ++number) {
                    DescriptorProbe input;
                    auto request = client.makeInfer(graph);
                    request.head.needResponse = random() % 8 != 0 ? 1 : 0;
                    sendInfer(client, request, input);
                    if (random() % 3 == 0) {
                        client.send(client.make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ,
                                                                      random() % 2000));
                    }
                    if (random() % 16 == 0) {
                        client.send(client.make<KelmMsgReqDestroyGraph>(
                            KELM_MESSAGE_DESTROY_GRAPH_REQ, graph));
                    }
                }
                EXPECT_TRUE(random() % 2 == 0 || client.unregister());
            }
        }));
    }
    for (auto& life : lives) life.get();
    EXPECT_TRUE(noClientIsLeft());
    WireClient last = connect();
    for (const char* blob : {"three", "four", "five", "six"}) {
        EXPECT_TRUE(placeIsGivenBack(last, blob));
    }
}

}  // namespace
}  // namespace kelm

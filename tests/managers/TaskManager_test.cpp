#include "managers/TaskManager.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "fakes/TestRequest.h"
#include "managers/GraphManager.h"
#include "managers/ManagersFixture.h"
#include "managers/ResultDispatcher.h"
#include "protocol/src/KelmProtocol.h"

namespace kelm {
namespace {

class TaskManagerTest : public ManagersFixture {
 protected:
    // Whether the manager has handled what was sent to it before.
    void passFence(WireClient& client) {
        EXPECT_EQ(client.queryTaskStatus(~0ull).head.status, KELM_ERROR_INVALID_TASK);
    }
};

TEST_F(TaskManagerTest, RefusedRequestGivesItsDescriptorsBack) {
    start(R"("service_settings": {"client_max_task_number": 1})");
    WireClient client;
    const uint64_t graph = client.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe running;
    EXPECT_EQ(client.infer(graph, running).head.status, KELM_OK);
    WireClient other;
    const struct {
        WireClient& sender;
        uint64_t graphId;
        uint64_t clientId;
        int32_t error;
    } rows[] = {{client, graph, 0, KELM_ERROR_TOO_MANY_TASK},
                {client, graph + 1, 0, KELM_ERROR_TOO_MANY_TASK},
                {other, graph + 1, 0, KELM_ERROR_INVALID_GRAPH},
                {other, graph, 99, KELM_ERROR_INVALID_CLIENT}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        DescriptorProbe input;
        const auto answer = row.sender.infer(row.graphId, input, row.clientId);
        EXPECT_EQ(answer.head.status, row.error);
        EXPECT_EQ(answer.taskId, 0u);
        EXPECT_TRUE(input.isClosed());
    }
}

TEST_F(TaskManagerTest, CancelAndStatusAnswerByWhereTheTaskIs) {
    start();
    WireClient client;
    WireClient other;
    device().block(DeviceCall::Allocate);
    client.sendCreateGraph("blob");
    ASSERT_TRUE(eventually([&] { return device().count(DeviceCall::Allocate) == 1; }));
    DescriptorProbe queued;
    const uint64_t task = client.infer(1, queued).taskId;  // waits, since no worker has the graph
    ASSERT_TRUE(eventually([&] { return client.queryTaskStatus(task).taskStatus == 1; }));
    EXPECT_EQ(other.cancelTask(task).head.status, KELM_ERROR_NO_RIGHTS);
    EXPECT_EQ(other.queryTaskStatus(task).head.status, KELM_ERROR_NO_RIGHTS);
    // Both requests go out at once: each is answered, in whatever order, and one succeeds.
    client.sendCancel(task);
    client.sendCancel(task);
    const auto first = client.receive<KelmMsgRspCancelTask>();
    const auto second = client.receive<KelmMsgRspCancelTask>();
    EXPECT_EQ(first.canceled + second.canceled, 1);
    EXPECT_EQ((first.canceled ? first : second).head.status, KELM_OK);
    EXPECT_TRUE(queued.isClosed());
    EXPECT_EQ(client.cancelTask(task).head.status, KELM_ERROR_INVALID_TASK);
    const auto gone = client.queryTaskStatus(task);
    EXPECT_EQ(gone.head.status, KELM_ERROR_INVALID_TASK);
    EXPECT_EQ(gone.taskStatus, -1);
    device().release(DeviceCall::Allocate);
    EXPECT_EQ(client.receive<KelmMsgRspCreateGraph>().head.status, KELM_OK);
}

// Deliberate: a cancel only takes tasks out of queues.
TEST_F(TaskManagerTest, CancelLetsATaskOnADeviceRunToItsEnd) {
    start();
    WireClient client;
    const uint64_t graph = client.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    const uint64_t task = client.infer(graph, input).taskId;
    ASSERT_TRUE(eventually([&] { return device().count(DeviceCall::LoadTensor) == 1; }));
    const auto canceled = client.cancelTask(task);
    EXPECT_EQ(canceled.head.status, KELM_OK);
    EXPECT_EQ(canceled.canceled, 0);
    device().release(DeviceCall::LoadTensor);
    EXPECT_EQ(client.receive<KelmMsgEvtTaskDone>().taskId, task);
    EXPECT_TRUE(input.isClosed());
}

TEST_F(TaskManagerTest, GivingUpASharedGraphCancelsOnlyThatClientsTasks) {
    start();
    WireClient leaver;
    WireClient stayer;
    const uint64_t graph = leaver.createGraph("blob").graphId;
    ASSERT_EQ(stayer.createGraph("blob").graphId, graph);
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe dropped;
    DescriptorProbe kept;
    EXPECT_EQ(leaver.infer(graph, dropped).head.status, KELM_OK);
    const uint64_t keptTask = stayer.infer(graph, kept).taskId;
    EXPECT_EQ(leaver.destroyGraph(graph), KELM_OK);
    passFence(leaver);
    device().release(DeviceCall::LoadTensor);
    EXPECT_EQ(stayer.receive<KelmMsgEvtTaskDone>().taskId, keptTask);
    EXPECT_TRUE(dropped.isClosed());

    // It goes on: tasks made after that run and are waited for when it leaves.
    ASSERT_EQ(leaver.createGraph("blob").graphId, graph);
    DescriptorProbe later;
    const uint64_t laterTask = leaver.infer(graph, later).taskId;
    EXPECT_EQ(leaver.receive<KelmMsgEvtTaskDone>().taskId, laterTask);
    EXPECT_TRUE(later.isClosed());

    // The first time is over, so the second cancels too.
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe again;
    EXPECT_EQ(leaver.infer(graph, again).head.status, KELM_OK);
    EXPECT_EQ(leaver.destroyGraph(graph), KELM_OK);
    passFence(leaver);
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(again.isClosed());
    passFence(leaver);  // nothing has come before its answer
}

TEST_F(TaskManagerTest, SecondShareGivenUpSparesTasksMadeSinceTheFirst) {
    start();
    WireClient stayer;
    WireClient leaver;
    uint64_t graphs[3];
    for (int i = 0; i < 3; ++i) {
        const std::string blob = "blob" + std::to_string(i);
        graphs[i] = leaver.createGraph(blob).graphId;
        if (i == 2) continue;
        ASSERT_EQ(stayer.createGraph(blob).graphId, graphs[i]);
    }
    device().block(DeviceCall::LoadTensor);
    device().block(DeviceCall::Allocate);
    device().block(DeviceCall::Deallocate);
    DescriptorProbe inputs[2];
    EXPECT_EQ(leaver.infer(graphs[0], inputs[0]).head.status, KELM_OK);
    EXPECT_EQ(leaver.destroyGraph(graphs[0]), KELM_OK);
    passFence(leaver);
    const uint64_t task = leaver.infer(graphs[2], inputs[1]).taskId;
    EXPECT_EQ(leaver.destroyGraph(graphs[1]), KELM_OK);
    passFence(leaver);
    for (const DeviceCall call :
         {DeviceCall::Allocate, DeviceCall::Deallocate, DeviceCall::LoadTensor}) {
        device().release(call);
    }
    EXPECT_EQ(leaver.receive<KelmMsgEvtTaskDone>().taskId, task);
}

// The client gives up a share, and makes and leaves a task before the canceled one has ended.
TEST_F(TaskManagerTest, DepartureWaitsForTasksMadeAfterASharedGraphWasGivenUp) {
    start();
    WireClient stayer;
    const uint64_t graph = stayer.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    {
        WireClient leaver;
        ASSERT_EQ(leaver.createGraph("blob").graphId, graph);
        DescriptorProbe canceled;
        EXPECT_EQ(leaver.infer(graph, canceled).head.status, KELM_OK);
        EXPECT_EQ(leaver.destroyGraph(graph), KELM_OK);
        passFence(leaver);
        DescriptorProbe live;
        EXPECT_EQ(leaver.infer(graph, live).head.status, KELM_OK);
        EXPECT_TRUE(leaver.unregister());
        passFence(stayer);
        // The record lives while its tasks do, and takes no new ones.
        EXPECT_NE(ClientManager::instance().getClientById(leaver.id()), nullptr);
        DescriptorProbe tooLate;
        stayer.sendInfer(graph, tooLate, leaver.id());  // the answer goes to the other one
        EXPECT_TRUE(tooLate.isClosed());
        device().release(DeviceCall::LoadTensor);
        EXPECT_TRUE(canceled.isClosed());
        EXPECT_TRUE(live.isClosed());
        EXPECT_TRUE(eventually(
            [&] { return ClientManager::instance().getClientById(leaver.id()) == nullptr; }));
    }
}

TEST_F(TaskManagerTest, AnswersBehindTheUnregisterAnswerGoOutBeforeTheRecord) {
    start();
    WireClient client;
    const uint64_t graph = client.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    EXPECT_EQ(client.infer(graph, input).head.status, KELM_OK);
    EXPECT_TRUE(client.unregister());
    // Far more than the socket holds, so that most are queued when the task ends.
    constexpr int kAnswers = 2000;
    for (int i = 0; i < kAnswers; ++i) {
        ResultDispatcher::instance().enqueueSendDestroyGraphResponse(
            KELM_OK, makeDestroyRequest(client.id(), RunningService::kFirstClientNumber));
    }
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(input.isClosed());
    for (int i = 0; i < kAnswers; ++i) {
        ASSERT_EQ(client.receive<KelmMsgRsp>().base.type, KELM_MESSAGE_DESTROY_GRAPH_RSP) << i;
    }
    EXPECT_TRUE(noClientIsLeft());
}

TEST_F(TaskManagerTest, VanishedClientGoesWithItsTasksWhereverTheyAre) {
    start();
    WireClient client;
    const uint64_t graph = client.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    constexpr int kTasks = 40;  // on the device, in the workers and in the queue
    std::vector<DescriptorProbe> inputs(kTasks);
    for (DescriptorProbe& input : inputs) client.sendInfer(graph, input);
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

// Neither a response nor a done message is wanted, so nothing comes after which the task could go.
TEST_F(TaskManagerTest, TaskWithoutAnswersEndsAndItsClientCanGo) {
    start();
    WireClient client;
    const uint64_t graph = client.createGraph("blob").graphId;
    DescriptorProbe input;
    client.sendInfer(graph, input, 0, /*needResponse=*/0);
    EXPECT_TRUE(input.isClosed());
    client.hangUp();
    EXPECT_TRUE(noClientIsLeft());
}

TEST_F(TaskManagerTest, GraphThatGoesAwayTakesItsQueuedTasksAlong) {
    start(R"("service_settings": {"max_graph_number": 1})");
    WireClient client;
    const uint64_t graph = client.createGraph("blob").graphId;
    device().block(DeviceCall::LoadTensor);
    std::vector<DescriptorProbe> inputs(20);
    for (DescriptorProbe& input : inputs) {
        EXPECT_EQ(client.infer(graph, input).head.status, KELM_OK);
    }
    EXPECT_EQ(client.destroyGraph(graph), KELM_OK);
    passFence(client);
    device().release(DeviceCall::LoadTensor);
    for (const DescriptorProbe& input : inputs) EXPECT_TRUE(input.isClosed());
    EXPECT_TRUE(placeIsGivenBack(client, "other"));
}

// Clients share two graphs, guess each other's task ids and leave in the middle of everything.
TEST_F(TaskManagerTest, ClientsThatComeAndGoLeaveNothingBehind) {
    start(R"("service_settings": {"max_graph_number": 4})");
    std::vector<std::thread> processes;
    for (unsigned seed = 0; seed < 4; ++seed) {
        processes.emplace_back([seed] {
            std::minstd_rand random(seed + 1);
            for (int life = 0; life < 25; ++life) {
                WireClient client;
                client.sendCreateGraph(random() % 2 == 0 ? "one" : "two");
                const uint64_t graph = client.receiveGraphId();
                for (int request = 0; request < 20; ++request) {
                    DescriptorProbe input;
                    client.sendInfer(graph, input, 0, random() % 8 != 0);
                    if (random() % 3 == 0) client.sendCancel(random() % 2000);
                    if (random() % 16 == 0) client.sendDestroyGraph(graph);
                }
                const bool asked = random() % 2 == 0;
                EXPECT_TRUE(!asked || client.unregister());
                client.hangUp();
            }
        });
    }
    for (std::thread& process : processes) process.join();
    EXPECT_TRUE(noClientIsLeft());
    WireClient last;
    for (const char* blob : {"three", "four", "five", "six"}) {
        EXPECT_TRUE(placeIsGivenBack(last, blob));
    }
}

}  // namespace
}  // namespace kelm

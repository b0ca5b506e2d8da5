#include "managers/TaskManager.h"

#include "managers/GraphManager.h"
#include "managers/ManagersFixture.h"
#include "managers/TaskDepartures.h"

namespace kelm {
namespace {

class TaskManagerTest : public ScriptedFixture {
 protected:
    // Loads a graph that both have.
    static uint64_t share(WireClient& one, WireClient& other, const std::string& blob = "blob") {
        const uint64_t graph = one.createGraph({blob}).graphId;
        EXPECT_EQ(other.createGraph({blob}).graphId, graph);
        return graph;
    }
    void giveUp(WireClient& client, uint64_t graph) {
        EXPECT_EQ(client.destroyGraph(graph), KELM_OK);
        passFence(client);
    }
    static bool isRegistered(const WireClient& client) {
        return ClientManager::instance().getClientById(client.id()) != nullptr;
    }
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
    } rows[] = {{client, graph + 1, client.id(), KELM_ERROR_TOO_MANY_TASK},
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
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(eventually([&] { return client.infers(graph); }));  // once the first has ended
}

TEST_F(TaskManagerTest, CancelAndStatusAnswerByWhereTheTaskIs) {
    WireClient client = startAndConnect();
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
    WireClient client = startAndConnect();
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
    WireClient leaver = startAndConnect();
    WireClient stayer = connect();
    const uint64_t graph = share(leaver, stayer);
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe dropped;
    DescriptorProbe kept;
    EXPECT_EQ(infer(leaver, graph, dropped).head.status, KELM_OK);
    const uint64_t keptTask = infer(stayer, graph, kept).taskId;
    giveUp(leaver, graph);
    device().release(DeviceCall::LoadTensor);
    EXPECT_EQ(stayer.receive<KelmMsgEvtTaskDone>().taskId, keptTask);
    EXPECT_TRUE(dropped.isClosed());

    ASSERT_EQ(leaver.createGraph({"blob"}).graphId, graph);
    ASSERT_TRUE(leaver.infers(graph));
    // The first time is over, so the second cancels too.
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe again;
    EXPECT_EQ(infer(leaver, graph, again).head.status, KELM_OK);
    giveUp(leaver, graph);
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(again.isClosed());
    passFence(leaver);  // nothing has come before its answer
}

TEST_F(TaskManagerTest, SecondShareGivenUpSparesTasksMadeSinceTheFirst) {
    WireClient stayer = startAndConnect();
    WireClient leaver = connect();
    const uint64_t graphs[] = {share(leaver, stayer, "a"), share(leaver, stayer, "b"),
                               leaver.createGraph({"c"}).graphId};
    device().block(DeviceCall::LoadTensor);
    device().block(DeviceCall::Allocate);
    device().block(DeviceCall::Deallocate);
    DescriptorProbe inputs[2];
    EXPECT_EQ(infer(leaver, graphs[0], inputs[0]).head.status, KELM_OK);
    giveUp(leaver, graphs[0]);
    const uint64_t task = infer(leaver, graphs[2], inputs[1]).taskId;
    giveUp(leaver, graphs[1]);
    releaseAll();
    EXPECT_EQ(leaver.receive<KelmMsgEvtTaskDone>().taskId, task);
}

// The client gives up a share, and makes and leaves a task before the canceled one has ended.
TEST_F(TaskManagerTest, DepartureWaitsForTasksMadeAfterASharedGraphWasGivenUp) {
    WireClient stayer = startAndConnect();
    WireClient leaver = connect();
    const uint64_t graph = share(stayer, leaver);
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe canceled;
    EXPECT_EQ(infer(leaver, graph, canceled).head.status, KELM_OK);
    ASSERT_TRUE(isReached(DeviceCall::LoadTensor));
    giveUp(leaver, graph);
    DescriptorProbe live;
    EXPECT_EQ(infer(leaver, graph, live).head.status, KELM_OK);
    EXPECT_TRUE(leaver.unregister());
    passFence(stayer);
    // The record lives while its tasks do, and takes no new ones.
    EXPECT_TRUE(isRegistered(leaver));
    DescriptorProbe tooLate;
    auto request = leaver.makeInfer(graph);
    sendInfer(stayer, request, tooLate);  // its answer is written to the other one
    EXPECT_TRUE(tooLate.isClosed());
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(canceled.isClosed());
    EXPECT_TRUE(live.isClosed());
    EXPECT_TRUE(eventually([&] { return !isRegistered(leaver); }));
}

TEST_F(TaskManagerTest, AnswersBehindTheUnregisterAnswerLeaveBeforeTheRecordDoes) {
    WireClient client = startAndConnect();
    WireClient sibling = connect();
    const uint64_t graph = client.createGraph({"blob"}).graphId;
    device().block(DeviceCall::LoadTensor);
    DescriptorProbe input;
    EXPECT_EQ(infer(client, graph, input).head.status, KELM_OK);
    // A canceled task ends at once unless it is on the device.
    ASSERT_TRUE(isReached(DeviceCall::LoadTensor));
    EXPECT_TRUE(client.unregister());
    // Far more than the socket holds, so that most are queued when the task ends.
    constexpr int kAnswers = 2000;
    const auto request = client.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph);
    EXPECT_EQ(sibling.flood(request, kAnswers), kAnswers);
    (void)sibling.queryBufferSize(graph);  // handled behind them
    device().release(DeviceCall::LoadTensor);
    EXPECT_TRUE(input.isClosed());
    for (int i = 0; i < kAnswers; ++i) {
        ASSERT_EQ(client.receive<KelmMsgRsp>().base.type, KELM_MESSAGE_DESTROY_GRAPH_RSP) << i;
    }
    EXPECT_TRUE(eventually([&] { return !isRegistered(client); }));
}

TEST_F(TaskManagerTest, VanishedClientTakesItsTasksAlongWhereverTheyAre) {
    WireClient client = startAndConnect();
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

TEST(TaskDeparturesTest, GraphWaitsForItsTasksAndTheSchedulerInAnyOrder) {
    char place = 0;  // graphs are keys here, and never followed
    auto* const graph = reinterpret_cast<KelmGraph*>(&place);
    for (const int tasks : {0, 1, 2}) {
        for (const int before : {0, 1, 2}) {  // tasks that end before the scheduler lets go
            if (before > tasks) continue;
            SCOPED_TRACE(testing::Message() << before << " of " << tasks);
            TaskDepartures departures;
            EXPECT_FALSE(departures.confirmDescheduled(graph)) << "departs not yet";
            EXPECT_TRUE(departures.addGraph(graph, tasks));
            EXPECT_FALSE(departures.addGraph(graph, tasks)) << "departs already";
            for (int i = 0; i < before; ++i) {
                EXPECT_FALSE(departures.removeTask(7, false, graph).graph);
            }
            EXPECT_EQ(departures.confirmDescheduled(graph), before == tasks);
            for (int i = before; i < tasks; ++i) {
                EXPECT_EQ(departures.removeTask(7, false, graph).graph, i + 1 == tasks);
            }
        }
    }
}

TEST(TaskDeparturesTest, ClientCountsDownOncePerTaskAndWhatItGaveUpApart) {
    TaskDepartures departures;
    departures.addClient(7, 0);
    departures.addGivenUp(7, 0);
    EXPECT_FALSE(departures.hasClient(7) || departures.hasGivenUp(7)) << "a count of nothing";
    departures.addGivenUp(7, 1);
    departures.addClient(7, 2);
    EXPECT_FALSE(departures.removeTask(7, false, nullptr).client);
    EXPECT_TRUE(departures.hasGivenUp(7));
    EXPECT_TRUE(departures.removeTask(7, true, nullptr).client);
    EXPECT_FALSE(departures.hasGivenUp(7) || departures.hasClient(7));
    EXPECT_FALSE(departures.removeTask(7, true, nullptr).client);
}

}  // namespace
}  // namespace kelm

#include <sys/stat.h>

#include "system/SystemFixture.h"

namespace kelm {
namespace {

// A registered client that means no good, and what it knows.
struct Intruder {
    explicit Intruder(const std::string& path)
        : socketPath(path), client(path), id(client.registerClient("intruder")) {
        graph = client.createGraph(id, "graph", "graph of the intruder");
    }

    template <class Request>
    Request make(KelmMsgType type) const {
        auto request = RawClient::request<Request>(type);
        request.clientId = id;
        return request;
    }
    KelmMsgReqInferTask makeInfer() const { return RawClient::inferRequest(id, graph, 1); }
    // Whether the request is accepted and its task ends well.
    bool runs(const KelmMsgReqInferTask& request, const std::vector<int>& descriptors = {}) {
        if (!client.send(request, descriptors)) return false;
        const auto answer = client.receive();
        const auto done = client.receive();
        return answer && answer->type() == KELM_MESSAGE_INFER_TASK_RSP &&
               answer->as<KelmMsgRsp>().status == KELM_OK && done &&
               done->type() == KELM_MESSAGE_TASK_DONE_EVT &&
               done->as<KelmMsgEvtTaskDone>().status == KELM_OK;
    }
    template <class Request>
    int32_t statusOf(const Request& request) {
        if (!client.send(request)) return KELM_OK;
        const auto answer = client.receive();
        return answer ? answer->as<KelmMsgRsp>().status : KELM_OK;
    }

    std::string socketPath;
    RawClient client;
    uint64_t id = 0;
    uint64_t graph = 0;
};

// Each returns whether the service has dealt with it as it should.

bool sendMoreBlocksThanPlaces(Intruder& self) {
    auto request = self.make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    request.head.base.dataNum = 6;
    for (uint64_t& size : request.head.base.dataSize) size = 4;
    return self.client.send(request, {}, std::string(24, 'd')) && self.client.waitClosed();
}

bool claimBuffersWithoutEnd(Intruder& self) {
    auto request = self.makeInfer();
    KelmMsgBase& head = request.head.base;
    head.recvNum = head.peerRecvNum = head.innerBufferNum = 0xffffffff;
    for (uint64_t& address : head.innerBuffer) address = 0x1000;
    for (uint64_t& address : head.recvData) address = 0x1000;
    for (uint64_t& size : head.recvSize) size = 1 << 20;
    return self.runs(request);
}

bool sendMoreDescriptorsThanPlaces(Intruder& self) {
    auto request = self.makeInfer();
    request.head.base.fdNum = 12;
    return self.runs(request, std::vector<int>(12, STDIN_FILENO));
}

bool sendDescriptorsOfWrongRoles(Intruder& self) {
    auto request = self.makeInfer();
    const uint32_t roles[] = {KELM_FD_INPUT, KELM_FD_OUTPUT, KELM_FD_OUTPUT, 3, 0xffffffff};
    request.head.base.fdNum = std::size(roles);
    std::copy(std::begin(roles), std::end(roles), request.head.base.fdType);
    request.inputBuffer.type = KELM_BUFFER_ION;
    request.inputBuffer.fd = 1;  // the service's own standard output
    return self.runs(request, std::vector<int>(std::size(roles), STDIN_FILENO));
}

bool testTwoDescriptors(Intruder& self) {
    auto request = RawClient::request<KelmMsgReqTestSendFd>(KELM_MESSAGE_TEST_SEND_FD_REQ);
    request.head.base.fdNum = 2;
    return self.client.send(request, {STDIN_FILENO, STDIN_FILENO}) && self.client.waitClosed();
}

bool nameWhatDoesNotExist(Intruder& self) {
    auto infer = self.makeInfer();
    infer.graphId = 4711;
    auto destroy = self.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ);
    destroy.graphId = 4711;
    auto sizes = self.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ);
    sizes.graphId = 4711;
    auto cancel = self.make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ);
    cancel.taskId = ~0ull;
    auto query = self.make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ);
    query.taskId = ~0ull;
    auto group = self.make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    group.subclass = -77;
    std::string(sizeof(group.graphPath), '/').copy(group.graphPath, sizeof(group.graphPath));
    return self.statusOf(infer) == KELM_ERROR_INVALID_GRAPH &&
           self.statusOf(destroy) == KELM_ERROR_INVALID_GRAPH &&
           self.statusOf(sizes) == KELM_ERROR_INVALID_GRAPH &&
           self.statusOf(cancel) == KELM_ERROR_INVALID_TASK &&
           self.statusOf(query) == KELM_ERROR_INVALID_TASK &&
           self.statusOf(group) == KELM_ERROR_GRAPH_DIGEST_FAILED;
}

bool submitInTheNameOfAnother(Intruder& self) {
    RawClient victim(self.socketPath);
    const uint64_t id = victim.registerClient("victim");
    constexpr int kTasks = 50;
    for (uint64_t i = 0; i < kTasks; ++i) {
        if (!self.client.send(RawClient::inferRequest(id, self.graph, i))) return false;
    }
    self.client.close();
    return victim.unregisterClient(id) == KELM_OK && victim.waitClosed();
}

bool askForEverythingAndWantNoAnswer(Intruder& self) {
    const auto send = [&self](auto request) {
        request.head.needResponse = 0;
        return self.client.send(request);
    };
    auto create = self.make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    auto destroy = self.make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ);
    destroy.graphId = self.graph;
    bool sent = send(RawClient::request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ));
    for (int i = 0; i < 50; ++i) {
        sent = sent && send(self.makeInfer()) && send(create) &&
               send(self.make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ)) &&
               send(self.make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ)) &&
               send(self.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ)) &&
               send(self.make<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ));
    }
    sent =
        sent && send(destroy) && send(self.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ));
    return sent && !self.client.receive(RawClient::Millis(1));
}

bool floodAfterUnregister(Intruder& self) {
    if (!self.client.send(self.make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ))) {
        return false;
    }
    for (int i = 0; i < 10000 && self.client.send(self.makeInfer()); ++i) {
    }
    return self.client.waitClosed();
}

class HostileTest : public SystemFixture {
 protected:
    // Sends and never reads, until the service takes no more for a while.
    static void floodWithoutReading(Intruder& self) {
        const auto request = self.makeInfer();
        constexpr int kMoreThanFits = 100000;
        for (int i = 0; i < kMoreThanFits; ++i) {
            pollfd state{self.client.fd(), POLLOUT, 0};
            if (::poll(&state, 1, 300) != 1) return;
            ASSERT_TRUE(self.client.send(request));
        }
    }
    static void sendHalfMessage(Intruder& self) {
        const auto request = self.makeInfer();
        ASSERT_TRUE(self.client.sendBytes(&request, sizeof(request) / 2));
    }
};

TEST_F(HostileTest, IntruderHarmsTheServiceOrAnotherClient) {
    const struct {
        const char* what;
        bool (*attack)(Intruder& self);
    } rows[] = {
        {"more blocks than places", sendMoreBlocksThanPlaces},
        {"buffers without end", claimBuffersWithoutEnd},
        {"more descriptors than places", sendMoreDescriptorsThanPlaces},
        {"descriptors of wrong roles", sendDescriptorsOfWrongRoles},
        {"descriptor test with two", testTwoDescriptors},
        {"ids of nothing", nameWhatDoesNotExist},
        {"tasks in the name of another", submitInTheNameOfAnother},
        {"no answers wanted", askForEverythingAndWantNoAnswer},
        {"flood after unregister", floodAfterUnregister},
    };
    start(0);
    const size_t descriptorsBefore = descriptors();
    {
        RawClient honest(path());
        const uint64_t id = honest.registerClient("honest");
        const uint64_t graph = honest.createGraph(id, "honest", "graph of the honest");
        for (const auto& row : rows) {
            SCOPED_TRACE(row.what);
            Intruder intruder(path());
            EXPECT_TRUE(row.attack(intruder));
            EXPECT_TRUE(infers(honest, id, graph));
        }
        EXPECT_EQ(honest.unregisterClient(id), KELM_OK);
    }
    EXPECT_TRUE(serves());
    EXPECT_TRUE(eventually([&] { return descriptors() == descriptorsBefore; }))
        << descriptors() << " and not " << descriptorsBefore;
}

TEST_F(HostileTest, FloodingClientThatNeverReadsLeavesTheServiceStuck) {
    start(0);
    RawClient honest(path());
    const uint64_t id = honest.registerClient("honest");
    const uint64_t graph = honest.createGraph(id, "honest", "graph of the honest");
    Intruder mute(path());
    ASSERT_NO_FATAL_FAILURE(floodWithoutReading(mute));
    mute.client.close();
    // Refused at first, as long as the tasks of the other wait.
    EXPECT_TRUE(eventually([&] { return infers(honest, id, graph); }));
    EXPECT_TRUE(serves());
}

TEST_F(HostileTest, ClientThatReadsNothingOrStopsHalfwayHoldsUpTheEnd) {
    const struct {
        const char* what;
        bool mute;
        bool half;
    } rows[] = {{"mute", true, false}, {"half a message", false, true}, {"both", true, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        start(0);
        Intruder mute(path());
        Intruder slow(path());
        if (row.mute) floodWithoutReading(mute);
        if (row.half) sendHalfMessage(slow);
        ASSERT_FALSE(HasFatalFailure());
        endService();
    }
}

}  // namespace
}  // namespace kelm

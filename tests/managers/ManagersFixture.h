#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fakes/Eventually.h"
#include "fakes/RawClient.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TempDir.h"
#include "managers/ClientManager.h"
#include "managers/RunningService.h"
#include "protocol/src/KelmMessage.h"
#include "utils/RunPaths.h"
#include "utils/StringHelper.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A descriptor to give away with a request, and whether the service has closed its copy.
class DescriptorProbe {
 public:
    DescriptorProbe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe(ends), 0);
        m_watched.reset(ends[0]);
        m_given.reset(ends[1]);
    }
    int get() const { return m_given.get(); }
    // Our own copy goes once it was sent.
    void sent() { m_given.reset(); }
    bool isClosed() const {
        return eventually([this] {
            pollfd state{m_watched.get(), POLLIN, 0};
            return ::poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
        });
    }

 private:
    UniqueFd m_watched;
    UniqueFd m_given;
};

// A registered client; its operations are one request and, if they wait, the next message.
class WireClient {
 public:
    explicit WireClient(const char* name = "client")
        : m_raw(RunPaths::serviceSocket()), m_id(m_raw.registerClient(name)) {
        EXPECT_NE(m_id, 0u);
    }

    uint64_t id() const { return m_id; }
    RawClient& raw() { return m_raw; }
    void hangUp() { m_raw.close(); }
    bool unregister() { return m_raw.unregisterClient(m_id) == KELM_OK; }

    template <class Request>
    Request make(KelmMsgType type, uint64_t clientId = 0) {
        auto request = RawClient::request<Request>(type, ++m_sequence);
        request.clientId = clientId != 0 ? clientId : m_id;
        return request;
    }
    // Whether an answer is there, and whether the service takes more.
    bool hasAnswer() const { return isReady(POLLIN, 0); }
    bool canSend() const { return isReady(POLLOUT, 50); }
    template <class Request>
    void send(const Request& request, const std::vector<int>& descriptors = {},
              std::string_view block = {}) {
        EXPECT_TRUE(m_raw.send(request, descriptors, block));
    }
    // The next answer to a create request; what comes before it is dropped.
    uint64_t receiveGraphId() {
        const auto message = m_raw.receiveType(KELM_MESSAGE_CREATE_GRAPH_RSP);
        EXPECT_TRUE(message);
        return message ? message->as<KelmMsgRspCreateGraph>().graphId : 0;
    }
    // The next message, zeroed if none or another one comes.
    template <class Response>
    Response receive() {
        Response response{};
        const auto message = m_raw.receive();
        if (message && message->as<KelmMsgBase>().size == sizeof(response)) {
            return message->as<Response>();
        }
        ADD_FAILURE() << "no message of that type came";
        return response;
    }

    void sendCreateGraph(const std::string& blob, const std::string& name = "graph",
                         const std::string& tag = "", int32_t subclass = 0) {
        auto request = make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
        request.subclass = subclass;
        request.expectDevices = 1;
        StringHelper::copyStringSafe(request.graphName, name);
        StringHelper::copyStringSafe(request.graphTag, tag);
        request.head.base.dataNum = 1;
        request.head.base.dataSize[0] = blob.size();
        send(request, {}, blob);
    }
    KelmMsgRspCreateGraph createGraph(const std::string& blob, const std::string& name = "graph",
                                      const std::string& tag = "", int32_t subclass = 0) {
        sendCreateGraph(blob, name, tag, subclass);
        return receive<KelmMsgRspCreateGraph>();
    }
    void sendCreateGraphFromFile(const std::string& path, const std::string& tag = "") {
        auto request = make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
        StringHelper::copyStringSafe(request.graphPath, path);
        StringHelper::copyStringSafe(request.graphTag, tag);
        send(request);
    }
    KelmMsgRspCreateGraph createGraphFromFile(const std::string& path) {
        sendCreateGraphFromFile(path);
        return receive<KelmMsgRspCreateGraph>();
    }
    void sendDestroyGraph(uint64_t graphId, uint64_t clientId = 0) {
        auto request = make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, clientId);
        request.graphId = graphId;
        send(request);
    }
    int32_t destroyGraph(uint64_t graphId, uint64_t clientId = 0) {
        sendDestroyGraph(graphId, clientId);
        return receive<KelmMsgRsp>().status;
    }
    KelmMsgRspQueryBufferSize queryBufferSize(uint64_t graphId, uint64_t clientId = 0) {
        auto request =
            make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, clientId);
        request.graphId = graphId;
        send(request);
        return receive<KelmMsgRspQueryBufferSize>();
    }

    void sendInfer(uint64_t graphId, DescriptorProbe& input, uint64_t clientId = 0,
                   uint32_t needResponse = 1) {
        auto request = make<KelmMsgReqInferTask>(KELM_MESSAGE_INFER_TASK_REQ, clientId);
        request.head.needResponse = needResponse;
        request.graphId = graphId;
        request.inputBuffer.type = KELM_BUFFER_ION;
        request.head.base.fdNum = 1;
        request.head.base.fdType[0] = KELM_FD_INPUT;
        send(request, {input.get()});
        input.sent();
    }
    KelmMsgRspInferTask infer(uint64_t graphId, DescriptorProbe& input, uint64_t clientId = 0) {
        sendInfer(graphId, input, clientId);
        return receive<KelmMsgRspInferTask>();
    }
    void sendCancel(uint64_t taskId) {
        auto request = make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ);
        request.taskId = taskId;
        send(request);
    }
    KelmMsgRspCancelTask cancelTask(uint64_t taskId) {
        sendCancel(taskId);
        return receive<KelmMsgRspCancelTask>();
    }
    KelmMsgRspQueryTaskStatus queryTaskStatus(uint64_t taskId) {
        auto request = make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ);
        request.taskId = taskId;
        send(request);
        return receive<KelmMsgRspQueryTaskStatus>();
    }

 private:
    bool isReady(short events, int millisec) const {
        pollfd state{m_raw.fd(), events, 0};
        return ::poll(&state, 1, millisec) == 1 && (state.revents & events) != 0;
    }

    RawClient m_raw;
    const uint64_t m_id;
    uint64_t m_sequence = 0;
};

// The service on one scripted device. Singletons cannot start twice, so a process runs one case.
class ManagersFixture : public ::testing::Test {
 protected:
    // `settings` is the inside of a JSON object that overrides the configuration.
    void start(const std::string& settings = "") {
        constexpr const char* kOneDevice = R"("fake_device_settings": {"fake_device_number": 1})";
        m_service.emplace("{" + settings + (settings.empty() ? "" : ", ") + kOneDevice + "}");
    }

    void TearDown() override {
        for (const DeviceCall call :
             {DeviceCall::Allocate, DeviceCall::Deallocate, DeviceCall::LoadTensor}) {
            device().release(call);
        }
        m_service.reset();
    }

    DeviceScript& device() { return m_devices["Fake0"]; }
    const TempDir& dir() const { return m_dir; }
    bool noClientIsLeft() const {
        return eventually([] { return !ClientManager::instance().isActive(); });
    }
    // Whether a new graph finds a place in the end.
    bool placeIsGivenBack(WireClient& client, const std::string& blob) {
        return eventually([&] { return client.createGraph(blob).head.status == KELM_OK; });
    }

 private:
    TempDir m_dir;
    ScriptedDevices m_devices;  // before the service, which makes its devices here
    std::optional<RunningService> m_service;
};

}  // namespace kelm

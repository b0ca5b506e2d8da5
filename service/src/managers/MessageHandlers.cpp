// What the message dispatcher does with each type of request: it leaves a trace and hands the
// request to a manager's pool. The trace comes first, since the answer frees the request.
#include "devices/DeviceManagerCreator.h"
#include "managers/ClientManager.h"
#include "managers/GraphManager.h"
#include "managers/InfoPrinter.h"
#include "managers/MessageDispatcher.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmTaskParam.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

template <class Request>
Request& as(KelmMsgBase* message) {
    return *reinterpret_cast<Request*>(message);
}

// The texts of a request travel as pointers into it, so a text that fills its field is closed here.
template <size_t N>
const char* terminated(char (&field)[N]) {
    field[N - 1] = '\0';
    return field;
}

}  // namespace

void MessageDispatcher::initRequestHandlerMap() {
    m_requestHandlerMap = {
        {KELM_MESSAGE_REGISTER_REQ, &MessageDispatcher::handleRegister},
        {KELM_MESSAGE_UNREGISTER_REQ, &MessageDispatcher::handleUnregister},
        {KELM_MESSAGE_CREATE_GRAPH_REQ, &MessageDispatcher::handleCreateGraph},
        {KELM_MESSAGE_DESTROY_GRAPH_REQ, &MessageDispatcher::handleDestroyGraph},
        {KELM_MESSAGE_INFER_TASK_REQ, &MessageDispatcher::handleInferTask},
        {KELM_MESSAGE_CANCEL_TASK_REQ, &MessageDispatcher::handleCancelTask},
        {KELM_MESSAGE_QUERY_TASK_STATUS_REQ, &MessageDispatcher::handleQueryTaskStatus},
        {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, &MessageDispatcher::handleQueryBufferSize},
        {KELM_MESSAGE_QUERY_STATUS_REQ, &MessageDispatcher::handleQueryStatus},
        {KELM_MESSAGE_TEST_SEND_FD_REQ, &MessageDispatcher::handleTestSendFd},
        {KELM_MESSAGE_RESET_DEVICE_REQ, &MessageDispatcher::handleResetDevice},
    };
}

void MessageDispatcher::handleRegister(KelmMsgBase* message, int socket) {
    auto& request = as<KelmMsgReqRegister>(message);
    const char* name = terminated(request.clientName);
    if (const auto connection = IPC::ConnectionBase::findConnection(socket)) {
        connection->setUser(escapeControls(name));  // so that errors of the socket name the client
    }
    LOG_PROC(m_debugProcess,
             "enqueue register request(reqSeqNo=%lu): clientName=%s socket=%d userParam=%p",
             request.head.reqSeqNo, escapeControls(name), socket, message);
    m_clientManager->enqueueRegisterClient(name, request.apiMajorVersion, request.apiMinorVersion,
                                           socket, message);
}

void MessageDispatcher::handleUnregister(KelmMsgBase* message, int socket) {
    m_onListenThread.assertHeld();
    const auto& request = as<KelmMsgReqUnregister>(message);
    LOG_PROC(m_debugProcess, "remove socket %d from listening list", socket);
    if (const auto connection = IPC::ConnectionBase::findConnection(socket)) {
        // Deliberate: for good, also if the client turns out to be unknown.
        connection->blockPoller();
        m_leaving.push_back(connection);
    }
    LOG_PROC(m_debugProcess,
             "enqueue unregister request(reqSeqNo=%lu): client=%lu socket=%d userParam=%p",
             request.head.reqSeqNo, request.clientId, socket, message);
    m_clientManager->enqueueUnregisterClient(request.clientId, socket, message);
}

void MessageDispatcher::handleCreateGraph(KelmMsgBase* message, int socket) {
    auto& request = as<KelmMsgReqCreateGraph>(message);
    const char* name = terminated(request.graphName);
    const char* tag = terminated(request.graphTag);
    const char* streamId = terminated(request.streamId);
    const char* path = terminated(request.graphPath);
    if (request.graphData == 0) {
        LOG_PROC(m_debugProcess,
                 "enqueue create graph request(reqSeqNo=%lu): client=%lu graphPath=%s graphName=%s "
                 "subclass=%d expectDevices=%d socket=%d userParam=%p",
                 request.head.reqSeqNo, request.clientId, escapeControls(path),
                 escapeControls(name), request.subclass, request.expectDevices, socket, message);
        m_graphManager->enqueueCreateGraph(request.clientId, path, name, tag, streamId,
                                           request.subclass, request.expectDevices, socket,
                                           message);
        return;
    }
    const auto graphDataSize = static_cast<uint64_t>(request.graphDataSize);
    LOG_PROC(
        m_debugProcess,
        "enqueue create graph request(reqSeqNo=%lu): client=%lu graphDataSize=%lu graphName=%s "
        "subclass=%d expectDevices=%d socket=%d userParam=%p",
        request.head.reqSeqNo, request.clientId, graphDataSize, escapeControls(name),
        request.subclass, request.expectDevices, socket, message);
    m_graphManager->enqueueCreateGraph(
        request.clientId, reinterpret_cast<const char*>(request.graphData), graphDataSize, name,
        tag, streamId, request.subclass, request.expectDevices, socket, message);
}

void MessageDispatcher::handleDestroyGraph(KelmMsgBase* message, int socket) {
    const auto& request = as<KelmMsgReqDestroyGraph>(message);
    LOG_PROC(m_debugProcess,
             "enqueue destroy graph request(reqSeqNo=%lu): client=%lu graph=%lu socket=%d "
             "userParam=%p",
             request.head.reqSeqNo, request.clientId, request.graphId, socket, message);
    m_graphManager->enqueueDestroyGraph(request.clientId, request.graphId, socket, message);
}

void MessageDispatcher::handleInferTask(KelmMsgBase* message, int socket) {
    auto& request = as<KelmMsgReqInferTask>(message);
    KelmBuffer input;
    KelmBuffer output;
    KelmBuffer aux;
    takeTaskBuffers(request, input, output, aux);
    for (KelmBuffer* buffer : {&input, &output, &aux}) terminated(buffer->name);
    std::unique_ptr<KelmTaskParam> param(
        KelmTaskParam::create(input, output, aux, kelmGetPeer(*message)));
    param->setOutputBufferProvided(true);
    param->setAuxBufferProvided(true);
    LOG_DEBUG("[TrackFd] create: clientId=%lu graphId=%lu inFd=%d outFd=%d auxFd=%d",
              request.clientId, request.graphId, input.fd, output.fd, aux.fd);
    LOG_PROC(
        m_debugProcess,
        "enqueue infer task request(reqSeqNo=%lu): client=%lu graph=%lu socket=%d userParam=%p",
        request.head.reqSeqNo, request.clientId, request.graphId, socket, message);
    m_taskManager->enqueueCreateTask(request.clientId, request.graphId, param.release(), socket,
                                     message);
}

void MessageDispatcher::handleCancelTask(KelmMsgBase* message, int socket) {
    const auto& request = as<KelmMsgReqCancelTask>(message);
    LOG_PROC(m_debugProcess,
             "enqueue cancel task request(reqSeqNo=%lu): client=%lu task=%lu socket=%d "
             "userParam=%p",
             request.head.reqSeqNo, request.clientId, request.taskId, socket, message);
    m_taskManager->enqueueCancelTask(request.clientId, request.taskId, socket, message);
}

void MessageDispatcher::handleQueryTaskStatus(KelmMsgBase* message, int socket) {
    const auto& request = as<KelmMsgReqQueryTaskStatus>(message);
    LOG_PROC(m_debugProcess,
             "enqueue query task status request(reqSeqNo=%lu): client=%lu task=%lu socket=%d "
             "userParam=%p",
             request.head.reqSeqNo, request.clientId, request.taskId, socket, message);
    m_taskManager->enqueueQueryTaskStatus(request.clientId, request.taskId, socket, message);
}

void MessageDispatcher::handleQueryBufferSize(KelmMsgBase* message, int socket) {
    const auto& request = as<KelmMsgReqQueryBufferSize>(message);
    LOG_PROC(m_debugProcess,
             "enqueue query graph buffer size request(reqSeqNo=%lu): client=%lu graph=%lu "
             "socket=%d userParam=%p",
             request.head.reqSeqNo, request.clientId, request.graphId, socket, message);
    m_graphManager->enqueueQueryBufferSize(request.clientId, request.graphId, socket, message);
}

void MessageDispatcher::handleQueryStatus(KelmMsgBase* message, int socket) {
    const auto& request = as<KelmMsgReqQueryStatus>(message);
    m_infoPrinter->enqueueQueryStatus(request.clientId, request.queryType, socket, message);
}

// Only proves that a descriptor comes through: there is nothing to do and no answer.
void MessageDispatcher::handleTestSendFd(KelmMsgBase* message, int /*socket*/) {
    kelmReleaseMessage(message);
}

void MessageDispatcher::handleResetDevice(KelmMsgBase* message, int socket) {
    const auto& request = as<KelmMsgReqResetDevice>(message);
    LOG_PROC(m_debugProcess,
             "enqueue reset device request(reqSeqNo=%lu): client=%lu deviceId=%u "
             "resetAllDevices=%d socket=%d userParam=%p",
             request.head.reqSeqNo, request.clientId, request.deviceId, request.resetAllDevices,
             socket, message);
    m_deviceManagerCreator->enqueueResetDevice(request.clientId, request.deviceId,
                                               request.resetAllDevices, socket, message);
}

}  // namespace kelm

// The answers to requests: one builder per message, and what they share.
#include <algorithm>
#include <cerrno>
#include <system_error>

#include "managers/ClientManager.h"
#include "managers/ClientSender.h"
#include "managers/ResultDispatcher.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"

namespace kelm {

namespace {

// The words of one response for the log.
struct ResponseWords {
    KelmMsgType type;
    const char* record;  // for a failed allocation
    const char* trace;
    bool traceHasId;  // sequence and client, then perhaps the id of what the answer is about
    const char* cancel;
    bool cancelHasId;
};

constexpr ResponseWords kResponseWords[] = {
    {KELM_MESSAGE_REGISTER_RSP, "KelmMsgRspRegister",
     "sendRegisterResponse(rspSeqNo=%lu): clientId=%lu", false,
     "cancel sendRegisterResponse: clientId=%lu", false},
    {KELM_MESSAGE_UNREGISTER_RSP, "KelmMsgRspUnregister",
     "sendUnregisterResponse(rspSeqNo=%lu): clientId=%lu", false,
     "cancel sendUnregisterResponse: clientId=%lu", false},
    {KELM_MESSAGE_CREATE_GRAPH_RSP, "KelmMsgRspCreateGraph",
     "sendCreateGraphResponse(rspSeqNo=%lu): clientId=%lu graphId=%lu", true,
     "cancel sendCreateGraphResponse: clientId=%lu graphId=%lu", true},
    {KELM_MESSAGE_DESTROY_GRAPH_RSP, "KelmMsgRspDestroyGraph",
     "sendDestroyGraphResponse(rspSeqNo=%lu): clientId=%lu graph=%lu", true,
     "cancel sendDestroyGraphResponse: clientId=%lu", false},
    {KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP, "KelmMsgRspQueryBufferSize",
     "sendQueryBufferSizeResponse(rspSeqNo=%lu): clientId=%lu graph=%lu", true,
     "cancel sendQueryBufferSizeResponse: clientId=%lu", false},
    {KELM_MESSAGE_INFER_TASK_RSP, "KelmMsgRspInferTask",
     "sendCreateTaskResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu", true,
     "cancel sendCreateTaskResponse: clientId=%lu", false},
    // Deliberate: the three below share the words of a canceled answer, which log readers know.
    {KELM_MESSAGE_CANCEL_TASK_RSP, "KelmMsgRspCancelTask",
     "sendCancelTaskResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu", true,
     "cancel sendQueryTaskStatusResponse: clientId=%lu", false},
    {KELM_MESSAGE_QUERY_TASK_STATUS_RSP, "KelmMsgRspQueryTaskStatus",
     "sendQueryTaskStatusResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu", true,
     "cancel sendQueryTaskStatusResponse: clientId=%lu", false},
    {KELM_MESSAGE_QUERY_STATUS_RSP, "KelmMsgRspQueryStatus",
     "sendQueryStatusResponse(rspSeqNo=%lu): clientId=%lu queryType=%lu", true,
     "cancel sendQueryTaskStatusResponse: clientId=%lu", false},
    {KELM_MESSAGE_RESET_DEVICE_RSP, "KelmMsgRspResetDevice",
     "sendResetDeviceResponse(rspSeqNo=%lu): clientId=%lu deviceId=%lu", true,
     "cancel sendResetDeviceResponse: clientId=%lu", false},
};

const ResponseWords& wordsOf(KelmMsgType type) {
    const auto* words = std::find_if(std::begin(kResponseWords), std::end(kResponseWords),
                                     [type](const ResponseWords& row) { return row.type == type; });
    CR_ASSERT(words != std::end(kResponseWords), "no words for a response");
    return *words;
}

// A zeroed record; running out of memory ends the process.
MessagePtr allocate(KelmMsgType type, const char* record) {
    MessagePtr message(kelmAllocMessage(type));
    if (!message) {
        LOG_ERROR("Error: malloc %s (size = %lu) failed. errno = %d [%s]", record,
                  KelmMessageSize[type], errno, std::generic_category().message(errno));
    }
    CR_ASSERT(message != nullptr, record);
    return message;
}

// The peer's own list of receive buffers goes back to it, without the types.
void echoReceiveBuffers(const KelmMsgBase& request, KelmMsgBase& response) {
    response.peerRecvNum = std::min(request.peerRecvNum, kMaxMessageBlocks);
    std::copy_n(request.peerRecvData, response.peerRecvNum, response.peerRecvData);
    std::copy_n(request.peerRecvSize, response.peerRecvNum, response.peerRecvSize);
}

void fillHead(const KelmMsgReq& request, uint64_t clientId, KelmError error, KelmMsgRsp& response) {
    echoReceiveBuffers(request.base, response.base);
    response.reqSeqNo = request.reqSeqNo;
    response.rspSeqNo = request.reqSeqNo;
    response.status = error;
    response.clientId = clientId;
}

// Clients of the first API version know the done message, those after it the event.
bool takesEvents(const KelmClient& client) { return client.getApiMajorVersion() >= 2; }

template <class Record>
Record& as(const MessagePtr& message) {
    return *reinterpret_cast<Record*>(message.get());
}

}  // namespace

// What the answer tells of a graph, taken while the graph is there; all 0 without one.
struct ResultDispatcher::GraphSizes {
    explicit GraphSizes(const KelmGraph* graph) {
        if (graph == nullptr) return;
        id = graph->getId();
        input = graph->getInputBufferSize();
        output = graph->getOutputBufferSize();
        debug = graph->getDebugBufferSize();
        timeTakens = graph->getTimeTakensSize();
        thermal = graph->getThermalBufferSize();
    }

    uint64_t id = 0;
    uint64_t input = 0;
    uint64_t output = 0;
    uint64_t debug = 0;
    uint64_t timeTakens = 0;
    uint64_t thermal = 0;
};

bool ResultDispatcher::hasRequest(const MessagePtr& request) {
    if (!request) LOG_ERROR("Error: no request info for construct response message");
    return request != nullptr;
}

bool ResultDispatcher::checkInputParameters(const Answer& answer, const KelmMsgReq& request) {
    if (request.needResponse == 0) {
        LOG_DEBUG("no need to reply the request");
    } else if (answer.socket < 0 && !ClientManager::instance().verifyClient(answer.clientId)) {
        LOG_DEBUG("no clue where to send the response");
    } else {
        return true;
    }
    const ResponseWords& words = wordsOf(answer.type);
    if (words.cancelHasId) {
        LOG_PROC(m_debugProcess, words.cancel, answer.clientId, answer.id);
    } else {
        LOG_PROC(m_debugProcess, words.cancel, answer.clientId);
    }
    return false;
}

MessagePtr ResultDispatcher::makeResponse(const Answer& answer, const KelmMsgReq& request) {
    if (!checkInputParameters(answer, request)) return nullptr;
    MessagePtr message = allocate(answer.type, wordsOf(answer.type).record);
    fillHead(request, answer.clientId, answer.error, as<KelmMsgRsp>(message));
    // The answer may go out by the connection's number, after its peer has hung up.
    kelmShareOrigin(request.base, *message);
    return message;
}

void ResultDispatcher::deliver(const Answer& answer, MessagePtr message, uint64_t createdTaskId) {
    const ResponseWords& words = wordsOf(answer.type);
    const uint64_t sequence = as<KelmMsgRsp>(message).rspSeqNo;
    if (words.traceHasId) {
        LOG_PROC(m_debugProcess, words.trace, sequence, answer.clientId, answer.id);
    } else {
        LOG_PROC(m_debugProcess, words.trace, sequence, answer.clientId);
    }
    ClientSender* const sender = getDedicatedThreadPool(answer.clientId);
    // Who names another user's client gets the answer, not that client. It is the sender that is
    // asked, since the id may be given out at this moment.
    const bool isOthers = sender != nullptr && !sender->isOfUser(kelmGetPeer(*message)->user);
    sendResponse(isOthers ? nullptr : sender, isOthers ? 0 : answer.clientId, answer.socket,
                 std::move(message), createdTaskId);
}

void ResultDispatcher::enqueueSendRegisterResponse(uint64_t clientId, int socket, KelmError error,
                                                   void* userParam) {
    m_mainPool.post([this, clientId, socket, error, userParam] {
        m_onMainPool.assertHeld();
        sendRegisterResponse(clientId, socket, error, userParam);
    });
}

void ResultDispatcher::sendRegisterResponse(uint64_t clientId, int socket, KelmError error,
                                            void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const Answer answer{KELM_MESSAGE_REGISTER_RSP, clientId, 0, error, socket};
    if (MessagePtr message = makeResponse(answer, as<KelmMsgReq>(request))) {
        deliver(answer, std::move(message));
    }
}

void ResultDispatcher::enqueueSendUnregisterResponse(uint64_t clientId, int socket, KelmError error,
                                                     void* userParam) {
    m_mainPool.post([this, clientId, socket, error, userParam] {
        m_onMainPool.assertHeld();
        sendUnregisterResponse(clientId, socket, error, userParam);
    });
}

void ResultDispatcher::sendUnregisterResponse(uint64_t clientId, int socket, KelmError error,
                                              void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!request) {
        LOG_WARN("Warn: no request info for construct response message");
        return;
    }
    const Answer answer{KELM_MESSAGE_UNREGISTER_RSP, clientId, 0, error, socket};
    if (MessagePtr message = makeResponse(answer, as<KelmMsgReq>(request))) {
        deliver(answer, std::move(message));
    } else if (error == KELM_OK) {  // nobody leaves for a refused request
        cancelUnregisterResponse(clientId);
    }
}

void ResultDispatcher::cancelUnregisterResponse(uint64_t clientId) {
    // The departure waits for this word, with or without a response, behind what is queued.
    ClientSender* const sender = findSender(clientId);
    if (sender == nullptr) {
        ClientManager::instance().enqueueNotifyUnregRspSent(clientId);
        return;
    }
    sender->postNotice([sender] { finishUnregister(*sender); });
}

void ResultDispatcher::enqueueSendCreateGraphResponse(KelmGraph* graph, KelmError error, int socket,
                                                      void* userParam) {
    m_mainPool.post([this, sizes = GraphSizes(graph), error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendCreateGraphResponse(sizes, error, socket, userParam);
    });
}

void ResultDispatcher::sendCreateGraphResponse(const GraphSizes& graph, KelmError error, int socket,
                                               void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& create = as<KelmMsgReqCreateGraph>(request);
    const Answer answer{KELM_MESSAGE_CREATE_GRAPH_RSP, create.clientId, graph.id, error, socket};
    MessagePtr message = makeResponse(answer, create.head);
    if (!message) return;
    auto& response = as<KelmMsgRspCreateGraph>(message);
    response.graphId = graph.id;
    response.inputBufferSize = graph.input;
    response.outputBufferSize = graph.output;
    response.debugBufferSize = graph.debug;
    response.timeTakensSize = graph.timeTakens;
    response.thermalBufferSize = graph.thermal;
    deliver(answer, std::move(message));
}

void ResultDispatcher::enqueueSendDestroyGraphResponse(KelmError error, int socket,
                                                       void* userParam) {
    m_mainPool.post([this, error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendDestroyGraphResponse(error, socket, userParam);
    });
}

void ResultDispatcher::sendDestroyGraphResponse(KelmError error, int socket, void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& destroy = as<KelmMsgReqDestroyGraph>(request);
    const Answer answer{KELM_MESSAGE_DESTROY_GRAPH_RSP, destroy.clientId, destroy.graphId, error,
                        socket};
    if (MessagePtr message = makeResponse(answer, destroy.head)) {
        deliver(answer, std::move(message));
    }
}

void ResultDispatcher::enqueueSendQueryBufferSizeResponse(uint64_t inputSize, uint64_t outputSize,
                                                          KelmError error, int socket,
                                                          void* userParam) {
    m_mainPool.post([this, inputSize, outputSize, error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendQueryBufferSizeResponse(inputSize, outputSize, error, socket, userParam);
    });
}

void ResultDispatcher::sendQueryBufferSizeResponse(uint64_t inputSize, uint64_t outputSize,
                                                   KelmError error, int socket, void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& query = as<KelmMsgReqQueryBufferSize>(request);
    const Answer answer{KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP, query.clientId, query.graphId, error,
                        socket};
    MessagePtr message = makeResponse(answer, query.head);
    if (!message) return;
    auto& response = as<KelmMsgRspQueryBufferSize>(message);
    response.graphId = query.graphId;
    response.inputBufferSize = inputSize;
    response.outputBufferSize = outputSize;
    deliver(answer, std::move(message));
}

void ResultDispatcher::enqueueSendCreateTaskResponse(KelmTask* task, KelmError error, int socket,
                                                     void* userParam) {
    const uint64_t taskId = task != nullptr ? task->getId() : 0;
    m_mainPool.post([this, taskId, error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendCreateTaskResponse(taskId, error, socket, userParam);
    });
}

void ResultDispatcher::sendCreateTaskResponse(uint64_t taskId, KelmError error, int socket,
                                              void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& infer = as<KelmMsgReqInferTask>(request);
    const Answer answer{KELM_MESSAGE_INFER_TASK_RSP, infer.clientId, taskId, error, socket};
    MessagePtr message = makeResponse(answer, infer.head);
    if (!message) return;
    auto& response = as<KelmMsgRspInferTask>(message);
    response.taskId = taskId;
    response.taskCookie0 = infer.taskCookie0;
    response.taskCookie1 = infer.taskCookie1;
    deliver(answer, std::move(message), taskId);
}

void ResultDispatcher::enqueueSendCancelTaskResponse(bool canceled, KelmError error, int socket,
                                                     void* userParam) {
    m_mainPool.post([this, canceled, error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendCancelTaskResponse(canceled, error, socket, userParam);
    });
}

void ResultDispatcher::sendCancelTaskResponse(bool canceled, KelmError error, int socket,
                                              void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& cancel = as<KelmMsgReqCancelTask>(request);
    const Answer answer{KELM_MESSAGE_CANCEL_TASK_RSP, cancel.clientId, cancel.taskId, error,
                        socket};
    MessagePtr message = makeResponse(answer, cancel.head);
    if (!message) return;
    auto& response = as<KelmMsgRspCancelTask>(message);
    response.taskId = cancel.taskId;
    response.canceled = canceled ? 1 : 0;
    deliver(answer, std::move(message));
}

void ResultDispatcher::enqueueSendQueryTaskStatusResponse(int32_t status, KelmError error,
                                                          int socket, void* userParam) {
    m_mainPool.post([this, status, error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendQueryTaskStatusResponse(status, error, socket, userParam);
    });
}

void ResultDispatcher::sendQueryTaskStatusResponse(int32_t status, KelmError error, int socket,
                                                   void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& query = as<KelmMsgReqQueryTaskStatus>(request);
    const Answer answer{KELM_MESSAGE_QUERY_TASK_STATUS_RSP, query.clientId, query.taskId, error,
                        socket};
    MessagePtr message = makeResponse(answer, query.head);
    if (!message) return;
    auto& response = as<KelmMsgRspQueryTaskStatus>(message);
    response.taskId = query.taskId;
    response.taskStatus = status;
    deliver(answer, std::move(message));
}

void ResultDispatcher::enqueueSendResetDeviceResponse(KelmError error, int socket,
                                                      void* userParam) {
    m_mainPool.post([this, error, socket, userParam] {
        m_onMainPool.assertHeld();
        sendResetDeviceResponse(error, socket, userParam);
    });
}

void ResultDispatcher::sendResetDeviceResponse(KelmError error, int socket, void* userParam) {
    const MessagePtr request(static_cast<KelmMsgBase*>(userParam));
    if (!hasRequest(request)) return;
    const auto& reset = as<KelmMsgReqResetDevice>(request);
    const Answer answer{KELM_MESSAGE_RESET_DEVICE_RSP, reset.clientId, reset.deviceId, error,
                        socket};
    MessagePtr message = makeResponse(answer, reset.head);
    if (!message) return;
    auto& response = as<KelmMsgRspResetDevice>(message);
    response.deviceId = reset.deviceId;
    response.resetAllDevices = reset.resetAllDevices;
    deliver(answer, std::move(message));
}

void ResultDispatcher::enqueueSendTaskDoneResponse(KelmTask* task, KelmError error) {
    m_mainPool.post([this, task, error] {
        m_onMainPool.assertHeld();
        sendTaskDoneResponse(task, error);
    });
}

void ResultDispatcher::sendTaskDoneResponse(KelmTask* task, KelmError error) {
    if (task == nullptr) {
        LOG_ERROR("Error: send task done response failed: task == NULL");
        return;
    }
    KelmClient* const client = findReceiver(*task);
    if (client != nullptr) {
        client->increaseInferenceTimes();
        if (task->getCreateTaskRequest().head.needResponse == 0) {
            // Its event is not told, but has its number all the same.
            if (takesEvents(*client)) m_evtSeqNo.fetch_add(1);
        } else if (!tellTaskDone(*task, *client, error)) {
            return;
        }
    }
    destroyTask(task);
}

bool ResultDispatcher::tellTaskDone(KelmTask& task, KelmClient& client, KelmError error) {
    const uint64_t taskId = task.getId();
    MessagePtr message = makeTaskDoneMessage(task, client, error);
    if (task.setTaskDoneResponse(message)) {
        LOG_PROC(m_debugProcess,
                 "Task(%lu) create response is not sent yet, cache task done response", taskId);
        return false;
    }
    const uint64_t clientId = client.getId();
    sendResponse(getDedicatedThreadPool(clientId), clientId, -1, std::move(message), 0);
    m_finishedTasks.update();
    return true;
}

KelmClient* ResultDispatcher::findReceiver(KelmTask& task) {
    const uint64_t clientId = task.getClientId();
    if (task.isCanceled()) {
        LOG_PROC(m_debugProcess, "abort sending task done response for canceled task(taskId=%lu)",
                 task.getId());
        LOG_INFO("Destroy task(%lu), reason=canceled", task.getId());
        return nullptr;
    }
    ClientManager& clients = ClientManager::instance();
    if (!clients.verifyClient(clientId)) {
        LOG_PROC(m_debugProcess, "abort send task done message to unregistered client(id:%lu)",
                 clientId);
        return nullptr;
    }
    KelmClient* client = clients.getClientById(clientId);
    if (client == nullptr) LOG_ERROR("Error: getClientById (%lu) failed.", clientId);
    return client;
}

MessagePtr ResultDispatcher::makeTaskDoneMessage(KelmTask& task, KelmClient& client,
                                                 KelmError error) {
    const KelmMsgReqInferTask& request = task.getCreateTaskRequest();
    const uint64_t clientId = task.getClientId();
    if (!takesEvents(client)) {
        MessagePtr message = allocate(KELM_MESSAGE_TASK_DONE_MSG, "KelmMsgRspTaskDone");
        auto& done = as<KelmMsgRspTaskDone>(message);
        fillHead(request.head, clientId, error, done.head);
        done.taskId = task.getId();
        done.taskCookie0 = request.taskCookie0;
        done.taskResult = error;
        done.taskCookie1 = request.taskCookie1;
        LOG_PROC(m_debugProcess, "sendTaskDoneResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu",
                 done.head.rspSeqNo, clientId, task.getId());
        return message;
    }
    MessagePtr message = allocate(KELM_MESSAGE_TASK_DONE_EVT, "KelmMsgEvtTaskDone");
    auto& done = as<KelmMsgEvtTaskDone>(message);
    done.head.evtSeqNo = m_evtSeqNo.fetch_add(1);
    done.reqSeqNo = request.head.reqSeqNo;
    done.status = error;
    done.clientId = clientId;
    done.taskId = task.getId();
    done.taskCookie0 = request.taskCookie0;
    done.taskResult = error;
    done.taskCookie1 = request.taskCookie1;
    LOG_PROC(m_debugProcess, "sendTaskDoneEvent(evtSeqNo=%lu): clientId=%lu taskId=%lu reqSeq=%lu",
             done.head.evtSeqNo, clientId, task.getId(), done.reqSeqNo);
    return message;
}

}  // namespace kelm

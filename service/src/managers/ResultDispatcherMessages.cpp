#include <algorithm>
#include <cerrno>
#include <system_error>

#include "managers/ClientManager.h"
#include "managers/ClientSender.h"
#include "managers/RequestRow.h"
#include "managers/ResultDispatcher.h"
#include "managers/StatusAnswer.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "records/Request.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

// A zeroed record. Out of memory ends the process: an answer that is left out would leave its
// client waiting without limit.
MessagePtr allocate(KelmMsgType type, const char* record) {
    MessagePtr message(kelmAllocMessage(type));
    if (!message) {
        LOG_ERROR("Error: malloc %s (size = %lu) failed. errno = %d [%s]", record,
                  KelmMessageSize[type], errno, std::generic_category().message(errno));
    }
    CR_ASSERT(message != nullptr, record);
    return message;
}

// The peer finds its own list of receive buffers in the answer, without the types.
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

// What the answer tells of a graph, taken while the graph is there; all 0 without one.
struct GraphSizes {
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

// For answers that have no fields of their own.
template <class Asked>
constexpr auto kOnlyHead = [](const Asked& /*request*/, KelmMsgRsp& /*response*/) {};

}  // namespace

bool ResultDispatcher::checkInputParameters(const Answer& answer, const KelmMsgReq& request) {
    if (request.needResponse == 0) {
        LOG_DEBUG("no need to reply the request");
    } else if (answer.socket < 0 && !ClientManager::instance().verifyClient(answer.clientId)) {
        LOG_DEBUG("no clue where to send the response");
    } else {
        return true;
    }
    if (answer.row.cancelHasId) {
        LOG_STEP(answer.row.cancel, answer.clientId, answer.id);
    } else {
        LOG_STEP(answer.row.cancel, answer.clientId);
    }
    return false;
}

MessagePtr ResultDispatcher::makeResponse(const Answer& answer, const KelmMsgReq& request) {
    if (!checkInputParameters(answer, request)) return nullptr;
    MessagePtr message = allocate(answer.row.answer, answer.row.answerRecord);
    fillHead(request, answer.clientId, answer.error, as<KelmMsgRsp>(message));
    // The answer may be written by the connection's number, which must not name another one by
    // then.
    kelmShareOrigin(request.base, *message);
    return message;
}

void ResultDispatcher::deliver(const Answer& answer, MessagePtr message) {
    const uint64_t sequence = as<KelmMsgRsp>(message).rspSeqNo;
    if (answer.row.traceHasId) {
        LOG_STEP(answer.row.trace, sequence, answer.clientId, answer.id);
    } else {
        LOG_STEP(answer.row.trace, sequence, answer.clientId);
    }
    // The sender tells the task when this one is written: its done message may wait for that.
    const bool createsTask = answer.row.answer == KELM_MESSAGE_INFER_TASK_RSP;
    const uint64_t createdTaskId = createsTask ? answer.id : 0;
    ClientSender* const sender = getDedicatedThreadPool(answer.clientId);
    // A request that names another user's client is answered to its sender, not to that client. The
    // user is read off the ClientSender: the client manager may give the id out at this moment.
    const bool isOthers = sender != nullptr && !sender->isOfUser(kelmGetPeer(*message)->user);
    sendResponse(isOthers ? nullptr : sender, isOthers ? 0 : answer.clientId, answer.socket,
                 std::move(message), createdTaskId);
}

// The request's record outlives the building, and the request object the hand-over to a sender:
// what it keeps (see Request::keep) is let go behind the answer.
template <class Asked, class Told, class Fill>
void ResultDispatcher::enqueueAnswer(Request request, uint64_t id, KelmError error, Fill fill) {
    m_mainPool.post([this, id, error, fill, request = std::move(request)]() mutable {
        m_onMainPool.assertHeld();
        const Answer answer{RequestRow::of(request.getType()), request.getClientId(), id, error,
                            request.getSocket()};
        const MessagePtr asked = request.take();
        MessagePtr message = makeResponse(answer, as<KelmMsgReq>(asked));
        if (!message) return;
        fill(as<const Asked>(asked), as<Told>(message));
        deliver(answer, std::move(message));
    });
}

void ResultDispatcher::enqueueSendRegisterResponse(uint64_t clientId, KelmError error,
                                                   Request request) {
    m_mainPool.post([this, clientId, error, request = std::move(request)]() mutable {
        m_onMainPool.assertHeld();
        sendRegisterResponse(clientId, error, std::move(request));
    });
}

void ResultDispatcher::sendRegisterResponse(uint64_t clientId, KelmError error, Request request) {
    const Answer answer{RequestRow::of(request.getType()), clientId, 0, error, request.getSocket()};
    const MessagePtr asked = request.take();
    if (MessagePtr message = makeResponse(answer, as<KelmMsgReq>(asked))) {
        deliver(answer, std::move(message));
    }
}

void ResultDispatcher::enqueueSendUnregisterResponse(KelmError error, Request request) {
    m_mainPool.post([this, error, request = std::move(request)]() mutable {
        m_onMainPool.assertHeld();
        sendUnregisterResponse(error, std::move(request));
    });
}

void ResultDispatcher::sendUnregisterResponse(KelmError error, Request request) {
    const Answer answer{RequestRow::of(request.getType()), request.getClientId(), 0, error,
                        request.getSocket()};
    const MessagePtr asked = request.take();
    if (MessagePtr message = makeResponse(answer, as<KelmMsgReq>(asked))) {
        deliver(answer, std::move(message));
    } else if (error == KELM_OK) {  // a refused request makes no client leave
        cancelUnregisterResponse(answer.clientId);
    }
}

void ResultDispatcher::cancelUnregisterResponse(uint64_t clientId) {
    // The client's end waits for this word also when no response is wanted. It comes behind what is
    // queued, as a response would.
    ClientSender* const sender = findSender(clientId);
    if (sender == nullptr) {
        ClientManager::instance().enqueueNotifyUnregRspSent(clientId);
        return;
    }
    sender->postNotice([sender] { finishUnregister(*sender); });
}

void ResultDispatcher::enqueueSendCreateGraphResponse(const KelmGraph* graph, KelmError error,
                                                      Request request) {
    using Asked = KelmMsgReqCreateGraph;
    using Told = KelmMsgRspCreateGraph;
    const GraphSizes sizes(graph);  // now: the graph may be destroyed before the job runs
    enqueueAnswer<Asked, Told>(std::move(request), sizes.id, error,
                               [sizes](const Asked& /*request*/, Told& response) {
                                   response.graphId = sizes.id;
                                   response.inputBufferSize = sizes.input;
                                   response.outputBufferSize = sizes.output;
                                   response.debugBufferSize = sizes.debug;
                                   response.timeTakensSize = sizes.timeTakens;
                                   response.thermalBufferSize = sizes.thermal;
                               });
}

void ResultDispatcher::enqueueSendDestroyGraphResponse(KelmError error, Request request) {
    using Asked = KelmMsgReqDestroyGraph;
    const uint64_t graphId = request.as<Asked>().graphId;
    enqueueAnswer<Asked, KelmMsgRspDestroyGraph>(std::move(request), graphId, error,
                                                 kOnlyHead<Asked>);
}

void ResultDispatcher::enqueueSendQueryBufferSizeResponse(uint64_t inputSize, uint64_t outputSize,
                                                          KelmError error, Request request) {
    using Asked = KelmMsgReqQueryBufferSize;
    using Told = KelmMsgRspQueryBufferSize;
    const uint64_t graphId = request.as<Asked>().graphId;
    enqueueAnswer<Asked, Told>(std::move(request), graphId, error,
                               [inputSize, outputSize](const Asked& query, Told& response) {
                                   response.graphId = query.graphId;
                                   response.inputBufferSize = inputSize;
                                   response.outputBufferSize = outputSize;
                               });
}

void ResultDispatcher::enqueueSendCreateTaskResponse(const KelmTask* task, KelmError error,
                                                     Request request) {
    using Asked = KelmMsgReqInferTask;
    using Told = KelmMsgRspInferTask;
    const uint64_t taskId = task != nullptr ? task->getId() : 0;
    enqueueAnswer<Asked, Told>(std::move(request), taskId, error,
                               [taskId](const Asked& infer, Told& response) {
                                   response.taskId = taskId;
                                   response.taskCookie0 = infer.taskCookie0;
                                   response.taskCookie1 = infer.taskCookie1;
                               });
}

void ResultDispatcher::enqueueSendCancelTaskResponse(bool canceled, KelmError error,
                                                     Request request) {
    using Asked = KelmMsgReqCancelTask;
    using Told = KelmMsgRspCancelTask;
    const uint64_t taskId = request.as<Asked>().taskId;
    enqueueAnswer<Asked, Told>(std::move(request), taskId, error,
                               [canceled](const Asked& cancel, Told& response) {
                                   response.taskId = cancel.taskId;
                                   response.canceled = canceled ? 1 : 0;
                               });
}

void ResultDispatcher::enqueueSendQueryTaskStatusResponse(int32_t status, KelmError error,
                                                          Request request) {
    using Asked = KelmMsgReqQueryTaskStatus;
    using Told = KelmMsgRspQueryTaskStatus;
    const uint64_t taskId = request.as<Asked>().taskId;
    enqueueAnswer<Asked, Told>(std::move(request), taskId, error,
                               [status](const Asked& query, Told& response) {
                                   response.taskId = query.taskId;
                                   response.taskStatus = status;
                               });
}

void ResultDispatcher::enqueueSendResetDeviceResponse(KelmError error, Request request) {
    using Asked = KelmMsgReqResetDevice;
    using Told = KelmMsgRspResetDevice;
    const uint64_t deviceId = request.as<Asked>().deviceId;
    enqueueAnswer<Asked, Told>(std::move(request), deviceId, error,
                               [](const Asked& reset, Told& response) {
                                   response.deviceId = reset.deviceId;
                                   response.resetAllDevices = reset.resetAllDevices;
                               });
}

void ResultDispatcher::enqueueSendQueryStatusResponse(const std::shared_ptr<KelmStatus>& status,
                                                      Request request) {
    using Asked = KelmMsgReqQueryStatus;
    using Told = KelmMsgRspQueryStatus;
    const uint64_t queryType = request.as<Asked>().queryType;
    enqueueAnswer<Asked, Told>(std::move(request), queryType, KELM_OK,
                               [status](const Asked& query, Told& response) {
                                   response.queryType = query.queryType;
                                   fillStatusAnswer(*status, query.queryType, response);
                               });
}

void ResultDispatcher::enqueueSendTaskDoneResponse(KelmTask* task, KelmError error) {
    m_mainPool.post([this, task, error] {
        m_onMainPool.assertHeld();
        sendTaskDoneResponse(task, error);
    });
}

// Passes the task on whatever becomes of the message: to be destroyed, or with the message that it
// holds to the thread that writes the create response.
void ResultDispatcher::sendTaskDoneResponse(KelmTask* task, KelmError error) {
    if (task == nullptr) {
        LOG_ERROR("Error: send task done response failed: task == NULL");
        return;
    }
    KelmClient* const client = findReceiver(*task);
    if (client != nullptr) {
        client->increaseInferenceTimes();
        if (task->getCreateTaskRequest().head.needResponse == 0) {
            // Deliberate: an event that is not sent uses up a number of the sequence all the same.
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
    // If the task keeps it, the client's thread may send it and have the task destroyed from here
    // on: nothing of the task is read below.
    if (task.setTaskDoneResponse(message)) {
        LOG_STEP("Task(%lu) create response is not sent yet, cache task done response", taskId);
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
        LOG_STEP("abort sending task done response for canceled task(taskId=%lu)", task.getId());
        LOG_INFO("Destroy task(%lu), reason=canceled", task.getId());
        return nullptr;
    }
    ClientManager& clients = ClientManager::instance();
    // The record found below stays, since the client manager waits for the end of this very task.
    if (!clients.verifyClient(clientId)) {
        LOG_STEP("abort send task done message to unregistered client(id:%lu)", clientId);
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
        LOG_STEP("sendTaskDoneResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu", done.head.rspSeqNo,
                 clientId, task.getId());
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
    LOG_STEP("sendTaskDoneEvent(evtSeqNo=%lu): clientId=%lu taskId=%lu reqSeq=%lu",
             done.head.evtSeqNo, clientId, task.getId(), done.reqSeqNo);
    return message;
}

}  // namespace kelm

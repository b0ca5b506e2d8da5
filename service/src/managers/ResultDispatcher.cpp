#include "managers/ResultDispatcher.h"

#include <system_error>
#include <vector>

#include "config/ServiceConfigParser.h"
#include "managers/AnswerRecords.h"
#include "managers/ClientManager.h"
#include "managers/ClientSender.h"
#include "managers/MessageTag.h"
#include "managers/RequestRow.h"
#include "managers/StatusAnswer.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmClient.h"
#include "records/KelmTask.h"
#include "records/Request.h"
#include "reporting/InfoCollector.h"
#include "reporting/ReportPart.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

bool isTaskDone(uint32_t type) {
    return type == KELM_MESSAGE_TASK_DONE_EVT || type == KELM_MESSAGE_TASK_DONE_MSG;
}

// Clients of the first API version know the done message, those after it the event.
bool takesEvents(const KelmClient& client) { return client.getApiMajorVersion() >= 2; }

template <class Record>
Record& as(const MessagePtr& message) {
    return *reinterpret_cast<Record*>(message.get());
}

// For answers that have no fields of their own.
template <class Asked>
constexpr auto kOnlyHead = [](const Asked& /*request*/, KelmMsgRsp& /*response*/) {};

}  // namespace

ResultDispatcher::ResultDispatcher()
    : m_trace(ServiceConfigParser::instance().isResultDispatcherDebugProcessEnabled()),
      m_finishedTasks("", "KelmService", "FinishedTasks"),
      m_senders(m_trace),
      m_strangers(m_trace),
      m_mainPool("ResDp", 30000, SerialPool::LIGHT) {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    m_finishedTasks.m_bufferTimeMs = config.getFpsBufferTimeLength();
    if (config.isPrintServiceFpsEnabled()) {
        Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
    }
}

ResultDispatcher::~ResultDispatcher() {
    Port<ResultSink>::disconnect();
    Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    LOG_STEP("to destruct result dispatcher");
    stopSendResponse();
    std::vector<std::unique_ptr<ClientSender>> senders;
    // By a job of the main pool, since a running job may still be using one of the senders.
    m_mainPool.enqueue([this, &senders] { senders = m_senders.takeAll(); }).wait();
    LOG_STEP("delete %lu dedicated thread pools", senders.size());
    senders.clear();  // each writes what is queued
    LOG_STEP("result dispatcher destructed");
}

void ResultDispatcher::stopSendResponse() { m_senders.stop(); }

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
    MessagePtr message = allocateAnswer(answer.row.answer, answer.row.answerRecord);
    fillHead(request, answer.clientId, answer.error, as<KelmMsgRsp>(message));
    // The answer may be written by the connection's number, which must not name another one by
    // then.
    kelmShareOrigin(request.base, *message);
    return message;
}

// A client that can have no thread for its answers hears so by the first of them, and must go.
bool ResultDispatcher::refuseWithoutThread(const Answer& answer, MessagePtr& message) {
    try {
        (void)m_senders.requireSender(answer.clientId);
        return false;
    } catch (const std::system_error&) {
        auto& refusal = as<KelmMsgRsp>(message);
        refusal.status = KELM_ERROR_OUT_OF_MEMORY;
        refusal.clientId = 0;
        if (auto connection = IPC::ConnectionBase::findConnection(answer.socket)) {
            m_strangers.postLast(std::move(connection), std::move(message));
        }
        return true;
    }
}

void ResultDispatcher::deliver(const Answer& answer, MessagePtr message) {
    const bool isFirst = answer.row.answer == KELM_MESSAGE_REGISTER_RSP;
    if (isFirst && refuseWithoutThread(answer, message)) return;
    const uint64_t sequence = as<KelmMsgRsp>(message).rspSeqNo;
    if (answer.row.traceHasId) {
        LOG_STEP(answer.row.trace, sequence, answer.clientId, answer.id);
    } else {
        LOG_STEP(answer.row.trace, sequence, answer.clientId);
    }
    // The sender tells the task when this one is written: its done message may wait for that.
    const bool createsTask = answer.row.answer == KELM_MESSAGE_INFER_TASK_RSP;
    const uint64_t createdTaskId = createsTask ? answer.id : 0;
    ClientSender* const sender = m_senders.getDedicatedThreadPool(answer.clientId);
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

// The request names no client yet: the answer is the new client's first message.
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
    ClientSender* const sender = m_senders.find(clientId);
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
    enqueueAnswer<Asked, Told>(
        std::move(request), sizes.id, error,
        [sizes](const Asked& /*request*/, Told& response) { fillGraphSizes(sizes, response); });
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
    sendResponse(m_senders.getDedicatedThreadPool(clientId), clientId, -1, std::move(message), 0);
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
    // The record stays, since the client manager waits for the end of this very task.
    KelmClient* const client = task.getClient();
    if (client != nullptr && client->isRunning()) return client;
    LOG_STEP("abort send task done message to unregistered client(id:%lu)", clientId);
    return nullptr;
}

MessagePtr ResultDispatcher::makeTaskDoneMessage(KelmTask& task, KelmClient& client,
                                                 KelmError error) {
    const KelmMsgReqInferTask& request = task.getCreateTaskRequest();
    const uint64_t clientId = task.getClientId();
    if (!takesEvents(client)) {
        MessagePtr message = allocateAnswer(KELM_MESSAGE_TASK_DONE_MSG, "KelmMsgRspTaskDone");
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
    MessagePtr message = allocateAnswer(KELM_MESSAGE_TASK_DONE_EVT, "KelmMsgEvtTaskDone");
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

// Only queues. The job of an unregister answer and that of a create answer go on with what waits
// for the answer to be out.
void ResultDispatcher::sendResponse(ClientSender* sender, uint64_t clientId, int socket,
                                    MessagePtr message, uint64_t createdTaskId) {
    if (sender == nullptr) {
        sendWithoutPool(clientId, socket, std::move(message));
        return;
    }
    const uint64_t bytes = message->size;
    // `sender` stays: only this thread takes one out, and it is destroyed after its last job.
    const bool isLight = createdTaskId != 0 || isTaskDone(message->type);
    sender->post(bytes, isLight, [this, sender, createdTaskId, message = std::move(message)] {
        sender->write(*message);
        if (message->type == KELM_MESSAGE_UNREGISTER_RSP) finishUnregister(*sender);
        if (createdTaskId != 0) notifySendCreateTaskReponseDone(*sender, createdTaskId);
    });
}

void ResultDispatcher::sendWithoutPool(uint64_t clientId, int socket, MessagePtr message) {
    ClientManager& clients = ClientManager::instance();
    const auto connection = IPC::ConnectionBase::findConnection(socket);
    const bool connected = connection && connection->connected() && !m_senders.isStopped();
    // A client of that connection has a thread of its own to wait for the peer.
    ClientSender* const sender =
        connected ? m_senders.getDedicatedThreadPool(clients.getClientIdBySocket(socket)) : nullptr;
    if (sender != nullptr) {
        const uint64_t bytes = message->size;
        sender->post(bytes, false,
                     [sender, message = std::move(message)] { sender->write(*message); });
    } else if (connected) {
        m_strangers.post(connection, std::move(message));
    } else {
        const MessageTag tag(*message);
        if (clientId != 0) {
            LOG_STEP("abort send%s for closed client(id:%lu)", tag.text(), clientId);
        } else {
            LOG_STEP("Error: send%s through socket(%d) failed, ret=%s", tag.text(), socket,
                     "not connected");
        }
        tag.finishTaskLifeTrace();
        // The client's record may still wait for this word, without which it would never end.
        if (tag.type == KELM_MESSAGE_UNREGISTER_RSP) clients.enqueueNotifyUnregRspSent(clientId);
    }
}

void ResultDispatcher::finishUnregister(ClientSender& sender) {
    sender.flush();
    ClientManager::instance().enqueueNotifyUnregRspSent(sender.getClientId());
}

void ResultDispatcher::notifySendCreateTaskReponseDone(ClientSender& sender, uint64_t taskId) {
    KelmTask* task = nullptr;
    const MessagePtr held = TaskManager::instance().notifyCreateResponseSent(taskId, task);
    if (!held) return;
    LOG_STEP("Found cached task done response with taskId(%lu), send it!", taskId);
    sender.write(*held);
    m_finishedTasks.update();
    destroyTask(task);
}

void ResultDispatcher::destroyTask(KelmTask* task) {
    TaskManager::instance().enqueueDestroyTask(task);
}

void ResultDispatcher::enqueueFinishSender(uint64_t clientId) {
    m_mainPool.postNotice([this, clientId] {
        m_onMainPool.assertHeld();
        finishSender(clientId);
    });
}

// In the sender's own queue, behind every message that this thread has handed to it: the report
// says that these are written.
void ResultDispatcher::finishSender(uint64_t clientId) {
    const auto notify = [clientId] {
        ClientManager::instance().enqueueNotifyAnswersSent(clientId);
    };
    ClientSender* const sender = m_senders.find(clientId);
    if (sender == nullptr) return notify();
    sender->postNotice([sender, notify] {
        sender->end();
        notify();
    });
}

void ResultDispatcher::enqueueRemoveDedicatedThreadPool(uint64_t clientId) {
    m_mainPool.postNotice([this, clientId] {
        m_onMainPool.assertHeld();
        removeDedicatedThreadPool(clientId);
    });
}

void ResultDispatcher::removeDedicatedThreadPool(uint64_t clientId) {
    ClientSender* const sender = m_senders.retire(clientId);
    if (sender == nullptr) return;
    // Destroying a pool waits for its jobs, and the last one here may wait for the peer of a
    // connection that another client shares. This thread builds the messages of all clients: so it
    // destroys the pool only after the pool's last job has said that it is the last.
    sender->postNotice([this, sender] {
        sender->flush();
        m_mainPool.postOwn([this, sender] {  // it joins the sender's thread
            m_onMainPool.assertHeld();
            m_senders.destroy(sender);
        });
    });
}

void ResultDispatcher::enqueueQueryServiceFps(const std::shared_ptr<KelmStatus>& status) {
    m_mainPool.post([this, status] {
        reportStatusPart(status, "ResultDispatcher", [this](KelmStatus& record) {
            record.serviceFps = m_finishedTasks.getFps();
        });
    });
}

void ResultDispatcher::onPrintInfo() {
    LOG_INFO("%s", "ServiceFps=" + formatFixed(m_finishedTasks.getFps(), 2));
}

}  // namespace kelm

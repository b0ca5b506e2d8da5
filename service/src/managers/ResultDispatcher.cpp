#include "managers/ResultDispatcher.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "config/ServiceConfigParser.h"
#include "managers/ClientManager.h"
#include "managers/ClientSender.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/ClientConnection.h"
#include "records/KelmTask.h"
#include "reporting/InfoCollector.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/TextHelper.h"
#include "utils/Tracer.h"

namespace kelm {

namespace {

// How the logs name a message, behind "send".
std::string generateMessageTag(const KelmMsgBase& message) {
    if (message.type < KELM_MESSAGE_REQ_END) {
        const auto& response = reinterpret_cast<const KelmMsgRsp&>(message);
        return "Message(rspSeqNo=" + std::to_string(response.rspSeqNo) + ")";
    }
    if (message.type == KELM_MESSAGE_TASK_DONE_EVT || message.type == KELM_MESSAGE_PING_EVT) {
        const auto& event = reinterpret_cast<const KelmMsgEvt&>(message);
        return "Event(evtSeqNo=" + std::to_string(event.evtSeqNo) + ")";
    }
    return "";
}

// The task whose end the message tells, 0 for any other message.
uint64_t getEndedTaskId(const KelmMsgBase& message) {
    if (message.type == KELM_MESSAGE_TASK_DONE_MSG) {
        return reinterpret_cast<const KelmMsgRspTaskDone&>(message).taskId;
    }
    if (message.type == KELM_MESSAGE_TASK_DONE_EVT) {
        return reinterpret_cast<const KelmMsgEvtTaskDone&>(message).taskId;
    }
    return 0;
}

std::string errnoText() { return std::generic_category().message(errno); }

}  // namespace

ResultDispatcher::ResultDispatcher()
    : m_debugProcess(ServiceConfigParser::instance().isResultDispatcherDebugProcessEnabled()),
      m_finishedTasks("", "KelmService", "FinishedTasks"),
      m_senderPool("ResDpSend", 1, 500),
      m_mainPool("ResDp", 1, 30000) {
    const ServiceConfigParser& config = ServiceConfigParser::instance();
    m_finishedTasks.m_bufferTimeMs = config.getFpsBufferTimeLength();
    if (config.isPrintServiceFpsEnabled()) {
        Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
    }
}

ResultDispatcher::~ResultDispatcher() {
    Port<ResultSink>::disconnect();
    Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    LOG_PROC(m_debugProcess, "to destruct result dispatcher");
    stopSendResponse();
    std::map<uint64_t, std::unique_ptr<ClientSender>> pools;
    std::vector<std::unique_ptr<ClientSender>> retired;
    // On the main pool, whose running job may be using one of them.
    m_mainPool
        .enqueue([this, &pools, &retired] {
            MutexLock lock(m_dedicatedMutex);
            pools.swap(m_dedicatedThreadPools);
            retired.swap(m_retiredSenders);
        })
        .wait();
    LOG_PROC(m_debugProcess, "delete %lu dedicated thread pools", pools.size());
    pools.clear();  // each writes what is queued
    retired.clear();
    LOG_PROC(m_debugProcess, "result dispatcher destructed");
}

void ResultDispatcher::stopSendResponse() {
    MutexLock lock(m_dedicatedMutex);
    m_stopped = true;
}

bool ResultDispatcher::isStopped() {
    MutexLock lock(m_dedicatedMutex);
    return m_stopped;
}

void ResultDispatcher::sendResponse(uint64_t clientId, int socket, MessagePtr message,
                                    uint64_t createdTaskId) {
    ClientSender* sender = getDedicatedThreadPool(clientId);
    if (sender == nullptr) {
        if (createdTaskId != 0) dropHeldTaskDone(createdTaskId);
        finishTaskLifeTrace(getEndedTaskId(*message));
        sendWithoutPool(clientId, socket, std::move(message));
        return;
    }
    sender->post([this, sender, socket, createdTaskId, message = std::move(message)]() mutable {
        sendMessage(*sender, socket, std::move(message));
        if (createdTaskId != 0) notifySendCreateTaskReponseDone(*sender, createdTaskId, socket);
    });
}

void ResultDispatcher::sendWithoutPool(uint64_t clientId, int socket, MessagePtr message) {
    ClientManager& clients = ClientManager::instance();
    if (clients.getSocketByClientId(clientId) > 0) {
        // Its pool has been retired and may still be writing, which a second writer would garble.
        LOG_PROC(m_debugProcess, "abort send%s for closed client(id:%lu)",
                 generateMessageTag(*message), clientId);
        if (message->type == KELM_MESSAGE_UNREGISTER_RSP)
            clients.enqueueNotifyUnregRspSent(clientId);
        return;
    }
    if (socket <= 0 || isStopped()) return;  // no client and no connection: nobody to tell
    m_senderPool.post([this, socket, message = std::move(message)] {
        // Thousands may be left for a peer that has gone, and each failed write costs an exception.
        const auto connection = IPC::ConnectionBase::findConnection(socket);
        if (!connection || !connection->connected()) {
            LOG_PROC(m_debugProcess, "Error: send%s through socket(%d) failed, ret=%s",
                     generateMessageTag(*message), socket, "not connected");
            return;
        }
        const int result = kelmSendMessage(socket, message.get());
        if (result != 0) {
            LOG_PROC(m_debugProcess, "Error: send%s through socket(%d) failed, ret=%s",
                     generateMessageTag(*message), socket, errnoText());
        } else {
            LOG_PROC(m_debugProcess, "send%s through socket(%d) done, ret=%s",
                     generateMessageTag(*message), socket, errnoText());
        }
    });
}

void ResultDispatcher::sendMessage(ClientSender& sender, int socket, MessagePtr message) {
    const uint64_t endedTaskId = getEndedTaskId(*message);
    writeMessage(sender, socket, std::move(message));
    finishTaskLifeTrace(endedTaskId);
}

void ResultDispatcher::writeMessage(ClientSender& sender, int socket, MessagePtr message) {
    const uint64_t clientId = sender.getClientId();
    ClientManager& clients = ClientManager::instance();
    std::shared_ptr<ClientConnection> connection = clients.getConnectionByClientId(clientId);
    const bool unregisters = message->type == KELM_MESSAGE_UNREGISTER_RSP;
    if (!connection && !unregisters) {
        LOG_PROC(m_debugProcess, "abort send%s for closed client(id:%lu)",
                 generateMessageTag(*message), clientId);
        return;
    }
    const int result = connection ? sender.write(connection->getSocket(), message.get())
                                  : kelmSendMessage(socket, message.get());
    if (result != 0) {
        LOG_PROC(m_debugProcess, "send%s to client(id:%lu) failed, ret=%s",
                 generateMessageTag(*message), clientId, errnoText());
    } else {
        LOG_PROC(m_debugProcess, "send%s to client(id:%lu) done", generateMessageTag(*message),
                 clientId);
    }
    if (!unregisters) return;
    sender.flush();
    clients.enqueueNotifyUnregRspSent(clientId);
}

void ResultDispatcher::notifySendCreateTaskReponseDone(ClientSender& sender, uint64_t taskId,
                                                       int socket) {
    KelmTask* task = nullptr;
    MessagePtr held = TaskManager::instance().notifyCreateResponseSent(taskId, task);
    if (!held) return;
    sendMessage(sender, socket, std::move(held));
    LOG_PROC(m_debugProcess, "Found cached task done response with taskId(%lu), send it!", taskId);
    m_finishedTasks.update();
    destroyTask(task);
}

void ResultDispatcher::dropHeldTaskDone(uint64_t taskId) {
    KelmTask* task = nullptr;
    if (!TaskManager::instance().notifyCreateResponseSent(taskId, task)) return;
    finishTaskLifeTrace(taskId);
    destroyTask(task);
}

void ResultDispatcher::finishTaskLifeTrace(uint64_t taskId) {
    if (taskId != 0 && isTracerOn()) TaskManager::instance().finishTaskLifeTrace(taskId);
}

void ResultDispatcher::destroyTask(KelmTask* task) {
    TaskManager::instance().enqueueDestroyTask(task);
}

ClientSender* ResultDispatcher::getDedicatedThreadPool(uint64_t clientId) {
    if (clientId == 0) return nullptr;
    MutexLock lock(m_dedicatedMutex);
    const auto entry = m_dedicatedThreadPools.find(clientId);
    if (entry != m_dedicatedThreadPools.end()) return entry->second.get();
    const bool retired =
        std::any_of(m_retiredSenders.begin(), m_retiredSenders.end(),
                    [clientId](const auto& sender) { return sender->getClientId() == clientId; });
    // An id that nobody has gets no thread.
    if (m_stopped || retired || ClientManager::instance().getSocketByClientId(clientId) <= 0) {
        return nullptr;
    }
    try {
        return m_dedicatedThreadPools.emplace(clientId, std::make_unique<ClientSender>(clientId))
            .first->second.get();
    } catch (const std::system_error& error) {  // no threads left
        LOG_ERROR("Error: nothing can be sent to client(id:%lu): %s", clientId, error.what());
        return nullptr;
    }
}

void ResultDispatcher::enqueueRemoveDedicatedThreadPool(uint64_t clientId) {
    m_mainPool.postNotice([this, clientId] {
        m_onMainPool.assertHeld();
        removeDedicatedThreadPool(clientId);
    });
}

void ResultDispatcher::removeDedicatedThreadPool(uint64_t clientId) {
    ClientSender* sender = nullptr;
    {
        MutexLock lock(m_dedicatedMutex);
        const auto entry = m_dedicatedThreadPools.find(clientId);
        if (entry == m_dedicatedThreadPools.end()) return;
        sender = entry->second.get();
        m_retiredSenders.push_back(std::move(entry->second));
        m_dedicatedThreadPools.erase(entry);
    }
    // A client that does not read must not hold up this thread, so the pool ends itself: its last
    // job asks for the deletion, which then has only to join an idle thread.
    sender->postNotice([this, sender] {
        sender->flush();
        m_mainPool.postNotice([this, sender] {
            m_onMainPool.assertHeld();
            deleteRetiredSender(sender);
        });
    });
}

void ResultDispatcher::deleteRetiredSender(const ClientSender* sender) {
    std::unique_ptr<ClientSender> ended;  // first, so that it goes after the lock
    MutexLock lock(m_dedicatedMutex);
    const auto entry =
        std::find_if(m_retiredSenders.begin(), m_retiredSenders.end(),
                     [sender](const auto& retired) { return retired.get() == sender; });
    if (entry == m_retiredSenders.end()) return;
    ended = std::move(*entry);
    m_retiredSenders.erase(entry);
}

void ResultDispatcher::onPrintInfo() { printServiceFps(); }

void ResultDispatcher::printServiceFps() {
    LOG_INFO("%s", "ServiceFps=" + formatFixed(m_finishedTasks.getFps(), 2));
}

}  // namespace kelm

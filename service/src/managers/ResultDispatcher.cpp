#include "managers/ResultDispatcher.h"

#include <malloc.h>

#include <algorithm>
#include <system_error>

#include "config/ServiceConfigParser.h"
#include "managers/ClientManager.h"
#include "managers/ClientSender.h"
#include "managers/MessageTag.h"
#include "managers/TaskManager.h"
#include "records/ClientConnection.h"
#include "records/KelmTask.h"
#include "reporting/InfoCollector.h"
#include "reporting/ReportPart.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

ResultDispatcher::ResultDispatcher()
    : m_trace(ServiceConfigParser::instance().isResultDispatcherDebugProcessEnabled()),
      m_finishedTasks("", "KelmService", "FinishedTasks"),
      m_strangers(m_trace),
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
    LOG_STEP("to destruct result dispatcher");
    stopSendResponse();
    std::map<uint64_t, std::unique_ptr<ClientSender>> pools;
    std::vector<std::unique_ptr<ClientSender>> retired;
    // By a job of the main pool, since a running job may still be using one of the senders.
    m_mainPool
        .enqueue([this, &pools, &retired] {
            MutexLock lock(m_dedicatedMutex);
            pools.swap(m_dedicatedThreadPools);
            retired.swap(m_retiredSenders);
        })
        .wait();
    LOG_STEP("delete %lu dedicated thread pools", pools.size());
    pools.clear();  // each writes what is queued
    retired.clear();
    LOG_STEP("result dispatcher destructed");
}

void ResultDispatcher::stopSendResponse() {
    MutexLock lock(m_dedicatedMutex);
    m_stopped = true;
}

bool ResultDispatcher::isStopped() {
    MutexLock lock(m_dedicatedMutex);
    return m_stopped;
}

void ResultDispatcher::sendResponse(ClientSender* sender, uint64_t clientId, int socket,
                                    MessagePtr message, uint64_t createdTaskId) {
    if (sender == nullptr) {
        sendWithoutPool(clientId, socket, std::move(message));
        return;
    }
    const uint64_t bytes = message->size;
    // `sender` stays: only this thread takes one out, and it is destroyed after its last job.
    sender->post(bytes, [this, sender, createdTaskId, message = std::move(message)] {
        sender->write(*message);
        if (message->type == KELM_MESSAGE_UNREGISTER_RSP) finishUnregister(*sender);
        if (createdTaskId != 0) notifySendCreateTaskReponseDone(*sender, createdTaskId);
    });
}

void ResultDispatcher::sendWithoutPool(uint64_t clientId, int socket, MessagePtr message) {
    ClientManager& clients = ClientManager::instance();
    const auto connection = IPC::ConnectionBase::findConnection(socket);
    const bool connected = connection && connection->connected() && !isStopped();
    // A client of that connection has a thread of its own to wait for the peer.
    ClientSender* const sender =
        connected ? getDedicatedThreadPool(clients.getClientIdBySocket(socket)) : nullptr;
    if (sender != nullptr) {
        const uint64_t bytes = message->size;
        sender->post(bytes, [sender, message = std::move(message)] { sender->write(*message); });
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

ClientSender* ResultDispatcher::getDedicatedThreadPool(uint64_t clientId) {
    if (clientId == 0) return nullptr;
    ClientManager& clients = ClientManager::instance();
    std::shared_ptr<ClientConnection> connection;
    try {
        MutexLock lock(m_dedicatedMutex);
        const auto entry = m_dedicatedThreadPools.find(clientId);
        if (entry != m_dedicatedThreadPools.end()) return entry->second.get();
        // No thread for an id without a client, nor for a peer that has hung up: a hostile peer
        // could have threads made at will.
        connection = clients.getConnectionByClientId(clientId);
        if (m_stopped || !connection || !connection->isConnected()) return nullptr;
        const int socket = connection->getSocket();
        auto sender =
            std::make_unique<ClientSender>(clientId, socket, m_trace, findBacklogUnsafe(socket));
        return m_dedicatedThreadPools.emplace(clientId, std::move(sender)).first->second.get();
    } catch (const std::system_error& error) {
        LOG_ERROR(
            "Error: no thread for the answers to client(id:%lu), its connection is closed: %s",
            clientId, error.what());
    }
    // After the mutex: the client manager has one of its own. The peer would wait without limit for
    // answers that have no thread.
    clients.closeClient(connection->getSocket());
    return nullptr;
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
    ClientSender* const sender = findSender(clientId);
    if (sender == nullptr) return notify();
    sender->postNotice([sender, notify] {
        sender->end();
        notify();
    });
}

// The pointer stays good on this thread, which alone takes senders out of the map.
ClientSender* ResultDispatcher::findSender(uint64_t clientId) {
    MutexLock lock(m_dedicatedMutex);
    const auto entry = m_dedicatedThreadPools.find(clientId);
    return entry != m_dedicatedThreadPools.end() ? entry->second.get() : nullptr;
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
    // Destroying a pool waits for its jobs, and the last one here may wait for the peer of a
    // connection that another client shares. This thread builds the messages of all clients: so it
    // destroys the pool only after the pool's last job has said that it is the last.
    sender->postNotice([this, sender] {
        sender->flush();
        m_mainPool.postNotice([this, sender] {
            m_onMainPool.assertHeld();
            deleteRetiredSender(sender);
        });
    });
}

void ResultDispatcher::deleteRetiredSender(const ClientSender* sender) {
    std::unique_ptr<ClientSender> ended;
    {
        MutexLock lock(m_dedicatedMutex);
        const auto entry =
            std::find_if(m_retiredSenders.begin(), m_retiredSenders.end(),
                         [sender](const auto& retired) { return retired.get() == sender; });
        if (entry == m_retiredSenders.end()) return;
        ended = std::move(*entry);
        m_retiredSenders.erase(entry);
    }
    const bool wasLarge = ended->getBacklog()->wasLarge();
    ended.reset();  // without the mutex: joins the thread
    // The heaps would keep the megabytes of a client that did not read.
    if (wasLarge) (void)::malloc_trim(0);
}

// Retired senders count: what they have not written yet is memory of the same connection.
std::shared_ptr<Backlog> ResultDispatcher::findBacklogUnsafe(int socket) const {
    for (const auto& [clientId, sender] : m_dedicatedThreadPools) {
        if (sender->getSocket() == socket) return sender->getBacklog();
    }
    for (const auto& sender : m_retiredSenders) {
        if (sender->getSocket() == socket) return sender->getBacklog();
    }
    return nullptr;
}

void ResultDispatcher::enqueueQueryServiceFps(const std::shared_ptr<KelmStatus>& status) {
    m_mainPool.post([this, status] { queryServiceFps(status); });
}

void ResultDispatcher::queryServiceFps(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, "ResultDispatcher",
                     [this](KelmStatus& record) { record.serviceFps = m_finishedTasks.getFps(); });
}

void ResultDispatcher::onPrintInfo() { printServiceFps(); }

void ResultDispatcher::printServiceFps() {
    LOG_INFO("%s", "ServiceFps=" + formatFixed(m_finishedTasks.getFps(), 2));
}

}  // namespace kelm

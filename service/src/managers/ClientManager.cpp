#include "managers/ClientManager.h"

#include "config/ServiceConfigParser.h"
#include "managers/ClientReport.h"
#include "managers/GraphManager.h"
#include "managers/MessageDispatcher.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/ClientConnection.h"
#include "records/KelmClient.h"
#include "records/Request.h"
#include "reporting/EventListener.h"
#include "reporting/InfoCollector.h"
#include "reporting/PopulationListener.h"
#include "reporting/ReportPart.h"
#include "reporting/ServiceEvent.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

void tellClient(EventAction action, uint64_t clientId, std::string_view name) {
    ServiceEvent event;
    event.action = action;
    event.clientId = clientId;
    event.client = makeEventName(name);
    Port<EventListener>::notify<&EventListener::record>(event);
}

}  // namespace

ClientManager::ClientManager()
    : m_printClientFps(ServiceConfigParser::instance().isPrintClientFpsEnabled()),
      m_snapshot(ServiceConfigParser::instance().getClientSnapshotMode() == "base"),
      m_trace(ServiceConfigParser::instance().isClientManagerDebugProcessEnabled()),
      m_pool("CltMgr", 100) {
    if (m_printClientFps || m_snapshot) {
        Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
    }
}

ClientManager::~ClientManager() {
    Port<ClientDirectory>::disconnect();
    LOG_STEP("to destruct client manager");
    Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    // Records that are left close their connections with them.
    MutexLock lock(m_mutex);
    LOG_STEP("destroy all active clients(count=%lu)", m_idClientMap.size());
    m_socketClientMap.clear();
    m_idClientMap.clear();
    LOG_STEP("client manager destructed");
}

void ClientManager::enqueueRegisterClient(Request request) {
    const int socket = request.getSocket();
    // Found here and held by the job: by the time that runs, the number may be another
    // connection's.
    ConnectionPtr connection;
    if (socket <= 0) {
        LOG_ERROR("Error: invalid connect socket (%d)", socket);
    } else {
        connection = IPC::ConnectionBase::findConnection(socket);
    }
    // The peer has hung up already: no answer could reach it.
    if (!connection) return;
    m_pool.post([this, request = std::move(request), connection = std::move(connection)]() mutable {
        m_onPool.assertHeld();
        registerClient(std::move(request), connection);
    });
}

void ClientManager::registerClient(Request request, const ConnectionPtr& connection) {
    const auto& record = request.as<KelmMsgReqRegister>();
    const char* const name = record.clientName;
    const int socket = connection->getSimulateFD();
    LOG_STEP("register client: clientName=%s apiMajorVersion=%u apiMinorVersion=%lu socket=%d",
             escapeControls(name), record.apiMajorVersion, record.apiMinorVersion, socket);
    const uint64_t clientId =
        addClient(name, record.apiMajorVersion, record.apiMinorVersion, connection);
    if (clientId == 0) {  // closed, so that the peer does not wait for the answer
        closeClient(socket);
        return;
    }
    LOG_INFO("client(id:%lu) registered: clientName=%s socket=%d", clientId, escapeControls(name),
             socket);
    if (const auto& peer = connection->getPeer()) {
        LOG_INFO("client(id:%lu) is of process %d, user %u", clientId, peer->pid, peer->user);
    }
    tellClient(EventAction::Registered, clientId, name);
    LOG_STEP("enqueueSendRegisterResponse: clientId=%lu socket=%d", clientId, socket);
    ResultDispatcher::instance().enqueueSendRegisterResponse(clientId, KELM_OK, std::move(request));
}

uint64_t ClientManager::addClient(const char* name, uint16_t major, uint16_t minor,
                                  const ConnectionPtr& connection) {
    MutexLock lock(m_mutex);
    // closeClient() closes a connection without a record under the same mutex, so that a record
    // never stands for a peer whose hang-up has been seen already.
    std::shared_ptr<ClientConnection> shared = shareConnectionUnsafe(connection);
    if (m_closed || !shared->isConnected()) return 0;
    if (!shared->addRegistration()) {
        LOG_ERROR("Error: socket(%d) is closed: no more than %d clients register on one connection",
                  connection->getSimulateFD(), ClientConnection::kMaxRegistrations);
        return 0;
    }
    // Deliberate: a second registration on a connection is a second client, as clients rely on.
    const uint64_t clientId = m_nextClientId++;
    auto client = std::make_unique<KelmClient>(clientId, name, std::move(shared), major, minor);
    m_socketClientMap[connection->getSimulateFD()] = client.get();
    m_idClientMap.emplace(clientId, std::move(client));
    Port<PopulationListener>::notify<&PopulationListener::addClients>(1);
    return clientId;
}

// One object for all clients of a connection: it closes with the last of them, and counts them.
std::shared_ptr<ClientConnection> ClientManager::shareConnectionUnsafe(
    const ConnectionPtr& connection) {
    const auto entry = m_socketClientMap.find(connection->getSimulateFD());
    if (entry != m_socketClientMap.end()) return entry->second->getConnection();
    return std::make_shared<ClientConnection>(connection);
}

void ClientManager::enqueueUnregisterClient(Request request) {
    m_pool.post([this, request = std::move(request)]() mutable {
        m_onPool.assertHeld();
        unregisterClient(std::move(request));
    });
}

void ClientManager::unregisterClient(Request request) {
    const uint64_t clientId = request.getClientId();
    const int socket = request.getSocket();
    LOG_STEP("unregister client: clientId=%lu socket=%d", clientId, socket);
    std::string name;
    bool found = false;
    bool departs = false;
    {
        MutexLock lock(m_mutex);
        if (KelmClient* client = getClientForUnsafe(request)) {
            found = true;
            departs = startDepartureUnsafe(*client, false);
            name = client->getName();
        }
    }
    ResultDispatcher& results = ResultDispatcher::instance();
    if (!found) {
        LOG_ERROR("Error: invalid clientId %lu", clientId);
        results.enqueueSendUnregisterResponse(KELM_ERROR_INVALID_CLIENT, std::move(request));
        return;
    }
    // A second request finds a client that departs already, and is answered like the first.
    if (departs) notifyClientInDestroy(clientId);
    results.enqueueSendUnregisterResponse(KELM_OK, std::move(request));
    LOG_INFO("client(id:%lu) unregistered: clientName=%s socket=%d", clientId, escapeControls(name),
             socket);
}

// GraphManager and TaskManager are told after the mutex is released, here and below: their notices
// lead back to this class.
void ClientManager::closeClient(int socket) {
    LOG_STEP("close client with socket(%d)", socket);
    std::vector<uint64_t> departing;
    {
        MutexLock lock(m_mutex);
        const auto entry = m_socketClientMap.find(socket);
        if (entry == m_socketClientMap.end()) {
            LOG_STEP("no client found with socket(%d)", socket);
            IPC::ConnectionBase::close(socket);
            return;
        }
        departing = dropConnectionUnsafe(entry->second->getConnection());
    }
    for (const uint64_t clientId : departing) notifyClientInDestroy(clientId);
}

void ClientManager::removeAllClients() {
    std::vector<uint64_t> departing;
    {
        MutexLock lock(m_mutex);
        LOG_STEP("remove all %lu clients", m_idClientMap.size());
        m_closed = true;
        for (const auto& [clientId, client] : m_idClientMap) {
            if (startDepartureUnsafe(*client, true)) departing.push_back(clientId);
        }
    }
    for (const uint64_t clientId : departing) notifyClientInDestroy(clientId);
}

// The client makes no task from here on, so that the task manager's count of them is final.
bool ClientManager::startDepartureUnsafe(KelmClient& client, bool unregRspSent) {
    client.setRunningState(false);
    const bool fresh = m_departures.start(client.getId(), unregRspSent);
    // It may have waited only for answers that are not wanted any more. By a job, since the callers
    // walk through the records.
    if (!fresh && unregRspSent) enqueueNotifyAnswered(client.getId());
    return fresh;
}

// The records stay until their tasks have ended: devices may still write into the buffers of these.
std::vector<uint64_t> ClientManager::dropConnectionUnsafe(
    const std::shared_ptr<ClientConnection>& connection) {
    connection->shutdown();  // ends the write of a sender that waits for the peer
    std::vector<uint64_t> departing;
    for (const auto& [clientId, client] : m_idClientMap) {
        if (client->getConnection() != connection) continue;
        if (startDepartureUnsafe(*client, true)) departing.push_back(clientId);
    }
    return departing;
}

// Both only queue. The task manager reports the end of the last task, which may be at once; the
// graph manager reports nothing, since a graph does not keep the client's record.
void ClientManager::notifyClientInDestroy(uint64_t clientId) {
    LOG_STEP("notify client(%lu) which is in destroy", clientId);
    // Before the notices, the last of which may end the record.
    tellClient(EventAction::Departed, clientId, getClientName(clientId).value_or(""));
    GraphManager::instance().enqueueNotifyClientInDestroy(clientId);
    TaskManager::instance().enqueueNotifyClientInDestroy(clientId);
}

void ClientManager::enqueueNotifyAllTasksDone(uint64_t clientId) {
    m_pool.postNotice([this, clientId] {
        MutexLock lock(m_mutex);
        if (m_departures.noteAllTasksDone(clientId)) endClientUnsafe(clientId);
    });
}

void ClientManager::keepUntilAnswered(Request& request) {
    const uint64_t clientId = request.getClientId();
    MutexLock lock(m_mutex);
    KelmClient* client = getClientForUnsafe(request);
    if (client == nullptr || !client->isRunning()) return;
    // One count for each request; the token's end, wherever the request ends, lowers it.
    m_departures.keep(clientId);
    // Through the port: a request may be destroyed later than this object.
    request.keep({this, [clientId](const void*) {
                      Port<ClientDirectory>::notify<&ClientDirectory::enqueueNotifyAnswered>(
                          clientId);
                  }});
}

void ClientManager::enqueueNotifyAnswered(uint64_t clientId) {
    m_pool.postNotice([this, clientId] {
        MutexLock lock(m_mutex);
        if (m_departures.noteAnswered(clientId)) endClientUnsafe(clientId);
    });
}

void ClientManager::enqueueNotifyUnregRspSent(uint64_t clientId) {
    m_pool.postNotice([this, clientId] {
        MutexLock lock(m_mutex);
        if (m_departures.noteUnregRspSent(clientId)) endClientUnsafe(clientId);
    });
}

void ClientManager::endClientUnsafe(uint64_t clientId) {
    if (m_finished) {
        cleanClientUnsafe(clientId);
    } else {
        // The connection closes with the record: answers that are still queued are written first.
        ResultDispatcher::instance().enqueueFinishSender(clientId);
    }
}

void ClientManager::enqueueNotifyAnswersSent(uint64_t clientId) {
    m_pool.postNotice([this, clientId] {
        MutexLock lock(m_mutex);
        cleanClientUnsafe(clientId);
    });
}

// Nothing refers to the record any more: no task, no answer under way, no name on a connection.
void ClientManager::cleanClientUnsafe(uint64_t clientId) {
    m_departures.finish(clientId);
    const auto client = m_idClientMap.find(clientId);
    if (client == m_idClientMap.end()) return;
    removeSocketEntryUnsafe(*client->second);
    m_idClientMap.erase(client);
    Port<PopulationListener>::notify<&PopulationListener::addClients>(-1);
    if (m_finished) return;
    ResultDispatcher::instance().enqueueRemoveDedicatedThreadPool(clientId);
    if (!m_idClientMap.empty()) return;
    m_zeroClientCond.notifyAll();
    MessageDispatcher::instance().getNotifiedOfZeroClient();
}

void ClientManager::removeSocketEntryUnsafe(const KelmClient& client) {
    const auto entry = m_socketClientMap.find(client.getSocket());
    if (entry == m_socketClientMap.end() || entry->second != &client) return;
    m_socketClientMap.erase(entry);
    // Another record of the connection takes its place, or a hang-up would find none to end.
    for (const auto& [clientId, other] : m_idClientMap) {
        if (other.get() != &client && other->getConnection() == client.getConnection()) {
            m_socketClientMap[client.getSocket()] = other.get();
        }
    }
}

bool ClientManager::finish(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    MutexLock lock(m_mutex);
    while (!m_idClientMap.empty()) {
        if (!m_zeroClientCond.waitUntil(m_mutex, deadline)) break;
    }
    // A record that ends later, because a device comes back late, is deleted without a word to
    // other managers.
    m_finished = true;  // from here on the other managers may be destroyed
    const bool empty = m_idClientMap.empty();
    lock.unlock();  // the pool's jobs take it
    return m_pool.waitIdleFor(timeUntil(deadline)) && empty;
}

// False for a client that departs, too: the callers begin something for it.
bool ClientManager::verifyClient(uint64_t clientId) {
    if (clientId == 0) return false;
    MutexLock lock(m_mutex);
    KelmClient* client = getClientByIdUnsafe(clientId);
    return client != nullptr && client->isRunning();
}

bool ClientManager::verifyRequester(const Request& request) {
    return findRequester(request) != nullptr;
}

KelmClient* ClientManager::findRequester(const Request& request) {
    if (request.getClientId() == 0) return nullptr;
    MutexLock lock(m_mutex);
    KelmClient* client = getClientForUnsafe(request);
    return client != nullptr && client->isRunning() ? client : nullptr;
}

// Both look-ups under one lock: between two, the id could be given out.
bool ClientManager::isOfAnotherUser(const Request& request) {
    MutexLock lock(m_mutex);
    return getClientByIdUnsafe(request.getClientId()) != nullptr &&
           getClientForUnsafe(request) == nullptr;
}

KelmClient* ClientManager::getClientForUnsafe(const Request& request) {
    KelmClient* client = getClientByIdUnsafe(request.getClientId());
    if (client == nullptr) return nullptr;
    // By user, not by connection: a process may send requests of a client over another connection.
    const auto sender = kelmGetPeer(*request.getMessage());
    // A client without a known owner can be named by no request.
    const auto& owner = client->getConnection()->getPeer();
    return owner && owner->user == sender->user ? client : nullptr;
}

KelmClient* ClientManager::getClientById(uint64_t clientId) {
    MutexLock lock(m_mutex);
    return getClientByIdUnsafe(clientId);
}

KelmClient* ClientManager::getClientByIdUnsafe(uint64_t clientId) {
    const auto client = m_idClientMap.find(clientId);
    return client != m_idClientMap.end() ? client->second.get() : nullptr;
}

std::optional<std::string> ClientManager::getClientName(uint64_t clientId) {
    MutexLock lock(m_mutex);
    if (KelmClient* client = getClientByIdUnsafe(clientId)) return client->getName();
    return std::nullopt;
}

int ClientManager::getSocketByClientId(uint64_t clientId) {
    MutexLock lock(m_mutex);
    KelmClient* client = getClientByIdUnsafe(clientId);
    return client != nullptr ? client->getSocket() : -1;
}

uint64_t ClientManager::getClientIdBySocket(int socket) {
    MutexLock lock(m_mutex);
    const auto entry = m_socketClientMap.find(socket);
    return entry != m_socketClientMap.end() ? entry->second->getId() : 0;
}

std::shared_ptr<ClientConnection> ClientManager::getConnectionByClientId(uint64_t clientId) {
    MutexLock lock(m_mutex);
    KelmClient* client = getClientByIdUnsafe(clientId);
    return client != nullptr ? client->getConnection() : nullptr;
}

bool ClientManager::isActive() {
    MutexLock lock(m_mutex);
    return !m_idClientMap.empty();
}

void ClientManager::onPrintInfo() {
    MutexLock lock(m_mutex);  // both prints tell of the same clients
    if (m_printClientFps) printClientFps(m_idClientMap);
    if (m_snapshot) printClientSnapshot(m_idClientMap);
}

void ClientManager::enqueueQueryClientStatus(const std::shared_ptr<KelmStatus>& status) {
    m_pool.post([this, status] {
        reportStatusPart(status, "ClientManager", [this](KelmStatus& record) {
            MutexLock lock(m_mutex);
            fillClientStatus(m_idClientMap, record);
        });
    });
}

// A notice: the collecting thread waits for this part, so a full queue must not delay it.
void ClientManager::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_pool.postNotice([this, package] {
        reportPackagePart("ClientManager", [this, package] {
            MutexLock lock(m_mutex);
            fillClientRows(m_idClientMap, *package);
        });
    });
}

}  // namespace kelm

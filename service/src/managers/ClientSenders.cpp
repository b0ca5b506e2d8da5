#include "managers/ClientSenders.h"

#include <malloc.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

#include "managers/ClientManager.h"
#include "managers/ClientSender.h"
#include "records/ClientConnection.h"
#include "utils/Log.h"

namespace kelm {

ClientSenders::ClientSenders(StepTrace trace) : m_trace(std::move(trace)) {}
ClientSenders::~ClientSenders() = default;

ClientSender* ClientSenders::getDedicatedThreadPool(uint64_t clientId) {
    try {
        return requireSender(clientId);
    } catch (const std::system_error&) {
        // The peer would wait without limit for answers that have no thread.
        ClientManager& clients = ClientManager::instance();
        const auto connection = clients.getConnectionByClientId(clientId);
        if (connection) clients.closeClient(connection->getSocket());
        return nullptr;
    }
}

ClientSender* ClientSenders::requireSender(uint64_t clientId) {
    if (clientId == 0) return nullptr;
    MutexLock lock(m_dedicatedMutex);
    const auto entry = m_dedicatedThreadPools.find(clientId);
    if (entry != m_dedicatedThreadPools.end()) return entry->second.get();
    // No thread for an id without a client, nor for a peer that has hung up: a hostile peer could
    // have threads made at will.
    const auto connection = ClientManager::instance().getConnectionByClientId(clientId);
    if (m_stopped || !connection || !connection->isConnected()) return nullptr;
    const int socket = connection->getSocket();
    try {
        auto sender =
            std::make_unique<ClientSender>(clientId, socket, m_trace, findBacklogUnsafe(socket));
        return m_dedicatedThreadPools.emplace(clientId, std::move(sender)).first->second.get();
    } catch (const std::system_error& error) {
        LOG_ERROR(
            "Error: no thread for the answers to client(id:%lu), its connection is closed: %s",
            clientId, error.what());
        throw;
    }
}

ClientSender* ClientSenders::find(uint64_t clientId) {
    MutexLock lock(m_dedicatedMutex);
    const auto entry = m_dedicatedThreadPools.find(clientId);
    return entry != m_dedicatedThreadPools.end() ? entry->second.get() : nullptr;
}

// Only moved: its thread goes on writing what is queued, and must not be joined here.
ClientSender* ClientSenders::retire(uint64_t clientId) {
    MutexLock lock(m_dedicatedMutex);
    auto taken = m_dedicatedThreadPools.extract(clientId);
    if (taken.empty()) return nullptr;
    return m_retiredSenders.emplace_back(std::move(taken.mapped())).get();
}

void ClientSenders::destroy(const ClientSender* retired) {
    std::unique_ptr<ClientSender> ended;
    {
        MutexLock lock(m_dedicatedMutex);
        const auto entry =
            std::find_if(m_retiredSenders.begin(), m_retiredSenders.end(),
                         [retired](const auto& sender) { return sender.get() == retired; });
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
std::shared_ptr<Backlog> ClientSenders::findBacklogUnsafe(int socket) const {
    for (const auto& [clientId, sender] : m_dedicatedThreadPools) {
        if (sender->getSocket() == socket) return sender->getBacklog();
    }
    for (const auto& sender : m_retiredSenders) {
        if (sender->getSocket() == socket) return sender->getBacklog();
    }
    return nullptr;
}

void ClientSenders::stop() {
    MutexLock lock(m_dedicatedMutex);
    m_stopped = true;
}

bool ClientSenders::isStopped() {
    MutexLock lock(m_dedicatedMutex);
    return m_stopped;
}

std::vector<std::unique_ptr<ClientSender>> ClientSenders::takeAll() {
    MutexLock lock(m_dedicatedMutex);
    std::vector<std::unique_ptr<ClientSender>> all = std::exchange(m_retiredSenders, {});
    for (auto& [clientId, sender] : m_dedicatedThreadPools) all.push_back(std::move(sender));
    m_dedicatedThreadPools.clear();
    return all;
}

}  // namespace kelm

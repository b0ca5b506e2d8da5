#pragma once

#include "records/ClientDirectory.h"
#include "records/KelmClient.h"
#include "records/Request.h"
#include "utils/Mutex.h"

namespace kelm {

// Clients without connections. Any thread.
class FakeClientDirectory final : public ClientDirectory {
 public:
    KelmClient* add(uint64_t clientId, const std::string& name) {
        MutexLock lock(m_mutex);
        auto& client = m_clients[clientId];
        client = std::make_unique<KelmClient>(clientId, name, nullptr, 2, 0);
        return client.get();
    }
    // The client is no longer found; its record lives on.
    void hide(uint64_t clientId) {
        MutexLock lock(m_mutex);
        m_hidden.insert(m_clients.extract(clientId));
    }
    // Runs once, on the caller's thread, at the next search for a client.
    void onNextSearch(std::function<void()> hook) {
        MutexLock lock(m_mutex);
        m_hook = std::move(hook);
    }

    bool verifyClient(uint64_t clientId) override {
        KelmClient* const client = getClientById(clientId);
        return client != nullptr && client->isRunning();
    }
    bool verifyRequester(const Request& request) override {
        return verifyClient(request.getClientId());
    }
    KelmClient* getClientById(uint64_t clientId) override {
        if (const auto hook = takeHook()) hook();
        MutexLock lock(m_mutex);
        const auto entry = m_clients.find(clientId);
        return entry != m_clients.end() ? entry->second.get() : nullptr;
    }
    std::optional<std::string> getClientName(uint64_t clientId) override {
        const KelmClient* const client = getClientById(clientId);
        return client != nullptr ? std::optional(client->getName()) : std::nullopt;
    }
    void enqueueNotifyAnswered(uint64_t /*clientId*/) override {}

 private:
    using Clients = std::map<uint64_t, std::unique_ptr<KelmClient>>;

    std::function<void()> takeHook() {
        MutexLock lock(m_mutex);
        return std::exchange(m_hook, nullptr);
    }

    Mutex m_mutex;
    Clients m_clients GUARDED_BY(m_mutex);
    Clients m_hidden GUARDED_BY(m_mutex);
    std::function<void()> m_hook GUARDED_BY(m_mutex);
};

}  // namespace kelm

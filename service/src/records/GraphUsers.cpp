#include "records/GraphUsers.h"

#include <optional>
#include <utility>

#include "records/ClientDirectory.h"
#include "utils/Port.h"

namespace kelm {

namespace {

const char* orUnnamed(const char* name) { return name != nullptr ? name : "unnamed"; }

}  // namespace

GraphUsers::GraphUsers(uint64_t clientId, const char* name)
    : m_name(orUnnamed(name)), m_users{{clientId, m_name}} {}

std::string GraphUsers::getName() {
    MutexLock lock(m_mutex);
    return m_name;
}

void GraphUsers::appendName(uint64_t clientId, const char* name) {
    MutexLock lock(m_mutex);
    m_users[clientId] = orUnnamed(name);
}

// The graph's name stays as it was until spliceGraphName().
bool GraphUsers::removeUser(uint64_t clientId) {
    MutexLock lock(m_mutex);
    return m_users.erase(clientId) > 0;
}

bool GraphUsers::isRunning() {
    MutexLock lock(m_mutex);
    return !m_users.empty();
}

std::vector<std::string> GraphUsers::getClientNames() {
    std::vector<uint64_t> clientIds;
    {
        MutexLock lock(m_mutex);
        for (const auto& user : m_users) clientIds.push_back(user.first);
    }
    // Without the mutex, which is a leaf: the directory takes one of its own.
    std::vector<std::string> names;
    for (const uint64_t clientId : clientIds) {
        auto name = Port<ClientDirectory>::ask<&ClientDirectory::getClientName>(
            std::optional<std::string>{}, clientId);
        if (name) names.push_back(std::move(*name));
    }
    return names;
}

// Each user has a name for the graph; reports show them all.
void GraphUsers::spliceGraphName() {
    MutexLock lock(m_mutex);
    if (m_users.empty()) return;  // a graph that departs keeps its last name
    std::string names;
    for (const auto& user : m_users) names += user.second + ";";
    names.pop_back();
    m_name = std::move(names);
}

}  // namespace kelm

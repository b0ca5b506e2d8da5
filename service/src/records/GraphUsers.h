#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// The clients that hold a graph, each with the name that it gave, and the name under which the
// graph is reported.
//
// Threads: any. Locks: m_mutex is a leaf.
class GraphUsers : public NonCopyable {
 public:
    std::string getName() EXCLUDES(m_mutex);

    // A null name means "unnamed", here and at the construction.
    void appendName(uint64_t clientId, const char* name) EXCLUDES(m_mutex);
    // True if the client was a user.
    bool removeUser(uint64_t clientId) EXCLUDES(m_mutex);
    // Whether the graph has users; says nothing about devices.
    bool isRunning() EXCLUDES(m_mutex);
    // The names that the client directory gives for the users, in id order.
    std::vector<std::string> getClientNames() EXCLUDES(m_mutex);
    // Sets the name to the users' names joined by ";".
    void spliceGraphName() EXCLUDES(m_mutex);

 protected:
    GraphUsers(uint64_t clientId, const char* name);
    ~GraphUsers() = default;

 private:
    Mutex m_mutex;
    std::string m_name GUARDED_BY(m_mutex);
    std::map<uint64_t, std::string> m_users GUARDED_BY(m_mutex);
};

}  // namespace kelm

#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace kelm::gateway {

// How many calls of a loop watch: of all peers, and of each.
//
// Threads: the loop's.
class WatcherCount {
 public:
    void add(const std::string& peer) {
        ++m_all;
        ++m_byPeer[peer];
    }
    void remove(const std::string& peer) {
        --m_all;
        const auto found = m_byPeer.find(peer);
        if (--found->second == 0) m_byPeer.erase(found);
    }
    size_t all() const { return m_all; }
    size_t of(const std::string& peer) const { return m_byPeer.at(peer); }

 private:
    size_t m_all = 0;
    std::map<std::string, size_t> m_byPeer;
};

}  // namespace kelm::gateway

#pragma once

#include <map>
#include <memory>
#include <string>

#include "tools/simulator/WatchedFile.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::simulator {

class Board;

// The accelerators of the machine. The file "bus" lists those that are plugged in, a line each: the
// name and an address that is another one after each plugging. Without the file every name is one.
//
// Threads: any. Locks: m_mutex, then those of boards, then m_busMutex.
class Machine : public NonCopyable {
 public:
    // Never destroyed: a call that hangs may outlive static objects.
    static Machine& instance();

    static constexpr int kNoList = 0;
    static constexpr int kAbsent = -1;
    int addressOf(const std::string& name) EXCLUDES(m_busMutex);

    // A status. A device that was reset cannot be opened before it has been plugged in again.
    int open(const std::string& name, std::shared_ptr<Board>& board) EXCLUDES(m_mutex);
    void close(const Board& board) EXCLUDES(m_mutex);
    void resetAll() EXCLUDES(m_mutex);

 private:
    struct Place {
        std::shared_ptr<Board> board;  // the last one there
        bool isOpen = false;
    };

    Machine() : m_busFile(simulatorFile("bus")) {}

    Mutex m_mutex;
    std::map<std::string, Place> m_places GUARDED_BY(m_mutex);
    std::map<std::string, uint32_t> m_ids GUARDED_BY(m_mutex);
    Mutex m_busMutex ACQUIRED_AFTER(m_mutex);
    WatchedFile m_busFile GUARDED_BY(m_busMutex);
    std::map<std::string, int> m_addresses GUARDED_BY(m_busMutex);
};

}  // namespace kelm::simulator

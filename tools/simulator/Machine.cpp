#include "tools/simulator/Machine.h"

#include <sstream>
#include <vector>

#include "tools/simulator/Board.h"
#include "tools/simulator/Orders.h"
#include "tools/simulator/Status.h"

namespace kelm::simulator {

Machine& Machine::instance() {
    static Machine& machine = *new Machine;
    return machine;
}

int Machine::addressOf(const std::string& name) {
    MutexLock lock(m_busMutex);
    if (const auto lines = m_busFile.poll()) {
        m_addresses.clear();
        for (const std::string& line : *lines) {
            std::istringstream words(line);
            std::string device;
            int address = kAbsent;
            if (words >> device >> address) m_addresses[device] = address;
        }
    }
    if (!m_busFile.exists()) return kNoList;
    const auto found = m_addresses.find(name);
    return found != m_addresses.end() ? found->second : kAbsent;
}

// A board that has left its place makes room for one with another address only: a device that was
// reset must have been plugged in anew.
int Machine::open(const std::string& name, std::shared_ptr<Board>& board) {
    const int address = addressOf(name);
    if (address == kAbsent || Orders::instance().isVanished(name)) return kNoDevice;
    MutexLock lock(m_mutex);
    Place& place = m_places[name];
    if (place.board && place.board->isGone()) {
        if (place.board->address() == address && address != kNoList) return kNoDevice;
    } else if (place.isOpen) {
        return kBusy;
    }
    const auto [id, isNew] = m_ids.try_emplace(name, m_ids.size());
    board = std::make_shared<Board>(name, id->second, address);
    place = {board, true};
    return kOk;
}

// A later board may have the place by now, which is not closed with this one.
void Machine::close(const Board& board) {
    MutexLock lock(m_mutex);
    Place& place = m_places[board.name()];
    if (place.board.get() == &board) place.isOpen = false;
}

// Without the mutex from here on: a board takes locks of its own and writes to a file.
void Machine::resetAll() {
    std::vector<std::shared_ptr<Board>> boards;
    {
        MutexLock lock(m_mutex);
        for (const auto& [name, place] : m_places) boards.push_back(place.board);
    }
    for (const auto& board : boards) {
        if (!board->isGone()) board->reset();
    }
}

}  // namespace kelm::simulator

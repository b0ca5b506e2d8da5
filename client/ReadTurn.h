#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

#include "protocol/src/MessagePtr.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::client {

// Who reads the answers of a connection: its reading thread, or, while nothing is pending but calls
// that wait, the thread of one of these, which spares it a switch. The reading thread then sleeps
// until the service hangs up, until a message comes that it is to deal with, or until it is woken
// because something else is pending.
//
// Threads: the reading thread, and callers as told. Owns: the messages that are passed on.
// Locks: m_mutex, a leaf.
class ReadTurn : public NonCopyable {
 public:
    using Clock = std::chrono::steady_clock;

    explicit ReadTurn(int socket) : m_socket(socket) {}

    // For the reading thread: gives the turn up until somebody must read and no caller does; at
    // once if no descriptor is left to sleep on. `isIdle` tells whether nothing is pending, `deal`
    // gets the messages that callers pass on.
    void park(const std::function<bool()>& isIdle, const std::function<void(MessagePtr)>& deal)
        EXCLUDES(m_mutex);

    // For a caller: true if the turn is its own now.
    bool take();
    // True when something has come to be read, false at the deadline.
    bool waitReadable(Clock::time_point deadline) const;
    // A message that belongs to the reading thread.
    void pass(MessagePtr message) EXCLUDES(m_mutex);
    // Ends the caller's turn; `isIdle` as above, or false if the connection is of no use any more.
    void giveBack(const std::function<bool()>& isIdle);

    // Something is pending that the reading thread is to wait for.
    void wakeIfParked() const {
        if (m_state.load() != State::kReader) wake();
    }

 private:
    enum class State { kReader, kParked, kCaller };

    void wake() const;
    bool takeBack();
    std::vector<MessagePtr> takePassed() EXCLUDES(m_mutex);

    const int m_socket;
    UniqueFd m_wake;  // made before the turn is first given up, and then the same
    // Atomic: who makes it kReader or kCaller from kParked has the turn.
    std::atomic<State> m_state{State::kReader};
    std::atomic<bool> m_hungUp{false};  // and the reading thread waits for the turn
    Mutex m_mutex;
    std::vector<MessagePtr> m_passed GUARDED_BY(m_mutex);
};

}  // namespace kelm::client

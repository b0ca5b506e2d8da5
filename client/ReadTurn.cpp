#include "client/ReadTurn.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

namespace kelm::client {

// A request is made pending before its sender looks at the state, and the state is changed before
// isIdle() looks at what is pending, under the mutex of that: one of the two sees the other.
void ReadTurn::park(const std::function<bool()>& isIdle,
                    const std::function<void(MessagePtr)>& deal) {
    if (!m_wake) m_wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wake) return;
    m_state.store(State::kParked);
    while (true) {
        if ((m_hungUp.load() || !isIdle()) && takeBack()) break;
        // Once the service has hung up, what is left to read is a caller's until it gives back.
        pollfd both[] = {{m_wake.get(), POLLIN, 0}, {m_socket, POLLRDHUP, 0}};
        (void)::poll(both, m_hungUp.load() ? 1 : 2, -1);
        if (both[1].revents != 0) m_hungUp.store(true);
        eventfd_t count = 0;
        (void)::eventfd_read(m_wake.get(), &count);
        for (MessagePtr& message : takePassed()) deal(std::move(message));
    }
    for (MessagePtr& message : takePassed()) deal(std::move(message));
}

bool ReadTurn::takeBack() {
    State parked = State::kParked;
    return m_state.compare_exchange_strong(parked, State::kReader);
}

bool ReadTurn::take() {
    State parked = State::kParked;
    return m_state.compare_exchange_strong(parked, State::kCaller);
}

bool ReadTurn::waitReadable(Clock::time_point deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd socket{m_socket, POLLIN, 0};
    const auto millis = static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
    return ::poll(&socket, 1, millis) > 0;
}

void ReadTurn::pass(MessagePtr message) {
    {
        MutexLock lock(m_mutex);
        m_passed.push_back(std::move(message));
    }
    wake();
}

void ReadTurn::giveBack(const std::function<bool()>& isIdle) {
    m_state.store(State::kParked);
    if (m_hungUp.load() || !isIdle()) wake();
}

std::vector<MessagePtr> ReadTurn::takePassed() {
    MutexLock lock(m_mutex);
    return std::exchange(m_passed, {});
}

void ReadTurn::wake() const { (void)::eventfd_write(m_wake.get(), 1); }

}  // namespace kelm::client

#pragma once

#include <cstdint>
#include <memory>

namespace IPC {

class ConnectionBase;

constexpr uint32_t kPollReadable = 1;
constexpr uint32_t kPollHungUp = 2;

// What Poller::wait found. It shares the connection, so that another thread's close leaves the
// number in place until the event has been handled.
struct PollEvent {
    uint32_t flags = 0;
    std::shared_ptr<ConnectionBase> connection;

    bool isReadable() const { return (flags & kPollReadable) != 0; }
    bool isHungUp() const { return (flags & kPollHungUp) != 0; }
    void clear() {
        flags = 0;
        connection.reset();
    }
};

}  // namespace IPC

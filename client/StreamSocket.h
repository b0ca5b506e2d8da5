#pragma once

#include <string>

#include "client/Client.h"
#include "utils/UniqueFd.h"

namespace kelm::client {

// A connection to one of the service's sockets for tools, from which bytes come until it ends.
//
// Threads: one reads; interrupt() comes from any.
class StreamSocket {
 public:
    // `what` is one of the things that come, as in "the stream of snapshots has ended".
    static Result<StreamSocket> connect(const std::string& path, Deadline deadline,
                                        std::string what);

    // Some of the bytes that come, at least one.
    Result<size_t> read(char* target, size_t size, std::chrono::steady_clock::time_point end);
    // All of a short text.
    Error write(const std::string& text) const;
    void interrupt() const;
    int fd() const { return m_socket.get(); }

 private:
    StreamSocket(UniqueFd socket, UniqueFd interrupt, std::string what)
        : m_socket(std::move(socket)), m_interrupt(std::move(interrupt)), m_what(std::move(what)) {}

    // Until bytes have come.
    Error wait(std::chrono::steady_clock::time_point end) const;
    Error streamEnded() const;

    UniqueFd m_socket;
    UniqueFd m_interrupt;  // an eventfd, never read: once told, for ever
    std::string m_what;
};

}  // namespace kelm::client

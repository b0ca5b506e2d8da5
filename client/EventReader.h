#pragma once

#include <memory>
#include <string>

#include "client/Client.h"
#include "client/StreamSocket.h"

namespace kelm::client {

// A connection to the stream of the service's events: lines of JSON, see docs/events.md. No client
// of the service: it is not listed and needs no registration. Read on: the service hangs up on a
// reader that lags.
//
// Threads: one reads; interrupt() comes from any.
class EventReader {
 public:
    // An empty path means the service's usual socket, or the one under KELM_RUN_DIR.
    static Result<std::unique_ptr<EventReader>> connect(const std::string& socketPath = {},
                                                        Deadline deadline = kDefaultDeadline);

    // Asks for up to so many of the last events, once; the line "live" comes behind them.
    Error requestLast(size_t count) {
        return m_socket.write("last " + std::to_string(count) + "\n");
    }
    // Whether the next line has come already.
    bool hasLine() const { return m_buffer.find('\n') != std::string::npos; }
    // The next line without its end. After kTimeout it may be read on.
    Result<std::string> read(Deadline deadline);
    // Ends the read in progress and every later one with kCanceled.
    void interrupt() const { m_socket.interrupt(); }

 private:
    explicit EventReader(StreamSocket socket) : m_socket(std::move(socket)) {}

    StreamSocket m_socket;
    std::string m_buffer;  // what has come and is not read yet
};

}  // namespace kelm::client

#pragma once

#include <chrono>
#include <cstddef>

namespace kelm::gateway {

// What a peer may cost.
struct GrpcLimits {
    size_t connections = 1024;
    // Calls of a connection at a time; of a peer that acknowledges no settings only the next binds.
    int streams = 256;
    size_t calls = 8192;                     // of a loop at a time, but for those that watch
    size_t watchers = 1024;                  // of a loop
    size_t watchersOfPeer = 64;              // of a loop and a connection by TCP
    size_t message = size_t{64} << 20;       // bytes
    size_t text = size_t{4} << 20;           // bytes of a request to infer but for raw contents
    size_t plain = size_t{16} << 10;         // bytes of a request for anything else
    size_t memory = size_t{1} << 30;         // bytes of all messages that are not answered yet
    std::chrono::milliseconds idle{300000};  // of a connection without a call
    std::chrono::milliseconds age{3600000};  // of a connection; calls have `grace` to end
    std::chrono::milliseconds grace{30000};
    std::chrono::milliseconds handshake{10000};
    std::chrono::milliseconds ping{60000};      // from one question to the peer to the next
    std::chrono::milliseconds pong{20000};      // of its answer
    std::chrono::milliseconds transfer{10000};  // of a message, and a second for each MB
};

}  // namespace kelm::gateway

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kelm::gateway {

// What a peer may cost.
struct HttpLimits {
    size_t connections = 1024;
    uint32_t head = 8 << 10;             // bytes
    size_t buffer = 16 << 10;            // bytes of requests that were read ahead
    size_t json = size_t{4} << 20;       // bytes of the JSON part
    uint64_t body = uint64_t{64} << 20;  // bytes
    size_t drop = 64 << 10;  // bytes of a refused body that are read for the connection's sake
    std::chrono::milliseconds idle{60000};
    std::chrono::milliseconds headTime{10000};
    std::chrono::milliseconds transfer{10000};  // and a second for each MB
    std::chrono::milliseconds linger{2000};     // for the peer to read a last answer
};

}  // namespace kelm::gateway

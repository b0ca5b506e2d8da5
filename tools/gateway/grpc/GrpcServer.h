#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/ListenSocket.h"
#include "tools/gateway/TlsPair.h"
#include "tools/gateway/grpc/GrpcLimits.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// Serves the protocol's gRPC and the standard health service on some sockets, many connections by
// few threads, within limits.
//
// Threads: so many loops, and gRPC's; one at a time makes, stops and destroys it.
// Owns: its threads and sockets. Borrowed for its life: the gateway.
class GrpcServer : public NonCopyable {
 public:
    // With a pair by TLS. Throws if gRPC cannot serve.
    GrpcServer(const Gateway& gateway, std::vector<ListenSocket> sockets, size_t threads,
               const GrpcLimits& limits, const std::optional<TlsPair>& tls = {});
    // Ends what is under way.
    ~GrpcServer();

    // Of the socket given as that.
    uint16_t port(size_t index) const;
    // For connections that come a second later. Of a server by TLS.
    void renew(const TlsPair& pair);
    // Accepts nothing more, and waits until the calls under way are answered, at most so long.
    // False if some were not. Peers without a call have a second to go.
    bool stop(std::chrono::milliseconds limit);

 private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kelm::gateway

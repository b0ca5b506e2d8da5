#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "tools/gateway/ListenSocket.h"
#include "tools/gateway/rest/HttpExchange.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// Serves HTTP/1.1 on one socket, many connections by few threads, within limits.
//
// Threads: so many loops, the first of which accepts; one at a time makes, stops and destroys it.
// Owns: its threads and sockets. Locks: that of the list of connections, a leaf.
class HttpServer : public NonCopyable {
 public:
    // With a pair by TLS.
    HttpServer(ListenSocket socket, size_t threads, const HttpLimits& limits, HttpHandler handler,
               const std::optional<TlsPair>& tls = {});
    // Ends what is under way; the handler is not called any more afterwards.
    ~HttpServer();

    uint16_t port() const;
    // For connections that come from now on. Of a server by TLS.
    void renew(const TlsPair& pair);
    // Accepts nothing more, and waits until the requests under way are answered, at most so long.
    // False if some were not.
    bool stop(std::chrono::milliseconds limit);

 private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kelm::gateway

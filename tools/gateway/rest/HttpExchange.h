#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "tools/gateway/RequestRecord.h"
#include "tools/gateway/rest/HttpBody.h"
#include "tools/gateway/rest/HttpLimits.h"
#include "tools/gateway/rest/HttpReply.h"

namespace kelm::gateway {

// What a connection does for the request that it serves. Threads: the connection's, but for post().
class HttpExchange {
 public:
    virtual const HttpParser::value_type& request() const = 0;
    virtual HttpBody& body() = 0;
    // What is told of the request at its end; the handler says what it asks for.
    virtual RequestRecord& record() = 0;
    virtual const HttpLimits& limits() const = 0;
    // Tells a peer that waits for it to send the body, and sets the time for so many bytes.
    virtual void expectBody(uint64_t bytes) = 0;
    // From here on `hungUp` is called if the peer closes before the answer.
    virtual void awaitHangUp(std::function<void()> hungUp) = 0;
    // Runs it on the connection's thread. Any thread.
    virtual void post(std::function<void()> work) = 0;
    // Once a request, the last call.
    virtual void reply(HttpReply answer) = 0;

 protected:
    ~HttpExchange() = default;
};

// Answers requests. Called on the threads of all connections.
struct HttpHandler {
    std::function<void(std::shared_ptr<HttpExchange>)> serve;
    // Each request once its answer was sent or could not be. Empty: nobody asks.
    std::function<void(RequestRecord)> ended = {};
    std::atomic<int64_t>* connections = nullptr;  // a count to keep; null: none
};

}  // namespace kelm::gateway

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelm::gateway {

enum class Protocol : uint8_t { kRest, kGrpc };
constexpr std::string_view nameOf(Protocol protocol) {
    return protocol == Protocol::kRest ? "rest" : "grpc";
}

// What a request says of itself for the request's line in the log and its metrics; the answer has
// the same. A text of 1 to 128 visible characters of ASCII is passed on, else there is a new one.
std::string pickRequestId(std::string_view given);

// A request of either protocol, as it is told of once it has ended.
struct RequestRecord {
    using Clock = std::chrono::steady_clock;

    Protocol protocol = Protocol::kRest;
    Clock::time_point begun = Clock::now();
    std::string id;                         // of pickRequestId()
    std::string operation;                  // "infer", "ready" and so on; empty: none that is known
    std::string model;                      // as the client says; empty: none
    std::string version;                    // that serves
    bool isKnown = false;                   // whether there is such a model
    int code = 0;                           // HTTP's status or gRPC's code
    uint64_t bytesIn = 0;                   // of the body or the message
    uint64_t bytesOut = 0;                  // those that were sent
    std::chrono::nanoseconds atService{0};  // of the task, from its sending to its end
    std::string error;                      // what the client was told
    std::chrono::duration<double> took{0};  // set by the gateway

    bool isGood() const {
        return protocol == Protocol::kRest ? code >= 200 && code < 300 : code == 0;
    }
};

}  // namespace kelm::gateway

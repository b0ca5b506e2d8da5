#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "bench/Lanes.h"

namespace kelm::bench {

// The same request again and again, at a server of either protocol.
struct Exchange {
    std::string address;  // as gRPC or HOST:PORT
    std::string target;   // the method; nothing of REST, whose request has it
    std::string request;  // the message; of REST with its head
    size_t answerBytes;   // at least; fewer are a failure
    int depth = 1;        // requests in flight
    std::chrono::milliseconds time{1000};
};

// Each drives one client until the time is up and all is answered, and ends the process: 0, or 1 if
// anything failed.
[[noreturn]] void driveGrpc(const Exchange& exchange, Lane& lane);
// With a connection for each request in flight.
[[noreturn]] void driveRest(const Exchange& exchange, Lane& lane);

}  // namespace kelm::bench

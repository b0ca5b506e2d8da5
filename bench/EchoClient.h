#pragma once

#include <chrono>
#include <string>

#include "bench/Lanes.h"

namespace kelm::bench {

struct EchoLoad {
    int depth = 1;        // calls or messages in flight
    bool stream = false;  // messages of one bidirectional stream in place of unary calls
    std::chrono::milliseconds time{1000};
};

// One client process of gRPC's echo: ends the process with 0 once the time is up and all is
// answered.
[[noreturn]] void driveEcho(const std::string& address, const EchoLoad& load, Lane& lane);

}  // namespace kelm::bench

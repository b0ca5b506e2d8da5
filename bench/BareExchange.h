#pragma once

#include <chrono>

namespace kelm::bench {

struct ExchangeResult {
    double requestsPerSecond = 0.0;
    double medianMicros = 0.0;  // round trip to the second answer
};

// The least that an inference can cost: client processes send records of an infer request over
// Unix sockets, one server process answers each with the records of the create answer and the done
// event, and nothing else happens. Forks; call it before any thread is started.
ExchangeResult runBareExchange(int clients, int depth, std::chrono::milliseconds time);

}  // namespace kelm::bench

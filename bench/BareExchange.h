#pragma once

#include <chrono>

#include "bench/Lanes.h"

namespace kelm::bench {

// The least that an inference can cost: client processes send records of an infer request over
// Unix sockets, one server process answers each with the records of the create answer and the done
// event, and nothing else happens. Forks; call it while no thread of this process runs.
ExchangeResult runBareExchange(int clients, int depth, std::chrono::milliseconds time);

}  // namespace kelm::bench

#pragma once

#include <string>

#include "bench/BareExchange.h"
#include "tests/fakes/ServiceProcess.h"

namespace kelm::bench {

struct Load {
    int clients;
    int depth;  // tasks of each client in flight
};

// The service as a process on three simulated devices. Where it is found by clients becomes part of
// this process's environment.
class BenchService {
 public:
    // What each of the two steps of a task takes on a device.
    explicit BenchService(int latencyMs);
    ~BenchService();
    BenchService(const BenchService&) = delete;
    BenchService& operator=(const BenchService&) = delete;

    // Drives it with `kelmctl bench` on two graphs.
    ExchangeResult measure(const Load& load, double seconds);
    std::string socket() const { return m_service.socketPath(); }

 private:
    ServiceProcess m_service;
};

}  // namespace kelm::bench

#pragma once

#include <sys/types.h>

#include <filesystem>

#include "bench/BareExchange.h"

namespace kelm::bench {

struct Load {
    int clients;
    int depth;  // tasks of each client in flight
};

// The service beside this program, as a process in a private directory and ended with SIGUSR1, on
// three simulated devices. Where it is found by clients becomes part of this process's environment.
class BenchService {
 public:
    // What each of the two steps of a task takes on a device.
    explicit BenchService(int latencyMs);
    ~BenchService();
    BenchService(const BenchService&) = delete;
    BenchService& operator=(const BenchService&) = delete;

    // Drives it with `kelmctl bench` on two graphs.
    ExchangeResult measure(const Load& load, double seconds);
    std::filesystem::path socket() const { return m_directory / "kelm_service.sock"; }

 private:
    std::filesystem::path m_programs;
    std::filesystem::path m_directory;
    pid_t m_pid = -1;
};

}  // namespace kelm::bench

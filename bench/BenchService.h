#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/Child.h"
#include "bench/Lanes.h"
#include "bench/Load.h"
#include "tests/fakes/ServiceProcess.h"

namespace kelm::bench {

// One build of the programs.
struct Build {
    std::string daemon = KELM_DAEMON;
    std::string kelmctl = KELM_CTL;
};

// What the clients of a load saw, and what they cost.
struct ClientRun {
    ExchangeResult speed;
    double tasks = 0.0;
    ProcessCounts counts;
};

// The service as a process on three simulated devices. Where it is found by clients becomes part of
// this process's environment.
class BenchService : public NonCopyable {
 public:
    // On devices and for clients as the load has them.
    explicit BenchService(const Load& load, const Build& build = {},
                          const std::vector<std::string>& environment = {});
    ~BenchService();

    // Drives it with `kelmctl bench` on two graphs.
    ClientRun measure(double seconds);
    // The same in two parts: the clients are there but do not run yet. Without a time each runs
    // one task.
    std::unique_ptr<Child> prepareClients(double seconds,
                                          const std::vector<std::string>& environment = {});
    ClientRun run(Child& clients);

    pid_t pid() const { return m_service.pid(); }
    std::string socket() const { return m_service.socketPath(); }

 private:
    std::string file(const char* name) const { return m_service.dir() + "/" + name; }

    const Load m_load;
    const std::string m_kelmctl;
    ServiceProcess m_service;
};

}  // namespace kelm::bench

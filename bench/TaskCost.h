#pragma once

#include "bench/BenchService.h"
#include "bench/Figures.h"
#include "bench/Load.h"

namespace kelm::bench {

// The bare exchange of the load's records, where no device waits.
Figures measureBareExchange(const Load& load, double seconds);

// What a task of the load costs the service and its clients. Measured on two services: one is
// timed, and one, preloaded and watched by the kernel, counts calls. What clients cost that run one
// task each is taken off, so that their start and end do not count.
class TaskCost {
 public:
    TaskCost(const Build& build, const Load& load, double seconds);

    Figures timed() const;
    Figures counted() const;

 private:
    const Build m_build;
    const Load m_load;
    const double m_seconds;
};

}  // namespace kelm::bench

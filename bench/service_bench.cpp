// What does the service add to the bare exchange of its records? Both on one CPU, in one run: the
// service on simulated devices without latency, driven by `kelmctl bench`, against a server that
// only answers. Prints one row per load with the ratio.
//
//   service_bench [SECONDS]        seconds for each measurement, 5 by default

#include <sched.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "bench/BareExchange.h"
#include "bench/BenchService.h"

namespace {

using kelm::bench::ExchangeResult;
using kelm::bench::Load;

constexpr Load kLoads[] = {{1, 1}, {4, 8}};

void pinToOneCpu() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    if (::sched_setaffinity(0, sizeof(set), &set) != 0) std::perror("sched_setaffinity");
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 5.0;
    pinToOneCpu();
    kelm::bench::BenchService service(0);
    std::printf("%-22s %12s %12s %12s %12s %8s %8s\n", "load", "bare req/s", "serv. req/s",
                "bare p50 us", "serv. p50 us", "req/s", "p50");
    for (const Load& load : kLoads) {
        const ExchangeResult bare = kelm::bench::runBareExchange(
            load.clients, load.depth, std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
        const ExchangeResult full = service.measure(load, seconds);
        std::printf("%d clients x depth %-5d %12.0f %12.0f %12.1f %12.1f %8.3f %8.2f\n",
                    load.clients, load.depth, bare.requestsPerSecond, full.requestsPerSecond,
                    bare.medianMicros, full.medianMicros,
                    full.requestsPerSecond / bare.requestsPerSecond,
                    full.medianMicros / bare.medianMicros);
    }
    return 0;
}

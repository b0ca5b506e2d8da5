#include "bench/TaskCost.h"

#include <chrono>
#include <memory>

#include "bench/BareExchange.h"
#include "bench/CallCountsFile.h"
#include "bench/SyscallCounter.h"

namespace kelm::bench {

namespace {

struct Totals {
    ClientRun run;
    Figures counts;
};

constexpr double kOneTaskEach = 0.0;

Totals runTimed(BenchService& service, double seconds) {
    const ProcessCounts before = ProcessCounts::ofRunning(service.pid());
    const ClientRun run = service.measure(seconds);
    const ProcessCounts counts = ProcessCounts::ofRunning(service.pid()) - before;
    return {run,
            {{"service_switches", counts.switches},
             {"service_cpu_us", counts.cpuMicros},
             {"client_switches", run.counts.switches},
             {"client_cpu_us", run.counts.cpuMicros}}};
}

// The service counts into `calls`, from its start on.
Totals runCounted(BenchService& service, const CallCountsFile& calls, double seconds) {
    const CallCountsFile clientCalls;
    const auto clients = service.prepareClients(seconds, clientCalls.environment());
    const SyscallCounter serviceSyscalls(service.pid());
    const SyscallCounter clientSyscalls(clients->pid());
    const CallSums before = calls.sum();
    const ClientRun run = service.run(*clients);
    const CallSums after = calls.sum();
    const CallSums client = clientCalls.sum();
    Totals totals{run,
                  {{"service_mutex_locks", after.mutexLocks - before.mutexLocks},
                   {"service_allocations", after.allocations - before.allocations},
                   {"client_mutex_locks", client.mutexLocks},
                   {"client_allocations", client.allocations}}};
    if (const auto count = serviceSyscalls.count()) totals.counts["service_system_calls"] = *count;
    if (const auto count = clientSyscalls.count()) totals.counts["client_system_calls"] = *count;
    return totals;
}

Figures perTask(const Totals& startAndEnd, const Totals& all) {
    Figures figures;
    for (const auto& [key, count] : all.counts) {
        figures[key] =
            (count - startAndEnd.counts.at(key)) / (all.run.tasks - startAndEnd.run.tasks);
    }
    return figures;
}

}  // namespace

Figures measureBareExchange(const Load& load, double seconds) {
    if (load.devicesWait()) return {};
    const CpuPlacement placement(load.cpus);
    const auto time = std::chrono::milliseconds(static_cast<int>(seconds * 1000));
    const ExchangeResult bare = runBareExchange(load.clients, load.depth, time);
    return {{"bare_requests_per_second", bare.requestsPerSecond},
            {"bare_p50_us", bare.medianMicros}};
}

TaskCost::TaskCost(const Build& build, const Load& load, double seconds)
    : m_build(build), m_load(load), m_seconds(seconds) {}

Figures TaskCost::timed() const {
    const CpuPlacement placement(m_load.cpus);
    BenchService service(m_load, m_build);
    const Totals startAndEnd = runTimed(service, kOneTaskEach);
    const Totals all = runTimed(service, m_seconds);
    Figures figures = perTask(startAndEnd, all);
    figures["requests_per_second"] = all.run.speed.requestsPerSecond;
    figures["p50_us"] = all.run.speed.medianMicros;
    return figures;
}

Figures TaskCost::counted() const {
    const CpuPlacement placement(m_load.cpus);
    const CallCountsFile calls;
    BenchService service(m_load, m_build, calls.environment());
    const Totals startAndEnd = runCounted(service, calls, kOneTaskEach);
    return perTask(startAndEnd, runCounted(service, calls, m_seconds));
}

}  // namespace kelm::bench

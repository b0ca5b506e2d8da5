#include "tools/kelmctl/BenchCommand.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/mman.h>

#include <csignal>
#include <iostream>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/kelmctl/BenchClient.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/BenchReport.h"
#include "tools/kelmctl/BenchRun.h"
#include "tools/kelmctl/ClientProcesses.h"
#include "tools/kelmctl/GraphFile.h"
#include "tools/kelmctl/ReportFile.h"
#include "tools/kelmctl/SignalQueue.h"

namespace kelm::ctl {

namespace {

// The region in memory that the forked clients share.
class SharedRegion {
 public:
    SharedRegion() {
        void* memory = ::mmap(nullptr, sizeof(BenchRegion), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("no memory for the benchmark");
        // Zeroed pages are the initial state of every field: nothing is touched before it is used.
        m_region = std::launder(static_cast<BenchRegion*>(memory));
    }
    ~SharedRegion() { ::munmap(m_region, sizeof(BenchRegion)); }
    SharedRegion(const SharedRegion&) = delete;
    SharedRegion& operator=(const SharedRegion&) = delete;

    BenchRegion& get() { return *m_region; }

 private:
    BenchRegion* m_region;
};

std::string whyFailed(const BenchLane& lane) {
    if (lane.failure[0] != '\0') return lane.failure.data();
    return lane.stage == BenchStage::kInterrupted ? "interrupted by a signal"
                                                  : "the process ended early";
}

// A line for each reason: clients of one service mostly fail alike. A client that ended because the
// whole run was interrupted has not failed.
bool reportFailures(const BenchSetup& setup, const BenchRegion& region, bool interrupted) {
    std::map<std::string, std::vector<size_t>> failed;
    for (size_t i = 0; i < setup.clients; ++i) {
        const BenchLane& lane = region.lanes[i];
        if (lane.stage == BenchStage::kDone) continue;
        if (interrupted && lane.stage != BenchStage::kFailed) continue;
        failed[whyFailed(lane)].push_back(i);
    }
    for (const auto& [why, clients] : failed) {
        std::cerr << fmt::format("kelmctl: client {} failed: {}\n", fmt::join(clients, ", "), why);
    }
    return !failed.empty();
}

// Whether all went well. One line tells what did not.
bool judge(const BenchSetup& setup, const BenchReport& report, const BenchRun& run) {
    if (report.isEmpty()) {
        std::cerr << "kelmctl: nothing was measured: " << report.whyEmpty() << "\n";
        return false;
    }
    if (setup.kind == BenchSetup::Kind::kFindRate) {
        if (run.foundRate() || run.signal() != 0) return true;
        std::cerr << "kelmctl: no rate found: raise --p99, or give the steps more --seconds\n";
        return false;
    }
    const uint64_t errors = report.all().errorCount();
    if (errors <= setup.maxErrors) return true;
    std::cerr << fmt::format(
        "kelmctl: {} calls failed, --max-errors lets {} pass; see the errors "
        "in the report and the log of the service\n",
        errors, setup.maxErrors);
    return false;
}

}  // namespace

// The clients end before the region is read: the report needs no lock.
int runBench(const BenchOptions& options) {
    const BenchSetup setup(options);
    // Read once, before the clients are forked: they share the bytes.
    std::vector<GraphFile> files;
    for (const std::string& graph : setup.graphs) files.emplace_back(graph, options.graphByPath);
    const ReportFile jsonFile(options.jsonFile);
    SharedRegion region;
    const SignalQueue signals{SIGINT, SIGTERM, SIGHUP};
    ClientProcesses processes;
    BenchRun run(setup, region.get(), signals, processes);
    for (size_t i = 0; i < setup.clients; ++i) {
        // Destroyed in the child, and with it the names of its shared memory.
        processes.start([&] { return BenchClient(setup, files, i, region.get()).run(); });
    }
    run.lead();
    const BenchReport report(setup, region.get(), run);
    if (!report.isEmpty()) std::cout << report.table() << std::flush;
    const bool failed = reportFailures(setup, region.get(), run.signal() != 0);
    const bool good = !failed && judge(setup, report, run);
    if (!report.isEmpty() || report.all().requests() > 0) jsonFile.write(report.json());
    if (run.signal() != 0) return 128 + run.signal();
    return good ? 0 : 1;
}

}  // namespace kelm::ctl

#include "tools/kelmctl/BenchCommand.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tools/kelmctl/BenchClient.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/BenchReport.h"

namespace kelm::ctl {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll(10);
constexpr std::chrono::milliseconds kProgressInterval(500);

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

// The client processes. Whatever happens, none is left behind.
class Children {
 public:
    ~Children() {
        for (const pid_t pid : m_running) ::kill(pid, SIGKILL);
        while (!m_running.empty()) reap(0);
    }

    void start(const BenchOptions& options, int index, BenchRegion& region) {
        const pid_t pid = ::fork();
        if (pid < 0) throw std::runtime_error("cannot start a client process");
        if (pid == 0) {
            // A statement of its own: the client must be destroyed, and with it the names of its
            // shared memory, before _exit() ends the process without destroying anything.
            const int status = BenchClient(options, index, region).run();
            ::_exit(status);
        }
        m_running.push_back(pid);
    }

    bool running() {
        reap(WNOHANG);
        return !m_running.empty();
    }

 private:
    void reap(int flags) {
        std::erase_if(m_running,
                      [flags](pid_t pid) { return ::waitpid(pid, nullptr, flags) != 0; });
    }

    std::vector<pid_t> m_running;
};

bool anyStage(const BenchRegion& region, const BenchOptions& options, BenchStage stage) {
    for (int i = 0; i < options.clients; ++i) {
        if (region.lanes[static_cast<size_t>(i)].stage == stage) return true;
    }
    return false;
}

uint64_t totalRequests(const BenchRegion& region, const BenchOptions& options) {
    uint64_t sum = 0;
    for (int client = 0; client < options.clients; ++client) {
        for (size_t graph = 0; graph < options.graphs.size(); ++graph) {
            sum += region.lanes[static_cast<size_t>(client)].cells[graph].requests;
        }
    }
    return sum;
}

// One line that is written over again, on a terminal only.
class Progress {
 public:
    void show(uint64_t requests, double seconds) {
        if (!m_terminal || Clock::now() - m_last < kProgressInterval) return;
        const double elapsed = std::chrono::duration<double>(Clock::now() - m_last).count();
        std::cout << fmt::format("\r{:.1f} s  {} requests  {:.0f} requests/s   ", seconds, requests,
                                 static_cast<double>(requests - m_lastRequests) / elapsed)
                  << std::flush;
        m_last = Clock::now();
        m_lastRequests = requests;
    }
    void clear() {
        if (m_terminal) std::cout << "\r" << std::string(60, ' ') << "\r" << std::flush;
    }

 private:
    const bool m_terminal = ::isatty(STDOUT_FILENO) != 0;
    Clock::time_point m_last = Clock::now();
    uint64_t m_lastRequests = 0;
};

// The start sign is given also when a client has failed: the others then see the stop and end.
void runUntilDone(Children& children, BenchRegion& region, const BenchOptions& options) {
    while (children.running() && anyStage(region, options, BenchStage::kStarting) &&
           !anyStage(region, options, BenchStage::kFailed)) {
        std::this_thread::sleep_for(kPoll);
    }
    Progress progress;
    const Clock::time_point begin = Clock::now();
    region.go = true;
    while (children.running()) {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        if (options.count == 0 && seconds >= options.seconds) region.stop = true;
        if (anyStage(region, options, BenchStage::kFailed)) region.stop = true;
        progress.show(totalRequests(region, options), seconds);
        std::this_thread::sleep_for(kPoll);
    }
    progress.clear();
}

// A client that was killed has no reason in its lane.
bool reportFailures(const BenchRegion& region, const BenchOptions& options) {
    bool failed = false;
    for (int i = 0; i < options.clients; ++i) {
        const BenchLane& lane = region.lanes[static_cast<size_t>(i)];
        if (lane.stage == BenchStage::kDone) continue;
        failed = true;
        const char* why = lane.failure[0] != '\0' ? lane.failure.data() : "the process ended early";
        std::cerr << "client " << i << " failed: " << why << "\n";
    }
    return failed;
}

// Before anything is forked: a mistake would otherwise be told once for each client.
void checkOptions(const BenchOptions& options) {
    if (options.clients < 1 || options.clients > kMaxBenchClients) {
        throw std::invalid_argument(
            fmt::format("the number of clients is 1 to {}", kMaxBenchClients));
    }
    if (options.graphs.empty() || options.graphs.size() > static_cast<size_t>(kMaxBenchGraphs)) {
        throw std::invalid_argument(fmt::format("name 1 to {} graph files", kMaxBenchGraphs));
    }
    if (options.depth < 1) throw std::invalid_argument("the depth is at least 1");
    for (int i = 0; i < options.clients; ++i) (void)parseWeights(options, i);
}

bool writeJson(const BenchOptions& options, const BenchReport& report) {
    if (options.jsonFile.empty()) return true;
    std::ofstream file(options.jsonFile, std::ios::trunc);
    file << report.json() << std::flush;
    if (!file) std::cerr << "cannot write " << options.jsonFile << "\n";
    return static_cast<bool>(file);
}

}  // namespace

// The clients end before the region is read: the report needs no lock.
int runBench(const BenchOptions& options) {
    checkOptions(options);
    SharedRegion region;
    {
        Children children;
        for (int i = 0; i < options.clients; ++i) children.start(options, i, region.get());
        runUntilDone(children, region.get(), options);
    }
    const BenchReport report(options, region.get());
    std::cout << report.table() << std::flush;
    const bool written = writeJson(options, report);
    return reportFailures(region.get(), options) || !written ? 1 : 0;
}

}  // namespace kelm::ctl

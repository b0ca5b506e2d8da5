#include "tools/kelmctl/BenchCommand.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tools/kelmctl/BenchClient.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/BenchReport.h"
#include "tools/kelmctl/GraphFile.h"
#include "tools/kelmctl/SignalQueue.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll(10);
constexpr std::chrono::milliseconds kProgressInterval(500);
// From a signal until a client is killed: longer than it takes to find that the service hangs.
constexpr std::chrono::milliseconds kTimeToEnd(5000);
constexpr double kMostSeconds = 1e6;

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

    // `client` is what the child does; its result is the exit status.
    void start(const std::function<int()>& client) {
        const pid_t parent = ::getpid();
        const pid_t pid = ::fork();
        if (pid < 0) throw std::runtime_error("cannot start a client process");
        if (pid == 0) ::_exit(runChild(parent, client));
        m_running.push_back(pid);
    }

    void signal(int number) const {
        for (const pid_t pid : m_running) ::kill(pid, number);
    }

    bool running() {
        reap(WNOHANG);
        return !m_running.empty();
    }

 private:
    // Nothing is thrown out of it: the stack below is the parent's, and would be unwound here too.
    static int runChild(pid_t parent, const std::function<int()>& client) {
        // A child whose parent is killed ends in order, as by any other signal.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) return 1;  // it died before
        try {
            return client();
        } catch (const std::exception& error) {
            std::cerr << "kelmctl: a client ended with: " << error.what() << "\n";
            return 1;
        }
    }

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

// The run as the parent leads it: the sign to start, the sign to stop, and what signals do to it.
class Run {
 public:
    Run(const BenchOptions& options, BenchRegion& region, const SignalQueue& signals)
        : m_options(options), m_region(region), m_signals(signals) {}

    // Until all have ended. The start sign is given also when a client has failed: the others then
    // see the stop and end.
    void lead(Children& children) {
        while (isRunning(children) && anyStage(m_region, m_options, BenchStage::kStarting) &&
               !anyStage(m_region, m_options, BenchStage::kFailed)) {
        }
        Progress progress;
        const Clock::time_point begin = Clock::now();
        m_region.go = true;
        while (isRunning(children)) {
            const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
            if (m_options.count == 0 && seconds >= m_options.seconds) m_region.stop = true;
            if (anyStage(m_region, m_options, BenchStage::kFailed)) m_region.stop = true;
            progress.show(totalRequests(m_region, m_options), seconds);
        }
        progress.clear();
    }

    // The signal that ended it early, 0 if none did.
    int signal() const { return m_signal; }

 private:
    // After a short wait. A signal to this process alone is passed on; those whose service hangs
    // get the time that they need to see that.
    bool isRunning(Children& children) {
        std::this_thread::sleep_for(kPoll);
        if (const int signal = m_signals.next(); signal != 0 && m_signal == 0) {
            m_signal = signal;
            m_region.stop = true;
            m_killTime = Clock::now() + kTimeToEnd;
            children.signal(SIGTERM);
        }
        if (Clock::now() >= m_killTime) children.signal(SIGKILL);
        return children.running();
    }

    const BenchOptions& m_options;
    BenchRegion& m_region;
    const SignalQueue& m_signals;
    int m_signal = 0;
    Clock::time_point m_killTime = Clock::time_point::max();
};

std::string whyFailed(const BenchLane& lane) {
    if (lane.failure[0] != '\0') return lane.failure.data();
    return lane.stage == BenchStage::kInterrupted ? "interrupted by a signal"
                                                  : "the process ended early";
}

// A line for each reason: clients of one service mostly fail alike. A client that ended because the
// whole run was interrupted has not failed.
bool reportFailures(const BenchRegion& region, const BenchOptions& options, bool interrupted) {
    std::map<std::string, std::vector<int>> failed;
    for (int i = 0; i < options.clients; ++i) {
        const BenchLane& lane = region.lanes[static_cast<size_t>(i)];
        if (lane.stage == BenchStage::kDone) continue;
        if (interrupted && lane.stage != BenchStage::kFailed) continue;
        failed[whyFailed(lane)].push_back(i);
    }
    for (const auto& [why, clients] : failed) {
        std::cerr << "kelmctl: client " << fmt::format("{}", fmt::join(clients, ", "))
                  << " failed: " << why << "\n";
    }
    return !failed.empty();
}

// Before anything is forked: a mistake would otherwise be told once for each client.
void checkOptions(const BenchOptions& options) {
    if (options.clients < 1 || options.clients > kMaxBenchClients) {
        throw UsageError(fmt::format("the number of clients is 1 to {}", kMaxBenchClients));
    }
    if (options.graphs.empty() || options.graphs.size() > static_cast<size_t>(kMaxBenchGraphs)) {
        throw UsageError(fmt::format("name 1 to {} graph files", kMaxBenchGraphs));
    }
    if (options.depth < 1) throw UsageError("the depth is at least 1");
    if (!(options.seconds > 0.0 && options.seconds <= kMostSeconds)) {
        throw UsageError("a benchmark runs for more than 0 and at most 1000000 seconds");
    }
    for (int i = 0; i < options.clients; ++i) (void)parseWeights(options, i);
}

bool writeJson(const BenchOptions& options, const BenchReport& report) {
    if (options.jsonFile.empty()) return true;
    std::ofstream file(options.jsonFile, std::ios::trunc);
    file << report.json() << std::flush;
    if (!file) std::cerr << "kelmctl: cannot write " << options.jsonFile << "\n";
    return static_cast<bool>(file);
}

}  // namespace

// The clients end before the region is read: the report needs no lock.
int runBench(const BenchOptions& options) {
    checkOptions(options);
    // Read once, before the clients are forked: they share the bytes.
    std::vector<GraphFile> files;
    for (const std::string& graph : options.graphs) files.emplace_back(graph, options.graphByPath);
    SharedRegion region;
    const SignalQueue signals{SIGINT, SIGTERM, SIGHUP};
    Run run(options, region.get(), signals);
    {
        Children children;
        for (int i = 0; i < options.clients; ++i) {
            // Destroyed in the child, and with it the names of its shared memory.
            children.start([&] { return BenchClient(options, files, i, region.get()).run(); });
        }
        run.lead(children);
    }
    bool written = true;
    if (totalRequests(region.get(), options) > 0) {
        const BenchReport report(options, region.get());
        std::cout << report.table() << std::flush;
        written = writeJson(options, report);
    } else {
        std::cerr << "kelmctl: nothing was measured\n";
    }
    const bool failed = reportFailures(region.get(), options, run.signal() != 0);
    if (run.signal() != 0) return 128 + run.signal();
    return failed || !written ? 1 : 0;
}

}  // namespace kelm::ctl

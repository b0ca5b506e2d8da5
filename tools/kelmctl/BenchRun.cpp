#include "tools/kelmctl/BenchRun.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <string>
#include <thread>
#include <utility>

#include "tools/kelmctl/RateSearch.h"

namespace kelm::ctl {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kEndPoll(10);
constexpr std::chrono::milliseconds kProgressInterval(500);
// From a signal until a client is killed: longer than it takes to find that the service hangs.
constexpr std::chrono::milliseconds kTimeToEnd(5000);
// Until all clients have seen that a round begins.
constexpr std::chrono::milliseconds kTimeToStart(20);
constexpr std::chrono::hours kNoEnd(24 * 365);
// A step with fewer requests tells nothing about a 99th percentile.
constexpr double kLeastRequests = 10.0;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

Clock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

uint64_t totalRequests(const BenchSetup& setup, const BenchRegion& region) {
    uint64_t sum = 0;
    for (size_t client = 0; client < setup.clients; ++client) {
        for (size_t graph = 0; graph < setup.graphs.size(); ++graph) {
            sum += region.lanes[client].cells[graph].requests;
        }
    }
    return sum;
}

// One line that is written over again, on a terminal only.
class Progress {
 public:
    ~Progress() {
        if (m_terminal) std::cout << "\r" << std::string(60, ' ') << "\r" << std::flush;
    }

    void show(uint64_t requests, double seconds) {
        if (!m_terminal || Clock::now() - m_last < kProgressInterval) return;
        const double rate = static_cast<double>(requests - m_lastRequests) / secondsSince(m_last);
        const std::string text =
            seconds < 0.0
                ? std::string("warming up")
                : fmt::format("{:.1f} s  {} requests  {:.0f} requests/s", seconds, requests, rate);
        std::cout << fmt::format("\r{:<59}", text) << std::flush;
        m_last = Clock::now();
        m_lastRequests = requests;
    }

 private:
    const bool m_terminal = ::isatty(STDOUT_FILENO) != 0;
    Clock::time_point m_last = Clock::now();
    uint64_t m_lastRequests = 0;
};

}  // namespace

BenchRun::BenchRun(const BenchSetup& setup, BenchRegion& region, const SignalQueue& signals,
                   ClientProcesses& processes)
    : m_setup(setup), m_region(region), m_signals(signals), m_processes(processes) {}

void BenchRun::lead() {
    if (waitReady()) {
        switch (m_setup.kind) {
            case BenchSetup::Kind::kTime:
            case BenchSetup::Kind::kCount:
                (void)runRound(m_setup.rate);
                break;
            case BenchSetup::Kind::kUntilStable:
                runUntilStable();
                break;
            case BenchSetup::Kind::kFindRate:
                m_isSearchComplete = search();
                break;
        }
    }
    m_region.stop = true;
    while (countRunning() > 0) {
    }
}

// A client that has ended has failed, or was killed: none ends before it is told to.
bool BenchRun::waitReady() {
    while (countRunning() == m_setup.clients && m_signal == 0) {
        const bool ready =
            std::none_of(m_region.lanes.begin(),
                         m_region.lanes.begin() + static_cast<std::ptrdiff_t>(m_setup.clients),
                         [](const BenchLane& lane) { return lane.stage == BenchStage::kStarting; });
        if (ready) return true;
    }
    return false;
}

bool BenchRun::runRound(double rate, const std::function<void()>& look) {
    BenchRound& round = m_region.round;
    round.rate = rate;
    round.start = Clock::now() + kTimeToStart;
    round.measure = round.start + toDuration(m_setup.warmup);
    const bool isCounted = m_setup.kind == BenchSetup::Kind::kCount;
    round.end = round.measure + (isCounted ? kNoEnd : toDuration(m_setup.seconds));
    ++m_region.rounds;
    Progress progress;
    while (countRunning() == m_setup.clients && m_signal == 0) {
        if (hasEndedRound()) return true;
        if (look) look();
        progress.show(totalRequests(m_setup, m_region), secondsSince(round.measure));
    }
    // The others end what is in flight and are done.
    m_region.stop = true;
    while (countRunning() > 0) {
    }
    return false;
}

bool BenchRun::hasEndedRound() const {
    return std::all_of(m_region.lanes.begin(),
                       m_region.lanes.begin() + static_cast<std::ptrdiff_t>(m_setup.clients),
                       [this](const BenchLane& lane) { return lane.rounds == m_region.rounds; });
}

// A window is what has come since the last one, whenever it was due.
void BenchRun::runUntilStable() {
    auto last = std::make_unique<Histogram>();
    Clock::time_point begin;
    (void)runRound(m_setup.rate, [&] {
        begin = std::max(begin, m_region.round.measure);
        const double seconds = secondsSince(begin);
        if (m_region.stop || seconds < m_setup.window || Clock::now() >= m_region.round.end) return;
        begin = Clock::now();
        const BenchRow row = BenchRow::sumOfAll(m_setup, m_region);
        Histogram window;
        window.addAll(row.result());
        window.removeAll(*last);
        last->addAll(window);
        m_stability.add(
            {static_cast<double>(window.count()) / seconds, toMillis(window.percentile(0.99))});
        if (m_stability.isStable()) m_region.stop = true;
    });
}

// From half of what the service can do in a closed loop, which is never far from what is looked
// for.
bool BenchRun::search() {
    if (!runStep(0.0) || m_steps[0].row.good() == 0) return false;
    RateSearch search(m_steps[0].row.rate() / 2.0, kLeastRequests / m_setup.seconds);
    while (const std::optional<double> rate = search.next()) {
        if (!runStep(*rate)) return false;
        search.tell(m_steps.back().held);
        m_foundRate = search.found();
    }
    return true;
}

// An error or a request that was given up is no latency, but no rate to recommend either.
bool BenchRun::runStep(double rate) {
    if (!runRound(rate)) return false;
    BenchStep step{rate, BenchRow::sumOfAll(m_setup, m_region)};
    step.held = step.row.good() > 0 && step.row.good() == step.row.requests() &&
                toMillis(step.row.result().percentile(0.99)) <= m_setup.p99Millis;
    m_steps.push_back(std::move(step));
    return true;
}

// A signal to this process alone is passed on; those whose service hangs get the time that they
// need to see that.
size_t BenchRun::countRunning() {
    std::this_thread::sleep_for(kEndPoll);
    if (const int signal = m_signals.next(); signal != 0 && m_signal == 0) {
        m_signal = signal;
        m_region.stop = true;
        m_killTime = Clock::now() + kTimeToEnd;
        m_processes.signal(SIGTERM);
    }
    if (Clock::now() >= m_killTime) m_processes.signal(SIGKILL);
    return m_processes.count();
}

}  // namespace kelm::ctl

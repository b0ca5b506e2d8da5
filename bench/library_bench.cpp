// What does the client library cost on top of the bare wire? The same service on simulated devices,
// all on one CPU, driven by clients that only write and read the records, and by clients that use
// libkelm, in turn and in one run. Prints medians of the rounds and their ratios to the bare wire.
//
//   library_bench [SECONDS [ROUNDS]]

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchService.h"
#include "bench/CpuPlacement.h"
#include "bench/Lanes.h"
#include "kelm/kelm.hpp"
#include "tests/wire/WireClient.h"

namespace {

using kelm::bench::CpuPlacement;
using kelm::bench::Cpus;
using kelm::bench::ExchangeResult;
using kelm::bench::Lane;
using kelm::bench::Lanes;
using kelm::bench::Load;
using Clock = std::chrono::steady_clock;

struct Run {
    std::string socket;
    int depth;
    std::chrono::milliseconds time;
    Lane& lane;
};

// Reads the answers of a connection in large pieces and hands out their records.
class Records {
 public:
    explicit Records(int fd) : m_fd(fd) {}

    const kelm::KelmMsgBase& next() {
        while (m_end - m_begin < sizeof(kelm::KelmMsgBase) || m_end - m_begin < front().size) {
            std::copy(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin),
                      m_bytes.begin() + static_cast<std::ptrdiff_t>(m_end), m_bytes.begin());
            m_end -= m_begin;
            m_begin = 0;
            const ssize_t count = ::recv(m_fd, m_bytes.data() + m_end, m_bytes.size() - m_end, 0);
            if (count <= 0) throw std::runtime_error("the service has hung up");
            m_end += static_cast<size_t>(count);
        }
        const kelm::KelmMsgBase& record = front();
        m_begin += record.size;
        return record;
    }

 private:
    const kelm::KelmMsgBase& front() const {
        return *reinterpret_cast<const kelm::KelmMsgBase*>(m_bytes.data() + m_begin);
    }

    const int m_fd;
    alignas(8) std::array<char, 65536> m_bytes{};
    size_t m_begin = 0;
    size_t m_end = 0;
};

void driveWire(const Run& run) {
    kelm::WireClient client(run.socket, "wire");
    const uint64_t graph = client.createGraph({.blob = "graph"}).graphId;
    Records records(client.fd());
    std::vector<Clock::time_point> started(static_cast<size_t>(run.depth));
    const Clock::time_point end = Clock::now() + run.time;
    const auto submit = [&](uint64_t place) {
        auto request = client.makeInfer(graph);
        request.taskCookie1 = place;
        started[place] = Clock::now();
        client.send(request);
    };
    int inFlight = run.depth;
    for (int i = 0; i < run.depth; ++i) submit(static_cast<uint64_t>(i));
    while (inFlight > 0) {
        const kelm::KelmMsgBase& record = records.next();
        if (record.type != kelm::KELM_MESSAGE_TASK_DONE_EVT) continue;
        const auto& done = reinterpret_cast<const kelm::KelmMsgEvtTaskDone&>(record);
        const Clock::time_point now = Clock::now();
        run.lane.add(now - started[done.taskCookie1]);
        if (now < end) {
            submit(done.taskCookie1);
        } else {
            --inFlight;
        }
    }
    client.unregister();
}

struct Library {
    explicit Library(const Run& run)
        : client({.name = "library", .socketPath = run.socket}),
          graph(client.load(std::as_bytes(std::span("graph")))),
          pool(graph.makePool()) {}
    kelm::Client client;
    kelm::Graph graph;
    kelm::Pool pool;
};

// Each result starts the next task, on the library's thread.
void driveCallbacks(const Run& run) {
    Library library(run);
    const Clock::time_point end = Clock::now() + run.time;
    std::atomic<int> inFlight{run.depth};
    struct Place {
        Library& library;
        const Run& run;
        Clock::time_point end;
        std::atomic<int>& inFlight;
        kelm::Slot slot;
        Clock::time_point started;

        void submit() {
            started = Clock::now();
            auto task = kelm::Graph::makeTask(slot, {});
            task.user = this;
            task.done = [](const kelm_result* result, void* self) {
                if (result->error != KELM_SUCCESS) ::_exit(1);
                static_cast<Place*>(self)->next();
            };
            if (kelm_infer_async(library.graph.get(), &task, nullptr) != KELM_SUCCESS) ::_exit(1);
        }
        void next() {
            const Clock::time_point now = Clock::now();
            run.lane.add(now - started);
            if (now < end) return submit();
            inFlight.fetch_sub(1);
            inFlight.notify_one();
        }
    };
    std::vector<std::unique_ptr<Place>> places;
    for (int i = 0; i < run.depth; ++i) {
        places.emplace_back(new Place{library, run, end, inFlight, library.pool.acquire(), {}});
    }
    for (const auto& place : places) place->submit();
    for (int left = inFlight; left > 0; left = inFlight) inFlight.wait(left);
}

// One task after the other, on this thread.
void driveCalls(const Run& run) {
    Library library(run);
    const kelm::Slot slot = library.pool.acquire();
    const Clock::time_point end = Clock::now() + run.time;
    Clock::time_point now = Clock::now();
    while (now < end) {
        const Clock::time_point started = now;
        library.graph.infer(slot);
        now = Clock::now();
        run.lane.add(now - started);
    }
}

struct Subject {
    const char* name;
    void (*drive)(const Run& run);
    int mostDepth;
};
constexpr Subject kSubjects[] = {
    {"bare wire", driveWire, 64}, {"callbacks", driveCallbacks, 64}, {"calls", driveCalls, 1}};
constexpr Load kLoads[] = {{.clients = 1, .depth = 1}, {.clients = 4, .depth = 8}};

ExchangeResult measure(const Subject& subject, const Load& load, const std::string& socket,
                       std::chrono::milliseconds time) {
    Lanes lanes(load.clients);
    std::vector<pid_t> children;
    for (int i = 0; i < load.clients; ++i) {
        const pid_t pid = ::fork();
        if (pid < 0) throw std::runtime_error("cannot fork");
        if (pid == 0) {
            try {
                subject.drive({socket, load.depth, time, lanes[i]});
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s: %s\n", subject.name, error.what());
                ::_exit(1);
            }
            ::_exit(0);
        }
        children.push_back(pid);
    }
    bool good = true;
    for (const pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        good = good && status == 0;
    }
    if (!good) throw std::runtime_error(std::string(subject.name) + ": a client has failed");
    return lanes.over(time);
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

void compare(const Load& load, std::chrono::milliseconds time, int rounds) {
    const CpuPlacement placement(load.cpus);
    kelm::bench::BenchService service(load);
    std::map<std::string, std::vector<double>> rates, medians, rateRatios, medianRatios;
    for (int round = 0; round < rounds; ++round) {
        ExchangeResult bare;
        for (const Subject& subject : kSubjects) {
            if (load.depth > subject.mostDepth) continue;
            const ExchangeResult result = measure(subject, load, service.socket(), time);
            if (subject.drive == driveWire) bare = result;
            rates[subject.name].push_back(result.requestsPerSecond);
            medians[subject.name].push_back(result.medianMicros);
            rateRatios[subject.name].push_back(result.requestsPerSecond / bare.requestsPerSecond);
            medianRatios[subject.name].push_back(result.medianMicros / bare.medianMicros);
        }
    }
    std::printf("%-26s %10s %7s %10s %7s\n", load.name().c_str(), "results/s", "ratio", "p50 us",
                "ratio");
    for (const Subject& subject : kSubjects) {
        if (load.depth > subject.mostDepth) continue;
        std::printf("  %-24s %10.0f %7.3f %10.1f %7.3f\n", subject.name,
                    median(rates[subject.name]), median(rateRatios[subject.name]),
                    median(medians[subject.name]), median(medianRatios[subject.name]));
    }
}

}  // namespace

int main(int argc, char** argv) try {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const auto time = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    for (const Load& load : kLoads) compare(load, time, std::max(rounds, 1));
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "library_bench: %s\n", error.what());
    return 1;
}

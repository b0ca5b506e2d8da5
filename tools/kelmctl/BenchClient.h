#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "client/Client.h"
#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/GraphFile.h"
#include "tools/kelmctl/Interruption.h"
#include "utils/Mutex.h"

namespace kelm::ctl {

// One client process of a benchmark: keeps `depth` inferences in flight until the count is reached
// or the parent says stop, and counts into its lane. A signal stops it alone; what is in flight
// then has half a second to end.
//
// Threads: run() on the process's main thread; results arrive on the client library's threads and
// submit the next inference.
class BenchClient {
 public:
    // `files` are those of the graphs, in the order of the options.
    BenchClient(const BenchOptions& options, const std::vector<GraphFile>& files, int index,
                BenchRegion& region);

    // Exit status of the process.
    int run();

 private:
    using Clock = std::chrono::steady_clock;

    struct Source {
        client::Graph graph;
        std::unique_ptr<client::TensorPool> tensors;
        size_t cell = 0;
        int weight = 0;
        int credit = 0;
    };

    client::Error setUp();
    void waitForGo() const;
    void submitAll();
    // Starts one inference, unless the run has ended.
    void submit();
    void finish(Source& source, const client::InferResult& result);
    void count(const Source& source, const client::InferResult& result);
    // The graph whose turn it is by its weight.
    Source& nextSource() REQUIRES(m_mutex);
    bool mayStartUnsafe() const REQUIRES(m_mutex);
    void waitUntilDone() EXCLUDES(m_mutex);
    int fail(const client::Error& error);
    int interrupt();

    const BenchOptions& m_options;
    const std::vector<GraphFile>& m_files;
    const int m_index;
    BenchRegion& m_region;
    BenchLane& m_lane;
    const Clock::time_point m_start = Clock::now();

    // Outlives the client: what ends last is still ended by force when the service hangs.
    Interruption m_interruption;

    Mutex m_mutex;
    CondVar m_idle;
    std::vector<Source> m_sources GUARDED_BY(m_mutex);
    uint64_t m_started GUARDED_BY(m_mutex) = 0;
    uint64_t m_inFlight GUARDED_BY(m_mutex) = 0;
    client::Error m_fatal GUARDED_BY(m_mutex);  // what ended the run, if anything

    // Last, so that it is destroyed first: its threads may still be inside finish().
    std::shared_ptr<client::Client> m_client;
};

}  // namespace kelm::ctl

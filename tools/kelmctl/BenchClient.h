#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "client/Client.h"
#include "tools/kelmctl/BenchLoad.h"
#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/GraphFile.h"
#include "tools/kelmctl/Interruption.h"

namespace kelm::ctl {

// One client process of a benchmark: takes part in the rounds that the parent begins until it says
// stop, and counts into its lane. A signal stops it alone; what is in flight then has half a second
// to end.
//
// Threads: run() on the process's main thread.
class BenchClient {
 public:
    // `files` are those of the graphs, in the order of the setup.
    BenchClient(const BenchSetup& setup, const std::vector<GraphFile>& files, size_t index,
                BenchRegion& region);

    // Exit status of the process.
    int run();

 private:
    client::Error setUp();
    client::Result<std::vector<BenchSource>> makeSources();
    client::Error runRounds();
    // False when none comes any more.
    bool waitForRound(uint64_t round) const;
    int fail(const client::Error& error);

    const BenchSetup& m_setup;
    const std::vector<GraphFile>& m_files;
    const size_t m_index;
    BenchRegion& m_region;
    BenchLane& m_lane;

    // Outlives the client: what ends last is still ended by force when the service hangs.
    Interruption m_interruption;
    std::unique_ptr<BenchLoad> m_load;
    // Last, so that it is destroyed first: its threads may still be inside the load.
    std::shared_ptr<client::Client> m_client;
};

}  // namespace kelm::ctl

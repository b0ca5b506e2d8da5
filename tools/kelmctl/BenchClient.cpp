#include "tools/kelmctl/BenchClient.h"

#include <sys/prctl.h>

#include <iostream>
#include <string>
#include <thread>
#include <utility>

namespace kelm::ctl {

namespace {

constexpr std::chrono::milliseconds kPoll(1);

}  // namespace

// The lane is this process's alone; the parent only reads it.
BenchClient::BenchClient(const BenchSetup& setup, const std::vector<GraphFile>& files, size_t index,
                         BenchRegion& region)
    : m_setup(setup),
      m_files(files),
      m_index(index),
      m_region(region),
      m_lane(region.lanes[index]) {}

// Graphs are loaded before the first round, so that all clients measure the same time.
int BenchClient::run() {
    // A sleep until a request is due may otherwise take 50 microseconds longer.
    ::prctl(PR_SET_TIMERSLACK, 1);
    client::Error error = setUp();
    if (!error) {
        m_lane.stage = BenchStage::kReady;
        error = runRounds();
    }
    if (m_interruption.signal() != 0) {
        m_lane.stage = BenchStage::kInterrupted;
        return 1;
    }
    if (error) return fail(error);
    m_lane.stage = BenchStage::kDone;
    return 0;
}

// Cut to the field, whose last byte stays 0.
int BenchClient::fail(const client::Error& error) {
    error.text().copy(m_lane.failure.data(), m_lane.failure.size() - 1);
    m_lane.stage = BenchStage::kFailed;
    return 1;
}

client::Error BenchClient::setUp() {
    auto connected = client::Client::connect();
    if (!connected) return connected.error();
    m_client = std::move(connected.value());
    m_client->onWarning([this](const std::string& text) {
        // All clients get it, for the same reason.
        if (!m_region.warned.exchange(true)) std::cerr << "kelmctl: " + text + "\n";
    });
    const std::string name = "bench-" + std::to_string(m_index);
    if (client::Error error = m_client->registerClient(name)) return error;
    m_interruption.setService(m_client);  // a graph may wait for a device for ever
    auto sources = makeSources();
    if (!sources) return sources.error();
    m_load = std::make_unique<BenchLoad>(m_setup, m_index, *m_client, std::move(sources.value()),
                                         m_interruption, m_lane);
    m_interruption.setService(nullptr);  // from here on a signal lets what is in flight end
    return {};
}

client::Result<std::vector<BenchSource>> BenchClient::makeSources() {
    std::vector<BenchSource> sources;
    for (size_t i = 0; i < m_files.size(); ++i) {
        BenchSource source;
        source.weight = m_setup.weights[m_index][i];
        // Not even loaded: it would take devices from the graphs that are measured.
        if (source.weight == 0) continue;
        auto graph = m_files[i].create(*m_client, {});
        if (!graph) return graph.error();
        source.graph = graph.value();
        source.depth = m_setup.depths[m_setup.depths.size() == 1 ? 0 : i];
        // Beside those in flight some that tasks past their deadline keep.
        source.tensors = std::make_unique<client::TensorPool>(
            source.graph.inputSize, source.graph.outputSize,
            static_cast<size_t>(source.depth) + client::TensorPool::kDefaultSlots);
        source.cell = &m_lane.cells[i];
        sources.push_back(std::move(source));
    }
    return sources;
}

client::Error BenchClient::runRounds() {
    for (uint64_t round = 1; waitForRound(round); ++round) {
        if (client::Error error = m_load->run(m_region.round, m_region.stop)) return error;
        m_lane.rounds = round;
    }
    return {};
}

// A parent that dies gives no sign, but its death is a signal.
bool BenchClient::waitForRound(uint64_t round) const {
    while (m_region.rounds < round) {
        if (m_region.stop || m_interruption.signal() != 0) return false;
        std::this_thread::sleep_for(kPoll);
    }
    return true;
}

}  // namespace kelm::ctl

#include "tools/kelmctl/BenchClient.h"

#include <unistd.h>

#include <numeric>
#include <thread>

#include "utils/StringHelper.h"

namespace kelm::ctl {

namespace {

constexpr std::chrono::milliseconds kPoll(1);
constexpr client::Deadline kInferDeadline(30000);

uint64_t nanosSince(std::chrono::steady_clock::time_point start) {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now() - start)
                                     .count());
}

}  // namespace

// The lane is this process's alone; the parent only reads it.
BenchClient::BenchClient(const BenchOptions& options, const std::vector<GraphFile>& files,
                         int index, BenchRegion& region)
    : m_options(options),
      m_files(files),
      m_index(index),
      m_region(region),
      m_lane(region.lanes[static_cast<size_t>(index)]) {}

// Graphs are loaded before the start sign, so that all clients measure the same time.
int BenchClient::run() {
    if (const client::Error error = setUp()) {
        return m_interruption.signal() != 0 ? interrupt() : fail(error);
    }
    m_lane.stage = BenchStage::kReady;
    waitForGo();
    m_lane.stage = BenchStage::kRunning;
    const Clock::time_point begin = Clock::now();
    submitAll();
    waitUntilDone();
    m_lane.runNanos = nanosSince(begin);
    const client::Error fatal = [this] {
        MutexLock lock(m_mutex);
        return m_fatal;
    }();
    if (m_interruption.signal() != 0) return interrupt();
    if (fatal) return fail(fatal);
    m_lane.stage = BenchStage::kDone;
    return 0;
}

// Cut to the field, whose last byte stays 0.
int BenchClient::fail(const client::Error& error) {
    error.text().copy(m_lane.failure.data(), m_lane.failure.size() - 1);
    m_lane.stage = BenchStage::kFailed;
    return 1;
}

int BenchClient::interrupt() {
    m_lane.stage = BenchStage::kInterrupted;
    return 1;
}

client::Error BenchClient::setUp() {
    auto connected = client::Client::connect();
    if (!connected) return connected.error();
    m_client = std::move(connected.value());
    const std::string name = "bench-" + std::to_string(m_index);
    if (client::Error error = m_client->registerClient(name)) return error;
    m_interruption.setService(m_client);  // a graph may wait for a device for ever
    const std::vector<int> weights = parseWeights(m_options, m_index);
    MutexLock lock(m_mutex);
    for (size_t i = 0; i < m_options.graphs.size(); ++i) {
        // Not even loaded: it would take devices from the graphs that are measured.
        if (weights[i] == 0) continue;
        auto graph = m_files[i].create(*m_client, {});
        if (!graph) return graph.error();
        Source source;
        source.graph = graph.value();
        // Beside those in flight some that tasks past their deadline keep.
        source.tensors = std::make_unique<client::TensorPool>(
            source.graph.inputSize, source.graph.outputSize,
            static_cast<size_t>(m_options.depth) + client::TensorPool::kDefaultSlots);
        source.cell = i;
        source.weight = weights[i];
        m_sources.push_back(std::move(source));
    }
    m_interruption.setService(nullptr);  // from here on a signal lets what is in flight end
    return {};
}

void BenchClient::waitForGo() const {
    // A parent that dies gives no sign, but its death is a signal.
    while (!m_region.go && m_interruption.signal() == 0) std::this_thread::sleep_for(kPoll);
}

// Without a count the parent's sign ends the run.
bool BenchClient::mayStartUnsafe() const {
    if (m_fatal || m_region.stop.load(std::memory_order_relaxed)) return false;
    if (m_interruption.signal() != 0) return false;
    return m_options.count == 0 || m_started < m_options.count;
}

// Smooth weighted round robin: everyone earns its weight, the richest pays the sum.
BenchClient::Source& BenchClient::nextSource() {
    int sum = 0;
    Source* richest = nullptr;
    for (Source& source : m_sources) {
        source.credit += source.weight;
        sum += source.weight;
        if (richest == nullptr || source.credit > richest->credit) richest = &source;
    }
    richest->credit -= sum;
    return *richest;
}

void BenchClient::submitAll() {
    for (int i = 0; i < m_options.depth; ++i) submit();
}

// Outside the mutex from the request on: its callback may come at once, even on this thread.
void BenchClient::submit() {
    Source* source = nullptr;
    {
        MutexLock lock(m_mutex);
        if (!mayStartUnsafe()) {
            if (m_inFlight == 0) m_idle.notifyAll();
            return;
        }
        source = &nextSource();
        ++m_started;
        ++m_inFlight;
    }
    auto slot = source->tensors->acquire();
    if (!slot) {
        client::InferResult result;
        result.error = slot.error();
        return finish(*source, result);
    }
    client::InferRequest request;
    request.graphId = source->graph.id;
    request.input = slot.value()->inputTensor();
    request.output = slot.value()->outputTensor();
    m_client->inferAsync(
        request,
        [this, source, held = slot.value()](const client::InferResult& result) {
            finish(*source, result);
        },
        {}, kInferDeadline);
}

void BenchClient::count(const Source& source, const client::InferResult& result) {
    BenchCell& cell = m_lane.cells[source.cell];
    cell.requests.store(cell.requests.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    if (result.acceptLatency.count() > 0) {
        cell.accept.add(static_cast<uint64_t>(result.acceptLatency.count()));
    }
    if (result.error) {
        addError(cell, result.error.name().c_str());
    } else {
        // Latencies of good results only: a refusal is quick and would flatter the numbers.
        cell.result.add(static_cast<uint64_t>(result.resultLatency.count()));
        if (m_lane.firstResultNanos == 0) m_lane.firstResultNanos = nanosSince(m_start);
    }
}

void BenchClient::finish(Source& source, const client::InferResult& result) {
    using client::ErrorKind;
    const ErrorKind kind = result.error.kind();
    // What is given up after a signal is no error of the service.
    if (kind != ErrorKind::kConnectionLost || !m_interruption.isOverdue()) count(source, result);
    {
        MutexLock lock(m_mutex);
        --m_inFlight;
        // Of no use to try again: without a slot it would fail at once, for ever.
        if (kind == ErrorKind::kConnectionLost || kind == ErrorKind::kSystem ||
            kind == ErrorKind::kBusy) {
            m_fatal = result.error;
        }
    }
    submit();
}

// With a limit for each wait: the parent's sign to stop wakes no condition of this process.
void BenchClient::waitUntilDone() {
    MutexLock lock(m_mutex);
    while ((m_inFlight > 0 && !m_interruption.isOverdue()) || mayStartUnsafe()) {
        (void)m_idle.waitFor(m_mutex, std::chrono::milliseconds(100));
    }
}

}  // namespace kelm::ctl

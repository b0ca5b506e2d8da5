#include "tools/simulator/Board.h"

#include <algorithm>
#include <utility>

#include "tools/simulator/Machine.h"
#include "tools/simulator/Orders.h"

namespace kelm::simulator {

namespace {

constexpr long kDefaultMemoryMb = 512;
constexpr uint32_t kFirmwareMb = 16;
constexpr long kDefaultCelsius = 45;
// A waiting call sees a device that leaves, and a change of the orders, after so long.
constexpr std::chrono::milliseconds kPoll{10};

}  // namespace

// Makes up for the time since the last call: each inference that would have ended by now has. One
// that has ended waits for room, as a device does, and holds up those behind it.
void GraphRun::advance(Clock::time_point now) {
    for (;;) {
        if (running) {
            if (running->finish > now || running->out->isFull()) return;
            lastFinish = running->finish;
            running->out->elements.push_back(std::move(running->element));
            running.reset();
        }
        if (jobs.empty() || jobs.front().in->elements.empty()) return;
        Job job = std::move(jobs.front());
        jobs.pop_front();
        Element element = std::move(job.in->elements.front());
        job.in->elements.pop_front();
        element.model = model;
        const auto start = std::max(job.queued, lastFinish);
        running = Running{std::move(element), std::move(job.out),
                          start + std::chrono::microseconds(model.micros)};
    }
}

int Board::enter(const char* function, int option) {
    const int status = Orders::instance().apply(m_name, function, option);
    if (status != kOk) return status;
    return isGone() ? kGone : kOk;
}

bool Board::isGone() {
    MutexLock lock(m_mutex);
    return isGoneUnsafe();
}

// For good: if the files list the device again, that is another board.
bool Board::isGoneUnsafe() {
    if (!m_gone) {
        m_gone = Orders::instance().isVanished(m_name) ||
                 Machine::instance().addressOf(m_name) != m_address;
    }
    return m_gone;
}

// The waiting calls end with kGone; the event tells the bus to take the device off.
void Board::reset() {
    {
        MutexLock lock(m_mutex);
        m_gone = true;
        m_changed.notifyAll();
    }
    tellEvent("reset " + m_name + " " + std::to_string(m_address));
}

uint32_t Board::memorySize() const {
    const long megabytes = Orders::instance().memoryMb(m_name).value_or(kDefaultMemoryMb);
    return static_cast<uint32_t>(std::clamp(megabytes, 0L, 4095L)) * kMegabyte;
}

uint32_t Board::memoryUsedUnsafe() const {
    uint32_t megabytes = kFirmwareMb;
    for (const auto& graph : m_graphs) megabytes += graph->model.memoryMb;
    return megabytes * kMegabyte;
}

uint32_t Board::memoryUsed() {
    MutexLock lock(m_mutex);
    return memoryUsedUnsafe();
}

float Board::temperature() const {
    return static_cast<float>(Orders::instance().temperature(m_name).value_or(kDefaultCelsius));
}

int Board::throttling() const {
    return static_cast<int>(Orders::instance().throttling(m_name).value_or(0));
}

std::shared_ptr<Fifo> Board::addFifo(uint32_t elementSize, size_t capacity) {
    auto fifo = std::make_shared<Fifo>();
    fifo->elementSize = elementSize;
    fifo->capacity = capacity;
    ++m_fifoCount;
    return fifo;
}

void Board::removeFifo() { --m_fifoCount; }

std::shared_ptr<GraphRun> Board::addGraph(const Model& model) {
    const uint64_t size = memorySize();
    MutexLock lock(m_mutex);
    if (memoryUsedUnsafe() + uint64_t{model.memoryMb} * kMegabyte > size) return nullptr;
    auto graph = std::make_shared<GraphRun>();
    graph->model = model;
    m_graphs.push_back(graph);
    return graph;
}

void Board::removeGraph(const std::shared_ptr<GraphRun>& graph) {
    MutexLock lock(m_mutex);
    std::erase(m_graphs, graph);
}

// What is left behind is told by an event, so that a test finds a leak of the service.
void Board::close() {
    MutexLock lock(m_mutex);
    if (m_graphs.empty() && m_fifoCount == 0) return;
    tellEvent("leak " + m_name + " graphs=" + std::to_string(m_graphs.size()) +
              " fifos=" + std::to_string(m_fifoCount));
}

void Board::advance() {
    const auto now = GraphRun::Clock::now();
    for (const auto& graph : m_graphs) graph->advance(now);
}

// Wakes in time for the next result, and often enough to see a change of the orders.
int Board::waitForChange(GraphRun::Clock::time_point start) {
    const auto now = GraphRun::Clock::now();
    if (isGoneUnsafe()) return kGone;
    const auto patience = Orders::instance().patience(m_name);
    if (patience && now - start > std::chrono::milliseconds(*patience)) return kTimeout;
    auto until = now + kPoll;
    for (const auto& graph : m_graphs) {
        // One that has finished waits for room, of which it is told.
        if (graph->running && graph->running->finish > now) {
            until = std::min(until, graph->running->finish);
        }
    }
    (void)m_changed.waitUntil(m_mutex, until);  // the callers loop
    return kOk;
}

std::vector<uint8_t> Board::takeSpare() {
    MutexLock lock(m_mutex);
    if (m_spares.empty()) return {};
    std::vector<uint8_t> spare = std::move(m_spares.back());
    m_spares.pop_back();
    return spare;
}

void Board::recycle(Element element) {
    constexpr size_t kMost = 4;
    MutexLock lock(m_mutex);
    if (m_spares.size() < kMost) m_spares.push_back(std::move(element.bytes));
}

int Board::write(Fifo& fifo, std::span<const uint8_t> bytes, unsigned long userValue) {
    Element element{takeSpare(), userValue, {}};
    element.bytes.assign(bytes.begin(), bytes.end());
    MutexLock lock(m_mutex);
    const auto start = GraphRun::Clock::now();
    // What is due is done before each look: there is no thread that would do it.
    for (advance(); fifo.isFull(); advance()) {
        if (const int status = waitForChange(start)) return status;
    }
    fifo.elements.push_back(std::move(element));
    m_changed.notifyAll();
    return kOk;
}

void Board::queue(GraphRun& graph, std::shared_ptr<Fifo> in, std::shared_ptr<Fifo> out) {
    MutexLock lock(m_mutex);
    graph.jobs.push_back({std::move(in), std::move(out), GraphRun::Clock::now()});
    m_changed.notifyAll();
}

int Board::read(Fifo& fifo, Element& element) {
    MutexLock lock(m_mutex);
    const auto start = GraphRun::Clock::now();
    for (advance(); fifo.elements.empty(); advance()) {
        if (const int status = waitForChange(start)) return status;
    }
    element = std::move(fifo.elements.front());
    fifo.elements.pop_front();
    m_changed.notifyAll();
    return kOk;
}

}  // namespace kelm::simulator

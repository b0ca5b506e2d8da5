#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/simulator/Model.h"
#include "tools/simulator/Status.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::simulator {

// An input on its way, or a result: the bytes that were written and, once a graph has run on them,
// its model, by which the reader computes the output.
struct Element {
    std::vector<uint8_t> bytes;
    unsigned long userValue = 0;
    Model model;
};

// A bounded queue between host and device.
struct Fifo {
    uint32_t elementSize = 0;
    size_t capacity = 0;
    std::deque<Element> elements;  // guarded by the board's mutex

    bool isFull() const { return elements.size() >= capacity; }
};

// A graph on a board: its inferences run one after another, each as long as the model says, and
// beside those of other graphs.
struct GraphRun {
    using Clock = std::chrono::steady_clock;
    struct Job {
        std::shared_ptr<Fifo> in;
        std::shared_ptr<Fifo> out;
        Clock::time_point queued;
    };
    struct Running {
        Element element;
        std::shared_ptr<Fifo> out;
        Clock::time_point finish;
    };

    Model model;
    // Guarded by the board's mutex.
    std::deque<Job> jobs;
    std::optional<Running> running;
    Clock::time_point lastFinish;

    // Does what was due by `now`.
    void advance(Clock::time_point now);
};

// One simulated accelerator, from its opening until it has left the bus. Results appear when their
// time has come; there is no thread: a call that waits looks at the clock.
//
// Threads: any. Locks: m_mutex, then those of the orders and of the bus.
class Board : public NonCopyable {
 public:
    Board(std::string name, uint32_t id, int address)
        : m_name(std::move(name)), m_id(id), m_address(address) {}

    const std::string& name() const { return m_name; }
    uint32_t id() const { return m_id; }
    int address() const { return m_address; }

    // At the start of every call: does what the orders say. Not 0 ends the call.
    int enter(const char* function, int option) EXCLUDES(m_mutex);
    // Whether it has left the bus; for good.
    bool isGone() EXCLUDES(m_mutex);
    // Takes it off the bus.
    void reset() EXCLUDES(m_mutex);

    uint32_t memorySize() const;  // bytes
    uint32_t memoryUsed() EXCLUDES(m_mutex);
    float temperature() const;
    int throttling() const;

    // Null if the memory does not suffice.
    std::shared_ptr<GraphRun> addGraph(const Model& model) EXCLUDES(m_mutex);
    void removeGraph(const std::shared_ptr<GraphRun>& graph) EXCLUDES(m_mutex);
    std::shared_ptr<Fifo> addFifo(uint32_t elementSize, size_t capacity);
    void removeFifo();
    // Tells of graphs and FIFOs that were not destroyed.
    void close() EXCLUDES(m_mutex);

    // Waits for room. The bytes are copied.
    int write(Fifo& fifo, std::span<const uint8_t> bytes, unsigned long userValue)
        EXCLUDES(m_mutex);
    void queue(GraphRun& graph, std::shared_ptr<Fifo> in, std::shared_ptr<Fifo> out)
        EXCLUDES(m_mutex);
    // Waits for a result.
    int read(Fifo& fifo, Element& element) EXCLUDES(m_mutex);
    // Takes back the memory of one that was read: new memory would cost more than the copy.
    void recycle(Element element) EXCLUDES(m_mutex);

 private:
    uint32_t memoryUsedUnsafe() const REQUIRES(m_mutex);
    bool isGoneUnsafe() REQUIRES(m_mutex);
    void advance() REQUIRES(m_mutex);
    // A status: waits until something may have changed since the call began to wait.
    int waitForChange(GraphRun::Clock::time_point start) REQUIRES(m_mutex);
    std::vector<uint8_t> takeSpare() EXCLUDES(m_mutex);

    const std::string m_name;
    const uint32_t m_id;
    const int m_address;  // changes when a device is plugged in again
    Mutex m_mutex;
    CondVar m_changed;
    bool m_gone GUARDED_BY(m_mutex) = false;
    std::vector<std::shared_ptr<GraphRun>> m_graphs GUARDED_BY(m_mutex);
    std::vector<std::vector<uint8_t>> m_spares GUARDED_BY(m_mutex);
    std::atomic<int> m_fifoCount{0};  // atomic: a count alone
};

}  // namespace kelm::simulator

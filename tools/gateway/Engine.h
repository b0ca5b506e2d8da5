#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "tools/gateway/ModelDescription.h"

namespace kelm::gateway {

// How a task ended: 0, or an error as libkelm's with its text.
struct TaskEnd {
    int error = 0;
    std::string text = {};
    std::chrono::nanoseconds atService{0};  // from the sending
};

struct TaskWish {
    std::chrono::milliseconds deadline{0};
    uint32_t priority = 0;
};

// The buffers of one task, the owner's until it is destroyed; a task that runs keeps the memory.
class EngineSlot {
 public:
    virtual ~EngineSlot() = default;
    virtual std::span<std::byte> input() = 0;
    virtual std::span<std::byte> output() = 0;
};

// A loaded graph. Threads: any. Its end may wait for the service.
class EngineGraph {
 public:
    virtual ~EngineGraph() = default;
    virtual uint64_t inputBytes() const = 0;
    virtual uint64_t outputBytes() const = 0;
    virtual uint32_t window() const = 0;
    // Throws a Failure when there is none left.
    virtual std::unique_ptr<EngineSlot> acquire() = 0;
    // Calls `done` once, on any thread, or throws a Failure and does not. Returns a ticket.
    virtual uint64_t start(EngineSlot& slot, const TaskWish& wish,
                           std::function<void(const TaskEnd&)> done) = 0;
    // Ends a task that waits; one that runs goes on. May wait for the service.
    virtual void cancel(uint64_t ticket) = 0;
};

// Where graphs run. Threads: any.
class Engine {
 public:
    virtual ~Engine() = default;
    // Waits until the graph is loaded; throws a Failure.
    virtual std::unique_ptr<EngineGraph> load(const ModelDescription& model,
                                              const std::string& graphFile) = 0;
    // Why no task could run now; empty if one could.
    virtual std::string whyNot() const = 0;
    // That run graphs of this subclass.
    virtual uint32_t devices(int32_t subclass) const = 0;
};

}  // namespace kelm::gateway

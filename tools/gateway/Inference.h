#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/gateway/Engine.h"
#include "tools/gateway/Model.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// A tensor as a client describes it.
struct TensorClaim {
    std::string name;
    std::string datatype;
    Shape shape;
    uint64_t bytes = 0;
};

// An inference of either protocol, from its slot to its answer: name each input and fill it in,
// start, then read the outputs. It has a place in the model's queue only while its task waits or
// runs: peers that are slow to send or to read hold up no others.
//
// Threads: one fills in and starts; any cancels. Owns: its slot.
// Locks: m_mutex, a leaf.
class Inference : public NonCopyable, public std::enable_shared_from_this<Inference> {
 public:
    // Throws a Failure if the model has no room or cannot run.
    static std::shared_ptr<Inference> admit(std::shared_ptr<Model> model);

    const ModelDescription& description() const { return m_model->description(); }
    // Where the tensor's bytes go, as many as were claimed; what is left of its room is zeros.
    // Throws a Failure if it is not as the model describes it, or was claimed before.
    std::span<std::byte> claimInput(const TensorClaim& claim);

    // Calls `done` once, on any thread; throws a Failure and does not if an input is missing or
    // wrong, the model has no room, or the deadline has passed. It is the model's unless one is
    // given, and counts from `begun`. A priority above the model's counts as that: whoever may ask
    // could overtake all others for good.
    using Clock = std::chrono::steady_clock;
    struct Wish {
        Clock::time_point begun;
        std::optional<std::chrono::microseconds> timeout;
        std::optional<uint32_t> priority;
    };
    void start(const Wish& wish, std::function<void(const TaskEnd&)> done) EXCLUDES(m_mutex);
    // Takes back a task that waits; nothing otherwise.
    void cancel() EXCLUDES(m_mutex);
    // The same, since no device is left; the task ends with this error then.
    static constexpr int kNoDevice = -122;  // of the service
    void takeBack(const std::string& reason) EXCLUDES(m_mutex);

    // An output after a good end. Throws a Failure if its bytes are no elements.
    std::span<const std::byte> output(const TensorDescription& tensor) const;

 private:
    struct Claimed {
        const TensorDescription* tensor;
        std::span<const std::byte> bytes;
        uint64_t elements;
    };

    explicit Inference(std::shared_ptr<Model> model);
    void requireInputs() const;
    uint64_t startInQueue(const TaskWish& task, std::function<void(const TaskEnd&)> done);
    void end(TaskEnd end, const std::function<void(const TaskEnd&)>& done);

    const std::shared_ptr<Model> m_model;
    const std::unique_ptr<EngineSlot> m_slot;
    std::vector<Claimed> m_claimed;
    Mutex m_mutex;
    std::optional<uint64_t> m_ticket GUARDED_BY(m_mutex);
    bool m_hasEnded GUARDED_BY(m_mutex) = false;
    bool m_isCanceling GUARDED_BY(m_mutex) = false;  // a chore of it waits
    std::string m_takenBack GUARDED_BY(m_mutex);     // why
};

}  // namespace kelm::gateway

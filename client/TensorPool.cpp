#include "client/TensorPool.h"

#include <vector>

#include "client/SegmentName.h"
#include "client/SharedSegment.h"
#include "utils/Mutex.h"

namespace kelm::client {

TensorSlot::TensorSlot(std::unique_ptr<SharedSegment> input, std::unique_ptr<SharedSegment> output)
    : m_input(std::move(input)), m_output(std::move(output)) {}
TensorSlot::~TensorSlot() = default;

std::span<std::byte> TensorSlot::input() const { return m_input->bytes(); }
std::span<std::byte> TensorSlot::output() const { return m_output->bytes(); }

Tensor TensorSlot::inputTensor() {
    return {Tensor::Kind::kSharedMemory, m_input->name(), -1, m_input->bytes().size(),
            shared_from_this()};
}

Tensor TensorSlot::outputTensor() {
    return {Tensor::Kind::kSharedMemory, m_output->name(), -1, m_output->bytes().size(),
            shared_from_this()};
}

// Shared with the handles, so that a slot finds its way back or is freed without the pool.
struct TensorPool::State {
    explicit State(size_t limit) : maxSlots(limit) {}

    // Takes a free slot out, or counts a new one; null for the latter. False if neither may be.
    bool take(std::unique_ptr<TensorSlot>& slot) EXCLUDES(mutex) {
        MutexLock lock(mutex);
        if (free.empty()) {
            if (slots >= maxSlots) return false;
            ++slots;
            return true;
        }
        slot = std::move(free.back());
        free.pop_back();
        return true;
    }

    // One that a task may still write into, since its connection has ended before it, is not used
    // again.
    void giveBack(std::unique_ptr<TensorSlot> slot, bool reusable) EXCLUDES(mutex) {
        MutexLock lock(mutex);
        if (reusable && !closed) {
            free.push_back(std::move(slot));
        } else {
            --slots;
        }
    }

    const size_t maxSlots;
    Mutex mutex;
    bool closed GUARDED_BY(mutex) = false;
    size_t slots GUARDED_BY(mutex) = 0;  // free or in use
    std::vector<std::unique_ptr<TensorSlot>> free GUARDED_BY(mutex);
};

TensorPool::TensorPool(size_t inputSize, size_t outputSize, size_t maxSlots)
    : m_inputSize(inputSize), m_outputSize(outputSize), m_state(std::make_shared<State>(maxSlots)) {
    SegmentName::removeThoseOfDeadProcesses();
}

// `free` stands before the lock, and so is destroyed after it: slots are unmapped without the
// mutex.
TensorPool::~TensorPool() {
    std::vector<std::unique_ptr<TensorSlot>> free;
    MutexLock lock(m_state->mutex);
    m_state->closed = true;
    free.swap(m_state->free);
}

Result<TensorPool::Handle> TensorPool::acquire() {
    std::unique_ptr<TensorSlot> slot;
    if (!m_state->take(slot)) {
        return Error(ErrorKind::kBusy, 0,
                     "all " + std::to_string(m_state->maxSlots) +
                         " slots of the pool are in use; those of tasks that have timed out come "
                         "back with the ends of their tasks; wait for results or make the pool "
                         "larger");
    }
    if (!slot) {
        auto input = SharedSegment::create(m_inputSize, "input");
        auto output = SharedSegment::create(m_outputSize, "output");
        if (!input || !output) {
            m_state->giveBack(nullptr, false);
            return input ? output.error() : input.error();
        }
        slot.reset(new TensorSlot(std::move(input).value(), std::move(output).value()));
    }
    // Keeps the state and not the pool, which may be destroyed before the last slot comes back.
    const auto back = [state = m_state](TensorSlot* used) {
        state->giveBack(std::unique_ptr<TensorSlot>(used), !used->m_awaited.load());
    };
    return Handle(slot.release(), back);
}

}  // namespace kelm::client

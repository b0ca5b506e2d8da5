#include "client/TensorPool.h"

#include <vector>

#include "client/SegmentName.h"
#include "client/SharedSegment.h"
#include "utils/Mutex.h"

namespace kelm::client {

namespace {

std::span<std::byte> bytesOf(const std::unique_ptr<SharedSegment>& segment) {
    return segment ? segment->bytes() : std::span<std::byte>();
}

const std::string& nameOf(const std::unique_ptr<SharedSegment>& segment) {
    static const std::string none;
    return segment ? segment->name() : none;
}

}  // namespace

TensorSlot::TensorSlot(Segment input, Segment output, Segment aux)
    : m_input(std::move(input)), m_output(std::move(output)), m_aux(std::move(aux)) {}
TensorSlot::~TensorSlot() = default;

std::span<std::byte> TensorSlot::input() const { return bytesOf(m_input); }
std::span<std::byte> TensorSlot::output() const { return bytesOf(m_output); }
std::span<std::byte> TensorSlot::aux() const { return bytesOf(m_aux); }

const std::string& TensorSlot::inputName() const { return nameOf(m_input); }
const std::string& TensorSlot::outputName() const { return nameOf(m_output); }
const std::string& TensorSlot::auxName() const { return nameOf(m_aux); }

Tensor TensorSlot::inputTensor() { return tensorOf(m_input); }
Tensor TensorSlot::outputTensor() { return tensorOf(m_output); }
Tensor TensorSlot::auxTensor() { return tensorOf(m_aux); }

Tensor TensorSlot::tensorOf(const Segment& segment) {
    if (!segment) return {};
    return {Tensor::Kind::kSharedMemory, segment->name(), -1, segment->bytes().size(),
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

TensorPool::TensorPool(size_t inputSize, size_t outputSize, size_t maxSlots, size_t auxSize)
    : m_inputSize(inputSize),
      m_outputSize(outputSize),
      m_auxSize(auxSize),
      m_state(std::make_shared<State>(maxSlots)) {
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

Result<std::unique_ptr<TensorSlot>> TensorPool::makeSlot() const {
    struct Part {
        size_t size;
        const char* role;
        TensorSlot::Segment segment;
    } parts[] = {{m_inputSize, "input", {}}, {m_outputSize, "output", {}}, {m_auxSize, "aux", {}}};
    for (Part& part : parts) {
        if (part.size == 0) continue;
        auto segment = SharedSegment::create(part.size, part.role);
        if (!segment) return segment.error();
        part.segment = std::move(segment).value();
    }
    return std::unique_ptr<TensorSlot>(new TensorSlot(
        std::move(parts[0].segment), std::move(parts[1].segment), std::move(parts[2].segment)));
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
        auto made = makeSlot();
        if (!made) {
            m_state->giveBack(nullptr, false);
            return made.error();
        }
        slot = std::move(made).value();
    }
    // Keeps the state and not the pool, which may be destroyed before the last slot comes back.
    const auto back = [state = m_state](TensorSlot* used) {
        state->giveBack(std::unique_ptr<TensorSlot>(used), !used->m_awaited.load());
    };
    return Handle(slot.release(), back);
}

}  // namespace kelm::client

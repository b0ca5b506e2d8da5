// Tensors and tasks of the C interface.
#include <atomic>
#include <limits>

#include "kelm/kelm.h"
#include "libkelm/Handles.h"
#include "libkelm/Structs.h"
#include "libkelm/Task.h"
#include "utils/Futex.h"

using namespace kelm::lib;
using kelm::client::InferRequest;
using kelm::client::PreparedInfer;
using kelm::client::Tensor;

namespace {

constexpr uint32_t kHighestPriority = 15;
constexpr uint32_t kKnownBlocks = KELM_AUX_TIME_TAKEN | KELM_AUX_THERMAL | KELM_AUX_DEBUG;
constexpr size_t kDefaultSlots = 1024;
constexpr size_t kLongestMemoryName = 63;

int readTensor(const kelm_tensor& given, Tensor& tensor) {
    if (given.kind == KELM_TENSOR_NONE) return KELM_SUCCESS;
    tensor.size = given.bytes;
    if (given.kind == KELM_TENSOR_DESCRIPTOR) {
        if (given.fd <= 0) return invalid("the descriptor of a tensor must be above 0");
        tensor.kind = Tensor::Kind::kDescriptor;
        tensor.fd = given.fd;
        return KELM_SUCCESS;
    }
    if (given.kind != KELM_TENSOR_SHARED_MEMORY) return invalid("the kind of a tensor is unknown");
    tensor.kind = Tensor::Kind::kSharedMemory;
    tensor.name = textOr(given.name, "");
    if (tensor.name.empty() || tensor.name.size() > kLongestMemoryName) {
        return invalid("the name of a tensor's shared memory has no or more than 63 bytes");
    }
    return KELM_SUCCESS;
}

int prepare(const kelm_task& known, PreparedInfer& infer) {
    if (known.slot != nullptr) {
        if (known.aux_flags != 0 && known.slot->tensors->aux().empty()) {
            return invalid("aux_flags ask for blocks, and the slot has no auxiliary buffer");
        }
        auto made = PreparedInfer::make(known.slot->tensors, known.aux_flags);
        if (!made) return fail(made.error());
        infer = std::move(made).value();
        return KELM_SUCCESS;
    }
    InferRequest request;
    request.auxFlags = known.aux_flags;
    const std::pair<const kelm_tensor*, Tensor*> tensors[] = {{&known.input, &request.input},
                                                              {&known.output, &request.output},
                                                              {&known.aux, &request.aux}};
    for (const auto& [given, tensor] : tensors) {
        if (const int error = readTensor(*given, *tensor); error != KELM_SUCCESS) return error;
    }
    auto made = PreparedInfer::make(request);
    if (!made) return fail(made.error());
    infer = std::move(made).value();
    return KELM_SUCCESS;
}

int makeTask(const kelm_task* given, std::unique_ptr<Task>& task) {
    const Task::Clock::time_point now = Task::Clock::now();
    kelm_task known{};
    if (!readStruct(given, known)) return invalid(kBadStruct);
    if (known.deadline_ms < 0) return invalid(kBadDeadline);
    if (known.priority > kHighestPriority) return invalid("a priority is above 15");
    if ((known.aux_flags & ~kKnownBlocks) != 0) {
        return invalid("aux_flags ask for a block that this version of libkelm does not know");
    }
    task = std::make_unique<Task>();
    if (const int error = prepare(known, task->infer); error != KELM_SUCCESS) return error;
    task->priority = known.priority;
    task->cookie = known.cookie;
    task->done = known.done;
    task->user = known.user;
    task->deadline = now + deadlineOr(known.deadline_ms, kelm::client::kDefaultDeadline);
    return KELM_SUCCESS;
}

// The end of a task that a thread waits for. A bare word and no condition: the thread that is woken
// would wait for the mutex of the one that wakes it, two switches more.
class Awaited {
 public:
    static void tell(const kelm_result* result, void* self) {
        auto& awaited = *static_cast<Awaited*>(self);
        awaited.m_result = *result;
        awaited.m_text = result->text;
        // The waiting thread may destroy the object from here on; waking only names the word.
        awaited.m_ended.store(1);
        kelm::futex::wakeOne(awaited.m_ended);
    }

    // Error number and text are kept as those of this thread's call.
    int wait(kelm_result* result) {
        while (m_ended.load() == 0) kelm::futex::wait(m_ended, 0);
        const int error = m_result.error;
        if (error != KELM_SUCCESS) fail(error, m_text.c_str());
        m_result.text = error != KELM_SUCCESS ? lastError() : "";
        if (result != nullptr && !writeStruct(m_result, result)) return invalid(kBadStruct);
        return error;
    }

 private:
    std::atomic<uint32_t> m_ended{0};  // the rest is the teller's before, the waiter's behind it
    kelm_result m_result{};
    std::string m_text;
};

// Hands out the next blocks of an auxiliary buffer.
class Blocks {
 public:
    Blocks(const void* buffer, size_t bytes)
        : m_next(static_cast<const char*>(buffer)), m_left(bytes) {}

    const void* take(uint64_t wanted, uint64_t& bytes) {
        bytes = std::min<uint64_t>(wanted, m_left);
        const void* block = bytes != 0 ? m_next : nullptr;
        m_next += bytes;
        m_left -= bytes;
        return block;
    }

 private:
    const char* m_next;
    size_t m_left;
};

}  // namespace

int kelm_pool_create(size_t input_bytes, size_t output_bytes, size_t aux_bytes, size_t max_slots,
                     kelm_pool** pool) {
    return guarded([&] {
        if (pool == nullptr) return invalid("there is no place for the pool's handle");
        *pool = new kelm_pool{kelm::client::TensorPool(
            input_bytes, output_bytes, max_slots != 0 ? max_slots : kDefaultSlots, aux_bytes)};
        return int{KELM_SUCCESS};
    });
}

void kelm_pool_free(kelm_pool* pool) { delete pool; }

int kelm_pool_acquire(kelm_pool* pool, kelm_slot** slot) {
    return guarded([&] {
        if (pool == nullptr || slot == nullptr)
            return invalid("there is no pool or no slot's place");
        auto tensors = pool->tensors.acquire();
        if (!tensors) return fail(tensors.error());
        *slot = new kelm_slot{std::move(tensors).value()};
        return int{KELM_SUCCESS};
    });
}

void kelm_slot_release(kelm_slot* slot) { delete slot; }

namespace {

void* give(std::span<std::byte> buffer, size_t* bytes) {
    if (bytes != nullptr) *bytes = buffer.size();
    return buffer.data();
}

}  // namespace

void* kelm_slot_input(kelm_slot* slot, size_t* bytes) {
    return give(slot != nullptr ? slot->tensors->input() : std::span<std::byte>(), bytes);
}

void* kelm_slot_output(kelm_slot* slot, size_t* bytes) {
    return give(slot != nullptr ? slot->tensors->output() : std::span<std::byte>(), bytes);
}

void* kelm_slot_aux(kelm_slot* slot, size_t* bytes) {
    return give(slot != nullptr ? slot->tensors->aux() : std::span<std::byte>(), bytes);
}

int kelm_infer_async(kelm_graph* graph, const kelm_task* task, uint64_t* ticket) {
    return guarded([&] {
        if (graph == nullptr) return invalid("there is no graph");
        std::unique_ptr<Task> made;
        if (const int error = makeTask(task, made); error != KELM_SUCCESS) return error;
        uint64_t number = 0;
        return fail(graph->queue->submit(std::move(made), ticket != nullptr ? *ticket : number));
    });
}

int kelm_infer(kelm_graph* graph, const kelm_task* task, kelm_result* result) {
    return guarded([&] {
        if (graph == nullptr) return invalid("there is no graph");
        if (Callbacks::isInside()) return invalid("a callback must not wait for a task");
        std::unique_ptr<Task> made;
        if (const int error = makeTask(task, made); error != KELM_SUCCESS) return error;
        Awaited awaited;
        made->done = &Awaited::tell;
        made->user = &awaited;
        made->endsInPlace = true;
        uint64_t ticket = 0;
        if (const auto error = graph->queue->submit(std::move(made), ticket)) return fail(error);
        return awaited.wait(result);
    });
}

int kelm_cancel(kelm_graph* graph, uint64_t ticket, int* canceled) {
    return guarded([&] {
        if (graph == nullptr) return invalid("there is no graph");
        const auto taken = graph->queue->cancel(ticket, !Callbacks::isInside());
        if (canceled != nullptr) *canceled = taken && taken.value() ? 1 : 0;
        return fail(taken.error());
    });
}

int kelm_aux_decode(const kelm_graph_info* info, uint32_t aux_flags, const void* buffer,
                    size_t bytes, kelm_aux* aux) {
    return guarded([&] {
        kelm_graph_info sizes{};
        if (!readStruct(info, sizes)) return invalid(kBadStruct);
        if (buffer == nullptr || reinterpret_cast<uintptr_t>(buffer) % alignof(float) != 0) {
            return invalid("the auxiliary buffer is null or not aligned to 4 bytes");
        }
        Blocks blocks(buffer, bytes);
        kelm_aux known{};
        uint64_t taken = 0;
        if ((aux_flags & KELM_AUX_TIME_TAKEN) != 0) {
            known.time_taken_ms =
                static_cast<const float*>(blocks.take(sizes.time_taken_bytes, taken));
            known.time_taken_count = static_cast<uint32_t>(taken / sizeof(float));
        }
        if ((aux_flags & KELM_AUX_THERMAL) != 0) {
            known.thermal = blocks.take(sizes.thermal_bytes, known.thermal_bytes);
        }
        if ((aux_flags & KELM_AUX_DEBUG) != 0) {
            known.debug = blocks.take(sizes.debug_bytes, known.debug_bytes);
        }
        known.celsius = std::numeric_limits<float>::quiet_NaN();
        if (known.thermal_bytes >= sizeof(float)) {
            std::memcpy(&known.celsius, known.thermal, sizeof(float));
        }
        return writeStruct(known, aux) ? int{KELM_SUCCESS} : invalid(kBadStruct);
    });
}

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "client/Error.h"

namespace kelm::client {

class ServiceAccess;
class SharedSegment;
class SlotClaim;
class TensorSlot;

// How one tensor reaches the service: by the name of a shared memory object, or by a descriptor
// that is sent along with the request. The descriptor stays the caller's.
struct Tensor {
    enum class Kind { kNone, kSharedMemory, kDescriptor };

    Kind kind = Kind::kNone;
    std::string name = {};
    int fd = -1;
    size_t size = 0;  // bytes
    // The slot whose memory this is; null for memory of the caller's own. The pool gives the slot
    // to nobody else while such a tensor exists.
    std::shared_ptr<TensorSlot> slot = nullptr;
};

// The buffers of one inference: named shared memory, mapped for reading and writing. Each may have
// 0 bytes, and is then not there: its tensor is of kind kNone.
//
// A request keeps the slots of its tensors until the service has told the end of its task, also
// when the call has ended at its deadline: a late result is still written. Until then a further
// request that is to write into the slot ends with kBusy. If the connection ends first, that
// stays so for good, and the pool makes another slot.
//
// Threads: any; what the buffers hold is the caller's affair.
class TensorSlot : public std::enable_shared_from_this<TensorSlot> {
 public:
    ~TensorSlot();  // unmaps, and takes the names away
    TensorSlot(const TensorSlot&) = delete;
    TensorSlot& operator=(const TensorSlot&) = delete;

    std::span<std::byte> input() const;
    std::span<std::byte> output() const;
    std::span<std::byte> aux() const;
    Tensor inputTensor();
    Tensor outputTensor();
    Tensor auxTensor();
    // The names of the buffers' objects; empty for one of 0 bytes.
    const std::string& inputName() const;
    const std::string& outputName() const;
    const std::string& auxName() const;

 private:
    friend class ServiceAccess;
    friend class SlotClaim;
    friend class TensorPool;
    using Segment = std::unique_ptr<SharedSegment>;  // null for a buffer of 0 bytes
    TensorSlot(Segment input, Segment output, Segment aux);
    Tensor tensorOf(const Segment& segment);

    const Segment m_input;
    const Segment m_output;
    const Segment m_aux;
    // Atomics: flags that stand for themselves. Whether a task may still write into the slot, and
    // the user besides the owner who has been let in, if any.
    std::atomic<bool> m_awaited{false};
    std::atomic<int64_t> m_letIn{-1};
};

// Slots of one input, output and auxiliary size. A slot is made when first needed, and used again
// once its handle and its tensors are destroyed and no task may write into it; all are removed with
// the pool and the last handle. Their memory is open to this process's user only, and to the
// account of the service that a request with them is sent to.
//
// What killed processes of the same user have left in shared memory is removed with each pool made.
//
// Threads: any.
class TensorPool {
 public:
    using Handle = std::shared_ptr<TensorSlot>;

    static constexpr size_t kDefaultSlots = 1024;

    // At most `maxSlots` are there at a time; those kept for tasks that have timed out count.
    TensorPool(size_t inputSize, size_t outputSize, size_t maxSlots = kDefaultSlots,
               size_t auxSize = 0);
    ~TensorPool();

    // A free slot, or a new one. kBusy when all are in use, kSystem when shared memory cannot be
    // had.
    Result<Handle> acquire();

 private:
    struct State;
    Result<std::unique_ptr<TensorSlot>> makeSlot() const;

    const size_t m_inputSize;
    const size_t m_outputSize;
    const size_t m_auxSize;
    const std::shared_ptr<State> m_state;
};

}  // namespace kelm::client

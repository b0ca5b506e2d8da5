#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "client/Error.h"

namespace kelm::client {

// How one tensor reaches the service: by the name of a shared memory object, or by a descriptor
// that is sent along with the request. The descriptor stays the caller's.
struct Tensor {
    enum class Kind { kNone, kSharedMemory, kDescriptor };

    Kind kind = Kind::kNone;
    std::string name;
    int fd = -1;
    size_t size = 0;  // bytes
};

// The buffers of one inference: named shared memory, mapped for reading and writing.
class TensorSlot {
 public:
    ~TensorSlot();  // unmaps, and takes the names away
    TensorSlot(const TensorSlot&) = delete;
    TensorSlot& operator=(const TensorSlot&) = delete;

    std::span<std::byte> input() const;
    std::span<std::byte> output() const;
    Tensor inputTensor() const;
    Tensor outputTensor() const;

 private:
    friend class TensorPool;
    class Segment;
    TensorSlot(std::unique_ptr<Segment> input, std::unique_ptr<Segment> output);

    std::unique_ptr<Segment> m_input;
    std::unique_ptr<Segment> m_output;
};

// Slots of one input and output size. A slot is made when first needed, under random names, and
// used again once its handle is destroyed; all are removed with the pool and the last handle.
//
// Threads: any.
class TensorPool {
 public:
    using Handle = std::shared_ptr<TensorSlot>;

    TensorPool(size_t inputSize, size_t outputSize);
    ~TensorPool();

    // A free slot, or a new one. kSystem when shared memory cannot be had.
    Result<Handle> acquire();

 private:
    struct State;
    const size_t m_inputSize;
    const size_t m_outputSize;
    std::shared_ptr<State> m_state;
};

}  // namespace kelm::client

#pragma once

#include "execution/TevoDevice.h"
#include "execution/TevoGraphCache.h"

namespace kelm {

class KelmGraph;

// The strict order of library calls that brings a graph onto a device, and the one that takes it
// off again.
//
// Threads: one at a time, since the library's graph calls must not overlap on a device; the caller
// sees to that.
class TevoGraphLoader : public NonCopyable {
 public:
    explicit TevoGraphLoader(TevoDevice& device) : m_device(device) {}

    // Elements of each queue of a graph that is loaded from now on.
    void setFifoCapacity(unsigned int capacity) { m_fifoCapacity = capacity; }
    // What exists after a failure is released.
    int allocateGraph(KelmGraph* graph, TevoQueues& queues);
    void deallocateGraph(TevoHandles& handles);
    // Bytes of the device's memory.
    int getCurrentMemeoryUsed(unsigned int* used);

 private:
    struct TensorDescriptors;

    int runAllocation(KelmGraph* graph, TevoHandles& handles);
    int sendGraph(KelmGraph* graph, TevoHandles& handles);
    int readDescriptors(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors);
    int readTensorCount(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors);
    int makeFifo(const TensorDescriptors& tensors, qxFifoHandle_t** fifo);
    void destroyGraph(qxGraphHandle_t*& graphHandle);
    void destroyFifo(qxFifoHandle_t*& fifo);

    TevoDevice& m_device;
    unsigned int m_fifoCapacity = 4;
};

}  // namespace kelm

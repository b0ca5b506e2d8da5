#include "execution/TevoGraphLoader.h"

#include <cstdlib>

#include "records/KelmGraph.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

namespace {

constexpr int kGraphExecutors = 2;  // set for each graph; what they are is the library's

// One end of a graph: what to ask of it, and the words for its failures.
struct GraphEnd {
    int countOption;
    void (*logCountFailure)(const std::string& device, int rc, int count);
    const char* memoryFailure;
    int descriptorsOption;
    const char* descriptorsFailure;
    const char* fifoName;
    int fifoType;
    const char* fifoFailure;
};

constexpr GraphEnd kInput = {
    QX_RO_GRAPH_INPUT_COUNT,
    [](const std::string& device, int rc, int count) {
        LOG_ERROR(
            "Error: qxGraphGetOption(QX_RO_GRAPH_INPUT_COUNT) failed, device=%s rc=%d "
            "inputCount=%d",
            device, rc, count);
    },
    "Error: calloc %d input tensor descriptors failed.",
    QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS,
    "Error: qxGraphGetOption(QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS) failed, device=%s rc=%d",
    "fifoIn",
    QX_FIFO_HOST_WO,
    "Error: qxFifoInit(QX_FIFO_HOST_WO) failed, device=%s rc=%d"};

constexpr GraphEnd kOutput = {
    QX_RO_GRAPH_OUTPUT_COUNT,
    [](const std::string& device, int rc, int /*count*/) {
        LOG_ERROR("Error: qxGraphGetOption(QX_RO_GRAPH_OUTPUT_COUNT) failed, device=%s rc=%d",
                  device, rc);
    },
    "Error: calloc %d output tensor descriptors failed.",
    QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS,
    "Error: qxGraphGetOption(QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS) failed, device=%s rc=%d",
    "fifoOut",
    QX_FIFO_HOST_RO,
    "Error: qxFifoInit(QX_FIFO_HOST_RO) failed, device=%s rc=%d"};

}  // namespace

// Deliberate: all descriptors are read, and the first alone is used: a graph with several inputs
// gets one queue, for its first.
struct TevoGraphLoader::TensorDescriptors {
    explicit TensorDescriptors(const GraphEnd& graphEnd) : end(graphEnd) {}

    const GraphEnd& end;
    int count = 0;
    UniqueMalloc<qxTensorDescriptor_t> list;
};

int TevoGraphLoader::allocateGraph(KelmGraph* graph, TevoQueues& queues) {
    const int rc = runAllocation(graph, queues.handles);
    if (rc != KELM_OK) deallocateGraph(queues.handles);
    queues.ledger = std::make_shared<QueueLedger>(m_fifoCapacity);
    return rc;
}

// Each handle is noted as soon as it exists, so that a failure further on can release it.
int TevoGraphLoader::runAllocation(KelmGraph* graph, TevoHandles& handles) {
    if (const int rc = sendGraph(graph, handles)) return rc;
    TensorDescriptors inputs(kInput);
    if (const int rc = readDescriptors(handles.graphHandle, inputs)) return rc;
    TensorDescriptors outputs(kOutput);
    if (const int rc = readDescriptors(handles.graphHandle, outputs)) return rc;
    handles.resultSize = outputs.list[0].totalSize;
    if (const int rc = makeFifo(inputs, &handles.fifoIn)) return rc;
    return makeFifo(outputs, &handles.fifoOut);
}

int TevoGraphLoader::sendGraph(KelmGraph* graph, TevoHandles& handles) {
    const auto create = [&] {
        return m_device.tevo.qxGraphCreate("firstGraph", &handles.graphHandle);
    };
    if (const int rc = m_device.checked(m_device.traced("qxGraphCreate", create),
                                        "Error: qxGraphCreate() failed, device=%s rc=%d")) {
        return rc;
    }
    const auto setExecutors = [&] {
        return m_device.tevo.qxGraphSetOption(handles.graphHandle, QX_GRAPH_EXECUTORS,
                                              &kGraphExecutors, sizeof(kGraphExecutors));
    };
    if (const int rc = m_device.checked(m_device.traced("qxGraphSetOption", setExecutors),
                                        "Error: qxGraphSetOption() failed, device=%s rc=%d")) {
        return rc;
    }
    // Around the allocation: the difference is what the graph takes, which no blob tells.
    unsigned int before = 0;
    if (const int rc = getCurrentMemeoryUsed(&before)) {
        m_device.hardwareResetDevice(rc);
        return rc;
    }
    const auto allocate = [&] {
        return m_device.tevo.qxGraphAllocate(m_device.handle, handles.graphHandle, graph->getData(),
                                             clampLength(graph->getDataSize()));
    };
    if (const int rc = m_device.checked(m_device.traced("qxGraphAllocate", allocate),
                                        "Error: qxGraphAllocate() failed, device=%s rc=%d")) {
        return rc;
    }
    unsigned int after = 0;
    if (const int rc = getCurrentMemeoryUsed(&after)) {
        m_device.hardwareResetDevice(rc);
        return rc;
    }
    // The measured size replaces the estimate, so that the next load needs no guess.
    if (after > before) graph->setMemReq((after - before) >> kMegabyteShift);
    return KELM_OK;
}

int TevoGraphLoader::readDescriptors(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors) {
    if (const int rc = readTensorCount(graphHandle, tensors)) return rc;
    const auto count = static_cast<size_t>(tensors.count);
    // A count beyond what a length can tell gets no memory at all.
    const size_t bytes = count * sizeof(qxTensorDescriptor_t);
    if (bytes == clampLength(bytes)) {
        tensors.list.reset(
            static_cast<qxTensorDescriptor_t*>(std::calloc(count, sizeof(qxTensorDescriptor_t))));
    }
    if (!tensors.list) {  // the service's own trouble: no reason to reset the device
        LOG_ERROR(tensors.end.memoryFailure, tensors.count);
        return kTevoOutOfMemory;
    }
    auto length = static_cast<unsigned int>(bytes);
    const auto read = [&] {
        return m_device.tevo.qxGraphGetOption(graphHandle, tensors.end.descriptorsOption,
                                              tensors.list.get(), &length);
    };
    return m_device.checked(m_device.traced("qxGraphGetOption", read),
                            tensors.end.descriptorsFailure);
}

int TevoGraphLoader::readTensorCount(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors) {
    unsigned int length = sizeof(tensors.count);
    const int rc = m_device.traced("qxGraphGetOption", [&] {
        return m_device.tevo.qxGraphGetOption(graphHandle, tensors.end.countOption, &tensors.count,
                                              &length);
    });
    // The first descriptor is used below without a further look.
    if (rc == KELM_OK && tensors.count >= 1) return KELM_OK;
    tensors.end.logCountFailure(m_device.name, rc, tensors.count);
    const int error = rc != KELM_OK ? rc : KELM_ERROR_INVALID_PARAM;
    m_device.hardwareResetDevice(error);
    return error;
}

// The words for a queue's failures name other functions than those that fail; they are fixed.
int TevoGraphLoader::makeFifo(const TensorDescriptors& tensors, qxFifoHandle_t** fifo) {
    const auto create = [&] {
        return m_device.tevo.qxFifoCreate(tensors.end.fifoName, tensors.end.fifoType, fifo);
    };
    if (const int rc =
            m_device.checked(m_device.traced("qxFifoCreate", create), tensors.end.fifoFailure))
        return rc;
    const auto allocate = [&] {
        return m_device.tevo.qxFifoAllocate(*fifo, m_device.handle, tensors.list.get(),
                                            m_fifoCapacity);
    };
    return m_device.checked(m_device.traced("qxFifoAllocate", allocate),
                            "Error: qxFifoCreate() failed, device=%s rc=%d");
}

// The queues before the graph that uses them.
void TevoGraphLoader::deallocateGraph(TevoHandles& handles) {
    destroyFifo(handles.fifoIn);
    destroyFifo(handles.fifoOut);
    destroyGraph(handles.graphHandle);
}

// A failure may reset the hardware like any other, and the next handle is destroyed all the same.
void TevoGraphLoader::destroyFifo(qxFifoHandle_t*& fifo) {
    if (fifo == nullptr) return;
    const auto destroy = [&] { return m_device.tevo.qxFifoDestroy(&fifo); };
    (void)m_device.checked(
        m_device.traced("qxFifoDestroy", destroy),
        "Error: qxFifoDelete() failed, device=%s rc=%d");  // lost also when it fails
    fifo = nullptr;
}

void TevoGraphLoader::destroyGraph(qxGraphHandle_t*& graphHandle) {
    if (graphHandle == nullptr) return;
    const auto destroy = [&] { return m_device.tevo.qxGraphDestroy(&graphHandle); };
    (void)m_device.checked(
        m_device.traced("qxGraphDestroy", destroy),
        "Error: qxGraphDeallocate() failed, device=%s rc=%d");  // lost also when it fails
    graphHandle = nullptr;
}

int TevoGraphLoader::getCurrentMemeoryUsed(unsigned int* used) {
    const int rc = m_device.getDeviceWord(QX_RO_DEVICE_CURRENT_MEMORY_USED, used);
    if (rc != KELM_OK) {
        LOG_ERROR(
            "Error: qxDeviceGetOption(QX_RO_DEVICE_CURRENT_MEMORY_USED) failed, device=%s rc=%d",
            m_device.name, rc);
    }
    return rc;
}

}  // namespace kelm

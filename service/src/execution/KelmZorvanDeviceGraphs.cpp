// How a graph comes onto the device and leaves it. On the root, under its m_graphMutex.
#include <limits>

#include "execution/KelmZorvanDevice.h"
#include "execution/TevoLengths.h"
#include "records/KelmGraph.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

constexpr int kGraphExecutors = 2;
// A graph takes a little more than its blob.
constexpr double kMemoryMargin = 1.25;

unsigned int withMargin(uint32_t megabytes) {
    const double wanted = megabytes * kMemoryMargin;
    constexpr double kMost = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(wanted, kMost));
}

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
struct KelmZorvanDevice::TensorDescriptors {
    explicit TensorDescriptors(const GraphEnd& graphEnd) : end(graphEnd) {}

    const GraphEnd& end;
    int count = 0;
    UniqueMalloc<qxTensorDescriptor_t> list;
};

int KelmZorvanDevice::allocateGraphImpl(KelmGraph* graph) { return m_root->allocateOnRoot(graph); }

int KelmZorvanDevice::allocateOnRoot(KelmGraph* graph) {
    MutexLock lock(m_graphMutex);
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    if (activateCachedGraph(graph)) return KELM_OK;
    deallocOldestInactiveGraphIfFull(withMargin(graph->getMemReq()));
    TevoQueues queues;
    const int rc = allocateGraph(graph, queues);
    if (rc != KELM_OK) return rc;
    if (!m_cache.insert(graph, queues)) {  // lost to another thread's failure in the meantime
        deallocateGraph(queues.handles);
        return KELM_ERROR_DEVICE_FAILED;
    }
    LOG_PROC_OF(m_logName.c_str(), m_debugProcess,
                "allocate new graph(%s) done, numCachedGraphs=%lu",
                escapeControls(graph->getName()), m_cache.getSize());
    return KELM_OK;
}

bool KelmZorvanDevice::activateCachedGraph(KelmGraph* graph) { return m_cache.activate(graph); }

// A graph whose queues may be full of results that nobody can be sure to read starts anew, with
// empty ones. After a failure the next task tries again.
int KelmZorvanDevice::renewOnRoot(KelmGraph* graph) {
    MutexLock lock(m_graphMutex);
    LOG_WARN("Warn: too many results were not read, graph(%s) is loaded again: device=%s",
             escapeControls(graph->getName()), getName());
    std::optional<TevoHandles> old = m_cache.takeHandles(graph);
    if (!old) return getMissingGraphError();
    deallocateGraph(*old);
    TevoQueues queues;
    if (const int rc = allocateGraph(graph, queues)) return rc;
    if (m_cache.renew(graph, queues)) return KELM_OK;
    deallocateGraph(queues.handles);
    return getMissingGraphError();
}

int KelmZorvanDevice::allocateGraph(KelmGraph* graph, TevoQueues& queues) {
    const int rc = runAllocation(graph, queues.handles);
    if (rc != KELM_OK) deallocateGraph(queues.handles);
    queues.ledger = std::make_shared<QueueLedger>(m_fifoCapacity);
    return rc;
}

int KelmZorvanDevice::runAllocation(KelmGraph* graph, TevoHandles& handles) {
    if (const int rc = sendGraph(graph, handles)) return rc;
    TensorDescriptors inputs(kInput);
    if (const int rc = readDescriptors(handles.graphHandle, inputs)) return rc;
    TensorDescriptors outputs(kOutput);
    if (const int rc = readDescriptors(handles.graphHandle, outputs)) return rc;
    handles.resultSize = outputs.list[0].totalSize;
    if (const int rc = makeFifo(inputs, &handles.fifoIn)) return rc;
    return makeFifo(outputs, &handles.fifoOut);
}

int KelmZorvanDevice::sendGraph(KelmGraph* graph, TevoHandles& handles) {
    const auto create = [&] { return m_tevo.qxGraphCreate("firstGraph", &handles.graphHandle); };
    if (const int rc = checked(traced("qxGraphCreate", create),
                               "Error: qxGraphCreate() failed, device=%s rc=%d")) {
        return rc;
    }
    const auto setExecutors = [&] {
        return m_tevo.qxGraphSetOption(handles.graphHandle, QX_GRAPH_EXECUTORS, &kGraphExecutors,
                                       sizeof(kGraphExecutors));
    };
    if (const int rc = checked(traced("qxGraphSetOption", setExecutors),
                               "Error: qxGraphSetOption() failed, device=%s rc=%d")) {
        return rc;
    }
    unsigned int before = 0;
    if (const int rc = getCurrentMemeoryUsed(&before)) {
        hardwareResetDevice(rc);
        return rc;
    }
    const auto allocate = [&] {
        return m_tevo.qxGraphAllocate(m_deviceHandle, handles.graphHandle, graph->getData(),
                                      clampLength(graph->getDataSize()));
    };
    if (const int rc = checked(traced("qxGraphAllocate", allocate),
                               "Error: qxGraphAllocate() failed, device=%s rc=%d")) {
        return rc;
    }
    unsigned int after = 0;
    if (const int rc = getCurrentMemeoryUsed(&after)) {
        hardwareResetDevice(rc);
        return rc;
    }
    // The measured size replaces the estimate.
    if (after > before) graph->setMemReq((after - before) >> kMegabyteShift);
    return KELM_OK;
}

int KelmZorvanDevice::readDescriptors(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors) {
    if (const int rc = readTensorCount(graphHandle, tensors)) return rc;
    const auto count = static_cast<size_t>(tensors.count);
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
        return m_tevo.qxGraphGetOption(graphHandle, tensors.end.descriptorsOption,
                                       tensors.list.get(), &length);
    };
    return checked(traced("qxGraphGetOption", read), tensors.end.descriptorsFailure);
}

int KelmZorvanDevice::readTensorCount(qxGraphHandle_t* graphHandle, TensorDescriptors& tensors) {
    unsigned int length = sizeof(tensors.count);
    const int rc = traced("qxGraphGetOption", [&] {
        return m_tevo.qxGraphGetOption(graphHandle, tensors.end.countOption, &tensors.count,
                                       &length);
    });
    if (rc == KELM_OK && tensors.count >= 1) return KELM_OK;
    tensors.end.logCountFailure(getName(), rc, tensors.count);
    const int error = rc != KELM_OK ? rc : KELM_ERROR_INVALID_PARAM;
    hardwareResetDevice(error);
    return error;
}

int KelmZorvanDevice::makeFifo(const TensorDescriptors& tensors, qxFifoHandle_t** fifo) {
    const auto create = [&] {
        return m_tevo.qxFifoCreate(tensors.end.fifoName, tensors.end.fifoType, fifo);
    };
    if (const int rc = checked(traced("qxFifoCreate", create), tensors.end.fifoFailure)) return rc;
    const auto allocate = [&] {
        return m_tevo.qxFifoAllocate(*fifo, m_deviceHandle, tensors.list.get(), m_fifoCapacity);
    };
    return checked(traced("qxFifoAllocate", allocate),
                   "Error: qxFifoCreate() failed, device=%s rc=%d");
}

int KelmZorvanDevice::deallocateOnRoot(KelmGraph* graph, bool keepCached) {
    MutexLock lock(m_graphMutex);
    if (keepCached) {
        m_cache.deactivate(graph);
        return KELM_OK;
    }
    std::optional<TevoHandles> handles = m_cache.take(graph);
    // A graph that was evicted after its unload was planned is as good as unloaded; an error would
    // mark the device as failed.
    if (!handles) return KELM_OK;
    deallocateGraph(*handles);
    LOG_PROC_OF(m_logName.c_str(), m_debugProcess, "dealloc graph(%s) done, numCachedGraphs=%lu",
                escapeControls(graph->getName()), m_cache.getSize());
    return KELM_OK;
}

void KelmZorvanDevice::deallocateGraph(TevoHandles& handles) {
    destroyFifo(handles.fifoIn);
    destroyFifo(handles.fifoOut);
    destroyGraph(handles.graphHandle);
}

void KelmZorvanDevice::destroyFifo(qxFifoHandle_t*& fifo) {
    if (fifo == nullptr) return;
    const auto destroy = [&] { return m_tevo.qxFifoDestroy(&fifo); };
    (void)checked(traced("qxFifoDestroy", destroy),
                  "Error: qxFifoDelete() failed, device=%s rc=%d");  // given up either way
    fifo = nullptr;
}

void KelmZorvanDevice::destroyGraph(qxGraphHandle_t*& graphHandle) {
    if (graphHandle == nullptr) return;
    const auto destroy = [&] { return m_tevo.qxGraphDestroy(&graphHandle); };
    (void)checked(traced("qxGraphDestroy", destroy),
                  "Error: qxGraphDeallocate() failed, device=%s rc=%d");  // given up either way
    graphHandle = nullptr;
}

// Deliberate: at most one, so that the limit is soft. Where active graphs fill the cache it grows,
// and where one eviction frees too little the device refuses the allocation.
void KelmZorvanDevice::deallocOldestInactiveGraphIfFull(unsigned int required) {
    unsigned int used = 0;
    if (getCurrentMemeoryUsed(&used) != KELM_OK) return;
    const uint64_t wanted = uint64_t{used >> kMegabyteShift} + required;
    if (wanted < getMemorySize() && static_cast<size_t>(m_maxCachedGraphNum) > m_cache.getSize()) {
        return;
    }
    std::string name;
    std::optional<TevoHandles> handles = m_cache.takeOldestInactive(name);
    if (!handles) return;
    deallocateGraph(*handles);
    LOG_PROC_OF(m_logName.c_str(), m_debugProcess,
                "dealloc oldest cached graph(%s) done, numCachedGraphs=%lu", escapeControls(name),
                m_cache.getSize());
}

int KelmZorvanDevice::getCurrentMemeoryUsed(unsigned int* used) {
    const int rc = getDeviceWord(QX_RO_DEVICE_CURRENT_MEMORY_USED, used);
    if (rc != KELM_OK) {
        LOG_ERROR(
            "Error: qxDeviceGetOption(QX_RO_DEVICE_CURRENT_MEMORY_USED) failed, device=%s rc=%d",
            getName(), rc);
    }
    return rc;
}

}  // namespace kelm

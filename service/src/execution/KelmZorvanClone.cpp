#include "execution/KelmZorvanClone.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "execution/KelmZorvanDevice.h"
#include "execution/TaskBuffers.h"
#include "protocol/src/KelmMessage.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "records/KelmTaskParam.h"
#include "utils/ErrorHelper.h"
#include "utils/MappingGuard.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

namespace {

constexpr const char* kReadElemFailure =
    "Error: qxFifoReadElem() failed, device=%s taskId=%lu rc=%d";

}  // namespace

// An element of the device's queue of results.
struct KelmZorvanClone::Result {
    unsigned int length = 0;         // in: the room; out: bytes
    unsigned long taskIdAttach = 0;  // the task whose input it was
    UniqueMalloc<char> scratch;      // the bytes, if they are not in the client's buffer
};

KelmZorvanClone::KelmZorvanClone(KelmZorvanDevice& root)
    : KelmDeviceBase(&root),
      m_root(root),
      m_device(root.getTevoDevice()),
      m_trace(m_device.trace),
      m_useSystemTensor(root.usesSystemTensor()),
      m_statistics(m_device) {}

std::unique_ptr<KelmDeviceBase> KelmZorvanClone::clone() { return m_root.clone(); }

bool KelmZorvanClone::isHardwareError(int error) { return TevoDevice::isHardwareError(error); }

int KelmZorvanClone::openDevice(const char*) { return KELM_ERROR_DEVICE_ALREADY_OPEN; }

int KelmZorvanClone::closeDeviceImpl() { return KELM_OK; }

// There is one piece of hardware: the root decides whether it has been reset already.
int KelmZorvanClone::hardwareResetDeviceCore() { return m_root.hardwareResetDeviceCore(); }

int KelmZorvanClone::allocateGraphImpl(KelmGraph* graph) { return m_root.loadGraph(graph); }

// Also when the graph stays cached: the next inferences on this clone are those of another graph.
int KelmZorvanClone::deallocateGraphImpl(KelmGraph* graph, bool keepCached) {
    m_statistics.restartWarmup();
    return m_root.unloadGraph(graph, keepCached);
}

void KelmZorvanClone::forgetGraphImpl(KelmGraph* graph) { m_root.dropGraph(graph); }

int KelmZorvanClone::getMissingGraphError() const {
    return isFailed() ? KELM_ERROR_DEVICE_FAILED : KELM_ERROR_INVALID_PARAM;
}

bool KelmZorvanClone::isIonPath(const KelmBuffer& buffer) const {
    return !m_useSystemTensor && buffer.type == KELM_BUFFER_ION;
}

void KelmZorvanClone::abandonResult(KelmTask* task) {
    const std::optional<TevoQueues> queues = m_root.getTevoGraphInfo(task->getGraph());
    if (queues) queues->ledger->abandon(task->getId());
}

int KelmZorvanClone::loadTensorImpl(KelmTask* task) {
    KelmTaskParam& param = *task->getTaskParam();
    if (!TaskBuffers::verifyBuffer(param.getInputBuffer())) return KELM_ERROR_INVALID_INPUT_BUFFER;
    // A result without a place would stay in the device's queue and be read by the next task,
    // perhaps of another client: so the other buffers are checked before the input is written.
    if (const int rc = TaskBuffers::verifyResultBuffers(param)) return rc;
    TevoQueues queues;
    if (const int rc = prepareQueues(task->getGraph(), queues)) return rc;
    const TevoHandles& handles = queues.handles;
    qxTensorDescriptor_t descriptor = {};
    if (const int rc = getInputDescriptor(handles, descriptor)) return rc;
    const int written = isIonPath(param.getInputBuffer())
                            ? loadTensorIon(task, handles, descriptor)
                            : loadTensorRaw(task, handles, descriptor);
    if (written != KELM_OK) return written;
    // Two steps, since the inference may be refused behind an input that is in the queue already.
    queues.ledger->addInput(task->getId());
    if (const int rc = queueInference(handles)) return rc;
    queues.ledger->addInference();
    return KELM_OK;
}

// One step for each turn of the loop, then the ledger is asked anew: the result thread reads on
// meanwhile. A renewed graph has empty queues, so that the loop ends.
int KelmZorvanClone::prepareQueues(KelmGraph* graph, TevoQueues& queues) {
    for (;;) {
        std::optional<TevoQueues> found = m_root.getTevoGraphInfo(graph);
        if (!found) return getMissingGraphError();
        queues = std::move(*found);
        int rc = KELM_OK;
        switch (queues.isUsable() ? queues.ledger->getNextStep() : QueueLedger::NextStep::kRenew) {
            case QueueLedger::NextStep::kWrite:
                return KELM_OK;
            case QueueLedger::NextStep::kQueueInference:
                rc = queueInference(queues.handles);
                if (rc == KELM_OK) queues.ledger->makeUpInference();
                break;
            case QueueLedger::NextStep::kDrain:
                rc = drainUnread(queues);
                break;
            case QueueLedger::NextStep::kRenew:
                rc = m_root.renewGraph(graph);
                break;
            case QueueLedger::NextStep::kGiveUp:
                rc = getMissingGraphError();
        }
        if (rc != KELM_OK) return rc;
    }
}

int KelmZorvanClone::getInputDescriptor(const TevoHandles& handles,
                                        qxTensorDescriptor_t& descriptor) {
    LOG_TASK("to call qxFifoGetOption(QX_RO_FIFO_TENSOR_DESCRIPTOR), fifoIn=%p", handles.fifoIn);
    LOG_TASK("to call qxFifoGetOption(), fifoIn=%p option=QX_RO_FIFO_TENSOR_DESCRIPTOR",
             handles.fifoIn);
    unsigned int length = sizeof(descriptor);
    const int rc = m_device.tevo.qxFifoGetOption(handles.fifoIn, QX_RO_FIFO_TENSOR_DESCRIPTOR,
                                                 &descriptor, &length);
    LOG_TASK(
        "called qxFifoGetOption(), fifoIn=%p tensorDesc={ .n=%u .c=%u .w=%u .h=%u "
        ".totalSize=%u }",
        handles.fifoIn, descriptor.n, descriptor.c, descriptor.w, descriptor.h,
        descriptor.totalSize);
    if (rc != KELM_OK) {
        return m_device.checked(rc, "Error: qxFifoGetOption() failed, device=%s rc=%d");
    }
    if (length == sizeof(descriptor)) return KELM_OK;
    LOG_ERROR("Error: qxFifoGetOption() failed, error=UNMATCH_TENSOR_DISCRIPTOR_LENGTH");
    m_device.hardwareResetDevice(KELM_OK);  // resets nothing, and logs that
    return KELM_ERROR_TENSOR_DESCRIPTOR_MISMATCH;
}

int KelmZorvanClone::loadTensorRaw(KelmTask* task, const TevoHandles& handles,
                                   qxTensorDescriptor_t& descriptor) {
    KelmBuffer& input = task->getTaskParam()->getInputBuffer();
    LOG_DEBUG("[TrackFd] map: clientId=%lu graphId=%lu taskId=%lu inFd=%d", task->getClientId(),
              task->getGraph()->getId(), task->getId(), input.fd);
    if (!TaskBuffers::mapBuffer(*task->getTaskParam(), input, FileRights::READ)) {
        LOG_ERROR("Error: map inputTensor failed, device=%s taskId=%lu", m_device.name,
                  task->getId());
        return KELM_ERROR_MAP_INPUT_FAILED;
    }
    // The library reads as many bytes as the graph wants, past the end of a shorter mapping too.
    if (input.size < descriptor.totalSize) {
        LOG_ERROR("Error: invalid buffer size %lu", input.size);
        return KELM_ERROR_INVALID_INPUT_BUFFER;
    }
    const auto* const data = reinterpret_cast<const char*>(input.buffer);
    // Deliberate: the input is copied, and yet the mapping is what the library gets. The copy is
    // part of the path. It has the size that the graph wants, since a client can claim any size of
    // its buffer at no cost.
    if (!m_inputCopy.take(data, descriptor.totalSize)) {
        LOG_ERROR("Error: allocate tensorData error");
        return KELM_ERROR_OUT_OF_MEMORY;
    }
    // The client may have shortened its memory during the copy. A shortening during the write below
    // is found with the result.
    if (MappingGuard::isLost(data)) return KELM_ERROR_MAP_INPUT_FAILED;
    LOG_TASK(
        "to call qxFifoWriteElem(), fifoIn=%p taskId=%lu inputTensor=%p inputLength=%lu "
        "tensorDesc.totalSize=%u",
        handles.fifoIn, task->getId(), static_cast<const void*>(data), input.size,
        descriptor.totalSize);
    const int rc =
        m_device.tevo.qxFifoWriteElem(handles.fifoIn, data, &descriptor.totalSize, task->getId());
    LOG_TASK("called qxFifoWriteElem()");
    return m_device.checked(rc, "Error: qxFifoWriteElem() failed, device=%s taskId=%lu rc=%d",
                            task);
}

// By the descriptor: the tensor is neither mapped nor copied in this process.
int KelmZorvanClone::loadTensorIon(KelmTask* task, const TevoHandles& handles,
                                   qxTensorDescriptor_t& descriptor) {
    const KelmBuffer& input = task->getTaskParam()->getInputBuffer();
    LOG_TASK(
        "to call qxFifoWriteIonElem(), fifoIn=%p taskId=%lu shareFd=%d mapData=%p "
        "inputLength=%lu tensorDesc.totalSize=%u",
        handles.fifoIn, task->getId(), input.fd, reinterpret_cast<const void*>(input.buffer),
        input.size, descriptor.totalSize);
    const int rc = m_device.tevo.qxFifoWriteIonElem(handles.fifoIn, input.fd, &descriptor.totalSize,
                                                    task->getId());
    LOG_TASK("called qxFifoWriteIonElem()");
    return m_device.checked(rc, "Error: qxFifoWriteIonElem() failed, device=%s taskId=%lu rc=%d",
                            task);
}

// The handles by value: the library wants the addresses of variables that hold the queues.
int KelmZorvanClone::queueInference(TevoHandles handles) {
    LOG_TASK("to call qxGraphQueueInference(), graphHandle=%p fifoIn=%p fifoOut=%p",
             handles.graphHandle, handles.fifoIn, handles.fifoOut);
    const int rc = m_device.tevo.qxGraphQueueInference(handles.graphHandle, &handles.fifoIn, 1,
                                                       &handles.fifoOut, 1);
    LOG_TASK("called qxGraphQueueInference()");
    return m_device.checked(rc, "Error: qxGraphQueueInference() failed, device=%s rc=%d");
}

int KelmZorvanClone::drainUnread(const TevoQueues& queues) {
    Result result;
    const int rc = readScratch(queues.handles, result);
    if (rc == KELM_OK) {
        queues.ledger->addDrained(result.taskIdAttach);
        warnDropped(result);
        return KELM_OK;
    }
    queues.ledger->addFailedReading();
    (void)m_device.checked(rc, "Error: qxFifoReadElem() failed, device=%s rc=%d");
    // Any other failure leaves the result in doubt, and the ledger names the next step.
    return TevoDevice::isHardwareError(rc) ? rc : KELM_OK;
}

// The queues are looked up anew: the device may have been lost since the input, with its graphs.
int KelmZorvanClone::getResultImpl(KelmTask* task) {
    KelmTaskParam& param = *task->getTaskParam();
    if (const int rc = TaskBuffers::verifyResultBuffers(param)) return rc;
    const std::optional<TevoQueues> queues = m_root.getTevoGraphInfo(task->getGraph());
    if (!queues) return getMissingGraphError();
    QueueLedger::Turn turn(queues->ledger, task->getId());
    if (!turn) return getMissingGraphError();
    const KelmBuffer& aux = param.getAuxBuffer();
    const bool byDescriptor =
        isIonPath(param.getOutputBuffer()) && (aux.auxRequested == 0 || isIonPath(aux));
    int rc = byDescriptor ? getResultIon(task, queues->handles, turn)
                          : getResultRaw(task, queues->handles, turn);
    // Last of all: memory that the client shortens while the result is written is found here.
    if (rc == KELM_OK) rc = TaskBuffers::verifyMappings(param);
    m_statistics.countResult();
    return rc;
}

int KelmZorvanClone::readScratch(const TevoHandles& handles, Result& result) {
    result.length = handles.resultSize;
    if (!result.scratch) {
        result.scratch.reset(static_cast<char*>(std::malloc(std::max(result.length, 1u))));
    }
    // Nothing is read without room for it: what then became of the result would be unknown.
    if (!result.scratch) return KELM_ERROR_OUT_OF_MEMORY;
    return m_device.tevo.qxFifoReadElem(handles.fifoOut, result.scratch.get(), &result.length,
                                        &result.taskIdAttach);
}

void KelmZorvanClone::warnDropped(const Result& result) {
    LOG_WARN("Warn: result of task(%lu) dropped, nobody waits for it: device=%s",
             result.taskIdAttach, m_device.name);
}

// As long as results of others may come first, perhaps of other clients, the reading keeps out of
// this client's buffer.
template <class Read>
int KelmZorvanClone::readResult(KelmTask* task, const TevoHandles& handles, QueueLedger::Turn& turn,
                                Result& result, Read read) {
    const unsigned int room = result.length;
    while (!turn.isNext()) {
        if (const int rc = readScratch(handles, result)) {
            turn.addFailedReading();
            return m_device.checked(rc, kReadElemFailure, task);
        }
        // The library may name more bytes than it was given room for.
        result.length = std::min(result.length, handles.resultSize);
        if (turn.addResult(result.taskIdAttach) != QueueLedger::Outcome::kDropped) return KELM_OK;
        warnDropped(result);
    }
    result.scratch.reset();
    result.length = room;
    if (const int rc = read()) {
        turn.addFailedReading();
        return rc;
    }
    result.length = std::min(result.length, room);
    (void)turn.addResult(result.taskIdAttach);  // this task gets it, whichever it is of
    return KELM_OK;
}

// Mapped before the reading: without a mapping the result is read off the queue into other memory.
int KelmZorvanClone::getResultRaw(KelmTask* task, const TevoHandles& handles,
                                  QueueLedger::Turn& turn) {
    KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    LOG_DEBUG("[TrackFd] map: clientId=%lu graphId=%lu taskId=%lu outFd=%d", task->getClientId(),
              task->getGraph()->getId(), task->getId(), output.fd);
    if (!TaskBuffers::mapBuffer(*task->getTaskParam(), output, FileRights::WRITE)) {
        return drainResult(task, handles, turn);
    }
    void* const data = reinterpret_cast<void*>(output.buffer);
    Result result;
    result.length = clampLength(output.size);
    const auto read = [&] {
        LOG_TASK(
            "to call qxFifoReadElem(), taskId=%lu outBuf.mapData=%p outBuf.size=%lu "
            "fifoOut=%p",
            task->getId(), data, output.size, handles.fifoOut);
        const int status = m_device.tevo.qxFifoReadElem(handles.fifoOut, data, &result.length,
                                                        &result.taskIdAttach);
        LOG_TASK("called qxFifoReadElem(), outBuf.size=%llu taskIdAttach=%lu", output.size,
                 result.taskIdAttach);
        return m_device.checked(status, kReadElemFailure, task);
    };
    if (const int rc = readResult(task, handles, turn, result, read)) return rc;
    return finishResult(task, handles, result);
}

// The result must leave the device's queue all the same, or the next task would get it.
int KelmZorvanClone::drainResult(KelmTask* task, const TevoHandles& handles,
                                 QueueLedger::Turn& turn) {
    const KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    LOG_ERROR("Error: map outputBuffer failed, device=%s taskId=%lu", m_device.name, task->getId());
    if (output.size == 0) {
        LOG_ERROR("Error: invalid outputBufferSize(%d): taskId=%lu", output.size, task->getId());
    }
    CR_ASSERT(output.size != 0, "a buffer of no size passed the check");
    Result result;
    const auto read = [&] {
        return m_device.checked(readScratch(handles, result), kReadElemFailure, task);
    };
    (void)readResult(task, handles, turn, result, read);  // the task fails either way
    LOG_INFO("In spite of map failure, get result: taskIdOrigin=%lu taskIdAttach=%lu",
             task->getId(), result.taskIdAttach);
    return KELM_ERROR_MAP_OUTPUT_FAILED;
}

int KelmZorvanClone::getResultIon(KelmTask* task, const TevoHandles& handles,
                                  QueueLedger::Turn& turn) {
    const KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    Result result;
    result.length = clampLength(output.size);
    const auto read = [&] {
        LOG_TASK("to call qxFifoReadIonElem(), fifoOut=%p taskId=%lu outputFd=%d bufSize=%lu",
                 handles.fifoOut, task->getId(), output.fd, output.size);
        const int status = m_device.tevo.qxFifoReadIonElem(handles.fifoOut, output.fd,
                                                           &result.length, &result.taskIdAttach);
        LOG_TASK("called qxFifoReadIonElem(), outBufSize=%u taskIdAttach=%lu", result.length,
                 result.taskIdAttach);
        return m_device.checked(
            status, "Error: qxFifoReadIonElem() failed, device=%s taskId=%lu rc=%d", task);
    };
    if (const int rc = readResult(task, handles, turn, result, read)) return rc;
    return finishResult(task, handles, result);
}

// The result was read while others could come first; only then was it known to be this task's.
int KelmZorvanClone::copyResult(KelmTask* task, const Result& result) {
    KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    if (!TaskBuffers::mapBuffer(*task->getTaskParam(), output, FileRights::WRITE)) {
        LOG_ERROR("Error: map outputBuffer failed, device=%s taskId=%lu", m_device.name,
                  task->getId());
        return KELM_ERROR_MAP_OUTPUT_FAILED;
    }
    if (output.size < result.length) {
        LOG_ERROR("Error: invalid buffer size %lu", output.size);
        return KELM_ERROR_INVALID_OUTPUT_BUFFER;
    }
    std::memcpy(reinterpret_cast<void*>(output.buffer), result.scratch.get(), result.length);
    return KELM_OK;
}

int KelmZorvanClone::finishResult(KelmTask* task, const TevoHandles& handles,
                                  const Result& result) {
    if (result.scratch) {
        if (const int rc = copyResult(task, result)) return rc;
    }
    // Deliberate: the task gets what came out, and only the log tells.
    if (result.taskIdAttach != task->getId()) {
        LOG_WARN(
            "Warn: unmatched task sequence: device=%s taskIdOrigin=%lu "
            "taskIdAttach=%lu",
            m_device.name, task->getId(), result.taskIdAttach);
    }
    KelmBuffer& aux = task->getTaskParam()->getAuxBuffer();
    if (aux.auxRequested != 0) {
        LOG_DEBUG("[TrackFd] map: clientId=%lu graphId=%lu taskId=%lu auxFd=%d",
                  task->getClientId(), task->getGraph()->getId(), task->getId(), aux.fd);
        const int rc = m_statistics.getAuxBufferData(handles.graphHandle, *task->getTaskParam(),
                                                     getCurrentGraph());
        LOG_TASK("device=%s taskId=%lu outputBufferLen=%u auxBufferLen=%lu", m_device.name,
                 task->getId(), result.length, aux.size);
        if (rc != KELM_OK) return rc;
    } else {
        LOG_TASK("device=%s taskId=%lu outputBufferLen=%u", m_device.name, task->getId(),
                 result.length);
    }
    return updateStatistics(handles.graphHandle);
}

// A failure here is the task's, though its result is complete.
int KelmZorvanClone::updateStatistics(qxGraphHandle_t* graphHandle) {
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    if (const int rc = m_root.updateThermalIfDue()) return rc;
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    return m_statistics.updateInferenceTimeInfo(graphHandle, getCurrentGraph());
}

}  // namespace kelm

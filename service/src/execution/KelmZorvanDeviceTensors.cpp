// How a task's input reaches the device: by descriptor, with nothing mapped or copied here, or raw,
// from a mapping of the client's buffer.
#include <cstring>

#include "execution/KelmZorvanDevice.h"
#include "execution/TevoLengths.h"
#include "protocol/src/KelmMessage.h"
#include "records/BufferAllocator.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "records/KelmTaskParam.h"
#include "utils/MappingGuard.h"
#include "utils/ShareMemory.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

bool mapIonBuffer(KelmBuffer& buffer) {
    (void)BufferAllocator::instance().import(buffer.fd, &buffer);  // has logged why
    if (buffer.buffer != 0) return true;
    LOG_ERROR("Error: ion buffer(shareFd=%d) mapping failed", buffer.fd);
    return false;
}

// The mapping belongs to the buffer, whose task gives it back.
bool mapShareMemory(KelmBuffer& buffer, const PeerCredentials& peer, FileRights::Access wanted) {
    const std::string name = StringHelper::readBounded(buffer.name);
    auto shareMemory = std::make_unique<ShareMemory>();
    void* const data = shareMemory->openFor(peer, wanted, name.c_str(), buffer.size);
    if (data == nullptr) {
        LOG_ERROR("Error: share memory buffer('%s') mapping failed", escapeControls(name));
        return false;
    }
    buffer.buffer = reinterpret_cast<uint64_t>(data);
    buffer.shareMemory = reinterpret_cast<uint64_t>(shareMemory.release());
    return true;
}

}  // namespace

bool KelmZorvanDevice::verifyBuffer(const KelmBuffer& buffer) {
    if (buffer.size == 0) {
        LOG_ERROR("Error: invalid buffer size %lu", buffer.size);
        return false;
    }
    if (buffer.type == KELM_BUFFER_ION && buffer.fd <= 0) {
        LOG_ERROR("Error: invalid shareFd %d", buffer.fd);
        return false;
    }
    return true;
}

bool KelmZorvanDevice::mapBuffer(const KelmTaskParam& param, KelmBuffer& buffer,
                                 FileRights::Access wanted) {
    if (buffer.buffer != 0) return true;
    if (buffer.type == KELM_BUFFER_ION) return mapIonBuffer(buffer);
    if (buffer.type == KELM_BUFFER_SHARE_MEMORY) {
        return mapShareMemory(buffer, param.getPeer(), wanted);
    }
    return false;
}

bool KelmZorvanDevice::isIonPath(const KelmBuffer& buffer) const {
    return !m_useSystemTensor && buffer.type == KELM_BUFFER_ION;
}

std::optional<TevoQueues> KelmZorvanDevice::getTevoGraphInfo(KelmGraph* graph) {
    return m_root->m_cache.find(graph);
}

// A device that was lost since the task came has no graphs any more.
int KelmZorvanDevice::getMissingGraphError() const {
    return isFailed() ? KELM_ERROR_DEVICE_FAILED : KELM_ERROR_INVALID_PARAM;
}

int KelmZorvanDevice::checked(int rc, const char* failure, KelmTask* task) {
    if (rc == KELM_OK) return KELM_OK;
    LOG_ERROR(failure, getName(), task->getId(), rc);
    hardwareResetDevice(rc);
    return rc;
}

int KelmZorvanDevice::loadTensorImpl(KelmTask* task) {
    KelmTaskParam& param = *task->getTaskParam();
    if (!verifyBuffer(param.getInputBuffer())) return KELM_ERROR_INVALID_INPUT_BUFFER;
    // A result that could not be taken would stay in the device's queue and go to the next task,
    // perhaps of another client: so the other buffers are looked at before the input goes in.
    if (const int rc = verifyResultBuffers(param)) return rc;
    TevoQueues queues;
    if (const int rc = prepareQueues(task->getGraph(), queues)) return rc;
    const TevoHandles& handles = queues.handles;
    qxTensorDescriptor_t descriptor = {};
    if (const int rc = getInputDescriptor(handles, descriptor)) return rc;
    const int written = isIonPath(param.getInputBuffer())
                            ? loadTensorIon(task, handles, descriptor)
                            : loadTensorRaw(task, handles, descriptor);
    if (written != KELM_OK) return written;
    queues.ledger->addInput(task->getId());
    if (const int rc = queueInference(handles)) return rc;
    queues.ledger->addInference();
    return KELM_OK;
}

int KelmZorvanDevice::prepareQueues(KelmGraph* graph, TevoQueues& queues) {
    for (;;) {
        std::optional<TevoQueues> found = getTevoGraphInfo(graph);
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
                rc = m_root->renewOnRoot(graph);
                break;
            case QueueLedger::NextStep::kGiveUp:
                rc = getMissingGraphError();
        }
        if (rc != KELM_OK) return rc;
    }
}

int KelmZorvanDevice::getInputDescriptor(const TevoHandles& handles,
                                         qxTensorDescriptor_t& descriptor) {
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxFifoGetOption(QX_RO_FIFO_TENSOR_DESCRIPTOR), fifoIn=%p", handles.fifoIn);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxFifoGetOption(), fifoIn=%p option=QX_RO_FIFO_TENSOR_DESCRIPTOR",
                handles.fifoIn);
    unsigned int length = sizeof(descriptor);
    const int rc =
        m_tevo.qxFifoGetOption(handles.fifoIn, QX_RO_FIFO_TENSOR_DESCRIPTOR, &descriptor, &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxFifoGetOption(), fifoIn=%p tensorDesc={ .n=%u .c=%u .w=%u .h=%u "
                ".totalSize=%u }",
                handles.fifoIn, descriptor.n, descriptor.c, descriptor.w, descriptor.h,
                descriptor.totalSize);
    if (rc != KELM_OK) {
        return checked(rc, "Error: qxFifoGetOption() failed, device=%s rc=%d");
    }
    if (length == sizeof(descriptor)) return KELM_OK;
    LOG_ERROR("Error: qxFifoGetOption() failed, error=UNMATCH_TENSOR_DISCRIPTOR_LENGTH");
    hardwareResetDevice(KELM_OK);  // only says so
    return KELM_ERROR_TENSOR_DESCRIPTOR_MISMATCH;
}

int KelmZorvanDevice::loadTensorRaw(KelmTask* task, const TevoHandles& handles,
                                    qxTensorDescriptor_t& descriptor) {
    KelmBuffer& input = task->getTaskParam()->getInputBuffer();
    LOG_DEBUG("[TrackFd] map: clientId=%lu graphId=%lu taskId=%lu inFd=%d", task->getClientId(),
              task->getGraph()->getId(), task->getId(), input.fd);
    if (!mapBuffer(*task->getTaskParam(), input, FileRights::READ)) {
        LOG_ERROR("Error: map inputTensor failed, device=%s taskId=%lu", getName(), task->getId());
        return KELM_ERROR_MAP_INPUT_FAILED;
    }
    // The library reads as much as the graph wants, whatever is there.
    if (input.size < descriptor.totalSize) {
        LOG_ERROR("Error: invalid buffer size %lu", input.size);
        return KELM_ERROR_INVALID_INPUT_BUFFER;
    }
    const auto* const data = reinterpret_cast<const char*>(input.buffer);
    // Deliberate: the input is copied, and the mapping is what goes to the library. The copy is
    // part of the path; it takes what the graph wants, since a client can claim any size at no
    // cost.
    UniqueMalloc<char> tensorData(static_cast<char*>(std::malloc(descriptor.totalSize)));
    if (!tensorData && descriptor.totalSize > 0) {
        LOG_ERROR("Error: allocate tensorData error");
        return KELM_ERROR_OUT_OF_MEMORY;
    }
    if (tensorData) {
        std::memcpy(tensorData.get(), data, descriptor.totalSize);
        asm volatile("" : : "r"(tensorData.get()) : "memory");  // or the compiler leaves it out
    }
    // Shortened by the client meanwhile. Later than here it only shows with the result.
    if (MappingGuard::isLost(data)) return KELM_ERROR_MAP_INPUT_FAILED;
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxFifoWriteElem(), fifoIn=%p taskId=%lu inputTensor=%p inputLength=%lu "
                "tensorDesc.totalSize=%u",
                handles.fifoIn, task->getId(), static_cast<const void*>(data), input.size,
                descriptor.totalSize);
    const int rc =
        m_tevo.qxFifoWriteElem(handles.fifoIn, data, &descriptor.totalSize, task->getId());
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess, "called qxFifoWriteElem()");
    return checked(rc, "Error: qxFifoWriteElem() failed, device=%s taskId=%lu rc=%d", task);
}

int KelmZorvanDevice::loadTensorIon(KelmTask* task, const TevoHandles& handles,
                                    qxTensorDescriptor_t& descriptor) {
    const KelmBuffer& input = task->getTaskParam()->getInputBuffer();
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxFifoWriteIonElem(), fifoIn=%p taskId=%lu shareFd=%d mapData=%p "
                "inputLength=%lu tensorDesc.totalSize=%u",
                handles.fifoIn, task->getId(), input.fd,
                reinterpret_cast<const void*>(input.buffer), input.size, descriptor.totalSize);
    const int rc =
        m_tevo.qxFifoWriteIonElem(handles.fifoIn, input.fd, &descriptor.totalSize, task->getId());
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess, "called qxFifoWriteIonElem()");
    return checked(rc, "Error: qxFifoWriteIonElem() failed, device=%s taskId=%lu rc=%d", task);
}

int KelmZorvanDevice::queueInference(TevoHandles handles) {
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxGraphQueueInference(), graphHandle=%p fifoIn=%p fifoOut=%p",
                handles.graphHandle, handles.fifoIn, handles.fifoOut);
    const int rc =
        m_tevo.qxGraphQueueInference(handles.graphHandle, &handles.fifoIn, 1, &handles.fifoOut, 1);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess, "called qxGraphQueueInference()");
    return checked(rc, "Error: qxGraphQueueInference() failed, device=%s rc=%d");
}

}  // namespace kelm

// How a task's result comes back.
#include <algorithm>
#include <cstring>

#include "execution/KelmZorvanDevice.h"
#include "execution/TevoLengths.h"
#include "protocol/src/KelmMessage.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "records/KelmTaskParam.h"
#include "utils/ErrorHelper.h"
#include "utils/MappingGuard.h"

namespace kelm {

namespace {

constexpr const char* kReadElemFailure =
    "Error: qxFifoReadElem() failed, device=%s taskId=%lu rc=%d";

}  // namespace

// What came out of the device's queue.
struct KelmZorvanDevice::Result {
    unsigned int length = 0;         // in: the room; out: bytes
    unsigned long taskIdAttach = 0;  // the task whose input it was
    UniqueMalloc<char> scratch;      // the bytes, if they did not go into the client's buffer
};

int KelmZorvanDevice::verifyResultBuffers(KelmTaskParam& param) {
    if (!verifyBuffer(param.getOutputBuffer())) return KELM_ERROR_INVALID_OUTPUT_BUFFER;
    const KelmBuffer& aux = param.getAuxBuffer();
    if (aux.auxRequested != 0 && !verifyBuffer(aux)) return KELM_ERROR_INVALID_AUX_BUFFER;
    return KELM_OK;
}

int KelmZorvanDevice::verifyMappings(KelmTaskParam& param) {
    const struct {
        const KelmBuffer& buffer;
        int error;
    } rows[] = {{param.getInputBuffer(), KELM_ERROR_MAP_INPUT_FAILED},
                {param.getOutputBuffer(), KELM_ERROR_MAP_OUTPUT_FAILED},
                {param.getAuxBuffer(), KELM_ERROR_MAP_AUX_FAILED}};
    for (const auto& [buffer, error] : rows) {
        if (buffer.buffer == 0) continue;  // not mapped
        if (MappingGuard::isLost(reinterpret_cast<const void*>(buffer.buffer))) return error;
    }
    return KELM_OK;
}

int KelmZorvanDevice::getResultImpl(KelmTask* task) {
    KelmTaskParam& param = *task->getTaskParam();
    if (const int rc = verifyResultBuffers(param)) return rc;
    const std::optional<TevoQueues> queues = getTevoGraphInfo(task->getGraph());
    if (!queues) return getMissingGraphError();
    QueueLedger::Turn turn(queues->ledger, task->getId());
    if (!turn) return getMissingGraphError();
    const KelmBuffer& aux = param.getAuxBuffer();
    const bool byDescriptor =
        isIonPath(param.getOutputBuffer()) && (aux.auxRequested == 0 || isIonPath(aux));
    int rc = byDescriptor ? getResultIon(task, queues->handles, turn)
                          : getResultRaw(task, queues->handles, turn);
    if (rc == KELM_OK) rc = verifyMappings(param);
    const int32_t warmup = m_inferTimeWarmup;
    if (warmup != 0) m_inferTimeWarmup = warmup - 1;
    return rc;
}

void KelmZorvanDevice::abandonResult(KelmTask* task) {
    const std::optional<TevoQueues> queues = getTevoGraphInfo(task->getGraph());
    if (queues) queues->ledger->abandon(task->getId());
}

int KelmZorvanDevice::readScratch(const TevoHandles& handles, Result& result) {
    result.length = handles.resultSize;
    if (!result.scratch) {
        result.scratch.reset(static_cast<char*>(std::malloc(std::max(result.length, 1u))));
    }
    // Nothing is read without room for it: what then became of the result would be unknown.
    if (!result.scratch) return KELM_ERROR_OUT_OF_MEMORY;
    return m_tevo.qxFifoReadElem(handles.fifoOut, result.scratch.get(), &result.length,
                                 &result.taskIdAttach);
}

int KelmZorvanDevice::drainUnread(const TevoQueues& queues) {
    Result result;
    const int rc = readScratch(queues.handles, result);
    if (rc == KELM_OK) {
        queues.ledger->addDrained(result.taskIdAttach);
        warnDropped(result);
        return KELM_OK;
    }
    queues.ledger->addFailedReading();
    (void)checked(rc, "Error: qxFifoReadElem() failed, device=%s rc=%d");
    return isHardwareError(rc) ? rc : KELM_OK;  // else the ledger knows what to do next
}

void KelmZorvanDevice::warnDropped(const Result& result) {
    LOG_WARN("Warn: result of task(%lu) dropped, nobody waits for it: device=%s",
             result.taskIdAttach, getName());
}

// As long as results of others may come first, perhaps of other clients, the reading keeps out of
// this client's buffer.
template <class Read>
int KelmZorvanDevice::readResult(KelmTask* task, const TevoHandles& handles,
                                 QueueLedger::Turn& turn, Result& result, Read read) {
    const unsigned int room = result.length;
    while (!turn.isNext()) {
        if (const int rc = readScratch(handles, result)) {
            turn.addFailedReading();
            return checked(rc, kReadElemFailure, task);
        }
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
    (void)turn.addResult(result.taskIdAttach);  // whosever it is, it goes to this task
    return KELM_OK;
}

int KelmZorvanDevice::getResultRaw(KelmTask* task, const TevoHandles& handles,
                                   QueueLedger::Turn& turn) {
    KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    LOG_DEBUG("[TrackFd] map: clientId=%lu graphId=%lu taskId=%lu outFd=%d", task->getClientId(),
              task->getGraph()->getId(), task->getId(), output.fd);
    if (!mapBuffer(*task->getTaskParam(), output, FileRights::WRITE)) {
        return drainResult(task, handles, turn);
    }
    void* const data = reinterpret_cast<void*>(output.buffer);
    Result result;
    result.length = clampLength(output.size);
    const auto read = [&] {
        LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                    "to call qxFifoReadElem(), taskId=%lu outBuf.mapData=%p outBuf.size=%lu "
                    "fifoOut=%p",
                    task->getId(), data, output.size, handles.fifoOut);
        const int status =
            m_tevo.qxFifoReadElem(handles.fifoOut, data, &result.length, &result.taskIdAttach);
        LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                    "called qxFifoReadElem(), outBuf.size=%llu taskIdAttach=%lu", output.size,
                    result.taskIdAttach);
        return checked(status, kReadElemFailure, task);
    };
    if (const int rc = readResult(task, handles, turn, result, read)) return rc;
    return finishResult(task, handles, result);
}

// The result must leave the device's queue all the same, or the next task would get it.
int KelmZorvanDevice::drainResult(KelmTask* task, const TevoHandles& handles,
                                  QueueLedger::Turn& turn) {
    const KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    LOG_ERROR("Error: map outputBuffer failed, device=%s taskId=%lu", getName(), task->getId());
    if (output.size == 0) {
        LOG_ERROR("Error: invalid outputBufferSize(%d): taskId=%lu", output.size, task->getId());
    }
    CR_ASSERT(output.size != 0, "a buffer of no size passed the check");
    Result result;
    const auto read = [&] { return checked(readScratch(handles, result), kReadElemFailure, task); };
    (void)readResult(task, handles, turn, result, read);  // the task fails either way
    LOG_INFO("In spite of map failure, get result: taskIdOrigin=%lu taskIdAttach=%lu",
             task->getId(), result.taskIdAttach);
    return KELM_ERROR_MAP_OUTPUT_FAILED;
}

int KelmZorvanDevice::getResultIon(KelmTask* task, const TevoHandles& handles,
                                   QueueLedger::Turn& turn) {
    const KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    Result result;
    result.length = clampLength(output.size);
    const auto read = [&] {
        LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                    "to call qxFifoReadIonElem(), fifoOut=%p taskId=%lu outputFd=%d bufSize=%lu",
                    handles.fifoOut, task->getId(), output.fd, output.size);
        const int status = m_tevo.qxFifoReadIonElem(handles.fifoOut, output.fd, &result.length,
                                                    &result.taskIdAttach);
        LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                    "called qxFifoReadIonElem(), outBufSize=%u taskIdAttach=%lu", result.length,
                    result.taskIdAttach);
        return checked(status, "Error: qxFifoReadIonElem() failed, device=%s taskId=%lu rc=%d",
                       task);
    };
    if (const int rc = readResult(task, handles, turn, result, read)) return rc;
    return finishResult(task, handles, result);
}

int KelmZorvanDevice::copyResult(KelmTask* task, const Result& result) {
    KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
    if (!mapBuffer(*task->getTaskParam(), output, FileRights::WRITE)) {
        LOG_ERROR("Error: map outputBuffer failed, device=%s taskId=%lu", getName(), task->getId());
        return KELM_ERROR_MAP_OUTPUT_FAILED;
    }
    if (output.size < result.length) {
        LOG_ERROR("Error: invalid buffer size %lu", output.size);
        return KELM_ERROR_INVALID_OUTPUT_BUFFER;
    }
    std::memcpy(reinterpret_cast<void*>(output.buffer), result.scratch.get(), result.length);
    return KELM_OK;
}

int KelmZorvanDevice::finishResult(KelmTask* task, const TevoHandles& handles,
                                   const Result& result) {
    if (result.scratch) {
        if (const int rc = copyResult(task, result)) return rc;
    }
    // Deliberate: the task gets what came out, and only the log tells.
    if (result.taskIdAttach != task->getId()) {
        LOG_WARN(
            "Warn: unmatched task sequence: device=%s taskIdOrigin=%lu "
            "taskIdAttach=%lu",
            getName(), task->getId(), result.taskIdAttach);
    }
    KelmBuffer& aux = task->getTaskParam()->getAuxBuffer();
    if (aux.auxRequested != 0) {
        LOG_DEBUG("[TrackFd] map: clientId=%lu graphId=%lu taskId=%lu auxFd=%d",
                  task->getClientId(), task->getGraph()->getId(), task->getId(), aux.fd);
        const int rc = getAuxBufferData(handles.graphHandle, *task->getTaskParam());
        LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                    "device=%s taskId=%lu outputBufferLen=%u auxBufferLen=%lu", getName(),
                    task->getId(), result.length, aux.size);
        if (rc != KELM_OK) return rc;
    } else {
        LOG_FREQ_OF(m_logName.c_str(), m_debugProcess, "device=%s taskId=%lu outputBufferLen=%u",
                    getName(), task->getId(), result.length);
    }
    if (const int rc = updateThermalInfo()) return rc;
    return updateInferenceTimeInfo(handles.graphHandle);
}

}  // namespace kelm

#include <algorithm>
#include <cerrno>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "utils/Log.h"
#include "utils/UniqueFd.h"

namespace kelm {

namespace {

using FlatFunction = int (*)(KelmMsgBase*);

// Most messages are their record and nothing else.
#define KELM_PLAIN_MESSAGE(name)               \
    int flat##name(KelmMsgBase*) { return 0; } \
    int unflat##name(KelmMsgBase*) { return 0; }

KELM_PLAIN_MESSAGE(RegisterReq)
KELM_PLAIN_MESSAGE(RegisterRsp)
KELM_PLAIN_MESSAGE(UnregisterReq)
KELM_PLAIN_MESSAGE(UnregisterRsp)
KELM_PLAIN_MESSAGE(CreateGraphRsp)
KELM_PLAIN_MESSAGE(DestroyGraphReq)
KELM_PLAIN_MESSAGE(DestroyGraphRsp)
KELM_PLAIN_MESSAGE(InferTaskRsp)
KELM_PLAIN_MESSAGE(TaskDoneMsg)
KELM_PLAIN_MESSAGE(CancelTaskReq)
KELM_PLAIN_MESSAGE(CancelTaskRsp)
KELM_PLAIN_MESSAGE(QueryTaskStatusReq)
KELM_PLAIN_MESSAGE(QueryTaskStatusRsp)
KELM_PLAIN_MESSAGE(QueryBufferSizeReq)
KELM_PLAIN_MESSAGE(QueryBufferSizeRsp)
KELM_PLAIN_MESSAGE(TestSendFdRsp)
KELM_PLAIN_MESSAGE(QueryStatusReq)
KELM_PLAIN_MESSAGE(QueryStatusRsp)
KELM_PLAIN_MESSAGE(ResetDeviceReq)
KELM_PLAIN_MESSAGE(ResetDeviceRsp)
KELM_PLAIN_MESSAGE(ReqEnd)
KELM_PLAIN_MESSAGE(TaskDoneEvt)
KELM_PLAIN_MESSAGE(PingEvt)
KELM_PLAIN_MESSAGE(EvtEnd)
KELM_PLAIN_MESSAGE(End)
#undef KELM_PLAIN_MESSAGE

int flatCreateGraphReq(KelmMsgBase* base) {
    const auto* const request = reinterpret_cast<const KelmMsgReqCreateGraph*>(base);
    base->fdNum = 0;
    base->dataNum = 0;
    base->recvNum = 0;
    base->peerRecvNum = 0;
    base->innerBufferNum = 0;
    if (request->graphData == 0 || request->graphDataSize == 0) return 0;
    base->data[0] = request->graphData;
    base->dataSize[0] = request->graphDataSize;
    base->dataType[0] = kGraphBlockType;
    base->dataNum = 1;
    return 0;
}

int unflatCreateGraphReq(KelmMsgBase* base) {
    auto* const request = reinterpret_cast<KelmMsgReqCreateGraph*>(base);
    // Until a block replaces them these are the sender's own address and size.
    request->graphData = 0;
    request->graphDataSize = 0;
    for (uint32_t i = 0; i < base->dataNum; ++i) {
        if (base->dataType[i] != kGraphBlockType) continue;
        request->graphData = base->data[i];
        request->graphDataSize = static_cast<uint32_t>(base->dataSize[i]);
    }
    return 0;
}

int flatInferTaskReq(KelmMsgBase* base) {
    const auto* const request = reinterpret_cast<const KelmMsgReqInferTask*>(base);
    const std::pair<const KelmBuffer*, KelmFdRole> buffers[] = {
        {&request->inputBuffer, KELM_FD_INPUT},
        {&request->outputBuffer, KELM_FD_OUTPUT},
        {&request->auxBuffer, KELM_FD_AUX}};
    base->fdNum = 0;  // a record that is sent again does not grow
    for (const auto& [buffer, role] : buffers) {
        if (buffer->fd <= 0) continue;
        base->fd[base->fdNum] = buffer->fd;
        base->fdType[base->fdNum] = role;
        ++base->fdNum;
    }
    return 0;
}

int unflatInferTaskReq(KelmMsgBase* base) {
    auto* const request = reinterpret_cast<KelmMsgReqInferTask*>(base);
    KelmBuffer* const buffers[] = {&request->inputBuffer, &request->outputBuffer,
                                   &request->auxBuffer};
    for (KelmBuffer* const buffer : buffers) {
        buffer->shareMemory = 0;
        buffer->fd = 0;
        buffer->buffer = 0;
        buffer->ionHandle = 0;
    }
    const uint32_t count = std::exchange(base->fdNum, 0);
    for (uint32_t i = 0; i < count; ++i) {
        UniqueFd received(std::exchange(base->fd[i], -1));
        const uint32_t role = base->fdType[i];
        if (role > KELM_FD_AUX || buffers[role]->fd != 0) continue;  // wanted by no buffer
        buffers[role]->fd = received.get();
        base->fd[base->fdNum] = received.release();
        base->fdType[base->fdNum] = role;
        ++base->fdNum;
    }
    return 0;
}

int flatTestSendFdReq(KelmMsgBase* base) {
    base->fdNum = 1;
    base->fd[0] = reinterpret_cast<const KelmMsgReqTestSendFd*>(base)->testFd;
    return 0;
}

int unflatTestSendFdReq(KelmMsgBase* base) {
    if (base->fdNum != 1) {
        LOG_ERROR("Error: %s with %u descriptors", KelmMsgTypeStr[base->type], base->fdNum);
        return -1;
    }
    reinterpret_cast<KelmMsgReqTestSendFd*>(base)->testFd = base->fd[0];
    return 0;
}

#define KELM_FUNCTIONS(prefix)                                                                  \
    {                                                                                           \
        prefix##RegisterReq, prefix##RegisterRsp, prefix##UnregisterReq, prefix##UnregisterRsp, \
            prefix##CreateGraphReq, prefix##CreateGraphRsp, prefix##DestroyGraphReq,            \
            prefix##DestroyGraphRsp, prefix##InferTaskReq, prefix##InferTaskRsp,                \
            prefix##TaskDoneMsg, prefix##CancelTaskReq, prefix##CancelTaskRsp,                  \
            prefix##QueryTaskStatusReq, prefix##QueryTaskStatusRsp, prefix##QueryBufferSizeReq, \
            prefix##QueryBufferSizeRsp, prefix##TestSendFdReq, prefix##TestSendFdRsp,           \
            prefix##QueryStatusReq, prefix##QueryStatusRsp, prefix##ResetDeviceReq,             \
            prefix##ResetDeviceRsp, prefix##ReqEnd, prefix##TaskDoneEvt, prefix##PingEvt,       \
            prefix##EvtEnd, prefix##End                                                         \
    }

constexpr FlatFunction flatFuncMap[kMessageTypes] = KELM_FUNCTIONS(flat);
constexpr FlatFunction unflatFuncMap[kMessageTypes] = KELM_FUNCTIONS(unflat);
#undef KELM_FUNCTIONS

int dispatch(const FlatFunction (&map)[kMessageTypes], KelmMsgBase* message) {
    if (message == nullptr || message->type >= kMessageTypes) {
        errno = EINVAL;
        return -1;
    }
    return map[message->type](message);
}

}  // namespace

int flatMessage(KelmMsgBase* message) { return dispatch(flatFuncMap, message); }

int unflatMessage(KelmMsgBase* message) { return dispatch(unflatFuncMap, message); }

void takeTaskBuffers(KelmMsgReqInferTask& message, KelmBuffer& input, KelmBuffer& output,
                     KelmBuffer& aux) {
    input = message.inputBuffer;
    output = message.outputBuffer;
    aux = message.auxBuffer;
    for (KelmBuffer* const buffer :
         {&message.inputBuffer, &message.outputBuffer, &message.auxBuffer}) {
        buffer->fd = 0;
    }
    std::fill(std::begin(message.head.base.fd), std::end(message.head.base.fd), -1);
    message.head.base.fdNum = 0;
}

}  // namespace kelm

// What the protocol knows of each type of message, one row a type: the only place that a new type
// is entered in, besides its record.
#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "utils/Log.h"
#include "utils/PeerDescriptor.h"

namespace kelm {

namespace {

// The lists are emptied first: a caller's record may hold what an earlier sending has left.
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
    // In the order of the roles. What the sender wrote there is of its own address space.
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
        PeerFd received(std::exchange(base->fd[i], -1));
        const uint32_t role = base->fdType[i];
        if (role > KELM_FD_AUX || buffers[role]->fd != 0) continue;  // closed: no buffer has it
        buffers[role]->fd = received.get();
        base->fd[base->fdNum] = received.release();
        base->fdType[base->fdNum] = role;
        ++base->fdNum;
    }
    return 0;
}

// Descriptor 0 is sent, too: this message passes whatever number it was given.
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

struct MessageRow {
    KelmMsgType type;
    const char* name;
    uint64_t size;  // of the record; 0 for a type that only marks the end of a range
    // Between the fields and the lists of descriptors and blocks, 0 or -1; null: the record is all.
    int (*flat)(KelmMsgBase*) = nullptr;
    int (*unflat)(KelmMsgBase*) = nullptr;
};

// The name in the log is that of the constant.
#define KELM_ROW(type, ...) \
    MessageRow { KELM_MESSAGE_##type, "KELM_MESSAGE_" #type, __VA_ARGS__ }

constexpr std::array<MessageRow, kMessageTypes> kRows{
    KELM_ROW(REGISTER_REQ, sizeof(KelmMsgReqRegister)),
    KELM_ROW(REGISTER_RSP, sizeof(KelmMsgRspRegister)),
    KELM_ROW(UNREGISTER_REQ, sizeof(KelmMsgReqUnregister)),
    KELM_ROW(UNREGISTER_RSP, sizeof(KelmMsgRspUnregister)),
    KELM_ROW(CREATE_GRAPH_REQ, sizeof(KelmMsgReqCreateGraph), flatCreateGraphReq,
             unflatCreateGraphReq),
    KELM_ROW(CREATE_GRAPH_RSP, sizeof(KelmMsgRspCreateGraph)),
    KELM_ROW(DESTROY_GRAPH_REQ, sizeof(KelmMsgReqDestroyGraph)),
    KELM_ROW(DESTROY_GRAPH_RSP, sizeof(KelmMsgRspDestroyGraph)),
    KELM_ROW(INFER_TASK_REQ, sizeof(KelmMsgReqInferTask), flatInferTaskReq, unflatInferTaskReq),
    KELM_ROW(INFER_TASK_RSP, sizeof(KelmMsgRspInferTask)),
    KELM_ROW(TASK_DONE_MSG, sizeof(KelmMsgRspTaskDone)),
    KELM_ROW(CANCEL_TASK_REQ, sizeof(KelmMsgReqCancelTask)),
    KELM_ROW(CANCEL_TASK_RSP, sizeof(KelmMsgRspCancelTask)),
    KELM_ROW(QUERY_TASK_STATUS_REQ, sizeof(KelmMsgReqQueryTaskStatus)),
    KELM_ROW(QUERY_TASK_STATUS_RSP, sizeof(KelmMsgRspQueryTaskStatus)),
    KELM_ROW(QUERY_BUFFER_SIZE_REQ, sizeof(KelmMsgReqQueryBufferSize)),
    KELM_ROW(QUERY_BUFFER_SIZE_RSP, sizeof(KelmMsgRspQueryBufferSize)),
    KELM_ROW(TEST_SEND_FD_REQ, sizeof(KelmMsgReqTestSendFd), flatTestSendFdReq,
             unflatTestSendFdReq),
    KELM_ROW(TEST_SEND_FD_RSP, sizeof(KelmMsgRspTestSendFd)),
    KELM_ROW(QUERY_STATUS_REQ, sizeof(KelmMsgReqQueryStatus)),
    KELM_ROW(QUERY_STATUS_RSP, sizeof(KelmMsgRspQueryStatus)),
    KELM_ROW(RESET_DEVICE_REQ, sizeof(KelmMsgReqResetDevice)),
    KELM_ROW(RESET_DEVICE_RSP, sizeof(KelmMsgRspResetDevice)),
    KELM_ROW(REQ_END, 0),
    KELM_ROW(TASK_DONE_EVT, sizeof(KelmMsgEvtTaskDone)),
    KELM_ROW(PING_EVT, sizeof(KelmMsgEvt)),
    KELM_ROW(EVT_END, 0),
    KELM_ROW(END, 0),
};
#undef KELM_ROW

consteval bool isIndexedByType() {
    for (uint32_t i = 0; i < kMessageTypes; ++i) {
        if (kRows[i].type != i) return false;
    }
    return true;
}
// The type of a message is used as the index of its row.
static_assert(isIndexedByType());

template <class Value>
consteval std::array<Value, kMessageTypes> column(Value MessageRow::*field) {
    std::array<Value, kMessageTypes> values{};
    for (uint32_t i = 0; i < kMessageTypes; ++i) values[i] = kRows[i].*field;
    return values;
}

// A type without a step of its own is nothing but its record.
int transform(KelmMsgBase* message, int (*MessageRow::*step)(KelmMsgBase*)) {
    if (message == nullptr || message->type >= kMessageTypes) {
        errno = EINVAL;
        return -1;
    }
    const auto function = kRows[message->type].*step;
    return function != nullptr ? function(message) : 0;
}

bool checkCounts(const KelmMsgBase& message) {
    return message.fdNum <= kMaxMessageFds && message.dataNum <= kMaxMessageBlocks &&
           message.recvNum <= kMaxMessageBlocks && message.peerRecvNum <= kMaxMessageBlocks &&
           message.innerBufferNum <= kMaxMessageBlocks;
}

bool checkDescriptors(const KelmMsgBase& message) {
    return std::all_of(message.fd, message.fd + message.fdNum, [](int32_t fd) { return fd >= 0; });
}

// One without an address had no memory, which its manager answers.
bool checkBlocks(const KelmMsgBase& message) {
    return std::none_of(message.dataSize, message.dataSize + message.dataNum,
                        [](uint64_t size) { return static_cast<uint32_t>(size) == 0; });
}

}  // namespace

constexpr std::array<uint64_t, kMessageTypes> KelmMessageSize = column(&MessageRow::size);
constexpr std::array<const char*, kMessageTypes> KelmMsgTypeStr = column(&MessageRow::name);

int flatMessage(KelmMsgBase* message) { return transform(message, &MessageRow::flat); }

int unflatMessage(KelmMsgBase* message) { return transform(message, &MessageRow::unflat); }

// Each check relies on those before it: a list is walked once its count is known to fit. Everything
// else in a record is a number or a text that its manager answers with an error.
bool checkMessage(const KelmMsgBase& message, size_t size) {
    if (size < sizeof(KelmMsgBase) || message.type >= kMessageTypes) return false;
    const MessageRow& row = kRows[message.type];
    if (row.size == 0 || message.size != row.size || size < row.size) return false;
    return checkCounts(message) && checkDescriptors(message) && checkBlocks(message);
}

// Both copies of the numbers are cleared in the message: each descriptor has one owner now.
void takeTaskBuffers(KelmMsgReqInferTask& message, KelmBuffer& input, KelmBuffer& output,
                     KelmBuffer& aux) {
    input = message.inputBuffer;
    output = message.outputBuffer;
    aux = message.auxBuffer;
    for (KelmBuffer* const buffer :
         {&message.inputBuffer, &message.outputBuffer, &message.auxBuffer}) {
        buffer->fd = 0;
    }
    // Out of the array too, from which the message would close them.
    std::fill(std::begin(message.head.base.fd), std::end(message.head.base.fd), -1);
    message.head.base.fdNum = 0;
}

}  // namespace kelm

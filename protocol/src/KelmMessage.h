#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The records of the client protocol: memory images, little-endian, one fixed size for a type.
// Sizes and offsets are pinned in KelmMessage.cpp. All unused bytes are zero. What a record
// received from a peer holds is not to be trusted: texts need not end in NUL, addresses and
// descriptors are the sender's own.

namespace kelm {

constexpr uint32_t kMaxMessageFds = 10;
constexpr uint32_t kMaxMessageBlocks = 5;  // data blocks, prepared buffers and inner buffers alike

enum KelmMsgType : uint32_t {
    KELM_MESSAGE_REGISTER_REQ = 0,
    KELM_MESSAGE_REGISTER_RSP = 1,
    KELM_MESSAGE_UNREGISTER_REQ = 2,
    KELM_MESSAGE_UNREGISTER_RSP = 3,
    KELM_MESSAGE_CREATE_GRAPH_REQ = 4,
    KELM_MESSAGE_CREATE_GRAPH_RSP = 5,
    KELM_MESSAGE_DESTROY_GRAPH_REQ = 6,
    KELM_MESSAGE_DESTROY_GRAPH_RSP = 7,
    KELM_MESSAGE_INFER_TASK_REQ = 8,
    KELM_MESSAGE_INFER_TASK_RSP = 9,
    KELM_MESSAGE_TASK_DONE_MSG = 10,
    KELM_MESSAGE_CANCEL_TASK_REQ = 11,
    KELM_MESSAGE_CANCEL_TASK_RSP = 12,
    KELM_MESSAGE_QUERY_TASK_STATUS_REQ = 13,
    KELM_MESSAGE_QUERY_TASK_STATUS_RSP = 14,
    KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ = 15,
    KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP = 16,
    KELM_MESSAGE_TEST_SEND_FD_REQ = 17,
    KELM_MESSAGE_TEST_SEND_FD_RSP = 18,
    KELM_MESSAGE_QUERY_STATUS_REQ = 19,
    KELM_MESSAGE_QUERY_STATUS_RSP = 20,
    KELM_MESSAGE_RESET_DEVICE_REQ = 21,
    KELM_MESSAGE_RESET_DEVICE_RSP = 22,
    KELM_MESSAGE_REQ_END = 23,
    KELM_MESSAGE_TASK_DONE_EVT = 24,
    KELM_MESSAGE_PING_EVT = 25,
    KELM_MESSAGE_EVT_END = 26,
    KELM_MESSAGE_END = 27,
};
constexpr uint32_t kMessageTypes = 28;

// The only accepted size of a message, by type; 0 for one of the three that mark the end of a range
// and have no record.
extern const std::array<uint64_t, kMessageTypes> KelmMessageSize;
// The names of the types, for logs.
extern const std::array<const char*, kMessageTypes> KelmMsgTypeStr;

enum KelmFdRole : uint32_t { KELM_FD_INPUT = 0, KELM_FD_OUTPUT = 1, KELM_FD_AUX = 2 };
constexpr uint32_t kGraphBlockType = 0;  // dataType of a graph's binary

// Heads every message.
struct KelmMsgBase {
    uint32_t type;  // KelmMsgType
    uint32_t padding;
    uint64_t size;  // of the whole record
    uint32_t fdNum;
    int32_t fd[kMaxMessageFds];       // on reception the receiver's own numbers, -1 for none
    uint32_t fdType[kMaxMessageFds];  // KelmFdRole
    uint32_t dataNum;
    uint64_t data[kMaxMessageBlocks];  // addresses; on reception in the receiver
    uint64_t dataSize[kMaxMessageBlocks];
    uint32_t dataType[kMaxMessageBlocks];
    uint32_t recvNum;  // prepared receive buffers of this side
    uint64_t recvData[kMaxMessageBlocks];
    uint64_t recvSize[kMaxMessageBlocks];
    uint32_t recvType[kMaxMessageBlocks];
    uint32_t peerRecvNum;  // those of the other side
    uint64_t peerRecvData[kMaxMessageBlocks];
    uint64_t peerRecvSize[kMaxMessageBlocks];
    uint32_t peerRecvType[kMaxMessageBlocks];
    uint32_t innerBufferNum;  // blocks allocated for this message, freed with it
    uint64_t innerBuffer[kMaxMessageBlocks];
    uint8_t reserved[32];
};

enum KelmBufferType : uint32_t { KELM_BUFFER_ION = 1, KELM_BUFFER_SHARE_MEMORY = 2 };

// One shared tensor buffer: a descriptor, or a named shared memory object.
struct KelmBuffer {
    uint32_t type;      // KelmBufferType
    uint32_t auxFlags;  // auxiliary buffer: blocks wanted; 1 time taken, 2 thermal, 4 debug info
    char name[64];
    uint64_t shareMemory;  // the receiver's mapping object
    int32_t fd;
    uint32_t padding;
    uint64_t buffer;  // the receiver's mapping
    uint64_t size;    // bytes
    int32_t ionHandle;
    uint32_t padding2;
    uint8_t reserved[8];
    uint32_t auxRequested;  // non-zero: an auxiliary buffer that is to be filled
    uint32_t reserved2;
};

// Heads of the three kinds of message.
struct KelmMsgReq {
    KelmMsgBase base;
    uint64_t reqSeqNo;
    uint32_t needResponse;  // 0: no response is wanted
    uint8_t reserved[12];
};

struct KelmMsgRsp {
    KelmMsgBase base;
    uint64_t reqSeqNo;
    uint64_t rspSeqNo;  // equal to reqSeqNo
    int32_t status;     // KelmError
    uint8_t reserved[12];
    uint64_t clientId;
};

struct KelmMsgEvt {
    KelmMsgBase base;
    uint64_t evtSeqNo;
    uint8_t reserved[8];
};

struct KelmMsgReqRegister {
    KelmMsgReq head;
    char clientName[32];
    uint16_t apiMajorVersion;
    uint16_t apiMinorVersion;
};

struct KelmMsgReqUnregister {
    KelmMsgReq head;
    uint64_t clientId;
};

struct KelmMsgReqCreateGraph {
    KelmMsgReq head;
    uint64_t clientId;
    int32_t subclass;  // interface subclass of the device group
    char graphName[512];
    char graphTag[512];
    char streamId[512];
    char graphPath[1024];  // used when no binary is sent
    uint32_t padding;
    uint64_t graphData;  // address of the binary
    uint32_t graphDataSize;
    int32_t expectDevices;
};

struct KelmMsgReqDestroyGraph {
    KelmMsgReq head;
    uint64_t clientId;
    uint64_t graphId;
};

struct KelmMsgReqInferTask {
    KelmMsgReq head;
    uint64_t clientId;
    uint64_t graphId;
    KelmBuffer inputBuffer;
    KelmBuffer outputBuffer;
    KelmBuffer auxBuffer;
    uint64_t taskCookie0;  // opaque to the service
    uint64_t taskCookie1;
};

struct KelmMsgReqCancelTask {
    KelmMsgReq head;
    uint64_t clientId;
    uint64_t taskId;
};

using KelmMsgReqQueryTaskStatus = KelmMsgReqCancelTask;
using KelmMsgReqQueryBufferSize = KelmMsgReqDestroyGraph;

struct KelmMsgReqTestSendFd {
    KelmMsgReq head;
    uint8_t reserved[8];
    int32_t testFd;  // sent as the single descriptor
};

// Bits of a status query's type.
constexpr uint64_t kQueryAll = 1;  // the service, devices without details, graphs, clients
constexpr uint64_t kQueryDevices = 2;
constexpr uint64_t kQueryGraphs = 4;
constexpr uint64_t kQueryClients = 8;
constexpr uint64_t kQuerySchedulers = 16;

struct KelmMsgReqQueryStatus {
    KelmMsgReq head;
    uint64_t clientId;
    uint64_t queryType;  // kQuery... bits
};

struct KelmMsgReqResetDevice {
    KelmMsgReq head;
    uint64_t clientId;
    uint32_t deviceId;
    uint8_t resetAllDevices;
};

using KelmMsgRspRegister = KelmMsgRsp;
using KelmMsgRspUnregister = KelmMsgRsp;
using KelmMsgRspDestroyGraph = KelmMsgRsp;
using KelmMsgRspTestSendFd = KelmMsgRsp;

struct KelmMsgRspCreateGraph {
    KelmMsgRsp head;
    uint64_t graphId;
    uint64_t inputBufferSize;
    uint64_t outputBufferSize;
    uint64_t debugBufferSize;
    uint64_t timeTakensSize;
    uint64_t thermalBufferSize;
};

struct KelmMsgRspInferTask {
    KelmMsgRsp head;
    uint64_t taskId;
    uint64_t taskCookie0;
    uint64_t taskCookie1;
};

struct KelmMsgRspTaskDone {
    KelmMsgRsp head;
    uint64_t taskId;
    uint64_t taskCookie0;
    int32_t taskResult;  // equal to status
    uint32_t padding;
    uint64_t taskCookie1;
};

struct KelmMsgRspCancelTask {
    KelmMsgRsp head;
    uint64_t taskId;
    uint8_t canceled;
};

struct KelmMsgRspQueryTaskStatus {
    KelmMsgRsp head;
    uint64_t taskId;
    int32_t taskStatus;
};

struct KelmMsgRspQueryBufferSize {
    KelmMsgRsp head;
    uint64_t graphId;
    uint64_t inputBufferSize;
    uint64_t outputBufferSize;
};

constexpr int kStatusDevices = 32;
constexpr int kStatusGraphs = 64;
constexpr int kStatusClients = 64;

struct KelmMsgRspQueryStatus {
    KelmMsgRsp head;
    uint64_t queryType;
    float serviceFps;
    int32_t deviceNum;  // counts are not cut to the number of rows
    char deviceName[kStatusDevices][32];
    float deviceFps[kStatusDevices];
    char deviceGraphName[kStatusDevices][512];
    float deviceThermal[kStatusDevices];
    uint32_t deviceId[kStatusDevices];
    int32_t deviceSubclass[kStatusDevices];
    int32_t graphNum;
    char graphName[kStatusGraphs][512];
    float graphFpsIn[kStatusGraphs];
    float graphFpsOut[kStatusGraphs];
    int32_t clientNum;
    char clientName[kStatusClients][32];
    float clientFps[kStatusClients];
    char deviceSchedulerName[32];
    char taskSchedulerName[32];
};

struct KelmMsgRspResetDevice {
    KelmMsgRsp head;
    uint32_t deviceId;
    uint8_t resetAllDevices;
};

struct KelmMsgEvtTaskDone {
    KelmMsgEvt head;
    uint64_t reqSeqNo;  // of the infer request
    int32_t status;
    uint32_t padding;
    uint64_t clientId;
    uint64_t taskId;
    uint64_t taskCookie0;
    int32_t taskResult;  // equal to status
    uint32_t padding2;
    uint64_t taskCookie1;
};

}  // namespace kelm

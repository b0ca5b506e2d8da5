#pragma once

#include <cstddef>
#include <cstdint>

// The records of the client protocol: memory images, little-endian, one fixed size for a type.
// All unused bytes are zero. What a record received from a peer holds is not to be trusted:
// texts need not end in NUL, addresses and descriptors are the sender's own.

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

// The only accepted size of a message, by type.
extern const uint64_t KelmMessageSize[kMessageTypes];
// The names of the types, for logs.
extern const char KelmMsgTypeStr[kMessageTypes][128];

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

struct KelmMsgReqQueryStatus {
    KelmMsgReq head;
    uint64_t clientId;
    uint64_t queryType;  // mask: 1 all, 2 devices with details, 4 graphs, 8 clients, 16 schedulers
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

#define KELM_WIRE_OFFSET(record, field, offset) static_assert(offsetof(record, field) == (offset))
#define KELM_WIRE_SIZE(record, bytes) static_assert(sizeof(record) == (bytes))

KELM_WIRE_SIZE(KelmMsgBase, 488);
KELM_WIRE_OFFSET(KelmMsgBase, type, 0);
KELM_WIRE_OFFSET(KelmMsgBase, size, 8);
KELM_WIRE_OFFSET(KelmMsgBase, fdNum, 16);
KELM_WIRE_OFFSET(KelmMsgBase, fd, 20);
KELM_WIRE_OFFSET(KelmMsgBase, fdType, 60);
KELM_WIRE_OFFSET(KelmMsgBase, dataNum, 100);
KELM_WIRE_OFFSET(KelmMsgBase, data, 104);
KELM_WIRE_OFFSET(KelmMsgBase, dataSize, 144);
KELM_WIRE_OFFSET(KelmMsgBase, dataType, 184);
KELM_WIRE_OFFSET(KelmMsgBase, recvNum, 204);
KELM_WIRE_OFFSET(KelmMsgBase, recvData, 208);
KELM_WIRE_OFFSET(KelmMsgBase, recvSize, 248);
KELM_WIRE_OFFSET(KelmMsgBase, recvType, 288);
KELM_WIRE_OFFSET(KelmMsgBase, peerRecvNum, 308);
KELM_WIRE_OFFSET(KelmMsgBase, peerRecvData, 312);
KELM_WIRE_OFFSET(KelmMsgBase, peerRecvSize, 352);
KELM_WIRE_OFFSET(KelmMsgBase, peerRecvType, 392);
KELM_WIRE_OFFSET(KelmMsgBase, innerBufferNum, 412);
KELM_WIRE_OFFSET(KelmMsgBase, innerBuffer, 416);

KELM_WIRE_SIZE(KelmBuffer, 128);
KELM_WIRE_OFFSET(KelmBuffer, type, 0);
KELM_WIRE_OFFSET(KelmBuffer, auxFlags, 4);
KELM_WIRE_OFFSET(KelmBuffer, name, 8);
KELM_WIRE_OFFSET(KelmBuffer, shareMemory, 72);
KELM_WIRE_OFFSET(KelmBuffer, fd, 80);
KELM_WIRE_OFFSET(KelmBuffer, buffer, 88);
KELM_WIRE_OFFSET(KelmBuffer, size, 96);
KELM_WIRE_OFFSET(KelmBuffer, ionHandle, 104);
KELM_WIRE_OFFSET(KelmBuffer, auxRequested, 120);

KELM_WIRE_SIZE(KelmMsgReq, 512);
KELM_WIRE_OFFSET(KelmMsgReq, reqSeqNo, 488);
KELM_WIRE_OFFSET(KelmMsgReq, needResponse, 496);
KELM_WIRE_SIZE(KelmMsgRsp, 528);
KELM_WIRE_OFFSET(KelmMsgRsp, reqSeqNo, 488);
KELM_WIRE_OFFSET(KelmMsgRsp, rspSeqNo, 496);
KELM_WIRE_OFFSET(KelmMsgRsp, status, 504);
KELM_WIRE_OFFSET(KelmMsgRsp, clientId, 520);
KELM_WIRE_SIZE(KelmMsgEvt, 504);
KELM_WIRE_OFFSET(KelmMsgEvt, evtSeqNo, 488);

KELM_WIRE_SIZE(KelmMsgReqRegister, 552);
KELM_WIRE_OFFSET(KelmMsgReqRegister, clientName, 512);
KELM_WIRE_OFFSET(KelmMsgReqRegister, apiMajorVersion, 544);
KELM_WIRE_OFFSET(KelmMsgReqRegister, apiMinorVersion, 546);
KELM_WIRE_SIZE(KelmMsgReqUnregister, 520);
KELM_WIRE_OFFSET(KelmMsgReqUnregister, clientId, 512);
KELM_WIRE_SIZE(KelmMsgReqCreateGraph, 3104);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, clientId, 512);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, subclass, 520);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, graphName, 524);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, graphTag, 1036);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, streamId, 1548);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, graphPath, 2060);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, graphData, 3088);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, graphDataSize, 3096);
KELM_WIRE_OFFSET(KelmMsgReqCreateGraph, expectDevices, 3100);
KELM_WIRE_SIZE(KelmMsgReqDestroyGraph, 528);
KELM_WIRE_OFFSET(KelmMsgReqDestroyGraph, clientId, 512);
KELM_WIRE_OFFSET(KelmMsgReqDestroyGraph, graphId, 520);
KELM_WIRE_SIZE(KelmMsgReqInferTask, 928);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, clientId, 512);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, graphId, 520);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, inputBuffer, 528);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, outputBuffer, 656);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, auxBuffer, 784);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, taskCookie0, 912);
KELM_WIRE_OFFSET(KelmMsgReqInferTask, taskCookie1, 920);
KELM_WIRE_SIZE(KelmMsgReqCancelTask, 528);
KELM_WIRE_OFFSET(KelmMsgReqCancelTask, clientId, 512);
KELM_WIRE_OFFSET(KelmMsgReqCancelTask, taskId, 520);
KELM_WIRE_SIZE(KelmMsgReqTestSendFd, 528);
KELM_WIRE_OFFSET(KelmMsgReqTestSendFd, testFd, 520);
KELM_WIRE_SIZE(KelmMsgReqQueryStatus, 528);
KELM_WIRE_OFFSET(KelmMsgReqQueryStatus, clientId, 512);
KELM_WIRE_OFFSET(KelmMsgReqQueryStatus, queryType, 520);
KELM_WIRE_SIZE(KelmMsgReqResetDevice, 528);
KELM_WIRE_OFFSET(KelmMsgReqResetDevice, clientId, 512);
KELM_WIRE_OFFSET(KelmMsgReqResetDevice, deviceId, 520);
KELM_WIRE_OFFSET(KelmMsgReqResetDevice, resetAllDevices, 524);

KELM_WIRE_SIZE(KelmMsgRspCreateGraph, 576);
KELM_WIRE_OFFSET(KelmMsgRspCreateGraph, graphId, 528);
KELM_WIRE_OFFSET(KelmMsgRspCreateGraph, inputBufferSize, 536);
KELM_WIRE_OFFSET(KelmMsgRspCreateGraph, outputBufferSize, 544);
KELM_WIRE_OFFSET(KelmMsgRspCreateGraph, debugBufferSize, 552);
KELM_WIRE_OFFSET(KelmMsgRspCreateGraph, timeTakensSize, 560);
KELM_WIRE_OFFSET(KelmMsgRspCreateGraph, thermalBufferSize, 568);
KELM_WIRE_SIZE(KelmMsgRspInferTask, 552);
KELM_WIRE_OFFSET(KelmMsgRspInferTask, taskId, 528);
KELM_WIRE_OFFSET(KelmMsgRspInferTask, taskCookie0, 536);
KELM_WIRE_OFFSET(KelmMsgRspInferTask, taskCookie1, 544);
KELM_WIRE_SIZE(KelmMsgRspTaskDone, 560);
KELM_WIRE_OFFSET(KelmMsgRspTaskDone, taskId, 528);
KELM_WIRE_OFFSET(KelmMsgRspTaskDone, taskCookie0, 536);
KELM_WIRE_OFFSET(KelmMsgRspTaskDone, taskResult, 544);
KELM_WIRE_OFFSET(KelmMsgRspTaskDone, taskCookie1, 552);
KELM_WIRE_SIZE(KelmMsgRspCancelTask, 544);
KELM_WIRE_OFFSET(KelmMsgRspCancelTask, taskId, 528);
KELM_WIRE_OFFSET(KelmMsgRspCancelTask, canceled, 536);
KELM_WIRE_SIZE(KelmMsgRspQueryTaskStatus, 544);
KELM_WIRE_OFFSET(KelmMsgRspQueryTaskStatus, taskId, 528);
KELM_WIRE_OFFSET(KelmMsgRspQueryTaskStatus, taskStatus, 536);
KELM_WIRE_SIZE(KelmMsgRspQueryBufferSize, 552);
KELM_WIRE_OFFSET(KelmMsgRspQueryBufferSize, graphId, 528);
KELM_WIRE_OFFSET(KelmMsgRspQueryBufferSize, inputBufferSize, 536);
KELM_WIRE_OFFSET(KelmMsgRspQueryBufferSize, outputBufferSize, 544);
KELM_WIRE_SIZE(KelmMsgRspQueryStatus, 54120);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, queryType, 528);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, serviceFps, 536);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceNum, 540);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceName, 544);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceFps, 1568);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceGraphName, 1696);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceThermal, 18080);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceId, 18208);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceSubclass, 18336);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, graphNum, 18464);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, graphName, 18468);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, graphFpsIn, 51236);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, graphFpsOut, 51492);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, clientNum, 51748);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, clientName, 51752);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, clientFps, 53800);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, deviceSchedulerName, 54056);
KELM_WIRE_OFFSET(KelmMsgRspQueryStatus, taskSchedulerName, 54088);
KELM_WIRE_SIZE(KelmMsgRspResetDevice, 536);
KELM_WIRE_OFFSET(KelmMsgRspResetDevice, deviceId, 528);
KELM_WIRE_OFFSET(KelmMsgRspResetDevice, resetAllDevices, 532);
KELM_WIRE_SIZE(KelmMsgEvtTaskDone, 560);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, reqSeqNo, 504);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, status, 512);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, clientId, 520);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, taskId, 528);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, taskCookie0, 536);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, taskResult, 544);
KELM_WIRE_OFFSET(KelmMsgEvtTaskDone, taskCookie1, 552);

#undef KELM_WIRE_OFFSET
#undef KELM_WIRE_SIZE

}  // namespace kelm

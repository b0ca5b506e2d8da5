#include "protocol/src/KelmMessage.h"

namespace kelm {

// The wire layout, which peers of any build rely on.
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

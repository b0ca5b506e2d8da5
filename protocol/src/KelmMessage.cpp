#include "protocol/src/KelmMessage.h"

namespace kelm {

// Three types mark the ends of ranges and have no record.
const uint64_t KelmMessageSize[kMessageTypes] = {
    sizeof(KelmMsgReqRegister),         // KELM_MESSAGE_REGISTER_REQ
    sizeof(KelmMsgRspRegister),         // KELM_MESSAGE_REGISTER_RSP
    sizeof(KelmMsgReqUnregister),       // KELM_MESSAGE_UNREGISTER_REQ
    sizeof(KelmMsgRspUnregister),       // KELM_MESSAGE_UNREGISTER_RSP
    sizeof(KelmMsgReqCreateGraph),      // KELM_MESSAGE_CREATE_GRAPH_REQ
    sizeof(KelmMsgRspCreateGraph),      // KELM_MESSAGE_CREATE_GRAPH_RSP
    sizeof(KelmMsgReqDestroyGraph),     // KELM_MESSAGE_DESTROY_GRAPH_REQ
    sizeof(KelmMsgRspDestroyGraph),     // KELM_MESSAGE_DESTROY_GRAPH_RSP
    sizeof(KelmMsgReqInferTask),        // KELM_MESSAGE_INFER_TASK_REQ
    sizeof(KelmMsgRspInferTask),        // KELM_MESSAGE_INFER_TASK_RSP
    sizeof(KelmMsgRspTaskDone),         // KELM_MESSAGE_TASK_DONE_MSG
    sizeof(KelmMsgReqCancelTask),       // KELM_MESSAGE_CANCEL_TASK_REQ
    sizeof(KelmMsgRspCancelTask),       // KELM_MESSAGE_CANCEL_TASK_RSP
    sizeof(KelmMsgReqQueryTaskStatus),  // KELM_MESSAGE_QUERY_TASK_STATUS_REQ
    sizeof(KelmMsgRspQueryTaskStatus),  // KELM_MESSAGE_QUERY_TASK_STATUS_RSP
    sizeof(KelmMsgReqQueryBufferSize),  // KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ
    sizeof(KelmMsgRspQueryBufferSize),  // KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP
    sizeof(KelmMsgReqTestSendFd),       // KELM_MESSAGE_TEST_SEND_FD_REQ
    sizeof(KelmMsgRspTestSendFd),       // KELM_MESSAGE_TEST_SEND_FD_RSP
    sizeof(KelmMsgReqQueryStatus),      // KELM_MESSAGE_QUERY_STATUS_REQ
    sizeof(KelmMsgRspQueryStatus),      // KELM_MESSAGE_QUERY_STATUS_RSP
    sizeof(KelmMsgReqResetDevice),      // KELM_MESSAGE_RESET_DEVICE_REQ
    sizeof(KelmMsgRspResetDevice),      // KELM_MESSAGE_RESET_DEVICE_RSP
    0,                                  // KELM_MESSAGE_REQ_END
    sizeof(KelmMsgEvtTaskDone),         // KELM_MESSAGE_TASK_DONE_EVT
    sizeof(KelmMsgEvt),                 // KELM_MESSAGE_PING_EVT
    0,                                  // KELM_MESSAGE_EVT_END
    0,                                  // KELM_MESSAGE_END
};

const char KelmMsgTypeStr[kMessageTypes][128] = {
    "KELM_MESSAGE_REGISTER_REQ",
    "KELM_MESSAGE_REGISTER_RSP",
    "KELM_MESSAGE_UNREGISTER_REQ",
    "KELM_MESSAGE_UNREGISTER_RSP",
    "KELM_MESSAGE_CREATE_GRAPH_REQ",
    "KELM_MESSAGE_CREATE_GRAPH_RSP",
    "KELM_MESSAGE_DESTROY_GRAPH_REQ",
    "KELM_MESSAGE_DESTROY_GRAPH_RSP",
    "KELM_MESSAGE_INFER_TASK_REQ",
    "KELM_MESSAGE_INFER_TASK_RSP",
    "KELM_MESSAGE_TASK_DONE_MSG",
    "KELM_MESSAGE_CANCEL_TASK_REQ",
    "KELM_MESSAGE_CANCEL_TASK_RSP",
    "KELM_MESSAGE_QUERY_TASK_STATUS_REQ",
    "KELM_MESSAGE_QUERY_TASK_STATUS_RSP",
    "KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ",
    "KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP",
    "KELM_MESSAGE_TEST_SEND_FD_REQ",
    "KELM_MESSAGE_TEST_SEND_FD_RSP",
    "KELM_MESSAGE_QUERY_STATUS_REQ",
    "KELM_MESSAGE_QUERY_STATUS_RSP",
    "KELM_MESSAGE_RESET_DEVICE_REQ",
    "KELM_MESSAGE_RESET_DEVICE_RSP",
    "KELM_MESSAGE_REQ_END",
    "KELM_MESSAGE_TASK_DONE_EVT",
    "KELM_MESSAGE_PING_EVT",
    "KELM_MESSAGE_EVT_END",
    "KELM_MESSAGE_END",
};

}  // namespace kelm

#include "managers/RequestRow.h"

#include <algorithm>
#include <iterator>

#include "managers/MessageDispatcher.h"
#include "records/Request.h"

namespace kelm {

// The rows are few and the search is short beside what a request costs.
const RequestRow* RequestRow::find(uint32_t type) {
    using Dispatcher = MessageDispatcher;
    static constexpr RequestRow kRows[] = {
        {KELM_MESSAGE_REGISTER_REQ, &Dispatcher::handleRegister, KELM_MESSAGE_REGISTER_RSP,
         "KelmMsgRspRegister", "sendRegisterResponse(rspSeqNo=%lu): clientId=%lu", false,
         "cancel sendRegisterResponse: clientId=%lu", false},
        {KELM_MESSAGE_UNREGISTER_REQ, &Dispatcher::handleUnregister, KELM_MESSAGE_UNREGISTER_RSP,
         "KelmMsgRspUnregister", "sendUnregisterResponse(rspSeqNo=%lu): clientId=%lu", false,
         "cancel sendUnregisterResponse: clientId=%lu", false},
        {KELM_MESSAGE_CREATE_GRAPH_REQ, &Dispatcher::handleCreateGraph,
         KELM_MESSAGE_CREATE_GRAPH_RSP, "KelmMsgRspCreateGraph",
         "sendCreateGraphResponse(rspSeqNo=%lu): clientId=%lu graphId=%lu", true,
         "cancel sendCreateGraphResponse: clientId=%lu graphId=%lu", true},
        {KELM_MESSAGE_DESTROY_GRAPH_REQ, &Dispatcher::handleDestroyGraph,
         KELM_MESSAGE_DESTROY_GRAPH_RSP, "KelmMsgRspDestroyGraph",
         "sendDestroyGraphResponse(rspSeqNo=%lu): clientId=%lu graph=%lu", true,
         "cancel sendDestroyGraphResponse: clientId=%lu", false},
        {KELM_MESSAGE_INFER_TASK_REQ, &Dispatcher::handleInferTask, KELM_MESSAGE_INFER_TASK_RSP,
         "KelmMsgRspInferTask", "sendCreateTaskResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu",
         true, "cancel sendCreateTaskResponse: clientId=%lu", false},
        // Deliberate: the next two and the status query share one text for an answer that is not
        // wanted. Readers of logs know it so.
        {KELM_MESSAGE_CANCEL_TASK_REQ, &Dispatcher::handleCancelTask, KELM_MESSAGE_CANCEL_TASK_RSP,
         "KelmMsgRspCancelTask", "sendCancelTaskResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu",
         true, "cancel sendQueryTaskStatusResponse: clientId=%lu", false},
        {KELM_MESSAGE_QUERY_TASK_STATUS_REQ, &Dispatcher::handleQueryTaskStatus,
         KELM_MESSAGE_QUERY_TASK_STATUS_RSP, "KelmMsgRspQueryTaskStatus",
         "sendQueryTaskStatusResponse(rspSeqNo=%lu): clientId=%lu taskId=%lu", true,
         "cancel sendQueryTaskStatusResponse: clientId=%lu", false},
        {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, &Dispatcher::handleQueryBufferSize,
         KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP, "KelmMsgRspQueryBufferSize",
         "sendQueryBufferSizeResponse(rspSeqNo=%lu): clientId=%lu graph=%lu", true,
         "cancel sendQueryBufferSizeResponse: clientId=%lu", false},
        // Never answered: it only proves that a descriptor comes through.
        {KELM_MESSAGE_TEST_SEND_FD_REQ, &Dispatcher::handleTestSendFd,
         KELM_MESSAGE_TEST_SEND_FD_RSP, "KelmMsgRspTestSendFd", "", false, "", false},
        {KELM_MESSAGE_QUERY_STATUS_REQ, &Dispatcher::handleQueryStatus,
         KELM_MESSAGE_QUERY_STATUS_RSP, "KelmMsgRspQueryStatus",
         "sendQueryStatusResponse(rspSeqNo=%lu): clientId=%lu queryType=%lu", true,
         "cancel sendQueryTaskStatusResponse: clientId=%lu", false},
        {KELM_MESSAGE_RESET_DEVICE_REQ, &Dispatcher::handleResetDevice,
         KELM_MESSAGE_RESET_DEVICE_RSP, "KelmMsgRspResetDevice",
         "sendResetDeviceResponse(rspSeqNo=%lu): clientId=%lu deviceId=%lu", true,
         "cancel sendResetDeviceResponse: clientId=%lu", false},
    };
    const auto* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                         [type](const RequestRow& r) { return r.type == type; });
    return row != std::end(kRows) ? row : nullptr;
}

}  // namespace kelm

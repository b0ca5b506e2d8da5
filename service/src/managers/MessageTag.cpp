#include "managers/MessageTag.h"

#include "managers/TaskManager.h"
#include "utils/Tracer.h"

namespace kelm {

MessageTag::MessageTag(const KelmMsgBase& message) : type(message.type) {
    // The types below the mark are requests and responses; only responses are sent by the service.
    if (type < KELM_MESSAGE_REQ_END) {
        sequence = reinterpret_cast<const KelmMsgRsp&>(message).rspSeqNo;
    } else if (type == KELM_MESSAGE_TASK_DONE_EVT || type == KELM_MESSAGE_PING_EVT) {
        sequence = reinterpret_cast<const KelmMsgEvt&>(message).evtSeqNo;
    }
    if (type == KELM_MESSAGE_TASK_DONE_MSG) {
        endedTaskId = reinterpret_cast<const KelmMsgRspTaskDone&>(message).taskId;
    } else if (type == KELM_MESSAGE_TASK_DONE_EVT) {
        endedTaskId = reinterpret_cast<const KelmMsgEvtTaskDone&>(message).taskId;
    }
}

std::string MessageTag::text() const {
    if (type < KELM_MESSAGE_REQ_END) return "Message(rspSeqNo=" + std::to_string(sequence) + ")";
    if (type == KELM_MESSAGE_TASK_DONE_EVT || type == KELM_MESSAGE_PING_EVT) {
        return "Event(evtSeqNo=" + std::to_string(sequence) + ")";
    }
    return "";
}

void MessageTag::finishTaskLifeTrace() const {
    if (endedTaskId != 0 && isTracerOn()) TaskManager::instance().finishTaskLifeTrace(endedTaskId);
}

}  // namespace kelm

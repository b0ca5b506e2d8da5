#pragma once

#include <cstdint>

#include "protocol/src/KelmMessage.h"

namespace kelm {

class MessageDispatcher;
class Request;

// What the service knows of one type of request: its handler, and the type and the log words of its
// answer.
struct RequestRow {
    KelmMsgType type;
    void (MessageDispatcher::*handle)(Request request);
    KelmMsgType answer;
    const char* answerRecord;  // for a failed allocation
    // Log formats. Their arguments are the sequence number and the client's id, then, where the
    // flag says so, the id of what the answer is about; `cancel` takes no sequence number.
    const char* trace;  // of an answer that is sent
    bool traceHasId;
    const char* cancel;  // of an answer that is not wanted
    bool cancelHasId;

    // Null for a message that is no request.
    static const RequestRow* find(uint32_t type);
    // Of a message that was found to be a request.
    static const RequestRow& of(KelmMsgType type) { return *find(type); }
};

}  // namespace kelm

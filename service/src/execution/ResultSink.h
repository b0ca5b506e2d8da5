#pragma once

#include "protocol/src/KelmError.h"

namespace kelm {

class KelmTask;
class Request;

// Port: where results and the answers of device requests go. Any thread; every call only queues.
class ResultSink {
 public:
    // The task has ended; passes it on.
    virtual void enqueueSendTaskDoneResponse(KelmTask* task, KelmError error) = 0;
    virtual void enqueueSendResetDeviceResponse(KelmError error, Request request) = 0;

 protected:
    ~ResultSink() = default;
};

}  // namespace kelm

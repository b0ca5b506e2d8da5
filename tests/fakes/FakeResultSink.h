#pragma once

#include "execution/ResultSink.h"
#include "fakes/Recorded.h"
#include "records/Request.h"

namespace kelm {

// Records what it is told. Any thread.
class FakeResultSink final : public ResultSink {
 public:
    struct Reset {
        KelmError error;
        int socket;
    };

    void enqueueSendTaskDoneResponse(KelmTask* task, KelmError error) override {
        done.add(task, error);
    }
    void enqueueSendResetDeviceResponse(KelmError error, Request request) override {
        resets.add(Reset{error, request.getSocket()});
        (void)request.take();
    }

    Recorded<std::pair<KelmTask*, KelmError>> done;
    Recorded<Reset> resets;
};

}  // namespace kelm

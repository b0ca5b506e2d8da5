#pragma once

#include <utility>
#include <vector>

#include "execution/ResultSink.h"
#include "records/Request.h"
#include "utils/Mutex.h"

namespace kelm {

// Records what it is told. Any thread.
class FakeResultSink final : public ResultSink {
 public:
    struct Reset {
        KelmError error;
        int socket;
    };

    void enqueueSendTaskDoneResponse(KelmTask* task, KelmError error) override {
        MutexLock lock(m_mutex);
        m_done.emplace_back(task, error);
    }
    void enqueueSendResetDeviceResponse(KelmError error, Request request) override {
        MutexLock lock(m_mutex);
        m_resets.push_back({error, request.getSocket()});
        (void)request.take();
    }

    std::vector<std::pair<KelmTask*, KelmError>> done() {
        MutexLock lock(m_mutex);
        return m_done;
    }
    std::vector<Reset> resets() {
        MutexLock lock(m_mutex);
        return m_resets;
    }

 private:
    Mutex m_mutex;
    std::vector<std::pair<KelmTask*, KelmError>> m_done GUARDED_BY(m_mutex);
    std::vector<Reset> m_resets GUARDED_BY(m_mutex);
};

}  // namespace kelm

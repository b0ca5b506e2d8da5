#pragma once

#include <vector>

#include "execution/WorkerFailureListener.h"
#include "utils/Mutex.h"

namespace kelm {

// Records what it is told. Any thread.
class FakeWorkerFailureListener final : public WorkerFailureListener {
 public:
    void enqueueWorkerFailed(WorkThread* worker) override {
        MutexLock lock(m_mutex);
        m_failed.push_back(worker);
    }

    std::vector<WorkThread*> failed() {
        MutexLock lock(m_mutex);
        return m_failed;
    }

 private:
    Mutex m_mutex;
    std::vector<WorkThread*> m_failed GUARDED_BY(m_mutex);
};

}  // namespace kelm

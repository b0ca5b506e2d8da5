#pragma once

#include "execution/WorkThread.h"
#include "fakes/Recorded.h"
#include "scheduling/devices/WorkerRemovalListener.h"

namespace kelm {

// Owns workers and destroys one as soon as its scheduler releases it. Any thread.
class FakeWorkerRemovalListener final : public WorkerRemovalListener {
 public:
    WorkThread* own(std::unique_ptr<WorkThread> worker) {
        MutexLock lock(m_mutex);
        m_workers.push_back(std::move(worker));
        return m_workers.back().get();
    }

    void enqueueRemoveWorkerDone(WorkThread* worker) override {
        MutexLock lock(m_mutex);
        std::erase_if(m_workers, [worker](const auto& owned) { return owned.get() == worker; });
        removed.add(worker);
    }

    Recorded<WorkThread*> removed;  // these are destroyed

 private:
    Mutex m_mutex;
    std::vector<std::unique_ptr<WorkThread>> m_workers GUARDED_BY(m_mutex);
};

}  // namespace kelm

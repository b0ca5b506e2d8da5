#pragma once

#include <memory>
#include <vector>

#include "execution/WorkThread.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "utils/Mutex.h"

namespace kelm {

// Owns workers and deletes one as soon as its scheduler lets go of it. Any thread.
class FakeWorkerRemovalListener final : public WorkerRemovalListener {
 public:
    WorkThread* own(std::unique_ptr<WorkThread> worker) {
        MutexLock lock(m_mutex);
        m_workers.push_back(std::move(worker));
        return m_workers.back().get();
    }

    void enqueueRemoveWorkerDone(WorkThread* worker) override {
        MutexLock lock(m_mutex);
        m_removed.push_back(worker);
        std::erase_if(m_workers, [worker](const auto& owned) { return owned.get() == worker; });
    }

    // In order; the workers are gone.
    std::vector<WorkThread*> removed() {
        MutexLock lock(m_mutex);
        return m_removed;
    }

 private:
    Mutex m_mutex;
    std::vector<std::unique_ptr<WorkThread>> m_workers GUARDED_BY(m_mutex);
    std::vector<WorkThread*> m_removed GUARDED_BY(m_mutex);
};

}  // namespace kelm

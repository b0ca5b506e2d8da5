#pragma once

#include "execution/WorkerFailureListener.h"
#include "fakes/Recorded.h"

namespace kelm {

// Records what it is told. Any thread.
class FakeWorkerFailureListener final : public WorkerFailureListener {
 public:
    void enqueueWorkerFailed(WorkThread* worker) override { failed.add(worker); }

    Recorded<WorkThread*> failed;
};

}  // namespace kelm

#pragma once

namespace kelm {

class WorkThread;

// Port: who deletes a worker that its scheduler has let go of. Any thread; the call only queues.
class WorkerRemovalListener {
 public:
    virtual void enqueueRemoveWorkerDone(WorkThread* worker) = 0;

 protected:
    ~WorkerRemovalListener() = default;
};

}  // namespace kelm

#pragma once

namespace kelm {

class WorkThread;

// Port: destroys workers that their scheduler does not use any more. Any thread; the call only
// queues.
class WorkerRemovalListener {
 public:
    virtual void enqueueRemoveWorkerDone(WorkThread* worker) = 0;

 protected:
    ~WorkerRemovalListener() = default;
};

}  // namespace kelm

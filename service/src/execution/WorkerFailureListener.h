#pragma once

namespace kelm {

class WorkThread;

// Port: who hears that the device of a worker has failed for good. Any thread; the call only
// queues.
class WorkerFailureListener {
 public:
    virtual void enqueueWorkerFailed(WorkThread* worker) = 0;

 protected:
    ~WorkerFailureListener() = default;
};

}  // namespace kelm

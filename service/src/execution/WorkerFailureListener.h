#pragma once

namespace kelm {

class WorkThread;

// Port: the listener that hears that the device of a worker has failed for good. Any thread; the
// call only queues.
class WorkerFailureListener {
 public:
    virtual void enqueueWorkerFailed(WorkThread* worker) = 0;

 protected:
    ~WorkerFailureListener() = default;
};

}  // namespace kelm

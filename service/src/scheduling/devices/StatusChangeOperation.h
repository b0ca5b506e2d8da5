#pragma once

#include <chrono>
#include <cstdint>
#include <future>
#include <string>

#include "scheduling/devices/StatusChangeRequest.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmGraph;
class WorkThread;

// One unit of a device scheduler's plan: load this graph on that worker, unload it, or strip a
// worker whose device leaves. execute() only hands the job to the worker, so that the operations of
// a plan run in parallel; wait() collects the outcome. One that was never executed has no effect.
//
// Threads: the scheduling thread only; the job runs on the worker's.
// Owns: the future of the job. Graph and worker are borrowed until wait() has returned, and not
// followed after it but by releaseFailed().
class StatusChangeOperation : public NonCopyable {
 public:
    virtual ~StatusChangeOperation() = default;

    // Both throw what the worker's pools or the job throw.
    virtual void execute();
    // Blocks until the job is done, without a limit; the log tells of one that takes long. Nothing
    // to wait for: returns.
    virtual void wait() {}
    // What the job gave, 0 before.
    virtual int32_t getRetCode() { return m_retCode; }
    // Whether this is an operation of that type on the graph.
    virtual bool isOperation(KelmGraph* graph, StatusChangeRequestType type);

    // After wait(): makes the worker forget a graph that it failed to load.
    virtual void releaseFailed() {}
    // After wait(): the worker, if its answer says that the device is lost, else null.
    virtual WorkThread* getLostWorker() const { return nullptr; }
    // The outcome in place of an exception that execute() or wait() threw.
    void setFailed(int32_t retCode) { m_retCode = retCode; }

 protected:
    StatusChangeOperation();

    virtual void operation() = 0;
    virtual void preOperation() {}
    virtual void postOperation() {}

    // Whether the outcome says that the device is lost.
    bool isDeviceLost() const;
    // For wait(); `step` is what the job does to the graph.
    static void waitDone(const std::shared_future<int>& job, const char* step,
                         const std::string& graphName, WorkThread& worker);

    int32_t m_retCode = 0;
    const StepTrace m_trace;
};

}  // namespace kelm

#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "protocol/src/KelmMessage.h"
#include "protocol/src/MessagePtr.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

class KelmClient;
class KelmGraph;
class KelmTaskParam;

enum KelmTaskStatus : int32_t {
    TASK_STATUS_CREATED = 0,
    TASK_STATUS_QUEUED = 1,   // waits for a worker
    TASK_STATUS_LOADING = 2,  // being handed to the device
    TASK_STATUS_LOADED = 3,   // the device has the input
    TASK_STATUS_DONE = 4,     // the result is there, good or bad
    TASK_STATUS_LAST = 7,     // the highest value that setStatus accepts
};

// One inference request from its arrival to its last answer.
//
// Created and deleted by the task manager only.
//
// Threads: one works on a task at a time, since the pointer is handed on by queueing; the mutex
// protects what crosses that rule.
// Owns: its parameters and a held-back done message. Borrows client and graph, which outlive it.
// Locks: m_mutex is a leaf.
class KelmTask : public NonCopyable {
 public:
    using TimePoint = std::chrono::system_clock::time_point;

    // Takes over `taskParam`. Copies the request, whose pointers are never used from the copy.
    // `client` may be null.
    KelmTask(uint64_t id, KelmClient* client, KelmGraph* graph, KelmTaskParam* taskParam,
             const KelmMsgReqInferTask* request);
    ~KelmTask();

    // Records come from a free list: one is made and given back for every request.
    static void* operator new(size_t size);
    static void operator delete(void* block);

    uint64_t getId() const { return m_id; }
    uint64_t getClientId() const { return m_clientId; }
    // The client's record stays until its last task has ended; may be null.
    KelmClient* getClient() const { return m_client; }
    const std::string& getClientName() const { return *m_clientName; }
    KelmGraph* getGraph() const { return m_graph; }
    KelmTaskParam* getTaskParam() const { return m_taskParam.get(); }
    // Whether the end of the record may take long, see KelmTaskParam.
    bool mayWaitAtEnd() const;
    const KelmMsgReqInferTask& getCreateTaskRequest() const { return m_createTaskRequest; }

    // Only sets a flag: the scheduler, the worker or the manager that has the task next acts on it.
    void cancel() { m_isCanceled.store(true); }
    bool isCanceled() const { return m_isCanceled.load(); }

    // How many times the input was offered to a device.
    void addLoadCount() { m_loadCount.fetch_add(1); }
    int32_t getLoadCount() const { return m_loadCount.load(); }

    // Also notes the time; a value above TASK_STATUS_LAST is ignored.
    void setStatus(int32_t status);
    int32_t getStatus() const { return m_status.load(); }
    std::string getTimeToKelmHal() const;
    std::string getTimeToTaskQueue() const;

    // Order of the two answers: the done message waits here until the create response is written.
    // True: the task holds the message, and the caller must use neither any more.
    bool setTaskDoneResponse(MessagePtr& message) EXCLUDES(m_mutex);
    // The create response is out. A message in the result obliges the caller to send it and then
    // to destroy the task.
    MessagePtr setSendCreateResponseDone() EXCLUDES(m_mutex);

    // Whether a done message was made: it is sent by now, or held by the task.
    bool hasTaskDoneResponse() EXCLUDES(m_mutex);
    // The create response will never be written. True if a done message was held: it is dropped
    // too, and the caller must destroy the task.
    bool dropTaskDoneResponse() EXCLUDES(m_mutex);

    // The tracer's handle of the execution on a device.
    uint64_t getExecutionTraceIndex() const { return m_executionTraceIndex.load(); }
    void setExecutionTraceIndex(uint64_t index) { m_executionTraceIndex.store(index); }
    // Ends that trace if it is open.
    void finishExecutionTrace();

    // One line of the phases in milliseconds, for the log.
    std::string getSummary() const;
    // One line for diagnostics.
    std::string getDescription() const;

 private:
    const uint64_t m_id;
    KelmClient* const m_client;
    // Copies, for logs that are written after the client's end.
    const uint64_t m_clientId;
    const std::shared_ptr<const std::string> m_clientName;
    KelmGraph* const m_graph;
    std::unique_ptr<KelmTaskParam> m_taskParam;
    const KelmMsgReqInferTask m_createTaskRequest;
    static constexpr uint64_t kNoTrace = UINT64_MAX;
    // Atomic: several owners may end the trace, and only one of them does.
    std::atomic<uint64_t> m_executionTraceIndex{kNoTrace};

    // Atomics, each alone: told to anyone who asks while the one that works on the task goes on.
    std::atomic<int32_t> m_loadCount{0};
    std::atomic<int32_t> m_status{TASK_STATUS_CREATED};
    std::atomic<bool> m_isCanceled{false};
    // When it came to each status, by its number; the epoch: never.
    std::array<std::atomic<TimePoint>, TASK_STATUS_DONE + 1> m_times{};

    Mutex m_mutex;
    bool m_isCreateRspSent GUARDED_BY(m_mutex);         // also if none is wanted
    bool m_hasTaskDoneMsg GUARDED_BY(m_mutex) = false;  // also after it was handed out
    MessagePtr m_taskDoneMsg GUARDED_BY(m_mutex);
};

}  // namespace kelm

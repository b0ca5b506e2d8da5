#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "execution/ResultSink.h"
#include "managers/ClientSenders.h"
#include "managers/StrangerSender.h"
#include "protocol/src/KelmError.h"
#include "protocol/src/MessagePtr.h"
#include "reporting/PrintInfoListener.h"
#include "utils/FpsCounter.h"
#include "utils/SerialPool.h"
#include "utils/Singleton.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace kelm {

class ClientSender;
class KelmClient;
class KelmGraph;
class KelmTask;
class Request;
struct KelmStatus;
struct RequestRow;

// Builds every message that leaves the service and decides on which thread it is written. Building
// is serial, on the main pool; writing is per client, so that a client that reads slowly stalls its
// own messages only. A done message that is ready before the create response is out waits in its
// task.
//
// The enqueueSend... calls that take a request answer it. They may be called on any thread and
// block while the main pool is full.
//
// Threads: m_mainPool builds, m_strangers writes what belongs to no client, one pool per client
// writes that client's messages in order.
// Owns: the clients' senders, and what is queued. Borrows tasks until it has passed them on.
class ResultDispatcher : public Singleton<ResultDispatcher>,
                         public ResultSink,
                         public PrintInfoListener {
 public:
    ResultDispatcher();
    ~ResultDispatcher() override;

    void enqueueSendRegisterResponse(uint64_t clientId, KelmError error, Request request);
    void enqueueSendUnregisterResponse(KelmError error, Request request);
    // A null graph is a failure. The graph is read before the call returns.
    void enqueueSendCreateGraphResponse(const KelmGraph* graph, KelmError error, Request request);
    void enqueueSendDestroyGraphResponse(KelmError error, Request request);
    void enqueueSendQueryBufferSizeResponse(uint64_t inputSize, uint64_t outputSize,
                                            KelmError error, Request request);
    // A null task is a refusal. The task is read before the call returns, and may be destroyed
    // right after.
    void enqueueSendCreateTaskResponse(const KelmTask* task, KelmError error, Request request);
    void enqueueSendCancelTaskResponse(bool canceled, KelmError error, Request request);
    void enqueueSendQueryTaskStatusResponse(int32_t status, KelmError error, Request request);
    void enqueueSendResetDeviceResponse(KelmError error, Request request) override;
    void enqueueSendTaskDoneResponse(KelmTask* task, KelmError error) override;
    // The record is complete and does not change any more.
    void enqueueSendQueryStatusResponse(const std::shared_ptr<KelmStatus>& status, Request request);
    // Fills in the rate of the service and reports that.
    void enqueueQueryServiceFps(const std::shared_ptr<KelmStatus>& status);
    // The client's record is about to be destroyed: reports to the client manager once every answer
    // is out that has been handed in before.
    void enqueueFinishSender(uint64_t clientId);
    // The client's record has been destroyed.
    void enqueueRemoveDedicatedThreadPool(uint64_t clientId);

    // From here on no client gets a pool any more, and peers without a client get no answer.
    void stopSendResponse();

    void onPrintInfo() override;

 private:
    // What an answer says in its head and in the log, and its receiver by client and connection.
    struct Answer {
        const RequestRow& row;
        uint64_t clientId;
        uint64_t id;  // what it is about, for the log
        KelmError error;
        int socket;
    };

    // Building, on the main pool. `fill` writes what the type of the answer has beyond its head:
    // fill(const Asked& request, Told& response).
    template <class Asked, class Told, class Fill>
    void enqueueAnswer(Request request, uint64_t id, KelmError error, Fill fill);
    void sendRegisterResponse(uint64_t clientId, KelmError error, Request request)
        REQUIRES(m_onMainPool);
    void sendUnregisterResponse(KelmError error, Request request) REQUIRES(m_onMainPool);
    void sendTaskDoneResponse(KelmTask* task, KelmError error) REQUIRES(m_onMainPool);

    // False, with the reason logged, when the request gets no answer.
    bool checkInputParameters(const Answer& answer, const KelmMsgReq& request);
    // The response with its head filled, or null when it is not to be sent.
    MessagePtr makeResponse(const Answer& answer, const KelmMsgReq& request);
    void deliver(const Answer& answer, MessagePtr message) REQUIRES(m_onMainPool);
    // Whether there is no thread for the client's answers; takes the message then.
    bool refuseWithoutThread(const Answer& answer, MessagePtr& message) REQUIRES(m_onMainPool);
    // The client that counts the task, and is told of its end if it wants that; or null.
    KelmClient* findReceiver(KelmTask& task);
    // False if the message waits for the create response: the thread that writes that sends it,
    // and the task is that thread's from here on.
    bool tellTaskDone(KelmTask& task, KelmClient& client, KelmError error) REQUIRES(m_onMainPool);
    MessagePtr makeTaskDoneMessage(KelmTask& task, KelmClient& client, KelmError error);
    void cancelUnregisterResponse(uint64_t clientId) REQUIRES(m_onMainPool);
    void destroyTask(KelmTask* task);

    // Writing. With `createdTaskId` the message is the create response of that task. Without a
    // sender it is written to the connection that the request came on.
    void sendResponse(ClientSender* sender, uint64_t clientId, int socket, MessagePtr message,
                      uint64_t createdTaskId) REQUIRES(m_onMainPool);
    // For an id without a client: written to the connection that the request came on, or dropped if
    // that is closed.
    void sendWithoutPool(uint64_t clientId, int socket, MessagePtr message) REQUIRES(m_onMainPool);
    // Runs as a job of the sender, after the unregister response has been handed to its writer.
    static void finishUnregister(ClientSender& sender);
    void notifySendCreateTaskReponseDone(ClientSender& sender, uint64_t taskId);

    void finishSender(uint64_t clientId) REQUIRES(m_onMainPool);
    // Takes the client's sender out at once; it ends when it has written what is queued.
    void removeDedicatedThreadPool(uint64_t clientId) REQUIRES(m_onMainPool);

    const StepTrace m_trace;
    // Atomic: the sequence is one of the whole service.
    std::atomic<uint64_t> m_evtSeqNo{0};
    FpsCounter m_finishedTasks;

    ThreadRole m_onMainPool;
    ClientSenders m_senders;
    StrangerSender m_strangers;
    SerialPool m_mainPool;  // last: its jobs use all of the above
};

}  // namespace kelm

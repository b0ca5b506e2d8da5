#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/Client.h"
#include "client/PendingCalls.h"
#include "client/ReadTurn.h"
#include "client/ServiceAccess.h"
#include "protocol/src/KelmMessage.h"
#include "protocol/src/MessageAssembler.h"
#include "protocol/src/MessageWriter.h"
#include "utils/Mutex.h"

namespace IPC {
class ConnectionUDS;
}  // namespace IPC

namespace kelm::client {

// The connection behind a Client: one thread reads answers, any thread writes requests, one at a
// time.
//
// What callbacks submit while further answers wait to be read is gathered and leaves in one write,
// as long as they are short: a callback that computes must not hold up its own requests.
//
// A thread that waits for an inference while nothing else is pending reads by itself, see ReadTurn.
//
// Threads: any may call; callbacks of others run on the reading and the deadline thread.
// Owns: the connection, the reading thread "KelmReader" and the pending calls.
// Locks: m_sendMutex and m_lostMutex, leaves; not held while writing or in a callback.
class Client::Impl {
 public:
    using Clock = PendingCalls::Clock;

    // Connected by the file at `path`.
    Impl(std::shared_ptr<IPC::ConnectionUDS> connection, const std::string& path);
    ~Impl();

    // Sends a request that has an answer and waits for it. `what` names the call in a timeout.
    Result<MessagePtr> call(KelmMsgReq& request, const char* what, Deadline deadline);
    // Fills in client id and sequence number.
    void infer(KelmMsgReqInferTask& message, std::shared_ptr<SlotClaim> claim,
               const InferCallback& done, AcceptCallback accepted, Clock::time_point end,
               bool waited = false);
    // The same for a thread that waits for the end: reads answers meanwhile if it may. The
    // callbacks have run on return, or run later on other threads.
    void inferWaited(KelmMsgReqInferTask& message, std::shared_ptr<SlotClaim> claim,
                     const InferCallback& done, AcceptCallback accepted, Clock::time_point end);
    void onLost(LostCallback callback) EXCLUDES(m_lostMutex);
    void onLateGraph(LateGraphCallback callback) EXCLUDES(m_lostMutex);
    void hangUp();
    void endInfer(uint64_t taskId, const Error& error) { m_pending.endInfer(taskId, error); }
    std::vector<uint64_t> tasks(uint64_t graphId, bool everyLate) const {
        return m_pending.tasks(graphId, everyLate);
    }
    void onWarning(WarningCallback callback) { m_access.onWarning(std::move(callback)); }

    bool isConnected() const { return m_connected.load(); }
    uint64_t clientId() const { return m_clientId.load(); }
    pid_t servicePid() const { return m_servicePid; }
    void setClientId(uint64_t id) { m_clientId.store(id); }

 private:
    uint64_t nextSequence() { return m_sequence.fetch_add(1) + 1; }
    // Writes one request; waits for its turn until the deadline.
    Error send(KelmMsgBase& message, Clock::time_point deadline) EXCLUDES(m_sendMutex);
    // For a thread that must not wait: kBusy if there is no room at once.
    template <class Write>
    Error sendWithoutWaiting(Write write) EXCLUDES(m_sendMutex);
    // Runs the writing in its turn; false if it failed, nothing if the deadline has passed before.
    template <class Write>
    std::optional<bool> writeInTurn(Clock::time_point deadline, Write write) EXCLUDES(m_sendMutex);
    // On the reader's thread.
    bool gathers(const KelmMsgReqInferTask& message) const;
    Error gather(KelmMsgReqInferTask& message, Clock::time_point deadline) EXCLUDES(m_sendMutex);
    void flushGathered() EXCLUDES(m_sendMutex);
    bool dispatchTimed(MessagePtr message) EXCLUDES(m_sendMutex);
    // A write that is stuck past its deadline left half a request behind: the connection is lost.
    // Returns when to look again, max() for no need.
    Clock::time_point giveUpStuckSend() EXCLUDES(m_sendMutex);
    void readRoutine() EXCLUDES(m_lostMutex);
    // The next message, waited for by the reader; null when the connection is of no use any more.
    MessagePtr receive();
    // True if a thread has waited for what has ended.
    bool dispatch(MessagePtr message);
    // The answer to a load, perhaps a late one.
    void finishLoad(MessagePtr message) EXCLUDES(m_lostMutex);
    // Whether it runs no callback but this library's own, and may come before what was passed on.
    bool mayDispatchAnywhere(const KelmMsgBase& message) const;
    void readWhilePending(uint64_t sequence, Clock::time_point end);

    const std::shared_ptr<IPC::ConnectionUDS> m_connection;
    const int m_socket;
    const pid_t m_servicePid;
    ServiceAccess m_access;
    // Atomics: counters and flags that stand for themselves.
    std::atomic<uint64_t> m_sequence{0};
    std::atomic<uint64_t> m_clientId{0};
    std::atomic<bool> m_connected{true};

    Mutex m_sendMutex;
    CondVar m_sendTurn;
    bool m_sending GUARDED_BY(m_sendMutex) = false;
    Clock::time_point m_sendDeadline GUARDED_BY(m_sendMutex);

    Mutex m_lostMutex;
    LostCallback m_onLost GUARDED_BY(m_lostMutex);
    LateGraphCallback m_onLateGraph GUARDED_BY(m_lostMutex);

    // Requests of callbacks that leave together, once the answers that have come are dealt with.
    // The reader's own.
    MessageWriter m_gathered;
    Clock::time_point m_gatheredDeadline;
    int m_ungathered = 0;  // messages to go until callbacks are taken for short again

    ReadTurn m_turn;
    MessageAssembler m_assembler;  // of the thread that has the turn

    PendingCalls m_pending;
    std::thread m_reader;
};

}  // namespace kelm::client

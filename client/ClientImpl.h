#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "client/Client.h"
#include "client/PendingCalls.h"
#include "client/ServiceAccess.h"
#include "protocol/src/KelmMessage.h"
#include "utils/Mutex.h"

namespace IPC {
class ConnectionUDS;
}  // namespace IPC

namespace kelm::client {

// The connection behind a Client: one thread reads answers, any thread writes requests, one at a
// time.
//
// Threads: any may call; callbacks run on the reading and the deadline thread.
// Owns: the connection, the reading thread "KelmReader" and the pending calls.
// Locks: m_sendMutex, a leaf; not held while writing.
class Client::Impl {
 public:
    using Clock = PendingCalls::Clock;

    // Connected by the file at `path`.
    Impl(std::shared_ptr<IPC::ConnectionUDS> connection, const std::string& path);
    ~Impl();

    // Sends a request that has an answer and waits for it. `what` names the call in a timeout.
    Result<MessagePtr> call(KelmMsgReq& request, const char* what, Deadline deadline);
    void infer(const InferRequest& request, const InferCallback& done, AcceptCallback accepted,
               Deadline deadline);
    void onWarning(WarningCallback callback) { m_access.onWarning(std::move(callback)); }

    bool isConnected() const { return m_connected.load(); }
    uint64_t clientId() const { return m_clientId.load(); }
    pid_t servicePid() const { return m_servicePid; }
    void setClientId(uint64_t id) { m_clientId.store(id); }

 private:
    uint64_t nextSequence() { return m_sequence.fetch_add(1) + 1; }
    // Writes one request; waits for its turn until the deadline.
    Error send(KelmMsgBase& message, Clock::time_point deadline) EXCLUDES(m_sendMutex);
    // A write that is stuck past its deadline left half a request behind: the connection is lost.
    void giveUpStuckSend() EXCLUDES(m_sendMutex);
    void readRoutine();
    void dispatch(MessagePtr message);

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

    PendingCalls m_pending;
    std::thread m_reader;
};

}  // namespace kelm::client

#include "client/ClientImpl.h"

#include <algorithm>
#include <future>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "utils/IPC.h"
#include "utils/PeerCredentials.h"
#include "utils/ThreadUtils.h"

namespace kelm::client {

namespace {

// A callback that takes longer makes the following ones send their requests at once.
constexpr std::chrono::microseconds kShortCallback{50};
constexpr int kMistrust = 64;  // for so many messages
constexpr std::chrono::seconds kFlushPatience{1};

// The object whose answers this thread reads.
thread_local const void* t_reading = nullptr;

// What ends a call: the message, or the error that stands in its place.
struct Answer {
    MessagePtr message;
    Error error;
};

// Of an unknown process as the kernel tells it.
pid_t findPeer(int socket) {
    const auto peer = PeerCredentials::ofSocket(socket);
    return peer ? peer->pid : 0;
}

}  // namespace

// The reader is started last, when all that it uses is there.
Client::Impl::Impl(std::shared_ptr<IPC::ConnectionUDS> connection, const std::string& path)
    : m_connection(std::move(connection)),
      m_socket(m_connection->getSimulateFD()),
      m_servicePid(findPeer(m_connection->nativeHandle())),
      m_access(m_connection->nativeHandle(), path),
      m_gathered(m_socket),
      m_pending([this] { giveUpStuckSend(); }),
      m_reader([this] { readRoutine(); }) {}

Client::Impl::~Impl() {
    // The order matters: the reader ends once it cannot read; only then no answer can come for the
    // calls that are closed, and the descriptor is closed when no thread uses it.
    m_connection->shutdown();
    m_reader.join();
    m_pending.closeAll(Error::connectionLost());
    m_connection->close();
}

void Client::Impl::onLost(LostCallback callback) {
    MutexLock lock(m_lostMutex);
    m_onLost = std::move(callback);
}

void Client::Impl::hangUp() { m_connection->shutdown(); }

Result<MessagePtr> Client::Impl::call(KelmMsgReq& request, const char* what, Deadline deadline) {
    const Clock::time_point end = Clock::now() + deadline;
    const uint64_t sequence = nextSequence();
    request.reqSeqNo = sequence;
    request.needResponse = 1;
    // Shared: after a deadline the callback may still be running while this function returns.
    auto promise = std::make_shared<std::promise<Answer>>();
    std::future<Answer> future = promise->get_future();
    const bool added =
        m_pending.addCall(sequence, what, end, [promise](MessagePtr message, const Error& error) {
            promise->set_value({std::move(message), error});
        });
    if (!added) return Error::connectionLost();
    // Added before it is sent: the answer may come before send() returns.
    if (const Error error = send(request.base, end)) m_pending.fail(sequence, error);
    Answer answer = future.get();
    if (answer.error) return answer.error;
    const auto* response = reinterpret_cast<const KelmMsgRsp*>(answer.message.get());
    if (response->status != 0) {
        const bool creates = request.base.type == KELM_MESSAGE_CREATE_GRAPH_REQ;
        return Error::fromStatus(response->status,
                                 creates ? CallKind::kCreateGraph : CallKind::kOther);
    }
    return std::move(answer.message);
}

// The callback runs in each case, here at the latest: a caller never waits for a request that was
// not taken.
void Client::Impl::infer(KelmMsgReqInferTask& message, std::shared_ptr<SlotClaim> claim,
                         InferCallback done, AcceptCallback accepted, Clock::time_point end) {
    message.head.reqSeqNo = nextSequence();
    message.clientId = clientId();
    m_access.letIn(claim.get());
    if (!isConnected() ||
        !m_pending.addInfer(end, message, std::move(claim), done, std::move(accepted))) {
        InferResult result;
        result.error = Error::connectionLost();
        result.cookie0 = message.taskCookie0;
        result.cookie1 = message.taskCookie1;
        return done(result);
    }
    const Error error = gathers(message) ? gather(message, end) : send(message.head.base, end);
    if (error) m_pending.fail(message.head.reqSeqNo, error);
}

Error Client::Impl::send(KelmMsgBase& message, Clock::time_point deadline) {
    const std::optional<bool> sent =
        writeInTurn(deadline, [&] { return kelmSendMessage(m_socket, &message) == 0; });
    if (!sent) return Error::timeout("the request");
    return *sent ? Error() : Error::connectionLost();
}

template <class Write>
std::optional<bool> Client::Impl::writeInTurn(Clock::time_point deadline, Write write) {
    {
        MutexLock lock(m_sendMutex);
        // A turn by a flag, not by holding the mutex while writing: a caller whose deadline passes
        // must be able to leave while another one's write is stuck.
        while (m_sending) {
            if (!m_sendTurn.waitUntil(m_sendMutex, deadline) && m_sending) return std::nullopt;
        }
        m_sending = true;
        m_sendDeadline = deadline;
    }
    // Without the mutex: the write waits for as long as the service does not read.
    const bool sent = write();
    MutexLock lock(m_sendMutex);
    m_sending = false;
    m_sendTurn.notifyOne();
    return sent;
}

// One with descriptors is written at once: the writer would have to wait for its turn.
bool Client::Impl::gathers(const KelmMsgReqInferTask& message) const {
    return t_reading == this && m_ungathered == 0 && message.inputBuffer.fd <= 0 &&
           message.outputBuffer.fd <= 0 && message.auxBuffer.fd <= 0;
}

Error Client::Impl::gather(KelmMsgReqInferTask& message, Clock::time_point deadline) {
    if (!m_gathered.hasRoomFor(sizeof(message))) flushGathered();
    m_gatheredDeadline = m_gathered.empty() ? deadline : std::min(m_gatheredDeadline, deadline);
    return m_gathered.append(&message.head.base) == 0 ? Error() : Error::connectionLost();
}

// Waits for its turn without limit, since another write that is stuck ends the connection at its
// own deadline. A failure ends it, too.
void Client::Impl::flushGathered() {
    if (m_gathered.empty()) return;
    std::optional<bool> sent;
    while (!sent) {
        sent = writeInTurn(std::max(m_gatheredDeadline, Clock::now() + kFlushPatience),
                           [this] { return m_gathered.flush() == 0; });
    }
    if (!*sent) m_connection->shutdown();
}

// On the deadline thread. The shutdown ends the write, and the reader then ends all other calls.
void Client::Impl::giveUpStuckSend() {
    MutexLock lock(m_sendMutex);
    if (m_sending && m_sendDeadline <= Clock::now()) m_connection->shutdown();
}

void Client::Impl::readRoutine() {
    ThreadUtils::setName("KelmReader");
    t_reading = this;
    while (MessagePtr message{kelmReceiveMessage(m_socket)}) {
        dispatchTimed(std::move(message));
        if (!m_connection->hasBufferedData()) flushGathered();
    }
    t_reading = nullptr;
    m_connected.store(false);  // first, so that a callback below sees the loss
    m_pending.closeAll(Error::connectionLost());
    LostCallback lost;
    {
        MutexLock lock(m_lostMutex);
        lost = m_onLost;
    }
    if (lost) lost();
}

// Callbacks that write by themselves are not timed: the write may hand the processor over.
void Client::Impl::dispatchTimed(MessagePtr message) {
    const Clock::time_point before = m_ungathered == 0 ? Clock::now() : Clock::time_point::max();
    dispatch(std::move(message));
    if (m_ungathered > 0) {
        --m_ungathered;
    } else if (Clock::now() - before > kShortCallback) {
        m_ungathered = kMistrust;
        flushGathered();
    }
}

// On the reader's thread, as the callbacks that it runs: one that waits for an answer would wait
// for itself.
void Client::Impl::dispatch(MessagePtr message) {
    switch (message->type) {
        case KELM_MESSAGE_INFER_TASK_RSP: {
            const auto& response = reinterpret_cast<const KelmMsgRspInferTask&>(*message);
            m_pending.acceptInfer(response.head.reqSeqNo, response.head.status, response.taskId);
            break;
        }
        case KELM_MESSAGE_TASK_DONE_EVT: {
            const auto& event = reinterpret_cast<const KelmMsgEvtTaskDone&>(*message);
            m_pending.finishInfer(event.reqSeqNo, event.status, event.taskId);
            break;
        }
        case KELM_MESSAGE_CANCEL_TASK_RSP: {
            // No result follows for a task that was taken back. Also when the canceling call has
            // ended at its deadline.
            const auto& response = reinterpret_cast<const KelmMsgRspCancelTask&>(*message);
            if (response.head.status == 0 && response.canceled != 0) {
                m_pending.cancelInfer(response.taskId);
            }
            const uint64_t sequence = response.head.reqSeqNo;
            m_pending.finishCall(sequence, std::move(message));
            break;
        }
        default: {
            if (message->size < sizeof(KelmMsgRsp)) break;  // an event that asks for nothing
            const uint64_t sequence = reinterpret_cast<const KelmMsgRsp&>(*message).reqSeqNo;
            m_pending.finishCall(sequence, std::move(message));
            break;
        }
    }
}

}  // namespace kelm::client

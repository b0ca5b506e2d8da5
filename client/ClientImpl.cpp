#include "client/ClientImpl.h"

#include <poll.h>

#include <algorithm>
#include <future>
#include <utility>

#include "protocol/src/KelmError.h"
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
constexpr std::chrono::milliseconds kMoment{1};
constexpr std::chrono::seconds kSlowWrite{1};

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
      m_turn(m_connection->nativeHandle()),
      m_pending([this] { return giveUpStuckSend(); }),
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

void Client::Impl::onLateGraph(LateGraphCallback callback) {
    MutexLock lock(m_lostMutex);
    m_onLateGraph = std::move(callback);
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
    m_turn.wakeIfParked();
    // Added before it is sent: the answer may come before send() returns.
    if (const Error error = send(request.base, end)) m_pending.fail(sequence, error);
    Answer answer = future.get();
    if (answer.error) return answer.error;
    // The type of an answer follows that of its request.
    if (answer.message->type != request.base.type + 1) return unexpectedAnswer();
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
                         const InferCallback& done, AcceptCallback accepted, Clock::time_point end,
                         bool waited) {
    message.head.reqSeqNo = nextSequence();
    message.clientId = clientId();
    m_access.letIn(claim.get());
    if (!isConnected() ||
        !m_pending.addInfer(end, message, std::move(claim), done, std::move(accepted), waited)) {
        InferResult result;
        result.error = Error::connectionLost();
        result.cookie0 = message.taskCookie0;
        result.cookie1 = message.taskCookie1;
        return done(result);
    }
    if (!waited) m_turn.wakeIfParked();
    const Error error = gathers(message) ? gather(message, end) : send(message.head.base, end);
    if (error) m_pending.fail(message.head.reqSeqNo, error);
}

void Client::Impl::inferWaited(KelmMsgReqInferTask& message, std::shared_ptr<SlotClaim> claim,
                               const InferCallback& done, AcceptCallback accepted,
                               Clock::time_point end) {
    infer(message, std::move(claim), done, std::move(accepted), end, true);
    readWhilePending(message.head.reqSeqNo, end);
}

// Whatever comes of the turn, somebody reads: the reading thread, or a caller that wakes it if this
// call is still pending when it gives the turn back.
void Client::Impl::readWhilePending(uint64_t sequence, Clock::time_point end) {
    if (!m_turn.take()) return;
    auto state = MessageAssembler::State::kWaiting;
    while (state != MessageAssembler::State::kFailed && m_pending.has(sequence)) {
        // At least a moment: the thread for deadlines ends what is overdue.
        const auto until = std::max(end, Clock::now() + kMoment);
        if (!m_connection->hasBufferedData() && !m_turn.waitReadable(until)) continue;
        state = m_assembler.receiveArrived(*m_connection);
        if (state != MessageAssembler::State::kWhole) continue;
        MessagePtr message = m_assembler.take(m_connection);
        if (mayDispatchAnywhere(*message)) {
            dispatch(std::move(message));
        } else {
            m_turn.pass(std::move(message));
        }
    }
    m_turn.giveBack([&] {
        return state != MessageAssembler::State::kFailed && m_pending.empty() &&
               !m_connection->hasBufferedData();
    });
}

// The answer to a cancel may end a call that it does not name. That to a query of a task tells that
// no result comes any more, and so must not overtake one that was passed on.
bool Client::Impl::mayDispatchAnywhere(const KelmMsgBase& message) const {
    switch (message.type) {
        case KELM_MESSAGE_CANCEL_TASK_RSP:
        case KELM_MESSAGE_QUERY_TASK_STATUS_RSP:
            return false;
        case KELM_MESSAGE_TASK_DONE_EVT:
            return m_pending.isWaited(
                reinterpret_cast<const KelmMsgEvtTaskDone&>(message).reqSeqNo);
        default:
            return message.size >= sizeof(KelmMsgRsp) &&
                   m_pending.isWaited(reinterpret_cast<const KelmMsgRsp&>(message).reqSeqNo);
    }
}

Error Client::Impl::send(KelmMsgBase& message, Clock::time_point deadline) {
    const auto write = [&] { return kelmSendMessage(m_socket, &message) == 0; };
    if (watchesDeadlines()) return sendWithoutWaiting(write);
    const std::optional<bool> sent = writeInTurn(deadline, write);
    if (!sent) return Error::timeout("the request");
    return *sent ? Error() : Error::connectionLost();
}

// The kernel tells of room only when most of the socket's buffer is free, and so has room for a
// whole request: whoever has the turn writes it without a wait.
template <class Write>
Error Client::Impl::sendWithoutWaiting(Write write) {
    bool hasRoom = true;
    const std::optional<bool> sent = writeInTurn(Clock::now(), [&] {
        pollfd socket{m_connection->nativeHandle(), POLLOUT, 0};
        hasRoom = ::poll(&socket, 1, 0) > 0;
        return hasRoom && write();
    });
    if (!sent || !hasRoom) {
        return {ErrorKind::kBusy, 0, "the service reads no requests at the moment; try again"};
    }
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
        // A thread that only lost its processor is not stuck.
        m_sendDeadline = std::max(deadline, Clock::now() + kSlowWrite);
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
Client::Impl::Clock::time_point Client::Impl::giveUpStuckSend() {
    MutexLock lock(m_sendMutex);
    if (!m_sending) return Clock::time_point::max();
    if (m_sendDeadline > Clock::now()) return m_sendDeadline;
    m_connection->shutdown();
    return Clock::time_point::max();
}

MessagePtr Client::Impl::receive() {
    if (m_assembler.receiveWhole(*m_connection) != MessageAssembler::State::kWhole) return nullptr;
    return m_assembler.take(m_connection);
}

void Client::Impl::readRoutine() {
    ThreadUtils::setName("KelmReader");
    t_reading = this;
    const auto isIdle = [this] { return m_pending.empty(); };
    const auto deal = [this](MessagePtr passed) {
        dispatchTimed(std::move(passed));
        flushGathered();
    };
    while (MessagePtr message = receive()) {
        const bool waited = dispatchTimed(std::move(message));
        if (m_connection->hasBufferedData()) continue;
        flushGathered();
        // The thread that has waited may come back with the next call.
        if (waited && isIdle()) m_turn.park(isIdle, deal);
    }
    t_reading = nullptr;
    m_connected.store(false);  // first, so that a callback below sees the loss
    // The service may be there still, having sent nonsense: a write must not wait for it any more.
    m_connection->shutdown();
    m_pending.closeAll(Error::connectionLost());
    LostCallback lost;
    {
        MutexLock lock(m_lostMutex);
        lost = m_onLost;
    }
    if (lost) lost();
}

// Callbacks that write by themselves are not timed: the write may hand the processor over.
bool Client::Impl::dispatchTimed(MessagePtr message) {
    const Clock::time_point before = m_ungathered == 0 ? Clock::now() : Clock::time_point::max();
    const bool waited = dispatch(std::move(message));
    if (m_ungathered > 0) {
        --m_ungathered;
    } else if (Clock::now() - before > kShortCallback) {
        m_ungathered = kMistrust;
        flushGathered();
    }
    return waited;
}

void Client::Impl::finishLoad(MessagePtr message) {
    const auto& response = reinterpret_cast<const KelmMsgRspCreateGraph&>(*message);
    const bool isLoaded = response.head.status == KELM_OK;
    const uint64_t graphId = response.graphId;
    const uint64_t sequence = response.head.reqSeqNo;
    if (m_pending.finishCall(sequence, std::move(message)) || !isLoaded) return;
    LateGraphCallback late;
    {
        MutexLock lock(m_lostMutex);
        late = m_onLateGraph;
    }
    if (late) late(graphId);
}

// On the reader's thread, as the callbacks that it runs: one that waits for an answer would wait
// for itself. What is this library's own also runs on the thread of a caller that reads.
bool Client::Impl::dispatch(MessagePtr message) {
    switch (message->type) {
        case KELM_MESSAGE_INFER_TASK_RSP: {
            const auto& response = reinterpret_cast<const KelmMsgRspInferTask&>(*message);
            m_pending.acceptInfer(response.head.reqSeqNo, response.head.status, response.taskId);
            break;
        }
        case KELM_MESSAGE_TASK_DONE_EVT: {
            const auto& event = reinterpret_cast<const KelmMsgEvtTaskDone&>(*message);
            return m_pending.finishInfer(event.reqSeqNo, event.status, event.taskId);
        }
        case KELM_MESSAGE_CANCEL_TASK_RSP: {
            // No result follows for a task that was taken back. Also when the canceling call has
            // ended at its deadline.
            const auto& response = reinterpret_cast<const KelmMsgRspCancelTask&>(*message);
            if (response.head.status == 0 && response.canceled != 0) {
                m_pending.endInfer(response.taskId, Error::canceled());
            }
            const uint64_t sequence = response.head.reqSeqNo;
            m_pending.finishCall(sequence, std::move(message));
            break;
        }
        case KELM_MESSAGE_CREATE_GRAPH_RSP:
            finishLoad(std::move(message));
            break;
        default: {
            if (message->size < sizeof(KelmMsgRsp)) break;  // an event that asks for nothing
            const uint64_t sequence = reinterpret_cast<const KelmMsgRsp&>(*message).reqSeqNo;
            m_pending.finishCall(sequence, std::move(message));
            break;
        }
    }
    return false;
}

}  // namespace kelm::client

#include "client/ClientImpl.h"

#include <future>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "utils/IPC.h"
#include "utils/PeerCredentials.h"
#include "utils/StringHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm::client {

namespace {

// What ends a call: the message, or the error that stands in its place.
struct Answer {
    MessagePtr message;
    Error error;
};

void fillBuffer(KelmBuffer& buffer, const Tensor& tensor) {
    if (tensor.kind == Tensor::Kind::kNone) return;
    buffer.size = tensor.size;
    if (tensor.kind == Tensor::Kind::kDescriptor) {
        buffer.type = KELM_BUFFER_ION;
        buffer.fd = tensor.fd;
    } else {
        buffer.type = KELM_BUFFER_SHARE_MEMORY;
        StringHelper::copyStringSafe(buffer.name, tensor.name);
    }
}

KelmMsgReqInferTask makeInferRequest(uint64_t clientId, uint64_t sequence,
                                     const InferRequest& request) {
    KelmMsgReqInferTask message{};
    message.head.base.type = KELM_MESSAGE_INFER_TASK_REQ;
    message.head.base.size = sizeof(message);
    message.head.reqSeqNo = sequence;
    message.head.needResponse = 1;
    message.clientId = clientId;
    message.graphId = request.graphId;
    message.taskCookie0 = request.cookie0;
    message.taskCookie1 = request.cookie1;
    fillBuffer(message.inputBuffer, request.input);
    fillBuffer(message.outputBuffer, request.output);
    fillBuffer(message.auxBuffer, request.aux);
    message.auxBuffer.auxFlags = request.auxFlags;
    message.auxBuffer.auxRequested = request.aux.kind != Tensor::Kind::kNone ? 1 : 0;
    return message;
}

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
void Client::Impl::infer(const InferRequest& request, const InferCallback& done,
                         AcceptCallback accepted, Deadline deadline) {
    const Clock::time_point end = Clock::now() + deadline;
    const uint64_t sequence = nextSequence();
    KelmMsgReqInferTask message = makeInferRequest(clientId(), sequence, request);
    Error refused = isConnected()
                        ? m_pending.addInfer(sequence, end, request, done, std::move(accepted))
                        : Error::connectionLost();
    if (refused) {
        InferResult result;
        result.error = std::move(refused);
        result.cookie0 = request.cookie0;
        result.cookie1 = request.cookie1;
        return done(result);
    }
    m_access.letIn(request);
    if (const Error error = send(message.head.base, end)) m_pending.fail(sequence, error);
}

Error Client::Impl::send(KelmMsgBase& message, Clock::time_point deadline) {
    {
        MutexLock lock(m_sendMutex);
        // A turn by a flag, not by holding the mutex while writing: a caller whose deadline passes
        // must be able to leave while another one's write is stuck.
        while (m_sending) {
            if (!m_sendTurn.waitUntil(m_sendMutex, deadline) && m_sending) {
                return Error::timeout("the request");
            }
        }
        m_sending = true;
        m_sendDeadline = deadline;
    }
    // Without the mutex: the write waits for as long as the service does not read.
    const bool sent = kelmSendMessage(m_socket, &message) == 0;
    {
        MutexLock lock(m_sendMutex);
        m_sending = false;
        m_sendTurn.notifyOne();
    }
    return sent ? Error() : Error::connectionLost();
}

// On the deadline thread. The shutdown ends the write, and the reader then ends all other calls.
void Client::Impl::giveUpStuckSend() {
    MutexLock lock(m_sendMutex);
    if (m_sending && m_sendDeadline <= Clock::now()) m_connection->shutdown();
}

void Client::Impl::readRoutine() {
    ThreadUtils::setName("KelmReader");
    while (MessagePtr message{kelmReceiveMessage(m_socket)}) dispatch(std::move(message));
    m_connected.store(false);  // first, so that a callback below sees the loss
    m_pending.closeAll(Error::connectionLost());
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

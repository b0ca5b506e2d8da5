#include "client/Client.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "client/ClientImpl.h"
#include "client/ConnectError.h"
#include "client/Decode.h"
#include "client/PreparedInfer.h"
#include "protocol/src/KelmError.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/RunPaths.h"
#include "utils/StringHelper.h"
#include "utils/UniqueMalloc.h"

namespace kelm::client {

namespace {

constexpr uint16_t kApiMajorVersion = 2;
constexpr uint16_t kApiMinorVersion = 0;
constexpr Deadline kLeaveDeadline{1000};
constexpr std::chrono::seconds kLookTime{10};
constexpr std::chrono::milliseconds kLookPause{5};

// Zeroed: fields that a caller does not set must be 0 on the wire.
template <class Request>
Request makeRequest(KelmMsgType type) {
    Request request{};
    KelmMsgReq& head = reinterpret_cast<KelmMsgReq&>(request);
    head.base.type = type;
    head.base.size = sizeof(Request);
    return request;
}

template <class Request>
Request makeRequest(KelmMsgType type, uint64_t clientId) {
    auto request = makeRequest<Request>(type);
    request.clientId = clientId;
    return request;
}

// The answer as its record, which call() has seen to be of the type that answers the request.
template <class Response>
const Response* answerAs(const Result<MessagePtr>& message) {
    return reinterpret_cast<const Response*>(message.value().get());
}

Result<Graph> readGraph(const Result<MessagePtr>& answer) {
    if (!answer) return answer.error();
    const auto* response = answerAs<KelmMsgRspCreateGraph>(answer);
    return Graph{response->graphId,         response->inputBufferSize, response->outputBufferSize,
                 response->debugBufferSize, response->timeTakensSize,  response->thermalBufferSize};
}

Error tooManyConnections() {
    return {ErrorKind::kSystem, 0,
            "this process has " + std::to_string(IPC::IPC_CONN_FD_MAX) +
                " connections already; close some, or share one among threads"};
}

KelmMsgReqCreateGraph makeCreateGraph(uint64_t clientId, const GraphOptions& options) {
    auto request = makeRequest<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ, clientId);
    request.subclass = options.subclass;
    request.expectDevices = options.expectDevices;
    StringHelper::copyStringSafe(request.graphName, options.name);
    StringHelper::copyStringSafe(request.graphTag, options.tag);
    StringHelper::copyStringSafe(request.streamId, options.streamId);
    return request;
}

}  // namespace

Version version() { return {KELM_VERSION, kApiMajorVersion, kApiMinorVersion}; }

Client::Client(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
// A service that is only hung up on takes that for a client's failure.
Client::~Client() {
    if (isConnected() && clientId() != 0) (void)unregister(kLeaveDeadline);
}

Result<std::unique_ptr<Client>> Client::connect(const std::string& socketPath, Deadline deadline) {
    // The library is a guest: it writes nothing to its host's output.
    Log::instance().setLogLevel(0);
    quiet_errors = true;
    const std::string path = socketPath.empty() ? RunPaths::serviceSocket() : socketPath;
    try {
        auto connection = IPC::ConnectionUDS::tryMake(nullptr);
        if (!connection) return tooManyConnections();
        // 0 would be no limit at all.
        if (!connection->connect(path, std::max(deadline, Deadline(1)))) {
            return connectError(path, errno);
        }
        return std::unique_ptr<Client>(
            new Client(std::make_unique<Impl>(std::move(connection), path)));
    } catch (const std::bad_alloc&) {
        return Error(ErrorKind::kOutOfMemory, 0, Error::kNoMemory);
    } catch (const std::system_error& error) {  // no descriptor or no thread is left
        return Error::fromErrno("connecting to " + path, error.code().value());
    }
}

// A name that is too long is cut by the field.
Error Client::registerClient(const std::string& name, Deadline deadline) {
    auto request = makeRequest<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    StringHelper::copyStringSafe(request.clientName, name);
    request.apiMajorVersion = kApiMajorVersion;
    request.apiMinorVersion = kApiMinorVersion;
    const Result<MessagePtr> answer = m_impl->call(request.head, "register", deadline);
    if (!answer) return answer.error();
    m_impl->setClientId(answerAs<KelmMsgRsp>(answer)->clientId);
    return {};
}

// The service reads nothing from this connection afterwards: the object is only to be destroyed.
Error Client::unregister(Deadline deadline) {
    auto request = makeRequest<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ, clientId());
    const Result<MessagePtr> answer = m_impl->call(request.head, "unregister", deadline);
    if (answer) m_impl->setClientId(0);
    return answer ? Error() : answer.error();
}

Result<Graph> Client::createGraphFromFile(const std::string& path, const GraphOptions& options,
                                          Deadline deadline) {
    // The service has a working directory of its own.
    const UniqueMalloc<char> absolute(::realpath(path.c_str(), nullptr));
    if (!absolute) return Error::fromErrno("finding " + path);
    auto request = makeCreateGraph(clientId(), options);
    // A path cut to the field would name another file.
    if (std::strlen(absolute.get()) >= sizeof(request.graphPath)) {
        return Error(
            ErrorKind::kSystem, 0,
            "the path of the graph file is too long, it has more than 1023 bytes; move the "
            "file, or load it from memory");
    }
    StringHelper::copyStringSafe(request.graphPath, absolute.get());
    return readGraph(m_impl->call(request.head, "create graph", deadline));
}

Result<Graph> Client::createGraph(std::span<const std::byte> blob, const GraphOptions& options,
                                  Deadline deadline) {
    if (blob.size() > UINT32_MAX) {
        return Error(ErrorKind::kSystem, 0, "a graph has at most 4 GiB; compile a smaller one");
    }
    auto request = makeCreateGraph(clientId(), options);
    // The sender reads the bytes from this address: the blob must live until call() returns.
    request.graphData = reinterpret_cast<uint64_t>(blob.data());
    request.graphDataSize = static_cast<uint32_t>(blob.size());
    return readGraph(m_impl->call(request.head, "create graph", deadline));
}

Error Client::destroyGraph(uint64_t graphId, Deadline deadline) {
    auto request = makeRequest<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, clientId());
    request.graphId = graphId;
    const Result<MessagePtr> answer = m_impl->call(request.head, "destroy graph", deadline);
    return answer ? Error() : answer.error();
}

Result<BufferSizes> Client::queryBufferSize(uint64_t graphId, Deadline deadline) {
    auto request =
        makeRequest<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, clientId());
    request.graphId = graphId;
    const Result<MessagePtr> answer = m_impl->call(request.head, "query buffer size", deadline);
    if (!answer) return answer.error();
    const auto* response = answerAs<KelmMsgRspQueryBufferSize>(answer);
    // On the wire the pair stands in the fields of input and output.
    return BufferSizes{response->inputBufferSize, response->outputBufferSize};
}

void Client::inferAsync(const InferRequest& request, const InferCallback& done,
                        AcceptCallback accepted, Deadline deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    auto infer = PreparedInfer::make(request);
    if (infer) {
        auto& [message, claim] = infer.value();
        return m_impl->infer(message, std::move(claim), done, std::move(accepted), end);
    }
    InferResult refused;
    refused.error = infer.error();
    refused.cookie0 = request.cookie0;
    refused.cookie1 = request.cookie1;
    done(refused);
}

void Client::inferAsync(PreparedInfer& infer, const InferCallback& done, AcceptCallback accepted,
                        std::chrono::steady_clock::time_point end) {
    m_impl->infer(infer.message, std::move(infer.claim), done, std::move(accepted), end);
}

void Client::inferWaited(PreparedInfer& infer, const InferCallback& done, AcceptCallback accepted,
                         std::chrono::steady_clock::time_point end) {
    m_impl->inferWaited(infer.message, std::move(infer.claim), done, std::move(accepted), end);
}

std::future<InferResult> Client::inferAsync(const InferRequest& request, Deadline deadline) {
    // Shared, since a callback must be one that can be copied.
    auto promise = std::make_shared<std::promise<InferResult>>();
    std::future<InferResult> result = promise->get_future();
    inferAsync(
        request, [promise](const InferResult& end) { promise->set_value(end); }, {}, deadline);
    return result;
}

InferResult Client::infer(const InferRequest& request, Deadline deadline) {
    return inferAsync(request, deadline).get();
}

Result<bool> Client::cancel(uint64_t taskId, Deadline deadline) {
    auto request = makeRequest<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ, clientId());
    request.taskId = taskId;
    const Result<MessagePtr> answer = m_impl->call(request.head, "cancel", deadline);
    if (!answer) return answer.error();
    const auto* response = answerAs<KelmMsgRspCancelTask>(answer);
    return response->canceled != 0;
}

Result<TaskStage> Client::queryTask(uint64_t taskId, Deadline deadline) {
    auto request =
        makeRequest<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ, clientId());
    request.taskId = taskId;
    const Result<MessagePtr> answer = m_impl->call(request.head, "query task", deadline);
    if (!answer) return answer.error();
    const auto* response = answerAs<KelmMsgRspQueryTaskStatus>(answer);
    return static_cast<TaskStage>(response->taskStatus);
}

std::vector<uint64_t> Client::tasks(uint64_t graphId, bool everyLate) const {
    return m_impl->tasks(graphId, everyLate);
}

// A result on its way would come before the answer that there is no such task.
bool Client::endDropped(const std::vector<uint64_t>& taskIds) {
    const auto end = std::chrono::steady_clock::now() + kLookTime;
    for (const uint64_t taskId : taskIds) {
        while (taskId != 0) {
            const Error error = queryTask(taskId).error();
            const bool isGone = error.code() == KELM_ERROR_INVALID_TASK;
            if (error && !isGone) return false;
            if (isGone) m_impl->endInfer(taskId, error);
            if (isGone || std::chrono::steady_clock::now() > end) break;
            std::this_thread::sleep_for(kLookPause);
        }
    }
    return true;
}

Result<ServiceStatus> Client::queryStatus(StatusParts parts, Deadline deadline) {
    if (parts.bits() == 0) {
        // The service would not answer.
        return Error(ErrorKind::kSystem, 0, "the query asks for nothing; name at least one part");
    }
    // Client rows come only beside graph rows.
    if (parts.has(StatusPart::kClients)) parts = parts | StatusPart::kGraphs;
    auto request = makeRequest<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, clientId());
    request.queryType = parts.bits();
    const Result<MessagePtr> answer = m_impl->call(request.head, "query status", deadline);
    if (!answer) return answer.error();
    const auto* response = answerAs<KelmMsgRspQueryStatus>(answer);
    return decodeStatus(*response);
}

Error Client::resetDevice(uint32_t deviceId, Deadline deadline) {
    auto request = makeRequest<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ, clientId());
    request.deviceId = deviceId;
    const Result<MessagePtr> answer = m_impl->call(request.head, "reset device", deadline);
    return answer ? Error() : answer.error();
}

Error Client::resetAllDevices(Deadline deadline) {
    auto request = makeRequest<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ, clientId());
    request.resetAllDevices = 1;
    const Result<MessagePtr> answer = m_impl->call(request.head, "reset devices", deadline);
    return answer ? Error() : answer.error();
}

void Client::onWarning(WarningCallback callback) { m_impl->onWarning(std::move(callback)); }

void Client::onLost(LostCallback callback) { m_impl->onLost(std::move(callback)); }
void Client::onLateGraph(LateGraphCallback callback) { m_impl->onLateGraph(std::move(callback)); }
void Client::hangUp() { m_impl->hangUp(); }

uint64_t Client::clientId() const { return m_impl->clientId(); }
pid_t Client::servicePid() const { return m_impl->servicePid(); }
bool Client::isConnected() const { return m_impl->isConnected(); }

}  // namespace kelm::client

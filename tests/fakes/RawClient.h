#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/src/KelmError.h"
#include "protocol/src/KelmMessage.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A message from the service as it came.
class RawMessage {
 public:
    explicit RawMessage(std::vector<std::byte> bytes) : m_bytes(std::move(bytes)) {}

    uint32_t type() const { return as<KelmMsgBase>().type; }
    template <class Record>
    const Record& as() const {
        return *reinterpret_cast<const Record*>(m_bytes.data());
    }

 private:
    std::vector<std::byte> m_bytes;
};

// A client of the service over a plain socket: it sends any bytes and descriptors, sensible or not,
// and shares no code with the real client. Closing is abrupt.
//
//     RawClient client(RunPaths::serviceSocket());
//     const uint64_t id = client.registerClient("name");
//     client.send(RawClient::request<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, 7));
//     auto answer = client.receive();
class RawClient {
 public:
    using Millis = std::chrono::milliseconds;
    static constexpr Millis kPatience{10000};

    explicit RawClient(const std::string& path)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        m_connected = ::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                sizeof(address)) == 0;
    }

    bool connected() const { return m_connected; }
    int fd() const { return m_socket.get(); }
    void close() { m_socket.reset(); }

    // A zeroed request that wants a response.
    template <class Record>
    static Record request(KelmMsgType type, uint64_t sequence = 1) {
        Record record;
        std::memset(static_cast<void*>(&record), 0, sizeof(record));
        auto& head = reinterpret_cast<KelmMsgReq&>(record);
        head.base.type = type;
        head.base.size = sizeof(record);
        head.reqSeqNo = sequence;
        head.needResponse = 1;
        return record;
    }

    // False once the service has closed the connection.
    bool sendBytes(const void* bytes, size_t size) {
        const char* next = static_cast<const char*>(bytes);
        while (size > 0) {
            const ssize_t count = ::send(fd(), next, size, MSG_NOSIGNAL);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return false;
            next += count;
            size -= static_cast<size_t>(count);
        }
        return true;
    }

    bool sendFd(int descriptor) {
        iovec data{&descriptor, sizeof(descriptor)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(head), &descriptor, sizeof(descriptor));
        return ::sendmsg(fd(), &message, MSG_NOSIGNAL) == sizeof(descriptor);
    }

    // The record as it is, then the descriptors and the block that it announces.
    template <class Record>
    bool send(const Record& record, const std::vector<int>& descriptors = {},
              std::string_view block = {}) {
        if (!sendBytes(&record, sizeof(record))) return false;
        for (const int descriptor : descriptors) {
            if (!sendFd(descriptor)) return false;
        }
        return sendBytes(block.data(), block.size());
    }

    // False when the connection ends or the time is up first.
    bool readBytes(void* target, size_t size, Millis time = kPatience) const {
        const auto deadline = std::chrono::steady_clock::now() + time;
        char* next = static_cast<char*>(target);
        while (size > 0) {
            if (!waitReadable(deadline)) return false;
            const ssize_t count = ::recv(fd(), next, size, MSG_DONTWAIT);
            if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (count <= 0) return false;
            next += count;
            size -= static_cast<size_t>(count);
        }
        return true;
    }

    // The next message, or nothing when the connection ends or the time is up.
    std::optional<RawMessage> receive(Millis time = kPatience) {
        std::vector<std::byte> bytes(sizeof(KelmMsgBase));
        if (!readBytes(bytes.data(), bytes.size(), time)) return std::nullopt;
        const size_t size = reinterpret_cast<const KelmMsgBase*>(bytes.data())->size;
        bytes.resize(size);
        if (!readBytes(bytes.data() + sizeof(KelmMsgBase), size - sizeof(KelmMsgBase), time)) {
            return std::nullopt;
        }
        return RawMessage(std::move(bytes));
    }

    // Reads on until a message of the type comes; what comes before it is dropped.
    std::optional<RawMessage> receiveType(KelmMsgType type) {
        for (;;) {
            std::optional<RawMessage> message = receive();
            if (!message || message->type() == type) return message;
        }
    }

    // Sends a request and returns its response as a record of the type; zeroed when none came.
    template <class Response, class Request>
    Response call(const Request& record, KelmMsgType responseType,
                  const std::vector<int>& descriptors = {}, std::string_view block = {}) {
        Response response = {};
        if (!send(record, descriptors, block)) return response;
        if (const auto message = receiveType(responseType)) response = message->as<Response>();
        return response;
    }

    // Reads and drops until the service closes the connection; false when the time is up first.
    bool waitClosed(Millis time = kPatience) {
        char dropped[4096];
        const auto deadline = std::chrono::steady_clock::now() + time;
        for (;;) {
            if (!waitReadable(deadline)) return false;
            const ssize_t count = ::recv(fd(), dropped, sizeof(dropped), MSG_DONTWAIT);
            if (count == 0 || (count < 0 && errno == ECONNRESET)) return true;
        }
    }

    // The client id, or 0.
    uint64_t registerClient(const char* name, uint16_t apiMajorVersion = 2) {
        auto record = request<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
        std::strncpy(record.clientName, name, sizeof(record.clientName) - 1);
        record.apiMajorVersion = apiMajorVersion;
        return call<KelmMsgRsp>(record, KELM_MESSAGE_REGISTER_RSP).clientId;
    }

    // The status of the response, or nothing when none came.
    std::optional<int32_t> unregisterClient(uint64_t clientId) {
        auto record = request<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
        record.clientId = clientId;
        if (!send(record)) return std::nullopt;
        const auto message = receiveType(KELM_MESSAGE_UNREGISTER_RSP);
        return message ? std::optional<int32_t>(message->as<KelmMsgRsp>().status) : std::nullopt;
    }

    // The graph id, or 0.
    uint64_t createGraph(uint64_t clientId, const char* name, std::string_view blob) {
        auto record = request<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
        record.clientId = clientId;
        std::strncpy(record.graphName, name, sizeof(record.graphName) - 1);
        record.head.base.dataNum = 1;
        record.head.base.data[0] = 1;  // an address of this process, which nobody is to believe
        record.head.base.dataSize[0] = blob.size();
        return call<KelmMsgRspCreateGraph>(record, KELM_MESSAGE_CREATE_GRAPH_RSP, {}, blob).graphId;
    }

    // A request without descriptors, which simulated devices take.
    static KelmMsgReqInferTask inferRequest(uint64_t clientId, uint64_t graphId,
                                            uint64_t sequence) {
        auto record = request<KelmMsgReqInferTask>(KELM_MESSAGE_INFER_TASK_REQ, sequence);
        record.clientId = clientId;
        record.graphId = graphId;
        record.taskCookie0 = sequence;
        return record;
    }

 private:
    using Deadline = std::chrono::steady_clock::time_point;

    bool waitReadable(Deadline deadline) const {
        const auto left = std::chrono::ceil<Millis>(deadline - std::chrono::steady_clock::now());
        pollfd state{fd(), POLLIN, 0};
        return left.count() > 0 && ::poll(&state, 1, static_cast<int>(left.count())) == 1;
    }

    UniqueFd m_socket;
    bool m_connected = false;
};

}  // namespace kelm

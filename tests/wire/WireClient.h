#pragma once

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/src/KelmError.h"
#include "protocol/src/KelmMessage.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A message as it came from the service.
class WireMessage {
 public:
    explicit WireMessage(std::vector<std::byte> bytes) : m_bytes(std::move(bytes)) {}

    uint32_t type() const { return as<KelmMsgBase>().type; }
    template <class Record>
    const Record& as() const {
        return *reinterpret_cast<const Record*>(m_bytes.data());
    }

 private:
    std::vector<std::byte> m_bytes;
};

// Thrown where an answer is needed and the connection ends, or the time is up, first.
struct NoAnswer : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What a client asks for with a graph. With a path no blob is sent.
struct GraphWish {
    std::string blob{};
    std::string name = "graph";
    std::string tag{};
    std::string stream{};
    int32_t subclass = 0;
    std::string path{};
    uint64_t client = 0;  // that it is for; 0: the one that asks
};

// A client of the service over a plain socket, which shares no code with the real client. It can be
// polite (ask() and the calls behind it), slow or dying (setManner()), silent (flood()) and broken
// (any bytes, any descriptors, half a record). Closing is abrupt. One thread may send while another
// receives; interrupt() from any.
class WireClient {
 public:
    using Millis = std::chrono::milliseconds;
    static constexpr Millis kPatience{20000};

    // How bytes leave.
    struct Manner {
        size_t piece = SIZE_MAX;  // bytes at once
        Millis pause{0};          // after each piece
        size_t life = SIZE_MAX;   // bytes after which the client hangs up, in a record or not
    };

    explicit WireClient(const std::string& path);
    // Registers, too.
    WireClient(const std::string& path, const std::string& name, uint16_t apiMajorVersion = 2)
        : WireClient(path) {
        (void)registerClient(name, apiMajorVersion);
    }
    // Speaks for the service to the next peer of a listening socket.
    static WireClient acceptFrom(int listener);

    bool connected() const { return m_connected; }
    int fd() const { return m_socket.get(); }
    uint64_t id() const { return m_id; }  // of the last registration; 0 if it was refused
    void setManner(const Manner& manner) { m_manner = manner; }
    void hangUp() { m_socket.reset(); }
    // Ends what other threads wait for here.
    void interrupt() const { ::shutdown(fd(), SHUT_RDWR); }

    // A zeroed request of this client that wants a response. `subject` is the graph, the task or
    // the bits that it is about.
    template <class Request>
    Request make(KelmMsgType type, uint64_t subject = 0) {
        Request request{};
        auto& head = reinterpret_cast<KelmMsgReq&>(request);
        head.base.type = type;
        head.base.size = sizeof(request);
        head.reqSeqNo = ++m_sequence;
        head.needResponse = 1;
        if constexpr (requires { request.clientId; }) request.clientId = m_id;
        if constexpr (requires { request.graphId; }) request.graphId = subject;
        if constexpr (requires { request.taskId; }) request.taskId = subject;
        if constexpr (requires { request.queryType; }) request.queryType = subject;
        return request;
    }
    // Without descriptors, which simulated devices take; its cookie is its number.
    KelmMsgReqInferTask makeInfer(uint64_t graph);

    // All that send return false once the service has closed the connection.
    bool sendBytes(const void* bytes, size_t size);
    bool sendBytes(std::string_view bytes) { return sendBytes(bytes.data(), bytes.size()); }
    // One segment.
    bool sendFds(std::string_view bytes, const std::vector<int>& descriptors) const;
    // The record as it is, then the descriptors and the block that it announces.
    template <class Record>
    bool send(const Record& record, const std::vector<int>& descriptors = {},
              std::string_view block = {}) {
        if (!sendBytes(&record, sizeof(record))) return false;
        for (const int descriptor : descriptors) {
            const std::string_view number(reinterpret_cast<const char*>(&descriptor), sizeof(int));
            if (!sendFds(number, {descriptor})) return false;
        }
        return sendBytes(block);
    }
    // Sends the record over and over and reads nothing, up to a number, or until the service has
    // taken nothing for so long. Returns how many.
    template <class Record>
    int flood(const Record& record, int most, Millis patience = Millis(500)) {
        int sent = 0;
        while (sent < most && canSend(patience) && send(record)) ++sent;
        return sent;
    }
    // The first half of a registration, once the service has read it. False if it never does.
    bool sendHalf();
    bool sendCreateGraph(const GraphWish& wish, const std::vector<int>& descriptors = {});

    // What waits here, and what of ours the service has not read, in bytes.
    size_t unread() const { return waitingBytes(fd()); }
    static size_t waitingBytes(int socket) { return countBytes(socket, FIONREAD); }
    size_t unsent() const { return countBytes(fd(), TIOCOUTQ); }
    bool canReceive(Millis time = Millis(0)) const { return isReady(POLLIN, time); }
    bool canSend(Millis time = Millis(50)) const { return isReady(POLLOUT, time); }
    // Whether the service has ended the connection.
    bool isDisconnected() const { return isReady(POLLHUP, Millis(0)); }

    // False when the connection ends or the time is up first.
    bool readBytes(void* target, size_t size, Millis time = kPatience) const;
    // A descriptor that follows a record; none if something else comes.
    UniqueFd receiveFd() const;
    // The next message, or nothing when the connection ends or the time is up.
    std::optional<WireMessage> receive(Millis time = kPatience) const;
    // Reads on until a message of the type comes; what comes before it is dropped.
    std::optional<WireMessage> receiveType(uint32_t type) const;
    // The next message, which must be of that form.
    template <class Record>
    Record receive() const {
        const auto message = receive();
        if (!message || message->as<KelmMsgBase>().size != sizeof(Record)) {
            throw NoAnswer(message ? "message of type " + std::to_string(message->type())
                                   : "no message came");
        }
        return message->as<Record>();
    }
    // Reads and drops until the service closes the connection; false when the time is up first.
    bool waitClosed(Millis time = kPatience) const;

    // Sends a request and returns its response; what comes before that is dropped.
    template <class Response, class Request>
    Response ask(const Request& request, const std::vector<int>& descriptors = {},
                 std::string_view block = {}) {
        const uint32_t type = reinterpret_cast<const KelmMsgBase&>(request).type;
        std::optional<WireMessage> message;
        if (send(request, descriptors, block)) message = receiveType(type + 1);
        if (!message) throw NoAnswer("no answer to a request of type " + std::to_string(type));
        return message->as<Response>();
    }

    // The new id, which the following requests bear, or 0 if the service has hung up.
    uint64_t registerClient(const std::string& name, uint16_t apiMajorVersion = 2);
    bool unregister() {
        const auto request = make<KelmMsgReqUnregister>(KELM_MESSAGE_UNREGISTER_REQ);
        return ask<KelmMsgRsp>(request).status == KELM_OK;
    }
    KelmMsgRspCreateGraph createGraph(const GraphWish& wish);
    int32_t destroyGraph(uint64_t graph) {
        const auto request = make<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, graph);
        return ask<KelmMsgRsp>(request).status;
    }
    auto queryBufferSize(uint64_t graph) {
        return ask<KelmMsgRspQueryBufferSize>(
            make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, graph));
    }
    auto cancelTask(uint64_t task) {
        const auto request = make<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ, task);
        return ask<KelmMsgRspCancelTask>(request);
    }
    auto queryTaskStatus(uint64_t task) {
        return ask<KelmMsgRspQueryTaskStatus>(
            make<KelmMsgReqQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_REQ, task));
    }
    auto queryStatus(uint64_t bits) {
        const auto request = make<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, bits);
        return ask<KelmMsgRspQueryStatus>(request);
    }
    // Whether a task on the graph is accepted and ends well.
    bool infers(uint64_t graph);

 private:
    using Deadline = std::chrono::steady_clock::time_point;

    explicit WireClient(UniqueFd socket) : m_socket(std::move(socket)), m_connected(m_socket) {}
    static size_t countBytes(int socket, unsigned long request);
    bool isReady(short events, Millis time) const;
    bool waitReadable(Deadline deadline) const;

    UniqueFd m_socket;
    bool m_connected = false;
    Manner m_manner;
    uint64_t m_id = 0;
    uint64_t m_sequence = 0;
};

}  // namespace kelm

#include "tests/wire/WireClient.h"

#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "tests/fakes/Eventually.h"

namespace kelm {
namespace {

template <size_t kSize>
void copyText(char (&field)[kSize], const std::string& text) {
    text.copy(field, kSize - 1);
}

}  // namespace

WireClient::WireClient(const std::string& path)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    copyText(address.sun_path, path);
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    m_connected = ::connect(fd(), name, sizeof(address)) == 0;
}

WireClient WireClient::acceptFrom(int listener) {
    pollfd state{listener, POLLIN, 0};
    (void)::poll(&state, 1, static_cast<int>(kPatience.count()));
    const bool isThere = (state.revents & POLLIN) != 0;
    return WireClient(UniqueFd(isThere ? ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1));
}

KelmMsgReqInferTask WireClient::makeInfer(uint64_t graph) {
    auto request = make<KelmMsgReqInferTask>(KELM_MESSAGE_INFER_TASK_REQ, graph);
    request.taskCookie0 = request.head.reqSeqNo;
    return request;
}

bool WireClient::sendBytes(const void* bytes, size_t size) {
    const char* next = static_cast<const char*>(bytes);
    auto wakeUp = std::chrono::steady_clock::now();  // by a plan, so that the rate is kept
    while (size > 0) {
        const size_t piece = std::min({size, m_manner.piece, m_manner.life});
        const ssize_t count = ::send(fd(), next, piece, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        next += count;
        size -= static_cast<size_t>(count);
        if (m_manner.life != SIZE_MAX) m_manner.life -= static_cast<size_t>(count);
        if (m_manner.life == 0) hangUp();
        if (m_manner.pause.count() > 0) std::this_thread::sleep_until(wakeUp += m_manner.pause);
    }
    return true;
}

bool WireClient::sendFds(std::string_view bytes, const std::vector<int>& descriptors) const {
    const size_t fdBytes = descriptors.size() * sizeof(int);
    std::vector<char> control(CMSG_SPACE(fdBytes));
    iovec data{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(fdBytes);
    std::memcpy(CMSG_DATA(head), descriptors.data(), fdBytes);
    return ::sendmsg(fd(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool WireClient::sendHalf() {
    const auto request = make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    return sendBytes(&request, sizeof(request) / 2) && eventually([this] { return unsent() == 0; });
}

bool WireClient::sendCreateGraph(const GraphWish& wish, const std::vector<int>& descriptors) {
    auto request = make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    if (wish.client != 0) request.clientId = wish.client;
    request.subclass = wish.subclass;
    request.expectDevices = 1;
    copyText(request.graphName, wish.name);
    copyText(request.graphTag, wish.tag);
    copyText(request.streamId, wish.stream);
    copyText(request.graphPath, wish.path);
    request.head.base.fdNum = static_cast<uint32_t>(descriptors.size());
    if (!wish.path.empty()) return send(request, descriptors);
    request.head.base.dataNum = 1;
    request.head.base.data[0] = 1;  // an address of this process, which the service must not use
    request.head.base.dataSize[0] = wish.blob.size();
    return send(request, descriptors, wish.blob);
}

size_t WireClient::countBytes(int socket, unsigned long request) {
    int count = 0;
    return ::ioctl(socket, request, &count) == 0 ? static_cast<size_t>(count) : 0;
}

bool WireClient::isReady(short events, Millis time) const {
    pollfd state{fd(), events, 0};
    return ::poll(&state, 1, static_cast<int>(time.count())) == 1 && (state.revents & events) != 0;
}

bool WireClient::waitReadable(Deadline deadline) const {
    const auto left = std::chrono::ceil<Millis>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 && isReady(POLLIN, left);
}

bool WireClient::readBytes(void* target, size_t size, Millis time) const {
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

UniqueFd WireClient::receiveFd() const {
    int number = 0;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec data{&number, sizeof(number)};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (!isReady(POLLIN, kPatience)) return {};
    const ssize_t count = ::recvmsg(fd(), &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
    const cmsghdr* const head = CMSG_FIRSTHDR(&message);
    if (head == nullptr || head->cmsg_type != SCM_RIGHTS) return {};
    int received = -1;
    std::memcpy(&received, CMSG_DATA(head), sizeof(received));
    UniqueFd descriptor(received);
    return count == sizeof(number) ? std::move(descriptor) : UniqueFd();
}

std::optional<WireMessage> WireClient::receive(Millis time) const {
    std::vector<std::byte> bytes(sizeof(KelmMsgBase));
    if (!readBytes(bytes.data(), bytes.size(), time)) return std::nullopt;
    const size_t size = reinterpret_cast<const KelmMsgBase*>(bytes.data())->size;
    bytes.resize(std::max(size, sizeof(KelmMsgBase)));
    std::byte* const rest = bytes.data() + sizeof(KelmMsgBase);
    if (!readBytes(rest, bytes.size() - sizeof(KelmMsgBase), time)) return std::nullopt;
    return WireMessage(std::move(bytes));
}

std::optional<WireMessage> WireClient::receiveType(uint32_t type) const {
    for (;;) {
        std::optional<WireMessage> message = receive();
        if (!message || message->type() == type) return message;
    }
}

bool WireClient::waitClosed(Millis time) const {
    char dropped[4096];
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (waitReadable(deadline)) {
        const ssize_t count = ::recv(fd(), dropped, sizeof(dropped), MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno == ECONNRESET)) return true;
    }
    return false;
}

uint64_t WireClient::registerClient(const std::string& name, uint16_t apiMajorVersion) {
    auto request = make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
    copyText(request.clientName, name);
    request.apiMajorVersion = apiMajorVersion;
    const auto answer = send(request) ? receiveType(KELM_MESSAGE_REGISTER_RSP) : std::nullopt;
    m_id = answer ? answer->as<KelmMsgRsp>().clientId : 0;
    return m_id;
}

KelmMsgRspCreateGraph WireClient::createGraph(const GraphWish& wish) {
    if (!sendCreateGraph(wish)) throw NoAnswer("the connection is closed");
    return receive<KelmMsgRspCreateGraph>();
}

bool WireClient::infers(uint64_t graph) {
    const auto answer = ask<KelmMsgRspInferTask>(makeInfer(graph));
    if (answer.head.status != KELM_OK) return false;
    const auto done = receiveType(KELM_MESSAGE_TASK_DONE_EVT);
    return done && done->as<KelmMsgEvtTaskDone>().taskId == answer.taskId &&
           done->as<KelmMsgEvtTaskDone>().status == KELM_OK;
}

}  // namespace kelm

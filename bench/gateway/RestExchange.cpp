#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <deque>
#include <vector>

#include "bench/gateway/Exchange.h"
#include "utils/UniqueFd.h"

namespace kelm::bench {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "REST: %s\n", why.c_str());
    ::_exit(1);
}

UniqueFd connectTo(const std::string& address) {
    const size_t colon = address.rfind(':');
    addrinfo* found = nullptr;
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    if (::getaddrinfo(address.substr(0, colon).c_str(), address.substr(colon + 1).c_str(), &hints,
                      &found) != 0) {
        fail("no such address");
    }
    UniqueFd fd(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), found->ai_addr, found->ai_addrlen) != 0) fail("cannot connect");
    ::freeaddrinfo(found);
    const int on = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd;
}

// One request after the other on a connection of its own, which never blocks.
class Connection {
 public:
    Connection(const Exchange& exchange, Lane& lane)
        : m_exchange(exchange), m_lane(lane), m_fd(connectTo(exchange.address)) {
        start();
    }

    pollfd wait() const {
        const bool isSending = m_sent < m_exchange.request.size();
        return {m_fd.get(), static_cast<int16_t>(isSending ? POLLIN | POLLOUT : POLLIN), 0};
    }
    // True once an answer is whole.
    bool goOn() {
        send();
        return receive();
    }
    void start() {
        m_started = Clock::now();
        m_sent = 0;
        m_got = 0;
        m_wanted = 0;
        m_head.clear();
        send();
    }

 private:
    void send() {
        while (m_sent < m_exchange.request.size()) {
            const ssize_t count =
                ::send(m_fd.get(), m_exchange.request.data() + m_sent,
                       m_exchange.request.size() - m_sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0) return;
            m_sent += static_cast<size_t>(count);
        }
    }
    bool receive() {
        static std::array<char, 1 << 18> buffer;
        while (true) {
            const ssize_t count = ::recv(m_fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (count == 0) fail("the gateway has closed");
            if (count < 0) return false;
            m_got += static_cast<size_t>(count);
            if (m_wanted == 0) readHead({buffer.data(), static_cast<size_t>(count)});
            if (m_wanted == 0 || m_got < m_wanted) continue;
            m_lane.add(Clock::now() - m_started);
            return true;
        }
    }
    void readHead(std::string_view bytes) {
        m_head += bytes;
        const size_t end = m_head.find("\r\n\r\n");
        if (end == std::string::npos) return;
        constexpr std::string_view kLength = "Content-Length: ";
        const size_t length = m_head.find(std::string("\r\n") + std::string(kLength));
        if (!m_head.starts_with("HTTP/1.1 200") || length > end) fail(m_head);
        const size_t body = std::stoul(m_head.substr(length + 2 + kLength.size()));
        if (body < m_exchange.answerBytes) fail(m_head);
        m_wanted = end + 4 + body;
    }

    const Exchange& m_exchange;
    Lane& m_lane;
    const UniqueFd m_fd;
    Clock::time_point m_started;
    size_t m_sent = 0;
    size_t m_got = 0;
    size_t m_wanted = 0;  // bytes of the answer, once its head is there
    std::string m_head;
};

}  // namespace

void driveRest(const Exchange& exchange, Lane& lane) {
    const auto end = Clock::now() + exchange.time;
    std::deque<Connection> connections;
    for (int i = 0; i < exchange.depth; ++i) connections.emplace_back(exchange, lane);
    std::vector<bool> isOver(connections.size());
    for (size_t left = connections.size(); left > 0;) {
        std::vector<pollfd> waits;
        for (const Connection& each : connections) waits.push_back(each.wait());
        for (size_t i = 0; i < waits.size(); ++i) {
            if (isOver[i]) waits[i].fd = -1;
        }
        ::poll(waits.data(), waits.size(), -1);
        for (size_t i = 0; i < waits.size(); ++i) {
            if (waits[i].revents == 0 || !connections[i].goOn()) continue;
            if (Clock::now() < end) {
                connections[i].start();
            } else {
                isOver[i] = true;
                --left;
            }
        }
    }
    ::_exit(0);
}

}  // namespace kelm::bench

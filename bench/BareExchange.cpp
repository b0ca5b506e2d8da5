#include "bench/BareExchange.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <stdexcept>
#include <vector>

#include "protocol/src/KelmMessage.h"

namespace kelm::bench {

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kRequest = sizeof(KelmMsgReqInferTask);
constexpr size_t kAccept = sizeof(KelmMsgRspInferTask);
constexpr size_t kDone = sizeof(KelmMsgEvtTaskDone);

bool readAll(int fd, char* buffer, size_t size) {
    return ::recv(fd, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool writeAll(int fd, const char* buffer, size_t size) {
    return ::send(fd, buffer, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

[[noreturn]] void serve(const std::vector<int>& sockets) {
    const int poll = ::epoll_create1(0);
    for (const int fd : sockets) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        ::epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event);
    }
    std::array<char, kRequest> request{};
    std::array<char, kDone> answer{};
    size_t open = sockets.size();
    while (open > 0) {
        epoll_event event{};
        if (::epoll_wait(poll, &event, 1, -1) != 1) continue;
        const int fd = event.data.fd;
        const bool alive = readAll(fd, request.data(), kRequest) &&
                           writeAll(fd, answer.data(), kAccept) &&
                           writeAll(fd, answer.data(), kDone);
        if (alive) continue;
        ::epoll_ctl(poll, EPOLL_CTL_DEL, fd, nullptr);
        --open;
    }
    ::_exit(0);
}

[[noreturn]] void drive(int fd, int depth, std::chrono::milliseconds time, Lane& lane) {
    std::array<char, kRequest> request{};
    std::array<char, kDone> answer{};
    std::deque<Clock::time_point> started;
    const Clock::time_point end = Clock::now() + time;
    const auto submit = [&] {
        started.push_back(Clock::now());
        if (!writeAll(fd, request.data(), kRequest)) ::_exit(1);
    };
    for (int i = 0; i < depth; ++i) submit();
    while (!started.empty()) {
        if (!readAll(fd, answer.data(), kAccept) || !readAll(fd, answer.data(), kDone)) ::_exit(1);
        const Clock::time_point now = Clock::now();
        lane.add(now - started.front());
        started.pop_front();
        if (now < end) submit();
    }
    ::_exit(0);
}

pid_t startProcess() {
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("cannot fork");
    return pid;
}

}  // namespace

ExchangeResult runBareExchange(int clients, int depth, std::chrono::milliseconds time) {
    Lanes lanes(clients);
    std::vector<int> serverEnds;
    std::vector<int> clientEnds;
    for (int i = 0; i < clients; ++i) {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) throw std::runtime_error("no socket");
        serverEnds.push_back(pair[0]);
        clientEnds.push_back(pair[1]);
    }
    std::vector<pid_t> children;
    children.push_back(startProcess());
    if (children.back() == 0) {
        for (const int fd : clientEnds) ::close(fd);
        serve(serverEnds);
    }
    for (const int fd : serverEnds) ::close(fd);
    for (int i = 0; i < clients; ++i) {
        children.push_back(startProcess());
        if (children.back() == 0) {
            for (int other = 0; other < clients; ++other) {
                if (other != i) ::close(clientEnds[static_cast<size_t>(other)]);
            }
            drive(clientEnds[static_cast<size_t>(i)], depth, time, lanes[i]);
        }
    }
    for (const int fd : clientEnds) ::close(fd);
    for (const pid_t pid : children) ::waitpid(pid, nullptr, 0);
    return lanes.over(time);
}

}  // namespace kelm::bench

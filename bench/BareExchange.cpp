#include "bench/BareExchange.h"

#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
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
constexpr size_t kSamples = 1 << 16;

struct Lane {
    uint64_t requests;
    uint64_t samples;
    std::array<uint32_t, kSamples> nanos;  // the last round trips
};

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
        lane.nanos[lane.samples++ % kSamples] =
            static_cast<uint32_t>((now - started.front()) / std::chrono::nanoseconds(1));
        started.pop_front();
        ++lane.requests;
        if (now < end) submit();
    }
    ::_exit(0);
}

pid_t startProcess() {
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("cannot fork");
    return pid;
}

double median(const Lane& lane) {
    const size_t count = std::min<size_t>(lane.samples, kSamples);
    if (count == 0) return 0.0;
    std::vector<uint32_t> nanos(lane.nanos.begin(),
                                lane.nanos.begin() + static_cast<std::ptrdiff_t>(count));
    std::nth_element(nanos.begin(), nanos.begin() + static_cast<std::ptrdiff_t>(count / 2),
                     nanos.end());
    return nanos[count / 2] / 1000.0;
}

}  // namespace

ExchangeResult runBareExchange(int clients, int depth, std::chrono::milliseconds time) {
    const size_t bytes = sizeof(Lane) * static_cast<size_t>(clients);
    void* memory =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no memory");
    Lane* const lanes = static_cast<Lane*>(memory);
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
    ExchangeResult result;
    for (int i = 0; i < clients; ++i) {
        result.requestsPerSecond += static_cast<double>(lanes[i].requests);
    }
    result.requestsPerSecond /= std::chrono::duration<double>(time).count();
    result.medianMicros = median(lanes[0]);
    ::munmap(memory, bytes);
    return result;
}

}  // namespace kelm::bench

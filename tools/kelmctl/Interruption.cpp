#include "tools/kelmctl/Interruption.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "utils/ThreadUtils.h"

namespace kelm::ctl {

namespace {

// In this order after the signal: the service has to confirm the leave, what is under way ends,
// the command tidies up.
constexpr client::Deadline kTimeToLeave(500);
constexpr std::chrono::milliseconds kTimeToFinish(500);
constexpr std::chrono::milliseconds kTimeToTidyUp(2000);

}  // namespace

// The thread is started last, when all that it uses is there.
Interruption::Interruption() : m_end(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_end) throw std::runtime_error("cannot make an event descriptor");
    m_thread = std::thread([this] { routine(); });
}

Interruption::~Interruption() {
    (void)::eventfd_write(m_end.get(), 1);
    m_thread.join();
}

// Whatever failed after the signal failed because of it.
int Interruption::run(const std::function<int()>& command) {
    try {
        return command();
    } catch (const std::exception&) {
        if (signal() == 0) throw;
    }
    std::cerr << "kelmctl: interrupted\n";
    return 128 + signal();
}

void Interruption::setService(std::shared_ptr<client::Client> service) {
    bool isLate = false;
    {
        MutexLock lock(m_mutex);
        isLate = signal() != 0;
        if (!isLate) std::swap(m_service, service);  // the old one is destroyed without the mutex
    }
    if (isLate && service) (void)service->unregister(kTimeToLeave);
}

bool Interruption::sleepUntil(std::chrono::steady_clock::time_point end) {
    MutexLock lock(m_mutex);
    while (signal() == 0 && m_came.waitUntil(m_mutex, end)) {
    }
    return signal() == 0;
}

bool Interruption::waitEnd(std::chrono::milliseconds time) const {
    pollfd end{m_end.get(), POLLIN, 0};
    return ::poll(&end, 1, static_cast<int>(time.count())) == 1;
}

void Interruption::routine() {
    ThreadUtils::setName("Interruption");
    pollfd fds[] = {{m_signals.fd(), POLLIN, 0}, {m_end.get(), POLLIN, 0}};
    while (::poll(fds, std::size(fds), -1) < 0) {
    }
    const int signal = m_signals.next();
    if (signal == 0) return;  // the command has ended
    std::shared_ptr<client::Client> service;
    {
        MutexLock lock(m_mutex);
        m_signal = signal;
        service = std::exchange(m_service, nullptr);
    }
    m_came.notifyAll();
    // Shared: the command may give it up meanwhile.
    if (service) (void)service->unregister(kTimeToLeave);
    service.reset();
    if (waitEnd(kTimeToFinish)) return;
    m_isOverdue = true;
    if (!waitEnd(kTimeToTidyUp)) ::_exit(128 + signal);
}

}  // namespace kelm::ctl

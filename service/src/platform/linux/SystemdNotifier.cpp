#include "platform/linux/SystemdNotifier.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "utils/Port.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kVariable = "NOTIFY_SOCKET";
constexpr const char* kLastWord = "STOPPING=1\nSTATUS=Stopping";
constexpr std::chrono::seconds kStatusPause{1};
// A manager that does not read must not keep the service from its end.
constexpr timeval kSendLimit{2, 0};

std::string count(int number, const char* noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

}  // namespace

SystemdNotifier::SystemdNotifier() {
    const char* name = std::getenv(kVariable);
    if (name != nullptr && setAddress(name)) {
        m_socket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    ::unsetenv(kVariable);
    if (!m_socket) return;
    (void)::setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof(kSendLimit));
    Port<PopulationListener>::connect([this]() -> PopulationListener& { return *this; });
    m_thread = std::thread([this] { notifyRoutine(); });
}

SystemdNotifier::~SystemdNotifier() {
    if (!m_thread.joinable()) return;
    Port<PopulationListener>::disconnect();
    stopping();
    m_thread.join();
}

// A path, or "@" and a name in the kernel's own list, where a NUL stands for the "@". The name may
// fill the field: its end is told by the length.
bool SystemdNotifier::setAddress(const char* name) {
    const size_t length = std::strlen(name);
    if ((name[0] != '/' && name[0] != '@') || length < 2 || length > sizeof(m_address.sun_path)) {
        return false;
    }
    m_address.sun_family = AF_UNIX;
    std::copy_n(name, length, m_address.sun_path);
    if (name[0] == '@') m_address.sun_path[0] = '\0';
    m_addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return true;
}

void SystemdNotifier::ready() { enter(Phase::Ready); }

void SystemdNotifier::stopping() { enter(Phase::Stopping); }

// Never backwards: the ready lock may be taken on another thread while the service begins to end.
void SystemdNotifier::enter(Phase phase) {
    MutexLock lock(m_mutex);
    m_state.phase = std::max(m_state.phase, phase);
    m_changed.notifyAll();
}

void SystemdNotifier::addDevices(int change) {
    MutexLock lock(m_mutex);
    m_state.devices += change;
    m_changed.notifyAll();
}

void SystemdNotifier::addClients(int change) {
    MutexLock lock(m_mutex);
    m_state.clients += change;
    m_changed.notifyAll();
}

void SystemdNotifier::notifyRoutine() {
    ThreadUtils::setName("KelmNotify");
    State told;
    Clock::time_point nextStatus;
    while (told.phase != Phase::Stopping) {
        const State news = waitForNews(told, nextStatus);
        const bool isLast = news.phase == Phase::Stopping;
        if (!send(isLast ? kLastWord : describe(news, told)) && !isLast) continue;
        told = news;
        nextStatus = Clock::now() + kStatusPause;
    }
}

SystemdNotifier::State SystemdNotifier::waitForNews(const State& told,
                                                    Clock::time_point nextStatus) {
    MutexLock lock(m_mutex);
    // The numbers of a service that is not ready yet are not of interest.
    while (m_state == told || m_state.phase == Phase::Starting) m_changed.wait(m_mutex);
    // All changes of a second are told together, but for the last word.
    while (m_state.phase == told.phase && m_changed.waitUntil(m_mutex, nextStatus)) {
    }
    return m_state;
}

std::string SystemdNotifier::describe(const State& news, const State& told) {
    return (news.phase == told.phase ? "" : "READY=1\n") +
           ("STATUS=" + count(news.devices, "device")) + ", " + count(news.clients, "client");
}

// Any other failure is for good: a manager that cannot be reached is told nothing.
bool SystemdNotifier::send(const std::string& text) const {
    const ssize_t sent = ::sendto(m_socket.get(), text.data(), text.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&m_address), m_addressLength);
    return sent >= 0 || (errno != EAGAIN && errno != EINTR);
}

}  // namespace kelm
